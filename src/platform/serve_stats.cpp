#include "platform/serve_stats.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <deque>
#include <unistd.h>

namespace {

constexpr uint64_t TENTH_US = 100000;

struct frame_counter {
    uint64_t total = 0;
    // Replies per tenth of a second, indexed by (tenth % 16): 16 > 10 + 1,
    // so the last whole second and the running tenth never share a slot.
    std::array<uint64_t, 16> per_tenth{};
    std::array<uint64_t, 16> tenth_of_slot{};
} frames;

struct message_memory {
    std::deque<std::string> lines;
    std::string partial;
} messages;

ssize_t stderr_write(void*, const char* buffer, size_t size)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t n = write(STDERR_FILENO, buffer + done, size - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += size_t(n);
    }
    // Remembered whether or not descriptor 2 took it: a message that did not
    // reach a broken log is still worth showing to an operator.
    serve_stats_note_output(buffer, size);
    return done == size ? ssize_t(size) : -1;
}

} // namespace

void serve_stats_frame_served(uint64_t now_us)
{
    ++frames.total;
    const uint64_t tenth = now_us / TENTH_US;
    const size_t slot = tenth % frames.per_tenth.size();
    if (frames.tenth_of_slot[slot] != tenth) {
        frames.tenth_of_slot[slot] = tenth;
        frames.per_tenth[slot] = 0;
    }
    ++frames.per_tenth[slot];
}

uint64_t serve_stats_frames_served() { return frames.total; }

uint64_t serve_stats_frames_last_second(uint64_t now_us)
{
    const uint64_t now_tenth = now_us / TENTH_US;
    uint64_t sum = 0;
    for (uint64_t back = 1; back <= 10 && back <= now_tenth; ++back) {
        const uint64_t tenth = now_tenth - back;
        const size_t slot = tenth % frames.per_tenth.size();
        if (frames.tenth_of_slot[slot] == tenth)
            sum += frames.per_tenth[slot];
    }
    return sum;
}

void serve_stats_note_output(const char* bytes, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        if (bytes[i] != '\n') {
            if (messages.partial.size() < SERVE_STATS_MESSAGE_BYTES)
                messages.partial += bytes[i];
            continue;
        }
        messages.lines.push_back(std::move(messages.partial));
        messages.partial.clear();
        if (messages.lines.size() > SERVE_STATS_MESSAGES)
            messages.lines.pop_front();
    }
}

std::vector<std::string> serve_stats_recent_messages()
{
    return {messages.lines.begin(), messages.lines.end()};
}

bool serve_stats_capture_stderr()
{
    cookie_io_functions_t io{};
    io.write = stderr_write;
    FILE* stream = fopencookie(nullptr, "w", io);
    if (stream == nullptr)
        return false;
    setvbuf(stream, nullptr, _IONBF, 0);
    std::fflush(stderr);
    stderr = stream;
    return true;
}

void serve_stats_reset()
{
    frames = frame_counter{};
    messages = message_memory{};
}
