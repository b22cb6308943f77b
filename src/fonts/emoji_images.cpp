// Colour emoji images, read with libpng once per process.
//
// Only the one format our image set is made in is accepted (8- or 16-bit
// RGBA, 16 to 256 pixels, not interlaced); anything else is refused with a
// message rather than converted, so a bad file shows up in the log once and
// the character falls back to the emoji face.
#include "fonts/emoji_images.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <png.h>

#include "fonts/font_bmp.h"
#include "fonts/font_globals.h"
#include "frames/yuva_pixel.h"
#include "platform/fixed_paths.h"
#include "platform/t4mi_assert.h"
#include "platform/t4mi_globals.h"

namespace {

void png_error_message(png_structp, png_const_charp message)
{
    std::fprintf(stderr, "PNG ERROR: %s\n", message);
}

void png_warning_message(png_structp, png_const_charp message)
{
    std::fprintf(stderr, "PNG WARNING: %s\n", message);
}

// --harden: a libpng error jumps back to the guarded step that raised it,
// which then refuses the image, instead of letting libpng abort.
struct png_guard {
    bool armed = false; // a guarded step is running: its frame is live
};

[[noreturn]] void png_error_hardened(png_structp png, png_const_charp message)
{
    std::fprintf(stderr, "PNG ERROR: %s\n", message);
    auto* guard = static_cast<png_guard*>(png_get_error_ptr(png));
    if (guard != nullptr && guard->armed) {
        guard->armed = false;
        png_longjmp(png, 1);
    }
    // Outside a guarded step there is no live frame to jump to.
    std::abort();
}

// Runs `step`, a few libpng calls. Without --harden it simply runs (an error
// ends the process in libpng, as designed) and gives true. With it, an error
// jumps back here and gives false. A longjmp skips destructors, which C++
// allows only where none would run: so this frame holds nothing after
// setjmp, and `step` must create no object with a destructor.
template <typename Step>
bool run_png_step(png_structp png, png_guard& guard, Step& step)
{
    if (!t4mi_harden) {
        step();
        return true;
    }
    guard.armed = true;
    if (setjmp(png_jmpbuf(png)))
        return false;
    step();
    guard.armed = false;
    return true;
}

struct file_closer {
    void operator()(FILE* f) const { std::fclose(f); }
};

// The libpng handles of one read. The end-info handle is never made (the
// end of the file is not read) but is destroyed like the others, so that all
// three are null afterwards. Destroyed on every path; the success path does
// it explicitly and checks the result.
struct png_read_handles {
    png_structp png_context = nullptr;
    png_infop png_context_info = nullptr;
    png_infop png_context_end = nullptr;
    png_read_handles() = default;
    png_read_handles(const png_read_handles&) = delete;
    png_read_handles& operator=(const png_read_handles&) = delete;
    ~png_read_handles() { destroy(); }
    void destroy() { png_destroy_read_struct(&png_context, &png_context_info, &png_context_end); }
};

constexpr png_uint_32 min_emoji_size = 16;
constexpr png_uint_32 max_emoji_size = 256;

} // namespace

const char* emoji_get_pngname_by_char(int32_t uchar)
{
    static char retpath[128];
    if (uchar < 0x2000)
        return nullptr;
    T4MI_ASSERT((size_t)snprintf(retpath,sizeof(retpath),"emoji_u%x.png",(unsigned int)uchar) < (sizeof(retpath)-1));
    return retpath;
}

font_bmp_cache_storage* get_emoji_bmp(int32_t uchar)
{
    const char* name = emoji_get_pngname_by_char(uchar);
    if (name == nullptr)
        return nullptr;
    if (const auto it = emoji_png_cache.find(name); it != emoji_png_cache.end())
        return it->second;
    const std::string path = t4mi_fixed_path(T4MI_EMOJI_IMAGE_DIR) + "/" + name;
    font_bmp_cache_storage* bmp = load_png_as_font_bmp(path.c_str());
    emoji_png_cache.emplace(name, bmp);
    return bmp;
}

void free_emoji_png_cache()
{
    for (auto& entry : emoji_png_cache)
        font_bmp_free(entry.second);
    emoji_png_cache.clear();
}

