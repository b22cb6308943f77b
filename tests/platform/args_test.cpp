#include <gtest/gtest.h>

#include "platform/args.h"
#include "platform/t4mi_globals.h"

namespace {

class Args : public ::testing::Test {
protected:
    void TearDown() override { t4mi_reset_standard_switches(); }

    // Feeds argv through the iterator like the program does; returns the
    // results of t4mi_argv_std_handle_switch, or 99 for a non-switch.
    std::vector<int> parse(std::vector<std::string> args)
    {
        args.insert(args.begin(), "t4mi_scrolltext");
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        EXPECT_EQ(t4mi_init_argv(int(argv.size()), argv.data()), 0);
        std::vector<int> results;
        while (const char* arg = t4mi_next_arg()) {
            const char* name = arg;
            results.push_back(t4mi_argv_is_switch(&name) ? t4mi_argv_std_handle_switch(name) : 99);
        }
        return results;
    }
};

TEST_F(Args, ValuesFollowAsNextArgumentOrAfterEquals)
{
    EXPECT_EQ(parse({"--file", "a.txt", "--type=text/plain", "-metadir", "/tmp/m"}), (std::vector<int>{1, 1, 1}));
    EXPECT_EQ(t4mi_file, "a.txt");
    EXPECT_EQ(t4mi_file_type, "text/plain");
    EXPECT_EQ(t4mi_file_metadir, "/tmp/m");
}

TEST_F(Args, FlagsSetTheirGlobals)
{
    EXPECT_EQ(parse({"--identify", "--oneshot", "--daemon", "--log", "--temp-clean", "--force-metadata",
                     "--no-metadata-write"}),
              (std::vector<int>(7, 1)));
    EXPECT_EQ(t4mi_identify_only, 1);
    EXPECT_EQ(t4mi_oneshot, 1);
    EXPECT_EQ(t4mi_daemon, 1);
    EXPECT_EQ(t4mi_stderr_to_log, 1);
    EXPECT_EQ(t4mi_temp_clean_only, 1);
    EXPECT_EQ(t4mi_force_update_metadata, 1);
    EXPECT_EQ(t4mi_metadata_may_update, 0);
}

TEST_F(Args, HardenIsOffUntilAsked)
{
    EXPECT_EQ(t4mi_harden, 0);
    EXPECT_EQ(parse({"--harden"}), (std::vector<int>{1}));
    EXPECT_EQ(t4mi_harden, 1);
    t4mi_reset_standard_switches();
    EXPECT_EQ(t4mi_harden, 0);
}

TEST_F(Args, AutoShutdownIsInSeconds)
{
    EXPECT_EQ(parse({"--auto-shutdown", "2.5"}), (std::vector<int>{1}));
    EXPECT_EQ(auto_shutdown_delay_initial, 2500000u);
    EXPECT_EQ(parse({"--auto-shutdown", "-1"}), (std::vector<int>{-1}));
    EXPECT_EQ(parse({"--auto-shutdown=x"}), (std::vector<int>{-1}));
}

TEST_F(Args, FrameMemorySwitchesAreInWholeMebibytes)
{
    EXPECT_EQ(t4mi_frame_cache_mib, -1);  // not given: start-up's default
    EXPECT_EQ(t4mi_shared_buffer_mib, -1);
    EXPECT_EQ(parse({"--frame-cache", "16", "--shared-buffer=512"}), (std::vector<int>{1, 1}));
    EXPECT_EQ(t4mi_frame_cache_mib, 16);
    EXPECT_EQ(t4mi_shared_buffer_mib, 512);
    EXPECT_EQ(parse({"--frame-cache", "0"}), (std::vector<int>{1}));
    EXPECT_EQ(t4mi_frame_cache_mib, 0);
    for (const char* bad : {"-1", "1.5", "4097", "", "x", "+3", " 3"})
        EXPECT_EQ(parse({"--frame-cache", bad}), (std::vector<int>{-1})) << bad;
    EXPECT_EQ(parse({"--shared-buffer"}), (std::vector<int>{-1}));
    t4mi_reset_standard_switches();
    EXPECT_EQ(t4mi_frame_cache_mib, -1);
    EXPECT_EQ(t4mi_shared_buffer_mib, -1);
}

TEST_F(Args, UnknownAndMisusedSwitches)
{
    EXPECT_EQ(parse({"--nope"}), (std::vector<int>{0}));
    EXPECT_EQ(parse({"--help"}), (std::vector<int>{0})); // the program's own business
    EXPECT_EQ(parse({"--file"}), (std::vector<int>{-1}));  // value missing
    EXPECT_EQ(parse({"--identify=yes"}), (std::vector<int>{-1}));
    EXPECT_EQ(parse({"plain", "-", "--"}), (std::vector<int>{99, 99, 99}));
}

TEST_F(Args, RenderAheadIsOffUntilAsked)
{
    EXPECT_EQ(t4mi_render_ahead, 0);
    EXPECT_EQ(parse({"--render-ahead"}), (std::vector<int>{1}));
    EXPECT_EQ(t4mi_render_ahead, 1);
    t4mi_reset_standard_switches();
    EXPECT_EQ(t4mi_render_ahead, 0);
}

TEST_F(Args, IdleWaitTakesWholeMillisecondsFromOneToAThousand)
{
    EXPECT_EQ(t4mi_input_wait_us, 5000u);
    EXPECT_EQ(parse({"--idle-wait", "40"}), (std::vector<int>{1}));
    EXPECT_EQ(t4mi_input_wait_us, 40000u);
    EXPECT_EQ(parse({"--idle-wait=1000"}), (std::vector<int>{1}));
    EXPECT_EQ(t4mi_input_wait_us, 1000000u);
    for (const char* bad : {"0", "1001", "-5", "2.5", "x", ""})
        EXPECT_EQ(parse({"--idle-wait", bad}), (std::vector<int>{-1})) << bad;
    t4mi_reset_standard_switches();
    EXPECT_EQ(t4mi_input_wait_us, 5000u);
}

TEST_F(Args, HelpListsEverySwitchWithoutTheOneShotLine)
{
    testing::internal::CaptureStderr();
    t4mi_std_help();
    const std::string help = testing::internal::GetCapturedStderr();
    for (const char* sw : {"--file", "--type", "--metadir", "--socket", "--identify", "--daemon", "--log",
                           "--temp-clean", "--force-metadata", "--auto-shutdown", "--cgroup-active", "--cgroup-idle",
                           "--harden", "--idle-wait", "--render-ahead", "--frame-cache", "--shared-buffer", "--version"})
        EXPECT_NE(help.find(sw), std::string::npos) << sw;
    EXPECT_EQ(help.find("--oneshot"), std::string::npos);
}

} // namespace
