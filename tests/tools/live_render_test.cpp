// t4mi_render --live against a real server: frames leave at the item's rate
// as this process reads them, a text change shows within three frames, a
// slow reader gets dropped frames instead of a growing delay, signals end
// the run between frames, and FFmpeg keys the stream over a test source.
//
// These run in real time (about 10 + 3 + 1 + 5 seconds); every pacing figure
// is taken from the times frames arrive here.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <thread>

#include "platform/t4mi_client.h"
#include "support/program_env.h"
#include "support/serving_env.h"
#include "tools/y4m_reader.h"

namespace fs = std::filesystem;

namespace {

// A crawl long enough that some of it is always in the picture.
constexpr const char* ITEM =
    "#Tevrin4ScrollText\n"
    "#-fontColor=ffffff\n"
    "#-scrollSpeed=2\n"
    "MMMM WWWW MMMM WWWW MMMM WWWW MMMM WWWW MMMM WWWW MMMM WWWW\n";

constexpr uint32_t W = 320, H = 64;
constexpr double NTSC_RATE = 30000.0 / 1001.0;
constexpr double NTSC_PERIOD_NS = 1e9 / NTSC_RATE;

// Blue text somewhere: a solid pixel with U far above neutral. White text
// has U = 128; blue (0000ff) has U = 240 (112 + 128).
bool shows_blue(const t4test::y4m_frame& f)
{
    const size_t plane = size_t(W) * H;
    for (size_t i = 0; i < plane; i++)
        if (f.planes[3 * plane + i] > 200 && f.planes[plane + i] > 200)
            return true;
    return false;
}

struct arrival {
    int64_t number;
    int64_t ns;
    bool blue;
};

class LiveRender : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(fonts.ready());
        ASSERT_FALSE(t4test::render_tool_binary().empty());
        item_path = dir / "crawl.txt";
        t4test::write_file(item_path, ITEM);
    }

    std::vector<std::string> live_args(const std::vector<std::string>& extra) const
    {
        std::vector<std::string> args = {"--item",  item_path, "--server", t4test::scrolltext_binary(),
                                         "--size",  "320x64",  "--live",   "--out",
                                         "-",       "--metadir", dir / "meta"};
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    }

    // Starts the renderer with its output piped here and reads the header.
    void start(const std::vector<std::string>& extra)
    {
        render = std::make_unique<t4test::serving_process>(t4test::render_tool_binary(), live_args(extra),
                                                           fonts.env(), -1, true);
        ASSERT_GE(render->output_fd(), 0);
        in = std::make_unique<t4test::y4m_reader>(render->output_fd());
        ASSERT_TRUE(in->read_header(30000)) << in->error() << "\n" << render->err();
        EXPECT_EQ(in->header(), "YUV4MPEG2 W320 H64 F30000:1001 Ip A0:0 C444alpha XCOLORRANGE=LIMITED");
    }

    int finish()
    {
        int status = -2;
        EXPECT_TRUE(render->wait_exit(15000, &status)) << render->err();
        return status;
    }

    t4test::temp_dir dir;
    t4test::program_fonts fonts;
    std::string item_path;
    std::unique_ptr<t4test::serving_process> render;
    std::unique_ptr<t4test::y4m_reader> in;
};

