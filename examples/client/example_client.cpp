// What a playout system writes to take frames from t4mi_scrolltext: connect
// to the item's control socket, send the picture settings, ask for a few
// frames, use them in place in shared memory, give them back. Here "use"
// means writing one of them as an RGBA PNG.
//
//   t4mi_example_client SOCKET OUT.png
#include <cstdio>
#include <vector>

#include <png.h>
#include <t4mi/client.h>

namespace {

uint8_t clamp_byte(int v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); }

// The server's frames are 4:4:4 studio-range YUV (BT.601) with alpha.
bool write_png(const char* path, const t4mi_client_frame& f)
{
    std::vector<uint8_t> rgba(size_t(f.width) * f.height * 4);
    for (uint32_t row = 0; row < f.height; row++)
        for (uint32_t col = 0; col < f.width; col++) {
            const int y = f.y[row * f.y_stride + col] - 16;
            const int u = f.u[row * f.u_stride + col] - 128;
            const int v = f.v[row * f.v_stride + col] - 128;
            uint8_t* out = &rgba[(size_t(row) * f.width + col) * 4];
            out[0] = clamp_byte((298 * y + 409 * v + 128) >> 8);
            out[1] = clamp_byte((298 * y - 100 * u - 208 * v + 128) >> 8);
            out[2] = clamp_byte((298 * y + 516 * u + 128) >> 8);
            out[3] = f.alpha != nullptr ? f.alpha[row * f.alpha_stride + col] : 255;
        }
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = f.width;
    image.height = f.height;
    image.format = PNG_FORMAT_RGBA;
    return png_image_write_to_file(&image, path, 0, rgba.data(), 0, nullptr) != 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s SOCKET OUT.png\n", argv[0]);
        return 2;
    }
    t4mi_client client;
    t4mi_client_settings settings;
    settings.width = 1920;  // a lower-third ticker strip at 29.97 frames a second
    settings.height = 108;
    settings.time_scale = 30000;
    settings.frame_duration = 1001;
    t4mi_client_reply reply;
    if (!client.connect(argv[1]) || !client.send_settings(settings, &reply)) {
        std::fprintf(stderr, "%s\n", client.error().c_str());
        return 1;
    }
    std::printf("t4mi SDK %s, context %sx%s\n", T4MI_VERSION, reply.entry("width").c_str(),
                reply.entry("height").c_str());

    // One second of frames, as playout asks for them: request, use, release.
    for (uint64_t n = 0; n < 30; n++) {
        t4mi_client_frame frame;
        if (!client.request_frame(n, 0, 0, &frame)) {
            std::fprintf(stderr, "frame %llu: %s\n", (unsigned long long)n, client.error().c_str());
            return 1;
        }
        if (n == 29 && !write_png(argv[2], frame)) {
            std::fprintf(stderr, "cannot write %s\n", argv[2]);
            return 1;
        }
        client.release_frame(n);
    }
    std::printf("wrote %s\n", argv[2]);
    return 0;
}
