// serve_client: one client of a running t4mi_scrolltext for the serving
// benchmarks (bench/serving_bench.py). It connects, sends its picture
// settings, takes one frame to warm up (the server lays the text out on the
// first one), and then asks for frames in one of two ways:
//
//   as fast as the server answers: `--in-flight K` requests outstanding, each
//     frame read and released (the release is not waited for) as it comes;
//   paced (`--paced`): frame k asked for at START + PHASE + k / rate, the
//     frame before released once the new one is read, as a playout system
//     that shows each frame at its time does.
//
// `--preroll N` takes N more frames back to back after the warm-up frame,
// unmeasured, as a playout system cues an item before air; the measured
// frames follow them. Paced, the last one stays held until the start, its
// hold renewed every second.
//
// "Read" is `--touch`: `all` sums every visible byte of the four planes (a
// client that uses the picture), `pages` reads one byte of each page of the
// frame (enough to map it, for many clients on one core), `none`.
//
// Output, one figure a line ("name value..."), for the script to parse:
//   frames N, seconds S (first request to last reply), fps F,
//   first_us T (the warm-up frame's reply time),
//   latency_us P50 P99 MAX (request sent to reply read, measured frames),
//   late N (paced: replies later than one frame period),
//   client_minflt N (this process's minor faults over the measured frames),
//   checksum X,
//   server_measured TICKS FAULTS (with `--server-pid`: the server's CPU clock
//     ticks and minor faults over the measured frames, without the warm-up
//     frame and the preroll).
// `--log PATH` (paced) writes one line a frame: how late the client woke,
// the reply time and the time spent reading the frame.
// Exit status 0 when every frame came, 1 otherwise (the reason on stderr).
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <string>
#include <vector>

#include "platform/t4mi_client.h"

namespace {

struct options {
    std::string socket;
    int32_t width = 1920, height = 1080;
    int64_t rate_num = 30000, rate_den = 1001;
    uint64_t frames = 0;
    double seconds = 0;
    bool paced = false;
    int64_t start_at_us = 0;   // CLOCK_MONOTONIC µs; 0: right after the warm-up frame
    int64_t phase_us = 0;
    size_t in_flight = 4;
    std::string touch = "all";
    std::string log;           // per-request timing log, for finding who is late
    uint64_t preroll = 0;      // frames taken unmeasured after the warm-up frame
    std::string server_pid;    // the server's figures over the measured frames too
};

int64_t now_us()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void sleep_until_us(int64_t t)
{
    const timespec ts{time_t(t / 1000000), long(t % 1000000) * 1000};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

// Minor faults and CPU clock ticks (utime + stime) of a process, from
// /proc/<pid>/stat ("self" for this one); zeros when it cannot be read.
struct proc_counts {
    uint64_t minflt = 0;
    uint64_t ticks = 0;
};

proc_counts read_proc_counts(const std::string& pid)
{
    proc_counts out;
    std::FILE* f = std::fopen(("/proc/" + pid + "/stat").c_str(), "r");
    if (f == nullptr)
        return out;
    char buf[1024];
    const size_t n = std::fread(buf, 1, sizeof buf - 1, f);
    std::fclose(f);
    buf[n] = '\0';
    // Fields 10, 14 and 15, counted after the command name's closing parenthesis.
    const char* p = std::strrchr(buf, ')');
    unsigned long long flt = 0, ut = 0, st = 0;
    if (p == nullptr ||
        std::sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %llu %*u %*u %*u %llu %llu", &flt, &ut, &st) != 3)
        return out;
    out.minflt = flt;
    out.ticks = ut + st;
    return out;
}

uint64_t own_minor_faults() { return read_proc_counts("self").minflt; }

uint64_t sum_plane(const uint8_t* p, uint32_t stride, uint32_t width, uint32_t rows)
{
    uint64_t sum = 0;
    for (uint32_t r = 0; r < rows; r++, p += stride) {
        uint32_t x = 0;
        for (; x + 8 <= width; x += 8) {
            uint64_t v;
            std::memcpy(&v, p + x, 8);
            sum += v;
        }
        for (; x < width; x++)
            sum += p[x];
    }
    return sum;
}

uint64_t touch_frame(const t4mi_client_frame& f, const std::string& how)
{
    if (how == "all")
        return sum_plane(f.y, f.y_stride, f.width, f.height) +
               sum_plane(f.u, f.u_stride, f.chroma_width, f.chroma_height) +
               sum_plane(f.v, f.v_stride, f.chroma_width, f.chroma_height) +
               (f.alpha != nullptr ? sum_plane(f.alpha, f.alpha_stride, f.width, f.height) : 0);
    if (how == "pages") {
        uint64_t sum = 0;
        const uint8_t* base = f.y;  // the allocation starts with the Y plane
        for (uint64_t at = 0; at < f.length; at += 4096)
            sum += base[at];
        return sum;
    }
    return 0;
}

bool parse_pair(const char* text, char sep, int64_t* a, int64_t* b)
{
    char* end = nullptr;
    *a = std::strtoll(text, &end, 10);
    if (end == text || *end != sep)
        return false;
    const char* second = end + 1;
    *b = std::strtoll(second, &end, 10);
    return end != second && *end == '\0' && *a > 0 && *b > 0;
}

bool parse_args(int argc, char** argv, options* o)
{
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        if (a == "--paced") {
            o->paced = true;
            continue;
        }
        if (i + 1 >= argc)
            return false;
        const char* v = argv[++i];
        int64_t x = 0, y = 0;
        if (a == "--socket")
            o->socket = v;
        else if (a == "--size" && parse_pair(v, 'x', &x, &y))
            o->width = int32_t(x), o->height = int32_t(y);
        else if (a == "--rate" && parse_pair(v, '/', &x, &y))
            o->rate_num = x, o->rate_den = y;
        else if (a == "--frames")
            o->frames = std::strtoull(v, nullptr, 10);
        else if (a == "--seconds")
            o->seconds = std::strtod(v, nullptr);
        else if (a == "--start-at-us")
            o->start_at_us = std::strtoll(v, nullptr, 10);
        else if (a == "--phase-us")
            o->phase_us = std::strtoll(v, nullptr, 10);
        else if (a == "--preroll")
            o->preroll = std::strtoull(v, nullptr, 10);
        else if (a == "--server-pid")
            o->server_pid = v;
        else if (a == "--log")
            o->log = v;
        else if (a == "--in-flight")
            o->in_flight = std::max<size_t>(1, std::strtoull(v, nullptr, 10));
        else if (a == "--touch" && (std::strcmp(v, "all") == 0 || std::strcmp(v, "pages") == 0 ||
                                    std::strcmp(v, "none") == 0))
            o->touch = v;
        else
            return false;
    }
    if (o->frames == 0 && o->seconds > 0)
        o->frames = uint64_t(o->seconds * double(o->rate_num) / double(o->rate_den) + 0.5);
    return !o->socket.empty() && o->frames > 0;
}

int64_t percentile(std::vector<int64_t> v, double q)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, size_t(q * double(v.size() - 1) + 0.5));
    return v[i];
}

