// The RSS item file: "url", "interval" and the settings with the feed's own
// defaults, and the bookkeeping of the address and the last download.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

#include "items/rss_loader.h"
#include "items/scroll_settings.h"
#include "platform/clock.h"
#include "platform/t4mi_globals.h"
#include "rss_fixture.h"
#include "support/test_env.h"

namespace {

using rss_test::rss_item_test;
using rss_test::stderr_capture;

const colour_rgba WHITE{255, 255, 255, 255};

class RssItemFile : public rss_item_test {};

TEST_F(RssItemFile, IntervalZeroIsRaisedToOneSecond)
{
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1/feed\ninterval=0\n");
    load_rss_feed();
    EXPECT_EQ(feed_interval, 1000000);
}

TEST_F(RssItemFile, IntervalAboveADayIsCappedAtADay)
{
    write_item("#Tevrin4RSS\ninterval=100000\n");
    load_rss_feed();
    EXPECT_EQ(feed_interval, int64_t(86400) * 1000000);
}

TEST_F(RssItemFile, IntervalAcceptsHexAndOctal)
{
    write_item("#Tevrin4RSS\ninterval=0x3c\n");
    load_rss_feed();
    EXPECT_EQ(feed_interval, 60000000); // 0x3c = 60
    write_item("#Tevrin4RSS\ninterval=010\n");
    load_rss_feed();
    EXPECT_EQ(feed_interval, 8000000); // leading 0: octal 10 = 8
}

TEST_F(RssItemFile, NegativeOrMalformedIntervalGivesOneSecond)
{
    write_item("#Tevrin4RSS\ninterval=-30\n");
    load_rss_feed();
    EXPECT_EQ(feed_interval, 1000000);
    write_item("#Tevrin4RSS\ninterval=soon\n");
    load_rss_feed();
    EXPECT_EQ(feed_interval, 1000000); // strtol reads 0
}

TEST_F(RssItemFile, EveryLoadStartsFromFifteenMinutes)
{
    write_item("#Tevrin4RSS\ninterval=60\n");
    load_rss_feed();
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1/feed\n");
    load_rss_feed();
    EXPECT_EQ(feed_interval, 900000000);
}

TEST_F(RssItemFile, FeedDefaultsDifferFromScrollText)
{
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1/feed\n");
    scroll_settings.fontColor = colour_rgba{1, 2, 3, 4};
    load_rss_feed();
    const scroll_settings_record& s = scroll_settings;
    EXPECT_EQ(s.scrollSpeed, 3.3);
    EXPECT_EQ(s.space, 0.0);
    EXPECT_EQ(s.fontColor, WHITE);
    EXPECT_EQ(s.static_, 0);
    // The rest as for a scroll-text item.
    EXPECT_EQ(s.scrollTime, -1.0);
    EXPECT_EQ(s.smoothScroll, 0.0);
    EXPECT_EQ(s.emoji, 1);
    EXPECT_EQ(s.backgroundColor, (colour_rgba{0, 0, 0, 0}));
    EXPECT_EQ(s.shadowColor, (colour_rgba{0, 0, 0, 127}));
    EXPECT_EQ(s.shadowOpacity, 127);
    EXPECT_EQ(s.shadowBlur, 0.02);
    EXPECT_EQ(s.shadowX, 0.03);
    EXPECT_EQ(s.shadowY, 0.03);
    EXPECT_EQ(s.fontScale, -1);
    EXPECT_EQ(s.multiLine, 1);
    EXPECT_TRUE(s.fontFamily.empty());
}

TEST_F(RssItemFile, EmptyFileKeepsTheFeedDefaults)
{
    write_item("");
    load_rss_feed();
    EXPECT_EQ(scroll_settings.scrollSpeed, 3.3);
    EXPECT_EQ(scroll_settings.fontColor, WHITE);
    EXPECT_EQ(feed_interval, 900000000);
    EXPECT_TRUE(feed_url.empty());
}

TEST_F(RssItemFile, FontScaleIsTruncatedBeforeScaling)
{
    write_item("#Tevrin4RSS\n#-fontScale=1.5\n");
    load_rss_feed();
    EXPECT_EQ(scroll_settings.fontScale, 1000); // trunc(1.5) = 1, × 1000
    write_item("#Tevrin4RSS\n#-fontScale=2.999\n");
    load_rss_feed();
    EXPECT_EQ(scroll_settings.fontScale, 2000);
    write_item("#Tevrin4RSS\n#-fontScale=0.5\n");
    load_rss_feed();
    EXPECT_EQ(scroll_settings.fontScale, -1); // trunc(0.5) = 0, below 1: automatic
}

TEST_F(RssItemFile, AFeedNeverGoesStatic)
{
    write_item("#Tevrin4RSS\n#-scrollSpeed=0\n");
    load_rss_feed();
    EXPECT_EQ(scroll_settings.scrollSpeed, 0.0);
    EXPECT_EQ(scroll_settings.static_, 0);
    write_item("#Tevrin4RSS\n#-scrollSpeed=-2\n");
    load_rss_feed();
    EXPECT_EQ(scroll_settings.static_, 0);
}

TEST_F(RssItemFile, SettingsFollowTheScrollTextRules)
{
    write_item("#Tevrin4RSS\n"
               "url=http://127.0.0.1/feed\n"
               "#-scrollSpeed=2.5\n"
               "#-fontColor=#ff0000\n"
               "#-fontOpacity=0.5\n"
               "#-backgroundColor=102030\n"
               "#-backgroundOpacity=1\n"
               "#-shadowOpacity=1.5\n"
               "#-shadowBlur=4\n"
               "#-space=none\n"
               "#-justify=center\n"
               "#-multiLine=2\n"
               "#-fontFamily=Liberation Serif\n"
               "#-emoji=MONOCHROME\n");
    load_rss_feed();
    const scroll_settings_record& s = scroll_settings;
    EXPECT_EQ(s.scrollSpeed, 2.5);
    EXPECT_EQ(s.fontColor, (colour_rgba{255, 0, 0, 127}));         // 0.5 × 255 = 127.5 → 127
    EXPECT_EQ(s.backgroundColor, (colour_rgba{0x10, 0x20, 0x30, 255}));
    EXPECT_EQ(s.shadowOpacity, 382);                               // 1.5 × 255 = 382.5 → 382
    EXPECT_EQ(s.shadowColor, (colour_rgba{0, 0, 0, 126}));         // 382 - 256
    EXPECT_EQ(s.shadowBlur, 0.04);
    EXPECT_EQ(s.space, 0.0);
    EXPECT_EQ(s.justify, 1);
    EXPECT_EQ(s.multiLine, 2);
    EXPECT_EQ(s.fontFamily, "Liberation Serif");
    EXPECT_EQ(s.emoji, 0);
}

TEST_F(RssItemFile, OutlineAndDirectionSettings)
{
    write_item("#Tevrin4RSS\n"
               "url=http://127.0.0.1/feed\n"
               "#-outlineColor=102030\n"
               "#-outlineOpacity=0.5\n"
               "#-outlineWidth=5\n"
               "#-scrollDirection=right\n");
    load_rss_feed();
    EXPECT_EQ(scroll_settings.outlineColor, (colour_rgba{0x10, 0x20, 0x30, 127}));
    EXPECT_DOUBLE_EQ(scroll_settings.outlineWidth, 0.05);
    EXPECT_EQ(scroll_settings.scrollDirection, scroll_direction_right);
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1/feed\n#-scrollDirection=upward\n");
    testing::internal::CaptureStderr();
    load_rss_feed();
    EXPECT_NE(testing::internal::GetCapturedStderr().find("WARNING: unknown scrollDirection upward\n"),
              std::string::npos);
    EXPECT_EQ(scroll_settings.scrollDirection, scroll_direction_left);
    EXPECT_EQ(scroll_settings.outlineWidth, 0.0);
    EXPECT_EQ(scroll_settings.outlineColor, (colour_rgba{0, 0, 0, 255}));
}

TEST_F(RssItemFile, JustifySurvivesALoadThatDoesNotMentionIt)
{
    write_item("#Tevrin4RSS\n#-justify=right\n");
    load_rss_feed();
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1/feed\n");
    load_rss_feed();
    EXPECT_EQ(scroll_settings.justify, 2);
}

TEST_F(RssItemFile, LinesWithoutNameOrValueAndUnknownNamesAreIgnored)
{
    write_item("#Tevrin4RSS\n"
               "url\n"
               "=http://127.0.0.1/other\n"
               "url=\n"
               "URL=http://127.0.0.1/upper\n"
               "title=Not a setting\n"
               "#-ScrollSpeed=9\n"
               "# a comment\n"
               "Some text that is not text here\n");
    load_rss_feed();
    EXPECT_TRUE(feed_url.empty());
    EXPECT_EQ(scroll_settings.scrollSpeed, 3.3);
    EXPECT_TRUE(scroll_settings.text.empty());
}

TEST_F(RssItemFile, RemembersTheItemFileTimeAndClearsTheChangeFlag)
{
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1/feed\n");
    const timespec times[2] = {{1700000000, 0}, {1700000123, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, item_path.c_str(), times, 0), 0);
    feed_changed = 1;
    load_rss_feed();
    EXPECT_EQ(scroll_settings.file_mtime, 1700000123);
    EXPECT_EQ(feed_changed, 0);
}

TEST_F(RssItemFile, ANonRegularItemFileLeavesEverythingAlone)
{
    t4mi_meta_record* meta = t4mi_meta;
    const int saved = meta->file_fd;
    meta->file_fd = meta->meta_name_fd; // a directory
    scroll_settings.scrollSpeed = 7.0;
    feed_url = "http://127.0.0.1/kept";
    feed_changed = 1;
    {
        stderr_capture err;
        load_rss_feed();
        EXPECT_EQ(err.text(), "Failed to fstat()\n");
    }
    meta->file_fd = saved;
    EXPECT_EQ(scroll_settings.scrollSpeed, 7.0);
    EXPECT_EQ(feed_url, "http://127.0.0.1/kept");
    EXPECT_EQ(feed_changed, 0); // cleared before the check
}

TEST_F(RssItemFile, ChangingTheAddressForgetsTheLastDownload)
{
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1:8000/a.xml\n");
    load_rss_feed();
    EXPECT_EQ(feed_url, "http://127.0.0.1:8000/a.xml");
    feed_last_fetch = 123456789;
    load_rss_feed(); // same address: kept
    EXPECT_EQ(feed_last_fetch, 123456789u);
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1:8000/a.xml?x\n"); // longer
    load_rss_feed();
    EXPECT_EQ(feed_last_fetch, 0u);
    feed_last_fetch = 5;
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1:8000/b.xml?x\n"); // same length, other bytes
    load_rss_feed();
    EXPECT_EQ(feed_last_fetch, 0u);
    EXPECT_EQ(feed_url, "http://127.0.0.1:8000/b.xml?x");
    feed_last_fetch = 5;
    write_item("#Tevrin4RSS\n"); // no address at all
    load_rss_feed();
    EXPECT_EQ(feed_last_fetch, 0u);
    EXPECT_TRUE(feed_url.empty());
}

TEST_F(RssItemFile, MissingFeedFileKeepsThePreviousText)
{
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1/feed\n#-scrollSpeed=2\n");
    scroll_settings.text = "previous";
    stderr_capture err;
    load_rss_feed();
    EXPECT_EQ(err.text(), "Unable to open RSS\n");
    EXPECT_EQ(scroll_settings.text, "previous");
    EXPECT_EQ(scroll_settings.scrollSpeed, 2.0); // the settings were loaded all the same
}

TEST_F(RssItemFile, APipeInPlaceOfTheFeedFileNeverHoldsTheLoaderUp)
{
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1/feed\n");
    ASSERT_EQ(mkfifo(meta_path("rss.xml").c_str(), 0600), 0);
    // In a child with a time limit, so that a loader that waits cannot hang
    // the test program. Nothing to read counts as an empty feed, which does
    // not parse: empty text and both warnings.
    const auto load = [] {
        return t4test::run_in_child(
            [] {
                scroll_settings.text = "previous";
                load_rss_feed();
                std::printf("[%s]", scroll_settings.text.c_str());
                std::fflush(stdout);
            },
            5000);
    };
    const std::string warnings = "WARNING: Did not find RSS node\nWARNING: Did not find channel node\n";
    // No writer: opening a pipe for reading would wait for one.
    auto r = load();
    EXPECT_FALSE(r.timed_out);
    EXPECT_EQ(r.out, "[]");
    EXPECT_NE(r.err.find(warnings), std::string::npos) << r.err;
    // A writer that never writes: reading would wait for data.
    const int writer = open(meta_path("rss.xml").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    r = load();
    close(writer);
    EXPECT_FALSE(r.timed_out);
    EXPECT_EQ(r.out, "[]");
    EXPECT_NE(r.err.find(warnings), std::string::npos) << r.err;
}

TEST_F(RssItemFile, FeedFileGivesTheText)
{
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1/feed\n");
    write_feed("<rss><channel><item><title>One</title><description>Two</description></item></channel></rss>");
    scroll_settings.text = "previous";
    load_rss_feed();
    EXPECT_EQ(scroll_settings.text, "One - Two");
}

TEST_F(RssItemFile, AShorterFeedAfterALongerOneParsesCleanly)
{
    // The parser is handed the whole buffer: what a longer feed left behind
    // the shorter one's NUL must not show up as "extra content".
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1/feed\n");
    // U+0081 is fine in UTF-8 but has no windows-1252 byte: left behind, its
    // 0x81 bytes would make the converter of the second feed complain.
    std::string title(5000, 'x');
    for (int i = 0; i < 10; i++)
        title += "\xc2\x81";
    write_feed("<rss><channel><item><title>" + title + "</title></item></channel></rss>");
    load_rss_feed();
    EXPECT_EQ(scroll_settings.text, title);
    write_feed("<?xml version=\"1.0\" encoding=\"windows-1252\"?><rss><channel><item><title>Short</title>"
               "</item></channel></rss>");
    stderr_capture err;
    load_rss_feed();
    EXPECT_EQ(scroll_settings.text, "Short");
    EXPECT_EQ(err.text(), "");
}

// The access time of "rss.xml" maps onto the monotonic clock as
// atime - wall now + monotonic now.
class RssLastFetch : public RssItemFile {
protected:
    void SetUp() override
    {
        RssItemFile::SetUp();
        write_item("#Tevrin4RSS\nurl=http://127.0.0.1/feed\n");
        write_feed("<rss><channel/></rss>");
        // A monotonic clock well past any access time offset used below.
        t4mi_clock_set_monotonic_offset_us(int64_t(1000000) * 1000000);
    }
    // Makes the access time `ahead_us` after the wall clock by pinning the
    // wall clock. The access time itself is set two seconds ahead of the
    // real time: an access time before the change time (which utimensat sets
    // to now) would be moved by the loader's own read (relatime).
    void set_access_time(int64_t ahead_us)
    {
        t4mi_clock_unpin_wall();
        const int64_t atime = (gettimeofday_us() / 1000000 + 2) * 1000000;
        t4mi_clock_pin_wall_us(atime - ahead_us);
        const timespec times[2] = {{atime / 1000000, 0}, {atime / 1000000 - 3600, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, meta_path("rss.xml").c_str(), times, 0), 0);
    }
};

TEST_F(RssLastFetch, TenMinutesAgoMapsTenMinutesBeforeNow)
{
    set_access_time(-600000000);
    const uint64_t before = monotonic_clock_us();
    load_rss_feed();
    const uint64_t after = monotonic_clock_us();
    EXPECT_GE(feed_last_fetch, before - 600000000);
    EXPECT_LE(feed_last_fetch, after - 600000000);
}

TEST_F(RssLastFetch, FiftyMinutesAheadIsBelievedAndNoMore)
{
    set_access_time(3000000000);
    const uint64_t before = monotonic_clock_us();
    load_rss_feed();
    const uint64_t after = monotonic_clock_us();
    EXPECT_GE(feed_last_fetch, before + 3000000000);
    EXPECT_LE(feed_last_fetch, after + 3000000000);
    feed_last_fetch = 0;
    set_access_time(3000000001);
    load_rss_feed();
    EXPECT_EQ(feed_last_fetch, 0u);
}

TEST_F(RssLastFetch, AnAccessTimeBeforeTheMonotonicStartGivesZero)
{
    // Twenty years before the wall clock lies before the monotonic clock's
    // start (no machine runs that long) and would map below zero.
    t4mi_clock_set_monotonic_offset_us(0);
    set_access_time(-int64_t(20) * 365 * 86400 * 1000000);
    load_rss_feed();
    EXPECT_EQ(feed_last_fetch, 0u);
}

TEST_F(RssLastFetch, AReplacedAddressIsNotDatedByTheOldFeedFile)
{
    // The first address is dated by the file (the restart case); a new one
    // stays undated, so that it is fetched at once.
    set_access_time(-600000000);
    load_rss_feed();
    EXPECT_NE(feed_last_fetch, 0u);
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1/other\n");
    load_rss_feed();
    EXPECT_EQ(feed_last_fetch, 0u);
    EXPECT_EQ(feed_url, "http://127.0.0.1/other");
}

TEST_F(RssLastFetch, AKnownLastDownloadIsKept)
{
    set_access_time(-600000000);
    feed_url = "http://127.0.0.1/feed"; // the same address: the last download is not forgotten
    feed_last_fetch = 42;
    load_rss_feed();
    EXPECT_EQ(feed_last_fetch, 42u);
}

} // namespace

namespace {

TEST_F(RssItemFile, TextShapingAndDirectionAreRead)
{
    write_item("#Tevrin4RSS\n#-textShaping=1\n#-textDirection=rtl\n");
    load_rss_feed();
    EXPECT_EQ(scroll_settings.textShaping, 1);
    EXPECT_EQ(scroll_settings.textDirection, TEXT_DIRECTION_RTL);
    write_item("#Tevrin4RSS\n#-textShaping=on\n");
    stderr_capture err;
    load_rss_feed();
    EXPECT_EQ(scroll_settings.textShaping, 0);
    EXPECT_EQ(scroll_settings.textDirection, TEXT_DIRECTION_AUTO);
    EXPECT_NE(err.text().find("WARNING: unknown textShaping on\n"), std::string::npos);
}

} // namespace
