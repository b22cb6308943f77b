// --render-ahead through the real process: a client that asks for frames in
// order finds each next one rendered already, with the same bytes as the
// in-process renderer; frames it holds are never touched; a client that
// jumps gets what it asked for; frames rendered ahead land on warm slots;
// without the switch nothing is rendered ahead.
#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "main/serving_fixture.h"
#include "platform/t4mi_client.h"

namespace {

using t4test::copy_planes;
using t4test::first_difference;
using t4test::picture_settings;
using t4test::plane_copy;

class ServingRenderAhead : public t4test::serving_process_test {
protected:
    nlohmann::json render_ahead(t4mi_client& c) { return stats(c)["render_ahead"]; }
    // A pause as a paced client leaves between frames: idle time for the
    // server to render the next one in.
    static void frame_period() { std::this_thread::sleep_for(std::chrono::milliseconds(40)); }
};

TEST_F(ServingRenderAhead, FramesAskedInOrderComeRenderedAheadWithTheRendererBytes)
{
    start({"--render-ahead"});
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(picture_settings(640, 108)));
    t4test::local_renderer local(ITEM, t4test::SCROLL_TEXT_TYPE, picture_settings(640, 108));
    t4mi_client_frame held;
    ASSERT_TRUE(c->request_frame(0, 0, 0, &held));
    const plane_copy held_pixels = copy_planes(held);  // held to the end: never written again
    for (uint64_t n = 1; n <= 12; n++) {
        frame_period();
        t4mi_client_frame f;
        ASSERT_TRUE(c->request_frame(n, 0, 0, &f)) << c->error();
        EXPECT_EQ(f.rendered, int64_t(n));
        EXPECT_EQ(first_difference(copy_planes(f), local.frame(n)), "") << "frame " << n;
        EXPECT_NE(f.offset, held.offset);
        ASSERT_TRUE(c->release_frame(n));
    }
    EXPECT_EQ(first_difference(copy_planes(held), held_pixels), "");
    EXPECT_EQ(first_difference(held_pixels, local.frame(0)), "");
    const auto ahead = render_ahead(*c);
    EXPECT_TRUE(ahead["on"].get<bool>());
    EXPECT_GE(ahead["rendered"].get<int>(), 12);
    EXPECT_EQ(ahead["used"].get<int>(), 12);  // frames 1 to 12, each rendered after the one before went out
    stop();
}

TEST_F(ServingRenderAhead, AClientThatJumpsGetsTheFrameItAskedFor)
{
    start({"--render-ahead"});
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(picture_settings(640, 108)));
    t4test::local_renderer local(ITEM, t4test::SCROLL_TEXT_TYPE, picture_settings(640, 108));
    for (uint64_t n : {10u, 500u, 11u, 3u}) {
        frame_period();
        t4mi_client_frame f;
        ASSERT_TRUE(c->request_frame(n, 0, 0, &f)) << c->error();
        EXPECT_EQ(first_difference(copy_planes(f), local.frame(n)), "") << "frame " << n;
        ASSERT_TRUE(c->release_frame(n));
    }
    // Each request but the first had the frame after the one before it
    // rendered ahead; none asked for it.
    const auto ahead = render_ahead(*c);
    EXPECT_EQ(ahead["rendered"].get<int>(), 4);
    EXPECT_EQ(ahead["used"].get<int>(), 0);
    stop();
}

TEST_F(ServingRenderAhead, FramesRenderedAheadReuseWarmSlotsNotFreshPages)
{
    // Frames rendered ahead wait unheld in the cache, so the budget is often
    // full of them; a new one must then take the slot of one let go before,
    // not fresh pages (2,026 faults a 1920 x 1080 frame).
    start({"--render-ahead"});
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(picture_settings(1920, 1080)));
    t4mi_client_frame f;
    auto play = [&](uint64_t from, uint64_t to) {
        const uint64_t before = server_minor_faults();
        for (uint64_t n = from; n <= to; n++) {
            frame_period();
            EXPECT_TRUE(c->request_frame(n, 0, 0, &f)) << c->error();
            EXPECT_TRUE(n == 0 || c->release_frame(n - 1)) << c->error();
        }
        return server_minor_faults() - before;
    };
    play(0, 10);  // lays the text out, fills the budget
    // About 80 here; one frame on fresh pages would be over 2,000.
    EXPECT_LT(play(11, 30), 1000u) << "frames in steady state landed on fresh pages";
    EXPECT_GE(render_ahead(*c)["used"].get<int>(), 20);
    ASSERT_TRUE(c->release_frame(30));
    stop();
}

TEST_F(ServingRenderAhead, OffByDefault)
{
    start();
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(picture_settings(640, 108)));
    for (uint64_t n = 0; n < 4; n++) {
        frame_period();
        served(*c, n);
    }
    const auto ahead = render_ahead(*c);
    EXPECT_FALSE(ahead["on"].get<bool>());
    EXPECT_EQ(ahead["rendered"].get<int>(), 0);
    EXPECT_EQ(ahead["used"].get<int>(), 0);
    stop();
}

} // namespace
