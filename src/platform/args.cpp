#include "platform/args.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/t4mi_globals.h"

#include <t4mi/version.h>

namespace {
std::vector<const char*> arguments;
size_t next_index = 0;

enum class kind { flag, text, seconds, milliseconds, mebibytes, version };

struct standard_switch {
    const char* name;
    kind type;
    const char* value_name;
    const char* help;
    void* target;
    int flag_value;
};

// The one table of standard switches: parsing and help both read it.
const standard_switch switches[] = {
    {"file", kind::text, "PATH", "item file to serve (required)", &t4mi_file, 0},
    {"type", kind::text, "MIME", "item MIME type; skips identification (needed for text/plain items)", &t4mi_file_type, 0},
    {"metadir", kind::text, "DIR", "metadata directory (default: .<item name>.t4mi beside the item)", &t4mi_file_metadir, 0},
    {"socket", kind::text, "PATH", "control socket path (default: <metadir>/control.sock)", &t4mi_sock, 0},
    {"identify", kind::flag, nullptr, "identify the item, write its metadata and exit", &t4mi_identify_only, 1},
    {"daemon", kind::flag, nullptr, "detach into the background before serving", &t4mi_daemon, 1},
    {"log", kind::flag, nullptr, "append standard error to <metadir>/t4mi.log", &t4mi_stderr_to_log, 1},
    {"temp-clean", kind::flag, nullptr, "remove leftover temporary files of the item and exit", &t4mi_temp_clean_only, 1},
    {"force-metadata", kind::flag, nullptr, "write the metadata back even if nothing changed", &t4mi_force_update_metadata, 1},
    {"no-metadata-write", kind::flag, nullptr, "never write the metadata back", &t4mi_metadata_may_update, 0},
    {"auto-shutdown", kind::seconds, "SECONDS", "exit after this long without a client (0: never; default 0)", &auto_shutdown_delay_initial, 0},
    {"cgroup-active", kind::text, "DIR", "control group to join while serving frames", &t4mi_cgroup_active, 0},
    {"cgroup-idle", kind::text, "DIR", "control group to join while idle", &t4mi_cgroup_idle, 0},
    {"harden", kind::flag, nullptr, "drop fields over 511 bytes, refuse corrupt emoji images and rootless feeds (default: hang or abort)", &t4mi_harden, 1},
    {"idle-wait", kind::milliseconds, "MS", "longest wait for input in one serve-loop turn, 1 to 1000 ms (default 5)", &t4mi_input_wait_us, 0},
    {"render-ahead", kind::flag, nullptr, "render each client's next frame in idle time, for clients that ask in order", &t4mi_render_ahead, 1},
    {"frame-cache", kind::mebibytes, "MIB", "memory for frames no client holds, in MiB (0: no bound; default 32)", &t4mi_frame_cache_mib, 0},
    {"shared-buffer", kind::mebibytes, "MIB", "at most this much shared memory for frames, in MiB (default: half the free, up to 4000)", &t4mi_shared_buffer_mib, 0},
    // Listed by the program's own help line, not by t4mi_std_help.
    {"oneshot", kind::flag, nullptr, nullptr, &t4mi_oneshot, 1},
    {"version", kind::version, nullptr, "print the version and exit", nullptr, 0},
};

// A decimal number of digits only (no sign, no space) from `low` to `high`.
bool whole_number(const char* value, uint64_t low, uint64_t high, uint64_t* out)
{
    if (value == nullptr || value[0] < '0' || value[0] > '9')
        return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long n = std::strtoull(value, &end, 10);
    if (errno != 0 || *end != '\0' || n < low || n > high)
        return false;
    *out = n;
    return true;
}

bool set_value(const standard_switch& sw, const char* value)
{
    switch (sw.type) {
    case kind::text:
        if (value == nullptr || value[0] == '\0')
            return false;
        *static_cast<std::string*>(sw.target) = value;
        return true;
    case kind::seconds: {
        if (value == nullptr || value[0] == '\0')
            return false;
        char* end = nullptr;
        errno = 0;
        const double seconds = std::strtod(value, &end);
        if (errno != 0 || *end != '\0' || !(seconds >= 0.0) || seconds > 1e9)
            return false;
        *static_cast<uint64_t*>(sw.target) = uint64_t(seconds * 1e6);
        return true;
    }
    case kind::milliseconds: {
        uint64_t ms = 0;
        if (!whole_number(value, 1, 1000, &ms))
            return false;
        *static_cast<uint64_t*>(sw.target) = ms * 1000;
        return true;
    }
    case kind::mebibytes: {
        // Up to the 4 GiB a shared buffer can hold.
        uint64_t mib = 0;
        if (!whole_number(value, 0, 4096, &mib))
            return false;
        *static_cast<int64_t*>(sw.target) = int64_t(mib);
        return true;
    }
    case kind::flag:
        *static_cast<int*>(sw.target) = sw.flag_value;
        return value == nullptr;
    case kind::version:
        // Answered at once, before anything else on the command line is
        // looked at, so it works without --file.
        if (value != nullptr)
            return false;
        t4mi_print_version("t4mi_scrolltext");
        std::exit(0);
    }
    return false;
}
} // namespace

