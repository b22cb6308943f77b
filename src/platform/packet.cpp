#include "platform/packet.h"

void comm_socket_v4_packet::set_data(const void* bytes, size_t length)
{
    const char* b = static_cast<const char*>(bytes);
    data.assign(b, b + length);
    data.push_back('\0');
}

void comm_socket_v4_packet::reset() { *this = comm_socket_v4_packet{}; }

const char* comm_socket_v4_packet_get_command(const comm_socket_v4_packet* p) { return p->command.c_str(); }
size_t comm_socket_v4_packet_nv_entries(const comm_socket_v4_packet* p) { return p->entries.size(); }

const comm_socket_v4_nv_entry* comm_socket_v4_packet_get_nv_entry(const comm_socket_v4_packet* p, size_t index)
{
    return index < p->entries.size() ? &p->entries[index] : nullptr;
}

const char* comm_socket_v4_packet_get_nv_pair_name(const comm_socket_v4_packet*, const comm_socket_v4_nv_entry* e)
{
    return e ? e->name.c_str() : nullptr;
}

const char* comm_socket_v4_packet_get_nv_pair_value_text(const comm_socket_v4_packet*, const comm_socket_v4_nv_entry* e)
{
    return e ? e->value.c_str() : nullptr;
}

const char* comm_socket_v4_packet_get_data(const comm_socket_v4_packet* p, size_t* length)
{
    if (length != nullptr)
        *length = p->data_length();
    return p->data.data();
}

int comm_socket_v4_packet_begin_writing(comm_socket_v4_packet* p, int, const char* command, const char* status)
{
    if (command == nullptr || status == nullptr)
        return 1;
    p->reset();
    p->command = command;
    p->status = status;
    p->writing = true;
    return 0;
}

int comm_socket_v4_packet_write_arg(comm_socket_v4_packet* p, const char* arg)
{
    if (!p->writing || p->argv_ended || arg == nullptr)
        return 1;
    p->args.emplace_back(arg);
    return 0;
}

int comm_socket_v4_packet_write_argv_end(comm_socket_v4_packet* p)
{
    if (!p->writing)
        return 1;
    p->argv_ended = true;
    return 0;
}

int comm_socket_v4_packet_write_nv_text(comm_socket_v4_packet* p, const char* name, const char* value)
{
    if (!p->writing || name == nullptr || value == nullptr)
        return 1;
    p->entries.push_back({name, value});
    return 0;
}

int comm_socket_v4_packet_write_end(comm_socket_v4_packet* p)
{
    if (!p->writing)
        return 1;
    p->writing = false;
    return 0;
}
