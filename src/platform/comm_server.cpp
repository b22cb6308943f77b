// The listening socket: creation with owner-only permissions in a directory
// of ours, the check for a server already live on it, accept with the peer
// check, reopening after daemon(), and closing.
#include "platform/comm_server.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/client_context.h"
#include "platform/clock.h"
#include "platform/comm_server_p.h"
#include "platform/fd_owner.h"
#include "platform/safe_files.h"
#include "platform/serve.h"
#include "platform/t4mi_globals.h"

comm_socket_v4_limits comm_socket_v4_server_limits;

namespace {

// How long a second start waits for a busy server to take its connection.
constexpr int LIVENESS_TIMEOUT_MS = 2000;

// What is listening on the socket file at `addr`: 0 when nobody is (the
// file is stale), else -1 with `*why` saying who is. The kernel names the
// pid that called listen() (SO_PEERCRED): unlike the pid in status.json it
// cannot be stale, belongs to this very socket and survives daemon().
int socket_in_use(const sockaddr_un& addr, std::string* why)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return 0;
    // A full backlog makes connect() wait; this bounds the wait.
    const timeval limit{LIVENESS_TIMEOUT_MS / 1000, (LIVENESS_TIMEOUT_MS % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    int result = 0;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) {
        ucred cred{};
        socklen_t len = sizeof cred;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 && cred.pid > 0)
            *why = "already served by pid " + std::to_string(cred.pid);
        else
            *why = "already served by another process";
        result = -1;
    } else if (errno != ECONNREFUSED && errno != ENOENT) {
        // Alive but not answering (EAGAIN: its backlog stayed full), or not
        // ours to judge (EACCES): either way not a stale file to remove.
        *why = std::string("socket in use (") + std::strerror(errno) + ")";
        result = -1;
    }
    close(fd);
    return result;
}

// Binds and listens at `path`; returns the descriptor or -1 with errno set,
// or -1 with `*why` set when the reason is not an errno. A socket file left
// by a dead server is replaced; a live one is left alone, unless it is the
// one this server bound itself (`own_dev`, `own_ino`: reopening after
// daemon()). The socket's directory must be ours and writable by nobody
// else, or another user could move the socket away.
int bind_listening_socket(const std::string& path, dev_t* dev, ino_t* ino, std::string* why, dev_t own_dev = 0,
                          ino_t own_ino = 0)
{
    sockaddr_un addr{};
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);

    const auto slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    const fd_owner dir_fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir_fd.get() < 0)
        return -1;
    if (const std::string distrust = t4mi_directory_distrust(dir_fd.get()); !distrust.empty()) {
        *why = "its directory is " + distrust;
        return -1;
    }

    // Anything at the path that is not a socket is somebody's file and stays.
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            errno = EEXIST;
            return -1;
        }
        const bool own = own_ino != 0 && st.st_dev == own_dev && st.st_ino == own_ino;
        if (!own && socket_in_use(addr, why) != 0)
            return -1;
        unlink(path.c_str());
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    // The file is created by bind with the umask's mode: make it 0600 from
    // the first moment (single-threaded, so the umask change is ours alone).
    const mode_t old_mask = umask(0177);
    const int bound = bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    umask(old_mask);
    if (bound != 0 || chmod(path.c_str(), 0600) != 0 || listen(fd, 64) != 0 ||
        lstat(path.c_str(), &st) != 0) {
        const int e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    *dev = st.st_dev;
    *ino = st.st_ino;
    return fd;
}

void report_socket_failure(const std::string& path, const std::string& why)
{
    std::fprintf(stderr, "Cannot create control socket '%s': %s\n", path.c_str(),
                 why.empty() ? std::strerror(errno) : why.c_str());
}

// Removes the socket file when it is still the one this server bound.
void unlink_own_socket(const comm_socket_v4_server* s)
{
    struct stat st {};
    if (s->owner == getpid() && lstat(s->path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode) &&
        st.st_dev == s->socket_dev && st.st_ino == s->socket_ino)
        unlink(s->path.c_str());
}

