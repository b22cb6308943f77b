// Control-socket packets (docs/protocol.md has the bytes): a command, a
// status, an argument list, name/value entries with text values, and a data
// blob, as they are held in memory; and the fixed header each one travels
// behind. t4mi_client encodes and decodes them; a client builds a request
// by filling `command` and `entries`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <t4mi/export.h>

struct comm_socket_v4_nv_entry {
    std::string name;
    std::string value;
};

struct T4MI_CLIENT_API comm_socket_v4_packet {
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

// The header of a packet on the wire, as decoded.
struct comm_socket_v4_header {
    uint32_t length = 0;       // bytes of the whole packet, header included
    uint16_t version = 0;
    uint16_t flags = 0;
    uint32_t request_id = 0;
};

// Header flags.
inline constexpr uint16_t COMM_SOCKET_V4_FLAG_REPLY = 0x0001;     // an answer to the request with this id
inline constexpr uint16_t COMM_SOCKET_V4_FLAG_PUSH = 0x0002;      // sent unasked (status updates); id 0
inline constexpr uint16_t COMM_SOCKET_V4_FLAG_FD = 0x0004;        // one descriptor travels with the packet

// Accessors; every pointer stays valid until the packet changes.
T4MI_CLIENT_API const char* comm_socket_v4_packet_get_command(const comm_socket_v4_packet* p);
T4MI_CLIENT_API size_t comm_socket_v4_packet_nv_entries(const comm_socket_v4_packet* p);
T4MI_CLIENT_API const comm_socket_v4_nv_entry* comm_socket_v4_packet_get_nv_entry(const comm_socket_v4_packet* p,
                                                                                  size_t index);
T4MI_CLIENT_API const char* comm_socket_v4_packet_get_nv_pair_name(const comm_socket_v4_packet* p,
                                                                   const comm_socket_v4_nv_entry* e);
T4MI_CLIENT_API const char* comm_socket_v4_packet_get_nv_pair_value_text(const comm_socket_v4_packet* p,
                                                                         const comm_socket_v4_nv_entry* e);
// The blob and its length (NUL-terminated beyond the length); length may be null.
T4MI_CLIENT_API const char* comm_socket_v4_packet_get_data(const comm_socket_v4_packet* p, size_t* length);

// Writing a response: begin (resets the packet), arguments, end. 0 on success.
T4MI_CLIENT_API int comm_socket_v4_packet_begin_writing(comm_socket_v4_packet* p, int flags, const char* command,
                                                        const char* status);
T4MI_CLIENT_API int comm_socket_v4_packet_write_arg(comm_socket_v4_packet* p, const char* arg);
T4MI_CLIENT_API int comm_socket_v4_packet_write_argv_end(comm_socket_v4_packet* p);
T4MI_CLIENT_API int comm_socket_v4_packet_write_nv_text(comm_socket_v4_packet* p, const char* name,
                                                        const char* value);
T4MI_CLIENT_API int comm_socket_v4_packet_write_end(comm_socket_v4_packet* p);
