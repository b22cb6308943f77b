// Connections a well-behaved client never makes, for the tests and the soak
// run (bench/soak.sh) that check a server shrugs them off: malformed
// streams, half-sent packets, silence, floods, oversize packets, storms.
//
// Each call connects to the socket at `path`, writes what it writes without
// blocking, and hands the connection back (or closes it at once where the
// kind is a hang-up). Nothing here reads replies.
#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/packet.h"
#include "support/serving_env.h"

namespace t4test {

// A packet on the wire, with request id 1 and no flags.
std::vector<uint8_t> encoded_packet(const std::string& command, const std::vector<comm_socket_v4_nv_entry>& entries = {},
                                    const std::string& data = {});
// Stores `v` little-endian at `at`.
void put_u32(std::vector<uint8_t>& bytes, size_t at, uint32_t v);

struct hostile_connection {
    std::unique_ptr<raw_socket> socket;
    bool must_be_dropped = false;  // the server must close it (a malformed stream)
};

// One of each malformed stream: random bytes, a length past the limit,
// valid headers over broken bodies (five kinds), three well-formed requests
// with one byte changed at random, plus a header cut short and ten connects,
// each closed at once (those are not returned).
std::vector<hostile_connection> malformed_round(const std::string& path, std::mt19937& rng);

// Thousands of pipelined frame requests, never reading a reply: the server
// holds 128 frames for it and drops it once its unread replies pass 1 MiB.
std::unique_ptr<raw_socket> never_reading_flood(const std::string& path);

// Sends the first `bytes` bytes of a frame request (7: half a header) and stops.
std::unique_ptr<raw_socket> unfinished_packet(const std::string& path, size_t bytes = 7);

// Connects and says nothing.
std::unique_ptr<raw_socket> silent_connection(const std::string& path);

// A header announcing the largest packet (8 MiB), then `body` bytes of it
// (as many as the socket takes without blocking; send_more() adds more).
std::unique_ptr<raw_socket> big_unfinished_packet(const std::string& path, size_t body);
// Up to `bytes` more filler bytes on such a connection; returns how many went.
size_t send_more(raw_socket& socket, size_t bytes);

// Exactly `bytes` bytes of JSON: an array of small schedule entries (at
// least 2 bytes); and exactly `bytes` bytes of ordinary words.
std::string schedule_json_of(size_t bytes);
std::string words_of(size_t bytes);
// A "data" packet of schedule_json_of(json_bytes), and a "v4::text" packet
// with a "text" entry of words_of(text_bytes).
std::vector<uint8_t> data_packet_of(size_t json_bytes);
std::vector<uint8_t> text_packet_of(size_t text_bytes);

// `count` connections opened and closed at once.
void connect_storm(const std::string& path, int count);

} // namespace t4test
