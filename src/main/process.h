// The start-up and shut-down steps of the process, callable on their own.
#pragma once

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
