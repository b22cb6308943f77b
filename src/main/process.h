// The start-up and shut-down steps of the process, callable on their own.
// The program (start_up, then main.cpp) runs them in order; the in-process
// render session (render_session.h) runs the ones it needs.
#pragma once

// Start-up, every step in order (t4mi_scrolltext.cpp): -1 when the process is
// to serve, else its exit status, after tear-down where start-up got that
// far. Process-wide: it parses the command line into the framework's globals.
int start_up(int argc, char** argv);

// FreeType, the default and emoji faces, then the font catalogue. Null on
// success, else the failure's message line (with its line feed); what was
// opened stays open for close_fonts.
const char* open_fonts();

// The font catalogue's faces, then the two built-in faces and FreeType.
void close_fonts();

// Frees every frame buffer allocation and drops the shared buffer.
void release_frame_buffers();

// Identifies the item file by its first line. 0 when identified (the type is
// stored and the metadata marked for writing), 1 otherwise.
int examine_file();

// Counts a signal; aborts on the twentieth.
void die_signal_handler(int sig);

// Run first thing in main: SIGPIPE is ignored (a log reader that went away
// costs the log line, not the process; writes then fail with EPIPE), and
// SIGHUP asks for a reload of the item, as the "reload" command does.
void install_pipe_and_hangup_handlers();

// Releases frame buffers, the built-in faces, FreeType, the framework's
// records, libxml2 and the emoji image cache, in that order.
void tear_down();

// Runs the serve loop until it is told to stop.
void serve_loop();

// The ordered shut-down after the serve loop; returns the exit status.
int shut_down();

// The help: the standard switches, then the program's one line.
void print_help();
