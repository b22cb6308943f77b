// The feed download with stand-in downloaders at the redirected downloader
// path: scheduling, the child's start, supervision, the timeout and the
// atomic replacement of the feed file.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "items/rss_download.h"
#include "items/rss_loader.h"
#include "items/scroll_settings.h"
#include "platform/clock.h"
#include "platform/fixed_paths.h"
#include "platform/t4mi_globals.h"
#include "rss_fixture.h"
#include "rss_http_server.h"

namespace {

namespace fs = std::filesystem;
using rss_test::count_of;
using rss_test::stderr_capture;

// Run as the downloader (the test program linked at the downloader path,
// with this variable set), the program writes down how it was started and
// leaves with status 0 without writing a feed.
constexpr const char* RECORD_ENV = "T4MI_RSS_TEST_RECORD";
const int recorder = [] {
    const char* out = std::getenv(RECORD_ENV);
    if (out == nullptr)
        return 0;
    const std::string cmdline = t4test::read_file("/proc/self/cmdline");
    const unsigned alarm_left = alarm(0);
    const bool part_present = access("rss.xml.part", F_OK) == 0;
    std::string record;
    for (size_t at = 0; at < cmdline.size();) {
        const size_t end = cmdline.find('\0', at);
        record += "arg=" + cmdline.substr(at, end - at) + "\n";
        at = end + 1;
    }
    record += "cwd=" + fs::current_path().string() + "\n";
    record += "part=" + std::to_string(part_present) + "\n";
    record += "alarm=" + std::to_string(alarm_left) + "\n";
    t4test::write_file(out, record);
    _exit(0);
}();

constexpr uint64_t SECOND = 1000000;

class RssDownload : public rss_test::rss_item_test {
protected:
    void SetUp() override
    {
        rss_item_test::SetUp();
        downloader = root.at(T4MI_DOWNLOADER_PATH);
        // Far from zero, so that "ten minutes ago" is a plain number; pinned,
        // so that only the test's own steps move it, however loaded the
        // machine is.
        t4mi_clock_pin_monotonic_us(offset);
        feed_interval = 60 * SECOND;
    }
    void TearDown() override
    {
        t4mi_clock_unpin_monotonic();
        rss_item_test::TearDown();
    }

    // Installs a shell script as the downloader.
    void install_script(const std::string& body)
    {
        t4test::write_file(downloader, "#!/bin/sh\n" + body);
        chmod(downloader.c_str(), 0755);
    }

    // Moves the monotonic clock by `us` on top of the fixture's offset.
    void advance_clock(uint64_t us)
    {
        offset += int64_t(us);
        t4mi_clock_pin_monotonic_us(offset);
    }

    // Runs the loop's feed test every 5 ms until `done` holds (given the
    // test's result) or 10 s of real time have passed.
    template <class F> bool turn_until(F done)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < end) {
            if (done(rss_feed_changed()))
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }
    bool turn_until_reaped()
    {
        return turn_until([](bool) { return download_pid == -1; });
    }

    t4test::fixed_root root;
    std::string downloader;
    int64_t offset = int64_t(1000000) * SECOND;
};

TEST_F(RssDownload, AnEmptyAddressNeverStartsADownload)
{
    install_script("touch started\n");
    feed_url.clear();
    feed_last_fetch = 0;
    feed_changed = 1;
    stderr_capture err;
    for (int i = 0; i < 3; i++) {
        EXPECT_FALSE(rss_feed_changed());
        advance_clock(3600 * SECOND);
    }
    EXPECT_EQ(download_pid, -1);
    EXPECT_EQ(err.text(), "");
}

TEST_F(RssDownload, TheDownloaderGetsExactlyItsElevenArguments)
{
    // The test program stands in for curl; it records its arguments, its
    // directory, whether a stale partial file survived, and its alarm.
    fs::create_symlink(fs::read_symlink("/proc/self/exe"), downloader);
    t4test::write_file(meta_path("rss.xml.part"), "stale");
    const std::string record = dir / "record.txt";
    rss_test::scoped_env env(RECORD_ENV, record.c_str()); // the environment is inherited
    feed_url = "http://127.0.0.1:9/feed?a=1&b=--x";

    stderr_capture err;
    // The record below proves that it ran: a quick child may already be
    // reaped by the call that started it.
    EXPECT_FALSE(rss_feed_changed());
    ASSERT_TRUE(turn_until_reaped());
    const std::string expected_args = "arg=/usr/bin/curl\n"
                                      "arg=-o\n"
                                      "arg=rss.xml.part\n"
                                      "arg=--fail\n"
                                      "arg=--max-redirs\n"
                                      "arg=19\n"
                                      "arg=--location\n"
                                      "arg=--progress-bar\n"
                                      "arg=--insecure\n"
                                      "arg=--\n"
                                      "arg=http://127.0.0.1:9/feed?a=1&b=--x\n";
    const std::string got = t4test::read_file(record);
    EXPECT_EQ(got.substr(0, expected_args.size()), expected_args);
    EXPECT_NE(got.find("cwd=" + fs::canonical(meta_dir).string() + "\n"), std::string::npos) << got;
    EXPECT_NE(got.find("part=0\n"), std::string::npos) << got;
    // 310 s, possibly rounded down by the time it took to start.
    EXPECT_TRUE(got.find("alarm=310\n") != std::string::npos || got.find("alarm=309\n") != std::string::npos) << got;
    // A status of 0 without a partial file changes nothing.
    EXPECT_FALSE(fs::exists(meta_path("rss.xml")));
    EXPECT_EQ(feed_changed, 0);
}

