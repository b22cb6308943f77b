// t4mi_scrolltext: serves one scrolling-text item as video frames.
//
// Start-up, in order: command line, derived parameters, FreeType and the two
// built-in faces, the font catalogue, identification, the item's text,
// metadata write-back, the factories, readiness. The entry point (main.cpp)
// then runs the serve loop and the ordered shut-down.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "frames/client_context.h"
#include "frames/video_reference.h"
#include "items/item_types.h"
#include "main/control_packets.h"
#include "main/main_globals.h"
#include "main/process.h"
#include "platform/args.h"
#include "platform/clock.h"
#include "platform/comm_server.h"
#include "platform/derived_params.h"
#include "platform/fixed_paths.h"
#include "platform/t4mi_assert.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"

namespace {
void metadata_set_ignored() {}

// Parses the command line; returns -1 to go on, or the exit status.
int parse_command_line(int argc, char** argv)
{
    t4mi_auto_socket_create = 1;
    if (t4mi_init_argv(argc, argv) != 0)
        return 1;
    while (const char* arg = t4mi_next_arg()) {
        const char* name = arg;
        if (!t4mi_argv_is_switch(&name)) {
            std::fprintf(stderr, "Non-switch argument '%s'\n", arg);
            return 1;
        }
        const int handled = t4mi_argv_std_handle_switch(name);
        if (handled > 0)
            continue;
        if (handled == 0 && std::strcmp(name, "h") != 0 && std::strcmp(name, "help") != 0)
            std::fprintf(stderr, "Unknown switch '%s'\n", name);
        print_help();
        return 1;
    }
    return -1;
}

// The checks after the command line, each with its own message.
int derive_parameters()
{
    const char* failure = nullptr;
    if (t4mi_file.empty()) {
        std::fprintf(stderr, "File to play not specified. Use --file parameter\n");
        print_help();
        return 1;
    }
    if (const int derived = t4mi_standard_to_derived_params(); derived == T4MI_DERIVED_REFUSED)
        return 1; // already said why, in one line
    else if (derived != 0)
        failure = "Failed to obtain derived params\n";
    else if (t4mi_join_tnb_domain() != 0)
        failure = "Failed to join TNB domain\n";
    else if (t4mi_file_metadir.empty())
        failure = "Library failed to derive metadata dir\n";
    else if (t4mi_sock.empty())
        failure = "Library failed to make socket path or accept a path\n";
    else if (t4mi_meta == nullptr)
        failure = "No meta object\n";
    else if (t4mi_metadata == nullptr)
        failure = "No metadata object\n";
    else if (t4mi_stderr_to_log && t4mi_redirect_stderr_to_logfile() != 0)
        failure = "Failed to redirect stderr\n";
    if (failure != nullptr) {
        std::fputs(failure, stderr);
        return 1;
    }
    return -1;
}

void install_signal_handlers()
{
    struct sigaction sa {};
    sa.sa_handler = die_signal_handler;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGTERM, SIGQUIT, SIGINT})
        sigaction(sig, &sa, nullptr);
}

void daemonize()
{
    const bool on_terminal = isatty(STDIN_FILENO) || isatty(STDOUT_FILENO) || isatty(STDERR_FILENO);
    std::fprintf(stderr, "Daemonizing\n");
    // Standard streams are closed only when they are a terminal: a log file is kept.
    if (daemon(1, on_terminal ? 0 : 1) != 0)
        std::fprintf(stderr, "Problem daemon() %s\n", std::strerror(errno));
    comm_socket_v4_reopen_server(t4mi_comm_server);
    std::fprintf(stderr, "--------------------- ON CLOSURE OF THIS PROCESS (DEBUG) ----------------------\n");
    fd_debug_dump_open_files(stderr);
    if (!json_next_xmit_rebuild)
        rebuild_json();
}
} // namespace

