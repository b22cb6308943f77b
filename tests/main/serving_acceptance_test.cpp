// Acceptance: two well-behaved clients render without pause while other
// connections throw malformed and hostile bytes at the socket and the item
// file is edited under them. The well-behaved clients must get every frame
// they ask for, none late beyond a bound, and the process must live on and
// show the last edit.
//
// Bounded: about 8 s of hostility, then at most 10 s for the last edit to
// show, then a SIGTERM stop.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "main/serving_fixture.h"
#include "support/hostile_clients.h"

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t) { return std::chrono::duration<double>(clock_type::now() - t).count(); }

std::string item_with(const std::string& text)
{
    return "#Tevrin4ScrollText\n#-backgroundColor=ff0000\n#-backgroundOpacity=0.5\n#-scrollSpeed=1\n#-multiLine=1\n" +
           text + "\n";
}

// A client that renders frame after frame in a thread of its own, each
// frame released at once, and keeps what went wrong.
struct steady_client {
    std::unique_ptr<t4mi_client> connection;
    t4mi_client_settings settings;
    std::thread thread;
    uint64_t next = 0;
    uint64_t frames = 0;
    double worst = 0;  // seconds, the slowest request and release
    std::string failure;

    void run(const std::atomic<bool>& stop)
    {
        while (!stop && failure.empty()) {
            const auto t0 = clock_type::now();
            t4mi_client_frame f;
            if (!connection->request_frame(next, 0, 0, &f)) {
                failure = "frame " + std::to_string(next) + ": " + connection->error();
                break;
            }
            if (f.width != uint32_t(settings.width) || f.height != uint32_t(settings.height) || f.y == nullptr)
                failure = "frame " + std::to_string(next) + " has the wrong size";
            else if (!connection->release_frame(next))
                failure = "release " + std::to_string(next) + ": " + connection->error();
            worst = std::max(worst, seconds_since(t0));
            ++next;
            ++frames;
        }
    }
};

class ServingProcessAcceptance : public t4test::serving_process_test {
protected:
    // Every kind of malformed connection once; connections that should be
    // dropped go to `expect_dropped`, the rest to `lingering` (closed later).
    void hostile_round(std::mt19937& rng)
    {
        for (auto& h : t4test::malformed_round(proc->socket_path(), rng))
            keep(std::move(h.socket), h.must_be_dropped);
    }

    // The first connections that must be dropped are kept to check that
    // they were; the others stay open a while, then close.
    void keep(std::unique_ptr<t4test::raw_socket> s, bool dropped)
    {
        if (dropped && expect_dropped.size() < 8)
            expect_dropped.push_back(std::move(s));
        else
            lingering.push_back(std::move(s));
        // Stay well under the server's 64 connections (and this process's
        // descriptor limit).
        while (lingering.size() > 24)
            lingering.pop_front();
    }

    std::deque<std::unique_ptr<t4test::raw_socket>> expect_dropped, lingering, floods;
};