TEST_F(RssDownload, ACompletedDownloadReplacesTheFeedAndReportsIt)
{
    t4test::write_file(dir / "served.xml",
                       "<rss><channel><item><title>Fresh</title></item></channel></rss>");
    install_script("cp '" + (dir / "served.xml") + "' \"$2\"\n");
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1:9/feed\ninterval=60\n");
    load_rss_feed();
    ASSERT_EQ(feed_last_fetch, 0u); // no feed file yet

    ASSERT_TRUE(turn_until([](bool changed) { return changed; }));
    EXPECT_EQ(download_pid, -1);
    EXPECT_EQ(feed_changed, 1);
    EXPECT_FALSE(fs::exists(meta_path("rss.xml.part")));
    EXPECT_TRUE(rss_feed_changed()); // stays reported until the loader runs
    load_rss_feed();
    EXPECT_EQ(feed_changed, 0);
    EXPECT_FALSE(rss_feed_changed());
    EXPECT_EQ(scroll_settings.text, "Fresh");
}

TEST_F(RssDownload, AFailedDownloadLeavesTheOldFeed)
{
    write_feed("old feed");
    install_script("echo half > rss.xml.part\nexit 22\n");
    feed_url = "http://127.0.0.1:9/feed";
    ASSERT_TRUE(turn_until_reaped());
    EXPECT_FALSE(rss_feed_changed());
    EXPECT_EQ(t4test::read_file(meta_path("rss.xml")), "old feed");
    EXPECT_EQ(feed_changed, 0);
}

TEST_F(RssDownload, ADownloaderThatCannotBeStartedChangesNothing)
{
    // No program at the downloader path: the child's execv fails, _exit(1).
    write_feed("old feed");
    feed_url = "http://127.0.0.1:9/feed";
    ASSERT_TRUE(turn_until_reaped());
    EXPECT_EQ(t4test::read_file(meta_path("rss.xml")), "old feed");
    EXPECT_EQ(feed_changed, 0);
}

TEST_F(RssDownload, AChildWithoutMetadataDirectoryFailsItsAssertion)
{
    install_script("echo new > rss.xml.part\n");
    const int saved = t4mi_meta->meta_name_fd;
    t4mi_meta->meta_name_fd = -1;
    feed_url = "http://127.0.0.1:9/feed";
    stderr_capture err;
    ASSERT_TRUE(turn_until_reaped());
    t4mi_meta->meta_name_fd = saved;
    EXPECT_NE(err.text().find("t4mi_scrolltext: bool rss_feed_changed(): Assertion `t4mi_meta->meta_name_fd >= 0' "
                              "failed.\n"),
              std::string::npos)
        << err.text();
    EXPECT_EQ(feed_changed, 0);
}

TEST_F(RssDownload, NothingHappensBeforeTheIntervalIsUp)
{
    install_script("exit 0\n");
    feed_url = "http://127.0.0.1:9/feed";
    feed_last_fetch = monotonic_clock_us();
    feed_changed = 1;
    stderr_capture err;
    EXPECT_TRUE(rss_feed_changed()); // a change not yet loaded is still reported
    advance_clock(59 * SECOND);
    EXPECT_TRUE(rss_feed_changed());
    EXPECT_EQ(download_pid, -1);
    EXPECT_EQ(err.text(), "");
}

TEST_F(RssDownload, APausedProcessFetchesOnceAndIsDueAnIntervalAfterNow)
{
    // Interval 60 s, last download ten minutes ago: ten slots were missed.
    install_script("echo run >> fetches\n");
    feed_url = "http://127.0.0.1:9/feed";
    const uint64_t last = (monotonic_clock_us() - 600 * SECOND) / SECOND * SECOND; // whole seconds
    feed_last_fetch = last;
    stderr_capture err;
    const uint64_t before = monotonic_clock_us();
    rss_feed_changed();
    const uint64_t after = monotonic_clock_us();
    // The later of last + 60 s (nine minutes ago) and now.
    EXPECT_GE(feed_last_fetch, before);
    EXPECT_LE(feed_last_fetch, after);
    const uint64_t next_due = feed_last_fetch + 60 * SECOND;
    ASSERT_TRUE(turn_until_reaped());
    for (int i = 0; i < 20; i++)
        rss_feed_changed();
    EXPECT_EQ(t4test::read_file(meta_path("fetches")), "run\n");
    std::string text = err.text();
    EXPECT_EQ(count_of(text, "Time to update RSS"), 1) << text;
    // "%.3f" of now and of the due time (last + 60 s), in seconds.
    std::smatch m;
    ASSERT_TRUE(std::regex_search(text, m, std::regex("^Time to update RSS \\(([0-9]+\\.[0-9]{3}) -> ([0-9]+\\.[0-9]{3})\\)\n")))
        << text;
    const double shown_now = std::stod(m[1].str());
    EXPECT_GE(shown_now, double(before) / 1e6 - 0.001);
    EXPECT_LE(shown_now, double(after) / 1e6 + 0.001);
    EXPECT_EQ(m[2].str(), std::to_string((last + 60 * SECOND) / SECOND) + ".000");

    // The next one comes an interval after that download, not sooner.
    advance_clock(next_due - monotonic_clock_us() - SECOND);
    rss_feed_changed();
    EXPECT_EQ(count_of(err.text(), "Time to update RSS"), 1);
    advance_clock(2 * SECOND);
    rss_feed_changed();
    EXPECT_EQ(count_of(err.text(), "Time to update RSS"), 2);
}

