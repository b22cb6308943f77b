// The control socket in this process: the server, its connections, the
// commands it answers, frame requests with buffer descriptors, and what a
// broken or hostile client may cost (only its own connection).
//
// The program's classes are replaced by small fakes: a context that records
// what reaches it, and a reference that renders a 64 x 16 frame whose Y
// plane holds the frame number (mod 256).
#include <gtest/gtest.h>

#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "frames/frame_buffer.h"
#include "frames/reader.h"
#include "platform/client_context.h"
#include "platform/clock.h"
#include "platform/comm_server.h"
#include "platform/derived_params.h"
#include "platform/packet_codec.h"
#include "platform/serve.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "platform/video_frame.h"
#include "support/frame_env.h"
#include "support/serving_env.h"

namespace {

class fake_context : public t4mi_client_context {
public:
    using t4mi_client_context::t4mi_client_context;
    ~fake_context() override
    {
        expire_all_references();
        for (const auto& [key, f] : reader.frame_manager.all())
            held_at_destruction += size_t(f->refcount);
        reader.frame_manager.flush_all_frames();
        destroyed++;
    }
    void apply_client_settings(const t4mi_client_settings& s) override
    {
        settings.push_back(s);
        t4mi_client_context::apply_client_settings(s);
    }
    bool apply_data_packet(const comm_socket_v4_packet* p) override
    {
        size_t n = 0;
        const char* d = comm_socket_v4_packet_get_data(p, &n);
        data.assign(d, n);
        return false;
    }

    my_AVIVideoRandomReader reader;
    std::vector<t4mi_client_settings> settings;
    std::vector<uint32_t> widths_rendered;  // picture width at each render
    std::string data;
    static inline size_t held_at_destruction = 0;
    static inline int destroyed = 0;
};

class fake_reference : public t4mi_video_frame_reference {
public:
    using t4mi_video_frame_reference::t4mi_video_frame_reference;

    t4mi_video_frame* find_frame(const t4mi_frame_request&, t4mi_connection* c) override
    {
        auto* ctx = static_cast<fake_context*>(client_context_tracking_get_id(t4mi_client_contexts, context_id, c));
        return ctx ? ctx->reader.frame_manager.find_frame(frame_number, variant) : nullptr;
    }

    t4mi_video_frame* render_frame(const t4mi_frame_request&, t4mi_connection* c) override
    {
        auto* ctx = static_cast<fake_context*>(client_context_tracking_get_id(t4mi_client_contexts, context_id, c));
        if (ctx == nullptr)
            return nullptr;
        if (serve_while_rendering)  // as a render waiting for the shared buffer does
            idle_t4mi_server_comm();
        ctx->widths_rendered.push_back(ctx->picture_width);
        ++renders;
        my_AVIVideoRandomReader::common_codec_setup_yuv_params param;
        if (!my_AVIVideoRandomReader::common_codec_setup_yuv(64, 16, param))
            return nullptr;
        auto* f = new t4mi_video_frame(int64_t(frame_number));
        if (!ctx->reader.common_alloc_yuv_planar(f, param) || !ctx->reader.common_map_yuv_planar(f, param)) {
            delete f;
            return nullptr;
        }
        std::memset(param.y, int(frame_number & 0xFF), param.y_stride * 16);
        std::memset(param.u, 128, param.chroma_stride * 16);
        std::memset(param.v, 128, param.chroma_stride * 16);
        std::memset(param.alpha, 255, param.alpha_stride * 16);
        ctx->reader.frame_manager.store_frame(frame_number, variant, f);
        return f;
    }

    static inline bool serve_while_rendering = false;
    static inline int renders = 0;
};

// The frame cache entry of (n, 0) in the context of `client`'s connection.
t4mi_video_frame* cached(uint64_t context_id, uint64_t n)
{
    auto* ctx = static_cast<fake_context*>(t4mi_client_contexts.get(context_id));
    return ctx ? ctx->reader.frame_manager.find_frame(n, 0) : nullptr;
}

int custom_calls = 0;
std::string custom_raw;  // the first bytes of the raw packet the handler saw
t4mi_connection* custom_client = nullptr;

int test_custom_handler(comm_socket_v4_packet* request, comm_socket_v4_packet* response, const void* raw,
                        t4mi_connection* client)
{
    custom_calls++;
    custom_raw.assign(static_cast<const char*>(raw), 4);
    custom_client = client;
    if (std::strcmp(comm_socket_v4_packet_get_command(request), "hello") != 0)
        return 0;
    comm_socket_v4_packet_begin_writing(response, 0, "hello", "OK");
    comm_socket_v4_packet_write_nv_text(response, "greeting", "hi");
    comm_socket_v4_packet_write_end(response);
    return 1;
}

comm_socket_v4_packet command(const std::string& name, std::vector<comm_socket_v4_nv_entry> entries = {})
{
    comm_socket_v4_packet p;
    p.command = name;
    p.entries = std::move(entries);
    return p;
}

class ControlServer : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(buffers.ready());
        ASSERT_NE(t4mi_comm_server, nullptr);
        t4mi_client_contexts.set_context_factory([](uint64_t id) { return new fake_context(id); });
        t4mi_client_contexts.set_reference_factory([](uint64_t ctx, uint64_t n, uint32_t variant) {
            return static_cast<t4mi_video_frame_reference*>(new fake_reference(ctx, n, variant));
        });
        fake_context::held_at_destruction = 0;
        fake_context::destroyed = 0;
        fake_reference::serve_while_rendering = false;
        fake_reference::renders = 0;
        custom_calls = 0;
        saved_auto_deref_delay = picture_auto_deref_delay;
        on_t4mi_custom_packet = test_custom_handler;
        meta_to_json(nullptr);
        item_to_json_common();
    }
    void TearDown() override
    {
        on_t4mi_custom_packet = nullptr;
        picture_auto_deref_delay = saved_auto_deref_delay;
        t4mi_clock_set_monotonic_offset_us(0);
    }

    // The newest context (the last client's).
    fake_context* newest() const
    {
        return t4mi_client_contexts.count() ? static_cast<fake_context*>(t4mi_client_contexts.all().rbegin()->second.get())
                                            : nullptr;
    }

    t4test::shared_buffer_session buffers;
    t4test::control_server server;
    uint64_t saved_auto_deref_delay = 0;
};

