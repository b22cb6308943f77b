// The serve loop's calls into the serving side (contracts in serve.h).
#include "platform/serve.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <poll.h>
#include <vector>

#include "platform/client_context.h"
#include "platform/clock.h"
#include "platform/comm_server_p.h"
#include "platform/derived_params.h"
#include "platform/t4mi_globals.h"

namespace {

constexpr uint64_t status_check_interval_us = 1000000;

// Work that needs no new input: packets waiting to be handled, whole
// packets still in the input buffer, connections to free.
bool has_work_at_hand(const comm_socket_v4_server* s)
{
    for (const auto& [serial, c] : s->connections) {
        if (c->closed) {
            if (t4mi_serve_depth == 0)
                return true;
            continue;
        }
        if (!c->in_flight && !c->pending.empty())
            return true;
        comm_socket_v4_header h;
        if (c->pending.size() < comm_socket_v4_server_limits.max_pending_packets &&
            comm_socket_v4_peek_header(c->input.data(), c->input.size(), &h) == comm_socket_v4_decode_result::ok &&
            h.length <= c->input.size())
            return true;
    }
    return false;
}

std::vector<uint64_t> connection_serials(const comm_socket_v4_server* s)
{
    std::vector<uint64_t> v;
    v.reserve(s->connections.size());
    for (const auto& [serial, c] : s->connections)
        v.push_back(serial);
    return v;
}

t4mi_connection* find_connection(comm_socket_v4_server* s, uint64_t serial)
{
    const auto it = s->connections.find(serial);
    return it == s->connections.end() ? nullptr : it->second.get();
}

void sleep_until(uint64_t deadline_us)
{
    const uint64_t now = monotonic_clock_us();
    if (deadline_us <= now)
        return;
    const uint64_t left = deadline_us - now;
    timespec ts{time_t(left / 1000000), long(left % 1000000) * 1000};
    nanosleep(&ts, nullptr);  // a signal ends it early, which is what the loop wants
}

} // namespace

int comm_socket_v4_server_from_client_readable(comm_socket_v4_server* s, uint64_t deadline_us)
{
    if (s == nullptr) {
        sleep_until(deadline_us);
        return 0;
    }
    if (has_work_at_hand(s)) {
        s->listen = comm_socket_v4_server::listen_state::unknown;
        return 1;
    }
    std::vector<pollfd> fds;
    fds.reserve(s->connections.size() + 1);
    const uint64_t now = monotonic_clock_us();
    const bool listening = s->listen_fd >= 0 && now >= s->accept_paused_until_us;
    if (listening)
        fds.push_back({s->listen_fd, POLLIN, 0});
    for (const auto& [serial, c] : s->connections) {
        if (c->closed)
            continue;
        short events = 0;
        if (c->pending.size() < comm_socket_v4_server_limits.max_pending_packets)
            events |= POLLIN;
        if (!c->output.empty())
            events |= POLLOUT;
        fds.push_back({c->fd, events, 0});
    }
    const uint64_t left = deadline_us > now ? deadline_us - now : 0;
    const timespec ts{time_t(left / 1000000), long(left % 1000000) * 1000};
    const int n = ppoll(fds.data(), fds.size(), &ts, nullptr);
    if (n < 0) {
        s->listen = comm_socket_v4_server::listen_state::unknown;
        return errno == EINTR ? 0 : -1;
    }
    using ls = comm_socket_v4_server::listen_state;
    s->listen = !listening ? ls::unknown : (fds[0].revents & (POLLIN | POLLERR | POLLHUP)) != 0 ? ls::waiting : ls::empty;
    return n > 0 ? 1 : 0;
}

int idle_t4mi_server_comm()
{
    comm_socket_v4_server* s = t4mi_comm_server;
    if (s == nullptr)
        return 0;
    const int accepted = server_accept(s);
    if (accepted < 0)
        return -1;
    size_t work = size_t(accepted);
    for (uint64_t serial : connection_serials(s)) {
        t4mi_connection* c = find_connection(s, serial);
        if (c == nullptr || c->closed)
            continue;
        work += connection_flush(c) > 0 ? 1 : 0;
        work += connection_read(c);
        work += connection_dispatch_control(c);
        connection_flush(c);
    }
    const size_t before = s->connections.size();
    server_reap_closed(s);
    work += before - s->connections.size();
    return int(std::min<size_t>(work, 1u << 30));
}

int idle_t4mi_client_contexts()
{
    comm_socket_v4_server* s = t4mi_comm_server;
    if (s == nullptr || t4mi_serve_depth > 0)
        return 0;
    int ran = 0;
    for (uint64_t serial : connection_serials(s)) {
        if (DIE4 != 0)
            break;  // shutting down: nobody waits for the queued frames any more
        t4mi_connection* c = find_connection(s, serial);
        if (c == nullptr || c->closed || c->in_flight)
            continue;
        if (!c->pending.empty() && c->pending.front().is_frame) {
            connection_run_frame_request(c);
            ++ran;
        }
        connection_dispatch_control(c);
        connection_flush(c);
    }
    server_reap_closed(s);
    return ran;
}

void t4mi_idle_housekeeping()
{
    const uint64_t now = monotonic_clock_us();
    // A client that never releases its frames would pin them for ever.
    if (picture_auto_deref_delay != 0 && now > picture_auto_deref_delay)
        for (const auto& [id, ctx] : t4mi_client_contexts.all())
            ctx->expire_references_held_since(now - picture_auto_deref_delay);
    comm_socket_v4_server* s = t4mi_comm_server;
    if (s == nullptr)
        return;
    if (!s->connections.empty())
        t4mi_note_client_activity(now);
    server_expire_unfinished(s, now);
    server_reap_closed(s);
}

void json_check_xmit(uint64_t now_us)
{
    comm_socket_v4_server* s = t4mi_comm_server;
    if (s == nullptr || (json_next_xmit != 0 && now_us < json_next_xmit))
        return;
    json_next_xmit = now_us + status_check_interval_us;
    bool anyone = false;
    for (const auto& [serial, c] : s->connections)
        anyone = anyone || (c->status_subscribed && !c->closed);
    if (!anyone)
        return;
    if (!json_next_xmit_rebuild)
        rebuild_json();
    const std::string text = t4mi_item_json();
    for (const auto& [serial, c] : s->connections) {
        if (!c->status_subscribed || c->closed || c->status_last == text)
            continue;
        comm_socket_v4_packet p;
        p.command = "status";
        p.status = "OK";
        p.set_data(text.data(), text.size());
        c->status_last = text;
        connection_queue(c.get(), p, COMM_SOCKET_V4_FLAG_PUSH, 0);
        connection_flush(c.get());
    }
}

void t4mi_note_client_activity(uint64_t now_us)
{
    if (mono_auto_shutdown != 0 && auto_shutdown_delay_initial != 0)
        mono_auto_shutdown = std::max(mono_auto_shutdown, now_us + auto_shutdown_delay_initial);
}

size_t t4mi_connection_pending_frame_requests(const t4mi_connection* c)
{
    return c != nullptr ? c->pending_frames : 0;
}

bool t4mi_connection_is_closed(const t4mi_connection* c) { return c == nullptr || c->closed; }

uint64_t t4mi_connection_serial(const t4mi_connection* c) { return c != nullptr ? c->serial : 0; }
