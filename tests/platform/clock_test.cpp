#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/clock.h"
#include "platform/fixed_paths.h"

namespace {

class InZone {
public:
    explicit InZone(const char* tz)
    {
        const char* old = std::getenv("TZ");
        had = old != nullptr;
        previous = old ? old : "";
        setenv("TZ", tz, 1);
        tzset();
    }
    ~InZone()
    {
        if (had)
            setenv("TZ", previous.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

private:
    bool had;
    std::string previous;
};

TEST(Calendar, EndOfMinuteIsTheNextBoundaryOrItself)
{
    InZone utc("UTC");
    EXPECT_EQ(calendar_end_of_minute(120), 120);
    EXPECT_EQ(calendar_end_of_minute(121), 180);
    EXPECT_EQ(calendar_end_of_minute(179), 180);
}

TEST(Calendar, EndOfDayIsTheNextLocalMidnight)
{
    InZone zone("EST5EDT,M3.2.0,M11.1.0");
    // 2026-03-04 12:00:00 EST = 17:00 UTC; next local midnight 2026-03-05 05:00 UTC.
    EXPECT_EQ(calendar_end_of_day(1772643600), 1772686800);
    EXPECT_EQ(calendar_end_of_day(1772686800), 1772686800);
    // The spring-forward day has 23 hours: 2026-03-08 00:00 EST (05:00 UTC) to 2026-03-09 00:00 EDT (04:00 UTC).
    EXPECT_EQ(calendar_end_of_day(1772946000 + 1), 1772946000 + 23 * 3600);
}

TEST(Clock, TestControlsOffsetAndPin)
{
    const uint64_t m0 = monotonic_clock_us();
    t4mi_clock_set_monotonic_offset_us(600000000);
    EXPECT_GE(monotonic_clock_us(), m0 + 600000000);
    t4mi_clock_set_monotonic_offset_us(0);
    t4mi_clock_pin_wall_us(1000950000);
    EXPECT_EQ(gettimeofday_us(), 1000950000);
    t4mi_clock_unpin_wall();
    t4mi_clock_set_wall_offset_us(-1000000);
    const int64_t shifted = gettimeofday_us();
    t4mi_clock_set_wall_offset_us(0);
    EXPECT_LT(shifted, gettimeofday_us());
}

TEST(FixedPaths, RedirectedByTheRootVariable)
{
    unsetenv("T4MI_ROOT");
    EXPECT_EQ(t4mi_fixed_path(T4MI_WEATHER_DIR), "/run/tevrin/weather/kestrel");
    setenv("T4MI_ROOT", "/tmp/tree/", 1);
    EXPECT_EQ(t4mi_fixed_path(T4MI_WEATHER_DIR), "/tmp/tree/run/tevrin/weather/kestrel");
    setenv("T4MI_ROOT", "", 1);
    EXPECT_EQ(t4mi_fixed_path(T4MI_DOWNLOADER_PATH), "/usr/bin/curl");
    unsetenv("T4MI_ROOT");
}

} // namespace
