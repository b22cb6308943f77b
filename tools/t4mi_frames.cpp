// t4mi_frames: renders frames of an item in-process (no server, no socket)
// and writes them as PNG (RGBA) and raw YUVA planes, for people to look at.
//
//   t4mi_frames --file ITEM [--type MIME] [--size 1920x108] [--aspect 16:9]
//               [--rate 30000/1001] [--frames 0,100,250] [--out DIR] [--raw]
//               [--over RRGGBB] [--crop X,Y,W,H] [--zoom K]
//
// --over composites the frame over an opaque colour in the PNG (the raw
// planes stay as rendered), to look at light text on a transparent frame.
// --crop and --zoom cut a piece out of the PNG and enlarge it K times
// (nearest neighbour), to look at single pixels.
//
// Fixed paths (fonts, emoji images) honour T4MI_ROOT like the server does.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "frames/frame_buffer.h"
#include "main/render_session.h"
#include "frames/yuva_png.h"
#include "platform/args.h"
#include "platform/video_frame.h"

namespace {
void usage(std::FILE* to = stderr)
{
    std::fprintf(to, "Usage: t4mi_frames --file ITEM [--type MIME] [--size WxH] [--aspect N:D] [--rate S/D]\n"
                     "                   [--frames N,N,...] [--out DIR] [--raw] [--over RRGGBB]\n"
                     "                   [--crop X,Y,W,H] [--zoom K]\n"
                     "       t4mi_frames --help | --version\n");
}

bool write_raw(const std::string& path, const yuva_frame_planes& p)
{
    std::ofstream out(path, std::ios::binary);
    const uint8_t* planes[4] = {p.y, p.u, p.v, p.alpha};
    const uint32_t strides[4] = {p.y_stride, p.chroma_stride, p.chroma_stride, p.alpha_stride};
    for (int i = 0; i < 4; i++)
        for (uint32_t row = 0; row < p.height; row++)
            out.write(reinterpret_cast<const char*>(planes[i] + size_t(row) * strides[i]), p.width);
    return bool(out);
}

// RGBA composited over an opaque colour: the usual "over", for looking only.
void composite_over(std::vector<uint8_t>& rgba, uint32_t colour)
{
    const int under[3] = {int(colour >> 16) & 0xFF, int(colour >> 8) & 0xFF, int(colour) & 0xFF};
    for (size_t i = 0; i + 3 < rgba.size(); i += 4) {
        const int a = rgba[i + 3];
        for (int c = 0; c < 3; c++)
            rgba[i + c] = uint8_t((rgba[i + c] * a + under[c] * (255 - a) + 127) / 255);
        rgba[i + 3] = 255;
    }
}
// The crop (clipped to the picture) of RGBA rows, each pixel repeated
// `zoom` times in both directions.
std::vector<uint8_t> crop_and_zoom(const std::vector<uint8_t>& rgba, uint32_t width, uint32_t height, int crop[4],
                                   int zoom, uint32_t* out_w, uint32_t* out_h)
{
    const int x0 = std::clamp(crop[0], 0, int(width)), y0 = std::clamp(crop[1], 0, int(height));
    const int w = std::clamp(crop[2], 0, int(width) - x0), h = std::clamp(crop[3], 0, int(height) - y0);
    *out_w = uint32_t(w * zoom);
    *out_h = uint32_t(h * zoom);
    std::vector<uint8_t> out(size_t(*out_w) * *out_h * 4);
    for (uint32_t y = 0; y < *out_h; y++)
        for (uint32_t x = 0; x < *out_w; x++)
            for (int c = 0; c < 4; c++)
                out[(size_t(y) * *out_w + x) * 4 + c] =
                    rgba[(size_t(y0 + int(y) / zoom) * width + size_t(x0 + int(x) / zoom)) * 4 + c];
    return out;
}
} // namespace

int main(int argc, char** argv)
{
    std::string file, type, out = ".";
    render_geometry g;
    g.height = 108;
    std::vector<uint64_t> frames = {0};
    bool raw = false;
    bool over = false;
    uint32_t over_colour = 0;
    int crop[4] = {0, 0, 1 << 30, 1 << 30};
    int zoom = 1;
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        if (a == "--raw") {
            raw = true;
            continue;
        }
        if (a == "-h" || a == "--help") {
            usage(stdout);
            return 0;
        }
        if (a == "--version") {
            t4mi_print_version("t4mi_frames");
            return 0;
        }
        if (v == nullptr) {
            usage();
            return 1;
        }
        i++;
        if (a == "--file")
            file = v;
        else if (a == "--type")
            type = v;
        else if (a == "--out")
            out = v;
        else if (a == "--crop" && std::sscanf(v, "%d,%d,%d,%d", &crop[0], &crop[1], &crop[2], &crop[3]) == 4) {
        } else if (a == "--zoom" && std::sscanf(v, "%d", &zoom) == 1 && zoom >= 1 && zoom <= 64) {
        } else if (a == "--over") {
            over = true;
            over_colour = uint32_t(std::strtoul(v, nullptr, 16));
        }
        else if (a == "--size" && std::sscanf(v, "%dx%d", &g.width, &g.height) == 2) {
        } else if (a == "--aspect" && std::sscanf(v, "%ld:%ld", &g.aspect_num, &g.aspect_den) == 2) {
        } else if (a == "--rate" && std::sscanf(v, "%ld/%ld", &g.time_scale, &g.frame_duration) == 2) {
        } else if (a == "--frames") {
            frames.clear();
            std::stringstream list(v);
            for (std::string n; std::getline(list, n, ',');)
                frames.push_back(std::strtoull(n.c_str(), nullptr, 10));
        } else {
            usage();
            return 1;
        }
    }
    if (file.empty()) {
        usage();
        return 1;
    }
    mkdir(out.c_str(), 0755);
    render_session session;
    std::string err;
    const uint64_t budget = 256ull << 20;
    if (!session.open(budget, &err) || !session.load_item(file, type, &err)) {
        std::fprintf(stderr, "t4mi_frames: %s\n", err.c_str());
        return 1;
    }
    scrolling_text_client_context* ctx = session.new_context(g);
    for (uint64_t n : frames) {
        t4mi_video_frame* frame = session.frame(ctx, n);
        yuva_frame_planes planes;
        if (frame == nullptr || !map_frame_planes(frame, &planes)) {
            std::fprintf(stderr, "t4mi_frames: frame %llu could not be rendered\n", (unsigned long long)n);
            return 1;
        }
        const std::string base = out + "/frame_" + std::to_string(n);
        std::vector<uint8_t> rgba = yuva_to_rgba(planes);
        if (over)
            composite_over(rgba, over_colour);
        uint32_t png_w = 0, png_h = 0;
        rgba = crop_and_zoom(rgba, planes.width, planes.height, crop, zoom, &png_w, &png_h);
        if (!write_rgba_png(base + ".png", rgba.data(), png_w, png_h, &err) ||
            (raw && !write_raw(base + ".yuva", planes))) {
            std::fprintf(stderr, "t4mi_frames: cannot write %s: %s\n", base.c_str(), err.c_str());
            return 1;
        }
        std::printf("%s.png\n", base.c_str());
    }
    return 0;
}
