// Figures of the serving side for operator tools ("v4::stats",
// docs/protocol.md): how many frames went out, at what rate, and the last
// lines the process wrote to standard error.
//
// Single-threaded like the serve loop. Nothing here changes what a client
// receives or what reaches standard error; it only counts and remembers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Counts one frame reply, at monotonic time `now_us`.
void serve_stats_frame_served(uint64_t now_us);
// Frame replies since the process started.
uint64_t serve_stats_frames_served();
// Frame replies in the last whole second before `now_us`, counted in tenths
// of a second: the tenth that `now_us` falls in is not finished and is left
// out.
uint64_t serve_stats_frames_last_second(uint64_t now_us);

// How many lines the message memory keeps, and the longest line it keeps
// (longer ones are cut, in bytes).
inline constexpr size_t SERVE_STATS_MESSAGES = 32;
inline constexpr size_t SERVE_STATS_MESSAGE_BYTES = 512;

// Feeds bytes written to standard error into the message memory: complete
// lines are kept (without their line feed), the newest SERVE_STATS_MESSAGES.
void serve_stats_note_output(const char* bytes, size_t n);
// The lines kept, oldest first.
std::vector<std::string> serve_stats_recent_messages();

// Replaces the process's `stderr` stream by an unbuffered one that writes
// the same bytes to descriptor 2 (so a later redirection of the descriptor,
// --log, still applies) and feeds serve_stats_note_output. For the program's
// entry point only: a stream made this way has no descriptor of its own
// (fileno gives -1), which tools that capture descriptor 2 through it would
// not expect. False, with stderr unchanged, when the stream cannot be made.
bool serve_stats_capture_stderr();

// Forgets the counters and the messages (tests).
void serve_stats_reset();
