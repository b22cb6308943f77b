// Control-socket packets: a command, a status, an argument list, name/value
// entries with text values, and a data blob. This header is the in-memory
// form and its accessors; the wire encoding is in packet_codec (see
// docs/protocol.md for the bytes).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

struct comm_socket_v4_nv_entry {
    std::string name;
    std::string value;
};

struct comm_socket_v4_packet {
    std::string command;
    std::string status;
    std::vector<std::string> args;
    std::vector<comm_socket_v4_nv_entry> entries;
    // The blob, always followed by one NUL byte that is not counted, so that
    // a text blob can be read as a C string.
    std::vector<char> data = std::vector<char>(1, '\0');
    bool writing = false;     // between begin_writing and write_end
    bool argv_ended = false;

    void set_data(const void* bytes, size_t length);
    size_t data_length() const { return data.size() - 1; }
    void reset();
};

// Accessors; every pointer stays valid until the packet changes.
const char* comm_socket_v4_packet_get_command(const comm_socket_v4_packet* p);
size_t comm_socket_v4_packet_nv_entries(const comm_socket_v4_packet* p);
const comm_socket_v4_nv_entry* comm_socket_v4_packet_get_nv_entry(const comm_socket_v4_packet* p, size_t index);
const char* comm_socket_v4_packet_get_nv_pair_name(const comm_socket_v4_packet* p, const comm_socket_v4_nv_entry* e);
const char* comm_socket_v4_packet_get_nv_pair_value_text(const comm_socket_v4_packet* p,
                                                         const comm_socket_v4_nv_entry* e);
// The blob and its length (NUL-terminated beyond the length); length may be null.
const char* comm_socket_v4_packet_get_data(const comm_socket_v4_packet* p, size_t* length);

// Writing a response: begin (resets the packet), arguments, end. 0 on success.
int comm_socket_v4_packet_begin_writing(comm_socket_v4_packet* p, int flags, const char* command, const char* status);
int comm_socket_v4_packet_write_arg(comm_socket_v4_packet* p, const char* arg);
int comm_socket_v4_packet_write_argv_end(comm_socket_v4_packet* p);
int comm_socket_v4_packet_write_nv_text(comm_socket_v4_packet* p, const char* name, const char* value);
int comm_socket_v4_packet_write_end(comm_socket_v4_packet* p);
