// The serve counters and the message memory behind "v4::stats".
#include <gtest/gtest.h>

#include <string>

#include "platform/serve_stats.h"

namespace {

class ServeStats : public ::testing::Test {
protected:
    void SetUp() override { serve_stats_reset(); }
    void TearDown() override { serve_stats_reset(); }
};

TEST_F(ServeStats, RateCountsTheLastTenFinishedTenthsOfASecond)
{
    // Tenths 100..119 (10.0 s .. 11.9 s), three replies in each.
    for (uint64_t tenth = 100; tenth < 120; ++tenth)
        for (int i = 0; i < 3; ++i)
            serve_stats_frame_served(tenth * 100000 + uint64_t(i) * 1000);
    EXPECT_EQ(serve_stats_frames_served(), 60u);
    // At 11.95 s tenth 119 is running: 109..118 are counted, 10 x 3.
    EXPECT_EQ(serve_stats_frames_last_second(11950000), 30u);
    // At 12.5 s: 115..124, of which 115..119 had replies.
    EXPECT_EQ(serve_stats_frames_last_second(12500000), 15u);
    // Long after, nothing: old slots are not mistaken for new tenths.
    EXPECT_EQ(serve_stats_frames_last_second(13600000), 0u);
    EXPECT_EQ(serve_stats_frames_last_second(100000000), 0u);
}

TEST_F(ServeStats, RateNearTheClockStartDoesNotReachBeforeZero)
{
    serve_stats_frame_served(0);
    serve_stats_frame_served(50000);
    EXPECT_EQ(serve_stats_frames_last_second(150000), 2u);
}

TEST_F(ServeStats, MessagesAreWholeLinesKeptNewestLast)
{
    serve_stats_note_output("first line\nsecond ", 18);
    serve_stats_note_output("half\n", 5);
    serve_stats_note_output("unfinished", 10);
    const auto lines = serve_stats_recent_messages();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "first line");
    EXPECT_EQ(lines[1], "second half");
}

TEST_F(ServeStats, OnlyTheNewestMessagesAreKeptAndLongOnesAreCut)
{
    for (int i = 0; i < 40; ++i) {
        const std::string line = "line " + std::to_string(i) + "\n";
        serve_stats_note_output(line.data(), line.size());
    }
    const std::string long_line = std::string(2000, 'x') + "\n";
    serve_stats_note_output(long_line.data(), long_line.size());
    const auto lines = serve_stats_recent_messages();
    ASSERT_EQ(lines.size(), SERVE_STATS_MESSAGES);
    // 41 lines went in, 32 are kept: "line 9" .. "line 39" and the long one.
    EXPECT_EQ(lines.front(), "line 9");
    EXPECT_EQ(lines[30], "line 39");
    EXPECT_EQ(lines.back(), std::string(SERVE_STATS_MESSAGE_BYTES, 'x'));
}

} // namespace