font_bmp_cache_storage* load_png_as_font_bmp(const char* path)
{
    std::unique_ptr<FILE, file_closer> file(std::fopen(path, "rb"));
    if (!file) {
        std::fprintf(stderr, "PNG: cannot open %s\n", path);
        return nullptr;
    }

    png_read_handles handles;
    png_structp& png_context = handles.png_context;
    png_infop& png_context_info = handles.png_context_info;
    png_infop& png_context_end = handles.png_context_end;
    png_context = png_create_read_struct("1.6.37", nullptr, nullptr, nullptr);
    if (png_context == nullptr) {
        std::fprintf(stderr, "failed to create PNG read struct\n");
        return nullptr;
    }
    png_context_info = png_create_info_struct(png_context);
    if (png_context_info == nullptr) {
        std::fprintf(stderr, "Failed to create PNG info struct\n");
        return nullptr;
    }
    // Deliberate: no setjmp. The handlers report and return, and libpng then
    // ends the process on an error; our images are made by our own tool.
    // --harden sets the jump target and refuses the image instead.
    png_guard guard;
    png_set_error_fn(png_context, t4mi_harden ? &guard : nullptr, t4mi_harden ? png_error_hardened : png_error_message,
                     png_warning_message);
    png_set_user_limits(png_context, 16384, 16384);
    png_init_io(png_context, file.get());

    png_uint_32 width = 0;
    png_uint_32 height = 0;
    int bit_depth = 0;
    int color_type = 0;
    int interlace_method = 0;
    int compression_method = 0;
    int filter_method = 0;
    png_uint_32 have_header = 0;
    auto read_header = [&] {
        png_read_info(png_context, png_context_info);
        have_header = png_get_IHDR(png_context, png_context_info, &width, &height, &bit_depth, &color_type,
                                   &interlace_method, &compression_method, &filter_method);
    };
    if (!run_png_step(png_context, guard, read_header))
        return nullptr;
    if (have_header == 0) {
        std::fprintf(stderr, "Failed to read PNG IHDR\n");
        return nullptr;
    }
    std::fprintf(stderr, "PNG info: %u x %u %d-bit colortype=%d ilmethod=%d cmethod=%d fmethod=%d\n", width,
                 height, bit_depth, color_type, interlace_method, compression_method, filter_method);
    if (color_type & PNG_COLOR_MASK_PALETTE)
        std::fprintf(stderr, "  PNG_COLOR_MASK_PALETTE\n");
    if (color_type & PNG_COLOR_MASK_COLOR)
        std::fprintf(stderr, "  PNG_COLOR_MASK_COLOR\n");
    if (color_type & PNG_COLOR_MASK_ALPHA)
        std::fprintf(stderr, "  PNG_COLOR_MASK_ALPHA\n");

    if (width < min_emoji_size || width > max_emoji_size || height < min_emoji_size || height > max_emoji_size) {
        std::fprintf(stderr, "Image width and height is unacceptable\n");
        return nullptr;
    }
    if (interlace_method != PNG_INTERLACE_NONE) {
        std::fprintf(stderr, "We do not support interlaced PNGs\n");
        return nullptr;
    }
    if (color_type != PNG_COLOR_TYPE_RGB_ALPHA) {
        std::fprintf(stderr, "PNG must be RGBA\n");
        return nullptr;
    }

    const size_t row_bytes = size_t(width) * 4;
    const size_t pixels = size_t(width) * size_t(height);
    std::vector<uint8_t> work((pixels + 1024) * 4);
    std::vector<png_bytep> rows(height);
    for (png_uint_32 i = 0; i < height; i++)
        rows[i] = work.data() + i * row_bytes;
    png_bytepp row_pointers = rows.data();
    auto read_pixels = [&] {
        // libpng applies the accurate scaling when both are asked for.
        png_set_scale_16(png_context);
        png_set_strip_16(png_context);
        png_set_packing(png_context);
        png_read_rows(png_context, row_pointers, nullptr, height);
    };
    if (!run_png_step(png_context, guard, read_pixels))
        return nullptr;

    font_bmp_cache_storage* bmp = font_bmp_alloc();
    bmp->width = int32_t(width);
    bmp->height = int32_t(height);
    bmp->stride = bmp->width + 8;
    bmp->advance = bmp->width;
    bmp->x_offset = 0;
    bmp->y_offset = 0;
    bmp->tag = -1;
    bmp->plane_a = font_bmp_zeroed_plane(bmp->stride, bmp->height);
    bmp->plane_y = font_bmp_zeroed_plane(bmp->stride, bmp->height);
    bmp->plane_u = font_bmp_zeroed_plane(bmp->stride, bmp->height);
    bmp->plane_v = font_bmp_zeroed_plane(bmp->stride, bmp->height);
    // The text colours' conversion; colour is not premultiplied, so a
    // transparent pixel keeps its own colour.
    for (png_uint_32 y = 0; y < height; y++) {
        const uint8_t* in = rows[y];
        const size_t at = size_t(y) * size_t(bmp->stride);
        for (png_uint_32 x = 0; x < width; x++, in += 4) {
            const yuv_colour c = rgb_to_yuv(in[0], in[1], in[2]);
            bmp->plane_y[at + x] = c.y;
            bmp->plane_u[at + x] = c.u;
            bmp->plane_v[at + x] = c.v;
            bmp->plane_a[at + x] = in[3];
        }
    }

    work = {};
    handles.destroy();
    file.reset();
    T4MI_ASSERT(png_context == NULL);
    T4MI_ASSERT(png_context_info == NULL);
    T4MI_ASSERT(png_context_end == NULL);
    return bmp;
}
