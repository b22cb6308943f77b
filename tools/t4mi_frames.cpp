// t4mi_frames: renders frames of an item in-process (no server, no socket)
// and writes them as PNG (RGBA) and raw YUVA planes, for people to look at.
//
//   t4mi_frames --file ITEM [--type MIME] [--size 1920x108] [--aspect 16:9]
//               [--rate 30000/1001] [--frames 0,100,250] [--out DIR] [--raw]
//
// Fixed paths (fonts, emoji images) honour T4MI_ROOT like the server does.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "frames/frame_buffer.h"
#include "frames/render_session.h"
#include "frames/yuva_png.h"
#include "platform/video_frame.h"

namespace {
void usage()
{
    std::fprintf(stderr, "Usage: t4mi_frames --file ITEM [--type MIME] [--size WxH] [--aspect N:D] [--rate S/D]\n"
                         "                   [--frames N,N,...] [--out DIR] [--raw]\n");
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
} // namespace

int main(int argc, char** argv)
{
    std::string file, type, out = ".";
    render_geometry g;
    g.height = 108;
    std::vector<uint64_t> frames = {0};
    bool raw = false;
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        if (a == "--raw") {
            raw = true;
            continue;
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
        if (!write_yuva_png(base + ".png", planes, &err) || (raw && !write_raw(base + ".yuva", planes))) {
            std::fprintf(stderr, "t4mi_frames: cannot write %s: %s\n", base.c_str(), err.c_str());
            return 1;
        }
        std::printf("%s.png\n", base.c_str());
    }
    return 0;
}
