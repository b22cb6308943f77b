#include "live_render.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>

#include "live_schedule.h"
#include "platform/t4mi_client.h"
#include "render_output.h"

namespace {

volatile sig_atomic_t stop_requested = 0;

void on_stop_signal(int) { stop_requested = 1; }

// Late frames reported at most once a second, so a slow reader does not
// flood the log.
class late_report {
public:
    void note_late(int64_t late_ns)
    {
        ++late;
        if (late_ns > worst_ns)
            worst_ns = late_ns;
    }
    void note_dropped(uint64_t n) { dropped += n; }
    void maybe_print(int64_t now_ns)
    {
        if (now_ns - last_ns < 1000000000 || (late == 0 && dropped == 0))
            return;
        std::fprintf(stderr, "t4mi_render: behind: %llu frames late (up to %.1f ms), %llu dropped\n",
                     static_cast<unsigned long long>(late), double(worst_ns) / 1e6,
                     static_cast<unsigned long long>(dropped));
        late = dropped = 0;
        worst_ns = 0;
        last_ns = now_ns;
    }

private:
    uint64_t late = 0, dropped = 0;
    int64_t worst_ns = 0;
    int64_t last_ns = 0;
};

} // namespace

void live_catch_stop_signals()
{
    struct sigaction sa {};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    // Writes go on after the handler (a frame is never cut); the sleep
    // returns at once. The second signal finds the default action again.
    sa.sa_flags = SA_RESTART | SA_RESETHAND;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

int run_live(const live_settings& s, t4mi_client& client, y4m_writer& out, live_totals* totals)
{
    live_totals t;
    std::string error;
    auto finish = [&](int status) {
        std::string close_error;
        if (!out.close(&close_error) && status == 0 && !t.reader_gone) {
            std::fprintf(stderr, "t4mi_render: %s\n", close_error.c_str());
            status = 1;
        }
        t.stopped = stop_requested != 0;
        *totals = t;
        return status;
    };

    uint64_t k = 0;  // index in the run; the frame number is first_frame + k
    uint32_t id = client.send_frame_request(s.first_frame);
    if (id == 0) {
        std::fprintf(stderr, "t4mi_render: %s\n", client.error().c_str());
        return finish(1);
    }
    t4mi_client_frame f;
    if (!client.receive_frame(id, &f)) {
        std::fprintf(stderr, "t4mi_render: frame %llu: %s\n", static_cast<unsigned long long>(s.first_frame),
                     client.error().c_str());
        return finish(stop_requested ? 0 : 1);
    }
    // Set again when frame 0 has left: the run starts once the reader takes
    // its first frame, so an encoder's start-up makes no frame late.
    live_schedule clock(live_now_ns(), s.rate_num, s.rate_den);
    const int64_t late_after = clock.period_ns() / 2;
    late_report report;
    bool warned_release = false;
    for (;;) {
        // The frame in hand is k: wait for its time, then let it go whole.
        const int64_t due = clock.due_ns(k);
        while (!stop_requested && live_now_ns() < due)
            live_sleep_until(due);
        if (stop_requested)
            break;
        if (!out.write_frame(f, &error) || !out.flush(&error)) {
            if (out.write_errno() == EPIPE) {
                t.reader_gone = true;
                std::fprintf(stderr, "t4mi_render: the reader closed the output\n");
                break;
            }
            std::fprintf(stderr, "t4mi_render: %s\n", error.c_str());
            return finish(1);
        }
        const int64_t left = live_now_ns();
        if (k == 0)
            clock = live_schedule(left, s.rate_num, s.rate_den);
        ++t.written;
        t.seconds = double(left - clock.start_ns()) / 1e9;
        if (k > 0 && left - due > late_after) {
            report.note_late(left - due);
            ++t.late;
            if (left - due > t.worst_late_ns)
                t.worst_late_ns = left - due;
        }
        // The server frees a hold it kept too long; losing one is no reason to stop.
        if (!client.release_frame(f.frame_number) && client.connected() && !warned_release) {
            std::fprintf(stderr, "t4mi_render: %s\n", client.error().c_str());
            warned_release = true;
        }

        uint64_t next = k + 1;
        if (s.drop_late) {
            uint64_t now_index = clock.index_at(live_now_ns());
            if (s.count != 0 && now_index > s.count)
                now_index = s.count;  // past the end: only the run's own frames count as dropped
            if (now_index > next) {
                report.note_dropped(now_index - next);
                t.dropped += now_index - next;
                next = now_index;
            }
        }
        report.maybe_print(left);
        if ((s.count != 0 && next >= s.count) || stop_requested)
            break;
        id = client.send_frame_request(s.first_frame + next);
        if (id == 0 || !client.receive_frame(id, &f)) {
            if (stop_requested)
                break;  // e.g. a terminal's Ctrl-C reached the server too
            std::fprintf(stderr, "t4mi_render: frame %llu: %s\n",
                         static_cast<unsigned long long>(s.first_frame + next), client.error().c_str());
            return finish(1);
        }
        k = next;
    }
    return finish(0);
}
