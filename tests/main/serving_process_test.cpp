// Serving through the real process, its socket and its shared memory.
//
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <cerrno>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>

#include "frames/client_context.h"
#include "frames/compositor.h"
#include "frames/frame_buffer.h"
#include "frames/reader.h"
#include "items/item_types.h"
#include "items/scroll_settings.h"
#include "main/serving_fixture.h"
#include "platform/packet_codec.h"
#include "platform/t4mi_client.h"
#include "support/frame_env.h"
#include "support/item_fixture.h"
#include "support/program_env.h"
#include "support/serving_env.h"

namespace fs = std::filesystem;

namespace {

t4mi_client_settings ticker_settings(int32_t w = 1920, int32_t h = 108)
{
    t4mi_client_settings s;
    s.width = w;
    s.height = h;
    s.time_scale = 30000;
    s.frame_duration = 1001;
    return s;
}

class ServingProcess : public t4test::serving_process_test {};

TEST_F(ServingProcess, Frames0And100EqualTheInProcessRendererByteForByte)
{
    start();
    auto c = client();
    ASSERT_TRUE(c);
    ASSERT_TRUE(c->send_settings(ticker_settings())) << c->error();

    // The same item and settings, rendered here.
    t4test::shared_buffer_session buffers;
    scroll_settings = scroll_settings_record{};
    t4test::open_item item(ITEM, "application/x-tevrin-scrolling-text");
    load_message();
    scrolling_text_client_context local(1);
    local.apply_client_settings(ticker_settings());
    for (uint64_t n : {0, 100}) {
        t4mi_client_frame f;
        ASSERT_TRUE(c->request_frame(n, 0, 0, &f)) << c->error();
        t4mi_video_frame* mine = load_frame(local.reader, n, 0, &local, 0);
        ASSERT_NE(mine, nullptr);
        EXPECT_EQ(t4test::compare_frames(f, mine), "") << "frame " << n;
        EXPECT_TRUE(c->release_frame(n));
    }
    stop();
}

TEST_F(ServingProcess, TwoClientsAtDifferentSizesAtOnce)
{
    start();
    auto a = client();
    auto b = client();
    ASSERT_TRUE(a && b);
    ASSERT_TRUE(a->send_settings(ticker_settings(1920, 108)));
    ASSERT_TRUE(b->send_settings(ticker_settings(720, 576)));
    for (uint64_t n = 0; n < 20; n++) {
        const uint32_t ia = a->send_frame_request(n), ib = b->send_frame_request(n);
        t4mi_client_frame fa, fb;
        ASSERT_TRUE(a->receive_frame(ia, &fa)) << a->error();
        ASSERT_TRUE(b->receive_frame(ib, &fb)) << b->error();
        ASSERT_EQ(fa.width, 1920u);
        ASSERT_EQ(fa.height, 108u);
        ASSERT_EQ(fb.width, 720u);
        ASSERT_EQ(fb.height, 576u);
        ASSERT_TRUE(a->release_frame(n));
        ASSERT_TRUE(b->release_frame(n));
    }
    stop();
}

TEST_F(ServingProcess, AClientSendingGarbageIsDroppedWhileAnotherKeepsGettingFrames)
{
    start();
    auto good = client();
    ASSERT_TRUE(good && good->send_settings(ticker_settings()));
    std::vector<std::unique_ptr<t4test::raw_socket>> bad;
    for (int i = 0; i < 4; i++)
        bad.push_back(std::make_unique<t4test::raw_socket>(proc->socket_path()));
    // Garbage, an oversized header, a wrong version, a count running past the packet.
    const std::string junk("\x00\x01garbage", 9);
    bad[0]->write_some(junk.data(), junk.size());
    const uint8_t oversized[16] = {'T', '4', 'M', 'P', 1, 0, 0x80, 0, 1, 0, 0, 0, 0, 0, 0, 0};
    bad[1]->write_some(oversized, sizeof oversized);
    std::vector<uint8_t> wrong;
    comm_socket_v4_packet status;
    status.command = "status";
    ASSERT_TRUE(comm_socket_v4_packet_encode(status, 0, 1, &wrong));
    wrong[8] = 9;
    bad[2]->write_some(wrong.data(), wrong.size());
    wrong[8] = 1;
    wrong[16 + 2 + 6 + 2 + 2] = 0xFF;  // the entry count
    bad[3]->write_some(wrong.data(), wrong.size());
    for (uint64_t n = 0; n < 30; n++) {
        t4mi_client_frame f;
        ASSERT_TRUE(good->request_frame(n, 0, 0, &f)) << good->error();
        ASSERT_TRUE(good->release_frame(n));
    }
    for (auto& b : bad)
        EXPECT_TRUE(b->closed_by_server(5000));
    const std::string err = stop();
    EXPECT_NE(err.find("dropped: malformed packet\n"), std::string::npos) << err;
}

TEST_F(ServingProcess, ClientsThatNeverReadOrNeverSpeakCostOnlyThemselves)
{
    start();
    t4test::raw_socket silent(proc->socket_path());
    t4test::raw_socket deaf(proc->socket_path());
    int small = 4096;
    setsockopt(deaf.descriptor(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    auto good = client();
    ASSERT_TRUE(good && good->send_settings(ticker_settings()));
    std::vector<uint8_t> one, many;
    comm_socket_v4_packet status;
    status.command = "status";
    ASSERT_TRUE(comm_socket_v4_packet_encode(status, 0, 1, &one));
    for (int i = 0; i < 500; i++)
        many.insert(many.end(), one.begin(), one.end());
    bool dropped = false;
    uint64_t n = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!dropped && std::chrono::steady_clock::now() < deadline) {
        deaf.write_some(many.data(), many.size());
        t4mi_client_frame f;
        ASSERT_TRUE(good->request_frame(n, 0, 0, &f)) << good->error();
        ASSERT_TRUE(good->release_frame(n++));
        dropped = deaf.hung_up(10);
    }
    EXPECT_TRUE(dropped);
    EXPECT_FALSE(silent.closed_by_server(50));
    const std::string err = stop();
    EXPECT_NE(err.find("dropped: not reading its replies\n"), std::string::npos) << err;
}

TEST_F(ServingProcess, AClientThatLeavesMidRequestLeavesNothingBehind)
{
    start();
    {
        auto leaving = client();
        ASSERT_TRUE(leaving && leaving->send_settings(ticker_settings(1920, 1080)));
        t4mi_client_frame f;
        ASSERT_TRUE(leaving->request_frame(0, 0, 0, &f));  // held, never released
        ASSERT_NE(leaving->send_frame_request(1), 0u);
        leaving->close();  // before the answer
    }
    auto other = client();
    ASSERT_TRUE(other);
    std::string json;
    bool alone = false;
    for (int i = 0; i < 200 && !alone; i++) {
        ASSERT_TRUE(other->status(&json)) << other->error();
        alone = json.find("\"clients\":1") != std::string::npos;
        if (!alone)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(alone) << json;
    const std::string err = stop();
    EXPECT_NE(err.find("============================\n--------------------------------------------------------------\n"),
              std::string::npos)
        << err;
}

TEST_F(ServingProcess, TextAndReloadCommandsRoundTripThroughTheSocket)
{
    start();
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(ticker_settings(64, 16)));
    t4mi_client_frame f;
    ASSERT_TRUE(c->request_frame(0, 0, 0, &f));
    // Red at opacity 0.5: Y = (66 * 255 + 4096) >> 8 = 81, A = 127.
    EXPECT_EQ(f.y[0], 81);
    EXPECT_EQ(f.alpha[0], 127);

    // Green, opaque: Y = (129 * 255 + 4096) >> 8 = 144,
    // U = (-74 * 255 + 32768) >> 8 = 54, V = (-94 * 255 + 32768) >> 8 = 34.
    ASSERT_TRUE(c->set_text({{"text", "Live"}, {"backgroundColor", "00ff00"}})) << c->error();
    ASSERT_TRUE(c->request_frame(1, 0, 0, &f));
    EXPECT_EQ(f.y[0], 144);
    EXPECT_EQ(f.u[0], 54);
    EXPECT_EQ(f.v[0], 34);
    EXPECT_EQ(f.alpha[0], 255);
    EXPECT_TRUE(c->set_text({{"newcontextonly", "1"}})) << c->error();

    // The file now says blue; "reload" re-reads it on the next turn:
    // Y = (25 * 255 + 4096) >> 8 = 40, U = (112 * 255 + 32768) >> 8 = 239,
    // V = (-18 * 255 + 32768) >> 8 = 110.
    t4test::write_file(item_path, "#Tevrin4ScrollText\n#-backgroundColor=0000ff\n#-backgroundOpacity=1\nBlue\n");
    ASSERT_TRUE(c->reload()) << c->error();
    bool blue = false;
    for (uint64_t n = 2; n < 400 && !blue; n++) {
        ASSERT_TRUE(c->request_frame(n, 0, 0, &f)) << c->error();
        blue = f.y[0] == 40 && f.u[0] == 239 && f.v[0] == 110 && f.alpha[0] == 255;
        ASSERT_TRUE(c->release_frame(n));
        if (!blue)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(blue);
    const std::string err = stop();
    EXPECT_NE(err.find("Text item changed\n"), std::string::npos) << err;
}

TEST_F(ServingProcess, ScheduleDataIsTakenAndUnknownCommandsAreRefused)
{
    start();
    auto c = client();
    ASSERT_TRUE(c);
    EXPECT_TRUE(c->send_data(R"({"current":{"title":"Evening news"}})")) << c->error();
    comm_socket_v4_packet p;
    p.command = "no-such-command";
    t4mi_client_reply r;
    ASSERT_TRUE(c->call(p, &r));
    EXPECT_EQ(r.packet.status, "ERROR");
    EXPECT_EQ(r.entry("message"), "Unknown command 'no-such-command'");
    stop();
}

TEST_F(ServingProcess, SigtermShutsDownInOrderWithNoBufferLeft)
{
    start();
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(ticker_settings()));
    t4mi_client_frame f;
    for (uint64_t n = 0; n < 3; n++)
        ASSERT_TRUE(c->request_frame(n, 0, 0, &f));  // still held at the signal
    const std::string sock = proc->socket_path();
    const std::string err = stop();
    const std::string report =
        "--------------REMAINING TNB BUFFER ALLOCATIONS----------------\n"
        "** PLEASE REVIEW FOR DEBUGGING PURPOSES TO CATCH TNB MEMORY LEAKS\n"
        "============================\n"
        "--------------------------------------------------------------\n"
        "Cleaning up\n"
        "Housekeeping shut down\n"
        "Freeing cache ";
    EXPECT_NE(err.find(report), std::string::npos) << err;
    struct stat st {};
    EXPECT_NE(lstat(sock.c_str(), &st), 0) << "the socket file outlived the process";
}

TEST_F(ServingProcess, TheSocketIsOwnerOnly)
{
    start();
    struct stat st {};
    ASSERT_EQ(lstat(proc->socket_path().c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    stop();
}

TEST_F(ServingProcess, ADaemonServesOnTheSocketItMadeAgain)
{
    std::vector<std::string> args = {"--file", item_path, "--metadir", dir / "meta", "--daemon"};
    proc = std::make_unique<t4test::serving_process>(t4test::scrolltext_binary(), args, fonts.env());
    int parent_status = -2;
    ASSERT_TRUE(proc->wait_exit(10000, &parent_status));
    EXPECT_EQ(parent_status, 0);
    ASSERT_TRUE(proc->wait_ready(dir / "meta", 20000, true)) << proc->err();
    const auto status = nlohmann::json::parse(t4test::read_file(dir / "meta/status.json"));
    const pid_t daemon_pid = status["pid"].get<int>();
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(ticker_settings(64, 16)));
    t4mi_client_frame f;
    ASSERT_TRUE(c->request_frame(0, 0, 0, &f)) << c->error();
    comm_socket_v4_packet p;
    p.command = "exit";
    t4mi_client_reply r;
    ASSERT_TRUE(c->call(p, &r));
    EXPECT_EQ(r.packet.status, "OK");
    bool gone = false;
    for (int i = 0; i < 2000 && !gone; i++) {
        // Ended: no such process, or a zombie waiting for whoever adopted it.
        const std::string stat = t4test::read_file("/proc/" + std::to_string(daemon_pid) + "/stat");
        const auto paren = stat.rfind(')');
        gone = (kill(daemon_pid, 0) != 0 && errno == ESRCH) ||
               (paren != std::string::npos && stat.size() > paren + 2 && stat[paren + 2] == 'Z');
        if (!gone)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(gone);
    EXPECT_NE(proc->err().find("Caller requested to exit\n"), std::string::npos) << proc->err();
    EXPECT_FALSE(fs::exists(dir / "meta/control.sock"));
}

TEST_F(ServingProcess, OneShotServesOneTurnAndShutsDown)
{
    // Not start(): its readiness may come and go (status.json goes with the
    // process) between two polls. "Oneshot" below is printed by the serve
    // loop, which runs only once the process is ready.
    proc = std::make_unique<t4test::serving_process>(
        t4test::scrolltext_binary(),
        std::vector<std::string>{"--file", item_path, "--metadir", dir / "meta", "--oneshot"}, fonts.env());
    int status = -2;
    ASSERT_TRUE(proc->wait_exit(10000, &status));
    EXPECT_EQ(status, 0);
    const std::string err = proc->err();
    EXPECT_NE(err.find("Oneshot\n--------------REMAINING TNB BUFFER ALLOCATIONS"), std::string::npos) << err;
    EXPECT_FALSE(fs::exists(dir / "meta/control.sock"));
    EXPECT_FALSE(fs::exists(dir / "meta/status.json"));
}

TEST_F(ServingProcess, TheAutoShutdownDeadlineWaitsForTheLastClient)
{
    start({"--auto-shutdown", "1"});
    auto c = client();
    ASSERT_TRUE(c);
    // Busy for 2.5 s, well past the first second: still serving.
    std::string json;
    const auto busy_until = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
    while (std::chrono::steady_clock::now() < busy_until) {
        ASSERT_TRUE(c->status(&json)) << c->error();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_TRUE(proc->running());
    const auto left = std::chrono::steady_clock::now();
    c->close();
    int status = -2;
    ASSERT_TRUE(proc->wait_exit(10000, &status));
    const double after = std::chrono::duration<double>(std::chrono::steady_clock::now() - left).count();
    EXPECT_EQ(status, 0);
    EXPECT_GE(after, 0.7);
    EXPECT_LE(after, 5.0);
    EXPECT_NE(proc->err().find("Auto terminate: " + item_path + "\n"), std::string::npos) << proc->err();
}

TEST_F(ServingProcess, WithoutClientsTheAutoShutdownComesAfterTheDelay)
{
    const auto t0 = std::chrono::steady_clock::now();
    start({"--auto-shutdown", "1"});
    int status = -2;
    ASSERT_TRUE(proc->wait_exit(10000, &status));
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_EQ(status, 0);
    EXPECT_GE(took, 0.9);
    EXPECT_NE(proc->err().find("Auto terminate: " + item_path + "\n"), std::string::npos) << proc->err();
}

} // namespace
