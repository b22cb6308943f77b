#include "main/serve_loop.h"

#include <cstdio>

#include "fonts/font_catalogue.h"
#include "frames/client_context.h"
#include "frames/reader.h"
#include "items/item_types.h"
#include "items/rss_download.h"
#include "items/rss_loader.h"
#include "items/scroll_settings.h"
#include "main/file_watch.h"
#include "main/main_globals.h"
#include "main/process.h"
#include "platform/cgroup.h"
#include "platform/client_context.h"
#include "platform/clock.h"
#include "platform/frame_retention.h"
#include "platform/render_ahead.h"
#include "platform/serve.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "text/json_sources.h"

namespace {
constexpr uint64_t WALL_CHECK_INTERVAL_US = 750000;
constexpr int IDLE_PASSES = 64;                  // so a busy client cannot starve the change tests
constexpr uint64_t CGROUP_GRACE_US = 3000000;
constexpr uint64_t IDLE_BUFFER_DROP_US = 5000000;
// Frame memory warmed ahead in idle time goes in pieces this large, so that
// a request arriving meanwhile waits for one piece at most (256 KiB: 64
// pages, a fraction of a millisecond even where faults are dear).
constexpr uint64_t PREWARM_PIECE_BYTES = 256 * 1024;

template <typename F>
void for_each_context(F&& f)
{
    for (const auto& [id, ctx] : t4mi_client_contexts.all())
        if (auto* st = dynamic_cast<scrolling_text_client_context*>(ctx.get()))
            f(*st);
}

void expire_old_frames()
{
    const uint64_t now = monotonic_clock_us();
    const uint64_t keep = picture_flush_deref_delay + picture_auto_deref_delay;
    const uint64_t limit = now > keep ? now - keep : 0;
    for_each_context([&](scrolling_text_client_context& ctx) {
        if (ctx.reader != nullptr)
            ctx.reader->expire_frames(limit);
    });
    t4mi_frame_retention_trim();
}

// At most one change per turn: a feed change waits for the next turn.
void apply_changes()
{
    if (item_file_changed()) {
        std::fprintf(stderr, "Text item changed\n");
        build_font_catalogue();
        reload_item_text();
        for_each_context([](scrolling_text_client_context& ctx) { ctx.text_dirty = true; });
    } else if (rss_feed_changed()) {
        std::fprintf(stderr, "RSS feed changed\n");
        build_font_catalogue();
        load_rss_feed();
        for_each_context([](scrolling_text_client_context& ctx) { ctx.feed_dirty = true; });
    }
}

size_t outstanding_work()
{
    size_t n = 0;
    for (const auto& [id, ctx] : t4mi_client_contexts.all())
        n += ctx->pending_request_count() + ctx->outstanding_reference_count();
    return n;
}
} // namespace

serve_loop_state serve_loop_begin()
{
    serve_loop_state s;
    s.last_active = monotonic_clock_us();
    s.cgroup_deadline = s.last_active + CGROUP_GRACE_US;
    s.wall_last = 0;
    media_item_to_cgroup_active();
    return s;
}

bool serve_loop_turn(serve_loop_state& s)
{
    if (DIE4 != 0)
        return false;
    const uint64_t now = monotonic_clock_us();
    if (mono_auto_shutdown != 0 && mono_auto_shutdown <= now) {
        std::fprintf(stderr, "Auto terminate: %s\n", t4mi_file.c_str());
        return false;
    }
    if (wall_check_at <= now) {
        const int64_t wall = gettimeofday_us();
        wall_check_at = now + WALL_CHECK_INTERVAL_US;
        if (s.wall_last > wall) {
            std::fprintf(stderr, "Wallclock went backwards\n");
            for_each_context([](scrolling_text_client_context& ctx) { ctx.text_dirty = true; });
        }
        s.wall_last = wall;
    }
    json_check_xmit(now);
    // 5 ms unless --idle-wait says otherwise: the timed checks below run at
    // most that late, and an idle process wakes that often.
    const uint64_t wait_until = now + t4mi_input_wait_us;
    // Idle time renders the clients' next frames (--render-ahead), then
    // warms frame memory for the frames to come; input ends either.
    while (DIE4 == 0 && monotonic_clock_us() < wait_until &&
           comm_socket_v4_server_from_client_readable(t4mi_comm_server, 0) == 0 && t4mi_render_ahead_step()) {
    }
    while (DIE4 == 0 && t4mi_frame_retention_prewarm_due() && monotonic_clock_us() < wait_until &&
           comm_socket_v4_server_from_client_readable(t4mi_comm_server, 0) == 0 &&
           t4mi_frame_retention_prewarm(PREWARM_PIECE_BYTES)) {
    }
    comm_socket_v4_server_from_client_readable(t4mi_comm_server, wait_until);
    t4mi_global_access_cache_cleanup_idle(t4mi_acc_cache);

    int client_work = 0;
    // A signal ends the passes at once: the queued requests are dropped, not served.
    for (int pass = 0; pass < IDLE_PASSES && DIE4 == 0; pass++) {
        const int server_work = idle_t4mi_server_comm();
        if (server_work < 0)
            return false;
        client_work = idle_t4mi_client_contexts();
        if (2 * server_work + client_work == 0)
            break;
    }
    if (client_work < 0)
        return false;
    t4mi_idle_housekeeping();
    if (t4mi_client_contexts.count() > 0)
        expire_old_frames();

    if (t4mi_oneshot) {
        std::fprintf(stderr, "Oneshot\n");
        return false;
    }
    if (t4mi_should_exit) {
        std::fprintf(stderr, "Caller requested to exit\n");
        return false;
    }
    apply_changes();

    if (t4mi_client_contexts.count() > 0 && outstanding_work() != 0) {
        s.last_active = now;
        if (s.cgroup_deadline == 0) {
            media_item_to_cgroup_active();
            s.cgroup_deadline = now + CGROUP_GRACE_US;
        }
    } else if (s.cgroup_deadline != 0 && s.cgroup_deadline <= now) {
        media_item_to_cgroup_idle();
        s.cgroup_deadline = 0;
    }
    if (now > s.last_active && now - s.last_active > IDLE_BUFFER_DROP_US) {
        if (image_tnb_buffer_fd >= 0) {
            std::fprintf(stderr, "Idle: dropping TNB buffer\n");
            tnb_alloc_freeall();
            tnb_default_buffer_drop();
        }
        s.last_active = now; // so the test repeats every 5 s of idleness
    }
    check_sources();
    return true;
}

void serve_loop()
{
    serve_loop_state state = serve_loop_begin();
    while (serve_loop_turn(state)) {
    }
}
