#include <t4mi/client.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "platform/packet_codec.h"

namespace {

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool to_u64(const std::string& s, uint64_t* out)
{
    if (s.empty() || s.size() > 20)
        return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long long v = std::strtoull(s.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || s[0] == '-')
        return false;
    *out = v;
    return true;
}

} // namespace

std::string t4mi_client_reply::entry(const std::string& name) const
{
    for (const auto& e : packet.entries)
        if (e.name == name)
            return e.value;
    return {};
}

t4mi_client::~t4mi_client() { close(); }

bool t4mi_client::fail(const std::string& message)
{
    last_error = message;
    return false;
}

bool t4mi_client::connect(const std::string& path, int connect_timeout_ms)
{
    close();
    sockaddr_un addr{};
    if (path.size() >= sizeof addr.sun_path)
        return fail("socket path too long: " + path);
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const int64_t deadline = now_ms() + connect_timeout_ms;
    for (;;) {
        const int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (s < 0)
            return fail(std::string("socket: ") + std::strerror(errno));
        if (::connect(s, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) {
            fcntl(s, F_SETFL, fcntl(s, F_GETFL) | O_NONBLOCK);
            fd = s;
            return true;
        }
        const int e = errno;
        ::close(s);
        if ((e != ENOENT && e != ECONNREFUSED && e != EAGAIN) || now_ms() >= deadline)
            return fail("cannot connect to " + path + ": " + std::strerror(e));
        if (idle_hook)
            idle_hook();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void t4mi_client::unmap_all()
{
    for (auto& [id, m] : buffers)
        munmap(const_cast<uint8_t*>(m.base), m.size);
    buffers.clear();
    held_frames.clear();
}

void t4mi_client::close()
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
    for (int f : received_fds)
        ::close(f);
    received_fds.clear();
    input.clear();
    replies.clear();
    pushed.clear();
    unmap_all();
}

bool t4mi_client::wait_io(short events, int64_t deadline_ms)
{
    for (;;) {
        const int64_t left = deadline_ms - now_ms();
        if (left <= 0)
            return false;
        pollfd p{fd, events, 0};
        // With a hook the server runs in this thread: let it work first,
        // then look, and wake up often for it.
        if (idle_hook) {
            idle_hook();
            if (poll(&p, 1, 0) > 0)
                return true;
        }
        const int n = poll(&p, 1, idle_hook ? 1 : int(std::min<int64_t>(left, 1000)));
        if (n > 0)
            return true;
        if (n < 0 && errno != EINTR)
            return false;
    }
}

bool t4mi_client::write_all(const std::vector<uint8_t>& bytes)
{
    const int64_t deadline = now_ms() + timeout_ms;
    size_t at = 0;
    while (at < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (n > 0) {
            at += size_t(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (idle_hook)
                idle_hook();
            if (wait_io(POLLOUT, deadline))
                continue;
            close();
            return fail("timed out sending");
        }
        const std::string reason = std::strerror(errno);
        close();
        return fail("send failed: " + reason);
    }
    return true;
}

uint32_t t4mi_client::send(const comm_socket_v4_packet& request)
{
    if (fd < 0) {
        fail("not connected");
        return 0;
    }
    const uint32_t id = next_id++;
    if (next_id == 0)
        next_id = 1;
    std::vector<uint8_t> bytes;
    if (!comm_socket_v4_packet_encode(request, 0, id, &bytes)) {
        fail("request too large");
        return 0;
    }
    return write_all(bytes) ? id : 0;
}

bool t4mi_client::decode_buffered()
{
    using r = comm_socket_v4_decode_result;
    size_t at = 0;
    bool ok = true;
    while (at < input.size()) {
        t4mi_client_reply reply;
        size_t used = 0;
        const r result = comm_socket_v4_packet_decode(input.data() + at, input.size() - at, &reply.packet,
                                                      &reply.header, &used);
        if (result == r::incomplete)
            break;
        if (result == r::malformed) {
            ok = false;
            break;
        }
        at += used;
            if (reply.header.flags & COMM_SOCKET_V4_FLAG_FD) {
            // The descriptor travels with the packet's first byte, so it is
            // here by the time the packet is whole. It is mapped now, so
            // that replies waited for out of order find their buffer.
            if (received_fds.empty()) {
                ok = false;
                break;
            }
            const int buffer_fd = received_fds.front();
            received_fds.pop_front();
            uint64_t buffer = 0;
            if (!to_u64(reply.entry("buffer"), &buffer) || buffer > 65535)
                ::close(buffer_fd);
            else
                map_buffer(int32_t(buffer), buffer_fd);  // a failure shows when the frame is located
        }
        if (reply.header.flags & COMM_SOCKET_V4_FLAG_PUSH)
            pushed.push_back(std::move(reply));
        else
            replies[reply.header.request_id] = std::move(reply);
    }
    input.erase(input.begin(), input.begin() + long(at));
    return ok;
}

bool t4mi_client::read_some(int64_t deadline_ms)
{
    if (fd < 0)
        return fail("not connected");
    uint8_t buf[64 * 1024];
    iovec iov{buf, sizeof buf};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 8)];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    // Read first and wait only when nothing is there: a reply that has
    // already arrived then costs one system call, not two.
    ssize_t n = recvmsg(fd, &msg, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        if (!wait_io(POLLIN, deadline_ms))
            return fail("timed out waiting for the server");
        msg.msg_controllen = sizeof control;
        n = recvmsg(fd, &msg, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return true;
    if (n <= 0) {
        const std::string reason = n == 0 ? "the server closed the connection" : std::strerror(errno);
        close();
        return fail(reason);
    }
    for (cmsghdr* cm = CMSG_FIRSTHDR(&msg); cm != nullptr; cm = CMSG_NXTHDR(&msg, cm)) {
        if (cm->cmsg_level != SOL_SOCKET || cm->cmsg_type != SCM_RIGHTS)
            continue;
        const size_t count = (cm->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; i++) {
            int f = -1;
            std::memcpy(&f, CMSG_DATA(cm) + i * sizeof(int), sizeof(int));
            received_fds.push_back(f);
        }
    }
    input.insert(input.end(), buf, buf + n);
    if (!decode_buffered()) {
        close();
        return fail("garbage from the server");
    }
    return true;
}

bool t4mi_client::wait_reply(uint32_t request_id, t4mi_client_reply* reply)
{
    const int64_t deadline = now_ms() + timeout_ms;
    for (;;) {
        const auto it = replies.find(request_id);
        if (it != replies.end()) {
            *reply = std::move(it->second);
            replies.erase(it);
            return true;
        }
        if (!read_some(deadline))
            return false;
    }
}

bool t4mi_client::call(const comm_socket_v4_packet& request, t4mi_client_reply* reply)
{
    const uint32_t id = send(request);
    return id != 0 && wait_reply(id, reply);
}

bool t4mi_client::next_push(t4mi_client_reply* push, int wait_ms)
{
    const int64_t deadline = now_ms() + wait_ms;
    while (pushed.empty()) {
        if (!read_some(deadline))
            return false;
    }
    *push = std::move(pushed.front());
    pushed.pop_front();
    return true;
}

bool t4mi_client::send_settings(const t4mi_client_settings& s, t4mi_client_reply* reply)
{
    comm_socket_v4_packet p;
    p.command = "settings";
    auto add = [&](const char* name, int64_t v) {
        if (v != 0)
            p.entries.push_back({name, std::to_string(v)});
    };
    add("width", s.width);
    add("height", s.height);
    add("time_scale", s.time_scale);
    add("frame_duration", s.frame_duration);
    add("field_rate", s.field_rate);
    add("aspect_num", s.aspect_num);
    add("aspect_den", s.aspect_den);
    t4mi_client_reply local;
    t4mi_client_reply& r = reply != nullptr ? *reply : local;
    if (!call(p, &r))
        return false;
    return r.ok() || fail("settings refused: " + r.entry("message"));
}

uint32_t t4mi_client::send_frame_request(uint64_t n, uint32_t variant, uint32_t flags)
{
    comm_socket_v4_packet p;
    p.command = "frame";
    p.entries.push_back({"frame", std::to_string(n)});
    if (variant != 0)
        p.entries.push_back({"variant", std::to_string(variant)});
    if (flags != 0)
        p.entries.push_back({"flags", std::to_string(flags)});
    return send(p);
}

bool t4mi_client::request_frame(uint64_t n, uint32_t variant, uint32_t flags, t4mi_client_frame* frame)
{
    const uint32_t id = send_frame_request(n, variant, flags);
    return id != 0 && receive_frame(id, frame);
}

bool t4mi_client::map_buffer(int32_t buffer, int buffer_fd)
{
    struct stat st {};
    if (fstat(buffer_fd, &st) != 0 || st.st_size <= 0) {
        ::close(buffer_fd);
        return fail("buffer descriptor unusable");
    }
    void* base = mmap(nullptr, size_t(st.st_size), PROT_READ, MAP_SHARED, buffer_fd, 0);
    ::close(buffer_fd);
    if (base == MAP_FAILED)
        return fail(std::string("cannot map the frame buffer: ") + std::strerror(errno));
    // A newer buffer replaces the old ones once nothing in them is held.
    for (auto it = buffers.begin(); it != buffers.end();) {
        if (it->first != buffer && it->second.held == 0) {
            munmap(const_cast<uint8_t*>(it->second.base), it->second.size);
            it = buffers.erase(it);
        } else {
            ++it;
        }
    }
    if (auto old = buffers.find(buffer); old != buffers.end())
        munmap(const_cast<uint8_t*>(old->second.base), old->second.size);
    buffers[buffer] = mapping{static_cast<const uint8_t*>(base), size_t(st.st_size), 0};
    return true;
}

bool t4mi_client::locate_frame(const t4mi_client_reply& r, t4mi_client_frame* f)
{
    uint64_t n = 0, variant = 0, buffer = 0, rendered = 0;
    if (!to_u64(r.entry("frame"), &n) || !to_u64(r.entry("variant"), &variant) ||
        !to_u64(r.entry("buffer"), &buffer) || !to_u64(r.entry("offset"), &f->offset) ||
        !to_u64(r.entry("length"), &f->length) || !to_u64(r.entry("descriptor"), &f->descriptor_offset) ||
        !to_u64(r.entry("rendered"), &rendered) || buffer > 65535 || variant > UINT32_MAX)
        return fail("frame reply without a location");
    f->frame_number = n;
    f->variant = uint32_t(variant);
    f->rendered = int64_t(rendered);
    f->buffer = int32_t(buffer);
    const auto m = buffers.find(f->buffer);
    if (m == buffers.end())
        return fail("frame in a buffer that was never passed");
    const size_t size = m->second.size;
    if (f->offset > size || f->length > size - f->offset || f->descriptor_offset > f->length ||
        f->length - f->descriptor_offset < t4mi_frame_descriptor_length)
        return fail("frame location outside its buffer");
    const uint8_t* base = m->second.base;
    const uint8_t* d = base + f->offset + f->descriptor_offset;
    t4mi_frame_descriptor_view view;
    if (!t4mi_parse_frame_descriptor(d, t4mi_frame_descriptor_length, &view))
        return fail("bad frame descriptor");
    f->descriptor = d;
    f->width = view.width;
    f->height = view.height;
    f->y_stride = view.y_stride;
    f->u_stride = view.u_stride;
    f->v_stride = view.v_stride;
    f->alpha_stride = view.alpha_stride;
    const uint32_t x_div = uint32_t(view.chroma_x_divisor_less_1) + 1;
    const uint32_t y_div = uint32_t(view.chroma_y_divisor_less_1) + 1;
    f->chroma_width = (f->width + x_div - 1) / x_div;
    f->chroma_height = (f->height + y_div - 1) / y_div;
    // Every plane must lie inside the buffer with its rows.
    auto plane = [&](uint32_t offset, uint32_t stride, uint32_t width, uint32_t rows, const uint8_t** out) {
        if (offset == t4mi_frame_descriptor_no_plane)
            return false;
        if (stride < width || uint64_t(offset) + uint64_t(stride) * rows > size)
            return false;
        *out = base + offset;
        return true;
    };
    if (f->width == 0 || f->height == 0 || uint64_t(view.frame_number) != rendered ||
        !plane(view.y_offset, f->y_stride, f->width, f->height, &f->y) ||
        !plane(view.u_offset, f->u_stride, f->chroma_width, f->chroma_height, &f->u) ||
        !plane(view.v_offset, f->v_stride, f->chroma_width, f->chroma_height, &f->v))
        return fail("frame descriptor outside its buffer");
    f->alpha = nullptr;
    if (view.has_alpha() && !plane(view.alpha_offset, f->alpha_stride, f->width, f->height, &f->alpha))
        return fail("frame descriptor outside its buffer");
    return true;
}

bool t4mi_client::receive_frame(uint32_t request_id, t4mi_client_frame* frame)
{
    t4mi_client_reply r;
    if (request_id == 0 || !wait_reply(request_id, &r))
        return false;
    if (!r.ok())
        return fail("frame refused: " + r.entry("message"));
    if (!locate_frame(r, frame))
        return false;
    buffers[frame->buffer].held++;
    held_frames[{frame->frame_number, frame->variant}].push_back(frame->buffer);
    return true;
}

bool t4mi_client::release_frame(uint64_t n, uint32_t variant)
{
    return receive_release(send_release(n, variant));
}

uint32_t t4mi_client::send_release(uint64_t n, uint32_t variant)
{
    comm_socket_v4_packet p;
    p.command = "release";
    p.entries.push_back({"frame", std::to_string(n)});
    if (variant != 0)
        p.entries.push_back({"variant", std::to_string(variant)});
    const uint32_t id = send(p);
    if (id == 0)
        return 0;
    if (auto it = held_frames.find({n, variant}); it != held_frames.end() && !it->second.empty()) {
        if (auto m = buffers.find(it->second.back()); m != buffers.end() && m->second.held > 0)
            m->second.held--;
        it->second.pop_back();
        if (it->second.empty())
            held_frames.erase(it);
    }
    return id;
}

bool t4mi_client::receive_release(uint32_t request_id)
{
    t4mi_client_reply r;
    if (request_id == 0 || !wait_reply(request_id, &r))
        return false;
    return r.ok() || fail("release refused: " + r.entry("message"));
}

bool t4mi_client::send_data(const std::string& json, bool* changed)
{
    comm_socket_v4_packet p;
    p.command = "data";
    p.set_data(json.data(), json.size());
    t4mi_client_reply r;
    if (!call(p, &r))
        return false;
    if (changed != nullptr)
        *changed = r.entry("changed") == "1";
    return r.ok() || fail("data refused: " + r.entry("message"));
}

bool t4mi_client::reload()
{
    comm_socket_v4_packet p;
    p.command = "reload";
    t4mi_client_reply r;
    return call(p, &r) && (r.ok() || fail("reload refused: " + r.entry("message")));
}

bool t4mi_client::set_text(const std::vector<std::pair<std::string, std::string>>& entries)
{
    comm_socket_v4_packet p;
    p.command = "v4::text";
    for (const auto& [name, value] : entries)
        p.entries.push_back({name, value});
    t4mi_client_reply r;
    return call(p, &r) && (r.ok() || fail("v4::text refused: " + r.entry("message")));
}

bool t4mi_client::status(std::string* json, int subscribe)
{
    comm_socket_v4_packet p;
    p.command = "status";
    if (subscribe >= 0)
        p.entries.push_back({"subscribe", subscribe ? "1" : "0"});
    t4mi_client_reply r;
    if (!call(p, &r))
        return false;
    size_t n = 0;
    const char* data = comm_socket_v4_packet_get_data(&r.packet, &n);
    json->assign(data, n);
    return r.ok() || fail("status refused: " + r.entry("message"));
}

bool t4mi_client_read_ready(const std::string& metadir, std::string* socket_path)
{
    const int f = open((metadir + "/status.json").c_str(), O_RDONLY | O_CLOEXEC);
    if (f < 0)
        return false;
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = read(f, buf, sizeof buf)) > 0 && text.size() < (1u << 20))
        text.append(buf, size_t(n));
    ::close(f);
    const nlohmann::json j = nlohmann::json::parse(text, nullptr, false);
    if (!j.is_object() || !j.contains("ready") || !j["ready"].is_number_integer() || j["ready"].get<int>() != 1)
        return false;
    if (socket_path != nullptr && j.contains("socket") && j["socket"].is_string())
        *socket_path = j["socket"].get<std::string>();
    return true;
}
