// The commands the serving side answers itself, and the hand-over of every
// other command to the program's handler (on_t4mi_custom_packet).
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/client_context.h"
#include "platform/comm_server_p.h"
#include "platform/derived_params.h"
#include "platform/t4mi_globals.h"

namespace {

comm_socket_v4_packet reply(const std::string& command, const char* status)
{
    comm_socket_v4_packet p;
    p.command = command;
    p.status = status;
    return p;
}

void add_entry(comm_socket_v4_packet& p, const char* name, const std::string& value)
{
    p.entries.push_back({name, value});
}

void send_ok(t4mi_connection* c, comm_socket_v4_packet& p, uint32_t request_id)
{
    connection_queue(c, p, COMM_SOCKET_V4_FLAG_REPLY, request_id);
}

// Reads one optional integer entry into `out` when present. False when it
// is present but not a number in [lo, hi].
bool settings_field(const comm_socket_v4_packet& p, const char* name, int64_t lo, int64_t hi, int64_t* out)
{
    const std::string* v = find_entry(p, name);
    if (v == nullptr)
        return true;
    int64_t n = 0;
    if (!parse_i64_text(*v, &n) || n < lo || n > hi)
        return false;
    *out = n;
    return true;
}

void handle_settings(t4mi_connection* c, t4mi_client_context* ctx, const t4mi_pending_packet& pp)
{
    const comm_socket_v4_packet& p = pp.packet;
    t4mi_client_settings s;
    int64_t width = 0, height = 0, field_rate = 0;
    // A picture side is at most 4096 pixels; bigger requests would only make
    // the renderer work for nothing, so they are refused here. Timing values
    // are kept to 32 bits so that doubling for a field rate cannot overflow.
    struct field {
        const char* name;
        int64_t lo, hi;
        int64_t* out;
    } fields[] = {
        {"width", 0, 4096, &width},
        {"height", 0, 4096, &height},
        {"time_scale", 0, UINT32_MAX, &s.time_scale},
        {"frame_duration", 0, UINT32_MAX, &s.frame_duration},
        {"field_rate", INT32_MIN, INT32_MAX, &field_rate},
        {"aspect_num", 0, 65535, &s.aspect_num},
        {"aspect_den", 0, 65535, &s.aspect_den},
    };
    for (const field& f : fields) {
        if (!settings_field(p, f.name, f.lo, f.hi, f.out)) {
            reply_error(c, p.command, pp.header.request_id, std::string("Bad settings value: ") + f.name);
            return;
        }
    }
    s.width = int32_t(width);
    s.height = int32_t(height);
    s.field_rate = int32_t(field_rate);
    ctx->apply_client_settings(s);
    comm_socket_v4_packet r = reply(p.command, "OK");
    add_entry(r, "width", std::to_string(ctx->picture_width));
    add_entry(r, "height", std::to_string(ctx->picture_height));
    add_entry(r, "time_scale", std::to_string(ctx->time_scale));
    add_entry(r, "frame_duration", std::to_string(ctx->frame_duration));
    send_ok(c, r, pp.header.request_id);
}

void handle_release(t4mi_connection* c, t4mi_client_context* ctx, const t4mi_pending_packet& pp)
{
    const comm_socket_v4_packet& p = pp.packet;
    uint64_t frame = 0, variant = 0;
    const std::string* f = find_entry(p, "frame");
    const std::string* v = find_entry(p, "variant");
    if (f == nullptr || !parse_u64_text(*f, &frame) || (v != nullptr && (!parse_u64_text(*v, &variant) ||
                                                                         variant > UINT32_MAX))) {
        reply_error(c, p.command, pp.header.request_id, "Bad release request");
        return;
    }
    if (!ctx->release_reference(frame, uint32_t(variant))) {
        reply_error(c, p.command, pp.header.request_id, "Frame not held");
        return;
    }
    comm_socket_v4_packet r = reply(p.command, "OK");
    send_ok(c, r, pp.header.request_id);
}

void handle_data(t4mi_connection* c, t4mi_client_context* ctx, const t4mi_pending_packet& pp)
{
    // Parsing runs on the one thread every client shares: bounded, so that
    // it never holds up another client's frame for long.
    const size_t size = pp.packet.data_length();
    const size_t most = comm_socket_v4_server_limits.max_data_bytes;
    if (size > most) {
        reply_error(c, pp.packet.command, pp.header.request_id,
                    "Data too large: " + std::to_string(size) + " bytes, at most " + std::to_string(most));
        return;
    }
    const bool unchanged = ctx->apply_data_packet(&pp.packet);
    comm_socket_v4_packet r = reply(pp.packet.command, "OK");
    add_entry(r, "changed", unchanged ? "0" : "1");
    send_ok(c, r, pp.header.request_id);
}

void handle_status(t4mi_connection* c, const t4mi_pending_packet& pp)
{
    if (const std::string* sub = find_entry(pp.packet, "subscribe"))
        c->status_subscribed = *sub == "1";
    if (!json_next_xmit_rebuild)
        rebuild_json();
    comm_socket_v4_packet r = reply(pp.packet.command, "OK");
    const std::string text = t4mi_item_json();
    r.set_data(text.data(), text.size());
    c->status_last = text;
    send_ok(c, r, pp.header.request_id);
}

void handle_custom(t4mi_connection* c, t4mi_pending_packet& pp)
{
    comm_socket_v4_packet response;
    const int handled =
        on_t4mi_custom_packet != nullptr ? on_t4mi_custom_packet(&pp.packet, &response, pp.raw.data(), c) : 0;
    if (handled != 1) {
        reply_error(c, pp.packet.command, pp.header.request_id, "Unknown command '" + pp.packet.command + "'");
        return;
    }
    connection_queue(c, response, COMM_SOCKET_V4_FLAG_REPLY, pp.header.request_id);
}

void dispatch_one(t4mi_connection* c, t4mi_pending_packet& pp)
{
    const std::string& cmd = pp.packet.command;
    const uint32_t id = pp.header.request_id;
    if (cmd == "status") {
        handle_status(c, pp);
        return;
    }
    if (cmd == "exit") {
        t4mi_should_exit = 1;
        comm_socket_v4_packet r = reply(cmd, "OK");
        send_ok(c, r, id);
        return;
    }
    if (cmd == "settings" || cmd == "release" || cmd == "data" || cmd == "frame") {
        t4mi_client_context* ctx = client_context_tracking_get_id(t4mi_client_contexts, c->context_id, c);
        if (ctx == nullptr || ctx->closing)
            reply_error(c, cmd, id, "No client context");
        else if (cmd == "settings")
            handle_settings(c, ctx, pp);
        else if (cmd == "release")
            handle_release(c, ctx, pp);
        else if (cmd == "data")
            handle_data(c, ctx, pp);
        else  // a "frame" packet whose entries did not parse
            reply_error(c, cmd, id, "Bad frame request");
        return;
    }
    handle_custom(c, pp);
}

} // namespace

