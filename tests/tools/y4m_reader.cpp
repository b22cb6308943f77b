#include "y4m_reader.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <unistd.h>

namespace t4test {

int64_t monotonic_ns()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

bool y4m_reader::read_exact(uint8_t* to, size_t size, int64_t deadline_ns)
{
    size_t got = 0;
    while (got < size) {
        const int64_t left_ms = (deadline_ns - monotonic_ns()) / 1000000;
        if (left_ms < 0) {
            message = "timed out";
            return false;
        }
        pollfd p{fd, POLLIN, 0};
        const int r = poll(&p, 1, int(left_ms) + 1);
        if (r < 0 && errno != EINTR) {
            message = std::strerror(errno);
            return false;
        }
        if (r <= 0)
            continue;
        const ssize_t n = read(fd, to + got, size - got);
        if (n == 0) {
            ended = true;
            message = got == 0 ? "end of stream" : "the stream ends inside a frame";
            return false;
        }
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            message = std::strerror(errno);
            return false;
        }
        got += size_t(n);
    }
    return true;
}

bool y4m_reader::read_line(std::string* line, int64_t deadline_ns)
{
    line->clear();
    uint8_t c = 0;
    while (line->size() < 256) {
        if (!read_exact(&c, 1, deadline_ns))
            return false;
        if (c == '\n')
            return true;
        line->push_back(char(c));
    }
    message = "header line too long";
    return false;
}

bool y4m_reader::read_header(int timeout_ms)
{
    if (!read_line(&header_line, monotonic_ns() + int64_t(timeout_ms) * 1000000))
        return false;
    const auto w = header_line.find(" W"), h = header_line.find(" H");
    if (header_line.rfind("YUV4MPEG2 ", 0) != 0 || w == std::string::npos || h == std::string::npos) {
        message = "not a Y4M header: " + header_line;
        return false;
    }
    width = uint32_t(std::strtoul(header_line.c_str() + w + 2, nullptr, 10));
    height = uint32_t(std::strtoul(header_line.c_str() + h + 2, nullptr, 10));
    return width > 0 && height > 0;
}

bool y4m_reader::next(y4m_frame* frame, int timeout_ms)
{
    const int64_t deadline = monotonic_ns() + int64_t(timeout_ms) * 1000000;
    std::string line;
    if (!read_line(&line, deadline))
        return false;
    if (line.rfind("FRAME", 0) != 0) {
        message = "not a frame header: " + line;
        return false;
    }
    frame->frame_number = -1;
    if (const auto tag = line.find(" XFRAME="); tag != std::string::npos)
        frame->frame_number = std::strtoll(line.c_str() + tag + 8, nullptr, 10);
    frame->planes.resize(size_t(width) * height * 4);
    if (!read_exact(frame->planes.data(), frame->planes.size(), deadline))
        return false;
    frame->arrived_ns = monotonic_ns();
    return true;
}

} // namespace t4test
