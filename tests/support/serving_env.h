// Serving fixtures.
//
// - control_server: a control socket server in this process (in a fresh
//   directory, as t4mi_comm_server), with pump() running one round of the
//   serving side's idle calls, and clients whose waits pump it (so a test
//   drives server and clients from one thread, every wait bounded).
// - serving_process: the real program (or another serving binary) started
//   in the background on an item, ready once its status.json says so, with
//   its standard error collected, stopped by a signal with a bounded wait.
// - raw_socket: a plain connection for sending bytes a well-behaved client
//   never would.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

#include "platform/t4mi_client.h"
#include "support/test_env.h"

class t4mi_video_frame;
struct t4mi_client_frame;

namespace t4test {

class control_server {
public:
    // Creates the server; the registry's factories are the caller's to set.
    control_server();
    // Closes the server (connections and their contexts), restores the
    // limits and the auto-shutdown globals.
    ~control_server();
    const std::string& socket_path() const { return path; }
    // One round: idle_t4mi_server_comm, idle_t4mi_client_contexts,
    // t4mi_idle_housekeeping. Returns the work the first two reported.
    int pump();
    // Pumps until `done()` or `timeout_ms`; true when done.
    bool pump_until(const std::function<bool()>& done, int timeout_ms = 5000);
    // A connected client whose waits pump this server.
    std::unique_ptr<t4mi_client> client();

private:
    temp_dir dir;
    std::string path;
};

// A connection for raw bytes (non-blocking reads with a bound).
class raw_socket {
public:
    explicit raw_socket(const std::string& path);
    ~raw_socket();
    bool ok() const { return fd >= 0; }
    int descriptor() const { return fd; }
    // Writes what the socket takes without blocking; returns the bytes written.
    size_t write_some(const void* bytes, size_t size);
    // True when the server closed the connection within `timeout_ms`
    // (reads and discards whatever arrives meanwhile); `pump` runs between polls.
    bool closed_by_server(int timeout_ms, const std::function<void()>& pump = {});
    // True when the peer hung up (POLLHUP) within `timeout_ms`, without reading.
    bool hung_up(int timeout_ms, const std::function<void()>& pump = {});

private:
    int fd = -1;
};

class serving_process {
public:
    // Starts `binary` with `args` and extra environment entries ("NAME=value";
    // a bare "NAME" removes the variable); standard error goes to a file, or
    // to `err_fd` when one is given (err() is then empty). Does not wait.
    // With `pipe_output` its standard output is a pipe that this process
    // reads from output_fd() (owned here); else /dev/null.
    serving_process(const std::string& binary, const std::vector<std::string>& args,
                    const std::vector<std::string>& env, int err_fd = -1, bool pipe_output = false);
    // Kills the process if it still runs.
    ~serving_process();
    // Waits until "<metadir>/status.json" says ready; fills socket_path().
    // With `detaches` the started process may end first (a daemon's parent).
    bool wait_ready(const std::string& metadir, int timeout_ms = 20000, bool detaches = false);
    const std::string& socket_path() const { return socket; }
    pid_t pid() const { return child; }
    int output_fd() const { return out_fd; }
    // Closes this end of the output pipe, as a reader that goes away.
    void close_output();
    // Sends `sig` and waits up to `timeout_ms` for the exit. True when it
    // exited; `exit_status` gets the status (-1 when killed by a signal).
    bool stop(int sig, int timeout_ms, int* exit_status);
    // Waits for the process to end by itself.
    bool wait_exit(int timeout_ms, int* exit_status);
    bool running();
    // Standard error so far.
    std::string err() const;
    // CPU time the process used so far (user + system), in seconds; -1 when
    // it is gone.
    double cpu_seconds() const;
    // A "kB" line of /proc/<pid>/status ("VmHWM", "VmRSS"), in KiB; -1 when
    // it cannot be read.
    long status_kib(const std::string& field) const;

private:
    temp_dir dir;
    pid_t child = -1;
    bool exited = false;
    int exit_code = -1;     // exit status, -1 when a signal ended it
    int out_fd = -1;        // the read end of its standard output, with pipe_output
    std::string socket;
    std::string err_file;
};

// Compares the visible pixels of a frame a client mapped with a frame built
// in this process: empty when equal, else where they first differ.
std::string compare_frames(const t4mi_client_frame& got, const t4mi_video_frame* want);

std::string render_tool_binary();
std::string control_tool_binary();

} // namespace t4test