int start_up(int argc, char** argv)
{
    if (int status = parse_command_line(argc, argv); status >= 0)
        return status;
    if (int status = derive_parameters(); status >= 0)
        return status;
    if (const char* failure = open_fonts()) {
        std::fputs(failure, stderr);
        return 1;
    }

    t4mi_on_metadata_set = metadata_set_ignored;
    on_t4mi_custom_packet = my_custom_packet_handler;
    init_vel_utils_cpu();
    tnb_alloc_init();
    std::srand(unsigned(getpid()) ^ unsigned(std::time(nullptr)));
    if (t4mi_self_test() != 0)
        std::fprintf(stderr, "Self-test failed [T4MI]\n");

    std::fprintf(stderr, "Media item setting:\n");
    std::fprintf(stderr, "   File: %s\n", t4mi_file.c_str());
    std::fprintf(stderr, "   Meta: %s\n", t4mi_file_metadir.c_str());
    std::fprintf(stderr, "   Sock: %s\n", t4mi_sock.c_str());

    t4mi_client_contexts.set_reference_factory([](uint64_t context_id, uint64_t frame_number, uint32_t variant) {
        return static_cast<t4mi_video_frame_reference*>(
            new scrolling_text_video_reference(context_id, frame_number, variant));
    });
    if (t4mi_temp_clean_only)
        return 0;

    T4MI_ASSERT(t4mi_meta->file_fd >= 0);
    install_signal_handlers();
    if (t4mi_force_update_metadata)
        t4mi_do_write_metadata = 1;

    if (!t4mi_file_type.empty()) {
        if (find_item_type(t4mi_file_type) == nullptr) {
            std::fprintf(stderr, "Unknown file type field\n");
            tear_down();
            return 1;
        }
    } else if (examine_file() == 1) {
        tear_down();
        return 1;
    }
    load_item_text_at_start();

    t4mi_print_standard_metadata_state();
    T4MI_ASSERT(t4mi_meta->file_fd >= 0);
    t4mi_acc_cache = t4mi_global_access_cache_create();
    if (t4mi_acc_cache == nullptr) {
        std::fprintf(stderr, "Cannot create cache\n");
        tear_down();
        return 1;
    }
    t4mi_video_streams = 1;
    t4mi_time_duration = 2147483647;
    t4mi_time_scale = {30000, 1001};
    if (auto_generate_metadata_guid(t4mi_metadata))
        t4mi_do_write_metadata = 1;
    meta_to_json(t4mi_metadata);
    if (t4mi_metadata_may_update && t4mi_do_write_metadata) {
        std::fprintf(stderr, "* Writing metadata back\n");
        t4mi_standard_vars_to_metadata(t4mi_metadata);
        if (metadata_v4_metadata_context_write_metadata_to_file(t4mi_metadata, t4mi_meta, 0, nullptr) != 0)
            std::fprintf(stderr, "Problem writing metadata\n");
    }
    metadata_v4_metadata_close_file(t4mi_metadata);
    if (t4mi_identify_only) {
        tear_down();
        return 0;
    }

    item_to_json_common();
    if (!json_next_xmit_rebuild)
        rebuild_json();
    t4mi_client_contexts.set_context_factory(
        [](uint64_t id) -> t4mi_client_context* { return new scrolling_text_client_context(id); });
    tnb_total = std::min<uint64_t>(tnb_context_free_space(t4mi_tnb_domain(), 1) / 2, 4194304000ull);
    if (t4mi_shared_buffer_mib >= 0)
        tnb_total = std::min(tnb_total, uint64_t(t4mi_shared_buffer_mib) << 20);
    const int64_t frame_cache_mib = t4mi_frame_cache_mib >= 0 ? t4mi_frame_cache_mib : t4mi_frame_cache_default_mib;
    picture_cache_budget = uint64_t(frame_cache_mib) << 20;
    if (t4mi_daemon)
        daemonize();
    image_tnb_buffer_fd = -1;
    image_tnb_buffer = -1;
    tnb_alloc_assign_single(-1, -1, 0);
    t4mi_status_write(100, "");
    t4mi_ready_write(1, "Ready to serve data");

    mono_auto_shutdown = auto_shutdown_delay_initial ? monotonic_clock_us() + auto_shutdown_delay_initial : 0;
    if (!json_next_xmit_rebuild)
        rebuild_json();
    return -1;
}
