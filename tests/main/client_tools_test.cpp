// The client tools against a real server: t4mi_render's Y4M as FFmpeg reads
// it, its PNG frames and contact sheet, and t4mi_control's commands.
//
// Skipped unless the build enables the process-level serving tests.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "frames/yuva_png.h"
#include "platform/t4mi_client.h"
#include "support/program_env.h"
#include "support/serving_env.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* ITEM =
    "#Tevrin4ScrollText\n"
    "#-backgroundColor=ff0000\n"
    "#-backgroundOpacity=0.5\n"
    "Breaking news\n";

class ServingProcessTools : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(fonts.ready());
        ASSERT_FALSE(t4test::render_tool_binary().empty());
        item_path = dir / "ticker.txt";
        t4test::write_file(item_path, ITEM);
    }

    t4test::process_result run(const std::string& tool, const std::vector<std::string>& args)
    {
        return t4test::run_process(tool, args, fonts.env(), 60000, dir.path());
    }

    void start_server()
    {
        server = std::make_unique<t4test::serving_process>(
            t4test::scrolltext_binary(), std::vector<std::string>{"--file", item_path, "--metadir", dir / "meta"},
            fonts.env());
        ASSERT_TRUE(server->wait_ready(dir / "meta")) << server->err();
    }

    t4test::temp_dir dir;
    t4test::program_fonts fonts;
    std::string item_path;
    std::unique_ptr<t4test::serving_process> server;
};

