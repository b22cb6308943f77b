// One client connection: non-blocking reads into a bounded input buffer,
// packet decoding, and a bounded queue of replies written as the client
// takes them, with a buffer descriptor passed along where a reply carries one.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "platform/clock.h"
#include "platform/comm_server_p.h"
#include "platform/serve.h"
#include "platform/t4mi_globals.h"

t4mi_connection::~t4mi_connection()
{
    for (auto& o : output)
        if (o.fd >= 0)
            close(o.fd);
    if (fd >= 0)
        close(fd);
}

void connection_drop(t4mi_connection* c, const char* reason)
{
    if (c->closed)
        return;
    c->closed = true;
    if (reason != nullptr)
        std::fprintf(stderr, "Control client %llu dropped: %s\n", static_cast<unsigned long long>(c->serial), reason);
    // Its descriptors and buffers go at once, so that a client dropped to make
    // room makes it now; the rest goes when the connection is freed.
    close(c->fd);
    c->fd = -1;
    for (auto& o : c->output)
        if (o.fd >= 0)
            close(o.fd);
    c->output.clear();
    c->output_bytes = 0;
    std::vector<uint8_t>().swap(c->input);
    c->unfinished_since_us = 0;
}

void connection_queue(t4mi_connection* c, const comm_socket_v4_packet& p, uint16_t flags, uint32_t request_id,
                      int fd)
{
    if (c->closed)
        return;
    t4mi_outgoing o;
    if (!comm_socket_v4_packet_encode(p, flags | (fd >= 0 ? COMM_SOCKET_V4_FLAG_FD : 0), request_id, &o.bytes)) {
        // Only a reply of ours can be too large (a status text); say so instead.
        comm_socket_v4_packet e;
        comm_socket_v4_packet_begin_writing(&e, 0, p.command.size() <= 0xFFFF ? p.command.c_str() : "", "ERROR");
        comm_socket_v4_packet_write_nv_text(&e, "message", "Reply too large");
        comm_socket_v4_packet_write_end(&e);
        o.bytes.clear();
        if (!comm_socket_v4_packet_encode(e, flags & ~COMM_SOCKET_V4_FLAG_FD, request_id, &o.bytes))
            return;
        fd = -1;
    }
    if (c->output_bytes + o.bytes.size() > comm_socket_v4_server_limits.max_output_bytes) {
        connection_drop(c, "not reading its replies");
        return;
    }
    if (fd >= 0) {
        o.fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
        if (o.fd < 0) {
            connection_drop(c, "cannot pass a buffer descriptor");
            return;
        }
    }
    c->output_bytes += o.bytes.size();
    c->output.push_back(std::move(o));
}

size_t connection_flush(t4mi_connection* c)
{
    size_t written = 0;
    while (!c->closed && !c->output.empty()) {
        t4mi_outgoing& o = c->output.front();
        iovec iov{o.bytes.data() + o.sent, o.bytes.size() - o.sent};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        if (o.fd >= 0) {
            std::memset(control, 0, sizeof control);
            msg.msg_control = control;
            msg.msg_controllen = sizeof control;
            cmsghdr* cm = CMSG_FIRSTHDR(&msg);
            cm->cmsg_level = SOL_SOCKET;
            cm->cmsg_type = SCM_RIGHTS;
            cm->cmsg_len = CMSG_LEN(sizeof(int));
            std::memcpy(CMSG_DATA(cm), &o.fd, sizeof(int));
        }
        const ssize_t n = sendmsg(c->fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                connection_drop(c, nullptr);  // hung up
            break;
        }
        if (o.fd >= 0) {  // the descriptor went with the first byte
            close(o.fd);
            o.fd = -1;
        }
        o.sent += size_t(n);
        c->output_bytes -= size_t(n);
        written += size_t(n);
        if (o.sent == o.bytes.size())
            c->output.pop_front();
    }
    return written;
}

