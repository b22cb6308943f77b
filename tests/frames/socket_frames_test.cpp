// Frames through the control socket, in this process: the program's contexts
// and references behind a real server and real clients that map the shared
// buffer.
#include <gtest/gtest.h>

#include <cstring>

#include "frames/client_context.h"
#include "frames/compositor.h"
#include "frames/frame_buffer.h"
#include "frames/reader.h"
#include "frames/video_reference.h"
#include "items/scroll_settings.h"
#include "platform/client_context.h"
#include "platform/packet.h"
#include "platform/serve.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "support/frame_env.h"
#include "support/program_env.h"
#include "support/serving_env.h"

namespace {

// The program's context, recording the schedule data that reaches it.
class recording_context : public scrolling_text_client_context {
public:
    using scrolling_text_client_context::scrolling_text_client_context;
    bool apply_data_packet(const comm_socket_v4_packet* p) override
    {
        size_t n = 0;
        const char* d = comm_socket_v4_packet_get_data(p, &n);
        received.emplace_back(d, n);
        return scrolling_text_client_context::apply_data_packet(p);
    }
    std::vector<std::string> received;
};

int grow_budget_calls = 0;

// Stands in for whatever frees shared memory while a render waits for it.
int grow_budget_handler(comm_socket_v4_packet* request, comm_socket_v4_packet* response, const void*,
                        t4mi_connection*)
{
    if (std::strcmp(comm_socket_v4_packet_get_command(request), "grow") != 0)
        return 0;
    ++grow_budget_calls;
    tnb_total = 64ull << 20;
    comm_socket_v4_packet_begin_writing(response, 0, "grow", "OK");
    comm_socket_v4_packet_write_end(response);
    return 1;
}

class SocketFrames : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(fonts.ready());
        ASSERT_TRUE(buffers.ready());
        scroll_settings = scroll_settings_record{};
        scroll_settings.text = "Breaking news";
        scroll_settings.backgroundColor = colour_rgba{255, 0, 0, 128};
        t4mi_client_contexts.set_context_factory(
            [](uint64_t id) -> t4mi_client_context* { return new recording_context(id); });
        t4mi_client_contexts.set_reference_factory([](uint64_t c, uint64_t n, uint32_t v) {
            return static_cast<t4mi_video_frame_reference*>(new scrolling_text_video_reference(c, n, v));
        });
    }
    void TearDown() override
    {
        on_t4mi_custom_packet = nullptr;
        t4mi_client_contexts.set_context_factory(nullptr);
        t4mi_client_contexts.set_reference_factory(nullptr);
        scroll_settings = scroll_settings_record{};
    }

    recording_context* context_of(size_t index) const
    {
        auto it = t4mi_client_contexts.all().begin();
        std::advance(it, long(index));
        return static_cast<recording_context*>(it->second.get());
    }

    t4test::program_fonts fonts;
    t4test::shared_buffer_session buffers;
    t4test::control_server server;
};

t4mi_client_settings size(int32_t w, int32_t h)
{
    t4mi_client_settings s;
    s.width = w;
    s.height = h;
    s.time_scale = 30000;
    s.frame_duration = 1001;
    return s;
}

TEST_F(SocketFrames, FramesThroughTheSocketEqualTheFramesBuiltInProcess)
{
    auto c = server.client();
    ASSERT_TRUE(c->send_settings(size(320, 64))) << c->error();
    scrolling_text_client_context local(1000);  // the same settings, outside the server
    local.apply_client_settings(size(320, 64));
    for (uint64_t n : {0, 100}) {
        t4mi_client_frame f;
        ASSERT_TRUE(c->request_frame(n, 0, 0, &f)) << c->error();
        EXPECT_EQ(f.rendered, int64_t(n));
        t4mi_video_frame* mine = load_frame(local.reader, n, 0, &local, 0);
        ASSERT_NE(mine, nullptr);
        EXPECT_EQ(t4test::compare_frames(f, mine), "") << "frame " << n;
        EXPECT_TRUE(c->release_frame(n));
    }
    // The background as worked out by hand (red at half opacity):
    // Y = (66 * 255 + 4096) >> 8 = 81, U = (-38 * 255 + 32768) >> 8 = 90,
    // V = (112 * 255 + 32768) >> 8 = 239, A = 128.
    t4mi_client_frame f;
    ASSERT_TRUE(c->request_frame(5, 0, 0, &f));
    EXPECT_EQ(f.y[0], 81);
    EXPECT_EQ(f.u[0], 90);
    EXPECT_EQ(f.v[0], 239);
    EXPECT_EQ(f.alpha[0], 128);
}

