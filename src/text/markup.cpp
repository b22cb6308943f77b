// The inline markup parser: the item text becomes the context's `text_run`
// list, one run per code point, with "%{name;arg;...}%" fields either
// inserting generated text (schedule data, clock, weather) or changing the
// style of the characters after them.
//
// Fields do not nest and have no escapes; field_body.h cuts the body out and
// splits it into the name and its arguments.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frames/client_context.h"
#include "items/colour.h"
#include "items/scroll_settings.h"
#include "platform/packet.h"
#include "platform/t4mi_globals.h"
#include "platform/text_helpers.h"
#include "text/field_body.h"
#include "text/json_sources.h"
#include "text/text_globals.h"

namespace {

// The index argument of a schedule field: unsigned decimal, or -1 (all bits
// set, the member's default) when absent or empty. Wraps to 32 bits.
int field_index(int n, char* const* parts)
{
    if (n < 3 || parts[2][0] == '\0')
        return -1;
    return int(std::strtoul(parts[2], nullptr, 10));
}

// "alpha" and "shadow-alpha": a value in 0..1 scaled to 0..255. Only a value
// that starts with a digit counts, so ".5" falls back to the item's alpha
// while "0.5" works; deliberate, kept as it is.
uint8_t alpha_argument(int n, char* const* parts, uint8_t item_alpha)
{
    if (n < 2 || parts[1][0] < '0' || parts[1][0] > '9')
        return item_alpha;
    double v = std::strtod(parts[1], nullptr) * 255.0;
    if (v < 0.0)
        v = 0.0;
    if (v > 255.0)
        v = 255.0;
    return uint8_t(v);
}

using ctx = scrolling_text_client_context;

struct metadata_family {
    const char* name;
    std::string (ctx::*next)(int);
    std::string (ctx::*prev)(int);
    std::string (ctx::*current)();
};

const metadata_family metadata_families[] = {
    {"artist", &ctx::_json_artist_next, &ctx::_json_artist_prev, &ctx::_json_artist},
    {"author", &ctx::_json_author_next, &ctx::_json_author_prev, &ctx::_json_author},
    {"title", &ctx::_json_title_next, &ctx::_json_title_prev, &ctx::_json_title},
    {"program", &ctx::_json_program_next, &ctx::_json_program_prev, &ctx::_json_program},
    {"episode", &ctx::_json_episode_next, &ctx::_json_episode_prev, &ctx::_json_episode},
    {"rating", &ctx::_json_rating_next, &ctx::_json_rating_prev, &ctx::_json_rating},
    {"summary", &ctx::_json_summary_next, &ctx::_json_summary_prev, &ctx::_json_summary},
    {"description", &ctx::_json_description_next, &ctx::_json_description_prev, &ctx::_json_description},
};

struct time_family {
    const char* name;
    std::string (ctx::*next)(int, const char*);
    std::string (ctx::*prev)(int, const char*);
    std::string (ctx::*current)(const char*);
    std::string (ctx::*now)(const char*); // null: "now" is an unknown selector
};

const time_family time_families[] = {
    {"time", &ctx::_json_time_next, &ctx::_json_time_prev, &ctx::_json_time, &ctx::_json_time_now},
    {"date", &ctx::_json_date_next, &ctx::_json_date_prev, &ctx::_json_date, &ctx::_json_date_now},
    {"time-end", &ctx::_json_time_end_next, &ctx::_json_time_end_prev, &ctx::_json_time_end, nullptr},
    {"date-end", &ctx::_json_date_end_next, &ctx::_json_date_end_prev, &ctx::_json_date_end, nullptr},
};

bool is_current_selector(const char* selector) { return selector[0] == '\0' || std::strcmp(selector, "current") == 0; }

// The field result goes through the process-wide buffer, which cuts it at
// FIELD_RESULT_SIZE - 1 bytes, and takes the current style.
void append_field_result(ctx& c, const std::string& result)
{
    std::snprintf(field_result, FIELD_RESULT_SIZE, "%s", result.c_str());
    c.append_text(field_result);
}

std::string metadata_field(ctx& c, const metadata_family& f, int n, char* const* parts)
{
    if (n == 1)
        return (c.*f.current)();
    const char* selector = parts[1];
    const int index = field_index(n, parts);
    if (std::strcmp(selector, "next") == 0)
        return (c.*f.next)(index);
    if (std::strcmp(selector, "prev") == 0)
        return (c.*f.prev)(index);
    if (is_current_selector(selector))
        return (c.*f.current)();
    return std::string();
}

std::string time_field(ctx& c, const time_family& f, int n, char* const* parts)
{
    const char* format = n >= 4 ? parts[3] : "";
    if (n == 1)
        return (c.*f.current)(format);
    const char* selector = parts[1];
    const int index = field_index(n, parts);
    if (std::strcmp(selector, "next") == 0)
        return (c.*f.next)(index, format);
    if (std::strcmp(selector, "prev") == 0)
        return (c.*f.prev)(index, format);
    if (is_current_selector(selector))
        return (c.*f.current)(format);
    if (f.now != nullptr && std::strcmp(selector, "now") == 0)
        return (c.*f.now)(format);
    return std::string();
}

// "kestrel-temp;source;form;location"
std::string temperature_field(int n, char* const* parts)
{
    if (n < 2 || parts[1][0] == '\0')
        return std::string();
    const std::string source = parts[1];
    if (n == 2)
        return temperature_text(source, temperature_form::location_and_degrees);
    if (n >= 4 && parts[3][0] != '\0')
        select_location(source, parts[3]);
    const char* form = parts[2];
    if (std::strcmp(form, "location") == 0)
        return temperature_text(source, temperature_form::location);
    if (std::strcmp(form, "degrees") == 0)
        return temperature_text(source, temperature_form::degrees);
    return temperature_text(source, temperature_form::location_and_degrees);
}

void handle_field(ctx& c, int n, char* const* parts)
{
    const char* name = parts[0];
    if (std::strcmp(name, "test") == 0) {
        std::snprintf(field_result, FIELD_RESULT_SIZE, "%s", "<:)");
        c.append_text(field_result);
        return;
    }
    if (std::strcmp(name, "kestrel-temp") == 0) {
        append_field_result(c, temperature_field(n, parts));
        return;
    }
    for (const auto& f : metadata_families) {
        if (std::strcmp(name, f.name) == 0) {
            append_field_result(c, metadata_field(c, f, n, parts));
            return;
        }
    }
    for (const auto& f : time_families) {
        if (std::strcmp(name, f.name) == 0) {
            append_field_result(c, time_field(c, f, n, parts));
            return;
        }
    }
    const auto& s = scroll_settings;
    if (std::strcmp(name, "alpha") == 0) {
        c.style.a = alpha_argument(n, parts, s.fontColor.a);
    } else if (std::strcmp(name, "shadow-alpha") == 0) {
        c.style.sa = alpha_argument(n, parts, s.shadowColor.a);
    } else if (std::strcmp(name, "color") == 0) {
        uint8_t rgb[3] = {c.style.r, c.style.g, c.style.b};
        if (!parse_named_colour(n >= 2 ? parts[1] : "", rgb))
            rgb[0] = s.fontColor.r, rgb[1] = s.fontColor.g, rgb[2] = s.fontColor.b;
        c.style.r = rgb[0], c.style.g = rgb[1], c.style.b = rgb[2];
    } else if (std::strcmp(name, "shadow-color") == 0) {
        uint8_t rgb[3] = {c.style.sr, c.style.sg, c.style.sb};
        if (!parse_named_colour(n >= 2 ? parts[1] : "", rgb))
            rgb[0] = s.shadowColor.r, rgb[1] = s.shadowColor.g, rgb[2] = s.shadowColor.b;
        c.style.sr = rgb[0], c.style.sg = rgb[1], c.style.sb = rgb[2];
    }
    // Any other name is ignored.
}

} // namespace

