#include "support/test_env.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace t4test {

temp_dir::temp_dir()
{
    const char* base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/t4mi-test-XXXXXX";
    if (mkdtemp(tmpl.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    dir = tmpl;
}

temp_dir::~temp_dir()
{
    std::error_code ec;
    fs::remove_all(dir, ec);
}

void make_dirs(const std::string& path) { fs::create_directories(path); }

void write_file(const std::string& path, const std::string& content)
{
    make_dirs(fs::path(path).parent_path().string());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::map<std::string, std::string> key_values(const std::string& text)
{
    std::map<std::string, std::string> m;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        if (const auto eq = line.find('='); eq != std::string::npos)
            m[line.substr(0, eq)] = line.substr(eq + 1);
    return m;
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

namespace {
void save_env(const char* name, std::string& previous, bool& had)
{
    const char* v = std::getenv(name);
    had = v != nullptr;
    previous = v ? v : "";
}
void restore_env(const char* name, const std::string& previous, bool had)
{
    if (had)
        setenv(name, previous.c_str(), 1);
    else
        unsetenv(name);
}
} // namespace

fixed_root::fixed_root()
{
    save_env("T4MI_ROOT", previous, had_previous);
    const std::string fonts = at("/usr/share/tevrin4/fonts");
    make_dirs(fonts + "/emoji");
    make_dirs(at("/mnt/main/tv/fonts"));
    make_dirs(at("/run/tevrin/weather/kestrel"));
    make_dirs(at("/usr/bin"));
    fs::create_symlink(LIBERATION_SANS, fonts + "/liberation_sans.ttf");
    fs::create_symlink(SYMBOLA, fonts + "/TwitterColorEmoji-SVGinOT.ttf");
    setenv("T4MI_ROOT", dir.path().c_str(), 1);
}

fixed_root::~fixed_root() { restore_env("T4MI_ROOT", previous, had_previous); }

private_fontconfig::private_fontconfig(const std::vector<std::string>& font_dirs)
{
    save_env("FONTCONFIG_FILE", previous, had_previous);
    std::string conf = "<?xml version=\"1.0\"?>\n<!DOCTYPE fontconfig SYSTEM \"fonts.dtd\">\n<fontconfig>\n";
    for (const auto& d : font_dirs)
        conf += "  <dir>" + d + "</dir>\n";
    conf += "  <cachedir>" + dir.path() + "/cache</cachedir>\n</fontconfig>\n";
    file = dir / "fonts.conf";
    write_file(file, conf);
    setenv("FONTCONFIG_FILE", file.c_str(), 1);
}

private_fontconfig::~private_fontconfig() { restore_env("FONTCONFIG_FILE", previous, had_previous); }

namespace {
// Reads the child's output and error until both close or the time is up
// (then kills it), and reaps it.
process_result collect_child(pid_t pid, int out_pipe[2], int err_pipe[2], int timeout_ms)
{
    close(out_pipe[1]);
    close(err_pipe[1]);
    process_result result;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    int open_pipes = 2;
    while (open_pipes > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timed_out = true;
            kill(pid, SIGKILL);
            break;
        }
        if (poll(fds, 2, int(left.count())) < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 2; i++) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP)))
                continue;
            char buf[4096];
            const ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
                open_pipes--;
            } else {
                (i == 0 ? result.out : result.err).append(buf, size_t(n));
            }
        }
    }
    for (auto& f : fds)
        if (f.fd >= 0)
            close(f.fd);
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status))
        result.exit_status = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        result.signal = WTERMSIG(status);
    return result;
}
} // namespace

process_result run_process(const std::string& program, const std::vector<std::string>& args,
                           const std::vector<std::string>& env, int timeout_ms, const std::string& cwd)
{
    int out_pipe[2], err_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out_pipe[1], 1);
        dup2(err_pipe[1], 2);
        const int devnull = open("/dev/null", O_RDONLY);
        dup2(devnull, 0);
        if (!cwd.empty() && chdir(cwd.c_str()) != 0)
            _exit(127);
        for (const auto& e : env) {
            const auto eq = e.find('=');
            setenv(e.substr(0, eq).c_str(), e.substr(eq + 1).c_str(), 1);
        }
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(program.c_str()));
        for (const auto& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    return collect_child(pid, out_pipe, err_pipe, timeout_ms);
}

std::string scrolltext_binary() { return T4MI_SCROLLTEXT_BIN; }

process_result run_in_child(const std::function<void()>& body, int timeout_ms)
{
    int out_pipe[2], err_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out_pipe[1], 1);
        dup2(err_pipe[1], 2);
        body();
        std::fflush(nullptr);
        _exit(0);
    }
    return collect_child(pid, out_pipe, err_pipe, timeout_ms);
}

} // namespace t4test
