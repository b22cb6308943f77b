// Reads a Y4M stream with alpha (C444alpha) from a pipe as it arrives, and
// notes the monotonic time each frame has wholly arrived: the time it left
// the writer, as far as a reader can see. Frame headers may name the
// frame number ("FRAME XFRAME=<n>").
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace t4test {

struct y4m_frame {
    int64_t frame_number = -1;  // from the header's XFRAME tag; -1 without one
    int64_t arrived_ns = 0;     // CLOCK_MONOTONIC, nanoseconds
    std::vector<uint8_t> planes;  // Y, U, V, alpha, width * height bytes each
};

class y4m_reader {
public:
    // Reads from `fd` (not owned).
    explicit y4m_reader(int fd) : fd(fd) {}
    // Reads the stream header line within `timeout_ms`; fills width and height.
    bool read_header(int timeout_ms);
    // The next frame within `timeout_ms`; false at the end of the stream
    // (at_end() then), on a time-out or on a malformed frame (error()).
    bool next(y4m_frame* frame, int timeout_ms);
    bool at_end() const { return ended; }
    const std::string& header() const { return header_line; }
    const std::string& error() const { return message; }
    uint32_t width = 0, height = 0;

private:
    // Fills `size` bytes; false at the end, on an error or at the deadline.
    bool read_exact(uint8_t* to, size_t size, int64_t deadline_ns);
    bool read_line(std::string* line, int64_t deadline_ns);

    int fd;
    bool ended = false;
    std::string header_line, message;
};

int64_t monotonic_ns();

} // namespace t4test