TEST_F(LiveRender, PacedAtNtscRateForTenSecondsAndShowsATextChangeWithinThreeFrames)
{
    start({"--seconds", "10", "--frame-tags"});
    std::string socket;
    ASSERT_TRUE(t4mi_client_read_ready(dir / "meta", &socket));
    t4mi_client control;
    ASSERT_TRUE(control.connect(socket)) << control.error();

    std::vector<arrival> seen;
    size_t sent_after = 0;  // frames that had arrived when the change was sent
    int64_t sent_ns = 0;
    t4test::y4m_frame f;
    while (in->next(&f, 5000)) {
        seen.push_back({f.frame_number, f.arrived_ns, shows_blue(f)});
        if (seen.size() == 150) {  // second 5
            sent_ns = t4test::monotonic_ns();
            sent_after = seen.size();
            ASSERT_TRUE(control.set_text({{"fontColor", "0000ff"}, {"text", "NEWS NEWS NEWS NEWS NEWS NEWS NEWS"}}))
                << control.error();
        }
    }
    EXPECT_TRUE(in->at_end()) << in->error();
    EXPECT_EQ(in->error(), "end of stream");
    EXPECT_EQ(finish(), 0) << render->err();
    EXPECT_NE(render->err().find("t4mi_render: live: 300 frames of 320x64 in "), std::string::npos) << render->err();

    // 10 s at 30000/1001: 299.7, rounded to 300 frames, numbered 0..299.
    ASSERT_EQ(seen.size(), 300u);
    for (size_t k = 0; k < seen.size(); k++)
        ASSERT_EQ(seen[k].number, int64_t(k));
    const double span_s = double(seen.back().ns - seen.front().ns) / 1e9;
    const double rate = 299.0 / span_s;
    EXPECT_NEAR(rate, NTSC_RATE, NTSC_RATE * 0.01) << "span " << span_s << " s";
    // Never ahead of the clock: frame k not before k periods after frame 0
    // (less one period, for this reader's own wake-up of frame 0).
    for (size_t k = 1; k < seen.size(); k++)
        EXPECT_GE(double(seen[k].ns - seen.front().ns), double(k) * NTSC_PERIOD_NS - NTSC_PERIOD_NS) << k;

    // The change: none of it before, and among the first three frames that
    // arrived after it was sent; every frame after that shows it.
    for (size_t k = 0; k < sent_after; k++)
        ASSERT_FALSE(seen[k].blue) << k;
    size_t first_blue = sent_after;
    while (first_blue < seen.size() && !seen[first_blue].blue)
        ++first_blue;
    ASSERT_LT(first_blue, seen.size());
    size_t after_send = 0;  // frames that arrived after the send, up to the first blue one
    for (size_t k = sent_after; k <= first_blue; k++)
        after_send += seen[k].ns > sent_ns ? 1 : 0;
    EXPECT_LE(after_send, 3u) << "first blue frame: " << first_blue;
    for (size_t k = first_blue; k < seen.size(); k++)
        EXPECT_TRUE(seen[k].blue) << k;
}

TEST_F(LiveRender, SlowReaderGetsDroppedFramesAndNoDrift)
{
    start({"--seconds", "3", "--drop-late", "--frame-tags"});
    // This reader takes two frame periods per frame: half the rate.
    std::vector<arrival> seen;
    t4test::y4m_frame f;
    while (in->next(&f, 5000)) {
        seen.push_back({f.frame_number, f.arrived_ns, false});
        std::this_thread::sleep_for(std::chrono::nanoseconds(int64_t(2 * NTSC_PERIOD_NS)));
    }
    EXPECT_TRUE(in->at_end()) << in->error();
    EXPECT_EQ(finish(), 0) << render->err();

    // About half of the 90 frames of 3 s arrive; the rest are dropped.
    ASSERT_GE(seen.size(), 20u);
    EXPECT_LT(seen.size(), 80u);
    EXPECT_EQ(seen.front().number, 0);
    int64_t skipped = 0;
    for (size_t k = 0; k < seen.size(); k++) {
        if (k > 0) {
            ASSERT_GT(seen[k].number, seen[k - 1].number) << k;
            skipped += seen[k].number - seen[k - 1].number - 1;
        }
        // The frame arriving is the one the clock asks for: its number is at
        // most a few frames behind its time (the reader's two-period nap, the
        // frame in the pipe, one being written), at whatever point in the run.
        const double due = double(seen[k].ns - seen.front().ns) / NTSC_PERIOD_NS;
        EXPECT_LE(due - double(seen[k].number), 5.0) << "frame " << seen[k].number;
        EXPECT_GE(due - double(seen[k].number), -1.0) << "frame " << seen[k].number;
    }
    EXPECT_GT(skipped, 10);
    EXPECT_GE(seen.back().number, 84);  // it kept up to the end of the 90 frames
    const std::string err = render->err();
    EXPECT_NE(err.find("t4mi_render: behind: "), std::string::npos) << err;
    // Every frame of the run either left or was dropped.
    EXPECT_NE(err.find("t4mi_render: live: " + std::to_string(seen.size()) + " frames of 320x64 in "),
              std::string::npos)
        << err;
    EXPECT_NE(err.find(", " + std::to_string(90 - seen.size()) + " dropped\n"), std::string::npos) << err;
}

