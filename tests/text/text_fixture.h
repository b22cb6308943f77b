// Shared set-up of the text tests: a context, known item colours, a fixed
// local zone, clocks back to normal and an empty weather source cache.
#pragma once

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frames/client_context.h"
#include "items/scroll_settings.h"
#include "platform/clock.h"
#include "platform/packet.h"
#include "text/text_globals.h"

namespace t4test {

// The item colours every text test starts from; distinct numbers so that a
// run shows which setting it came from.
inline constexpr colour_rgba ITEM_FONT{10, 20, 30, 200};
inline constexpr colour_rgba ITEM_SHADOW{40, 50, 60, 90};
inline constexpr int32_t ITEM_SHADOW_OPACITY = 77;

// Local time for the tests: "EST5" is UTC-5 all year (a POSIX rule, no tz
// database needed), so local = UTC - 18000 s.
inline void use_test_zone(const char* tz = "EST5")
{
    setenv("TZ", tz, 1);
    tzset();
}

// Code points back to UTF-8, written here independently of the decoder.
inline std::string utf8_of(int32_t c)
{
    std::string s;
    const auto u = uint32_t(c);
    if (u < 0x80) {
        s += char(u);
    } else if (u < 0x800) {
        s += char(0xC0 | (u >> 6));
        s += char(0x80 | (u & 0x3F));
    } else if (u < 0x10000) {
        s += char(0xE0 | (u >> 12));
        s += char(0x80 | ((u >> 6) & 0x3F));
        s += char(0x80 | (u & 0x3F));
    } else {
        s += char(0xF0 | (u >> 18));
        s += char(0x80 | ((u >> 12) & 0x3F));
        s += char(0x80 | ((u >> 6) & 0x3F));
        s += char(0x80 | (u & 0x3F));
    }
    return s;
}

inline std::string text_of_runs(const std::vector<text_run>& runs)
{
    std::string s;
    for (const auto& r : runs)
        s += utf8_of(r.code);
    return s;
}

class text_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved_settings = scroll_settings;
        scroll_settings = scroll_settings_record{};
        scroll_settings.fontColor = ITEM_FONT;
        scroll_settings.shadowColor = ITEM_SHADOW;
        scroll_settings.shadowOpacity = ITEM_SHADOW_OPACITY;
        reset_clocks();
        json_sources.clear();
        json_sources_last_check = 0;
        use_test_zone();
    }

    void TearDown() override
    {
        scroll_settings = saved_settings;
        reset_clocks();
        json_sources.clear();
        json_sources_last_check = 0;
    }

    static void reset_clocks()
    {
        t4mi_clock_unpin_wall();
        t4mi_clock_set_wall_offset_us(0);
        t4mi_clock_set_monotonic_offset_us(0);
    }

    // Parses `text` as the item text and returns the runs' characters.
    std::string parse(const std::string& text)
    {
        scroll_settings.text = text;
        ctx.parse_text();
        return text_of_runs(ctx.runs);
    }

    // Hands `json` to the context as a schedule data packet.
    bool set_schedule(const std::string& json)
    {
        comm_socket_v4_packet packet;
        packet.set_data(json.data(), json.size());
        return ctx.apply_data_packet(&packet);
    }

    scrolling_text_client_context ctx{1};

private:
    scroll_settings_record saved_settings;
};

} // namespace t4test
