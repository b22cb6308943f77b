// Turns of the serve loop, driven in-process with the clocks under control.
#include <gtest/gtest.h>

#include "frames/client_context.h"
#include "items/scroll_settings.h"
#include "main/main_globals.h"
#include "main/serve_loop.h"
#include "platform/args.h"
#include "platform/clock.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "support/frame_env.h"
#include "support/item_fixture.h"
#include "support/test_env.h"

namespace {

class ServeLoop : public ::testing::Test {
protected:
    void SetUp() override
    {
        DIE4 = 0;
        wall_check_at = 0;
        mono_auto_shutdown = 0;
        t4mi_oneshot = 0;
        t4mi_should_exit = 0;
        watch_force = 0;
        feed_url.clear();
        feed_changed = 0;
        t4mi_file = "/items/news.txt";
        t4mi_client_contexts.set_context_factory(
            [](uint64_t id) -> t4mi_client_context* { return new scrolling_text_client_context(id); });
        state = serve_loop_begin();
    }
    void TearDown() override
    {
        t4mi_client_contexts.destroy_all();
        t4mi_clock_set_monotonic_offset_us(0);
        t4mi_clock_unpin_wall();
        t4mi_reset_standard_switches();
        t4mi_file.clear();
        feed_url.clear();
        feed_changed = 0;
        DIE4 = 0;
    }

    // Moves the monotonic clock on by `us`, runs one turn and captures what it printed.
    bool turn_after(int64_t us, std::string* err = nullptr)
    {
        offset += us;
        t4mi_clock_set_monotonic_offset_us(offset);
        testing::internal::CaptureStderr();
        const bool go_on = serve_loop_turn(state);
        const std::string out = testing::internal::GetCapturedStderr();
        if (err != nullptr)
            *err = out;
        return go_on;
    }

    scrolling_text_client_context* new_context()
    {
        return static_cast<scrolling_text_client_context*>(t4mi_client_contexts.create());
    }

