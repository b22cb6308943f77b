// Connections that try to lock others out, through the real process: idle
// and half-open connections at the connection limit, a packet that never
// finishes, the descriptor limit, and input memory.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "main/serving_fixture.h"
#include "support/hostile_clients.h"

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t) { return std::chrono::duration<double>(clock_type::now() - t).count(); }

class ServingProcessConnections : public t4test::serving_process_test {
protected:
    // A client that gets frame `n` at a small size within `timeout_ms`.
    ::testing::AssertionResult gets_a_frame(int timeout_ms, uint64_t n = 0)
    {
        t4mi_client c;
        c.timeout_ms = timeout_ms;
        if (!c.connect(proc->socket_path(), timeout_ms))
            return ::testing::AssertionFailure() << "connect: " << c.error();
        t4mi_client_frame f;
        if (!c.send_settings(t4test::picture_settings(64, 16)) || !c.request_frame(n, 0, 0, &f))
            return ::testing::AssertionFailure() << c.error();
        return ::testing::AssertionSuccess();
    }
};

TEST_F(ServingProcessConnections, SeventyHalfOpenConnectionsDoNotKeepANewClientOut)
{
    start();
    std::vector<std::unique_ptr<t4test::raw_socket>> hostile;
    for (int i = 0; i < 70; i++)
        hostile.push_back(i % 2 ? t4test::unfinished_packet(proc->socket_path())
                                : t4test::silent_connection(proc->socket_path()));
    // Well within the 5 s after which an unfinished packet costs its
    // connection anyway: room is made by evicting the longest idle.
    const auto t0 = clock_type::now();
    EXPECT_TRUE(gets_a_frame(3000));
    EXPECT_LT(seconds_since(t0), 4.0);
    EXPECT_TRUE(gets_a_frame(3000, 1));
    EXPECT_NE(proc->err().find("dropped: idle, evicted to make room\n"), std::string::npos) << proc->err();
    stop();
}

TEST_F(ServingProcessConnections, APacketUnfinishedForFiveSecondsCostsItsConnection)
{
    start();
    auto silent = t4test::silent_connection(proc->socket_path());
    auto halting = t4test::unfinished_packet(proc->socket_path(), 20);
    const auto t0 = clock_type::now();
    EXPECT_TRUE(halting->closed_by_server(9000));
    const double after = seconds_since(t0);
    EXPECT_GE(after, 4.9);
    EXPECT_LT(after, 8.0);
    EXPECT_FALSE(silent->hung_up(100));
    EXPECT_NE(proc->err().find("dropped: unfinished packet\n"), std::string::npos) << proc->err();
    EXPECT_TRUE(gets_a_frame(3000));
    stop();
}

// With too few descriptors for its connections, the server stops polling
// the listening socket for a moment instead of spinning, and the client
// waiting in the backlog is served once room is made.
TEST_F(ServingProcessConnections, OutOfDescriptorsTheServerRestsAndServesTheWaitingClientLater)
{
    std::vector<std::string> args = {"-c", "ulimit -n 40 && exec \"$0\" \"$@\"", t4test::scrolltext_binary(),
                                     "--file", item_path, "--metadir", dir / "meta"};
    proc = std::make_unique<t4test::serving_process>("/bin/sh", args, fonts.env());
    ASSERT_TRUE(proc->wait_ready(dir / "meta")) << proc->err();

    // Clients that hold a frame each (so none is idle) until one is not
    // served: the server is out of descriptors.
    std::vector<std::unique_ptr<t4mi_client>> holders;
    bool exhausted = false;
    for (int i = 0; i < 60 && !exhausted; i++) {
        auto c = std::make_unique<t4mi_client>();
        c->timeout_ms = 1000;
        t4mi_client_frame f;
        exhausted = !c->connect(proc->socket_path(), 1000) ||
                    !c->send_settings(t4test::picture_settings(64, 16)) || !c->request_frame(0, 0, 0, &f);
        if (!exhausted)
            holders.push_back(std::move(c));
        else
            std::printf("client %d not served: %s\n", i + 1, c->error().c_str());
    }
    ASSERT_TRUE(exhausted) << holders.size() << " clients served under 40 descriptors";
    ASSERT_GE(holders.size(), 10u);

    // Silent connections take whatever descriptors are left, and more wait
    // in the backlog.
    std::vector<std::unique_ptr<t4test::raw_socket>> silent;
    for (int i = 0; i < 20; i++)
        silent.push_back(t4test::silent_connection(proc->socket_path()));

    // One more waits in the backlog with a frame request sent.
    t4mi_client waiting;
    waiting.timeout_ms = 10000;
    ASSERT_TRUE(waiting.connect(proc->socket_path(), 1000));
    const uint32_t id = waiting.send_frame_request(7);
    ASSERT_NE(id, 0u);

    // Not spinning meanwhile: a second of wall time costs little CPU.
    const double cpu0 = proc->cpu_seconds();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const double cpu = proc->cpu_seconds() - cpu0;
    std::printf("%.2f CPU seconds in one second out of descriptors\n", cpu);
    EXPECT_LT(cpu, 0.15) << "CPU seconds over one second while out of descriptors";

    // Room: the holders give their frames back (or their holds expire), so
    // they are merely idle and, like the silent ones, can make room.
    for (auto& c : holders)
        c->release_frame(0);
    t4mi_client_frame f;
    EXPECT_TRUE(waiting.receive_frame(id, &f)) << waiting.error() << "\n" << proc->err();
    ASSERT_TRUE(proc->running());
    stop();
}

// Connections that each send most of a largest packet and never finish it:
// what the server buffers for them stays bounded over all of them, and a
// good client keeps getting frames.
TEST_F(ServingProcessConnections, BufferedInputIsBoundedOverAllConnections)
{
    start();
    auto good = client();
    ASSERT_TRUE(good && good->send_settings(t4test::picture_settings(320, 36)));
    t4mi_client_frame f;
    ASSERT_TRUE(good->request_frame(0, 0, 0, &f));
    ASSERT_TRUE(good->release_frame(0));
    const long before = proc->status_kib("VmHWM");
    ASSERT_GT(before, 0);

    std::vector<std::unique_ptr<t4test::raw_socket>> big;
    for (int i = 0; i < 60; i++)
        big.push_back(t4test::big_unfinished_packet(proc->socket_path(), 64u << 10));
    // Feed them all for up to three seconds (each wants 8 MiB in all).
    uint64_t n = 1;
    const auto t0 = clock_type::now();
    size_t sent = 0;
    while (seconds_since(t0) < 3.0) {
        for (auto& s : big)
            sent += t4test::send_more(*s, 1u << 20);
        ASSERT_TRUE(good->request_frame(n, 0, 0, &f)) << good->error();
        ASSERT_TRUE(good->release_frame(n));
        ++n;
    }
    const long after = proc->status_kib("VmHWM");
    std::printf("sent %zu MiB in all; peak memory %ld KiB before, %ld KiB after\n", sent >> 20, before, after);
    EXPECT_GT(sent, size_t(64) << 20);
    // The cap is 32 MiB of input; the rest is the heap keeping freed blocks.
    EXPECT_LT(after - before, 80L << 10) << "KiB added to the peak";
    EXPECT_NE(proc->err().find("dropped: too much buffered input\n"), std::string::npos);
    EXPECT_TRUE(good->request_frame(n, 0, 0, &f)) << good->error();
    stop();
}

} // namespace
