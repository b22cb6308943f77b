// A served frame as a PNG with its alpha, for the browser.
#pragma once

#include <string>

struct t4mi_client_frame;

// Converts the frame's visible 4:4:4 studio-range YUVA pixels to RGBA (the
// inverse matrix of frames/yuva_png.h) and encodes them as an 8-bit RGBA
// PNG at a fast compression level. False when libpng fails.
bool frame_to_png(const t4mi_client_frame& frame, std::string* png);
