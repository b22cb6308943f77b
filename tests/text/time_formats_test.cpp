// The time and date formatters and the refresh deadlines they arm.
//
// Moments used below, worked out by hand. 2026-03-04 00:00:00 UTC is 20516
// days after the epoch (56 years with 14 leap days = 20454 days, then 31 + 28
// + 3), i.e. 1772582400. The tests run in "EST5" (UTC-5, no summer time), so
// local midnight starting 4 March 2026 is 1772582400 + 18000 = 1772600400.
#include <csignal>

#include "support/test_env.h"
#include "text_fixture.h"

namespace t4test {
namespace {

constexpr int64_t MIDNIGHT_MAR4 = 1772600400;          // local 2026-03-04 00:00:00
constexpr double AT_000509 = 1772600709.1234;          // local 00:05:09.1234
constexpr double AT_1300 = MIDNIGHT_MAR4 + 13 * 3600.0; // local 13:00:00
constexpr double NOON_MAR4 = MIDNIGHT_MAR4 + 12 * 3600.0;

using time_formats = text_test;

TEST_F(time_formats, TimeJustAfterMidnight)
{
    // The fraction is read with floor: .1234 gives 123 thousandths, 12 hundredths.
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_000509, "", false), "12:05");
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_000509, "24h", false), "0:05");
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_000509, "ampm", false), "12:05 am");
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_000509, "24h,s", false), "0:05:09");
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_000509, "s,ms", false), "12:05:09.123");
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_000509, "cs", false), "12:05:09.12");
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_000509, "ms", false), "12:05:09.123");
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_000509, "ms,cs", false), "12:05:09.123"); // thousandths win
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_000509, "12h", false), "12:05");
}

TEST_F(time_formats, AfternoonAndTokenSpacing)
{
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_1300, "ampm", false), "1:00 pm");
    // " 24h , ampm": the first token is "24h " (its trailing space kept),
    // unknown; the second is "ampm" after its leading space is skipped.
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_1300, " 24h , ampm", false), "1:00 pm");
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_1300, "24h,ampm", false), "13:00"); // no suffix in 24 h
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_1300, "   24h", false), "13:00");
    EXPECT_EQ(ctx._json_choose_time_fmt(AT_1300, "AMPM,x,,", false), "1:00"); // unknown tokens ignored
    EXPECT_EQ(ctx._json_choose_time_fmt(NOON_MAR4, "ampm", false), "12:00 pm");
    EXPECT_EQ(ctx._json_choose_time_fmt(MIDNIGHT_MAR4 + 86399.0, "ampm,s", false), "11:59:59 pm");
}

TEST_F(time_formats, TimeIsLocal)
{
    // 1772582400 is midnight UTC, 19:00 the evening before in EST5.
    EXPECT_EQ(ctx._json_choose_time_fmt(1772582400.0, "24h", false), "19:00");
    use_test_zone("UTC0");
    EXPECT_EQ(ctx._json_choose_time_fmt(1772582400.0, "24h", false), "0:00");
}

TEST_F(time_formats, SixteenDatePatterns)
{
    const struct {
        const char* fmt;
        const char* march_4;
        const char* december_25;
    } cases[] = {
        {"mm/dd/yyyy", "03/04/2026", "12/25/2026"}, {"mm-dd-yyyy", "03-04-2026", "12-25-2026"},
        {"mm/dd/yy", "03/04/26", "12/25/26"},       {"mm-dd-yy", "03-04-26", "12-25-26"},
        {"m/dd/yyyy", "3/04/2026", "12/25/2026"},   {"m-dd-yyyy", "3-04-2026", "12-25-2026"},
        {"m/dd/yy", "3/04/26", "12/25/26"},         {"m-dd-yy", "3-04-26", "12-25-26"},
        {"yyyy/mm/dd", "2026/03/04", "2026/12/25"}, {"yyyy-mm-dd", "2026-03-04", "2026-12-25"},
        {"yy/mm/dd", "26/03/04", "26/12/25"},       {"yy-mm-dd", "26-03-04", "26-12-25"},
        {"mm/dd", "03/04", "12/25"},                {"m/dd", "3/04", "12/25"},
        {"m-dd", "3-04", "12-25"},
        {"mm-dd", "3-04", "12-25"}, // shares the format of "m-dd": no leading zero
    };
    // 25 December is 296 days after 4 March (28 to 1 April, then 30 + 31 +
    // 30 + 31 + 31 + 30 + 31 + 30 to 1 December, then 24).
    const double noon_dec25 = NOON_MAR4 + 296 * 86400.0;
    for (const auto& c : cases) {
        EXPECT_EQ(ctx._json_choose_date_fmt(NOON_MAR4, c.fmt, false), c.march_4) << c.fmt;
        EXPECT_EQ(ctx._json_choose_date_fmt(noon_dec25, c.fmt, false), c.december_25) << c.fmt;
    }
}