TEST_F(ServingProcessTools, RenderWritesAY4mThatFfmpegReadsAsYuva444p)
{
    const auto r = run(t4test::render_tool_binary(),
                       {"--item", item_path, "--server", t4test::scrolltext_binary(), "--out", dir / "out.y4m", "--size",
                        "320x64", "--frames", "30", "--png-dir", dir / "png", "--png-every", "10", "--sheet",
                        dir / "sheet.png"});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(r.err.find("t4mi_render: 30 frames of 320x64 in "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(" frames/s\n"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find('\r'), std::string::npos) << "no progress bar without a terminal";

    const auto probe = t4test::run_process(
        "/usr/bin/ffprobe", {"-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries",
                             "stream=width,height,pix_fmt,nb_read_frames,r_frame_rate", "-of",
                             "default=noprint_wrappers=1", dir / "out.y4m"});
    ASSERT_EQ(probe.exit_status, 0) << probe.err;
    const auto kv = t4test::key_values(probe.out);
    EXPECT_EQ(kv.at("width"), "320");
    EXPECT_EQ(kv.at("height"), "64");
    EXPECT_EQ(kv.at("pix_fmt"), "yuva444p");
    EXPECT_EQ(kv.at("nb_read_frames"), "30");
    EXPECT_EQ(kv.at("r_frame_rate"), "30000/1001");

    // FFmpeg's decoding of the first frame: the planes in the order Y, U, V,
    // alpha, each 320 x 64. Red at opacity 0.5: Y = (66 * 255 + 4096) >> 8
    // = 81, U = 90, V = 239 (see the compositor's matrix), A = 127.
    const auto raw = t4test::run_process("/usr/bin/ffmpeg", {"-v", "error", "-i", dir / "out.y4m", "-frames:v", "1",
                                                             "-f", "rawvideo", "-pix_fmt", "yuva444p", "-"});
    ASSERT_EQ(raw.exit_status, 0) << raw.err;
    ASSERT_EQ(raw.out.size(), 4u * 320 * 64);
    EXPECT_EQ(uint8_t(raw.out[0]), 81);
    EXPECT_EQ(uint8_t(raw.out[320 * 64]), 90);
    EXPECT_EQ(uint8_t(raw.out[2 * 320 * 64]), 239);
    EXPECT_EQ(uint8_t(raw.out[3 * 320 * 64]), 127);

    for (int n : {0, 10, 20}) {
        std::vector<uint8_t> rgba;
        uint32_t w = 0, h = 0;
        ASSERT_TRUE(read_rgba_png(dir / ("png/frame_" + std::to_string(n) + ".png"), &rgba, &w, &h)) << n;
        EXPECT_EQ(w, 320u);
        EXPECT_EQ(h, 64u);
        EXPECT_EQ(rgba[3], 127);
    }
    EXPECT_FALSE(fs::exists(dir / "png/frame_5.png"));
    std::vector<uint8_t> sheet;
    uint32_t sw = 0, sh = 0;
    ASSERT_TRUE(read_rgba_png(dir / "sheet.png", &sheet, &sw, &sh));
    // 320 x 64 is not a strip (5:1, a strip is 8:1 or wider): thumbnails
    // stay 320 x 64 (under the 480 limit), 1920 / (320 + 8) = 5 to a row:
    // 5 * 328 + 8 = 1648 wide; 12 frames make 3 rows: 3 * 72 + 8 = 224 high.
    EXPECT_EQ(sw, 1648u);
    EXPECT_EQ(sh, 224u);
}

TEST_F(ServingProcessTools, RenderToStandardOutputFromARunningServer)
{
    start_server();
    const auto r = run(t4test::render_tool_binary(),
                       {"--socket", server->socket_path(), "--out", "-", "--size", "64x16", "--frames", "5", "--rate",
                        "25/1"});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    const std::string header = "YUV4MPEG2 W64 H16 F25:1 Ip A0:0 C444alpha XCOLORRANGE=LIMITED\n";
    ASSERT_EQ(r.out.compare(0, header.size(), header), 0) << r.out.substr(0, 80);
    // Five frames of "FRAME\n" and four 64 x 16 planes.
    EXPECT_EQ(r.out.size(), header.size() + 5 * (6 + 4 * 64 * 16));
    EXPECT_TRUE(server->running());
    int status = -2;
    EXPECT_TRUE(server->stop(SIGTERM, 15000, &status));
    EXPECT_EQ(status, 0);
}

TEST_F(ServingProcessTools, RenderRefusesBadArguments)
{
    EXPECT_EQ(run(t4test::render_tool_binary(), {"--out", "x.y4m"}).exit_status, 2);
    EXPECT_EQ(run(t4test::render_tool_binary(), {"--socket", "s", "--item", "i", "--out", "x.y4m"}).exit_status, 2);
    EXPECT_EQ(run(t4test::render_tool_binary(), {"--socket", "s", "--size", "5000x10", "--out", "x"}).exit_status, 2);
    const auto r = run(t4test::render_tool_binary(), {"--socket", dir / "none.sock", "--out", "x", "--timeout", "1"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("cannot connect"), std::string::npos) << r.err;
}

TEST_F(ServingProcessTools, ControlSendsTextReloadDataAndStatus)
{
    start_server();
    const std::string tool = t4test::control_tool_binary();
    const std::string sock = server->socket_path();

    auto r = run(tool, {"--socket", sock, "text", "backgroundColor=00ff00", "text=Live news"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "v4::text OK\n");
    t4mi_client c;
    ASSERT_TRUE(c.connect(sock));
    t4mi_client_settings s;
    s.width = 64;
    s.height = 16;
    ASSERT_TRUE(c.send_settings(s));
    t4mi_client_frame f;
    ASSERT_TRUE(c.request_frame(0, 0, 0, &f)) << c.error();
    EXPECT_EQ(f.y[0], 144);  // green: (129 * 255 + 4096) >> 8

    r = run(tool, {"--socket", sock, "reload"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "reload OK\n");

    t4test::write_file(dir / "schedule.json", R"({"current":{"title":"Evening news"}})");
    r = run(tool, {"--metadir", dir / "meta", "data", dir / "schedule.json"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("data OK\n  changed=", 0), 0u) << r.out;

    r = run(tool, {"--socket", sock, "status"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(r.out.find("\"clients\":"), std::string::npos) << r.out;

    r = run(tool, {"--socket", sock, "send", "no-such", "a=b"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "no-such ERROR\n  message=Unknown command 'no-such'\n");

    EXPECT_EQ(run(tool, {"--socket", sock, "text", "novalue"}).exit_status, 2);
    EXPECT_EQ(run(tool, {"--socket", sock}).exit_status, 2);
    c.close();
    int status = -2;
    EXPECT_TRUE(server->stop(SIGTERM, 15000, &status));
    EXPECT_EQ(status, 0);
}

} // namespace
