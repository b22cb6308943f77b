// An RSS item served by the real program, end to end: the feed comes from a
// Python HTTP server on 127.0.0.1 through the real /usr/bin/curl (linked into
// the redirected installation), and frames are fetched over the control
// socket and compared with frames rendered here from the text the feed should
// give, spelled out by hand. Nothing here talks to any address outside the
// loopback; every wait is bounded.
//
// The frame cache keeps a frame under its number, and a new feed is taken
// up only on a request for frame 100 or less: so after a change the tests ask
// for numbers they have not asked for before, the first of them at most 100.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>

#include "frames/client_context.h"
#include "frames/compositor.h"
#include "frames/frame_buffer.h"
#include "frames/reader.h"
#include "frames/yuva_png.h"
#include "items/rss_loader.h"
#include "items/scroll_settings.h"
#include "platform/fixed_paths.h"
#include "platform/t4mi_client.h"
#include "rss_fixture.h"
#include "rss_http_server.h"
#include "support/frame_env.h"
#include "support/item_fixture.h"
#include "support/program_env.h"
#include "support/serving_env.h"

namespace {

namespace fs = std::filesystem;
using rss_test::count_of;
using rss_test::with_separators;

constexpr uint32_t WIDTH = 640;  // pixels
constexpr uint32_t HEIGHT = 48;

t4mi_client_settings ticker()
{
    t4mi_client_settings s;
    s.width = int32_t(WIDTH);
    s.height = int32_t(HEIGHT);
    s.time_scale = 30000;
    s.frame_duration = 1001;
    return s;
}

std::string feed_of(const std::string& title, const std::string& description)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<rss version=\"2.0\"><channel><title>Local</title>\n"
           "<item><title>" + title + "</title><description><![CDATA[" + description + "]]></description></item>\n"
           "<item><title>Second</title></item>\n</channel></rss>\n";
}

// The two feeds and, worked out by hand, the texts they give: tags dropped,
// the entity decoded, title and description joined by " - ", the second
// item (a title alone) behind byte 31.
const std::string FEED_A = feed_of("Alpha", "<p>One <b>two</b> &amp; three.</p>");
const std::string TEXT_A = with_separators("Alpha - One two & three.<US>Second");
const std::string FEED_B = feed_of("Bravo", "Four <i>five</i>.");
const std::string TEXT_B = with_separators("Bravo - Four five.<US>Second");

// A frame's four planes (Y, U, V, alpha) without row padding.
struct plain_frame {
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> planes[4];
};

plain_frame copy_planes(uint32_t width, uint32_t height, const uint8_t* const rows[4], const uint32_t strides[4])
{
    plain_frame out;
    out.width = width;
    out.height = height;
    for (int p = 0; p < 4; p++) {
        if (rows[p] == nullptr)
            continue;
        for (uint32_t y = 0; y < height; y++)
            out.planes[p].insert(out.planes[p].end(), rows[p] + size_t(y) * strides[p],
                                 rows[p] + size_t(y) * strides[p] + width);
    }
    return out;
}

plain_frame from_client(const t4mi_client_frame& f)
{
    const uint8_t* const rows[4] = {f.y, f.u, f.v, f.alpha};
    const uint32_t strides[4] = {f.y_stride, f.u_stride, f.v_stride, f.alpha_stride};
    return copy_planes(f.width, f.height, rows, strides);
}

plain_frame from_local(const t4mi_video_frame* frame)
{
    yuva_frame_planes w;
    if (frame == nullptr || !map_frame_planes(frame, &w))
        return {};
    const uint8_t* const rows[4] = {w.y, w.u, w.v, w.alpha};
    const uint32_t strides[4] = {w.y_stride, w.chroma_stride, w.chroma_stride, w.alpha_stride};
    return copy_planes(w.width, w.height, rows, strides);
}

// "" when equal, else where they first differ.
std::string difference(const plain_frame& got, const plain_frame& want)
{
    if (want.width == 0)
        return "no expected frame";
    if (got.width != want.width || got.height != want.height)
        return "sizes differ";
    for (int p = 0; p < 4; p++)
        for (uint32_t y = 0; y < want.height; y++)
            for (uint32_t x = 0; x < want.width; x++)
                if (got.planes[p][size_t(y) * want.width + x] != want.planes[p][size_t(y) * want.width + x])
                    return "plane " + std::to_string(p) + " row " + std::to_string(y) + " column " +
                           std::to_string(x);
    return {};
}

