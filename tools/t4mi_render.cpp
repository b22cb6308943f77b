// t4mi_render: renders frames of a scrolling-text item through its control
// socket into a Y4M video with alpha, and optionally PNG frames and a
// contact sheet.
//
// It either connects to a server that already runs (--socket), or starts
// one for an item file (--item) with a private metadata directory, waits
// until the server reports ready, and stops it at the end.
//
// With --live it paces the frames against the clock instead of rendering as
// fast as it can (live_render.h).
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "live_render.h"
#include "platform/args.h"
#include "platform/t4mi_client.h"
#include "render_output.h"

namespace fs = std::filesystem;

namespace {

const char* const usage =
    "Usage: t4mi_render (--socket PATH | --item FILE [--type MIME] [--server BIN]) [options]\n"
    "  --socket PATH       control socket of a running t4mi_scrolltext\n"
    "  --item FILE         start a server for this item file (private metadata directory)\n"
    "  --type MIME         the item's type, passed to the server (needed for text/plain)\n"
    "  --server BIN        the server program (default: t4mi_scrolltext beside this tool, or on PATH)\n"
    "  --metadir DIR       with --item: the server's metadata directory (its control socket is\n"
    "                      found there, e.g. by t4mi_control --metadir DIR)\n"
    "  --out FILE          Y4M output with alpha (yuva444p); \"-\" for standard output\n"
    "  --size WxH          picture size (default 1920x1080)\n"
    "  --rate NUM/DEN      frames per second (default 30000/1001)\n"
    "  --fields            interlaced: the rate counts fields\n"
    "  --aspect NUM:DEN    screen aspect, e.g. 16:9 (default: square pixels)\n"
    "  --start N           first frame number (default 0)\n"
    "  --frames COUNT      frames to render (default: 10 seconds' worth)\n"
    "  --seconds S         the same, in seconds\n"
    "  --png-dir DIR       also write frames as PNG (frame_<number>.png)\n"
    "  --png-every K       only every K-th frame as PNG (default 1)\n"
    "  --sheet FILE        contact sheet PNG of evenly spaced frames\n"
    "  --sheet-count N     frames on the contact sheet (default 12)\n"
    "  --timeout SECONDS   bound on every wait for the server (default 30)\n"
    "  --live              pace frames at the rate against the clock; runs until SIGINT/SIGTERM\n"
    "                      unless --frames or --seconds is given; needs --out\n"
    "  --drop-late         with --live: skip frames whose time has passed rather than fall behind\n"
    "  --frame-tags        name each frame's number in its Y4M frame header (FRAME XFRAME=N),\n"
    "                      for readers of their own; FFmpeg cannot seek in such a file\n"
    "  --version           print the version and exit\n";

struct options {
    std::string socket, item, type, server, metadir, out, png_dir, sheet;
    uint32_t width = 1920, height = 1080;
    int64_t rate_num = 30000, rate_den = 1001;
    bool fields = false;
    bool live = false, drop_late = false, frame_tags = false;
    bool length_given = false;  // --frames or --seconds
    int64_t aspect_num = 0, aspect_den = 0;
    uint64_t start = 0;
    uint64_t frames = 0;
    double seconds = 10.0;
    uint64_t png_every = 1;
    uint32_t sheet_count = 12;
    int timeout_s = 30;
};

bool parse_pair(const char* text, char sep, int64_t* a, int64_t* b)
{
    char* end = nullptr;
    errno = 0;
    *a = std::strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != sep)
        return false;
    const char* second = end + 1;
    *b = std::strtoll(second, &end, 10);
    return errno == 0 && end != second && *end == '\0' && *a > 0 && *b > 0;
}

bool parse_count(const char* text, uint64_t* out)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || text[0] == '-')
        return false;
    *out = v;
    return true;
}

