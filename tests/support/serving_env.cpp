#include "support/serving_env.h"


#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "frames/frame_buffer.h"
#include "platform/comm_server.h"
#include "platform/serve.h"
#include "platform/t4mi_client.h"
#include "platform/t4mi_globals.h"

namespace t4test {

namespace {
int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
} // namespace

// --- control_server -------------------------------------------------------------

control_server::control_server() : path(dir / "control.sock")
{
    t4mi_comm_server = comm_socket_v4_server_create(path.c_str());
}

control_server::~control_server()
{
    comm_socket_v4_server_close(t4mi_comm_server);
    t4mi_comm_server = nullptr;
    comm_socket_v4_server_limits = comm_socket_v4_limits{};
    mono_auto_shutdown = 0;
    auto_shutdown_delay_initial = 0;
    t4mi_should_exit = 0;
    json_next_xmit = 0;
}

int control_server::pump()
{
    const int a = idle_t4mi_server_comm();
    const int b = idle_t4mi_client_contexts();
    t4mi_idle_housekeeping();
    return (a < 0 || b < 0) ? -1 : a + b;
}

bool control_server::pump_until(const std::function<bool()>& done, int timeout_ms)
{
    const int64_t deadline = now_ms() + timeout_ms;
    while (!done()) {
        if (now_ms() > deadline)
            return false;
        pump();
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    return true;
}

std::unique_ptr<t4mi_client> control_server::client()
{
    auto c = std::make_unique<t4mi_client>();
    c->idle_hook = [this] { pump(); };
    c->timeout_ms = 5000;
    if (!c->connect(path, 2000))
        return nullptr;
    pump();  // accept it: its context exists when this returns
    return c;
}

// --- raw_socket -----------------------------------------------------------------

raw_socket::raw_socket(const std::string& path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        fd = -1;
    }
    if (fd >= 0)
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

raw_socket::~raw_socket()
{
    if (fd >= 0)
        close(fd);
}

size_t raw_socket::write_some(const void* bytes, size_t size)
{
    size_t at = 0;
    while (at < size) {
        const ssize_t n = send(fd, static_cast<const char*>(bytes) + at, size - at, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n <= 0)
            break;
        at += size_t(n);
    }
    return at;
}

bool raw_socket::closed_by_server(int timeout_ms, const std::function<void()>& pump)
{
    const int64_t deadline = now_ms() + timeout_ms;
    while (now_ms() < deadline) {
        if (pump)
            pump();
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, pump ? 1 : 50) > 0) {
            char buf[4096];
            const ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR))
                return true;
        }
    }
    return false;
}

bool raw_socket::hung_up(int timeout_ms, const std::function<void()>& pump)
{
    const int64_t deadline = now_ms() + timeout_ms;
    while (now_ms() < deadline) {
        if (pump)
            pump();
        pollfd p{fd, 0, 0};
        if (poll(&p, 1, pump ? 1 : 50) > 0 && (p.revents & (POLLHUP | POLLERR)))
            return true;
    }
    return false;
}

// --- serving_process ------------------------------------------------------------

serving_process::serving_process(const std::string& binary, const std::vector<std::string>& args,
                                 const std::vector<std::string>& env, int given_err_fd, bool pipe_output)
    : err_file(dir / "stderr.txt")
{
    const int err_fd = given_err_fd >= 0 ? given_err_fd
                                         : open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    int out_pipe[2] = {-1, -1};
    if (pipe_output && pipe2(out_pipe, O_CLOEXEC) != 0)
        out_pipe[0] = out_pipe[1] = -1;
    child = fork();
    if (child == 0) {
        const int devnull = open("/dev/null", O_RDWR);
        dup2(devnull, 0);
        dup2(out_pipe[1] >= 0 ? out_pipe[1] : devnull, 1);
        dup2(err_fd, 2);
        for (const auto& e : env) {
            const auto eq = e.find('=');
            if (eq == std::string::npos)
                unsetenv(e.c_str());
            else
                setenv(e.substr(0, eq).c_str(), e.substr(eq + 1).c_str(), 1);
        }
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(binary.c_str()));
        for (const auto& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(binary.c_str(), argv.data());
        _exit(127);
    }
    if (err_fd >= 0 && err_fd != given_err_fd)
        close(err_fd);
    if (out_pipe[1] >= 0)
        close(out_pipe[1]);
    out_fd = out_pipe[0];
}

