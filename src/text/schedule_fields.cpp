// The schedule fields: facts about the entry on air ("current"), the entries
// after it ("next1", "next2", ...) and before it ("prev1", ...), read from
// the context's data object, plus the wall clock for "time" and "date".
//
// A string key counts only when its value is a non-empty string; every
// missing entry, key or wrongly typed value gives "", which appends nothing.
#include <cstdio>
#include <string>

#include "frames/client_context.h"
#include "platform/clock.h"

namespace {

using json11::Json;

// The string value of `key`, "" when absent, empty or not a string.
const std::string& text_of(const Json& entry, const char* key) { return entry[key].string_value(); }

// The first of two keys that is present.
std::string first_present(const Json& entry, const char* key, const char* fallback)
{
    const std::string& a = text_of(entry, key);
    return a.empty() ? text_of(entry, fallback) : a;
}

// "next%d" / "prev%d"; an index below 0 (the markup's "no index") means 1.
const Json& nth_entry(const Json& data, const char* direction, int index)
{
    if (index < 0)
        index = 1;
    char key[32];
    std::snprintf(key, sizeof key, "%s%d", direction, index);
    return data[key];
}

// Deliberate offsets, kept exactly: a schedule start is shown 0.1 s later
// (so a start stamped at 1000.95 shows second 01), "now" 0.999 s later. The
// end of an entry and the dates of entries get none.
constexpr double START_OFFSET_S = 0.1;
constexpr double NOW_OFFSET_S = 0.999;

double wall_clock_now_s() { return double(gettimeofday_us()) / 1000000.0 + NOW_OFFSET_S; }

} // namespace

// The three selectors of one family, all over its item-value member.
#define T4MI_METADATA_FAMILY(family)                                                                   \
    std::string scrolling_text_client_context::_json_##family##_next(int index)                        \
    {                                                                                                  \
        const Json& e = nth_entry(data, "next", index);                                                \
        return e.is_null() ? std::string() : _json_##family##_item(e);                                 \
    }                                                                                                  \
    std::string scrolling_text_client_context::_json_##family##_prev(int index)                        \
    {                                                                                                  \
        const Json& e = nth_entry(data, "prev", index);                                                \
        return e.is_null() ? std::string() : _json_##family##_item(e);                                 \
    }                                                                                                  \
    std::string scrolling_text_client_context::_json_##family()                                        \
    {                                                                                                  \
        const Json& e = data["current"];                                                               \
        return e.is_null() ? std::string() : _json_##family##_item(e);                                 \
    }

#define T4MI_TIME_FAMILY(family)                                                                       \
    std::string scrolling_text_client_context::_json_##family##_next(int index, const char* fmt)       \
    {                                                                                                  \
        const Json& e = nth_entry(data, "next", index);                                                \
        return e.is_null() ? std::string() : _json_##family##_item(e, fmt);                            \
    }                                                                                                  \
    std::string scrolling_text_client_context::_json_##family##_prev(int index, const char* fmt)       \
    {                                                                                                  \
        const Json& e = nth_entry(data, "prev", index);                                                \
        return e.is_null() ? std::string() : _json_##family##_item(e, fmt);                            \
    }                                                                                                  \
    std::string scrolling_text_client_context::_json_##family(const char* fmt)                         \
    {                                                                                                  \
        const Json& e = data["current"];                                                               \
        return e.is_null() ? std::string() : _json_##family##_item(e, fmt);                            \
    }

T4MI_METADATA_FAMILY(artist)
T4MI_METADATA_FAMILY(author)
T4MI_METADATA_FAMILY(title)
T4MI_METADATA_FAMILY(program)
T4MI_METADATA_FAMILY(episode)
T4MI_METADATA_FAMILY(rating)
T4MI_METADATA_FAMILY(summary)
T4MI_METADATA_FAMILY(description)
T4MI_TIME_FAMILY(time)
T4MI_TIME_FAMILY(time_end)
T4MI_TIME_FAMILY(date)
T4MI_TIME_FAMILY(date_end)

#undef T4MI_METADATA_FAMILY
#undef T4MI_TIME_FAMILY

std::string scrolling_text_client_context::_json_artist_item(const Json& e) { return first_present(e, "artist", "author"); }
std::string scrolling_text_client_context::_json_author_item(const Json& e) { return first_present(e, "author", "artist"); }

std::string scrolling_text_client_context::_json_title_item(const Json& e)
{
    const std::string& title = text_of(e, "title");
    if (!title.empty())
        return title;
    const std::string& program = text_of(e, "program");
    const std::string& episode = text_of(e, "episode");
    // The joiner stays even when one side is empty ("News - "); deliberate.
    if (!program.empty() || !episode.empty())
        return program + " - " + episode;
    const std::string& item = text_of(e, "item");
    return item.empty() ? std::string() : _json_last_path_component(item);
}

std::string scrolling_text_client_context::_json_program_item(const Json& e)
{
    const std::string& program = text_of(e, "program");
    if (!program.empty())
        return program;
    const std::string& title = text_of(e, "title");
    if (!title.empty())
        return title;
    const std::string& item = text_of(e, "item");
    return item.empty() ? std::string() : _json_last_path_component(item);
}

std::string scrolling_text_client_context::_json_episode_item(const Json& e) { return text_of(e, "episode"); }

std::string scrolling_text_client_context::_json_rating_item(const Json& e)
{
    return _json_last_path_component(text_of(e, "rating"));
}

std::string scrolling_text_client_context::_json_last_path_component(const std::string& path)
{
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string scrolling_text_client_context::_json_summary_item(const Json& e)
{
    return first_present(e, "summary", "description");
}

std::string scrolling_text_client_context::_json_description_item(const Json& e)
{
    return first_present(e, "description", "summary");
}

std::string scrolling_text_client_context::_json_time_now(const char* fmt)
{
    return _json_choose_time_fmt(wall_clock_now_s(), fmt, true);
}

std::string scrolling_text_client_context::_json_date_now(const char* fmt)
{
    return _json_choose_date_fmt(wall_clock_now_s(), fmt, true);
}

std::string scrolling_text_client_context::_json_time_item(const Json& e, const char* fmt)
{
    const Json& start = e["start"];
    return start.is_number() ? _json_choose_time_fmt(start.number_value() + START_OFFSET_S, fmt, false) : std::string();
}

std::string scrolling_text_client_context::_json_time_end_item(const Json& e, const char* fmt)
{
    const Json& end = e["end"];
    return end.is_number() ? _json_choose_time_fmt(end.number_value(), fmt, false) : std::string();
}

std::string scrolling_text_client_context::_json_date_item(const Json& e, const char* fmt)
{
    const Json& start = e["start"];
    return start.is_number() ? _json_choose_date_fmt(start.number_value(), fmt, false) : std::string();
}

std::string scrolling_text_client_context::_json_date_end_item(const Json& e, const char* fmt)
{
    const Json& end = e["end"];
    return end.is_number() ? _json_choose_date_fmt(end.number_value(), fmt, false) : std::string();
}
