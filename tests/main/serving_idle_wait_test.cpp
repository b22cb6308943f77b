// --idle-wait through the real process: an idle server wakes as often as the
// switch says (every 5 ms by default), and a request never waits for the
// end of a long wait.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "main/serving_fixture.h"

namespace {

// Times the process has gone to sleep of its own accord so far: each idle
// serve-loop turn is one ("voluntary_ctxt_switches" in /proc/<pid>/status).
long sleeps(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
            return std::stol(line.substr(line.find(':') + 1));
    return -1;
}

// How often the process slept during one second of nothing to do.
long sleeps_in_a_second(pid_t pid)
{
    const long before = sleeps(pid);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    return sleeps(pid) - before;
}

class ServingIdleWait : public t4test::serving_process_test {};

TEST_F(ServingIdleWait, AnIdleServerWakesAsOftenAsTheSwitchSays)
{
    start();
    const long by_default = sleeps_in_a_second(proc->pid());
    stop();
    start({"--idle-wait", "200"});
    const long long_wait = sleeps_in_a_second(proc->pid());
    stop();
    // Every 5 ms is up to 200 a second (fewer on a busy machine), every
    // 200 ms about 5.
    EXPECT_GE(by_default, 40);
    EXPECT_LE(long_wait, 15);
    EXPECT_GE(by_default, 4 * long_wait);
}

TEST_F(ServingIdleWait, ARequestDoesNotWaitForTheEndOfALongWait)
{
    start({"--idle-wait", "1000"});
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(t4test::picture_settings(320, 54)));
    for (uint64_t n = 0; n < 5; n++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the server back in its wait
        const auto t0 = std::chrono::steady_clock::now();
        served(*c, n);
        const auto took = std::chrono::steady_clock::now() - t0;
        EXPECT_LT(took, std::chrono::milliseconds(500)) << "frame " << n;
    }
    stop();
}

} // namespace