TEST_F(RssDownload, AnAddressChangeStartsADownloadOnTheNextTurn)
{
    t4test::write_file(dir / "served.xml", "<rss><channel><item><title>A</title></item></channel></rss>");
    install_script("cp '" + (dir / "served.xml") + "' \"$2\"\n");
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1:9/a\n");
    load_rss_feed();
    ASSERT_TRUE(turn_until([](bool changed) { return changed; }));
    load_rss_feed();
    ASSERT_EQ(scroll_settings.text, "A");
    stderr_capture err;
    rss_feed_changed();
    EXPECT_EQ(download_pid, -1); // fifteen minutes to go
    EXPECT_EQ(err.text(), "");

    write_item("#Tevrin4RSS\nurl=http://127.0.0.1:9/b\n");
    load_rss_feed();
    rss_feed_changed();
    EXPECT_EQ(count_of(err.text(), "Time to update RSS"), 1);
    // Started then, even if already reaped: the new feed arrives.
    EXPECT_TRUE(turn_until([](bool changed) { return changed; }));
}

TEST_F(RssDownload, AHungDownloadIsTerminatedEveryFiveSecondsUntilItIsGone)
{
    // A downloader that ignores SIGTERM: only the repeated signal's schedule
    // and our own SIGKILL matter.
    write_feed("old feed");
    install_script("trap '' TERM\necho partial > rss.xml.part\nexec sleep 60\n");
    feed_url = "http://127.0.0.1:9/feed";
    stderr_capture err;
    rss_feed_changed();
    ASSERT_GT(download_pid, 0);
    const pid_t child = download_pid;
    // The partial file is written after the trap is set: until then a
    // SIGTERM would still end the shell.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!fs::exists(meta_path("rss.xml.part")) && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_TRUE(fs::exists(meta_path("rss.xml.part")));
    const auto timeouts = [&] { return count_of(err.text(), "Download timeout\n"); };

    advance_clock(299 * SECOND);
    rss_feed_changed();
    EXPECT_EQ(timeouts(), 0);
    advance_clock(1 * SECOND); // 300 s: the deadline
    rss_feed_changed();
    EXPECT_EQ(timeouts(), 1);
    rss_feed_changed();
    EXPECT_EQ(timeouts(), 1);
    advance_clock(4 * SECOND); // 304 s
    rss_feed_changed();
    EXPECT_EQ(timeouts(), 1);
    advance_clock(1 * SECOND); // 305 s
    rss_feed_changed();
    EXPECT_EQ(timeouts(), 2);
    advance_clock(95 * SECOND); // 400 s: far past; the next is 5 s from now
    rss_feed_changed();
    EXPECT_EQ(timeouts(), 3);
    advance_clock(4 * SECOND);
    rss_feed_changed();
    EXPECT_EQ(timeouts(), 3);
    advance_clock(1 * SECOND);
    rss_feed_changed();
    EXPECT_EQ(timeouts(), 4);
    EXPECT_EQ(download_pid, child);

    // Gone at last: reaped, and no more signals.
    kill(child, SIGKILL);
    ASSERT_TRUE(turn_until_reaped());
    const int after_exit = timeouts();
    advance_clock(10 * SECOND);
    rss_feed_changed();
    EXPECT_EQ(timeouts(), after_exit);
    EXPECT_EQ(t4test::read_file(meta_path("rss.xml")), "old feed");
    EXPECT_EQ(feed_changed, 0);
}

TEST_F(RssDownload, ADownloaderThatObeysSigtermEndsAtTheFirstTimeout)
{
    write_feed("old feed");
    install_script("echo partial > rss.xml.part\nexec sleep 60\n");
    feed_url = "http://127.0.0.1:9/feed";
    stderr_capture err;
    rss_feed_changed();
    ASSERT_GT(download_pid, 0);
    advance_clock(300 * SECOND);
    ASSERT_TRUE(turn_until_reaped());
    EXPECT_EQ(count_of(err.text(), "Download timeout\n"), 1);
    EXPECT_EQ(t4test::read_file(meta_path("rss.xml")), "old feed");
    EXPECT_FALSE(rss_feed_changed());
}

} // namespace