namespace {

// Decodes whole packets from the input buffer while there is room in the
// pending queue. False when the stream is not a packet stream.
bool decode_input(t4mi_connection* c, size_t* decoded)
{
    using r = comm_socket_v4_decode_result;
    size_t at = 0;
    bool ok = true;
    while (c->pending.size() < comm_socket_v4_server_limits.max_pending_packets && at < c->input.size()) {
        t4mi_pending_packet pp;
        size_t used = 0;
        const r result = comm_socket_v4_packet_decode(c->input.data() + at, c->input.size() - at, &pp.packet,
                                                      &pp.header, &used);
        if (result == r::incomplete)
            break;
        if (result == r::malformed) {
            ok = false;
            break;
        }
        pp.raw.assign(c->input.begin() + long(at), c->input.begin() + long(at + used));
        at += used;
        c->pending_bytes += 2 * used;
        c->last_packet_us = monotonic_clock_us();
        c->spoke = true;
        if (pp.packet.command == "frame" && parse_frame_request(pp.packet, pp.header.request_id, &pp.frame)) {
            pp.is_frame = true;
            ++c->pending_frames;
        }
        c->pending.push_back(std::move(pp));
        ++*decoded;
    }
    c->input.erase(c->input.begin(), c->input.begin() + long(at));
    return ok;
}

// Keeps the time the packet now in `input` began to arrive (from its first
// byte, or from the end of the packet before it), and gives back what a big
// packet left of the buffer once little of it is in use.
void after_decode(t4mi_connection* c, size_t decoded)
{
    if (c->input.empty())
        c->unfinished_since_us = 0;
    else if (c->unfinished_since_us == 0 || decoded > 0)
        c->unfinished_since_us = monotonic_clock_us();
    if (c->input.capacity() > (256u << 10) && c->input.size() < c->input.capacity() / 4)
        c->input.shrink_to_fit();
}

// How much the input buffer must grow to take `want` more bytes: by half
// again at least, so that copies stay few and the allocation close to what
// is filled, and never past `limit` (the packet's length, when known), so
// that what a client announces costs nothing until it sends it.
size_t input_growth(const t4mi_connection* c, size_t want, size_t limit)
{
    const size_t needed = c->input.size() + want;
    const size_t cap = c->input.capacity();
    if (needed <= cap)
        return 0;
    size_t target = std::max(needed, cap + cap / 2);
    if (limit >= needed)
        target = std::min(target, limit);
    return target - cap;
}

} // namespace

size_t connection_read(t4mi_connection* c)
{
    size_t decoded = 0;
    // Packets that arrived while the pending queue was full come first.
    if (!c->closed && !decode_input(c, &decoded)) {
        connection_drop(c, "malformed packet");
        return decoded;
    }
    size_t budget = comm_socket_v4_server_limits.read_budget;
    while (!c->closed && budget > 0 && c->pending.size() < comm_socket_v4_server_limits.max_pending_packets) {
        // Never more than one packet's worth buffered: the header tells how
        // much is still missing, and nothing beyond the largest packet is
        // ever kept.
        size_t want = std::min<size_t>(budget, 64u << 10);
        size_t limit = 0;  // the packet's length once its header is in: the buffer never grows past it
        comm_socket_v4_header h;
        if (comm_socket_v4_peek_header(c->input.data(), c->input.size(), &h) == comm_socket_v4_decode_result::ok &&
            h.length > c->input.size()) {
            want = std::min<size_t>(budget, std::max<size_t>(want, h.length - c->input.size()));
            limit = h.length;
        }
        // Input memory is capped over all connections. Near the cap, only
        // what has arrived is asked for (at least a byte, so that a hang-up
        // is still seen); past it, the connection that buffers the most goes.
        size_t grow = input_growth(c, want, limit);
        if (grow > 0 && !server_input_room(t4mi_comm_server, c, grow, false)) {
            int arrived = 0;
            if (ioctl(c->fd, FIONREAD, &arrived) == 0)
                want = std::clamp<size_t>(size_t(std::max(arrived, 0)), 1, want);
            grow = input_growth(c, want, limit);
            if (grow > 0 && !server_input_room(t4mi_comm_server, c, grow, true))
                break;  // dropped, or the memory is all in packets still being handled: later
        }
        if (grow > 0)
            c->input.reserve(c->input.capacity() + grow);
        const size_t old = c->input.size();
        c->input.resize(old + want);
        const ssize_t n = recv(c->fd, c->input.data() + old, want, MSG_DONTWAIT);
        if (n <= 0) {
            c->input.resize(old);
            if (n < 0 && errno == EINTR)
                continue;
            if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
                connection_drop(c, nullptr);  // hung up, perhaps mid-packet: everything it held goes
            break;
        }
        c->input.resize(old + size_t(n));
        budget -= size_t(n);
        t4mi_note_client_activity(monotonic_clock_us());
        if (!decode_input(c, &decoded)) {
            connection_drop(c, "malformed packet");
            break;
        }
    }
    if (!c->closed)
        after_decode(c, decoded);
    return decoded;
}

t4mi_pending_packet connection_take_pending(t4mi_connection* c)
{
    t4mi_pending_packet pp = std::move(c->pending.front());
    c->pending.pop_front();
    c->pending_bytes -= std::min(c->pending_bytes, 2 * pp.raw.size());
    return pp;
}

size_t connection_buffered_bytes(const t4mi_connection* c) { return c->input.capacity() + c->pending_bytes; }
