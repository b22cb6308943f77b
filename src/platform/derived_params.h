// Start-up operations of the framework: derived parameters, the log redirect,
// the self-test, status and readiness reports, and the release of all of it.
#pragma once

#include <cstdio>

// Derives, from the switches: the open item (t4mi_meta), the metadata
// directory (".<item name>.t4mi" beside the item unless given; created, mode
// 0700, when missing), the socket path ("<metadir>/control.sock" unless
// given; left empty when it does not fit a socket address) and the metadata
// record (read back from "<metadir>/metadata.json"; its type fills
// t4mi_file_type when none was given). With --temp-clean it also removes the
// item's leftover temporary files. When t4mi_auto_socket_create is set (and
// the run serves: not --identify, not --temp-clean) it creates the control
// socket server at t4mi_sock into t4mi_comm_server. Non-zero on failure
// (item or directory cannot be opened or made, socket cannot be created).
//
// Refusals that it reports itself, in one line on standard error, return
// T4MI_DERIVED_REFUSED, before anything is written: an item path that is a
// directory, a FIFO or a socket (found without a blocking open), and a
// metadata directory that is a symbolic link, is not owned by our effective
// user or is writable by group or others.
int t4mi_standard_to_derived_params();
inline constexpr int T4MI_DERIVED_REFUSED = 2;

// Appends standard error to "<metadir>/t4mi.log". Non-zero on failure.
int t4mi_redirect_stderr_to_logfile();

// Checks the platform's own invariants (text decoding, clocks). 0 when fine.
int t4mi_self_test();

// CPU feature probe; kept for the start-up sequence, nothing depends on it yet.
void init_vel_utils_cpu();

// Reports to the playout side through "<metadir>/status.json" (replaced
// atomically): the start-up progress (percent and text) and readiness. A
// failed write is reported once ("WARNING: Cannot write status file ...")
// until a write succeeds again; the caller goes on either way.
void t4mi_status_write(int percent, const char* text);
void t4mi_ready_write(int ready, const char* text);

// Removes the status file this process wrote, if it is still the one in
// place (the playout side then sees no readiness). Runs with t4mi_free_all
// and at exit; a process that never wrote one removes nothing.
void t4mi_status_remove();

// Lists the process's open descriptors, one per line.
void fd_debug_dump_open_files(FILE* out);

// Removes our status file, closes the control socket server (its
// connections and their client contexts, the socket file), then releases
// the derived records and closes their descriptors.
void t4mi_free_all();

// The framework's JSON view of the item (type, GUID, timing, state), sent to
// clients with their status packets.
void meta_to_json(const struct metadata_v4_metadata_context* md);
void item_to_json_common();
void rebuild_json();
const char* t4mi_item_json();