TEST_F(ServingProcessAcceptance, WellBehavedClientsGetEveryFrameWhileOthersAttackAndTheItemChanges)
{
    start();
    steady_client a, b;
    a.settings = t4test::picture_settings(1920, 108);
    b.settings = t4test::picture_settings(720, 576);
    for (steady_client* s : {&a, &b}) {
        s->connection = client();
        ASSERT_TRUE(s->connection && s->connection->send_settings(s->settings));
        s->connection->timeout_ms = 5000;
    }
    std::atomic<bool> stop_clients{false};
    // Stops and joins the two threads however the test leaves.
    struct joiner {
        std::atomic<bool>& stop;
        std::vector<std::thread*> threads;
        ~joiner() { join(); }
        void join()
        {
            stop = true;
            for (auto* t : threads)
                if (t->joinable())
                    t->join();
        }
    } clients{stop_clients, {&a.thread, &b.thread}};
    a.thread = std::thread([&] { a.run(stop_clients); });
    b.thread = std::thread([&] { b.run(stop_clients); });

    // A client that pipelines 200 requests without releasing any: the first
    // 128 are held, the rest refused, in order.
    auto greedy = client();
    ASSERT_TRUE(greedy && greedy->send_settings(t4test::picture_settings(64, 16)));
    std::vector<uint32_t> ids;
    for (uint64_t n = 0; n < 200; n++)
        ids.push_back(greedy->send_frame_request(n));
    int held = 0, refused = 0;
    for (uint32_t id : ids) {
        t4mi_client_frame f;
        if (greedy->receive_frame(id, &f))
            held++;
        else if (greedy->error().find("Too many frames held") != std::string::npos)
            refused++;
    }
    EXPECT_EQ(held, 128);
    EXPECT_EQ(refused, 72);

    const std::vector<std::string> texts = {"First edit of the ticker", "Second edit, mid-attack",
                                            "Third and last edit of the ticker"};
    const double edit_at[] = {0.5, 3.0, 5.5};
    size_t edits_done = 0;
    std::mt19937 rng(20240611);
    const auto begin = clock_type::now();
    int rounds = 0;
    while (seconds_since(begin) < 8.0) {
        if (edits_done < texts.size() && seconds_since(begin) >= edit_at[edits_done])
            edit_item(item_with(texts[edits_done++]));
        hostile_round(rng);
        if (rounds % 40 == 0 && floods.size() < 2)
            floods.push_back(t4test::never_reading_flood(proc->socket_path()));
        ++rounds;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ASSERT_TRUE(proc->running()) << proc->err();
    }
    clients.join();

    for (steady_client* s : {&a, &b}) {
        EXPECT_EQ(s->failure, "") << s->settings.width << "x" << s->settings.height;
        EXPECT_GE(s->frames, 50u) << s->settings.width << "x" << s->settings.height;
        EXPECT_LT(s->worst, 3.0) << s->settings.width << "x" << s->settings.height;
    }
    int dropped = 0;
    for (auto& s : expect_dropped)
        dropped += s->closed_by_server(dropped == 0 ? 3000 : 100) ? 1 : 0;
    EXPECT_EQ(dropped, int(expect_dropped.size()));
    EXPECT_GE(rounds, 100);

    // The last edit reaches the well-behaved client: some fresh frame is the
    // in-process render of the last text.
    {
        t4test::local_renderer last(item_with(texts.back()), t4test::SCROLL_TEXT_TYPE, a.settings);
        bool shown = false;
        const auto wait_from = clock_type::now();
        while (!shown && seconds_since(wait_from) < 10.0) {
            const uint64_t n = a.next++;
            t4mi_client_frame f;
            ASSERT_TRUE(a.connection->request_frame(n, 0, 0, &f)) << a.connection->error();
            shown = t4test::copy_planes(f) == last.frame(n);
            ASSERT_TRUE(a.connection->release_frame(n));
            if (!shown)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        EXPECT_TRUE(shown) << proc->err();
    }
    EXPECT_TRUE(proc->running());
    const std::string err = stop();
    auto count = [&](const std::string& what) {
        size_t n = 0;
        for (size_t at = err.find(what); at != std::string::npos; at = err.find(what, at + 1))
            n++;
        return n;
    };
    std::printf("steady clients: %llu frames (slowest %.3f s), %llu frames (slowest %.3f s); %d hostile rounds; "
                "%zu dropped as malformed, %zu as not reading; %zu reloads\n",
                static_cast<unsigned long long>(a.frames), a.worst, static_cast<unsigned long long>(b.frames), b.worst,
                rounds, count("dropped: malformed packet\n"), count("dropped: not reading its replies\n"),
                count("Text item changed\n"));
    EXPECT_NE(err.find("Text item changed\n"), std::string::npos) << err;
    EXPECT_NE(err.find("dropped: malformed packet\n"), std::string::npos) << err;
    EXPECT_EQ(err.find("Assertion"), std::string::npos) << err;
}

} // namespace