// A mismatch is left for a look: "<build>/tests/rss_serving_frames/<name>_{got,want}.png".
std::string keep_for_viewing(const std::string& name, const plain_frame& got, const plain_frame& want)
{
    const std::string dir = std::string(T4MI_BINARY_DIR) + "/tests/rss_serving_frames";
    t4test::make_dirs(dir);
    for (const auto& [suffix, f] : {std::pair{"got", &got}, std::pair{"want", &want}}) {
        yuva_frame_planes planes;
        planes.y = f->planes[0].data();
        planes.u = f->planes[1].data();
        planes.v = f->planes[2].data();
        planes.alpha = f->planes[3].empty() ? nullptr : f->planes[3].data();
        planes.width = f->width;
        planes.height = f->height;
        planes.y_stride = planes.chroma_stride = planes.alpha_stride = f->width;
        if (f->width != 0)
            write_yuva_png(dir + "/" + name + "_" + suffix + ".png", planes);
    }
    return dir + "/" + name + "_{got,want}.png";
}

// The frames the item shows for `text`, rendered in this process: the item's
// settings loaded by the RSS loader as the server loads them (there is no
// feed file here), the text put in by hand.
std::map<uint64_t, plain_frame> expected_frames(const std::string& item, const std::string& text,
                                                const std::vector<uint64_t>& numbers)
{
    std::map<uint64_t, plain_frame> out;
    {
        t4test::shared_buffer_session buffers;
        if (!buffers.ready())
            return out;
        t4test::open_item open(item, "application/x-tevrin-rss-feed");
        {
            rss_test::stderr_capture quiet; // "Unable to open RSS": expected here
            load_rss_feed();
        }
        scroll_settings.text = text;
        scrolling_text_client_context local(1);
        local.apply_client_settings(ticker());
        for (uint64_t n : numbers)
            out[n] = from_local(load_frame(local.reader, n, 0, &local, 0));
    }
    rss_test::reset_rss_state();
    return out;
}

// The children of a process (its main thread's), zombies included until
// they are reaped.
std::vector<pid_t> children_of(pid_t pid)
{
    const std::string p = std::to_string(pid);
    std::vector<pid_t> out;
    std::FILE* f = std::fopen(("/proc/" + p + "/task/" + p + "/children").c_str(), "r");
    if (f == nullptr)
        return out;
    int child = 0;
    while (std::fscanf(f, "%d", &child) == 1)
        out.push_back(child);
    std::fclose(f);
    return out;
}

template <class F> bool wait_until(F done, int timeout_ms)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

class ServingProcessRss : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(fonts.ready());
        // The real downloader, at the place the program looks for it.
        const fs::path curl = t4mi_fixed_path(T4MI_DOWNLOADER_PATH);
        t4test::make_dirs(curl.parent_path());
        fs::create_symlink("/usr/bin/curl", curl);
        t4test::make_dirs(served);
    }

    static std::string item_for(const std::string& url, int interval_s)
    {
        return "#Tevrin4RSS\nurl=" + url + "\ninterval=" + std::to_string(interval_s) + "\n";
    }

    // Puts a file on the HTTP server in one step, so that no request ever
    // gets half of it.
    void publish(const std::string& name, const std::string& content)
    {
        t4test::write_file(served + "/.incoming", content);
        fs::rename(served + "/.incoming", served + "/" + name);
    }

    // Starts the server on `item`; waits until it is ready.
    void start(const std::string& item)
    {
        t4test::write_file(item_path, item);
        std::vector<std::string> env = fonts.env();
        // curl honours proxy variables and ~/.curlrc: neither may send the
        // download anywhere but to the local server.
        for (const char* e : {"no_proxy=*", "NO_PROXY=*", "http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY",
                              "all_proxy", "ALL_PROXY"})
            env.push_back(e);
        for (const char* home : {"HOME=", "CURL_HOME=", "XDG_CONFIG_HOME="})
            env.push_back(home + dir.path());
        const std::vector<std::string> args = {"--file", item_path, "--metadir", meta};
        proc = std::make_unique<t4test::serving_process>(t4test::scrolltext_binary(), args, env);
        ASSERT_TRUE(proc->wait_ready(meta)) << proc->err();
    }

    int count(const std::string& message) const { return count_of(proc->err(), message); }

    std::unique_ptr<t4mi_client> client()
    {
        auto c = std::make_unique<t4mi_client>();
        c->timeout_ms = 10000;
        if (!c->connect(proc->socket_path(), 5000) || !c->send_settings(ticker())) {
            ADD_FAILURE() << c->error();
            return nullptr;
        }
        return c;
    }

    // Requests each frame of `want` in ascending order and compares it.
    void expect_frames(t4mi_client& c, const std::map<uint64_t, plain_frame>& want, const std::string& what)
    {
        for (const auto& [n, expected] : want) {
            t4mi_client_frame f;
            ASSERT_TRUE(c.request_frame(n, 0, 0, &f)) << c.error();
            const plain_frame got = from_client(f);
            ASSERT_TRUE(c.release_frame(n));
            const std::string diff = difference(got, expected);
            if (!diff.empty())
                ADD_FAILURE() << what << ", frame " << n << ": " << diff << "; see "
                              << keep_for_viewing(what + "_" + std::to_string(n), got, expected);
        }
    }

    // Stops the server with SIGTERM (bounded) and expects a clean exit.
    void stop()
    {
        int status = -2;
        EXPECT_TRUE(proc->stop(SIGTERM, 10000, &status));
        EXPECT_EQ(status, 0) << proc->err();
    }

    t4test::temp_dir dir;
    t4test::program_fonts fonts;
    std::string served = dir / "served";
    std::string item_path = dir / "news.rss";
    std::string meta = dir / "news.meta";
    std::unique_ptr<t4test::serving_process> proc;
};