TEST_F(time_formats, DateSelection)
{
    EXPECT_EQ(ctx._json_choose_date_fmt(NOON_MAR4, "", false), "03/04/2026");
    EXPECT_EQ(ctx._json_choose_date_fmt(NOON_MAR4, "yy-mm-dd", false), "26-03-04");
    EXPECT_EQ(ctx._json_choose_date_fmt(NOON_MAR4, "m/dd", false), "3/04");
    EXPECT_EQ(ctx._json_choose_date_fmt(NOON_MAR4, "mm-dd", false), "3-04");
    EXPECT_EQ(ctx._json_choose_date_fmt(NOON_MAR4, "yyyy-mm-dd,mm/dd", false), "03/04"); // last known wins
    EXPECT_EQ(ctx._json_choose_date_fmt(NOON_MAR4, "yyyy-mm-dd,bogus", false), "2026-03-04");
    EXPECT_EQ(ctx._json_choose_date_fmt(NOON_MAR4, "  yyyy-mm-dd", false), "2026-03-04");
    EXPECT_EQ(ctx._json_choose_date_fmt(NOON_MAR4, "yyyy-mm-dd ", false), "03/04/2026"); // "yyyy-mm-dd " unknown
    EXPECT_EQ(ctx._json_choose_date_fmt(NOON_MAR4, "24h,s", false), "03/04/2026");
    // Local date: 02:00 UTC on 4 March is 21:00 on 3 March in EST5.
    EXPECT_EQ(ctx._json_choose_date_fmt(1772582400.0 + 7200, "", false), "03/03/2026");
}

TEST_F(time_formats, TimeDeadlines)
{
    // Seconds: the next whole second.
    ctx._json_choose_time_fmt(AT_000509, "s", true);
    EXPECT_EQ(ctx.time_deadline, 1772600710LL * 1000000);
    // Minutes: the minute boundary after whole + 1 = 00:05:10, i.e. 00:06:00.
    ctx.time_deadline = 0;
    ctx._json_choose_time_fmt(AT_000509, "", true);
    EXPECT_EQ(ctx.time_deadline, (MIDNIGHT_MAR4 + 360) * 1000000);
    // Fractions: the moment itself, cut to thousandths or hundredths.
    ctx.time_deadline = 0;
    ctx._json_choose_time_fmt(AT_000509, "ms", true);
    EXPECT_EQ(ctx.time_deadline, 1772600709LL * 1000000 + 123 * 1000);
    ctx.time_deadline = 0;
    ctx._json_choose_time_fmt(AT_000509, "cs", true);
    EXPECT_EQ(ctx.time_deadline, 1772600709LL * 1000000 + 120 * 1000);
    // The earliest wins, whatever the order.
    ctx.time_deadline = 0;
    ctx._json_choose_time_fmt(AT_000509, "s", true);
    ctx._json_choose_time_fmt(AT_000509, "", true);
    EXPECT_EQ(ctx.time_deadline, 1772600710LL * 1000000);
    // Without arm nothing is touched, and the date deadline never is.
    ctx.time_deadline = 0;
    ctx._json_choose_time_fmt(AT_000509, "s", false);
    EXPECT_EQ(ctx.time_deadline, 0);
    EXPECT_EQ(ctx.date_deadline, 0);
}

