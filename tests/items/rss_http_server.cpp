#include "rss_http_server.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace rss_test {

namespace {
// Binds to 127.0.0.1 port 0 and prints the port the kernel chose, so that
// no port is guessed and none is raced for.
const char* const SERVER_SCRIPT = R"(
import functools, http.server, sys
class Quiet(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *args):
        pass
server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Quiet, directory=sys.argv[1]))
print(server.server_address[1], flush=True)
server.serve_forever()
)";

bool wait_for_exit(pid_t pid, int timeout_ms)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < end) {
        if (waitpid(pid, nullptr, WNOHANG) == pid)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}
} // namespace

local_http_server::local_http_server(const std::string& directory)
{
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        return;
    pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        const int devnull = open("/dev/null", O_RDWR);
        dup2(devnull, 0);
        dup2(devnull, 2);
        execl("/usr/bin/python3", "python3", "-c", SERVER_SCRIPT, directory.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(out[1]);
    std::string line;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (pid > 0 && line.find('\n') == std::string::npos) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        pollfd p{out[0], POLLIN, 0};
        if (left <= 0 || poll(&p, 1, int(left)) <= 0)
            break;
        char buf[64];
        const ssize_t n = read(out[0], buf, sizeof buf);
        if (n <= 0)
            break;
        line.append(buf, size_t(n));
    }
    close(out[0]);
    if (line.find('\n') != std::string::npos)
        listening_port = std::atoi(line.c_str());
}

local_http_server::~local_http_server()
{
    if (pid <= 0)
        return;
    kill(pid, SIGTERM);
    if (!wait_for_exit(pid, 2000)) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

std::string local_http_server::url(const std::string& path) const
{
    return "http://127.0.0.1:" + std::to_string(listening_port) + path;
}

silent_listener::silent_listener()
{
    fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 4) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
        return;
    listening_port = ntohs(addr.sin_port);
}

silent_listener::~silent_listener()
{
    for (int c : taken)
        close(c);
    if (fd >= 0)
        close(fd);
}

int silent_listener::take_connections(int timeout_ms)
{
    if (fd < 0)
        return 0;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) > 0)
        for (;;) {
            const int c = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (c < 0)
                break;
            taken.push_back(c);
            // Only what is already queued: the listening socket blocks.
            pollfd more{fd, POLLIN, 0};
            if (poll(&more, 1, 0) <= 0)
                break;
        }
    return int(taken.size());
}

scoped_env::scoped_env(const char* name_, const char* value) : name(name_)
{
    const char* v = std::getenv(name_);
    had_previous = v != nullptr;
    previous = v ? v : "";
    if (value)
        setenv(name_, value, 1);
    else
        unsetenv(name_);
}

scoped_env::~scoped_env()
{
    if (had_previous)
        setenv(name.c_str(), previous.c_str(), 1);
    else
        unsetenv(name.c_str());
}

} // namespace rss_test
