// "v4::stats" in this process: the reply, the settings in the vocabulary of
// "v4::text", the feed of an RSS item, and bytes from outside kept as JSON.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "items/scroll_settings.h"
#include "main/control_packets.h"
#include "main/stats_packet.h"
#include "platform/packet.h"
#include "platform/serve_stats.h"
#include "platform/t4mi_globals.h"

namespace {

class StatsPacket : public ::testing::Test {
protected:
    void SetUp() override
    {
        scroll_settings = scroll_settings_record{};
        serve_stats_reset();
        saved_type = t4mi_file_type;
    }
    void TearDown() override
    {
        scroll_settings = scroll_settings_record{};
        serve_stats_reset();
        t4mi_file_type = saved_type;
        feed_url.clear();
        feed_last_fetch = 0;
    }
    std::string saved_type;
};

TEST_F(StatsPacket, ReplyIsOkWithJsonData)
{
    comm_socket_v4_packet request, response;
    request.command = "v4::stats";
    ASSERT_EQ(my_custom_packet_handler(&request, &response, nullptr, nullptr), 1);
    EXPECT_EQ(response.command, "v4::stats");
    EXPECT_EQ(response.status, "OK");
    const std::string data(response.data.data(), response.data_length());
    const auto j = nlohmann::json::parse(data);
    for (const char* key : {"clients", "frames_served", "frames_per_second", "frame_memory", "messages", "settings",
                            "feed"})
        EXPECT_TRUE(j.contains(key)) << key;
}

TEST_F(StatsPacket, SettingsReadBackInTheUnitsTheTextCommandTakes)
{
    scroll_settings.text = "Hello";
    scroll_settings.fontColor = {0x12, 0xab, 0xef, 51};       // 51 / 255 = 0.2
    scroll_settings.backgroundColor = {255, 0, 0, 0};
    scroll_settings.shadowX = 0.05;                           // 5 % of a line height
    scroll_settings.justify = 2;
    scroll_settings.fontScale = 1500;
    const auto s = nlohmann::json::parse(stats_json(0))["settings"];
    EXPECT_EQ(s["text"], "Hello");
    EXPECT_EQ(s["fontColor"], "12abef");
    EXPECT_DOUBLE_EQ(s["fontOpacity"].get<double>(), 0.2);
    EXPECT_EQ(s["backgroundColor"], "ff0000");
    EXPECT_DOUBLE_EQ(s["backgroundOpacity"].get<double>(), 0.0);
    EXPECT_DOUBLE_EQ(s["shadowX"].get<double>(), 5.0);
    EXPECT_EQ(s["justify"], "right");
    EXPECT_DOUBLE_EQ(s["fontScale"].get<double>(), 1.5);
    scroll_settings.fontScale = -1;  // automatic
    EXPECT_TRUE(nlohmann::json::parse(stats_json(0))["settings"]["fontScale"].is_null());
}

TEST_F(StatsPacket, BadUtf8InTheTextIsReplacedNotRefused)
{
    scroll_settings.text = "<b>\xff</b>";
    const auto s = nlohmann::json::parse(stats_json(0))["settings"];
    EXPECT_EQ(s["text"], "<b>\xef\xbf\xbd</b>");  // U+FFFD
}

TEST_F(StatsPacket, AScrollTextItemHasNoFeed)
{
    t4mi_file_type = "application/x-tevrin-scrolling-text";
    EXPECT_TRUE(nlohmann::json::parse(stats_json(0))["feed"].is_null());
}

TEST_F(StatsPacket, AnRssItemShowsItsAddressLastFetchAndEntries)
{
    t4mi_file_type = "application/x-tevrin-rss-feed";
    feed_url = "http://127.0.0.1:1/feed.xml";
    feed_last_fetch = 10000000;  // 10 s
    scroll_settings.text = "One - first\x1fTwo - second";
    const auto f = nlohmann::json::parse(stats_json(12500000))["feed"];  // at 12.5 s
    EXPECT_EQ(f["url"], "http://127.0.0.1:1/feed.xml");
    EXPECT_DOUBLE_EQ(f["last_fetch_age"].get<double>(), 2.5);
    ASSERT_EQ(f["entries"].size(), 2u);
    EXPECT_EQ(f["entries"][0], "One - first");
    EXPECT_EQ(f["entries"][1], "Two - second");

    feed_last_fetch = 0;  // not fetched yet
    EXPECT_TRUE(nlohmann::json::parse(stats_json(12500000))["feed"]["last_fetch_age"].is_null());
}

} // namespace
