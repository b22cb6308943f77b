// A local HTTP server for the download tests: Python's http.server serving
// one directory on 127.0.0.1 at a free port chosen by the kernel. Never
// listens on any other address.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace rss_test {

class local_http_server {
public:
    // Serves `directory`; waits (at most 10 s) until the server listens.
    // port() is 0 when it could not be started.
    explicit local_http_server(const std::string& directory);
    // Stops the server (SIGTERM, then SIGKILL after 2 s) and reaps it.
    ~local_http_server();
    local_http_server(const local_http_server&) = delete;
    local_http_server& operator=(const local_http_server&) = delete;

    int port() const { return listening_port; }
    // "http://127.0.0.1:<port><path>"
    std::string url(const std::string& path) const;

private:
    pid_t pid = -1;
    int listening_port = 0;
};

// A socket listening on 127.0.0.1 that never answers: a client's connection
// completes in the kernel's backlog (or is taken off it and held) and its
// request is never answered. Closing it ends the waiting clients' connections.
class silent_listener {
public:
    silent_listener();
    ~silent_listener();
    silent_listener(const silent_listener&) = delete;
    silent_listener& operator=(const silent_listener&) = delete;
    int port() const { return listening_port; }
    // Waits up to `timeout_ms` for a connection, then takes every connection
    // queued so far off the backlog and holds it open, still unanswered.
    // Returns how many connections have been taken in all.
    int take_connections(int timeout_ms);

private:
    int fd = -1;
    int listening_port = 0;
    std::vector<int> taken;
};

// Sets (or, with a null value, removes) an environment variable while it
// lives.
class scoped_env {
public:
    scoped_env(const char* name, const char* value);
    ~scoped_env();
    scoped_env(const scoped_env&) = delete;
    scoped_env& operator=(const scoped_env&) = delete;

private:
    std::string name;
    std::string previous;
    bool had_previous = false;
};

} // namespace rss_test