bool scrolling_text_client_context::apply_data_packet(const comm_socket_v4_packet* packet)
{
    json11::Json value;
    if (packet != nullptr) {
        std::string err;
        value = json11::Json::parse(comm_socket_v4_packet_get_data(packet, nullptr), err, json11::STANDARD);
    }
    const bool same = (value == data);
    if (!same) {
        data = value;
        text_dirty = true;
        parse_pending = true;
    }
    return same;
}

void scrolling_text_client_context::parse_text()
{
    parse_pending = false;
    time_deadline = 0;
    date_deadline = 0;

    const auto& s = scroll_settings;
    style = run_style{};
    style.r = s.fontColor.r, style.g = s.fontColor.g, style.b = s.fontColor.b, style.a = s.fontColor.a;
    style.sr = s.shadowColor.r, style.sg = s.shadowColor.g, style.sb = s.shadowColor.b, style.sa = s.shadowColor.a;
    style.shadow_opacity = uint32_t(s.shadowOpacity);

    runs.clear(); // keeps the capacity

    const char* p = s.text.c_str();
    while (*p != '\0') {
        if (p[0] == '%' && p[1] == '{') {
            char body[FIELD_BODY_SIZE];
            char* parts[FIELD_MAX_PARTS];
            if (!t4mi_harden) {
                p = collect_field_body(p + 2, body);
            } else {
                bool dropped = false;
                p = collect_field_body_bounded(p + 2, body, &dropped);
                if (dropped) {
                    std::fprintf(stderr, "WARNING: Field longer than %zu bytes dropped\n", FIELD_BODY_SIZE - 1);
                    continue;
                }
            }
            const int n = split_field_parts(body, parts);
            handle_field(*this, n, parts);
            continue;
        }
        const int32_t c = utf8_decode(&p, p + 16); // a negative result has moved p by one byte
        if (c > 0)
            append_char(c);
        else if (c == 0)
            break;
    }
}

void scrolling_text_client_context::append_char(int32_t code)
{
    runs.push_back(text_run{.code = code, .style = style});
}

void scrolling_text_client_context::append_text(const char* p)
{
    while (*p != '\0') {
        const int32_t c = utf8_decode(&p, p + 16); // a negative result has moved p by one byte
        if (c > 0)
            append_char(c);
        else if (c == 0)
            break;
    }
}
