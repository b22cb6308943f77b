// The soak run (bench/soak.sh): a well-behaved client against hostile ones,
// for as long as asked, against a fresh server.
//
//   soak_client [--seconds N] [--size WxH] [--rate FPS] [--quiet]
//
// The well-behaved client asks for frames at a steady rate, checks every one
// against the same frame rendered in this process, byte for byte, and
// releases it. Meanwhile another thread opens hostile connections without
// pause: malformed streams, half-sent packets, silent connections, floods
// that never read, oversize "data" and "v4::text" packets, packets that
// never finish (input memory), data packets at the limit, connect/close
// storms. At the end: frames checked, lost (a request that failed) and wrong,
// reply times (p50, p99, max), what the hostile side did, and the server's
// peak memory and drop lines. Exit status 0 when nothing was lost or wrong
// and the server lived and stopped in order.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "main/control_packets.h"
#include "platform/comm_server.h"
#include "support/hostile_clients.h"
#include "support/local_render.h"
#include "support/program_env.h"
#include "support/serving_env.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr const char* ITEM = "#Tevrin4ScrollText\n"
                             "#-backgroundColor=102040\n"
                             "#-backgroundOpacity=0.8\n"
                             "#-scrollSpeed=1\n"
                             "#-multiLine=1\n"
                             "Soak run: every frame is checked against the renderer, byte for byte\n";

struct options {
    double seconds = 60;
    int32_t width = 1920, height = 108;
    double rate = 29.97;
    bool quiet = false;
};

bool parse(int argc, char** argv, options* o)
{
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        if (a == "--seconds" && v)
            o->seconds = std::atof(argv[++i]);
        else if (a == "--size" && v && std::sscanf(argv[++i], "%dx%d", &o->width, &o->height) == 2)
            continue;
        else if (a == "--rate" && v)
            o->rate = std::atof(argv[++i]);
        else if (a == "--quiet")
            o->quiet = true;
        else
            return false;
    }
    return o->seconds > 0 && o->rate > 0 && o->width > 0 && o->height > 0;
}

double ms_between(clock_type::time_point a, clock_type::time_point b)
{
    return std::chrono::duration<double, std::milli>(b - a).count();
}

// The hostile side: one kind of attack per round, round after round.
class hostile_side {
public:
    explicit hostile_side(std::string socket) : path(std::move(socket)) {}