int t4mi_init_argv(int argc, char** argv)
{
    if (argc < 1 || argv == nullptr)
        return 1;
    arguments.assign(argv + 1, argv + argc);
    next_index = 0;
    return 0;
}

const char* t4mi_next_arg()
{
    if (next_index >= arguments.size())
        return nullptr;
    return arguments[next_index++];
}

int t4mi_argv_is_switch(const char** arg)
{
    const char* a = *arg;
    if (a == nullptr || a[0] != '-')
        return 0;
    a += (a[1] == '-') ? 2 : 1;
    if (*a == '\0')
        return 0;
    *arg = a;
    return 1;
}

int t4mi_argv_std_handle_switch(const char* name)
{
    const char* eq = std::strchr(name, '=');
    const std::string key = eq ? std::string(name, eq) : std::string(name);
    for (const auto& sw : switches) {
        if (key != sw.name)
            continue;
        const char* value = eq ? eq + 1 : nullptr;
        if (sw.type != kind::flag && value == nullptr)
            value = t4mi_next_arg();
        return set_value(sw, value) ? 1 : -1;
    }
    return 0;
}

void t4mi_std_help()
{
    std::fprintf(stderr, "Usage: t4mi_scrolltext --file PATH [switches]\n");
    for (const auto& sw : switches) {
        if (sw.help == nullptr)
            continue;
        char left[64];
        std::snprintf(left, sizeof left, "--%s%s%s", sw.name, sw.value_name ? " " : "", sw.value_name ? sw.value_name : "");
        std::fprintf(stderr, " %-26s %s\n", left, sw.help);
    }
    std::fprintf(stderr, " %-26s %s\n", "-h, --help", "print this help and exit");
    std::fprintf(stderr, "Environment: T4MI_ROOT=DIR reads the installation's fixed paths below DIR.\n");
}

void t4mi_print_version(const char* program)
{
    std::printf("%s %s\n", program, T4MI_VERSION);
    std::fflush(stdout);
}

void t4mi_reset_standard_switches()
{
    t4mi_file.clear();
    t4mi_file_type.clear();
    t4mi_file_metadir.clear();
    t4mi_sock.clear();
    t4mi_cgroup_active.clear();
    t4mi_cgroup_idle.clear();
    t4mi_identify_only = t4mi_daemon = t4mi_stderr_to_log = t4mi_temp_clean_only = 0;
    t4mi_force_update_metadata = t4mi_oneshot = t4mi_harden = t4mi_render_ahead = 0;
    t4mi_metadata_may_update = 1;
    auto_shutdown_delay_initial = 0;
    t4mi_frame_cache_mib = -1;
    t4mi_input_wait_us = t4mi_input_wait_default_us;
    t4mi_shared_buffer_mib = -1;
}
