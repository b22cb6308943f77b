// A metadata template filled from all three sources at once: schedule data,
// the clock and a weather file in the redirected weather directory.
#include "weather_fixture.h"

namespace t4test {
namespace {

using template_fields = weather_test;

TEST_F(template_fields, ScheduleClockAndWeatherTogether)
{
    write_source("today", R"({"location": [{"name": "Denver", "tempF": 28}, {"name": "Boston", "tempF": "41"}]})");
    set_schedule(R"({"current": {"title": "Morning News", "start": 1772611200},
                     "next1": {"program": "Weather", "episode": "Noon", "start": 1772614800}})");
    // 18:59:58.5 UTC on 4 March 2026 (1772582400 + 68398.5 s) is 13:59:58.5
    // in EST5; "now" is shown 0.999 s later, 13:59:59.499.
    t4mi_clock_pin_wall_us(1772650798LL * 1000000 + 500000);
    scroll_settings.text = "Next: %{title;next}% | %{time;now;;24h,s}% | Boston %{kestrel-temp;today;degrees;Boston}%";
    stderr_of([&] { ctx.parse_text(); });
    EXPECT_EQ(text_of_runs(ctx.runs), "Next: Weather - Noon | 13:59:59 | Boston 41\xc2\xb0" "F");
    // The seconds field asks for a new parse at the next second, 13:59:59.499
    // -> 14:00:00 local = 1772650800.
    EXPECT_EQ(ctx.time_deadline, 1772650800LL * 1000000);
    EXPECT_EQ(ctx.date_deadline, 0);
    EXPECT_FALSE(ctx.parse_pending);
    for (const auto& r : ctx.runs) {
        EXPECT_EQ(r.style.r, ITEM_FONT.r);
        EXPECT_EQ(r.style.a, ITEM_FONT.a);
    }

    // One second later the clock field has moved on; so has the schedule.
    t4mi_clock_pin_wall_us(1772650799LL * 1000000 + 500000);
    EXPECT_FALSE(set_schedule(R"({"next1": {"title": "Sports"}})"));
    EXPECT_TRUE(ctx.parse_pending);
    stderr_of([&] { ctx.parse_text(); });
    EXPECT_EQ(text_of_runs(ctx.runs), "Next: Sports | 14:00:00 | Boston 41\xc2\xb0" "F");
}

} // namespace
} // namespace t4test
