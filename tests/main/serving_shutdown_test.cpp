// Stopping a busy server: after SIGTERM, SIGINT or SIGQUIT the process drops
// the frame requests still queued and is gone quickly, with the ordered
// shut-down and its buffer report on standard error.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "main/serving_fixture.h"

namespace {

using clock_type = std::chrono::steady_clock;

class ServingProcessShutdown : public t4test::serving_process_test, public ::testing::WithParamInterface<int> {};

// 16 clients with 64 pipelined 1080-line frames each: about a thousand
// frames of work queued when the signal comes.
TEST_P(ServingProcessShutdown, QueuedFramesAreDroppedAndTheProcessIsGoneWithin500Ms)
{
    start();
    std::vector<std::unique_ptr<t4mi_client>> clients;
    for (int i = 0; i < 16; i++) {
        auto c = client();
        ASSERT_TRUE(c && c->send_settings(t4test::picture_settings(1920, 1080))) << (c ? c->error() : "");
        clients.push_back(std::move(c));
    }
    // All queued at once, so that the signal finds nearly all of it waiting.
    std::vector<uint32_t> first_ids;
    for (uint64_t n = 0; n < 64; n++)
        for (auto& c : clients) {
            const uint32_t id = c->send_frame_request(n);
            ASSERT_NE(id, 0u) << c->error();
            if (n == 0)
                first_ids.push_back(id);
        }
    // Rendering is under way, and stays so while the signal comes.
    t4mi_client_frame f;
    ASSERT_TRUE(clients[0]->receive_frame(first_ids[0], &f)) << clients[0]->error();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    const long frame_memory = proc->status_kib("RssShmem");
    const auto t0 = clock_type::now();
    int status = -2;
    ASSERT_TRUE(proc->stop(GetParam(), 10000, &status)) << proc->err();
    const double ms = std::chrono::duration<double, std::milli>(clock_type::now() - t0).count();
    std::printf("gone %.0f ms after signal %d, with %ld KiB of frame memory\n", ms, GetParam(), frame_memory);
    EXPECT_LT(ms, 500.0);
    EXPECT_EQ(status, 0);

    // The ordered shut-down, whole and in order.
    const std::string err = proc->err();
    const std::vector<std::string> steps = {
        "--------------REMAINING TNB BUFFER ALLOCATIONS----------------\n",
        "** PLEASE REVIEW FOR DEBUGGING PURPOSES TO CATCH TNB MEMORY LEAKS\n",
        "============================\n",
        "--------------------------------------------------------------\n",
        "Cleaning up\n",
        "Housekeeping shut down\n",
        "Freeing cache ",
    };
    size_t at = 0;
    for (const auto& step : steps) {
        const size_t found = err.find(step, at);
        ASSERT_NE(found, std::string::npos) << "missing or out of order: " << step << "\n" << err;
        at = found + step.size();
    }
}

INSTANTIATE_TEST_SUITE_P(Signals, ServingProcessShutdown, ::testing::Values(SIGTERM, SIGINT, SIGQUIT),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return info.param == SIGTERM ? "SIGTERM" : info.param == SIGINT ? "SIGINT" : "SIGQUIT";
                         });

} // namespace
