#include "platform/t4mi_globals.h"

#include "platform/client_context.h"

int t4mi_auto_socket_create = 0;
std::string t4mi_file;
std::string t4mi_file_type;
std::string t4mi_file_metadir;
std::string t4mi_sock;
int t4mi_stderr_to_log = 0;
int t4mi_temp_clean_only = 0;
int t4mi_force_update_metadata = 0;
int t4mi_metadata_may_update = 1;
int t4mi_identify_only = 0;
int t4mi_daemon = 0;
int t4mi_oneshot = 0;
int t4mi_harden = 0;
int t4mi_render_ahead = 0;
uint64_t t4mi_input_wait_us = t4mi_input_wait_default_us;
std::string t4mi_cgroup_active;
std::string t4mi_cgroup_idle;
uint64_t auto_shutdown_delay_initial = 0;
int64_t t4mi_frame_cache_mib = -1;
int64_t t4mi_shared_buffer_mib = -1;

t4mi_meta_record* t4mi_meta = nullptr;
metadata_v4_metadata_context* t4mi_metadata = nullptr;
int t4mi_do_write_metadata = 0;
int64_t t4mi_video_streams = 0;
int64_t t4mi_time_duration = 0;
t4mi_rational64 t4mi_time_scale = {0, 0};

t4mi_global_access_cache* t4mi_acc_cache = nullptr;
t4mi_client_context_registry t4mi_client_contexts;
comm_socket_v4_server* t4mi_comm_server = nullptr;
int t4mi_should_exit = 0;
volatile std::sig_atomic_t DIE4 = 0;
uint64_t mono_auto_shutdown = 0;
int json_next_xmit_rebuild = 0;
uint64_t json_next_xmit = 0;
// Short on purpose: a released frame stays cached for the sum of the two, and
// while it does its pages cannot take a new frame; without a frame-memory
// budget every new frame of a fast client then lands on fresh pages that the
// kernel must fault in and clear (docs/platform.md, "Frame retention").
uint64_t picture_flush_deref_delay = 500000;
uint64_t picture_auto_deref_delay = 2000000;
uint64_t picture_cache_budget = 0;
uint64_t tnb_total = 0;
int image_tnb_buffer_fd = -1;
int image_tnb_buffer = -1;

void (*t4mi_on_metadata_set)() = nullptr;
int (*on_t4mi_custom_packet)(comm_socket_v4_packet*, comm_socket_v4_packet*, const void*, t4mi_connection*) = nullptr;

void t4mi_set_string(std::string* field, const char* text) { *field = text ? text : ""; }
