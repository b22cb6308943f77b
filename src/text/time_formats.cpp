// The time and date formatters behind every "time", "time-end", "date" and
// "date-end" field, and the refresh deadlines they arm.
//
// A format is a list of tokens separated by ",". Spaces before a token are
// skipped; spaces after it belong to it, so "24h " is not "24h". Unknown
// tokens are ignored and the empty format gives the defaults (3:07 and
// 03/04/2026).
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "frames/client_context.h"
#include "platform/clock.h"
#include "platform/t4mi_assert.h"

namespace {

// Calls `f` with each token of `fmt` in order.
template <typename F>
void for_each_token(const char* fmt, F&& f)
{
    const char* p = fmt;
    for (;;) {
        while (*p == ' ')
            p++;
        const char* end = std::strchr(p, ',');
        if (end == nullptr) {
            f(std::string_view(p));
            return;
        }
        f(std::string_view(p, size_t(end - p)));
        p = end + 1;
    }
}

// Breaks floor(t) into local calendar fields; false when localtime cannot.
bool local_fields(double t, time_t& whole, tm& local)
{
    const double w = std::floor(t);
    // Out of time_t's range localtime has nothing to say either.
    if (!(w >= -9.2e18 && w <= 9.2e18))
        return false;
    whole = time_t(w);
    const tm* r = std::localtime(&whole);
    if (r == nullptr)
        return false;
    local = *r;
    return true;
}

struct date_pattern {
    const char* name;
    const char* format;
    enum { MDY, MDY2, YMD, Y2MD, MD } order;
};

// "mm-dd" deliberately shares the format of "m-dd" (no leading zero on the
// month); kept as it is.
const date_pattern date_patterns[] = {
    {"mm/dd/yyyy", "%02u/%02u/%04u", date_pattern::MDY}, {"mm-dd-yyyy", "%02u-%02u-%04u", date_pattern::MDY},
    {"mm/dd/yy", "%02u/%02u/%02u", date_pattern::MDY2},  {"mm-dd-yy", "%02u-%02u-%02u", date_pattern::MDY2},
    {"m/dd/yyyy", "%u/%02u/%04u", date_pattern::MDY},    {"m-dd-yyyy", "%u-%02u-%04u", date_pattern::MDY},
    {"m/dd/yy", "%u/%02u/%02u", date_pattern::MDY2},     {"m-dd-yy", "%u-%02u-%02u", date_pattern::MDY2},
    {"yyyy/mm/dd", "%04u/%02u/%02u", date_pattern::YMD}, {"yyyy-mm-dd", "%04u-%02u-%02u", date_pattern::YMD},
    {"yy/mm/dd", "%02u/%02u/%02u", date_pattern::Y2MD},  {"yy-mm-dd", "%02u-%02u-%02u", date_pattern::Y2MD},
    {"mm/dd", "%02u/%02u", date_pattern::MD},            {"m/dd", "%u/%02u", date_pattern::MD},
    {"m-dd", "%u-%02u", date_pattern::MD},               {"mm-dd", "%u-%02u", date_pattern::MD},
};

} // namespace

std::string scrolling_text_client_context::_json_choose_time_fmt(double t, const char* fmt, bool arm)
{
    time_t whole = 0;
    tm local{};
    if (!local_fields(t, whole, local))
        return "<time N/A>";
    T4MI_ASSERT(fmt != NULL);

    // Thousandths of the second, read with floor; a moment before 1970 has a
    // negative fraction, which shows as .000.
    const double m = std::floor(std::fmod(t, 1.0) * 1000.0);
    const unsigned millis = m > 999.0 ? 999u : m < 0.0 ? 0u : unsigned(m);

    bool h24 = false, ampm = false, seconds = false, hundredths = false, thousandths = false;
    for_each_token(fmt, [&](std::string_view token) {
        if (token == "24h")
            h24 = true;
        else if (token == "ampm")
            ampm = true;
        else if (token == "s")
            seconds = true;
        else if (token == "cs")
            seconds = hundredths = true;
        else if (token == "ms")
            seconds = thousandths = true;
        // "12h" is the default and changes nothing; others are ignored.
    });

    const unsigned hour = h24 ? unsigned(local.tm_hour) : unsigned((local.tm_hour + 11) % 12 + 1);
    char out[64];
    int len = std::snprintf(out, sizeof out, "%u:%02u", hour, unsigned(local.tm_min));
    if (seconds)
        len += std::snprintf(out + len, sizeof out - size_t(len), ":%02u", unsigned(local.tm_sec));
    if (thousandths)
        len += std::snprintf(out + len, sizeof out - size_t(len), ".%03u", millis);
    else if (hundredths)
        len += std::snprintf(out + len, sizeof out - size_t(len), ".%02u", millis / 10);
    if (!h24 && ampm)
        std::snprintf(out + len, sizeof out - size_t(len), "%s", local.tm_hour < 12 ? " am" : " pm");

    if (arm) {
        // The moment the text changes next, wall µs. With a fraction shown
        // that is the moment itself, so every frame parses again.
        int64_t next;
        if (thousandths)
            next = int64_t(whole) * 1000000 + int64_t(millis) * 1000;
        else if (hundredths)
            next = int64_t(whole) * 1000000 + int64_t(millis / 10) * 10 * 1000;
        else if (seconds)
            next = (int64_t(whole) + 1) * 1000000;
        else
            next = int64_t(calendar_end_of_minute(whole + 1)) * 1000000;
        if (time_deadline == 0 || next < time_deadline)
            time_deadline = next;
    }
    return out;
}

std::string scrolling_text_client_context::_json_choose_date_fmt(double t, const char* fmt, bool arm)
{
    time_t whole = 0;
    tm local{};
    if (!local_fields(t, whole, local))
        return "<time N/A>";
    T4MI_ASSERT(fmt != NULL);

    const date_pattern* selected = &date_patterns[0];
    for_each_token(fmt, [&](std::string_view token) {
        for (const auto& p : date_patterns) {
            if (token == p.name)
                selected = &p;
        }
    });

    const unsigned month = unsigned(local.tm_mon + 1);
    const unsigned day = unsigned(local.tm_mday);
    const unsigned year = unsigned(local.tm_year + 1900);
    const unsigned yy = unsigned(local.tm_year % 100);
    char out[64];
    switch (selected->order) {
    case date_pattern::MDY:
        std::snprintf(out, sizeof out, selected->format, month, day, year);
        break;
    case date_pattern::MDY2:
        std::snprintf(out, sizeof out, selected->format, month, day, yy);
        break;
    case date_pattern::YMD:
        std::snprintf(out, sizeof out, selected->format, year, month, day);
        break;
    case date_pattern::Y2MD:
        std::snprintf(out, sizeof out, selected->format, yy, month, day);
        break;
    case date_pattern::MD:
        std::snprintf(out, sizeof out, selected->format, month, day);
        break;
    default:
        std::snprintf(out, sizeof out, "?");
        break;
    }

    if (arm)
        date_deadline = int64_t(calendar_end_of_day(whole + 1)) * 1000000;
    return out;
}
