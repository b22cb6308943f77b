// The media-item framework's globals: what the command line set, what start-up
// derived, and the process-wide handles of the serving side. The program reads
// and sets them; the platform library owns them.
#pragma once

#include <csignal>
#include <cstdint>
#include <string>

#include "platform/metadata.h"

class t4mi_client_context_registry;
struct t4mi_global_access_cache;
struct comm_socket_v4_server;
struct comm_socket_v4_packet;
struct t4mi_connection;

// --- set by the command line -------------------------------------------------
extern int t4mi_auto_socket_create;      // create the control socket at start-up
extern std::string t4mi_file;            // --file: the item file
extern std::string t4mi_file_type;       // --type, or the stored / identified MIME type
extern std::string t4mi_file_metadir;    // --metadir, or derived from the item path
extern std::string t4mi_sock;            // --socket, or derived from the metadata dir
extern int t4mi_stderr_to_log;           // --log
extern int t4mi_temp_clean_only;         // --temp-clean
extern int t4mi_force_update_metadata;   // --force-metadata
extern int t4mi_metadata_may_update;     // cleared by --no-metadata-write
extern int t4mi_identify_only;           // --identify
extern int t4mi_daemon;                  // --daemon
extern int t4mi_oneshot;                 // --oneshot
extern int t4mi_harden;                  // --harden: survive the three kept hazards (docs/platform.md)
extern uint64_t t4mi_input_wait_us;      // --idle-wait, in µs: a serve-loop turn's longest wait for input
inline constexpr uint64_t t4mi_input_wait_default_us = 5000;
extern int t4mi_render_ahead;            // --render-ahead: each client's next frame in idle time (platform/render_ahead.h)
extern std::string t4mi_cgroup_active;   // --cgroup-active: cgroup directory while serving
extern std::string t4mi_cgroup_idle;     // --cgroup-idle: cgroup directory while idle
extern uint64_t auto_shutdown_delay_initial; // --auto-shutdown, in µs; 0: never
extern int64_t t4mi_frame_cache_mib;     // --frame-cache, in MiB; -1: not given (the default below)
extern int64_t t4mi_shared_buffer_mib;   // --shared-buffer, in MiB: caps tnb_total; -1: not given
// Start-up's frame-memory budget when --frame-cache is not given: with what a
// client holds, a 1080-line item at 59.94 frames/s stays under 128 MiB
// (docs/frame-buffers.md).
inline constexpr int64_t t4mi_frame_cache_default_mib = 32;

// --- derived at start-up -----------------------------------------------------
extern t4mi_meta_record* t4mi_meta;                 // null until derived
extern metadata_v4_metadata_context* t4mi_metadata; // null until derived
extern int t4mi_do_write_metadata;
extern int64_t t4mi_video_streams;
extern int64_t t4mi_time_duration;
struct t4mi_rational64 {
    int64_t num;
    int64_t den;
};
extern t4mi_rational64 t4mi_time_scale;

// --- serving -----------------------------------------------------------------
extern t4mi_global_access_cache* t4mi_acc_cache;
extern t4mi_client_context_registry t4mi_client_contexts;
extern comm_socket_v4_server* t4mi_comm_server;
extern int t4mi_should_exit;             // a client asked the process to exit
// Stop signals received (SIGTERM, SIGQUIT, SIGINT; the program's handler,
// main/signals.cpp, counts them). The serve loop leaves, a render waiting
// for the shared buffer gives up, and queued frame requests are no longer
// run when it is non-zero.
extern volatile std::sig_atomic_t DIE4;
extern uint64_t mono_auto_shutdown;      // monotonic µs; 0: no deadline
extern int json_next_xmit_rebuild;
extern uint64_t json_next_xmit;
extern uint64_t picture_flush_deref_delay; // µs: 0.5 s; a released frame stays cached this plus the next
extern uint64_t picture_auto_deref_delay;  // µs: 2 s; a hold's life, after which the server releases it
extern uint64_t picture_cache_budget;      // bytes for frames nobody holds: cached frames plus warm
                                           // slots (docs/frame-buffers.md); 0: no bound (the default here)
extern uint64_t tnb_total;                 // frame-buffer budget in bytes
extern int image_tnb_buffer_fd;
extern int image_tnb_buffer;

// Callbacks the program installs.
extern void (*t4mi_on_metadata_set)();
extern int (*on_t4mi_custom_packet)(comm_socket_v4_packet* request, comm_socket_v4_packet* response,
                                    const void* raw, t4mi_connection* client);

// Replaces a framework string field.
void t4mi_set_string(std::string* field, const char* text);
