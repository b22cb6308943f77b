// The real program loads an RSS item's feed at start-up.
#include <gtest/gtest.h>

#include "support/test_env.h"

namespace {

class RssStartup : public ::testing::Test {
protected:
    t4test::process_result identify()
    {
        return t4test::run_process(t4test::scrolltext_binary(),
                                   {"--file", item, "--metadir", meta, "--identify"},
                                   {root.env(), fonts.env()}, 20000);
    }

    t4test::temp_dir dir;
    t4test::fixed_root root;
    t4test::private_fontconfig fonts{{root.at("/usr/share/tevrin4/fonts")}};
    std::string item = dir / "news.rss";
    std::string meta = dir / "news.meta";
};

TEST_F(RssStartup, AnItemWithoutFeedFileSaysSo)
{
    t4test::write_file(item, "#Tevrin4RSS\nurl=http://127.0.0.1:9/feed.xml\n");
    const auto r = identify();
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(r.err.find("* Identified file, updating metadata\n"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("Unable to open RSS\n"), std::string::npos) << r.err;
}

TEST_F(RssStartup, AnItemWithAMalformedFeedWarns)
{
    t4test::write_file(item, "#Tevrin4RSS\nurl=http://127.0.0.1:9/feed.xml\n");
    t4test::write_file(meta + "/rss.xml", "<rss><channel><item><title>A & B</title></item></channel></rss>");
    const auto r = identify();
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(r.err.find("WARNING: Did not find RSS node\nWARNING: Did not find channel node\n"), std::string::npos)
        << r.err;
    EXPECT_EQ(r.err.find("Unable to open RSS"), std::string::npos) << r.err;
}

} // namespace