// Releases whose replies came before reply `upto` (ids rise, replies keep
// the order of the requests) are collected without waiting.
bool collect_releases(t4mi_client& c, std::deque<uint32_t>& releases, uint32_t upto)
{
    while (!releases.empty() && releases.front() < upto) {
        if (!c.receive_release(releases.front()))
            return false;
        releases.pop_front();
    }
    return true;
}

// One paced request as the log shows it, in µs.
struct paced_step {
    int64_t woke_late;  // the request left this long after its time: the client was late, not the server
    int64_t reply;      // request sent to reply read
    int64_t touch;      // reading the frame (and the releases before it)
};

// "k woke_late_us reply_us touch_us", one line a measured frame.
bool write_log(const std::string& path, const std::vector<paced_step>& steps)
{
    std::FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr)
        return false;
    for (size_t k = 0; k < steps.size(); k++)
        std::fprintf(f, "%zu %" PRId64 " %" PRId64 " %" PRId64 "\n", k, steps[k].woke_late, steps[k].reply,
                     steps[k].touch);
    return std::fclose(f) == 0;
}

int fail(const t4mi_client& c, const char* what)
{
    std::fprintf(stderr, "serve_client: %s: %s\n", what, c.error().c_str());
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    options o;
    if (!parse_args(argc, argv, &o)) {
        std::fprintf(stderr,
                     "Usage: serve_client --socket PATH [--size WxH] [--rate N/D] (--frames N | --seconds S)\n"
                     "       [--paced [--start-at-us MONOTONIC_US] [--phase-us US]] [--in-flight K]\n"
                     "       [--touch all|pages|none] [--preroll N] [--server-pid PID] [--log PATH]\n");
        return 2;
    }
    t4mi_client c;
    c.timeout_ms = 30000;
    if (!c.connect(o.socket, 30000))
        return fail(c, "connect");
    t4mi_client_settings s;
    s.width = o.width;
    s.height = o.height;
    s.time_scale = o.rate_num;
    s.frame_duration = o.rate_den;
    if (!c.send_settings(s))
        return fail(c, "settings");

    uint64_t checksum = 0;
    t4mi_client_frame f;
    const int64_t warm0 = now_us();
    if (!c.request_frame(0, 0, 0, &f))
        return fail(c, "first frame");
    const int64_t first_us = now_us() - warm0;
    checksum += touch_frame(f, o.touch);
    if (!c.release_frame(0))
        return fail(c, "release");
    // The preroll: frames taken back to back before the measured ones, as a
    // playout system cues an item before it goes to air. Reading them maps
    // the frame slots the server cycles through into this process.
    // The last one stays held, cued, until the measured frames begin.
    uint64_t cued = 0;
    for (uint64_t n = 1; n <= o.preroll; n++) {
        if (!c.request_frame(n, 0, 0, &f))
            return fail(c, "preroll frame");
        checksum += touch_frame(f, o.touch);
        if (n < o.preroll && !c.release_frame(n))
            return fail(c, "release");
        cued = n;
    }

    std::vector<int64_t> latency;
    latency.reserve(o.frames);
    std::deque<uint32_t> releases;
    std::vector<paced_step> steps;  // --log only
    uint64_t late = 0;
    const int64_t period_us = o.rate_den * 1000000 / o.rate_num;
    const uint64_t faults0 = own_minor_faults();
    const proc_counts server0 = o.server_pid.empty() ? proc_counts{} : read_proc_counts(o.server_pid);
    int64_t t0 = now_us();

    if (o.paced) {
        const int64_t start = (o.start_at_us > 0 ? o.start_at_us : t0) + o.phase_us;
        // The cued frame's hold is renewed every second until then, as a
        // playout system keeps a cued item ready: a hold lapses after 2 s,
        // and a server without held frames drops its frame memory after 5.
        for (int64_t next = now_us() + 1000000; cued != 0 && next < start; next += 1000000) {
            sleep_until_us(next);
            if (!c.request_frame(cued, 0, 0, &f) || !c.release_frame(cued))
                return fail(c, "cued frame");
        }
        sleep_until_us(start);
        t0 = now_us();
        uint64_t held = cued;  // frame number held from the step before (0: none)
        for (uint64_t k = 0; k < o.frames; k++) {
            const uint64_t n = o.preroll + k + 1;
            const int64_t due = start + int64_t(k) * o.rate_den * 1000000 / o.rate_num;
            sleep_until_us(due);
            const int64_t sent = now_us();
            const uint32_t id = c.send_frame_request(n);
            if (id == 0 || !c.receive_frame(id, &f))
                return fail(c, "frame");
            const int64_t replied = now_us();
            const int64_t took = replied - sent;
            latency.push_back(took);
            late += took > period_us ? 1 : 0;
            if (!collect_releases(c, releases, id))
                return fail(c, "release");
            checksum += touch_frame(f, o.touch);
            if (!o.log.empty())
                steps.push_back({sent - due, took, now_us() - replied});
            if (held != 0) {
                releases.push_back(c.send_release(held));
                if (releases.back() == 0)
                    return fail(c, "release");
            }
            held = n;
        }
        if (held != 0 && !c.release_frame(held))
            return fail(c, "release");
    } else {
        if (cued != 0 && !c.release_frame(cued))
            return fail(c, "release");
        std::deque<std::pair<uint64_t, uint32_t>> waiting;
        std::deque<int64_t> sent_at;
        uint64_t sent = 0;
        for (uint64_t done = 0; done < o.frames;) {
            while (sent < o.frames && waiting.size() < o.in_flight) {
                const uint64_t n = o.preroll + 1 + sent++;
                waiting.emplace_back(n, c.send_frame_request(n));
                sent_at.push_back(now_us());
                if (waiting.back().second == 0)
                    return fail(c, "frame request");
            }
            const auto [n, id] = waiting.front();
            waiting.pop_front();
            if (!c.receive_frame(id, &f))
                return fail(c, "frame");
            latency.push_back(now_us() - sent_at.front());
            sent_at.pop_front();
            if (!collect_releases(c, releases, id))
                return fail(c, "release");
            checksum += touch_frame(f, o.touch);
            releases.push_back(c.send_release(n));
            if (releases.back() == 0)
                return fail(c, "release");
            ++done;
        }
    }
    while (!releases.empty()) {
        if (!c.receive_release(releases.front()))
            return fail(c, "release");
        releases.pop_front();
    }
    const int64_t t1 = now_us();
    if (!o.log.empty() && !write_log(o.log, steps)) {
        std::fprintf(stderr, "serve_client: cannot write %s\n", o.log.c_str());
        return 1;
    }
    const uint64_t faults = own_minor_faults() - faults0;
    const proc_counts server1 = o.server_pid.empty() ? proc_counts{} : read_proc_counts(o.server_pid);
    const double secs = double(t1 - t0) / 1e6;
    std::printf("frames %" PRIu64 "\n", o.frames);
    std::printf("seconds %.4f\n", secs);
    std::printf("fps %.1f\n", secs > 0 ? double(o.frames) / secs : 0.0);
    std::printf("first_us %" PRId64 "\n", first_us);
    std::printf("latency_us %" PRId64 " %" PRId64 " %" PRId64 "\n", percentile(latency, 0.5),
                percentile(latency, 0.99), percentile(latency, 1.0));
    std::printf("late %" PRIu64 "\n", late);
    std::printf("client_minflt %" PRIu64 "\n", faults);
    std::printf("checksum %" PRIu64 "\n", checksum);
    if (!o.server_pid.empty())
        std::printf("server_measured %" PRIu64 " %" PRIu64 "\n", server1.ticks - server0.ticks,
                    server1.minflt - server0.minflt);
    c.close();
    return 0;
}
