// The wire form of control packets: exact bytes, round trips, and every way
// a byte stream can fail to be a packet.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/packet_codec.h"

namespace {

using result = comm_socket_v4_decode_result;

std::vector<uint8_t> encode(const comm_socket_v4_packet& p, uint16_t flags = 0, uint32_t id = 0)
{
    std::vector<uint8_t> out;
    EXPECT_TRUE(comm_socket_v4_packet_encode(p, flags, id, &out));
    return out;
}

result decode(const std::vector<uint8_t>& bytes, comm_socket_v4_packet* p = nullptr,
              comm_socket_v4_header* h = nullptr, size_t* used = nullptr)
{
    comm_socket_v4_packet local;
    return comm_socket_v4_packet_decode(bytes.data(), bytes.size(), p ? p : &local, h, used);
}

comm_socket_v4_packet full_packet()
{
    comm_socket_v4_packet p;
    p.command = "v4::text";
    p.status = "OK";
    p.args = {"one", "", "three"};
    p.entries = {{"text", "Hello\nWorld"}, {"empty", ""}, {"binary", std::string("a\0b\xff", 4)}};
    const char blob[] = "{\"current\":{\"title\":\"News\"}}";
    p.set_data(blob, sizeof blob - 1);
    return p;
}

void put32(std::vector<uint8_t>& b, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        b[at + size_t(i)] = uint8_t(v >> (8 * i));
}

TEST(PacketCodec, ASmallPacketHasTheseExactBytes)
{
    comm_socket_v4_packet p;
    p.command = "reload";
    // 16 header + (2 + 6) command + 2 status + 2 arg count + 2 entry count
    // + 4 data length = 34 = 0x22 bytes.
    const std::vector<uint8_t> want = {
        'T', '4', 'M', 'P', 0x22, 0, 0, 0, 1, 0, 0x05, 0, 7, 0, 0, 0,  // header: flags 5, id 7
        6, 0, 'r', 'e', 'l', 'o', 'a', 'd',                               // command
        0, 0,                                                             // status ""
        0, 0,                                                             // no arguments
        0, 0,                                                             // no entries
        0, 0, 0, 0,                                                       // no data
    };
    EXPECT_EQ(encode(p, 0x0005, 7), want);
}

TEST(PacketCodec, AnEntryAndDataAreLengthPrefixed)
{
    comm_socket_v4_packet p;
    p.command = "c";
    p.status = "s";
    p.args = {"a"};
    p.entries = {{"n", "vv"}};
    p.set_data("xyz", 3);
    // 16 + 3 + 3 + 2 + 3 + 2 + (2 + 1 + 4 + 2) + 4 + 3 = 45 = 0x2D.
    const std::vector<uint8_t> want = {
        'T', '4', 'M', 'P', 0x2D, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0,
        1, 0, 'c', 1, 0, 's',                   // command, status
        1, 0, 1, 0, 'a',                        // one argument
        1, 0, 1, 0, 'n', 2, 0, 0, 0, 'v', 'v',  // one entry: u16 name, u32 value
        3, 0, 0, 0, 'x', 'y', 'z',              // data
    };
    EXPECT_EQ(encode(p), want);
}

TEST(PacketCodec, RoundTripKeepsEveryField)
{
    const comm_socket_v4_packet p = full_packet();
    const auto bytes = encode(p, COMM_SOCKET_V4_FLAG_REPLY | COMM_SOCKET_V4_FLAG_FD, 0xDEADBEEF);
    comm_socket_v4_packet q;
    comm_socket_v4_header h;
    size_t used = 0;
    ASSERT_EQ(decode(bytes, &q, &h, &used), result::ok);
    EXPECT_EQ(used, bytes.size());
    EXPECT_EQ(h.length, bytes.size());
    EXPECT_EQ(h.version, 1);
    EXPECT_EQ(h.flags, COMM_SOCKET_V4_FLAG_REPLY | COMM_SOCKET_V4_FLAG_FD);
    EXPECT_EQ(h.request_id, 0xDEADBEEFu);
    EXPECT_EQ(q.command, p.command);
    EXPECT_EQ(q.status, p.status);
    EXPECT_EQ(q.args, p.args);
    ASSERT_EQ(q.entries.size(), 3u);
    EXPECT_EQ(q.entries[2].value, std::string("a\0b\xff", 4));
    EXPECT_EQ(q.data_length(), p.data_length());
    EXPECT_STREQ(comm_socket_v4_packet_get_data(&q, nullptr), "{\"current\":{\"title\":\"News\"}}");
}

TEST(PacketCodec, AnEmptyPacketIsTheSmallest)
{
    const auto bytes = encode(comm_socket_v4_packet{});
    EXPECT_EQ(bytes.size(), comm_socket_v4_min_packet);
    EXPECT_EQ(comm_socket_v4_min_packet, 28u);
    EXPECT_EQ(decode(bytes), result::ok);
}

TEST(PacketCodec, TwoPacketsInOneStreamDecodeOneAtATime)
{
    auto bytes = encode(full_packet(), 0, 1);
    const size_t first = bytes.size();
    comm_socket_v4_packet second;
    second.command = "status";
    const auto more = encode(second, 0, 2);
    bytes.insert(bytes.end(), more.begin(), more.end());
    comm_socket_v4_packet q;
    size_t used = 0;
    ASSERT_EQ(decode(bytes, &q, nullptr, &used), result::ok);
    EXPECT_EQ(used, first);
    ASSERT_EQ(comm_socket_v4_packet_decode(bytes.data() + used, bytes.size() - used, &q, nullptr, &used), result::ok);
    EXPECT_EQ(q.command, "status");
}

TEST(PacketCodec, EveryProperPrefixIsIncomplete)
{
    const auto bytes = encode(full_packet());
    comm_socket_v4_packet q;
    for (size_t n = 0; n < bytes.size(); n++)
        EXPECT_EQ(comm_socket_v4_packet_decode(bytes.data(), n, &q, nullptr, nullptr), result::incomplete) << n;
}

TEST(PacketCodec, AWrongFirstByteIsRefusedAtOnce)
{
    const std::vector<uint8_t> garbage = {'G'};
    EXPECT_EQ(decode(garbage), result::malformed);
    const std::vector<uint8_t> http = {'G', 'E', 'T', ' ', '/'};
    EXPECT_EQ(decode(http), result::malformed);
    const std::vector<uint8_t> almost = {'T', '4', 'M', 'Q'};
    EXPECT_EQ(decode(almost), result::malformed);
}

TEST(PacketCodec, AnotherVersionIsMalformed)
{
    auto bytes = encode(full_packet());
    bytes[8] = 2;
    EXPECT_EQ(decode(bytes), result::malformed);
}

TEST(PacketCodec, ALengthBelowTheMinimumOrAboveTheMaximumIsMalformedFromTheHeaderAlone)
{
    auto bytes = encode(comm_socket_v4_packet{});
    put32(bytes, 4, 27);
    EXPECT_EQ(decode(bytes), result::malformed);
    // 8 MiB + 1: refused after 16 bytes, without waiting for the body.
    std::vector<uint8_t> header(bytes.begin(), bytes.begin() + 16);
    put32(header, 4, (8u << 20) + 1);
    comm_socket_v4_header h;
    EXPECT_EQ(comm_socket_v4_peek_header(header.data(), header.size(), &h), result::malformed);
    put32(header, 4, 8u << 20);
    EXPECT_EQ(comm_socket_v4_peek_header(header.data(), header.size(), &h), result::ok);
    EXPECT_EQ(h.length, 8u << 20);
}

TEST(PacketCodec, ACountRunningPastThePacketIsMalformed)
{
    comm_socket_v4_packet p;
    // One letter, not a one-letter literal: GCC 12 at -O3 takes assigning
    // that literal for an overlapping copy (-Wrestrict) that cannot happen.
    p.command.assign(1, 'x');
    auto bytes = encode(p);
    // The entry count sits after header (16), command (3), status (2), args (2).
    bytes[16 + 3 + 2 + 2] = 0xFF;
    bytes[16 + 3 + 2 + 2 + 1] = 0xFF;
    EXPECT_EQ(decode(bytes), result::malformed);
}

TEST(PacketCodec, AValueLengthRunningPastThePacketIsMalformed)
{
    comm_socket_v4_packet p;
    p.entries = {{"n", "v"}};
    auto bytes = encode(p);
    // Entry: after header 16, command 2, status 2, args 2, count 2, name 3.
    put32(bytes, 16 + 2 + 2 + 2 + 2 + 3, 0xFFFFFFF0u);
    EXPECT_EQ(decode(bytes), result::malformed);
}

TEST(PacketCodec, ADataLengthThatDisagreesWithThePacketLengthIsMalformed)
{
    comm_socket_v4_packet p;
    p.set_data("abcd", 4);
    auto bytes = encode(p);
    put32(bytes, bytes.size() - 8, 3);  // says 3, 4 follow
    EXPECT_EQ(decode(bytes), result::malformed);
    put32(bytes, bytes.size() - 8, 5);  // says 5, 4 follow
    EXPECT_EQ(decode(bytes), result::malformed);
}

TEST(PacketCodec, BytesLeftOverInsideThePacketAreMalformed)
{
    auto bytes = encode(comm_socket_v4_packet{});
    bytes.push_back(0);
    put32(bytes, 4, uint32_t(bytes.size()));
    EXPECT_EQ(decode(bytes), result::malformed);
}

TEST(PacketCodec, ANulInACommandOrNameIsMalformed)
{
    comm_socket_v4_packet p;
    p.command = "reloadX";
    auto bytes = encode(p);
    bytes[16 + 2 + 6] = 0;  // "reload\0"
    EXPECT_EQ(decode(bytes), result::malformed);

    comm_socket_v4_packet q;
    q.command = std::string("reload\0x", 8);
    std::vector<uint8_t> out;
    EXPECT_FALSE(comm_socket_v4_packet_encode(q, 0, 0, &out));
    EXPECT_TRUE(out.empty());
}

TEST(PacketCodec, EncodeRefusesWhatDoesNotFit)
{
    std::vector<uint8_t> out;
    comm_socket_v4_packet p;
    p.command.assign(65536, 'c');
    EXPECT_FALSE(comm_socket_v4_packet_encode(p, 0, 0, &out));
    comm_socket_v4_packet big;
    const std::string blob(8u << 20, 'x');
    big.set_data(blob.data(), blob.size());  // 8 MiB of data plus the 28-byte frame is too much
    EXPECT_FALSE(comm_socket_v4_packet_encode(big, 0, 0, &out));
    big.set_data(blob.data(), blob.size() - comm_socket_v4_min_packet);
    EXPECT_TRUE(comm_socket_v4_packet_encode(big, 0, 0, &out));
    EXPECT_EQ(out.size(), 8u << 20);
    EXPECT_EQ(decode(out), result::ok);
}

// Random damage to valid packets: decoding never crashes, never reads past
// the bytes given, and whatever it accepts encodes back to the same bytes.
TEST(PacketCodec, DamagedPacketsNeverCrashAndAcceptedOnesRoundTrip)
{
    std::mt19937 rng(12345);
    const auto good = encode(full_packet(), 3, 99);
    for (int round = 0; round < 20000; round++) {
        std::vector<uint8_t> b = good;
        const int edits = 1 + int(rng() % 4);
        for (int e = 0; e < edits; e++) {
            switch (rng() % 3) {
            case 0:
                b[rng() % b.size()] = uint8_t(rng());
                break;
            case 1:
                b.resize(rng() % (b.size() + 1));
                break;
            default:
                b.insert(b.begin() + long(rng() % (b.size() + 1)), uint8_t(rng()));
            }
            if (b.empty())
                break;
        }
        // Exact-size heap copy, so a read past the end would be caught by sanitizers.
        std::unique_ptr<uint8_t[]> exact(new uint8_t[b.size() + 1]);
        std::copy(b.begin(), b.end(), exact.get());
        comm_socket_v4_packet q;
        comm_socket_v4_header h;
        size_t used = 0;
        if (comm_socket_v4_packet_decode(exact.get(), b.size(), &q, &h, &used) == result::ok) {
            std::vector<uint8_t> again;
            ASSERT_TRUE(comm_socket_v4_packet_encode(q, h.flags, h.request_id, &again));
            ASSERT_EQ(again, std::vector<uint8_t>(b.begin(), b.begin() + long(used)));
        }
    }
}

} // namespace
