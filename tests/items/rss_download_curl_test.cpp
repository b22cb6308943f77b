// The feed download for real: /usr/bin/curl started through the fork and
// exec path, fetching from a Python HTTP server on 127.0.0.1. Nothing here
// talks to any address outside the loopback.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "items/rss_download.h"
#include "items/rss_loader.h"
#include "items/scroll_settings.h"
#include "platform/clock.h"
#include "platform/fixed_paths.h"
#include "rss_fixture.h"
#include "rss_http_server.h"

namespace {

namespace fs = std::filesystem;
using rss_test::count_of;
using rss_test::scoped_env;
using rss_test::stderr_capture;
using rss_test::with_separators;

constexpr uint64_t SECOND = 1000000;

std::string feed_of(const std::string& title, const std::string& description)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<rss version=\"2.0\"><channel><title>Local</title>\n"
           "<item><title>" + title + "</title><description><![CDATA[" + description + "]]></description></item>\n"
           "<item><title>Second</title></item>\n</channel></rss>\n";
}

class RssCurlDownload : public rss_test::rss_item_test {
protected:
    void SetUp() override
    {
        rss_item_test::SetUp();
        fs::create_symlink("/usr/bin/curl", root.at(T4MI_DOWNLOADER_PATH));
        t4test::make_dirs(served);
        t4mi_clock_set_monotonic_offset_us(offset);
    }

    void advance_clock(uint64_t us)
    {
        offset += int64_t(us);
        t4mi_clock_set_monotonic_offset_us(offset);
    }

    template <class F> bool turn_until(F done)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(15);
        while (std::chrono::steady_clock::now() < end) {
            if (done(rss_feed_changed()))
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }

    t4test::fixed_root root;
    std::string served = dir / "served";
    int64_t offset = int64_t(1000000) * SECOND;
    // curl honours proxy variables and ~/.curlrc: neither may send the test
    // anywhere but to the local server.
    scoped_env no_proxy{"no_proxy", "*"};
    scoped_env no_proxy_upper{"NO_PROXY", "*"};
    scoped_env http_proxy{"http_proxy", nullptr};
    scoped_env https_proxy{"https_proxy", nullptr};
    scoped_env all_proxy{"ALL_PROXY", nullptr};
    scoped_env all_proxy_lower{"all_proxy", nullptr};
    scoped_env curl_home{"CURL_HOME", dir.path().c_str()};
    scoped_env xdg_home{"XDG_CONFIG_HOME", dir.path().c_str()};
    scoped_env home{"HOME", dir.path().c_str()};
};

TEST_F(RssCurlDownload, FetchesTheFeedAndFollowsItsChanges)
{
    t4test::write_file(served + "/feed.xml", feed_of("Markets rally", "<p>Shares rose <b>2%</b>.</p>"));
    rss_test::local_http_server server(served);
    ASSERT_NE(server.port(), 0);
    write_item("#Tevrin4RSS\nurl=" + server.url("/feed.xml") + "\ninterval=60\n");
    load_rss_feed(); // no feed file yet: nothing to show, fetch at once

    ASSERT_TRUE(turn_until([](bool changed) { return changed; }));
    load_rss_feed();
    EXPECT_EQ(scroll_settings.text, with_separators("Markets rally - Shares rose 2%.<US>Second"));

    // The server's feed changes; the process picks it up after the interval
    // without restarting, and not before.
    t4test::write_file(served + "/feed.xml", feed_of("Markets fall", "Shares lost 1%."));
    for (int i = 0; i < 10; i++)
        EXPECT_FALSE(rss_feed_changed());
    EXPECT_EQ(download_pid, -1);
    advance_clock(60 * SECOND);
    ASSERT_TRUE(turn_until([](bool changed) { return changed; }));
    load_rss_feed();
    EXPECT_EQ(scroll_settings.text, with_separators("Markets fall - Shares lost 1%.<US>Second"));
}

TEST_F(RssCurlDownload, NotFoundLeavesTheOldFeed)
{
    t4test::write_file(served + "/feed.xml", feed_of("Kept", "Old news."));
    rss_test::local_http_server server(served);
    ASSERT_NE(server.port(), 0);
    write_item("#Tevrin4RSS\nurl=" + server.url("/feed.xml") + "\n");
    load_rss_feed();
    ASSERT_TRUE(turn_until([](bool changed) { return changed; }));
    load_rss_feed();
    const std::string old_feed = t4test::read_file(meta_path("rss.xml"));

    // A new address that the server does not have: curl --fail gives up
    // with a non-zero status and the feed file stays.
    write_item("#Tevrin4RSS\nurl=" + server.url("/missing.xml") + "\n");
    load_rss_feed();
    ASSERT_TRUE(turn_until([](bool) { return download_pid == -1; }));
    EXPECT_FALSE(rss_feed_changed());
    EXPECT_EQ(t4test::read_file(meta_path("rss.xml")), old_feed);
    load_rss_feed();
    EXPECT_EQ(scroll_settings.text, with_separators("Kept - Old news.<US>Second"));
}

TEST_F(RssCurlDownload, AServerThatNeverAnswersIsCutOffByTheTimeout)
{
    write_feed(feed_of("Kept", "Old news."));
    rss_test::silent_listener silent;
    ASSERT_NE(silent.port(), 0);
    feed_url = "http://127.0.0.1:" + std::to_string(silent.port()) + "/feed.xml";
    stderr_capture err;
    rss_feed_changed();
    ASSERT_GT(download_pid, 0);
    // curl is connected and waiting; the loop is not.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    for (int i = 0; i < 5; i++)
        EXPECT_FALSE(rss_feed_changed());
    EXPECT_GT(download_pid, 0);

    advance_clock(300 * SECOND);
    ASSERT_TRUE(turn_until([](bool) { return download_pid == -1; }));
    EXPECT_EQ(count_of(err.text(), "Download timeout\n"), 1);
    EXPECT_FALSE(rss_feed_changed());
    load_rss_feed();
    EXPECT_EQ(scroll_settings.text, with_separators("Kept - Old news.<US>Second"));
}

} // namespace