// Start-up failures after the socket was made end the process with a plain
// return from main: the socket file must not outlive it.
void remove_socket_at_exit()
{
    if (t4mi_comm_server != nullptr)
        unlink_own_socket(t4mi_comm_server);
}

void destroy_connection(comm_socket_v4_server* s, uint64_t serial)
{
    auto it = s->connections.find(serial);
    if (it == s->connections.end())
        return;
    std::unique_ptr<t4mi_connection> c = std::move(it->second);
    s->connections.erase(it);
    if (t4mi_client_context* ctx = t4mi_client_contexts.get(c->context_id)) {
        ctx->connection = nullptr;
        t4mi_client_contexts.destroy(c->context_id);
    }
}

// Only the item's owner (and root) may be served; the file mode says so too.
bool peer_allowed(int fd)
{
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0)
        return false;
    return cred.uid == getuid() || cred.uid == 0;
}

} // namespace

comm_socket_v4_server* comm_socket_v4_server_create(const char* path)
{
    auto s = std::make_unique<comm_socket_v4_server>();
    s->path = path != nullptr ? path : "";
    std::string why;
    s->listen_fd = bind_listening_socket(s->path, &s->socket_dev, &s->socket_ino, &why);
    if (s->listen_fd < 0) {
        report_socket_failure(s->path, why);
        return nullptr;
    }
    s->owner = getpid();
    static bool exit_hook = false;
    if (!exit_hook)
        exit_hook = std::atexit(remove_socket_at_exit) == 0;
    return s.release();
}

void comm_socket_v4_server_close(comm_socket_v4_server* s)
{
    if (s == nullptr)
        return;
    while (!s->connections.empty())
        destroy_connection(s, s->connections.begin()->first);
    if (s->listen_fd >= 0) {
        close(s->listen_fd);
        unlink_own_socket(s);
    }
    if (t4mi_comm_server == s)
        t4mi_comm_server = nullptr;
    delete s;
}

int comm_socket_v4_reopen_server(comm_socket_v4_server* s)
{
    if (s == nullptr)
        return 0;
    if (s->listen_fd >= 0)
        close(s->listen_fd);
    std::string why;
    s->listen_fd = bind_listening_socket(s->path, &s->socket_dev, &s->socket_ino, &why, s->socket_dev, s->socket_ino);
    if (s->listen_fd < 0) {
        report_socket_failure(s->path, why);
        return 1;
    }
    s->owner = getpid();
    return 0;
}

size_t comm_socket_v4_server_connection_count(const comm_socket_v4_server* s)
{
    return s != nullptr ? s->connections.size() : 0;
}

int comm_socket_v4_server_listen_fd(const comm_socket_v4_server* s) { return s != nullptr ? s->listen_fd : -1; }

void server_reap_closed(comm_socket_v4_server* s)
{
    if (s == nullptr || t4mi_serve_depth > 0)
        return;
    std::vector<uint64_t> doomed;
    for (const auto& [serial, c] : s->connections)
        if (c->closed)
            doomed.push_back(serial);
    for (uint64_t serial : doomed)
        destroy_connection(s, serial);
}

int server_accept(comm_socket_v4_server* s)
{
    if (s->listen_fd < 0)
        return -1;
    int accepted = 0;
    for (int i = 0; i < 8; i++) {
        const int fd = accept4(s->listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            // Out of descriptors or memory costs the new client, not the server.
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EMFILE || errno == ENFILE ||
                errno == ENOBUFS || errno == ENOMEM)
                break;
            return -1;
        }
        if (!peer_allowed(fd) || s->connections.size() >= comm_socket_v4_server_limits.max_connections) {
            close(fd);
            continue;
        }
        t4mi_client_context* ctx = t4mi_client_contexts.create();
        if (ctx == nullptr) {
            close(fd);
            continue;
        }
        auto c = std::make_unique<t4mi_connection>(fd, s->next_serial++);
        c->context_id = ctx->id;
        ctx->connection = c.get();
        s->connections.emplace(c->serial, std::move(c));
        t4mi_note_client_activity(monotonic_clock_us());
        ++accepted;
    }
    return accepted;
}
