// t4mi_panel as a process in front of a real item: who it serves, what it
// refuses, and what a flood of requests costs a playout client.
//
// The item is the serving fixture's ticker; the panel is started on its
// socket with a token and an ephemeral port. What the item saw is read from
// the item itself ("v4::stats" on another connection), never from the panel.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <httplib.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

#include "main/serving_fixture.h"
#include "support/sanitizers.h"

namespace {

const char TOKEN[] = "s3cret-panel.token";

class PanelProcess : public t4test::serving_process_test {
protected:
    void TearDown() override
    {
        if (panel) {
            int status = -2;
            EXPECT_TRUE(panel->stop(SIGTERM, 10000, &status));
            EXPECT_EQ(status, 0) << panel->err();
        }
        if (proc)
            stop();
    }

    // Starts the item and the panel on it; fills `port`.
    void start_both(const std::vector<std::string>& panel_args)
    {
        start();
        std::vector<std::string> args = {"--socket", proc->socket_path()};
        args.insert(args.end(), panel_args.begin(), panel_args.end());
        panel = std::make_unique<t4test::serving_process>(T4MI_PANEL_BIN, args, fonts.env());
        const std::string marker = "t4mi_panel: listening on http://";
        const size_t at = wait_for_panel(marker);
        ASSERT_NE(at, std::string::npos) << panel->err();
        const std::string rest = panel->err().substr(at + marker.size());
        host = rest.substr(0, rest.rfind(':', rest.find('/')));
        port = std::stoi(rest.substr(rest.rfind(':', rest.find('/')) + 1));
    }