TEST_F(SocketFrames, TwoClientsAtDifferentSizesAtOnce)
{
    auto a = server.client();
    auto b = server.client();
    ASSERT_TRUE(a->send_settings(size(320, 64)));
    ASSERT_TRUE(b->send_settings(size(128, 32)));
    const uint32_t ia = a->send_frame_request(10);
    const uint32_t ib = b->send_frame_request(10);
    t4mi_client_frame fa, fb;
    ASSERT_TRUE(b->receive_frame(ib, &fb)) << b->error();
    ASSERT_TRUE(a->receive_frame(ia, &fa)) << a->error();
    EXPECT_EQ(fa.width, 320u);
    EXPECT_EQ(fa.height, 64u);
    EXPECT_EQ(fb.width, 128u);
    EXPECT_EQ(fb.height, 32u);
    EXPECT_EQ(context_of(0)->reader->frame_width, 320);
    EXPECT_EQ(context_of(1)->reader->frame_width, 128);
    // Each client holds its own frame in its own context's cache.
    EXPECT_EQ(context_of(0)->outstanding_reference_count(), 1u);
    EXPECT_EQ(context_of(1)->outstanding_reference_count(), 1u);
    EXPECT_NE(fa.offset, fb.offset);
}

TEST_F(SocketFrames, ScheduleDataReachesTheContextOfTheClientThatSentIt)
{
    auto a = server.client();
    auto b = server.client();
    const std::string json = R"({"current":{"title":"Evening news","start":1700000000}})";
    ASSERT_TRUE(a->send_data(json)) << a->error();
    ASSERT_EQ(context_of(0)->received.size(), 1u);
    EXPECT_EQ(context_of(0)->received[0], json);
    EXPECT_TRUE(context_of(1)->received.empty());
}

TEST_F(SocketFrames, StaticTextIsOneSharedFrame)
{
    scroll_settings.scrollSpeed = 0;
    scroll_settings.static_ = 1;
    auto c = server.client();
    ASSERT_TRUE(c->send_settings(size(64, 16)));
    // The first frame of a new context parses its text, which lays it out
    // again; from then on every request shares the frame of that layout.
    t4mi_client_frame first, f0, f500, f9000;
    ASSERT_TRUE(c->request_frame(1, 0, 0, &first));
    ASSERT_TRUE(c->release_frame(1));
    ASSERT_TRUE(c->request_frame(0, 0, 0, &f0));
    ASSERT_TRUE(c->request_frame(500, 0, 0, &f500));
    ASSERT_TRUE(c->request_frame(9000, 0, 0, &f9000));
    EXPECT_EQ(f0.offset, f500.offset);
    EXPECT_EQ(f0.offset, f9000.offset);
    EXPECT_EQ(f500.frame_number, 500u);
    EXPECT_EQ(f500.rendered, 0);
    const uint32_t gen = uint32_t(context_of(0)->layout_generation);
    const t4mi_video_frame* shared = context_of(0)->reader->frame_manager.find_frame(0, gen);
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(shared->refcount, 3);
    EXPECT_EQ(context_of(0)->reader->frame_manager.find_frame(500, 0), nullptr);
    // Released by the numbers the client asked for.
    EXPECT_TRUE(c->release_frame(500));
    EXPECT_TRUE(c->release_frame(9000));
    EXPECT_TRUE(c->release_frame(0));
    EXPECT_EQ(shared->refcount, 0);
}

TEST_F(SocketFrames, ARenderWaitingForTheSharedBufferKeepsServingTheSocket)
{
    on_t4mi_custom_packet = grow_budget_handler;
    grow_budget_calls = 0;
    auto waiting = server.client();
    auto helper = server.client();
    ASSERT_TRUE(waiting->send_settings(size(64, 16)));
    // No buffer, and none can be made until the budget grows.
    tnb_default_buffer_drop();
    tnb_total = 0;
    const uint32_t frame = waiting->send_frame_request(3);
    for (int i = 0; i < 1000 && context_of(0)->pending_request_count() == 0; i++) {
        idle_t4mi_server_comm();  // read it, without running it
        usleep(1000);
    }
    ASSERT_EQ(context_of(0)->pending_request_count(), 1u);
    // Only now the packet that lets the wait end: it can only be handled by
    // the serving the wait does.
    comm_socket_v4_packet grow;
    grow.command = "grow";
    const uint32_t grown = helper->send(grow);
    EXPECT_EQ(idle_t4mi_client_contexts(), 1);
    EXPECT_EQ(grow_budget_calls, 1);
    t4mi_client_frame f;
    ASSERT_TRUE(waiting->receive_frame(frame, &f)) << waiting->error();
    EXPECT_EQ(f.width, 64u);
    t4mi_client_reply r;
    ASSERT_TRUE(helper->wait_reply(grown, &r));
    EXPECT_EQ(r.packet.status, "OK");
}

TEST_F(SocketFrames, AClientThatLeavesFreesItsFramesWithItsContext)
{
    auto keep = server.client();
    auto leave = server.client();
    ASSERT_TRUE(leave->send_settings(size(64, 16)));
    t4mi_client_frame f;
    for (uint64_t n = 0; n < 4; n++)
        ASSERT_TRUE(leave->request_frame(n, 0, 0, &f));
    EXPECT_EQ(tnb_alloc_live_count(), 4u);
    leave->close();
    EXPECT_TRUE(server.pump_until([] { return t4mi_client_contexts.count() == 1; }));
    EXPECT_EQ(tnb_alloc_live_count(), 0u);
    ASSERT_TRUE(keep->request_frame(0, 0, 0, &f)) << keep->error();
}

} // namespace
