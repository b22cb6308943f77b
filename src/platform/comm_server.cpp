// The listening socket: creation with owner-only permissions in a directory
// of ours, the check for a server already live on it, accept with the peer
// check, reopening after daemon(), and closing.
#include "platform/comm_server.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

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

size_t open_connections(const comm_socket_v4_server* s)
{
    size_t n = 0;
    for (const auto& [serial, c] : s->connections)
        n += c->closed ? 0 : 1;
    return n;
}

// Drops a connection that holds no frame and has nothing queued or running,
// to make room for a new one: first one that never sent a whole packet
// (silent, or stuck in its first), the oldest; else the one idle the longest
// since its last packet, if that is at least evict_idle_us, so that a client
// between two paced requests is never the one. False when there is none.
bool evict_idlest(comm_socket_v4_server* s)
{
    const uint64_t now = monotonic_clock_us();
    t4mi_connection* idlest = nullptr;
    for (const auto& [serial, c] : s->connections) {
        if (c->closed || c->in_flight || !c->pending.empty())
            continue;
        if (c->spoke && now - c->last_packet_us < comm_socket_v4_server_limits.evict_idle_us)
            continue;
        const t4mi_client_context* ctx = t4mi_client_contexts.get(c->context_id);
        if (ctx != nullptr && !ctx->references.empty())
            continue;
        if (idlest == nullptr || (idlest->spoke && !c->spoke) ||
            (idlest->spoke == c->spoke && c->last_packet_us < idlest->last_packet_us))
            idlest = c.get();
    }
    if (idlest == nullptr)
        return false;
    connection_drop(idlest, "idle, evicted to make room");
    return true;
}

// How many connections the descriptor limit leaves room for: every
// descriptor above the listening socket's (the process's own come first)
// but descriptor_headroom, which serving needs besides (a new frame buffer,
// the descriptors sent with replies, files). The limit is read again after a
// second, and at once after accept ran out of descriptors.
size_t descriptor_budget(comm_socket_v4_server* s, uint64_t now, bool reread)
{
    if (reread || now - s->descriptor_limit_read_us > 1000000) {
        rlimit lim{};
        s->descriptor_limit = getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur != RLIM_INFINITY
                                  ? uint64_t(lim.rlim_cur)
                                  : UINT64_MAX;
        s->descriptor_limit_read_us = now;
    }
    const uint64_t own = uint64_t(s->listen_fd) + 1 + comm_socket_v4_server_limits.descriptor_headroom;
    return s->descriptor_limit > own ? size_t(std::min<uint64_t>(s->descriptor_limit - own, SIZE_MAX)) : 0;
}

// True when a client waits in the listening socket's backlog.
bool client_waiting(const comm_socket_v4_server* s)
{
    pollfd p{s->listen_fd, POLLIN, 0};
    return poll(&p, 1, 0) > 0 && (p.revents & POLLIN) != 0;
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
    const comm_socket_v4_limits& limits = comm_socket_v4_server_limits;
    using ls = comm_socket_v4_server::listen_state;
    // Nobody waits: no accept() at all (see listen_state). The poll's word
    // holds for one call; later calls ask the socket again.
    const ls known = std::exchange(s->listen, ls::unknown);
    if (known == ls::empty || (known == ls::unknown && !client_waiting(s)))
        return 0;
    int accepted = 0;
    for (int i = 0; i < 8; i++) {
        const uint64_t now = monotonic_clock_us();
        if (now < s->accept_paused_until_us)
            break;
        // Short of descriptors a new client is not taken in: it waits in the
        // backlog until a connection goes or an idle one makes room. The
        // listening socket rests meanwhile; polling it would only spin.
        if (open_connections(s) >= descriptor_budget(s, now, false)) {
            if (!client_waiting(s))
                break;
            if (!evict_idlest(s)) {
                s->accept_paused_until_us = now + limits.accept_pause_us;
                break;
            }
        }
        const int fd = accept4(s->listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                break;
            // Out of descriptors or memory all the same: rest, and make room.
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                s->accept_paused_until_us = now + limits.accept_pause_us;
                descriptor_budget(s, now, true);
                evict_idlest(s);
                break;
            }
            return -1;
        }
        if (!peer_allowed(fd)) {
            close(fd);
            continue;
        }
        // At the connection limit a new client still gets in while some
        // connection is merely idle.
        if (open_connections(s) >= limits.max_connections && !evict_idlest(s)) {
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
        c->last_packet_us = now;
        ctx->connection = c.get();
        s->connections.emplace(c->serial, std::move(c));
        t4mi_note_client_activity(now);
        ++accepted;
    }
    return accepted;
}

bool server_input_room(comm_socket_v4_server* s, t4mi_connection* reader, size_t extra, bool make_room)
{
    if (s == nullptr)
        return true;
    const size_t cap = comm_socket_v4_server_limits.max_input_bytes;
    while (!reader->closed) {
        size_t total = 0, most = 0;
        t4mi_connection* biggest = nullptr;
        for (const auto& [serial, c] : s->connections) {
            const size_t held = c->closed ? 0 : connection_buffered_bytes(c.get());
            total += held;
            if (held > most) {
                most = held;
                biggest = c.get();
            }
        }
        if (total + extra <= cap)
            return true;
        // The connection that buffers the most goes, which is never one that
        // sends small packets while another sends big ones.
        if (!make_room || biggest == nullptr)
            return false;
        connection_drop(biggest, "too much buffered input");
    }
    return false;
}

void server_expire_unfinished(comm_socket_v4_server* s, uint64_t now_us)
{
    if (s == nullptr)
        return;
    const comm_socket_v4_limits& limits = comm_socket_v4_server_limits;
    for (const auto& [serial, c] : s->connections) {
        if (c->closed || c->unfinished_since_us == 0)
            continue;
        // While its queue is full the server does not read the socket: that
        // time is not the client's.
        if (c->pending.size() >= limits.max_pending_packets)
            c->unfinished_since_us = now_us;
        else if (now_us - c->unfinished_since_us > limits.unfinished_packet_us)
            connection_drop(c.get(), "unfinished packet");
    }
}