    serve_loop_state state;
    int64_t offset = 0;
    t4test::private_fontconfig fonts{{}};
};

TEST_F(ServeLoop, WallClockSteppedBackIsReportedOnceAndRelaysEveryContext)
{
    auto* a = new_context();
    auto* b = new_context();
    std::string err;
    t4mi_clock_pin_wall_us(1800000000000000);
    ASSERT_TRUE(turn_after(0, &err));
    a->text_dirty = b->text_dirty = false;
    t4mi_clock_pin_wall_us(1800000000000000 - 1000000);
    ASSERT_TRUE(turn_after(750000, &err));
    EXPECT_EQ(err, "Wallclock went backwards\n");
    EXPECT_TRUE(a->text_dirty);
    EXPECT_TRUE(b->text_dirty);
    a->text_dirty = false;
    ASSERT_TRUE(turn_after(750000, &err));
    EXPECT_EQ(err, "");
    EXPECT_FALSE(a->text_dirty);
}

TEST_F(ServeLoop, TheWallClockIsReadAtMostEvery750Milliseconds)
{
    auto* a = new_context();
    std::string err;
    t4mi_clock_pin_wall_us(1800000000000000);
    ASSERT_TRUE(turn_after(0, &err));
    t4mi_clock_pin_wall_us(1700000000000000);
    ASSERT_TRUE(turn_after(700000, &err)); // not yet due: the step back is not seen
    EXPECT_EQ(err, "");
    a->text_dirty = false;
    ASSERT_TRUE(turn_after(50000, &err));
    EXPECT_EQ(err, "Wallclock went backwards\n");
}

TEST_F(ServeLoop, AnIdleProcessDropsItsSharedBufferOnce)
{
    t4test::shared_buffer_session buffers;
    ASSERT_TRUE(buffers.ready());
    ASSERT_GE(image_tnb_buffer_fd, 0);
    std::string err;
    ASSERT_TRUE(turn_after(4000000, &err));
    EXPECT_EQ(err, "");
    ASSERT_TRUE(turn_after(1500000, &err));
    EXPECT_EQ(err, "Idle: dropping TNB buffer\n");
    EXPECT_LT(image_tnb_buffer_fd, 0);
    ASSERT_TRUE(turn_after(6000000, &err));
    EXPECT_EQ(err, ""); // nothing held any more
    ASSERT_EQ(tnb_default_buffer_load(), 0); // taken again
    ASSERT_TRUE(turn_after(6000000, &err));
    EXPECT_EQ(err, "Idle: dropping TNB buffer\n");
}

TEST_F(ServeLoop, WithoutADeadlineTheProcessNeverEndsByItself)
{
    mono_auto_shutdown = 0;
    for (int i = 0; i < 5; i++)
        EXPECT_TRUE(turn_after(3600000000));
}

TEST_F(ServeLoop, ThePassedDeadlineEndsTheLoop)
{
    mono_auto_shutdown = monotonic_clock_us() + 1000000;
    std::string err;
    EXPECT_TRUE(turn_after(0, &err));
    EXPECT_FALSE(turn_after(1000000, &err));
    EXPECT_EQ(err, "Auto terminate: /items/news.txt\n");
}

TEST_F(ServeLoop, SignalsOneShotAndTheCallersRequestEndTheLoop)
{
    std::string err;
    DIE4 = 1;
    EXPECT_FALSE(turn_after(0, &err));
    EXPECT_EQ(err, "");
    DIE4 = 0;
    t4mi_oneshot = 1;
    EXPECT_FALSE(turn_after(0, &err));
    EXPECT_EQ(err, "Oneshot\n");
    t4mi_oneshot = 0;
    t4mi_should_exit = 1;
    EXPECT_FALSE(turn_after(0, &err));
    EXPECT_EQ(err, "Caller requested to exit\n");
}

TEST_F(ServeLoop, ATextChangeAndAFeedChangeInOneTurnHandleTheTextFirst)
{
    t4test::open_item item("#Tevrin4ScrollText\nHello\n", "application/x-tevrin-scrolling-text");
    auto* ctx = new_context();
    ctx->text_dirty = ctx->feed_dirty = false;
    watch_force = 1; // as after "reload"
    feed_url = "http://127.0.0.1:9/feed.xml";
    feed_interval = 3600000000;
    feed_last_fetch = monotonic_clock_us();
    feed_changed = 1; // a new rss.xml is in place
    std::string err;
    ASSERT_TRUE(turn_after(0, &err));
    EXPECT_EQ(err, "Text item changed\n");
    EXPECT_EQ(scroll_settings.text, "Hello");
    EXPECT_TRUE(ctx->text_dirty);
    EXPECT_FALSE(ctx->feed_dirty);
    ASSERT_TRUE(turn_after(0, &err));
    EXPECT_EQ(err.rfind("RSS feed changed\n", 0), 0u) << err;
    EXPECT_TRUE(ctx->feed_dirty);
    EXPECT_EQ(feed_changed, 0);
}

TEST_F(ServeLoop, ControlGroupsFollowClientWork)
{
    t4test::temp_dir groups;
    t4test::write_file(groups / "active/cgroup.procs", "");
    t4test::write_file(groups / "idle/cgroup.procs", "");
    t4mi_cgroup_active = groups / "active";
    t4mi_cgroup_idle = groups / "idle";
    state = serve_loop_begin();
    const std::string pid = std::to_string(getpid()) + "\n";
    EXPECT_EQ(t4test::read_file(groups / "active/cgroup.procs"), pid);
    ASSERT_TRUE(turn_after(2000000));
    EXPECT_EQ(t4test::read_file(groups / "idle/cgroup.procs"), "");
    ASSERT_TRUE(turn_after(1000000)); // 3 s with nothing outstanding
    EXPECT_EQ(t4test::read_file(groups / "idle/cgroup.procs"), pid);
    EXPECT_EQ(state.cgroup_deadline, 0u);
}

} // namespace