TEST_F(ServingProcessRss, ScrollsTheFeedAndFollowsItsChangesWithoutRestarting)
{
    publish("feed.xml", FEED_A);
    rss_test::local_http_server server(served);
    ASSERT_NE(server.port(), 0);
    const std::string item = item_for(server.url("/feed.xml"), 2);
    // Frames 40 and 100 show the start of the text coming in from the right;
    // the later ones its end, the separator and the second item.
    const std::vector<uint64_t> before = {40, 100, 160, 220};
    const std::vector<uint64_t> after = {41, 101, 161, 221};
    std::vector<uint64_t> all = before;
    all.insert(all.end(), after.begin(), after.end());
    const auto want_a = expected_frames(item, TEXT_A, all);
    const auto want_b = expected_frames(item, TEXT_B, after);
    ASSERT_EQ(want_a.size(), all.size());
    ASSERT_EQ(want_b.size(), after.size());
    // The two texts must look different, or the change would prove nothing.
    EXPECT_NE(difference(want_a.at(101), want_b.at(101)), "");

    start(item);
    const pid_t pid = proc->pid();
    // No feed file at start-up: the first turn fetches at once.
    ASSERT_TRUE(wait_until([&] { return count("RSS feed changed\n") >= 1; }, 15000)) << proc->err();
    const std::string err = proc->err();
    EXPECT_LT(err.find("Unable to open RSS\n"), err.find("Time to update RSS ("));
    EXPECT_LT(err.find("Time to update RSS ("), err.find("RSS feed changed\n"));
    EXPECT_EQ(t4test::read_file(meta + "/rss.xml"), FEED_A);
    auto c = client();
    ASSERT_TRUE(c);
    std::map<uint64_t, plain_frame> first;
    for (uint64_t n : before)
        first[n] = want_a.at(n);
    expect_frames(*c, first, "feed_a");

    // The server's feed changes. A download that ends after this point may
    // have started before it; the one after that cannot have, so two more
    // changes mean the new feed is in (two intervals, about 4 s).
    publish("feed.xml", FEED_B);
    const int changes = count("RSS feed changed\n");
    ASSERT_TRUE(wait_until([&] { return count("RSS feed changed\n") >= changes + 2; }, 15000)) << proc->err();
    EXPECT_EQ(t4test::read_file(meta + "/rss.xml"), FEED_B);
    expect_frames(*c, want_b, "feed_b");
    // The same process throughout.
    EXPECT_EQ(proc->pid(), pid);
    EXPECT_TRUE(proc->running());
    stop();
}

TEST_F(ServingProcessRss, ANotFoundLeavesTheOldFeedAndText)
{
    publish("feed.xml", FEED_A);
    rss_test::local_http_server server(served);
    ASSERT_NE(server.port(), 0);
    const std::string item = item_for(server.url("/feed.xml"), 1);
    const auto want = expected_frames(item, TEXT_A, {40, 41, 100, 101});
    ASSERT_EQ(want.size(), 4u);

    start(item);
    ASSERT_TRUE(wait_until([&] { return count("RSS feed changed\n") >= 1; }, 15000)) << proc->err();
    auto c = client();
    ASSERT_TRUE(c);
    expect_frames(*c, {{40, want.at(40)}, {100, want.at(100)}}, "before_404");

    // From now on the server answers 404. Two more downloads started means
    // the first of them (started after this point) has been started; with no
    // child left it has also been reaped, its result handled in that turn.
    fs::remove(served + "/feed.xml");
    const int started = count("Time to update RSS (");
    ASSERT_TRUE(wait_until([&] { return count("Time to update RSS (") >= started + 2; }, 15000)) << proc->err();
    ASSERT_TRUE(wait_until([&] { return children_of(proc->pid()).empty(); }, 5000));
    // curl's own report of the refused download ("... returned error: 404",
    // followed by " Not Found" in older versions).
    EXPECT_NE(proc->err().find("returned error: 404"), std::string::npos) << proc->err();
    EXPECT_EQ(t4test::read_file(meta + "/rss.xml"), FEED_A);
    expect_frames(*c, {{41, want.at(41)}, {101, want.at(101)}}, "after_404");
    stop();
}

