#include <gtest/gtest.h>

#include "main/process.h"
#include "platform/t4mi_globals.h"

namespace {

TEST(SignalHandler, CountsSignalsAndAbortsOnTheTwentieth)
{
    DIE4 = 0;
    for (int i = 1; i <= 19; i++) {
        die_signal_handler(SIGTERM);
        EXPECT_EQ(DIE4, i);
    }
    EXPECT_DEATH(die_signal_handler(SIGINT), "");
    DIE4 = 0;
}

} // namespace
