// Looking at frames: YUVA planes back to RGBA, and RGBA PNG files.
//
// The frame path converts colours to YUV with the BT.601 studio-range
// matrix (Y 16..235, U and V 16..240 around 128). The inverse used here is
// the usual integer form of the same matrix:
//   C = Y - 16, D = U - 128, E = V - 128
//   R = (298 C + 409 E + 128) >> 8
//   G = (298 C - 100 D - 208 E + 128) >> 8
//   B = (298 C + 516 D + 128) >> 8
// each clamped to 0..255; alpha is copied. White (235, 128, 128) comes back
// as 255, 255, 255 and black (16, 128, 128) as 0, 0, 0.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct yuva_frame_planes;

// One pixel.
void yuv_to_rgb(uint8_t y, uint8_t u, uint8_t v, uint8_t* r, uint8_t* g, uint8_t* b);

// Converts 4:4:4 planes to tightly packed RGBA (4 bytes a pixel, rows of
// width x 4 bytes). Without an alpha plane, alpha is 255.
std::vector<uint8_t> yuva_to_rgba(const yuva_frame_planes& planes);

// Writes 8-bit RGBA (rows of width x 4 bytes) as a PNG file. False, with a
// message in `error` when given, on any failure; a partial file is removed.
bool write_rgba_png(const std::string& path, const uint8_t* rgba, uint32_t width, uint32_t height,
                    std::string* error = nullptr);

// Reads any PNG as 8-bit RGBA (palette, grey and 16-bit are converted).
bool read_rgba_png(const std::string& path, std::vector<uint8_t>* rgba, uint32_t* width, uint32_t* height,
                   std::string* error = nullptr);

// yuva_to_rgba then write_rgba_png.
bool write_yuva_png(const std::string& path, const yuva_frame_planes& planes, std::string* error = nullptr);
