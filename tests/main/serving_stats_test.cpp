// "v4::stats" through the real process: frames counted as they are served,
// the process's own messages, and "status" left exactly as it was.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "main/serving_fixture.h"

namespace {

class ServingProcessStats : public t4test::serving_process_test {};

TEST_F(ServingProcessStats, CountsServedFramesAndKeepsTheProcessMessages)
{
    start();
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(t4test::picture_settings(320, 54)));
    const auto before = stats(*c);
    EXPECT_EQ(before["clients"], 1);
    EXPECT_EQ(before["frames_served"], 0);
    for (uint64_t n = 0; n < 5; ++n)
        served(*c, n);
    const auto after = stats(*c);
    EXPECT_EQ(after["frames_served"], 5);
    EXPECT_LE(after["frames_per_second"].get<int>(), 5);
    // The start-up lines of standard error, as written.
    const auto& messages = after["messages"];
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages[0], "Media item setting:");
    EXPECT_EQ(after["settings"]["text"], "Breaking news: the ticker scrolls");
    EXPECT_EQ(after["settings"]["backgroundColor"], "ff0000");
    EXPECT_DOUBLE_EQ(after["settings"]["backgroundOpacity"].get<double>(), 127 / 255.0);  // 0.5 x 255 truncated
    EXPECT_TRUE(after["feed"].is_null());
    const std::string err = stop();
    // Standard error still has every line, unchanged.
    EXPECT_NE(err.find("Media item setting:\n"), std::string::npos);
}

TEST_F(ServingProcessStats, StatusKeepsItsKeys)
{
    start();
    auto c = client();
    std::string json;
    ASSERT_TRUE(c && c->status(&json)) << c->error();
    const auto view = nlohmann::json::parse(json);
    std::set<std::string> keys;
    for (const auto& [k, v] : view.items())
        keys.insert(k);
    EXPECT_EQ(keys, (std::set<std::string>{"clients", "duration", "file", "guid", "mime_type", "time_scale",
                                           "video_streams"}));
    stop();
}

} // namespace