    size_t wait_for_panel(const std::string& needle)
    {
        for (int i = 0; i < 500; ++i) {
            const size_t at = panel->err().find(needle);
            if (at != std::string::npos && panel->err().find('\n', at) != std::string::npos)
                return at;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return std::string::npos;
    }

    httplib::Client http()
    {
        httplib::Client c("127.0.0.1", port);
        c.set_connection_timeout(5);
        c.set_read_timeout(10);
        return c;
    }

    // The item's own view, through its socket.
    nlohmann::json item_stats()
    {
        auto c = client();
        comm_socket_v4_packet request;
        request.command = "v4::stats";
        t4mi_client_reply reply;
        EXPECT_TRUE(c && c->call(request, &reply));
        return nlohmann::json::parse(std::string(reply.packet.data.data(), reply.packet.data_length()));
    }

    std::unique_ptr<t4test::serving_process> panel;
    std::string host;
    int port = 0;
};

// The listening sockets of /proc/net/tcp on `port`, as "ADDR:PORT" in the
// file's hex form.
std::vector<std::string> listeners(int port)
{
    std::vector<std::string> found;
    for (const char* file : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream in(file);
        std::string line;
        std::getline(in, line);
        while (std::getline(in, line)) {
            std::istringstream fields(line);
            std::string slot, local, remote, state;
            fields >> slot >> local >> remote >> state;
            char hex_port[8];
            std::snprintf(hex_port, sizeof hex_port, "%04X", port);
            if (state == "0A" && local.size() > 5 && local.substr(local.size() - 4) == hex_port)
                found.push_back(local);
        }
    }
    return found;
}

TEST_F(PanelProcess, ServesOnlyTheLoopbackByDefault)
{
    start_both({"--listen", ":0"});  // no address: the default one
    EXPECT_EQ(host, "127.0.0.1");
    // One listening socket, on 127.0.0.1 (0100007F in the kernel's order).
    EXPECT_EQ(listeners(port), (std::vector<std::string>{"0100007F:" + [&] {
                  char h[8];
                  std::snprintf(h, sizeof h, "%04X", port);
                  return std::string(h);
              }()}));
    // Through the loopback, a name that is not the loopback's is refused: a
    // page elsewhere cannot borrow the panel by pointing its name here.
    auto c = http();
    auto r = c.Get("/api/stats", {{"Host", "panel.example.com"}});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 403);
    r = c.Get("/api/stats");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    // Preview sizes past 1920 x 1080 are refused before the item is asked.
    for (const char* path : {"/frame.png?w=1921&h=108", "/frame.png?w=640&h=0", "/frame.png?w=64x&h=10"}) {
        r = c.Get(path);
        ASSERT_TRUE(r);
        EXPECT_EQ(r->status, 400) << path;
    }
    r = c.Get("/frame.png?w=64&h=16");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_EQ(r->get_header_value("Content-Type"), "image/png");
    EXPECT_EQ(r->body.compare(1, 3, "PNG"), 0);
}

TEST_F(PanelProcess, WithoutTheRightTokenEverythingIs401AndNothingChanges)
{
    start_both({"--listen", "127.0.0.1:0", "--token", TOKEN});
    const auto before = item_stats();
    auto c = http();
    const nlohmann::json form = {{"text", "Hijacked"}, {"fontColor", "ff0000"}};
    for (const httplib::Headers& h : {httplib::Headers{}, httplib::Headers{{"Authorization", "Bearer wrong"}},
                                      httplib::Headers{{"Authorization", std::string("Bearer ") + TOKEN + "x"}},
                                      httplib::Headers{{"Cookie", "t4mi_panel_token=nope"}}}) {
        for (const char* path : {"/", "/panel.js", "/api/stats", "/frame.png"}) {
            auto r = c.Get(path, h);
            ASSERT_TRUE(r);
            EXPECT_EQ(r->status, 401) << path;
            EXPECT_EQ(r->body, "Unauthorized\n");
        }
        auto r = c.Post("/api/text", h, form.dump(), "application/json");
        ASSERT_TRUE(r);
        EXPECT_EQ(r->status, 401);
        r = c.Post("/api/reload", h, "{}", "application/json");
        ASSERT_TRUE(r);
        EXPECT_EQ(r->status, 401);
    }
    const auto after = item_stats();
    EXPECT_EQ(after["settings"], before["settings"]);
    EXPECT_EQ(after["frames_served"], before["frames_served"]);  // not even a frame was asked for

    // The right token, in each of its three forms.
    auto r = c.Get("/?token=" + std::string(TOKEN));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_NE(r->get_header_value("Set-Cookie").find("HttpOnly; SameSite=Strict"), std::string::npos);
    r = c.Get("/panel.css", {{"Cookie", std::string("t4mi_panel_token=") + TOKEN}});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    r = c.Post("/api/text", {{"Authorization", std::string("Bearer ") + TOKEN}}, form.dump(), "application/json");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200) << r->body;
    EXPECT_EQ(item_stats()["settings"]["text"], "Hijacked");
}

TEST_F(PanelProcess, BodiesPastTheCapAreRefusedUnread)
{
    start_both({"--listen", "127.0.0.1:0", "--max-body", "4096"});
    const auto before = item_stats();
    auto c = http();
    const nlohmann::json big = {{"text", std::string(5000, 'x')}};
    auto r = c.Post("/api/text", big.dump(), "application/json");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 413);
    EXPECT_EQ(item_stats()["settings"], before["settings"]);
    // Under the cap it goes through.
    const nlohmann::json small = {{"text", std::string(3000, 'y')}};
    r = c.Post("/api/text", small.dump(), "application/json");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    // A form that is not JSON, or not sent as JSON, changes nothing either.
    r = c.Post("/api/text", "text=z", "application/x-www-form-urlencoded");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 415);
    r = c.Post("/api/text", "{\"text\":", "application/json");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 400);
    r = c.Post("/api/text", nlohmann::json{{"fontColor", "red"}}.dump(), "application/json");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 400);
    EXPECT_EQ(nlohmann::json::parse(r->body)["error"], "fontColor: not a colour (six hex digits, like ff8800)");
    EXPECT_EQ(item_stats()["settings"]["text"], std::string(3000, 'y'));
}

