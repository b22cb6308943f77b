// Start-up of the real program: command line, identification, metadata, readiness.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "support/test_env.h"

namespace fs = std::filesystem;
using t4test::run_process;

namespace {

constexpr const char* SETTINGS_BLOCK_START = "Media item setting:\n";

class Startup : public ::testing::Test {
protected:
    // Runs the program with the redirected installation and a private font list.
    t4test::process_result run(const std::vector<std::string>& args)
    {
        return run_process(t4test::scrolltext_binary(), args, {root.env(), fonts.env()}, 30000, dir.path());
    }

    std::string item(const std::string& content, const std::string& name = "item.txt")
    {
        t4test::write_file(dir / name, content);
        return dir / name;
    }

    nlohmann::json metadata(const std::string& name = "item.txt")
    {
        return nlohmann::json::parse(t4test::read_file(dir / ("." + name + ".t4mi/metadata.json")));
    }

    // What standard error says after the "Media item setting:" block of three lines.
    static std::string after_settings(const std::string& err)
    {
        auto at = err.find(SETTINGS_BLOCK_START);
        if (at == std::string::npos)
            return err;
        for (int i = 0; i < 4 && at != std::string::npos; i++)
            at = err.find('\n', at) + 1;
        return err.substr(at);
    }

    t4test::temp_dir dir;
    t4test::fixed_root root;
    t4test::private_fontconfig fonts{{}};
};

TEST_F(Startup, IdentifyOnlyWritesTheMetadataAndExitsZero)
{
    const auto r = run({"--file", item("#Tevrin4ScrollText\nHello\n"), "--identify"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    const auto md = metadata();
    EXPECT_EQ(md["mime_type"], "application/x-tevrin-scrolling-text");
    EXPECT_EQ(md["video_streams"], 1);
    EXPECT_EQ(md["duration"], 2147483647);
    EXPECT_EQ(md["time_scale"], nlohmann::json({30000, 1001}));
    EXPECT_EQ(md["guid"].get<std::string>().size(), 32u);
    EXPECT_NE(r.err.find("* Identified file, updating metadata\n* Metadata:"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("* Writing metadata back\n"), std::string::npos);
    // Identify-only never reports readiness.
    EXPECT_FALSE(fs::exists(dir / ".item.txt.t4mi/status.json"));
}

TEST_F(Startup, TheGuidAndTypeAreKeptAcrossRuns)
{
    const std::string file = item("#Tevrin4ScrollText\nHello\n");
    ASSERT_EQ(run({"--file", file, "--identify"}).exit_status, 0);
    const std::string guid = metadata()["guid"];
    // The type is known now: identification is skipped and nothing needs writing.
    const auto r = run({"--file", file, "--identify"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.err.find("Identified"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("Writing metadata back"), std::string::npos) << r.err;
    EXPECT_EQ(metadata()["guid"], guid);
    EXPECT_NE(run({"--file", file, "--identify", "--force-metadata"}).err.find("* Writing metadata back\n"),
              std::string::npos);
    EXPECT_EQ(metadata()["guid"], guid);
}

TEST_F(Startup, AThreeByteFileIsRefusedSilently)
{
    const auto r = run({"--file", item("abc"), "--identify"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(after_settings(r.err), "");
}

TEST_F(Startup, HeaderFollowedByCrLfIsIdentified)
{
    const auto r = run({"--file", item("#Tevrin4ScrollText\r\nHello\r\n"), "--identify"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(metadata()["mime_type"], "application/x-tevrin-scrolling-text");
}

TEST_F(Startup, HeaderFollowedByASpaceIsNotAScrollingTextFile)
{
    const auto r = run({"--file", item("#Tevrin4ScrollText Hello\n"), "--identify"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(after_settings(r.err), "This is not a scrolling text file.\n");
}

TEST_F(Startup, HeaderAtTheVeryEndOfTheFileIsNotIdentified)
{
    const auto r = run({"--file", item("#Tevrin4ScrollText"), "--identify"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(after_settings(r.err), "This is not a scrolling text file.\n");
}

TEST_F(Startup, RssAndTemplateHeadersAreIdentified)
{
    ASSERT_EQ(run({"--file", item("#Tevrin4RSS\nurl=\n", "feed.txt"), "--identify"}).exit_status, 0);
    EXPECT_EQ(metadata("feed.txt")["mime_type"], "application/x-tevrin-rss-feed");
    ASSERT_EQ(run({"--file", item("#TevrinMetadataTemplate\r%{title}%\n", "tpl.txt"), "--identify"}).exit_status, 0);
    EXPECT_EQ(metadata("tpl.txt")["mime_type"], "application/x-tevrin-metadata-template");
}

TEST_F(Startup, GivenTypeIsCheckedIgnoringCase)
{
    const auto r = run({"--file", item("just some words\n"), "--type", "TEXT/PLAIN", "--identify"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.err.find("not a scrolling text"), std::string::npos);
    EXPECT_EQ(metadata()["mime_type"], "TEXT/PLAIN");
}

TEST_F(Startup, AGivenTypeIsKnownAtTheNextStart)
{
    const std::string file = item("just some words\n");
    ASSERT_EQ(run({"--file", file, "--type", "text/plain", "--identify"}).exit_status, 0);
    const auto r = run({"--file", file, "--identify"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(r.err.find("type 'text/plain'"), std::string::npos) << r.err;
}

TEST_F(Startup, AMisspelledTypeIsRefused)
{
    const auto r = run({"--file", item("#TevrinMetadataTemplate\n"), "--type",
                        "application/s-tavrin-metadata-template", "--identify"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(after_settings(r.err), "Unknown file type field\n");
}

TEST_F(Startup, HelpSwitchesPrintTheHelpAndExitOne)
{
    for (const char* sw : {"-h", "--help", "--h", "-help"}) {
        const auto r = run({sw});
        EXPECT_EQ(r.exit_status, 1) << sw;
        EXPECT_EQ(r.err.rfind("Usage: t4mi_scrolltext", 0), 0u) << r.err;
        EXPECT_TRUE(r.err.ends_with("\n --oneshot\n")) << r.err;
        EXPECT_NE(r.err.find("--file PATH"), std::string::npos);
        EXPECT_NE(r.err.find("--identify"), std::string::npos);
    }
}

TEST_F(Startup, AnUnknownSwitchIsNamedThenTheHelp)
{
    const auto r = run({"--file", "x", "--frobnicate"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err.rfind("Unknown switch 'frobnicate'\nUsage: t4mi_scrolltext", 0), 0u) << r.err;
    EXPECT_TRUE(r.err.ends_with(" --oneshot\n"));
}

TEST_F(Startup, AStandardSwitchGivenWronglyPrintsTheHelp)
{
    const auto r = run({"--file"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err.rfind("Usage: t4mi_scrolltext", 0), 0u) << r.err;
    EXPECT_EQ(run({"--auto-shutdown", "soon"}).exit_status, 1);
}

TEST_F(Startup, NonSwitchArgumentsAreRefused)
{
    const auto r = run({"item.txt"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "Non-switch argument 'item.txt'\n");
}

TEST_F(Startup, TheFileIsRequired)
{
    const auto r = run({"--identify"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err.rfind("File to play not specified. Use --file parameter\nUsage:", 0), 0u) << r.err;
}

TEST_F(Startup, AMissingItemFileFailsToDeriveParameters)
{
    const auto r = run({"--file", dir / "nowhere.txt"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "Failed to obtain derived params\n");
}

TEST_F(Startup, ASocketPathTooLongForTheSystemIsRefused)
{
    const auto r = run({"--file", item("#Tevrin4ScrollText\n"), "--socket", dir / std::string(120, 's')});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "Library failed to make socket path or accept a path\n");
}

TEST_F(Startup, MissingDefaultFontEndsStartUp)
{
    fs::remove(root.at("/usr/share/tevrin4/fonts/liberation_sans.ttf"));
    const auto r = run({"--file", item("#Tevrin4ScrollText\n"), "--identify"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "Unable to load default font\n");
}

TEST_F(Startup, MissingEmojiFontEndsStartUp)
{
    fs::remove(root.at("/usr/share/tevrin4/fonts/TwitterColorEmoji-SVGinOT.ttf"));
    const auto r = run({"--file", item("#Tevrin4ScrollText\n"), "--identify"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "Unable to load default emoji font\n");
}

TEST_F(Startup, ServingRunShutsDownInOrderAndTakesItsReadinessAlong)
{
    const auto r = run({"--file", item("#Tevrin4ScrollText\nHello\n"), "--oneshot"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    // Readiness is reported while serving (ServingProcessStatusFile checks
    // its content) and goes with the process.
    EXPECT_FALSE(fs::exists(dir / ".item.txt.t4mi/status.json"));
    EXPECT_TRUE(fs::exists(dir / ".item.txt.t4mi/metadata.json"));
    EXPECT_EQ(r.err.find("Self-test failed"), std::string::npos);
    // The ordered shut-down ends every serving run.
    EXPECT_NE(r.err.find("--------------REMAINING TNB BUFFER ALLOCATIONS----------------\n"
                         "** PLEASE REVIEW FOR DEBUGGING PURPOSES TO CATCH TNB MEMORY LEAKS\n"
                         "============================\n"),
              std::string::npos);
    EXPECT_NE(r.err.find("Oneshot\n--------------REMAINING"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("Cleaning up\nHousekeeping shut down\nFreeing cache 0x"), std::string::npos) << r.err;
}

TEST_F(Startup, SettingsBlockNamesFileMetadataDirectoryAndSocket)
{
    const std::string file = item("#Tevrin4ScrollText\n");
    const auto r = run({"--file", file, "--metadir", dir / "md", "--identify"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.err.rfind("Media item setting:\n   File: " + file + "\n   Meta: " + (dir / "md") +
                              "\n   Sock: " + (dir / "md/control.sock") + "\n",
                          0),
              0u)
        << r.err;
    EXPECT_TRUE(fs::is_directory(dir / "md"));
    EXPECT_TRUE(fs::exists(dir / "md/metadata.json"));
}

TEST_F(Startup, TempCleanRemovesLeftoversAndExitsBeforeIdentifying)
{
    const std::string file = item("not an item at all");
    t4test::write_file(dir / ".item.txt.t4mi/metadata.json.tmp", "half");
    t4test::write_file(dir / ".item.txt.t4mi/rss.xml.part", "half");
    t4test::write_file(dir / ".item.txt.t4mi/rss.xml", "<rss/>");
    const auto r = run({"--file", file, "--temp-clean"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_FALSE(fs::exists(dir / ".item.txt.t4mi/metadata.json.tmp"));
    EXPECT_FALSE(fs::exists(dir / ".item.txt.t4mi/rss.xml.part"));
    EXPECT_TRUE(fs::exists(dir / ".item.txt.t4mi/rss.xml"));
    EXPECT_FALSE(fs::exists(dir / ".item.txt.t4mi/metadata.json"));
}

TEST_F(Startup, LogSwitchSendsStandardErrorToTheItemsLog)
{
    const auto r = run({"--file", item("#Tevrin4ScrollText\n"), "--identify", "--log"});
    EXPECT_EQ(r.exit_status, 0);
    // The redirect comes right after the command-line checks: nothing more reaches the caller.
    EXPECT_EQ(r.err, "");
    EXPECT_NE(t4test::read_file(dir / ".item.txt.t4mi/t4mi.log").find("* Identified file, updating metadata\n"),
              std::string::npos);
}

TEST_F(Startup, DaemonDetachesAndDumpsItsDescriptors)
{
    // Standard error is a pipe, not a terminal, so the detached process keeps it.
    const auto r = run({"--file", item("#Tevrin4ScrollText\nHello\n"), "--daemon", "--oneshot"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(r.err.find("Daemonizing\n--------------------- ON CLOSURE OF THIS PROCESS (DEBUG) "
                         "----------------------\n"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("  fd 2 -> pipe:"), std::string::npos) << r.err;
}

TEST_F(Startup, MetadataWriteCanBeForbidden)
{
    const auto r = run({"--file", item("#Tevrin4ScrollText\n"), "--identify", "--no-metadata-write"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_FALSE(fs::exists(dir / ".item.txt.t4mi/metadata.json"));
}

} // namespace
