// Frames through the control socket in one process: a server with the
// program's contexts and references, and a client that maps the shared
// buffer. The server runs in the client's waits (its idle hook), so the
// figures are one thread doing both sides.
//
//   BM_FrameRoundTrip/cached   the same frame again: protocol and hold only
//   BM_FrameRoundTrip/new      a new frame number each time: render included
//   BM_PipelinedFrames         four requests in flight, new frames
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <unistd.h>

#include "frames/client_context.h"
#include "frames/reader.h"
#include "frames/video_reference.h"
#include "items/scroll_settings.h"
#include "platform/client_context.h"
#include "platform/comm_server.h"
#include "platform/serve.h"
#include "platform/t4mi_client.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"

namespace {

// The server, its shared buffer and one connected 1920 x 108 client.
struct socket_rig {
    socket_rig()
    {
        char tmpl[] = "/tmp/t4mi-bench-XXXXXX";
        dir = mkdtemp(tmpl) ? tmpl : "/tmp";
        path = dir + "/control.sock";
        tnb_total = 256ull << 20;
        t4mi_join_tnb_domain();
        t4mi_acc_cache = t4mi_global_access_cache_create();
        tnb_default_buffer_load();
        scroll_settings.backgroundColor = colour_rgba{0, 0, 128, 200};
        t4mi_client_contexts.set_context_factory(
            [](uint64_t id) -> t4mi_client_context* { return new scrolling_text_client_context(id); });
        t4mi_client_contexts.set_reference_factory([](uint64_t c, uint64_t n, uint32_t v) {
            return static_cast<t4mi_video_frame_reference*>(new scrolling_text_video_reference(c, n, v));
        });
        t4mi_comm_server = comm_socket_v4_server_create(path.c_str());
        client.idle_hook = [] {
            idle_t4mi_server_comm();
            idle_t4mi_client_contexts();
        };
        ok = t4mi_comm_server != nullptr && client.connect(path, 2000);
        t4mi_client_settings s;
        s.width = 1920;
        s.height = 108;
        s.time_scale = 30000;
        s.frame_duration = 1001;
        ok = ok && client.send_settings(s);
    }
    ~socket_rig()
    {
        client.close();
        comm_socket_v4_server_close(t4mi_comm_server);
        t4mi_comm_server = nullptr;
        tnb_alloc_freeall();
        tnb_default_buffer_drop();
        rmdir(dir.c_str());
    }
    std::string dir, path;
    t4mi_client client;
    bool ok = false;
};

void BM_FrameRoundTrip(benchmark::State& state)
{
    socket_rig rig;
    if (!rig.ok) {
        state.SkipWithError("no server");
        return;
    }
    const bool fresh = state.range(0) != 0;
    uint64_t n = 0;
    for (auto _ : state) {
        t4mi_client_frame f;
        if (!rig.client.request_frame(n, 0, 0, &f) || !rig.client.release_frame(n)) {
            state.SkipWithError(rig.client.error().c_str());
            break;
        }
        benchmark::DoNotOptimize(f.y[0]);
        if (fresh) {
            ++n;
            // Unheld frames leave the cache as the serve loop's expiry would.
            if (n % 64 == 0)
                for (const auto& [id, ctx] : t4mi_client_contexts.all())
                    static_cast<scrolling_text_client_context*>(ctx.get())->reader->frame_manager.flush_unused_frames(
                        FLUSH_EVERYTHING);
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_FrameRoundTrip)->ArgName("new")->Arg(0)->Arg(1);

void BM_PipelinedFrames(benchmark::State& state)
{
    socket_rig rig;
    if (!rig.ok) {
        state.SkipWithError("no server");
        return;
    }
    uint64_t n = 0;
    for (auto _ : state) {
        uint32_t ids[4];
        for (uint32_t& id : ids)
            id = rig.client.send_frame_request(n++);
        for (int i = 0; i < 4; i++) {
            t4mi_client_frame f;
            if (!rig.client.receive_frame(ids[i], &f) || !rig.client.release_frame(n - 4 + uint64_t(i))) {
                state.SkipWithError(rig.client.error().c_str());
                return;
            }
        }
        for (const auto& [id, ctx] : t4mi_client_contexts.all())
            static_cast<scrolling_text_client_context*>(ctx.get())->reader->frame_manager.flush_unused_frames(FLUSH_EVERYTHING);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * 4);
}
BENCHMARK(BM_PipelinedFrames);

} // namespace
