#include "platform/packet_codec.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace {

uint16_t get16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
uint32_t get32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }

void put16(std::vector<uint8_t>& out, uint16_t v)
{
    out.push_back(uint8_t(v));
    out.push_back(uint8_t(v >> 8));
}
void put32(std::vector<uint8_t>& out, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        out.push_back(uint8_t(v >> (8 * i)));
}

// Walks a body, never past `end`; any read that would pass it fails the walk.
class body_reader {
public:
    body_reader(const uint8_t* p, const uint8_t* end) : at(p), limit(end) {}

    bool u16(uint16_t* v)
    {
        if (limit - at < 2)
            return false;
        *v = get16(at);
        at += 2;
        return true;
    }
    bool u32(uint32_t* v)
    {
        if (limit - at < 4)
            return false;
        *v = get32(at);
        at += 4;
        return true;
    }
    bool bytes(size_t n, std::string* s)
    {
        if (size_t(limit - at) < n)
            return false;
        s->assign(reinterpret_cast<const char*>(at), n);
        at += n;
        return true;
    }
    // A u16-counted text field: no NUL bytes inside.
    bool text(std::string* s)
    {
        uint16_t n = 0;
        return u16(&n) && bytes(n, s) && s->find('\0') == std::string::npos;
    }
    bool at_end() const { return at == limit; }
    const uint8_t* position() const { return at; }
    void skip(size_t n) { at += n; }
    size_t left() const { return size_t(limit - at); }

private:
    const uint8_t* at;
    const uint8_t* limit;
};

bool fits_text(const std::string& s) { return s.size() <= 0xFFFF && s.find('\0') == std::string::npos; }

} // namespace

comm_socket_v4_decode_result comm_socket_v4_peek_header(const uint8_t* bytes, size_t size,
                                                        comm_socket_v4_header* header)
{
    using r = comm_socket_v4_decode_result;
    if (size == 0)
        return r::incomplete;
    // Refuse a wrong magic as soon as its first byte is wrong, so garbage is
    // recognised without waiting for 16 bytes.
    const size_t magic_seen = size < 4 ? size : 4;
    if (std::memcmp(bytes, comm_socket_v4_magic, magic_seen) != 0)
        return r::malformed;
    if (size < comm_socket_v4_header_size)
        return r::incomplete;
    comm_socket_v4_header h;
    h.length = get32(bytes + 4);
    h.version = get16(bytes + 8);
    h.flags = get16(bytes + 10);
    h.request_id = get32(bytes + 12);
    if (h.version != comm_socket_v4_version || h.length < comm_socket_v4_min_packet ||
        h.length > comm_socket_v4_max_packet)
        return r::malformed;
    if (header != nullptr)
        *header = h;
    return r::ok;
}

comm_socket_v4_decode_result comm_socket_v4_packet_decode(const uint8_t* bytes, size_t size,
                                                          comm_socket_v4_packet* packet,
                                                          comm_socket_v4_header* header, size_t* consumed)
{
    using r = comm_socket_v4_decode_result;
    comm_socket_v4_header h;
    const r head = comm_socket_v4_peek_header(bytes, size, &h);
    if (head != r::ok)
        return head;
    if (size < h.length)
        return r::incomplete;

    comm_socket_v4_packet p;
    body_reader in(bytes + comm_socket_v4_header_size, bytes + h.length);
    uint16_t count = 0;
    if (!in.text(&p.command) || !in.text(&p.status) || !in.u16(&count))
        return r::malformed;
    p.args.reserve(std::min<size_t>(count, in.left() / 2)); // a count is only a claim
    for (uint16_t i = 0; i < count; i++) {
        std::string arg;
        if (!in.text(&arg))
            return r::malformed;
        p.args.push_back(std::move(arg));
    }
    if (!in.u16(&count))
        return r::malformed;
    p.entries.reserve(std::min<size_t>(count, in.left() / 6));
    for (uint16_t i = 0; i < count; i++) {
        comm_socket_v4_nv_entry e;
        uint32_t value_length = 0;
        if (!in.text(&e.name) || !in.u32(&value_length) || !in.bytes(value_length, &e.value))
            return r::malformed;
        p.entries.push_back(std::move(e));
    }
    uint32_t data_length = 0;
    if (!in.u32(&data_length) || in.left() != data_length)
        return r::malformed;
    p.set_data(in.position(), data_length);
    in.skip(data_length);
    if (!in.at_end())
        return r::malformed;

    *packet = std::move(p);
    if (header != nullptr)
        *header = h;
    if (consumed != nullptr)
        *consumed = h.length;
    return r::ok;
}

bool comm_socket_v4_packet_encode(const comm_socket_v4_packet& p, uint16_t flags, uint32_t request_id,
                                  std::vector<uint8_t>* out)
{
    if (!fits_text(p.command) || !fits_text(p.status) || p.args.size() > 0xFFFF || p.entries.size() > 0xFFFF)
        return false;
    size_t total = comm_socket_v4_min_packet + p.command.size() + p.status.size() + p.data_length();
    for (const auto& a : p.args) {
        if (!fits_text(a))
            return false;
        total += 2 + a.size();
    }
    for (const auto& e : p.entries) {
        if (!fits_text(e.name) || e.value.size() > comm_socket_v4_max_packet)
            return false;
        total += 2 + e.name.size() + 4 + e.value.size();
    }
    if (total > comm_socket_v4_max_packet)
        return false;

    out->reserve(out->size() + total);
    out->insert(out->end(), comm_socket_v4_magic, comm_socket_v4_magic + 4);
    put32(*out, uint32_t(total));
    put16(*out, comm_socket_v4_version);
    put16(*out, flags);
    put32(*out, request_id);
    auto put_text16 = [&](const std::string& s) {
        put16(*out, uint16_t(s.size()));
        out->insert(out->end(), s.begin(), s.end());
    };
    put_text16(p.command);
    put_text16(p.status);
    put16(*out, uint16_t(p.args.size()));
    for (const auto& a : p.args)
        put_text16(a);
    put16(*out, uint16_t(p.entries.size()));
    for (const auto& e : p.entries) {
        put_text16(e.name);
        put32(*out, uint32_t(e.value.size()));
        out->insert(out->end(), e.value.begin(), e.value.end());
    }
    size_t data_length = 0;
    const char* data = comm_socket_v4_packet_get_data(&p, &data_length);
    put32(*out, uint32_t(data_length));
    out->insert(out->end(), data, data + data_length);
    return true;
}
