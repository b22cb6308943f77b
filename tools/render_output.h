// What t4mi_render writes: a Y4M stream with alpha, PNG frames and a
// contact sheet.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

struct t4mi_client_frame;

// YUV4MPEG2 with the "C444alpha" colour space: per frame, the Y, U, V and
// alpha planes at full resolution, tightly packed (width bytes a row).
// FFmpeg reads it as yuva444p. Studio range (Y 16..235), as the server
// renders.
class y4m_writer {
public:
    ~y4m_writer();
    // `path` "-" writes to standard output. The rate is frames per second
    // as a fraction; the pixel aspect 0:0 means unknown.
    bool open(const std::string& path, uint32_t width, uint32_t height, int64_t rate_num, int64_t rate_den,
              uint32_t pixel_aspect_num, uint32_t pixel_aspect_den, std::string* error);
    // False when the frame's size differs or writing fails.
    bool write_frame(const t4mi_client_frame& frame, std::string* error);
    // Hands what is buffered to the output now (a live frame leaves whole).
    bool flush(std::string* error);
    bool close(std::string* error);
    // From now on every frame header names the frame number it shows
    // ("FRAME XFRAME=<n>"), for readers that check which frames came.
    // FFmpeg skips the tag when it reads on, but works out positions and
    // timestamps from the untagged frame size, so a tagged file does not
    // seek there.
    void tag_frames() { tagged = true; }
    // The errno of the last failed write (EPIPE: the reader went away).
    int write_errno() const { return last_errno; }

private:
    FILE* out = nullptr;
    bool own = false;
    bool tagged = false;
    int last_errno = 0;
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> row;
};

// A grid of reduced frames over a checkerboard (so transparency shows).
class contact_sheet {
public:
    // Room for `count` frames of width x height pixels.
    contact_sheet(uint32_t width, uint32_t height, uint32_t count);
    // Places frame number `index` (0 .. count-1) of the sheet.
    void add(uint32_t index, const t4mi_client_frame& frame);
    bool write(const std::string& path, std::string* error) const;
    uint32_t sheet_width() const { return columns * (thumb_w + gap) + gap; }
    uint32_t sheet_height() const { return rows * (thumb_h + gap) + gap; }

private:
    uint32_t frame_w, frame_h, thumb_w, thumb_h, columns, rows;
    static constexpr uint32_t gap = 8;
    std::vector<uint8_t> rgba;
};

// Writes one frame as an RGBA PNG (BT.601 studio range back to RGB).
bool write_frame_png(const std::string& path, const t4mi_client_frame& frame, std::string* error);
