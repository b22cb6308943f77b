// A small stand-in for the serve loop, linked only into the test binary
// t4mi_scrolltext_minimal_loop (tests/CMakeLists.txt, "minimal"), so that
// the process-level serving tests can run before the real loop is in the
// program. It keeps the turn order of the real loop where the tests look:
// signal check, auto-shutdown, status pushes, a 5 ms wait, up to 64 idle
// passes, housekeeping, frame expiry, one-shot and exit requests, and the
// item-file reload. No wall-clock check, control groups, buffer drop, feed
// or weather polls.
#include <cstdio>

#include "fonts/font_catalogue.h"
#include "frames/client_context.h"
#include "frames/reader.h"
#include "items/rss_loader.h"
#include "items/scroll_settings.h"
#include "main/file_watch.h"
#include "main/main_globals.h"
#include "main/process.h"
#include "platform/clock.h"
#include "platform/serve.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"

void serve_loop()
{
    for (;;) {
        if (DIE4 != 0)
            break;
        const uint64_t now = monotonic_clock_us();
        if (mono_auto_shutdown != 0 && mono_auto_shutdown <= now) {
            std::fprintf(stderr, "Auto terminate: %s\n", t4mi_file.c_str());
            break;
        }
        json_check_xmit(now);
        comm_socket_v4_server_from_client_readable(t4mi_comm_server, now + 5000);
        t4mi_global_access_cache_cleanup_idle(t4mi_acc_cache);
        int server = 0, clients = 0;
        for (int i = 0; i < 64; i++) {
            server = idle_t4mi_server_comm();
            if (server < 0)
                break;
            clients = idle_t4mi_client_contexts();
            if (2 * server + clients == 0)
                break;
        }
        if (server < 0 || clients < 0)
            break;
        t4mi_idle_housekeeping();
        const uint64_t t = monotonic_clock_us();
        const uint64_t keep = picture_flush_deref_delay + picture_auto_deref_delay;
        for (const auto& [id, base] : t4mi_client_contexts.all()) {
            auto* ctx = dynamic_cast<scrolling_text_client_context*>(base.get());
            if (ctx != nullptr && ctx->reader != nullptr && t > keep)
                ctx->reader->expire_frames(t - keep);
        }
        if (t4mi_oneshot) {
            std::fprintf(stderr, "Oneshot\n");
            break;
        }
        if (t4mi_should_exit) {
            std::fprintf(stderr, "Caller requested to exit\n");
            break;
        }
        if (item_file_changed()) {
            std::fprintf(stderr, "Text item changed\n");
            build_font_catalogue();
            if (t4mi_file_type == "application/x-tevrin-rss-feed")
                load_rss_feed();
            else
                load_message();
            for (const auto& [id, base] : t4mi_client_contexts.all())
                if (auto* ctx = dynamic_cast<scrolling_text_client_context*>(base.get()))
                    ctx->text_dirty = true;
        }
    }
}