TEST_F(LiveRender, SigtermEndsTheRunBetweenFrames)
{
    start({"--frame-tags"});  // no length: runs until stopped
    t4test::y4m_frame f;
    int64_t n = 0;
    for (; n < 10; n++) {
        ASSERT_TRUE(in->next(&f, 5000)) << in->error();
        ASSERT_EQ(f.frame_number, n);
    }
    kill(render->pid(), SIGTERM);
    while (in->next(&f, 5000))
        EXPECT_EQ(f.frame_number, n++);
    // The stream ends on a frame boundary, not inside a frame.
    EXPECT_EQ(in->error(), "end of stream");
    EXPECT_EQ(finish(), 0) << render->err();
    EXPECT_NE(render->err().find("; stopped by a signal\n"), std::string::npos) << render->err();
}

TEST_F(LiveRender, EndsWhenTheReaderClosesTheOutput)
{
    start({});  // untagged, as FFmpeg wants it, and endless
    t4test::y4m_frame f;
    for (int n = 0; n < 5; n++) {
        ASSERT_TRUE(in->next(&f, 5000)) << in->error();
        EXPECT_EQ(f.frame_number, -1) << "no XFRAME tag without --frame-tags";
    }
    in.reset();
    render->close_output();
    EXPECT_EQ(finish(), 0) << render->err();
    EXPECT_NE(render->err().find("t4mi_render: the reader closed the output\n"), std::string::npos) << render->err();
}

std::string quoted(const std::string& s) { return "'" + s + "'"; }

TEST_F(LiveRender, FfmpegKeysTheLiveCrawlOverATestSource)
{
    if (!fs::exists("/usr/bin/ffmpeg") || !fs::exists("/usr/bin/ffprobe"))
        GTEST_SKIP() << "ffmpeg is not installed (scripts/setup.sh installs it)";
    std::string command = "set -o pipefail; " + quoted(t4test::render_tool_binary());
    for (const std::string& a : live_args({"--seconds", "5"}))
        command += " " + quoted(a);
    // The crawl at the bottom of a 320x240 test picture, ending with the crawl.
    command += " | /usr/bin/ffmpeg -nostdin -v error -f lavfi -i testsrc=size=320x240:rate=30000/1001"
               " -f yuv4mpegpipe -i - -filter_complex '[0:v][1:v]overlay=0:H-h:shortest=1'"
               " -c:v ffv1 -y " + quoted(dir / "keyed.mkv");
    const auto r = t4test::run_process("/bin/bash", {"-c", command}, fonts.env(), 60000);
    ASSERT_EQ(r.exit_status, 0) << r.err;

    const auto probe = t4test::run_process(
        "/usr/bin/ffprobe", {"-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries",
                             "stream=width,height,nb_read_frames:format=duration", "-of",
                             "default=noprint_wrappers=1", dir / "keyed.mkv"});
    ASSERT_EQ(probe.exit_status, 0) << probe.err;
    const auto kv = t4test::key_values(probe.out);
    EXPECT_EQ(kv.at("width"), "320");
    EXPECT_EQ(kv.at("height"), "240");
    // 5 s at 30000/1001: 149.85, rounded to 150 frames, 150 * 1001 / 30000 = 5.005 s.
    EXPECT_EQ(kv.at("nb_read_frames"), "150");
    EXPECT_NEAR(std::stod(kv.at("duration")), 5.005, 1.0 / NTSC_RATE);
}

TEST_F(LiveRender, RefusesSwitchesThatDoNotGoWithLive)
{
    const std::string tool = t4test::render_tool_binary();
    auto run = [&](const std::vector<std::string>& args) {
        return t4test::run_process(tool, args, fonts.env(), 30000, dir.path());
    };
    auto r = run({"--item", item_path, "--drop-late", "--out", "x.y4m"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_NE(r.err.find("--drop-late goes with --live"), std::string::npos) << r.err;
    r = run({"--item", item_path, "--live"});
    EXPECT_EQ(r.exit_status, 2);
    r = run({"--item", item_path, "--live", "--out", "x.y4m", "--png-dir", "png"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_NE(r.err.find("--live writes a video only"), std::string::npos) << r.err;
    r = run({"--socket", "s", "--metadir", "m", "--out", "x.y4m"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_NE(r.err.find("--metadir goes with --item"), std::string::npos) << r.err;
}

} // namespace
