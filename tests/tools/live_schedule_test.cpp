// Due times of a live run, worked out from the frame index alone.
#include <gtest/gtest.h>

#include "live_schedule.h"

namespace {

TEST(LiveSchedule, DueTimesAtNtscRateAreExactAndRoundUp)
{
    const live_schedule s(5000, 30000, 1001);
    EXPECT_EQ(s.due_ns(0), 5000);
    // 1001 / 30000 s = 33 366 666.67 ns, rounded up.
    EXPECT_EQ(s.due_ns(1), 5000 + 33366667);
    // 30 000 frames are exactly 1001 s: no rounding carried along.
    EXPECT_EQ(s.due_ns(30000), 5000 + 1001000000000LL);
    EXPECT_EQ(s.period_ns(), 33366666);
}

TEST(LiveSchedule, DueTimesStayExactPastSixtyFourBitProducts)
{
    // 10^8 frames (38 days): 10^8 * 1001 * 10^9 is past 2^63. 10^8 * 1001 /
    // 30000 s = 3 336 666.666... s.
    const live_schedule s(0, 30000, 1001);
    EXPECT_EQ(s.due_ns(100000000), 3336666666666667LL);
}

TEST(LiveSchedule, IndexAtFindsTheFrameWhoseSlotHoldsATime)
{
    const live_schedule s(1000, 25, 1);  // 40 ms a frame
    EXPECT_EQ(s.index_at(0), 0u);        // before the start
    EXPECT_EQ(s.index_at(1000), 0u);
    EXPECT_EQ(s.index_at(1000 + 39999999), 0u);
    EXPECT_EQ(s.index_at(1000 + 40000000), 1u);
    EXPECT_EQ(s.index_at(1000 + 400000000), 10u);
    const live_schedule ntsc(0, 30000, 1001);
    for (uint64_t k : {1ull, 2ull, 3ull, 299ull, 300ull, 29999ull, 30000ull, 1000001ull}) {
        EXPECT_EQ(ntsc.index_at(ntsc.due_ns(k)), k);
        EXPECT_EQ(ntsc.index_at(ntsc.due_ns(k) - 1), k - 1);
    }
}

TEST(LiveSchedule, SleepUntilAPassedTimeReturnsAtOnce)
{
    const int64_t before = live_now_ns();
    EXPECT_TRUE(live_sleep_until(before - 1000000000));
    EXPECT_TRUE(live_sleep_until(live_now_ns() + 2000000));  // 2 ms
    EXPECT_GE(live_now_ns() - before, 2000000);
}

} // namespace
