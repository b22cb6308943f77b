// t4mi_panel: a small web server for operators, attached to a running item's
// control socket: a live preview, the item's figures, and a form that sends
// the live text command (docs/panel.md).
//
//   t4mi_panel (--socket PATH | --metadir DIR) [--listen ADDR:PORT]
//              [--token TOKEN] [--max-body BYTES]
//
// Prints "t4mi_panel: listening on http://ADDR:PORT/" on standard error once
// it listens (PORT 0 picks a free port, which the line names), and serves
// until SIGINT or SIGTERM.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <httplib.h>
#include <pthread.h>
#include <sys/resource.h>
#include <string>
#include <thread>

#include "item_link.h"
#include "platform/args.h"
#include "panel_http.h"

namespace {

struct command_line {
    item_link_options link;
    panel_options panel;
    std::string host = "127.0.0.1";
    int port = 8088;
};

void usage(FILE* out)
{
    std::fputs("usage: t4mi_panel (--socket PATH | --metadir DIR) [--listen ADDR:PORT] [--token TOKEN]\n"
               "                  [--max-body BYTES]\n"
               "       t4mi_panel --help | --version\n"
               "  --socket PATH      the item's control socket\n"
               "  --metadir DIR      the item's metadata directory (its status.json names the socket)\n"
               "  --listen ADDR:PORT where to serve (default 127.0.0.1:8088; port 0: any free port)\n"
               "  --token TOKEN      every request must carry it (Authorization: Bearer, or ?token=)\n"
               "                     (T4MI_PANEL_TOKEN in the environment does the same)\n"
               "  --max-body BYTES   largest request body (default 65536)\n",
               out);
}

// "ADDR:PORT", "[v6]:PORT" or ":PORT" (loopback).
bool parse_listen(const std::string& text, std::string* host, int* port)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        return false;
    std::string h = text.substr(0, colon);
    const std::string p = text.substr(colon + 1);
    if (p.empty() || p.size() > 5 || p.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const int n = std::atoi(p.c_str());
    if (n > 65535)
        return false;
    if (h.size() >= 2 && h.front() == '[' && h.back() == ']')
        h = h.substr(1, h.size() - 2);
    *host = h.empty() ? "127.0.0.1" : h;
    *port = n;
    return true;
}

bool is_loopback(const std::string& host)
{
    return host == "127.0.0.1" || host == "::1" || host == "localhost" || host.rfind("127.", 0) == 0;
}

// 0: parsed; otherwise the exit status.
int parse(int argc, char** argv, command_line* cl)
{
    if (const char* t = std::getenv("T4MI_PANEL_TOKEN"))
        cl->panel.token = t;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return -1;
        }
        if (a == "--version") {
            t4mi_print_version("t4mi_panel");
            return -1;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "t4mi_panel: %s needs a value\n", a.c_str());
            return 2;
        }
        const std::string v = argv[++i];
        if (a == "--socket")
            cl->link.socket_path = v;
        else if (a == "--metadir")
            cl->link.metadir = v;
        else if (a == "--token")
            cl->panel.token = v;
        else if (a == "--max-body") {
            if (v.empty() || v.size() > 9 || v.find_first_not_of("0123456789") != std::string::npos ||
                std::atoi(v.c_str()) < 1024) {
                std::fprintf(stderr, "t4mi_panel: --max-body needs a number of bytes, at least 1024\n");
                return 2;
            }
            cl->panel.max_body = size_t(std::atoi(v.c_str()));
        } else if (a == "--listen") {
            if (!parse_listen(v, &cl->host, &cl->port)) {
                std::fprintf(stderr, "t4mi_panel: --listen needs ADDR:PORT, not '%s'\n", v.c_str());
                return 2;
            }
        } else {
            std::fprintf(stderr, "t4mi_panel: unknown switch '%s'\n", a.c_str());
            usage(stderr);
            return 2;
        }
    }
    if (cl->link.socket_path.empty() == cl->link.metadir.empty()) {
        std::fprintf(stderr, "t4mi_panel: give one of --socket and --metadir\n");
        usage(stderr);
        return 2;
    }
    if (cl->panel.token.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~") !=
        std::string::npos) {
        std::fprintf(stderr, "t4mi_panel: the token may hold only letters, digits and -._~\n");
        return 2;
    }
    cl->panel.loopback_only = is_loopback(cl->host);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    command_line cl;
    if (int status = parse(argc, argv, &cl); status != 0)
        return status < 0 ? 0 : status;

    // The signals are taken by one thread that stops the server; the
    // workers, started later, inherit the mask and never see them.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    // The panel is an onlooker: on a busy machine the item's playout
    // clients come first. Set before any thread starts, so all inherit it.
    if (setpriority(PRIO_PROCESS, 0, 10) != 0)
        std::fprintf(stderr, "t4mi_panel: cannot lower its priority: %s\n", std::strerror(errno));

    item_link link(cl.link);
    httplib::Server server;
    panel_install(server, link, cl.panel);
    const int port = cl.port == 0 ? server.bind_to_any_port(cl.host) : (server.bind_to_port(cl.host, cl.port) ? cl.port : -1);
    if (port < 0) {
        std::fprintf(stderr, "t4mi_panel: cannot listen on %s:%d: %s\n", cl.host.c_str(), cl.port,
                     std::strerror(errno));
        return 1;
    }
    const bool v6 = cl.host.find(':') != std::string::npos;
    std::fprintf(stderr, "t4mi_panel: listening on http://%s%s%s:%d/\n", v6 ? "[" : "", cl.host.c_str(),
                 v6 ? "]" : "", port);

    std::thread stopper([&server, stop_signals] {
        int sig = 0;
        sigwait(&stop_signals, &sig);
        server.stop();
    });
    const bool ok = server.listen_after_bind();
    // listen_after_bind also ends when the socket fails: wake the stopper.
    pthread_kill(stopper.native_handle(), SIGTERM);
    stopper.join();
    return ok ? 0 : 1;
}
