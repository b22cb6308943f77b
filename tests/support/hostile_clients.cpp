#include "support/hostile_clients.h"

#include "platform/packet_codec.h"

namespace t4test {

namespace {
constexpr uint32_t LARGEST_PACKET = 8u << 20;
} // namespace

std::vector<uint8_t> encoded_packet(const std::string& command, const std::vector<comm_socket_v4_nv_entry>& entries,
                                    const std::string& data)
{
    comm_socket_v4_packet p;
    p.command = command;
    p.entries = entries;
    p.set_data(data.data(), data.size());
    std::vector<uint8_t> out;
    comm_socket_v4_packet_encode(p, 0, 1, &out);
    return out;
}

// Checked, so that a packet that failed to encode (an empty vector) throws
// rather than writes past it.
void put_u32(std::vector<uint8_t>& b, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        b.at(at + size_t(i)) = uint8_t(v >> (8 * i));
}

std::vector<hostile_connection> malformed_round(const std::string& path, std::mt19937& rng)
{
    std::vector<hostile_connection> out;
    auto open = [&] { return std::make_unique<raw_socket>(path); };
    auto keep = [&](std::unique_ptr<raw_socket> s, bool dropped) { out.push_back({std::move(s), dropped}); };
    const std::vector<uint8_t> frame = encoded_packet("frame", {{"frame", "5"}});

    // Random bytes.
    auto junk = open();
    std::vector<uint8_t> noise(2048);
    for (auto& b : noise)
        b = uint8_t(rng());
    junk->write_some(noise.data(), noise.size());
    keep(std::move(junk), true);

    // A header cut short, and the connection closed under it.
    open()->write_some(frame.data(), 7);

    // A length far past the limit: refused from the header alone.
    auto oversized = open();
    std::vector<uint8_t> big = frame;
    put_u32(big, 4, 0xFFFFFFF0u);
    oversized->write_some(big.data(), big.size());
    keep(std::move(oversized), true);

    // Valid headers over broken bodies: a command length past the end, an
    // entry count past the end, a value length past the end, a NUL in the
    // command, bytes left over after the data.
    std::vector<std::vector<uint8_t>> broken(5, frame);
    broken[0][16] = 0xFF;
    broken[0][17] = 0xFF;
    const size_t entry_count = 16 + 2 + 5 + 2 + 2;
    broken[1][entry_count] = 0xFF;
    broken[1][entry_count + 1] = 0xFF;
    put_u32(broken[2], entry_count + 2 + 2 + 5, 0x7FFFFFFF);
    broken[3][18] = 0;
    put_u32(broken[4], 4, uint32_t(broken[4].size() + 3));
    broken[4].insert(broken[4].end(), {1, 2, 3});
    for (const auto& b : broken) {
        auto s = open();
        s->write_some(b.data(), b.size());
        keep(std::move(s), true);
    }

    // One byte of a well-formed request changed at random: answered, refused
    // or dropped, it costs that connection only. ("v4::text" and "exit" are
    // left out: they are for every client, by design.)
    const std::vector<std::vector<uint8_t>> bases = {
        encoded_packet("status"), frame, encoded_packet("release", {{"frame", "5"}}),
        encoded_packet("settings", {{"width", "64"}, {"height", "16"}}),
        encoded_packet("data", {}, R"({"current":{"title":"x"}})"), encoded_packet("reload")};
    for (int i = 0; i < 3; i++) {
        std::vector<uint8_t> m = bases[rng() % bases.size()];
        m[rng() % m.size()] = uint8_t(rng());
        auto s = open();
        s->write_some(m.data(), m.size());
        keep(std::move(s), false);
    }

    connect_storm(path, 10);
    return out;
}

std::unique_ptr<raw_socket> never_reading_flood(const std::string& path)
{
    auto s = std::make_unique<raw_socket>(path);
    std::vector<uint8_t> many;
    const std::vector<uint8_t> one = encoded_packet("frame", {{"frame", "1"}});
    for (int i = 0; i < 3000; i++)
        many.insert(many.end(), one.begin(), one.end());
    s->write_some(many.data(), many.size());
    return s;
}

std::unique_ptr<raw_socket> unfinished_packet(const std::string& path, size_t bytes)
{
    auto s = std::make_unique<raw_socket>(path);
    const std::vector<uint8_t> frame = encoded_packet("frame", {{"frame", "5"}});
    s->write_some(frame.data(), std::min(bytes, frame.size() - 1));
    return s;
}

std::unique_ptr<raw_socket> silent_connection(const std::string& path) { return std::make_unique<raw_socket>(path); }

std::unique_ptr<raw_socket> big_unfinished_packet(const std::string& path, size_t body)
{
    auto s = std::make_unique<raw_socket>(path);
    // A "status" packet's header; its body never comes whole.
    std::vector<uint8_t> header = encoded_packet("status");
    header.resize(16);
    put_u32(header, 4, LARGEST_PACKET);
    s->write_some(header.data(), header.size());
    send_more(*s, std::min<size_t>(body, LARGEST_PACKET - 17));
    return s;
}

size_t send_more(raw_socket& socket, size_t bytes)
{
    static const std::vector<uint8_t> filler(256u << 10, 0x41);
    size_t sent = 0;
    while (sent < bytes) {
        const size_t chunk = std::min(bytes - sent, filler.size());
        const size_t n = socket.write_some(filler.data(), chunk);
        sent += n;
        if (n < chunk)
            break;
    }
    return sent;
}

std::string schedule_json_of(size_t bytes)
{
    std::string json = "[";
    for (int i = 0; json.size() + 48 < bytes; i++)
        json += (i ? "," : "") + std::string(R"({"title":"Programme )") + std::to_string(i) + R"(","time":1718000000})";
    // Padded with white space to the size asked for.
    json.resize(bytes > json.size() + 1 ? bytes - 1 : json.size(), ' ');
    return json + "]";
}

std::string words_of(size_t bytes)
{
    static const std::string words = "Breaking news: markets close higher as the ticker scrolls on. ";
    std::string text;
    while (text.size() < bytes)
        text += words;
    text.resize(bytes);
    return text;
}

std::vector<uint8_t> data_packet_of(size_t json_bytes) { return encoded_packet("data", {}, schedule_json_of(json_bytes)); }

std::vector<uint8_t> text_packet_of(size_t text_bytes)
{
    return encoded_packet("v4::text", {{"text", words_of(text_bytes)}});
}

void connect_storm(const std::string& path, int count)
{
    for (int i = 0; i < count; i++)
        raw_socket s(path);
}

} // namespace t4test