TEST_F(ServingProcessRss, ADeadServerNeverStallsTheServeLoop)
{
    rss_test::silent_listener silent;
    ASSERT_NE(silent.port(), 0);
    const std::string item = item_for("http://127.0.0.1:" + std::to_string(silent.port()) + "/feed.xml", 1);
    const auto want = expected_frames(item, TEXT_A, {40, 100});
    ASSERT_EQ(want.size(), 2u);
    // A feed from an earlier run: shown from the start, refreshed a second
    // later (the file's access time dates the last download).
    t4test::write_file(meta + "/rss.xml", FEED_A);

    start(item);
    // curl connects and waits for an answer that never comes.
    ASSERT_EQ(silent.take_connections(10000), 1) << proc->err();
    const auto hang_began = std::chrono::steady_clock::now();
    auto c = client();
    ASSERT_TRUE(c);
    c->timeout_ms = 2000;
    expect_frames(*c, want, "dead_server");

    // Every request is answered promptly while the download hangs, also once
    // its interval is up and the loop looks at it on every turn. A loop that
    // waited for the child would not answer before the 300 s timeout.
    auto request_frames = [&](uint64_t first, uint64_t count) {
        double slowest = 0;
        for (uint64_t n = first; n < first + count; n++) {
            const auto t0 = std::chrono::steady_clock::now();
            t4mi_client_frame f;
            ASSERT_TRUE(c->request_frame(n, 0, 0, &f)) << "frame " << n << ": " << c->error();
            ASSERT_TRUE(c->release_frame(n));
            slowest = std::max(slowest, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
        }
        EXPECT_LT(slowest, 1.0) << "seconds for one frame";
    };
    request_frames(1000, 50);
    std::this_thread::sleep_until(hang_began + std::chrono::milliseconds(1500));
    request_frames(2000, 50);

    // Still the one download, still hanging: no second one was started.
    EXPECT_EQ(silent.take_connections(0), 1);
    const std::vector<pid_t> children = children_of(proc->pid());
    ASSERT_EQ(children.size(), 1u);
    EXPECT_EQ(t4test::read_file("/proc/" + std::to_string(children[0]) + "/comm"), "curl\n");
    EXPECT_EQ(count("RSS feed changed\n"), 0);
    EXPECT_EQ(count("Download timeout\n"), 0);
    EXPECT_EQ(t4test::read_file(meta + "/rss.xml"), FEED_A);
    // Shutting down does not wait for the child either.
    stop();
}

// "v4::stats" names the feed an operator sees: its address, the interval,
// how long ago it was fetched, and one entry per feed item.
TEST_F(ServingProcessRss, StatsShowTheFeedAddressLastFetchAndEntries)
{
    publish("feed.xml", FEED_A);
    rss_test::local_http_server server(served);
    ASSERT_NE(server.port(), 0);
    start(item_for(server.url("/feed.xml"), 30));
    ASSERT_TRUE(wait_until([&] { return count("RSS feed changed\n") >= 1; }, 15000)) << proc->err();
    auto c = client();
    ASSERT_TRUE(c);
    comm_socket_v4_packet request;
    request.command = "v4::stats";
    t4mi_client_reply reply;
    ASSERT_TRUE(c->call(request, &reply)) << c->error();
    ASSERT_TRUE(reply.ok());
    const auto stats = nlohmann::json::parse(std::string(reply.packet.data.data(), reply.packet.data_length()));
    const auto& feed = stats["feed"];
    ASSERT_TRUE(feed.is_object()) << stats.dump();
    EXPECT_EQ(feed["url"], server.url("/feed.xml"));
    EXPECT_DOUBLE_EQ(feed["interval"].get<double>(), 30.0);
    ASSERT_TRUE(feed["last_fetch_age"].is_number());
    EXPECT_GE(feed["last_fetch_age"].get<double>(), 0.0);
    EXPECT_LT(feed["last_fetch_age"].get<double>(), 30.0);  // fetched once, at start-up
    EXPECT_EQ(feed["entries"], (nlohmann::json{"Alpha - One two & three.", "Second"}));
    stop();
}

} // namespace