serving_process::~serving_process()
{
    close_output();
    if (child > 0 && running()) {
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
    }
}

void serving_process::close_output()
{
    if (out_fd >= 0)
        close(out_fd);
    out_fd = -1;
}

bool serving_process::running()
{
    if (child <= 0)
        return false;
    int status = 0;
    const pid_t r = waitpid(child, &status, WNOHANG);
    if (r == child) {
        exited = true;
        exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        child = -1;
        return false;
    }
    return r == 0;
}

bool serving_process::wait_ready(const std::string& metadir, int timeout_ms, bool detaches)
{
    const int64_t deadline = now_ms() + timeout_ms;
    while (now_ms() < deadline) {
        if (t4mi_client_read_ready(metadir, &socket))
            return true;
        if (!running() && !detaches)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

bool serving_process::wait_exit(int timeout_ms, int* exit_status)
{
    const int64_t deadline = now_ms() + timeout_ms;
    while (running()) {
        if (now_ms() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (exit_status != nullptr)
        *exit_status = exit_code;
    return exited;
}

bool serving_process::stop(int sig, int timeout_ms, int* exit_status)
{
    if (child > 0)
        kill(child, sig);
    return wait_exit(timeout_ms, exit_status);
}

std::string serving_process::err() const { return read_file(err_file); }

double serving_process::cpu_seconds() const
{
    // Fields 14 and 15 of /proc/<pid>/stat, after the command name in parentheses.
    const std::string stat = read_file("/proc/" + std::to_string(child) + "/stat");
    const auto close = stat.rfind(')');
    if (child <= 0 || close == std::string::npos)
        return -1;
    std::istringstream in(stat.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && in >> field; i++) {
        if (i == 14)
            utime = std::stoull(field);
        else if (i == 15)
            stime = std::stoull(field);
    }
    return double(utime + stime) / double(sysconf(_SC_CLK_TCK));
}

long serving_process::status_kib(const std::string& field) const
{
    if (child <= 0)
        return -1;
    std::istringstream in(read_file("/proc/" + std::to_string(child) + "/status"));
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(field + ":", 0) == 0)
            return std::strtol(line.c_str() + field.size() + 1, nullptr, 10);
    return -1;
}

// --- binaries -------------------------------------------------------------------

std::string compare_frames(const t4mi_client_frame& got, const t4mi_video_frame* want)
{
    yuva_frame_planes w;
    if (!map_frame_planes(want, &w))
        return "cannot map the local frame";
    if (got.width != w.width || got.height != w.height)
        return "sizes differ";
    const uint8_t* gp[4] = {got.y, got.u, got.v, got.alpha};
    const uint32_t gs[4] = {got.y_stride, got.u_stride, got.v_stride, got.alpha_stride};
    const uint8_t* wp[4] = {w.y, w.u, w.v, w.alpha};
    const uint32_t ws[4] = {w.y_stride, w.chroma_stride, w.chroma_stride, w.alpha_stride};
    for (int p = 0; p < 4; p++)
        for (uint32_t y = 0; y < w.height; y++)
            if (std::memcmp(gp[p] + size_t(y) * gs[p], wp[p] + size_t(y) * ws[p], w.width) != 0)
                return "plane " + std::to_string(p) + " row " + std::to_string(y);
    return {};
}

std::string render_tool_binary() { return T4MI_RENDER_BIN; }
std::string control_tool_binary() { return T4MI_CONTROL_BIN; }

} // namespace t4test
