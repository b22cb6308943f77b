// Start-up run in this process, to look at what it leaves behind: which
// factories it installed and whether a loader ran. The process-level tests
// (startup_test.cpp) see only exit codes, messages and files.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "fonts/emoji_images.h"
#include "fonts/font_globals.h"
#include "items/scroll_settings.h"
#include "main/process.h"
#include "platform/args.h"
#include "platform/client_context.h"
#include "platform/t4mi_globals.h"
#include "support/test_env.h"

namespace {

class StartupSteps : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved_library = ft_library;
        saved_default = default_face;
        saved_emoji = emoji_face;
        ft_library = nullptr;
        default_face = emoji_face = nullptr;
        t4mi_reset_standard_switches();
        t4mi_client_contexts.set_context_factory(nullptr);
        t4mi_client_contexts.set_reference_factory(nullptr);
        scroll_settings = scroll_settings_record{};
    }
    void TearDown() override
    {
        t4mi_client_contexts.set_context_factory(nullptr);
        t4mi_client_contexts.set_reference_factory(nullptr);
        t4mi_reset_standard_switches();
        scroll_settings = scroll_settings_record{};
        for (int sig : {SIGTERM, SIGQUIT, SIGINT})
            std::signal(sig, SIG_DFL);
        DIE4 = 0;
        ft_library = saved_library;
        default_face = saved_default;
        emoji_face = saved_emoji;
    }

    // Runs start-up with these arguments (after the program name) on an item
    // holding `content`; standard error is captured into `err`.
    int start(const std::string& content, std::vector<std::string> args)
    {
        const std::string file = dir / "item.txt";
        t4test::write_file(file, content);
        args.insert(args.begin(), {"t4mi_scrolltext", "--file", file});
        std::vector<char*> argv;
        for (std::string& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        testing::internal::CaptureStderr();
        const int status = start_up(int(args.size()), argv.data());
        err = testing::internal::GetCapturedStderr();
        return status;
    }

    t4test::temp_dir dir;
    t4test::fixed_root root;
    t4test::private_fontconfig fonts{{}};
    std::string err;
    FT_Library saved_library;
    FT_Face saved_default;
    FT_Face saved_emoji;
};

TEST_F(StartupSteps, IdentifyOnlyInstallsNoContextFactory)
{
    ASSERT_EQ(start("#Tevrin4ScrollText\nHello\n", {"--identify"}), 0) << err;
    EXPECT_NE(err.find("* Identified file, updating metadata\n"), std::string::npos) << err;
    // Start-up got past the frame-reference factory (it comes before
    // identification), but stopped before the client-context factory.
    EXPECT_TRUE(t4mi_client_contexts.has_reference_factory());
    EXPECT_FALSE(t4mi_client_contexts.has_context_factory());
    // And it tore down what it had opened.
    EXPECT_EQ(ft_library, nullptr);
    EXPECT_EQ(default_face, nullptr);
    EXPECT_EQ(t4mi_meta, nullptr);
}

TEST_F(StartupSteps, AnUpperCasePlainTextTypeRunsNoLoader)
{
    ASSERT_EQ(start("#-fontColor=ff0000\nHello\n", {"--type", "TEXT/PLAIN", "--identify"}), 0) << err;
    EXPECT_EQ(scroll_settings.text, "");
    EXPECT_EQ(scroll_settings.file_mtime, 0); // every loader records it
    EXPECT_EQ(scroll_settings.fontColor, (colour_rgba{255, 255, 255, 255}));
}

TEST_F(StartupSteps, AScrollTextTypeIsLoadedBeforeIdentifyOnlyStops)
{
    // The counterpart of the test above: the same run with a type whose
    // loader runs at start fills the record.
    ASSERT_EQ(start("#Tevrin4ScrollText\n#-fontColor=ff0000\nHello\n",
                    {"--type", "application/x-tevrin-scrolling-text", "--identify"}),
              0)
        << err;
    EXPECT_EQ(scroll_settings.text, "Hello");
    EXPECT_GT(scroll_settings.file_mtime, 0);
    EXPECT_EQ(scroll_settings.fontColor, (colour_rgba{255, 0, 0, 255}));
}

// The in-process render session closes its fonts with close_fonts: the emoji
// images looked up since go with them (a missing one is cached as well).
TEST_F(StartupSteps, ClosingTheFontsFreesTheEmojiImages)
{
    t4test::fixed_root root;
    EXPECT_EQ(get_emoji_bmp(0x1F600), nullptr); // the private tree has no such image
    EXPECT_EQ(emoji_png_cache.count("emoji_u1f600.png"), 1u);
    close_fonts();
    EXPECT_TRUE(emoji_png_cache.empty());
}

} // namespace
