#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <nlohmann/json.hpp>
#include <string>
#include <unistd.h>

#include "platform/client_context.h"
#include "platform/clock.h"
#include "platform/derived_params.h"
#include "platform/safe_files.h"
#include "platform/t4mi_globals.h"
#include "platform/text_helpers.h"

namespace {
struct status_state {
    int percent = 0;
    std::string text;
    int ready = 0;
    std::string ready_text;
} status;

// The status file this process last put in place, so that the exit removes
// that one only: never the file of another process serving the same item.
struct status_file_owner {
    std::string path;
    pid_t writer = 0;
    dev_t dev = 0;
    ino_t ino = 0;
    bool write_failing = false; // reported once per run of failures
} status_file;

std::string item_json;
nlohmann::json meta_view = nlohmann::json::object();

void remove_status_at_exit() { t4mi_status_remove(); }

void write_status_file()
{
    if (t4mi_file_metadir.empty())
        return;
    const nlohmann::json j = {
        {"pid", int(getpid())},       {"percent", status.percent}, {"status", status.text},
        {"ready", status.ready},      {"ready_text", status.ready_text},
        {"socket", t4mi_sock},
    };
    const std::string path = t4mi_file_metadir + "/status.json";
    struct stat written {};
    if (const int failure = t4mi_replace_file(path, j.dump() + "\n", 0644, false, &written); failure != 0) {
        // The playout side would wait for a readiness it never sees: say why.
        if (!status_file.write_failing)
            std::fprintf(stderr, "WARNING: Cannot write status file '%s': %s\n", path.c_str(),
                         std::strerror(failure));
        status_file.write_failing = true;
        return;
    }
    status_file.write_failing = false;
    static bool exit_hook = false;
    if (!exit_hook)
        exit_hook = std::atexit(remove_status_at_exit) == 0;
    status_file.path = path;
    status_file.writer = getpid();
    status_file.dev = written.st_dev;
    status_file.ino = written.st_ino;
}
} // namespace

void t4mi_status_remove()
{
    if (status_file.writer != getpid())
        return;
    struct stat st {};
    if (lstat(status_file.path.c_str(), &st) == 0 && st.st_dev == status_file.dev && st.st_ino == status_file.ino)
        unlink(status_file.path.c_str());
    status_file.writer = 0;
}

void t4mi_status_write(int percent, const char* text)
{
    status.percent = percent;
    status.text = text ? text : "";
    write_status_file();
}

void t4mi_ready_write(int ready, const char* text)
{
    status.ready = ready;
    status.ready_text = text ? text : "";
    write_status_file();
}

int t4mi_self_test()
{
    const char sample[] = "A\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xff";
    const char* p = sample;
    const char* end = sample + sizeof sample - 1;
    const int32_t expected[] = {'A', 0xE9, 0x20AC, 0x1F600, -1, 0};
    for (int32_t want : expected)
        if (utf8_decode(&p, end) != want)
            return 1;
    const uint64_t a = monotonic_clock_us();
    const uint64_t b = monotonic_clock_us();
    return b < a ? 1 : 0;
}

void init_vel_utils_cpu() {}

void meta_to_json(const metadata_v4_metadata_context* md)
{
    meta_view = nlohmann::json::object();
    if (md == nullptr)
        return;
    meta_view["guid"] = md->guid;
    meta_view["mime_type"] = t4mi_file_type;
}

void item_to_json_common()
{
    meta_view["video_streams"] = t4mi_video_streams;
    meta_view["duration"] = t4mi_time_duration;
    meta_view["time_scale"] = {t4mi_time_scale.num, t4mi_time_scale.den};
    meta_view["file"] = t4mi_file;
}

void rebuild_json()
{
    nlohmann::json j = meta_view;
    j["clients"] = t4mi_client_contexts.count();
    item_json = j.dump();
}

const char* t4mi_item_json() { return item_json.c_str(); }