// Returns -1 to go on, else the exit status.
int parse_args(int argc, char** argv, options* o)
{
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        const char* v = nullptr;
        int64_t x = 0, y = 0;
        uint64_t n = 0;
        if (a == "-h" || a == "--help") {
            std::fputs(usage, stdout);
            return 0;
        } else if (a == "--version") {
            t4mi_print_version("t4mi_render");
            return 0;
        } else if (a == "--fields" || a == "--live" || a == "--drop-late" || a == "--frame-tags") {
            (a == "--fields" ? o->fields : a == "--live" ? o->live : a == "--drop-late" ? o->drop_late : o->frame_tags) =
                true;
            continue;
        } else if ((v = value()) == nullptr) {
            std::fprintf(stderr, "t4mi_render: %s needs a value\n%s", a.c_str(), usage);
            return 2;
        }
        bool ok = true;
        if (a == "--socket")
            o->socket = v;
        else if (a == "--item")
            o->item = v;
        else if (a == "--type")
            o->type = v;
        else if (a == "--server")
            o->server = v;
        else if (a == "--metadir")
            o->metadir = v;
        else if (a == "--out")
            o->out = v;
        else if (a == "--png-dir")
            o->png_dir = v;
        else if (a == "--sheet")
            o->sheet = v;
        else if (a == "--size")
            ok = parse_pair(v, 'x', &x, &y) && x <= 4096 && y <= 4096 && (o->width = uint32_t(x), o->height = uint32_t(y), true);
        else if (a == "--rate")
            ok = parse_pair(v, '/', &o->rate_num, &o->rate_den) && o->rate_num <= UINT32_MAX && o->rate_den <= UINT32_MAX;
        else if (a == "--aspect")
            ok = parse_pair(v, ':', &o->aspect_num, &o->aspect_den) && o->aspect_num <= 65535 && o->aspect_den <= 65535;
        else if (a == "--start")
            ok = parse_count(v, &o->start) && o->start <= uint64_t(INT64_MAX);
        else if (a == "--frames")
            ok = parse_count(v, &o->frames) && o->frames > 0 && (o->length_given = true);
        else if (a == "--seconds")
            ok = (o->seconds = std::strtod(v, nullptr)) > 0.0 && o->seconds < 1e7 && (o->length_given = true);
        else if (a == "--png-every")
            ok = parse_count(v, &o->png_every) && o->png_every > 0;
        else if (a == "--sheet-count")
            ok = parse_count(v, &n) && n > 0 && n <= 1000 && (o->sheet_count = uint32_t(n), true);
        else if (a == "--timeout")
            ok = parse_count(v, &n) && n > 0 && n < 86400 && (o->timeout_s = int(n), true);
        else {
            std::fprintf(stderr, "t4mi_render: unknown option %s\n%s", a.c_str(), usage);
            return 2;
        }
        if (!ok) {
            std::fprintf(stderr, "t4mi_render: bad value for %s: %s\n", a.c_str(), v);
            return 2;
        }
    }
    if (o->socket.empty() == o->item.empty()) {
        std::fprintf(stderr, "t4mi_render: give exactly one of --socket and --item\n%s", usage);
        return 2;
    }
    if (!o->metadir.empty() && o->item.empty()) {
        std::fprintf(stderr, "t4mi_render: --metadir goes with --item\n");
        return 2;
    }
    if (o->drop_late && !o->live) {
        std::fprintf(stderr, "t4mi_render: --drop-late goes with --live\n");
        return 2;
    }
    if (o->live && (o->out.empty() || !o->png_dir.empty() || !o->sheet.empty())) {
        std::fprintf(stderr, "t4mi_render: --live writes a video only: give --out, without --png-dir or --sheet\n");
        return 2;
    }
    if (o->out.empty() && o->png_dir.empty() && o->sheet.empty()) {
        std::fprintf(stderr, "t4mi_render: nothing to write: give --out, --png-dir or --sheet\n");
        return 2;
    }
    return -1;
}

std::string find_server(const std::string& given)
{
    if (!given.empty())
        return given;
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (!ec)
        for (const fs::path& dir : {self.parent_path(), self.parent_path().parent_path()})
            if (fs::exists(dir / "t4mi_scrolltext"))
                return (dir / "t4mi_scrolltext").string();
    return "t4mi_scrolltext";  // from PATH
}

// A server this tool started, stopped (and its private directory removed)
// when the tool is done.
class private_server {
public:
    ~private_server() { stop(); }

