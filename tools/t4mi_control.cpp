// t4mi_control: sends one command to a running t4mi_scrolltext over its
// control socket and prints the reply.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "platform/args.h"
#include "platform/t4mi_client.h"

namespace {

const char* const usage =
    "Usage: t4mi_control (--socket PATH | --metadir DIR) [--timeout SECONDS] COMMAND [ARGUMENTS]\n"
    "       t4mi_control --help | --version\n"
    "Commands:\n"
    "  reload                   re-read the item file on the next loop turn\n"
    "  text NAME=VALUE...       change the text and settings at once (\"v4::text\"),\n"
    "                           e.g. text text='Breaking news' fontColor=ff0000 newcontextonly=1\n"
    "  data FILE                send schedule data (a JSON file; - reads standard input)\n"
    "  status                   print the item's state (JSON)\n"
    "  exit                     ask the server to shut down\n"
    "  send COMMAND [NAME=VALUE...]  any command; prints the whole reply\n"
    "Exit status: 0 when the server answered OK, 1 otherwise, 2 for a usage error.\n";

bool split_pair(const std::string& arg, std::pair<std::string, std::string>* out)
{
    const auto eq = arg.find('=');
    if (eq == std::string::npos || eq == 0)
        return false;
    *out = {arg.substr(0, eq), arg.substr(eq + 1)};
    return true;
}

void print_reply(const t4mi_client_reply& r)
{
    std::printf("%s %s\n", r.packet.command.c_str(), r.packet.status.c_str());
    for (const auto& a : r.packet.args)
        std::printf("  arg %s\n", a.c_str());
    for (const auto& e : r.packet.entries)
        std::printf("  %s=%s\n", e.name.c_str(), e.value.c_str());
    size_t n = 0;
    const char* data = comm_socket_v4_packet_get_data(&r.packet, &n);
    if (n > 0)
        std::printf("%.*s\n", int(n), data);
}

bool read_input(const std::string& path, std::string* text)
{
    if (path == "-") {
        text->assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
        return true;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::stringstream s;
    s << in.rdbuf();
    *text = s.str();
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    std::string socket_path, metadir;
    int timeout_s = 10;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            std::fputs(usage, stdout);
            return 0;
        }
        if (a == "--version") {
            t4mi_print_version("t4mi_control");
            return 0;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "t4mi_control: %s needs a value\n%s", a.c_str(), usage);
            return 2;
        }
        if (a == "--socket")
            socket_path = argv[++i];
        else if (a == "--metadir")
            metadir = argv[++i];
        else if (a == "--timeout")
            timeout_s = std::atoi(argv[++i]);
        else {
            std::fprintf(stderr, "t4mi_control: unknown option %s\n%s", a.c_str(), usage);
            return 2;
        }
    }
    if (i >= argc || socket_path.empty() == metadir.empty() || timeout_s <= 0) {
        std::fputs(usage, stderr);
        return 2;
    }
    if (!metadir.empty() && !t4mi_client_read_ready(metadir, &socket_path)) {
        std::fprintf(stderr, "t4mi_control: no ready server in %s (status.json)\n", metadir.c_str());
        return 1;
    }
    const std::string command = argv[i++];
    std::vector<std::string> rest(argv + i, argv + argc);

    comm_socket_v4_packet p;
    if (command == "reload" || command == "status" || command == "exit") {
        p.command = command;
    } else if (command == "text" || command == "send") {
        size_t first = 0;
        if (command == "send") {
            if (rest.empty()) {
                std::fputs(usage, stderr);
                return 2;
            }
            p.command = rest[0];
            first = 1;
        } else {
            p.command = "v4::text";
        }
        for (size_t k = first; k < rest.size(); k++) {
            std::pair<std::string, std::string> nv;
            if (!split_pair(rest[k], &nv)) {
                std::fprintf(stderr, "t4mi_control: expected NAME=VALUE, got '%s'\n", rest[k].c_str());
                return 2;
            }
            p.entries.push_back({nv.first, nv.second});
        }
    } else if (command == "data") {
        std::string text;
        if (rest.size() != 1 || !read_input(rest[0], &text)) {
            std::fprintf(stderr, "t4mi_control: data needs one readable JSON file\n");
            return rest.size() != 1 ? 2 : 1;
        }
        p.command = "data";
        p.set_data(text.data(), text.size());
    } else {
        std::fprintf(stderr, "t4mi_control: unknown command '%s'\n%s", command.c_str(), usage);
        return 2;
    }

    t4mi_client client;
    client.timeout_ms = timeout_s * 1000;
    t4mi_client_reply reply;
    if (!client.connect(socket_path, timeout_s * 1000) || !client.call(p, &reply)) {
        std::fprintf(stderr, "t4mi_control: %s\n", client.error().c_str());
        return 1;
    }
    if (command == "status" && reply.ok()) {
        size_t n = 0;
        const char* data = comm_socket_v4_packet_get_data(&reply.packet, &n);
        std::printf("%.*s\n", int(n), data);
    } else {
        print_reply(reply);
    }
    return reply.ok() ? 0 : 1;
}