// One playout client asks for frames every 5 ms, for 3 s alone and then
// while 1,000 panel requests arrive from 8 connections at once. Its slowest
// reply may grow by at most one frame (1001/30000 s) over its slowest reply
// without the flood, and the item sees the panel's frame requests at the
// panel's own pace, not the flood's.
TEST_F(PanelProcess, AFloodOfRequestsDoesNotDelayAPlayoutClientByAFrame)
{
    start_both({"--listen", "127.0.0.1:0"});
    auto playout = client();
    ASSERT_TRUE(playout && playout->send_settings(t4test::picture_settings(640, 108)));
    uint64_t n = 0;
    // Slowest reply over `count` frames, in microseconds.
    auto slowest_reply = [&](const std::function<bool()>& go_on) {
        int64_t worst = 0;
        while (go_on()) {
            const auto t0 = std::chrono::steady_clock::now();
            t4mi_client_frame f;
            EXPECT_TRUE(playout->request_frame(n, 0, 0, &f)) << playout->error();
            const auto us =
                std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - t0).count();
            worst = std::max<int64_t>(worst, us);
            playout->release_frame(n++, 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return worst;
    };
    // As long as the flood lasts, so that both see the same share of
    // whatever else the machine is doing.
    const auto quiet_end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    const int64_t quiet = slowest_reply([&] { return std::chrono::steady_clock::now() < quiet_end; });

    const uint64_t panel_frames_before = item_stats()["frames_served"].get<uint64_t>() - n;
    std::atomic<int> sent{0}, answered{0};
    const auto flood_start = std::chrono::steady_clock::now();
    std::vector<std::thread> flooders;
    for (int t = 0; t < 8; ++t)
        flooders.emplace_back([&, t] {
            // The senders stand for browsers elsewhere: they run at the
            // panel's priority, so that what is measured is what the panel
            // costs the item, not what this test's own threads cost it.
            setpriority(PRIO_PROCESS, pid_t(gettid()), 10);
            httplib::Client c("127.0.0.1", port);
            c.set_keep_alive(true);
            c.set_read_timeout(20);
            for (int i = 0; sent++ < 1000; ++i) {
                httplib::Result r = (i + t) % 3 == 0   ? c.Get("/api/stats")
                                    : (i + t) % 3 == 1 ? c.Get("/frame.png?w=640&h=108")
                                                       : c.Get("/frame.png?w=320&h=54");
                if (r && r->status == 200)
                    ++answered;
            }
        });
    std::atomic<bool> flooding{true};
    std::thread joiner([&] {
        for (auto& f : flooders)
            f.join();
        flooding = false;
    });
    const int64_t during = slowest_reply([&] { return flooding.load(); });
    joiner.join();
    const double flood_s =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - flood_start).count();

    EXPECT_GE(answered.load(), 990) << "the panel itself kept answering";
    // The wait is the item drawing the panel's frames, slower in a
    // sanitizer build.
    const auto one_frame_us = int64_t(33367 * t4test::slowdown);
    if (t4test::sanitized)
        std::printf("sanitizer build: the bound is %lld us over the quiet reply\n",
                    static_cast<long long>(one_frame_us));
    EXPECT_LE(during, quiet + one_frame_us) << "slowest reply " << during << " us during the flood, " << quiet
                                            << " us before it";
    // The panel asked the item for at most one frame per 100 ms, whatever
    // the sizes asked for, plus one.
    const uint64_t panel_frames = item_stats()["frames_served"].get<uint64_t>() - n - panel_frames_before;
    EXPECT_LE(panel_frames, uint64_t(flood_s * 10.0) + 2) << "over " << flood_s << " s";
    std::printf("playout client's slowest frame reply: %.1f ms quiet, %.1f ms during %d panel requests "
                "(%.2f s); the panel asked the item for %llu frames\n",
                quiet / 1000.0, during / 1000.0, sent.load() > 1000 ? 1000 : sent.load(), flood_s,
                static_cast<unsigned long long>(panel_frames));
}

} // namespace