void reply_error(t4mi_connection* c, const std::string& command, uint32_t request_id, const std::string& message)
{
    comm_socket_v4_packet r = reply(command, "ERROR");
    add_entry(r, "message", message);
    connection_queue(c, r, COMM_SOCKET_V4_FLAG_REPLY, request_id);
}

bool parse_u64_text(const std::string& text, uint64_t* out)
{
    if (text.empty() || text.size() > 20)
        return false;
    uint64_t v = 0;
    for (char ch : text) {
        if (ch < '0' || ch > '9')
            return false;
        const uint64_t d = uint64_t(ch - '0');
        if (v > (UINT64_MAX - d) / 10)
            return false;
        v = v * 10 + d;
    }
    *out = v;
    return true;
}

bool parse_i64_text(const std::string& text, int64_t* out)
{
    const bool negative = !text.empty() && text[0] == '-';
    uint64_t magnitude = 0;
    if (!parse_u64_text(negative ? text.substr(1) : text, &magnitude))
        return false;
    if (negative ? magnitude > uint64_t(INT64_MAX) + 1 : magnitude > uint64_t(INT64_MAX))
        return false;
    *out = negative ? int64_t(0 - magnitude) : int64_t(magnitude);
    return true;
}

const std::string* find_entry(const comm_socket_v4_packet& p, const char* name)
{
    for (const auto& e : p.entries)
        if (e.name == name)
            return &e.value;
    return nullptr;
}

size_t connection_dispatch_control(t4mi_connection* c)
{
    size_t handled = 0;
    while (!c->closed && !c->in_flight && !c->pending.empty() && !c->pending.front().is_frame) {
        t4mi_pending_packet pp = connection_take_pending(c);
        dispatch_one(c, pp);
        ++handled;
    }
    return handled;
}