TEST_F(ControlServer, TheSocketIsOwnerOnlyAndGoesAwayWithTheServer)
{
    struct stat st {};
    ASSERT_EQ(lstat(server.socket_path().c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    t4test::temp_dir dir;
    const std::string path = dir / "other.sock";
    comm_socket_v4_server* other = comm_socket_v4_server_create(path.c_str());
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(lstat(path.c_str(), &st), 0);
    comm_socket_v4_server_close(other);
    EXPECT_NE(lstat(path.c_str(), &st), 0);
}

TEST_F(ControlServer, AStaleSocketFileIsReplacedButAnyOtherFileIsLeftAlone)
{
    t4test::temp_dir dir;
    const std::string stale = dir / "stale.sock";
    {
        // A socket file left behind by a process that died.
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strcpy(addr.sun_path, stale.c_str());
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        close(fd);
    }
    comm_socket_v4_server* s = comm_socket_v4_server_create(stale.c_str());
    ASSERT_NE(s, nullptr);
    t4test::raw_socket probe(stale);
    EXPECT_TRUE(probe.ok());
    comm_socket_v4_server_close(s);

    const std::string file = dir / "notes.txt";
    t4test::write_file(file, "keep me");
    testing::internal::CaptureStderr();
    EXPECT_EQ(comm_socket_v4_server_create(file.c_str()), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Cannot create control socket '" + file + "': File exists\n");
    EXPECT_EQ(t4test::read_file(file), "keep me");
}

TEST_F(ControlServer, ALiveSocketIsNeverTakenOverAndNamesItsServer)
{
    // This process listens there: a second server for the path must leave it be.
    struct stat before {};
    ASSERT_EQ(lstat(server.socket_path().c_str(), &before), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(comm_socket_v4_server_create(server.socket_path().c_str()), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Cannot create control socket '" + server.socket_path() +
                                                          "': already served by pid " + std::to_string(getpid()) +
                                                          "\n");
    struct stat after {};
    ASSERT_EQ(lstat(server.socket_path().c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    auto c = server.client();
    ASSERT_TRUE(c);
    std::string json;
    EXPECT_TRUE(c->status(&json)) << c->error();
}

TEST_F(ControlServer, ASocketInADirectoryOthersMayWriteIsNotMade)
{
    t4test::temp_dir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
    const std::string path = dir / "c.sock";
    testing::internal::CaptureStderr();
    EXPECT_EQ(comm_socket_v4_server_create(path.c_str()), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Cannot create control socket '" + path + "': its directory is writable by group or others (mode 0777)\n");
    struct stat st {};
    EXPECT_NE(lstat(path.c_str(), &st), 0);
}

TEST_F(ControlServer, ReopeningKeepsTheConnectionsAndServesNewClientsAtTheSamePath)
{
    auto a = server.client();
    ASSERT_TRUE(a);
    ASSERT_EQ(comm_socket_v4_reopen_server(t4mi_comm_server), 0);
    auto b = server.client();
    ASSERT_TRUE(b);
    std::string json;
    EXPECT_TRUE(a->status(&json)) << a->error();
    EXPECT_TRUE(b->status(&json)) << b->error();
    EXPECT_EQ(t4mi_client_contexts.count(), 2u);
}

TEST_F(ControlServer, EachClientHasItsOwnContextWhichGoesWhenItHangsUp)
{
    auto a = server.client();
    auto b = server.client();
    ASSERT_TRUE(a && b);
    ASSERT_EQ(t4mi_client_contexts.count(), 2u);
    const uint64_t first = t4mi_client_contexts.all().begin()->first;
    a->close();
    EXPECT_TRUE(server.pump_until([] { return t4mi_client_contexts.count() == 1; }));
    EXPECT_EQ(t4mi_client_contexts.get(first), nullptr);
    EXPECT_EQ(fake_context::destroyed, 1);
    EXPECT_EQ(comm_socket_v4_server_connection_count(t4mi_comm_server), 1u);
}

TEST_F(ControlServer, SettingsReachTheContextAndTheReplyGivesItsSizeAndTiming)
{
    auto c = server.client();
    t4mi_client_settings s;
    s.width = 1920;
    s.height = 1080;
    s.time_scale = 30000;
    s.frame_duration = 1001;
    s.field_rate = 1;
    s.aspect_num = 16;
    s.aspect_den = 9;
    t4mi_client_reply r;
    ASSERT_TRUE(c->send_settings(s, &r)) << c->error();
    const fake_context* ctx = newest();
    ASSERT_EQ(ctx->settings.size(), 1u);
    const t4mi_client_settings& got = ctx->settings[0];
    EXPECT_EQ(got.width, 1920);
    EXPECT_EQ(got.height, 1080);
    EXPECT_EQ(got.time_scale, 30000);
    EXPECT_EQ(got.frame_duration, 1001);
    EXPECT_EQ(got.field_rate, 1);
    EXPECT_EQ(got.aspect_num, 16);
    EXPECT_EQ(got.aspect_den, 9);
    EXPECT_EQ(r.packet.command, "settings");
    EXPECT_EQ(r.entry("width"), "1920");
    EXPECT_EQ(r.entry("height"), "1080");
    // The base context keeps its default timing; the reply tells what it is.
    EXPECT_EQ(r.entry("time_scale"), "30000");
    EXPECT_EQ(r.entry("frame_duration"), "1001");
}

TEST_F(ControlServer, SettingsOutOfRangeAreRefusedAndNotApplied)
{
    auto c = server.client();
    t4mi_client_reply r;
    ASSERT_TRUE(c->call(command("settings", {{"width", "4097"}}), &r));
    EXPECT_EQ(r.packet.status, "ERROR");
    EXPECT_EQ(r.entry("message"), "Bad settings value: width");
    ASSERT_TRUE(c->call(command("settings", {{"height", "12abc"}}), &r));
    EXPECT_EQ(r.entry("message"), "Bad settings value: height");
    ASSERT_TRUE(c->call(command("settings", {{"aspect_num", "-1"}}), &r));
    EXPECT_EQ(r.entry("message"), "Bad settings value: aspect_num");
    EXPECT_TRUE(newest()->settings.empty());
}

TEST_F(ControlServer, AFrameReplySaysWhereTheFrameLiesAndPassesTheBufferDescriptorOnce)
{
    auto c = server.client();
    t4mi_client_reply r1, r2;
    ASSERT_TRUE(c->call(command("frame", {{"frame", "5"}}), &r1)) << c->error();
    ASSERT_TRUE(c->call(command("frame", {{"frame", "6"}}), &r2)) << c->error();
    ASSERT_EQ(r1.packet.status, "OK") << r1.entry("message");
    EXPECT_TRUE(r1.header.flags & COMM_SOCKET_V4_FLAG_FD);
    EXPECT_FALSE(r2.header.flags & COMM_SOCKET_V4_FLAG_FD);
    EXPECT_TRUE(r1.header.flags & COMM_SOCKET_V4_FLAG_REPLY);
    EXPECT_EQ(r1.entry("frame"), "5");
    EXPECT_EQ(r1.entry("variant"), "0");
    EXPECT_EQ(r1.entry("rendered"), "5");
    EXPECT_EQ(r1.entry("buffer"), std::to_string(image_tnb_buffer));
    // 64 x 16 with alpha: four planes of 64 x 16 = 4096 bytes, then the
    // descriptor; the allocation reserves 1024 bytes for it.
    EXPECT_EQ(r1.entry("descriptor"), "4096");
    EXPECT_EQ(r1.entry("descriptor_length"), "165");
    EXPECT_EQ(r1.entry("length"), "5120");
    EXPECT_EQ(r1.entry("width"), "64");
    EXPECT_EQ(r1.entry("height"), "16");
    EXPECT_EQ(std::stoull(r1.entry("offset")) % tnb_alloc_granularity(), 0u);
    EXPECT_NE(r1.entry("offset"), r2.entry("offset"));
}

TEST_F(ControlServer, AClientMapsTheFrameAndSeesWhatWasRendered)
{
    auto c = server.client();
    t4mi_client_frame f;
    ASSERT_TRUE(c->request_frame(5, 0, 0, &f)) << c->error();
    EXPECT_EQ(f.width, 64u);
    EXPECT_EQ(f.height, 16u);
    EXPECT_EQ(f.chroma_width, 64u);
    ASSERT_NE(f.alpha, nullptr);
    for (uint32_t y = 0; y < 16; y++)
        for (uint32_t x = 0; x < 64; x++) {
            ASSERT_EQ(f.y[y * f.y_stride + x], 5);
            ASSERT_EQ(f.u[y * f.u_stride + x], 128);
            ASSERT_EQ(f.alpha[y * f.alpha_stride + x], 255);
        }
    t4mi_client_frame g;
    ASSERT_TRUE(c->request_frame(300, 0, 0, &g)) << c->error();
    EXPECT_EQ(g.y[0], 300 & 0xFF);
    EXPECT_EQ(f.y[0], 5);  // the first is still held and intact
}

TEST_F(ControlServer, ReleaseGivesTheHoldBack)
{
    auto c = server.client();
    const uint64_t ctx = newest()->id;
    t4mi_client_frame f;
    ASSERT_TRUE(c->request_frame(7, 0, 0, &f));
    ASSERT_NE(cached(ctx, 7), nullptr);
    EXPECT_EQ(cached(ctx, 7)->refcount, 1);
    EXPECT_EQ(newest()->outstanding_reference_count(), 1u);
    ASSERT_TRUE(c->release_frame(7)) << c->error();
    EXPECT_EQ(cached(ctx, 7)->refcount, 0);
    EXPECT_EQ(newest()->outstanding_reference_count(), 0u);
    EXPECT_FALSE(c->release_frame(7));
    EXPECT_EQ(c->error(), "release refused: Frame not held");
}

TEST_F(ControlServer, TheSameFrameTwiceIsHeldTwice)
{
    auto c = server.client();
    const uint64_t ctx = newest()->id;
    t4mi_client_frame f, g;
    ASSERT_TRUE(c->request_frame(9, 0, 0, &f));
    ASSERT_TRUE(c->request_frame(9, 0, 0, &g));
    EXPECT_EQ(f.offset, g.offset);
    EXPECT_EQ(cached(ctx, 9)->refcount, 2);
    ASSERT_TRUE(c->release_frame(9));
    EXPECT_EQ(cached(ctx, 9)->refcount, 1);
}

TEST_F(ControlServer, DataGoesToTheSendersContextOnly)
{
    auto a = server.client();
    auto b = server.client();
    const auto& all = t4mi_client_contexts.all();
    auto* ctx_a = static_cast<fake_context*>(all.begin()->second.get());
    auto* ctx_b = static_cast<fake_context*>(all.rbegin()->second.get());
    bool changed = false;
    ASSERT_TRUE(a->send_data("{\"current\":{\"title\":\"News at ten\"}}", &changed)) << a->error();
    EXPECT_TRUE(changed);
    EXPECT_EQ(ctx_a->data, "{\"current\":{\"title\":\"News at ten\"}}");
    EXPECT_EQ(ctx_b->data, "");
}

TEST_F(ControlServer, DataPastTheLimitIsRefusedAndNotApplied)
{
    comm_socket_v4_server_limits.max_data_bytes = 16;
    auto c = server.client();
    ASSERT_TRUE(c->send_data("[1,2,3,4,5,6,7]"));  // 15 bytes
    EXPECT_EQ(newest()->data, "[1,2,3,4,5,6,7]");
    EXPECT_FALSE(c->send_data("[1,2,3,4,5,6,7,8]"));
    EXPECT_NE(c->error().find("Data too large: 17 bytes, at most 16"), std::string::npos) << c->error();
    EXPECT_EQ(newest()->data, "[1,2,3,4,5,6,7]");
    t4mi_client_frame f;
    EXPECT_TRUE(c->request_frame(1, 0, 0, &f)) << c->error();
}

TEST_F(ControlServer, StatusGivesTheItemsJsonAndSubscribersGetItWhenItChanges)
{
    auto a = server.client();
    auto b = server.client();
    std::string json;
    ASSERT_TRUE(a->status(&json, 1)) << a->error();
    rebuild_json();
    EXPECT_EQ(json, t4mi_item_json());
    EXPECT_NE(json.find("\"clients\":2"), std::string::npos) << json;
    ASSERT_TRUE(b->status(&json));

    // Nothing changed: nothing is pushed.
    json_next_xmit = 0;
    json_check_xmit(monotonic_clock_us());
    t4mi_client_reply push;
    EXPECT_FALSE(a->next_push(&push, 50));
    // A third client changes the count: the subscriber hears of it, the other does not.
    auto c = server.client();
    json_next_xmit = 0;
    json_check_xmit(monotonic_clock_us());
    ASSERT_TRUE(a->next_push(&push, 2000)) << a->error();
    EXPECT_TRUE(push.header.flags & COMM_SOCKET_V4_FLAG_PUSH);
    EXPECT_EQ(push.header.request_id, 0u);
    EXPECT_EQ(push.packet.command, "status");
    EXPECT_NE(std::string(comm_socket_v4_packet_get_data(&push.packet, nullptr)).find("\"clients\":3"),
              std::string::npos);
    EXPECT_FALSE(b->next_push(&push, 50));
    // Checked at most once a second.
    auto d = server.client();
    json_check_xmit(monotonic_clock_us());
    EXPECT_FALSE(a->next_push(&push, 50));
}

TEST_F(ControlServer, OtherCommandsGoToTheProgramsHandlerAndUnknownOnesGetAnError)
{
    auto c = server.client();
    t4mi_client_reply r;
    ASSERT_TRUE(c->call(command("hello"), &r));
    EXPECT_EQ(r.packet.status, "OK");
    EXPECT_EQ(r.entry("greeting"), "hi");
    EXPECT_EQ(custom_calls, 1);
    EXPECT_EQ(custom_raw, "T4MP");
    EXPECT_NE(custom_client, nullptr);

    ASSERT_TRUE(c->call(command("nothing"), &r));
    EXPECT_EQ(r.packet.command, "nothing");
    EXPECT_EQ(r.packet.status, "ERROR");
    EXPECT_EQ(r.entry("message"), "Unknown command 'nothing'");
    on_t4mi_custom_packet = nullptr;
    ASSERT_TRUE(c->call(command("hello"), &r));
    EXPECT_EQ(r.packet.status, "ERROR");
    EXPECT_EQ(r.entry("message"), "Unknown command 'hello'");
}

TEST_F(ControlServer, ExitAsksTheProcessToStop)
{
    auto c = server.client();
    t4mi_client_reply r;
    ASSERT_TRUE(c->call(command("exit"), &r));
    EXPECT_EQ(r.packet.status, "OK");
    EXPECT_EQ(t4mi_should_exit, 1);
}

TEST_F(ControlServer, AFrameRequestWithoutANumberIsAnError)
{
    auto c = server.client();
    t4mi_client_reply r;
    ASSERT_TRUE(c->call(command("frame", {{"frame", "-3"}}), &r));
    EXPECT_EQ(r.packet.status, "ERROR");
    EXPECT_EQ(r.entry("message"), "Bad frame request");
    ASSERT_TRUE(c->call(command("frame"), &r));
    EXPECT_EQ(r.entry("message"), "Bad frame request");
    ASSERT_TRUE(c->call(command("release", {{"frame", "x"}}), &r));
    EXPECT_EQ(r.entry("message"), "Bad release request");
}

TEST_F(ControlServer, GarbageCostsOnlyThatClient)
{
    auto good = server.client();
    t4test::raw_socket bad(server.socket_path());
    ASSERT_TRUE(bad.ok());
    server.pump();
    const char junk[] = "GET / HTTP/1.0\r\n\r\n";
    testing::internal::CaptureStderr();
    bad.write_some(junk, sizeof junk - 1);
    EXPECT_TRUE(bad.closed_by_server(2000, [&] { server.pump(); }));
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("dropped: malformed packet\n"), std::string::npos) << err;
    t4mi_client_frame f;
    EXPECT_TRUE(good->request_frame(1, 0, 0, &f)) << good->error();
    EXPECT_EQ(t4mi_client_contexts.count(), 1u);
}

TEST_F(ControlServer, AnOversizedPacketIsRefusedFromItsHeader)
{
    auto good = server.client();
    t4test::raw_socket bad(server.socket_path());
    std::vector<uint8_t> header = {'T', '4', 'M', 'P', 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    const uint32_t length = (8u << 20) + 1;
    std::memcpy(header.data() + 4, &length, 4);  // little-endian machine
    testing::internal::CaptureStderr();
    bad.write_some(header.data(), header.size());
    EXPECT_TRUE(bad.closed_by_server(2000, [&] { server.pump(); }));
    testing::internal::GetCapturedStderr();
    std::string json;
    EXPECT_TRUE(good->status(&json));
}

TEST_F(ControlServer, AHalfSentPacketThenAHangUpFreesEverythingTheClientHeld)
{
    auto good = server.client();
    auto leaving = server.client();
    t4mi_client_frame f;
    ASSERT_TRUE(leaving->request_frame(1, 0, 0, &f));
    ASSERT_TRUE(leaving->request_frame(2, 0, 0, &f));
    EXPECT_EQ(tnb_alloc_live_count(), 2u);
    // The start of a frame request, then the client goes.
    std::vector<uint8_t> bytes;
    ASSERT_TRUE(comm_socket_v4_packet_encode(command("frame", {{"frame", "3"}}), 0, 77, &bytes));
    ASSERT_EQ(send(leaving->descriptor(), bytes.data(), 20, MSG_NOSIGNAL), 20);
    leaving->close();
    EXPECT_TRUE(server.pump_until([] { return t4mi_client_contexts.count() == 1; }));
    EXPECT_EQ(fake_context::held_at_destruction, 0u);  // holds released before the frames went
    EXPECT_EQ(tnb_alloc_live_count(), 0u);
    EXPECT_TRUE(good->request_frame(4, 0, 0, &f));
}

TEST_F(ControlServer, AClientThatHangsUpWhileItsFrameIsRenderedLosesTheHold)
{
    fake_reference::serve_while_rendering = true;
    auto c = server.client();
    ASSERT_NE(c->send_frame_request(11), 0u);
    // Read it, without running it yet.
    for (int i = 0; i < 1000 && newest()->pending_request_count() == 0; i++) {
        idle_t4mi_server_comm();
        usleep(1000);
    }
    ASSERT_EQ(newest()->pending_request_count(), 1u);
    // Hang up before the request runs; the render notices (it serves the
    // socket as a render waiting for the shared buffer does).
    c->close();
    EXPECT_EQ(idle_t4mi_client_contexts(), 1);
    // Rendered but not handed out: the context went with the connection
    // right after, and no hold was left on the frame.
    EXPECT_EQ(fake_reference::renders, 1);
    EXPECT_EQ(t4mi_client_contexts.count(), 0u);
    EXPECT_EQ(fake_context::destroyed, 1);
    EXPECT_EQ(fake_context::held_at_destruction, 0u);
    EXPECT_EQ(tnb_alloc_live_count(), 0u);
}

TEST_F(ControlServer, AClientThatNeverReadsIsDroppedWhenItsQueueIsFull)
{
    comm_socket_v4_server_limits.max_output_bytes = 16 << 10;
    auto good = server.client();
    t4test::raw_socket lazy(server.socket_path());
    int small = 4096;
    setsockopt(lazy.descriptor(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    server.pump();
    std::vector<uint8_t> one;
    ASSERT_TRUE(comm_socket_v4_packet_encode(command("status"), 0, 1, &one));
    std::vector<uint8_t> many;
    for (int i = 0; i < 200; i++)
        many.insert(many.end(), one.begin(), one.end());
    testing::internal::CaptureStderr();
    bool dropped = false;
    for (int round = 0; round < 400 && !dropped; round++) {
        lazy.write_some(many.data(), many.size());
        dropped = lazy.hung_up(5, [&] { server.pump(); });
    }
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(dropped);
    EXPECT_NE(err.find("dropped: not reading its replies\n"), std::string::npos) << err;
    t4mi_client_frame f;
    EXPECT_TRUE(good->request_frame(3, 0, 0, &f)) << good->error();
    EXPECT_TRUE(server.pump_until([] { return t4mi_client_contexts.count() == 1; }));
}

TEST_F(ControlServer, AClientThatConnectsAndSaysNothingCostsNothing)
{
    t4test::raw_socket silent(server.socket_path());
    auto good = server.client();
    t4mi_client_frame f;
    for (uint64_t n = 0; n < 5; n++) {
        ASSERT_TRUE(good->request_frame(n, 0, 0, &f));
        ASSERT_TRUE(good->release_frame(n));
    }
    EXPECT_FALSE(silent.closed_by_server(20, [&] { server.pump(); }));
    EXPECT_EQ(t4mi_client_contexts.count(), 2u);
}

TEST_F(ControlServer, AClientHoldsABoundedNumberOfFrames)
{
    comm_socket_v4_server_limits.max_references = 3;
    auto c = server.client();
    t4mi_client_frame f;
    for (uint64_t n = 0; n < 3; n++)
        ASSERT_TRUE(c->request_frame(n, 0, 0, &f));
    EXPECT_FALSE(c->request_frame(3, 0, 0, &f));
    EXPECT_EQ(c->error(), "frame refused: Too many frames held");
    ASSERT_TRUE(c->release_frame(0));
    EXPECT_TRUE(c->request_frame(3, 0, 0, &f)) << c->error();
}

TEST_F(ControlServer, TooManyConnectionsAreTurnedAwayWhenEveryOneHoldsFrames)
{
    comm_socket_v4_server_limits.max_connections = 2;
    auto a = server.client();
    auto b = server.client();
    t4mi_client_frame f;
    ASSERT_TRUE(a->request_frame(1, 0, 0, &f));
    ASSERT_TRUE(b->request_frame(1, 0, 0, &f));
    t4test::raw_socket third(server.socket_path());
    EXPECT_TRUE(third.closed_by_server(2000, [&] { server.pump(); }));
    EXPECT_EQ(t4mi_client_contexts.count(), 2u);
}

TEST_F(ControlServer, AtTheConnectionLimitTheLongestIdleWithoutFramesMakesRoom)
{
    comm_socket_v4_server_limits.max_connections = 3;
    auto holder = server.client();
    t4mi_client_frame f;
    ASSERT_TRUE(holder->request_frame(1, 0, 0, &f));
    t4test::raw_socket oldest(server.socket_path());
    server.pump();
    usleep(2000);
    t4test::raw_socket newer(server.socket_path());
    server.pump();
    ASSERT_EQ(t4mi_client_contexts.count(), 3u);

    testing::internal::CaptureStderr();
    auto fresh = server.client();
    ASSERT_TRUE(fresh);
    EXPECT_TRUE(fresh->request_frame(2, 0, 0, &f)) << fresh->error();
    EXPECT_TRUE(oldest.closed_by_server(2000, [&] { server.pump(); }));
    EXPECT_FALSE(newer.closed_by_server(20, [&] { server.pump(); }));
    EXPECT_TRUE(holder->request_frame(3, 0, 0, &f)) << holder->error();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("dropped: idle, evicted to make room\n"), std::string::npos) << err;
    EXPECT_EQ(t4mi_client_contexts.count(), 3u);
}

TEST_F(ControlServer, AClientThatSpokeLessThanASecondAgoIsNotEvicted)
{
    comm_socket_v4_server_limits.max_connections = 2;
    auto pump = [&] { server.pump(); };
    std::string json;
    auto quiet = server.client();
    ASSERT_TRUE(quiet->status(&json));
    auto active = server.client();
    ASSERT_TRUE(active->status(&json));
    // Both spoke just now: a newcomer is turned away rather than evict one.
    t4test::raw_socket early(server.socket_path());
    EXPECT_TRUE(early.closed_by_server(2000, pump));
    // Later the quiet one has been idle a second, the active one has not.
    t4mi_clock_set_monotonic_offset_us(1500000);
    ASSERT_TRUE(active->status(&json));
    testing::internal::CaptureStderr();
    t4test::raw_socket late(server.socket_path());
    EXPECT_FALSE(late.closed_by_server(50, pump));
    EXPECT_FALSE(quiet->status(&json));
    EXPECT_TRUE(active->status(&json)) << active->error();
    testing::internal::GetCapturedStderr();
}

TEST_F(ControlServer, APacketUnfinishedForFiveSecondsDropsItsConnectionButSilenceDoesNot)
{
    std::vector<uint8_t> bytes;
    ASSERT_TRUE(comm_socket_v4_packet_encode(command("frame", {{"frame", "3"}}), 0, 77, &bytes));
    t4test::raw_socket silent(server.socket_path());
    t4test::raw_socket halting(server.socket_path());
    halting.write_some(bytes.data(), 7);
    server.pump();
    server.pump();
    t4mi_clock_set_monotonic_offset_us(4900000);
    EXPECT_FALSE(halting.closed_by_server(20, [&] { server.pump(); }));
    testing::internal::CaptureStderr();
    t4mi_clock_set_monotonic_offset_us(5100000);
    EXPECT_TRUE(halting.closed_by_server(2000, [&] { server.pump(); }));
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("dropped: unfinished packet\n"), std::string::npos) << err;
    EXPECT_FALSE(silent.closed_by_server(20, [&] { server.pump(); }));
}

TEST_F(ControlServer, ASlowPacketFinishedInTimeKeepsItsConnection)
{
    std::vector<uint8_t> bytes;
    ASSERT_TRUE(comm_socket_v4_packet_encode(command("status"), 0, 5, &bytes));
    t4test::raw_socket slow(server.socket_path());
    // Two packets, each finished within the limit, the second begun right
    // after the first: the clock starts again with each packet.
    for (int i = 0; i < 2; i++) {
        t4mi_clock_set_monotonic_offset_us(int64_t(i) * 8000000);
        slow.write_some(bytes.data(), 10);
        server.pump();
        t4mi_clock_set_monotonic_offset_us(int64_t(i) * 8000000 + 4000000);
        server.pump();
        slow.write_some(bytes.data() + 10, bytes.size() - 10);
        server.pump();
    }
    t4mi_clock_set_monotonic_offset_us(30000000);
    EXPECT_FALSE(slow.closed_by_server(20, [&] { server.pump(); }));
}

TEST_F(ControlServer, BufferedInputPastTheCapDropsTheConnectionThatBuffersTheMost)
{
    comm_socket_v4_server_limits.max_input_bytes = 1u << 20;
    auto good = server.client();
    // Two clients that begin 2 MiB packets; the bigger part goes first.
    std::vector<uint8_t> header = {'T', '4', 'M', 'P', 0, 0, 0x20, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    const std::vector<uint8_t> body(700u << 10, 0x41);
    t4test::raw_socket big(server.socket_path()), small(server.socket_path());
    int room = 1 << 20;
    setsockopt(big.descriptor(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    setsockopt(small.descriptor(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    big.write_some(header.data(), header.size());
    size_t sent = 0;
    for (int i = 0; i < 200 && sent < body.size(); i++) {
        sent += big.write_some(body.data() + sent, body.size() - sent);
        server.pump();
    }
    ASSERT_EQ(sent, body.size());
    for (int i = 0; i < 20; i++)
        server.pump();
    testing::internal::CaptureStderr();
    small.write_some(header.data(), header.size());
    small.write_some(body.data(), 300u << 10);
    EXPECT_TRUE(big.closed_by_server(2000, [&] { server.pump(); }));
    EXPECT_FALSE(small.closed_by_server(20, [&] { server.pump(); }));
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("dropped: too much buffered input\n"), std::string::npos) << err;
    t4mi_client_frame f;
    EXPECT_TRUE(good->request_frame(1, 0, 0, &f)) << good->error();
}

TEST_F(ControlServer, PacketsAreHandledInTheOrderTheClientSentThem)
{
    auto c = server.client();
    const uint32_t f1 = c->send_frame_request(1);
    const uint32_t s = c->send(command("settings", {{"width", "100"}}));
    const uint32_t f2 = c->send_frame_request(2);
    t4mi_client_frame f;
    t4mi_client_reply r;
    // Waited for out of order: replies are kept by id.
    ASSERT_TRUE(c->receive_frame(f2, &f)) << c->error();
    ASSERT_TRUE(c->wait_reply(s, &r));
    ASSERT_TRUE(c->receive_frame(f1, &f)) << c->error();
    EXPECT_EQ(newest()->widths_rendered, (std::vector<uint32_t>{640, 100}));
}

TEST_F(ControlServer, MorePipelinedPacketsThanThePendingLimitAreAllAnsweredInOrder)
{
    comm_socket_v4_server_limits.max_pending_packets = 2;
    auto c = server.client();
    std::vector<uint32_t> ids;
    for (int i = 0; i < 10; i++)
        ids.push_back(c->send_frame_request(uint64_t(i)));
    for (int i = 0; i < 10; i++) {
        t4mi_client_frame f;
        ASSERT_TRUE(c->receive_frame(ids[size_t(i)], &f)) << c->error();
        EXPECT_EQ(f.y[0], i);
    }
}

TEST_F(ControlServer, ClientActivityMovesTheAutoShutdownDeadlineLater)
{
    auto_shutdown_delay_initial = 10000000;
    mono_auto_shutdown = 1;  // long past
    auto c = server.client();
    const uint64_t after_connect = mono_auto_shutdown;
    EXPECT_GE(after_connect + 100000, monotonic_clock_us() + 10000000);
    // Housekeeping with a client connected moves it too.
    t4mi_clock_set_monotonic_offset_us(3000000);
    t4mi_idle_housekeeping();
    EXPECT_GE(mono_auto_shutdown, after_connect + 3000000);
    // Never earlier.
    t4mi_clock_set_monotonic_offset_us(0);
    const uint64_t later = mono_auto_shutdown;
    std::string json;
    ASSERT_TRUE(c->status(&json));
    EXPECT_EQ(mono_auto_shutdown, later);
    // Without a client nothing moves it.
    c->close();
    server.pump_until([] { return t4mi_client_contexts.count() == 0; });
    t4mi_clock_set_monotonic_offset_us(20000000);
    const uint64_t before = mono_auto_shutdown;
    t4mi_idle_housekeeping();
    EXPECT_EQ(mono_auto_shutdown, before);
}

TEST_F(ControlServer, ANeverDeadlineStaysNever)
{
    auto_shutdown_delay_initial = 10000000;
    mono_auto_shutdown = 0;
    auto c = server.client();
    std::string json;
    ASSERT_TRUE(c->status(&json));
    t4mi_idle_housekeeping();
    EXPECT_EQ(mono_auto_shutdown, 0u);
}

TEST_F(ControlServer, HoldsOlderThanTheAutoDerefDelayAreReleased)
{
    picture_auto_deref_delay = 10000000;
    auto c = server.client();
    t4mi_client_frame f;
    ASSERT_TRUE(c->request_frame(4, 0, 0, &f));
    t4mi_idle_housekeeping();
    EXPECT_EQ(cached(newest()->id, 4)->refcount, 1);
    t4mi_clock_set_monotonic_offset_us(10000001);
    t4mi_idle_housekeeping();
    EXPECT_EQ(cached(newest()->id, 4)->refcount, 0);
    EXPECT_EQ(newest()->outstanding_reference_count(), 0u);
}

TEST_F(ControlServer, TheWaitReturnsWhenAClientWritesAndAtTheDeadlineOtherwise)
{
    auto c = server.client();
    uint64_t t0 = monotonic_clock_us();
    EXPECT_EQ(comm_socket_v4_server_from_client_readable(t4mi_comm_server, t0 + 20000), 0);
    EXPECT_GE(monotonic_clock_us(), t0 + 19000);
    ASSERT_NE(c->send(command("status")), 0u);
    t0 = monotonic_clock_us();
    EXPECT_EQ(comm_socket_v4_server_from_client_readable(t4mi_comm_server, t0 + 2000000), 1);
    EXPECT_LT(monotonic_clock_us(), t0 + 1000000);
}

TEST_F(ControlServer, WithoutAServerTheCallsDoNothing)
{
    comm_socket_v4_server* saved = t4mi_comm_server;
    t4mi_comm_server = nullptr;
    EXPECT_EQ(idle_t4mi_server_comm(), 0);
    EXPECT_EQ(idle_t4mi_client_contexts(), 0);
    t4mi_idle_housekeeping();
    json_check_xmit(monotonic_clock_us());
    const uint64_t t0 = monotonic_clock_us();
    EXPECT_EQ(comm_socket_v4_server_from_client_readable(nullptr, t0 + 10000), 0);
    EXPECT_GE(monotonic_clock_us(), t0 + 9000);
    EXPECT_EQ(comm_socket_v4_reopen_server(nullptr), 0);
    t4mi_comm_server = saved;
}

} // namespace