TEST_F(time_formats, DateDeadlineIsSetNotLowered)
{
    // End of the local day of whole + 1: midnight starting 5 March.
    ctx._json_choose_date_fmt(AT_000509, "", true);
    EXPECT_EQ(ctx.date_deadline, (MIDNIGHT_MAR4 + 86400) * 1000000);
    // A later field on an earlier day still sets it: the last one wins.
    ctx._json_choose_date_fmt(AT_000509 + 3 * 86400.0, "", true);
    EXPECT_EQ(ctx.date_deadline, (MIDNIGHT_MAR4 + 4 * 86400) * 1000000);
    ctx._json_choose_date_fmt(AT_000509, "", true);
    EXPECT_EQ(ctx.date_deadline, (MIDNIGHT_MAR4 + 86400) * 1000000);
    EXPECT_EQ(ctx.time_deadline, 0);
    ctx._json_choose_date_fmt(AT_000509 + 86400.0, "", false);
    EXPECT_EQ(ctx.date_deadline, (MIDNIGHT_MAR4 + 86400) * 1000000);
}

TEST_F(time_formats, TwoTimeFieldsInOneTextArmTheNextSecond)
{
    // Wall clock 00:05:09.5 local; "now" is shown 0.999 s ahead: 00:05:10.499.
    t4mi_clock_pin_wall_us(1772600709LL * 1000000 + 500000);
    EXPECT_EQ(parse("%{time;now;;s}% %{time;now}%"), "12:05:10 12:05");
    EXPECT_EQ(ctx.time_deadline, 1772600711LL * 1000000);
    EXPECT_EQ(ctx.date_deadline, 0);
    EXPECT_EQ(parse("%{time;now}% %{time;now;;s}%"), "12:05 12:05:10");
    EXPECT_EQ(ctx.time_deadline, 1772600711LL * 1000000);
    // Only the minute field: the next minute boundary, 00:06:00.
    parse("%{time;now}%");
    EXPECT_EQ(ctx.time_deadline, (MIDNIGHT_MAR4 + 360) * 1000000);
}

TEST_F(time_formats, NowIsShownAlmostOneSecondAhead)
{
    t4mi_clock_pin_wall_us(1772600709LL * 1000000);
    EXPECT_EQ(parse("%{time;now;;s}%"), "12:05:09"); // 09.999
    t4mi_clock_pin_wall_us(1772600709LL * 1000000 + 2000);
    EXPECT_EQ(parse("%{time;now;;s}%"), "12:05:10"); // 09.002 + 0.999 = 10.001
    // The wall clock offset acts the same way as a pinned clock.
    t4mi_clock_unpin_wall();
    t4mi_clock_set_wall_offset_us(-gettimeofday_us() + 1772600709LL * 1000000);
    EXPECT_EQ(parse("%{date;now}%"), "03/04/2026");
    EXPECT_EQ(ctx.date_deadline, (MIDNIGHT_MAR4 + 86400) * 1000000);
}

TEST_F(time_formats, MomentThatLocaltimeCannotBreakDown)
{
    ctx.time_deadline = 5;
    ctx.date_deadline = 6;
    // A year past INT_MAX: localtime fails, and that happens before the
    // null-format check, so a null format does not abort here.
    EXPECT_EQ(ctx._json_choose_time_fmt(1e18, "s", true), "<time N/A>");
    EXPECT_EQ(ctx._json_choose_date_fmt(1e18, "", true), "<time N/A>");
    EXPECT_EQ(ctx._json_choose_time_fmt(1e18, nullptr, true), "<time N/A>");
    EXPECT_EQ(ctx._json_choose_date_fmt(1e300, nullptr, true), "<time N/A>");
    EXPECT_EQ(ctx.time_deadline, 5);
    EXPECT_EQ(ctx.date_deadline, 6);
}

TEST_F(time_formats, NullFormatAbortsNamingTheFunction)
{
    const auto t = run_in_child([this] { ctx._json_choose_time_fmt(AT_1300, nullptr, false); }, 10000);
    EXPECT_EQ(t.signal, SIGABRT);
    EXPECT_EQ(t.err, "t4mi_scrolltext: virtual std::string scrolling_text_client_context::_json_choose_time_fmt"
                     "(double, const char*, bool): Assertion `fmt != NULL' failed.\n");
    const auto d = run_in_child([this] { ctx._json_choose_date_fmt(AT_1300, nullptr, true); }, 10000);
    EXPECT_EQ(d.signal, SIGABRT);
    EXPECT_EQ(d.err, "t4mi_scrolltext: virtual std::string scrolling_text_client_context::_json_choose_date_fmt"
                     "(double, const char*, bool): Assertion `fmt != NULL' failed.\n");
}

} // namespace
} // namespace t4test