    bool start(const options& o, std::string* socket_path)
    {
        char tmpl[] = "/tmp/t4mi-render-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            std::fprintf(stderr, "t4mi_render: cannot make a directory in /tmp: %s\n", std::strerror(errno));
            return false;
        }
        dir = tmpl;
        log = dir + "/server.log";
        const std::string binary = find_server(o.server);
        meta = o.metadir.empty() ? dir + "/meta" : fs::absolute(o.metadir).string();
        std::vector<std::string> args = {binary, "--file", fs::absolute(o.item).string(), "--metadir", meta};
        if (!o.type.empty()) {
            args.push_back("--type");
            args.push_back(o.type);
        }
        pid = fork();
        if (pid == 0) {
            std::FILE* f = std::freopen(log.c_str(), "w", stderr);
            (void)f;
            std::FILE* in = std::freopen("/dev/null", "r", stdin);
            (void)in;
            dup2(STDERR_FILENO, STDOUT_FILENO);
            std::vector<char*> argv;
            for (auto& s : args)
                argv.push_back(s.data());
            argv.push_back(nullptr);
            execvp(argv[0], argv.data());
            std::fprintf(stderr, "cannot run %s: %s\n", argv[0], std::strerror(errno));
            _exit(127);
        }
        if (pid < 0) {
            std::fprintf(stderr, "t4mi_render: fork: %s\n", std::strerror(errno));
            return false;
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(o.timeout_s);
        while (std::chrono::steady_clock::now() < deadline) {
            if (t4mi_client_read_ready(meta, socket_path))
                return true;
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                std::fprintf(stderr, "t4mi_render: the server ended before it was ready; its log (%s):\n%s",
                             log.c_str(), read_log().c_str());
                keep_dir = true;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::fprintf(stderr, "t4mi_render: the server did not become ready within %d s (log: %s)\n", o.timeout_s,
                     log.c_str());
        keep_dir = true;
        return false;
    }

    void stop()
    {
        if (pid > 0) {
            kill(pid, SIGTERM);
            int status = 0;
            for (int i = 0; i < 1000 && waitpid(pid, &status, WNOHANG) == 0; i++)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            if (waitpid(pid, &status, WNOHANG) == 0) {
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                keep_dir = true;
            }
            pid = -1;
        }
        if (!dir.empty() && !keep_dir) {
            std::error_code ec;
            fs::remove_all(dir, ec);
        }
        dir.clear();
    }

private:
    std::string read_log() const
    {
        std::string text;
        if (std::FILE* f = std::fopen(log.c_str(), "r")) {
            char buf[4096];
            size_t n;
            while ((n = std::fread(buf, 1, sizeof buf, f)) > 0)
                text.append(buf, n);
            std::fclose(f);
        }
        return text;
    }

    pid_t pid = -1;
    std::string dir, log, meta;
    bool keep_dir = false;
};

void progress(uint64_t done, uint64_t total, double elapsed)
{
    const int width = 40;
    const int filled = total ? int(done * width / total) : width;
    std::fprintf(stderr, "\r[%.*s%*s] %llu/%llu frames, %.1f frames/s ", filled,
                 "########################################", width - filled, "", static_cast<unsigned long long>(done),
                 static_cast<unsigned long long>(total), elapsed > 0 ? double(done) / elapsed : 0.0);
    std::fflush(stderr);
}

int render_live(const options& o, t4mi_client& client, y4m_writer& y4m, int64_t rate_num, int64_t rate_den,
                uint64_t count)
{
    live_settings s;
    s.first_frame = o.start;
    s.count = count;
    s.rate_num = rate_num;
    s.rate_den = rate_den;
    s.drop_late = o.drop_late;
    live_totals t;
    const int status = run_live(s, client, y4m, &t);
    std::fprintf(stderr,
                 "t4mi_render: live: %llu frames of %ux%u in %.2f s at %.3f frames/s; %llu late (up to %.1f ms), "
                 "%llu dropped%s\n",
                 static_cast<unsigned long long>(t.written), o.width, o.height, t.seconds,
                 double(rate_num) / double(rate_den), static_cast<unsigned long long>(t.late),
                 double(t.worst_late_ns) / 1e6, static_cast<unsigned long long>(t.dropped),
                 t.stopped ? "; stopped by a signal" : "");
    return status;
}

uint64_t gcd(uint64_t a, uint64_t b) { return b == 0 ? a : gcd(b, a % b); }

int render(const options& o, t4mi_client& client)
{
    t4mi_client_settings s;
    s.width = int32_t(o.width);
    s.height = int32_t(o.height);
    s.time_scale = o.rate_num;
    s.frame_duration = o.rate_den;
    s.field_rate = o.fields ? 1 : 0;
    s.aspect_num = o.aspect_num;
    s.aspect_den = o.aspect_den;
    t4mi_client_reply reply;
    if (!client.send_settings(s, &reply)) {
        std::fprintf(stderr, "t4mi_render: %s\n", client.error().c_str());
        return 1;
    }
    // The context's timing, as the server took it (a field rate doubles it).
    const int64_t ts = std::atoll(reply.entry("time_scale").c_str());
    const int64_t fd = std::atoll(reply.entry("frame_duration").c_str());
    const int64_t rate_num = ts > 0 ? ts : o.rate_num, rate_den = fd > 0 ? fd : o.rate_den;
    const uint64_t count =
        o.frames ? o.frames : std::max<uint64_t>(1, uint64_t(o.seconds * double(rate_num) / double(rate_den) + 0.5));

    uint32_t par_num = 0, par_den = 0;  // pixel aspect from the screen aspect
    if (o.aspect_num > 0 && o.aspect_den > 0) {
        const uint64_t n = uint64_t(o.aspect_num) * o.height, d = uint64_t(o.aspect_den) * o.width, g = gcd(n, d);
        par_num = uint32_t(n / g);
        par_den = uint32_t(d / g);
    }
    std::string error;
    y4m_writer y4m;
    if (!o.out.empty() && !y4m.open(o.out, o.width, o.height, rate_num, rate_den, par_num, par_den, &error)) {
        std::fprintf(stderr, "t4mi_render: %s\n", error.c_str());
        return 1;
    }
    if (o.frame_tags)
        y4m.tag_frames();
    if (o.live)
        return render_live(o, client, y4m, rate_num, rate_den, o.length_given ? count : 0);
    if (!o.png_dir.empty()) {
        std::error_code ec;
        fs::create_directories(o.png_dir, ec);
    }
    const uint32_t sheet_n = uint32_t(std::min<uint64_t>(o.sheet_count, count));
    contact_sheet sheet(o.width, o.height, o.sheet.empty() ? 1 : sheet_n);
    uint32_t next_sheet = 0;

    const bool tty = isatty(STDERR_FILENO);
    const auto t0 = std::chrono::steady_clock::now();
    auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(); };
    // A few requests in flight keep the server busy while this side writes.
    constexpr size_t in_flight = 4;
    std::deque<std::pair<uint64_t, uint32_t>> waiting;
    uint64_t sent = 0, done = 0;
    while (done < count) {
        while (sent < count && waiting.size() < in_flight) {
            const uint64_t n = o.start + sent++;
            const uint32_t id = client.send_frame_request(n);
            if (id == 0) {
                std::fprintf(stderr, "\nt4mi_render: %s\n", client.error().c_str());
                return 1;
            }
            waiting.emplace_back(n, id);
        }
        const auto [n, id] = waiting.front();
        waiting.pop_front();
        t4mi_client_frame f;
        if (!client.receive_frame(id, &f)) {
            std::fprintf(stderr, "\nt4mi_render: frame %llu: %s\n", static_cast<unsigned long long>(n),
                         client.error().c_str());
            return 1;
        }
        const uint64_t index = n - o.start;
        bool ok = o.out.empty() || y4m.write_frame(f, &error);
        if (ok && !o.png_dir.empty() && index % o.png_every == 0)
            ok = write_frame_png(o.png_dir + "/frame_" + std::to_string(n) + ".png", f, &error);
        if (ok && !o.sheet.empty() && next_sheet < sheet_n && index == next_sheet * count / sheet_n)
            sheet.add(next_sheet++, f);
        if (!ok) {
            std::fprintf(stderr, "\nt4mi_render: %s\n", error.c_str());
            return 1;
        }
        if (!client.release_frame(n)) {
            std::fprintf(stderr, "\nt4mi_render: %s\n", client.error().c_str());
            return 1;
        }
        ++done;
        if (tty && (done % 10 == 0 || done == count))
            progress(done, count, elapsed());
    }
    const double secs = elapsed();
    if (tty)
        std::fputc('\n', stderr);
    if (!y4m.close(&error) || (!o.sheet.empty() && !sheet.write(o.sheet, &error))) {
        std::fprintf(stderr, "t4mi_render: %s\n", error.c_str());
        return 1;
    }
    std::fprintf(stderr, "t4mi_render: %llu frames of %ux%u in %.2f s: %.1f frames/s\n",
                 static_cast<unsigned long long>(done), o.width, o.height, secs, secs > 0 ? double(done) / secs : 0.0);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    options o;
    if (const int status = parse_args(argc, argv, &o); status >= 0)
        return status;
    std::signal(SIGPIPE, SIG_IGN);
    private_server server;
    std::string socket_path = o.socket;
    if (!o.item.empty() && !server.start(o, &socket_path))
        return 1;
    t4mi_client client;
    client.timeout_ms = o.timeout_s * 1000;
    if (!client.connect(socket_path, o.timeout_s * 1000)) {
        std::fprintf(stderr, "t4mi_render: %s\n", client.error().c_str());
        return 1;
    }
    if (o.live) {
        // Text changes reach the frames through this socket (t4mi_control --socket).
        std::fprintf(stderr, "t4mi_render: live; control socket %s\n", socket_path.c_str());
        live_catch_stop_signals();
    }
    const int status = render(o, client);
    client.close();
    server.stop();
    return status;
}