    void run(const std::atomic<bool>& stop)
    {
        std::mt19937 rng(20240611);
        const size_t data_limit = comm_socket_v4_limits{}.max_data_bytes;
        for (uint64_t round = 0; !stop; round++) {
            switch (round % 8) {
            case 0:
                for (auto& h : t4test::malformed_round(path, rng))
                    keep(std::move(h.socket));
                count("malformed", 20);
                break;
            case 1:
                for (int i = 0; i < 4; i++)
                    keep(t4test::unfinished_packet(path, 1 + rng() % 15));
                count("half header", 4);
                break;
            case 2:
                for (int i = 0; i < 4; i++)
                    keep(t4test::silent_connection(path));
                count("silent", 4);
                break;
            case 3:
                if (round % 64 == 3) {  // a flood now and then; each holds 128 frames until dropped
                    floods.push_back(t4test::never_reading_flood(path));
                    if (floods.size() > 2)
                        floods.pop_front();
                    count("never-reading flood", 1);
                }
                break;
            case 4:
                send_and_keep(t4test::data_packet_of(data_limit + 1));
                send_and_keep(t4test::text_packet_of(MAX_TEXT_ENTRY_BYTES + 1));
                count("oversize data/text", 2);
                break;
            case 5:
                if (round % 32 == 5) {
                    big.push_back(t4test::big_unfinished_packet(path, 1u << 20));
                    if (big.size() > 8)
                        big.pop_front();
                    count("big unfinished packet", 1);
                }
                for (auto& s : big)
                    t4test::send_more(*s, 1u << 20);
                break;
            case 6:
                t4test::connect_storm(path, 50);
                count("connect/close", 50);
                break;
            case 7:
                if (round % 32 == 7) {
                    send_and_keep(t4test::data_packet_of(data_limit));
                    count("data at the limit", 1);
                }
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        lingering.clear();
        floods.clear();
        big.clear();
    }

    std::map<std::string, uint64_t> opened;

private:
    void keep(std::unique_ptr<t4test::raw_socket> s)
    {
        lingering.push_back(std::move(s));
        while (lingering.size() > 96)  // this process's descriptors
            lingering.pop_front();
    }
    void send_and_keep(const std::vector<uint8_t>& packet)
    {
        auto s = std::make_unique<t4test::raw_socket>(path);
        s->write_some(packet.data(), packet.size());
        keep(std::move(s));
    }
    void count(const char* kind, uint64_t n) { opened[kind] += n; }

    std::string path;
    std::deque<std::unique_ptr<t4test::raw_socket>> lingering, floods, big;
};

size_t count_of(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

} // namespace

int main(int argc, char** argv)
{
    options o;
    if (!parse(argc, argv, &o)) {
        std::fprintf(stderr, "usage: soak_client [--seconds N] [--size WxH] [--rate FPS] [--quiet]\n");
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    t4test::program_fonts fonts;
    if (!fonts.ready()) {
        std::fprintf(stderr, "soak: the built-in faces cannot be opened\n");
        return 1;
    }
    t4test::temp_dir dir;
    const std::string item_path = dir / "soak.txt";
    t4test::write_file(item_path, ITEM);
    t4test::serving_process server(t4test::scrolltext_binary(), {"--file", item_path, "--metadir", dir / "meta"},
                                   fonts.env());
    if (!server.wait_ready(dir / "meta")) {
        std::fprintf(stderr, "soak: the server did not get ready\n%s", server.err().c_str());
        return 1;
    }
    const t4mi_client_settings settings = t4test::picture_settings(o.width, o.height);
    t4test::local_renderer reference(ITEM, "application/x-tevrin-scrolling-text", settings);

    auto connect = [&] {
        auto c = std::make_unique<t4mi_client>();
        c->timeout_ms = 5000;
        if (!c->connect(server.socket_path(), 5000) || !c->send_settings(settings))
            return std::unique_ptr<t4mi_client>();
        return c;
    };
    auto good = connect();
    if (!good) {
        std::fprintf(stderr, "soak: cannot connect\n");
        return 1;
    }

    std::atomic<bool> stop{false};
    hostile_side hostile(server.socket_path());
    std::thread attacker([&] { hostile.run(stop); });

    uint64_t checked = 0, lost = 0, wrong = 0, reconnects = 0;
    std::vector<double> replies;  // ms
    const auto begin = clock_type::now();
    const auto period = std::chrono::duration<double>(1.0 / o.rate);
    auto next_tick = begin;
    auto last_report = begin;
    for (uint64_t n = 0; std::chrono::duration<double>(clock_type::now() - begin).count() < o.seconds; n++) {
        next_tick += std::chrono::duration_cast<clock_type::duration>(period);
        std::this_thread::sleep_until(next_tick);
        if (!good) {
            good = connect();
            ++reconnects;
            if (!good) {
                ++lost;
                continue;
            }
        }
        const auto t0 = clock_type::now();
        t4mi_client_frame f;
        if (!good->request_frame(n, 0, 0, &f)) {
            std::fprintf(stderr, "soak: frame %llu lost: %s\n", static_cast<unsigned long long>(n),
                         good->error().c_str());
            ++lost;
            good.reset();
            continue;
        }
        replies.push_back(ms_between(t0, clock_type::now()));
        const std::string diff = t4test::first_difference(t4test::copy_planes(f), reference.frame(n));
        reference.forget_frames();
        if (!diff.empty()) {
            std::fprintf(stderr, "soak: frame %llu wrong: %s\n", static_cast<unsigned long long>(n), diff.c_str());
            ++wrong;
        }
        ++checked;
        if (!good->release_frame(n)) {
            std::fprintf(stderr, "soak: release %llu: %s\n", static_cast<unsigned long long>(n), good->error().c_str());
            good.reset();
        }
        if (!o.quiet && std::chrono::duration<double>(clock_type::now() - last_report).count() >= 60) {
            last_report = clock_type::now();
            std::printf("soak: %.0f s, %llu frames checked, %llu lost, %llu wrong\n",
                        std::chrono::duration<double>(last_report - begin).count(),
                        static_cast<unsigned long long>(checked), static_cast<unsigned long long>(lost),
                        static_cast<unsigned long long>(wrong));
            std::fflush(stdout);
        }
    }
    stop = true;
    attacker.join();

    const bool alive = server.running();
    const long peak_kib = server.status_kib("VmHWM");
    const double cpu = server.cpu_seconds();
    good.reset();
    int status = -2;
    const bool stopped = server.stop(SIGTERM, 5000, &status);
    const std::string err = server.err();

    std::sort(replies.begin(), replies.end());
    auto pct = [&](double p) { return replies.empty() ? 0.0 : replies[size_t(p * double(replies.size() - 1))]; };
    const double elapsed = std::chrono::duration<double>(clock_type::now() - begin).count();
    std::printf("soak: %.0f s at %dx%d, %.2f frames/s asked\n", elapsed, o.width, o.height, o.rate);
    std::printf("frames checked %llu, lost %llu, wrong %llu, reconnects %llu\n",
                static_cast<unsigned long long>(checked), static_cast<unsigned long long>(lost),
                static_cast<unsigned long long>(wrong), static_cast<unsigned long long>(reconnects));
    std::printf("reply ms: p50 %.2f, p99 %.2f, max %.2f\n", pct(0.5), pct(0.99), replies.empty() ? 0.0 : replies.back());
    std::printf("hostile connections:");
    for (const auto& [kind, n] : hostile.opened)
        std::printf(" %s %llu;", kind.c_str(), static_cast<unsigned long long>(n));
    std::printf("\nserver: %s, peak memory %ld KiB, %.1f CPU s; dropped: malformed %zu, not reading %zu, "
                "unfinished %zu, too much input %zu, evicted %zu; stopped %s (status %d)\n",
                alive ? "alive" : "DEAD", peak_kib, cpu, count_of(err, "dropped: malformed packet"),
                count_of(err, "dropped: not reading its replies"), count_of(err, "dropped: unfinished packet"),
                count_of(err, "dropped: too much buffered input"), count_of(err, "dropped: idle, evicted"),
                stopped ? "in order" : "NOT", status);
    const bool ok = lost == 0 && wrong == 0 && alive && stopped && status == 0;
    if (!ok)
        std::fprintf(stderr, "%s", err.substr(err.size() > 4000 ? err.size() - 4000 : 0).c_str());
    return ok ? 0 : 1;
}
