#include "fonts/font_test_support.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <png.h>

#include "fonts/emoji_images.h"
#include "fonts/font_bmp.h"
#include "fonts/font_catalogue.h"
#include "fonts/font_globals.h"
#include "items/scroll_settings.h"
#include "platform/fixed_paths.h"

namespace t4test {

namespace {

// One catalogue for the whole program, built from Debian's fonts only.
class font_environment : public ::testing::Environment {
public:
    void SetUp() override
    {
        root = std::make_unique<fixed_root>();
        fontconfig = std::make_unique<private_fontconfig>(std::vector<std::string>{LIBERATION_DIR, WQY_DIR, SYMBOLA_DIR});
        ASSERT_EQ(FT_Init_FreeType(&ft_library), 0);
        build_font_catalogue();
        ASSERT_TRUE(font_catalogue.count("Liberation Sans"));
        ASSERT_TRUE(font_catalogue.count("WenQuanYi Micro Hei"));
        ASSERT_TRUE(font_catalogue.count("Symbola"));
    }
    void TearDown() override
    {
        clear_font_catalogue();
        FT_Done_FreeType(ft_library);
        ft_library = nullptr;
        fontconfig.reset();
        root.reset();
    }

private:
    std::unique_ptr<fixed_root> root;
    std::unique_ptr<private_fontconfig> fontconfig;
};

[[maybe_unused]] ::testing::Environment* const font_env = ::testing::AddGlobalTestEnvironment(new font_environment);

} // namespace

void glyph_test::SetUp()
{
    ASSERT_EQ(FT_New_Face(ft_library, t4mi_fixed_path(T4MI_DEFAULT_FONT_PATH).c_str(), 0, &default_face), 0);
    ASSERT_EQ(FT_New_Face(ft_library, t4mi_fixed_path(T4MI_EMOJI_FONT_PATH).c_str(), 0, &emoji_face), 0);
    scroll_settings = scroll_settings_record{};
    free_emoji_png_cache();
    ctx = std::make_unique<scrolling_text_client_context>(1);
    ctx->create_reader();
}

void glyph_test::TearDown()
{
    ctx.reset();
    free_emoji_png_cache();
    for (FT_Face f : extra_faces)
        FT_Done_Face(f);
    extra_faces.clear();
    FT_Done_Face(default_face);
    FT_Done_Face(emoji_face);
    default_face = nullptr;
    emoji_face = nullptr;
    scroll_settings = scroll_settings_record{};
}

std::string glyph_test::emoji_dir() const { return root.at(T4MI_EMOJI_IMAGE_DIR); }

FT_Face glyph_test::open_face(const char* file)
{
    FT_Face f = nullptr;
    if (FT_New_Face(ft_library, file, 0, &f) != 0)
        return nullptr;
    extra_faces.push_back(f);
    return f;
}

reference_glyph render_reference(const char* file, FT_ULong code, unsigned pixel_size, const FT_Matrix* matrix)
{
    reference_glyph ref;
    FT_Library lib = nullptr;
    FT_Face face = nullptr;
    if (FT_Init_FreeType(&lib) != 0)
        return ref;
    if (FT_New_Face(lib, file, 0, &face) == 0) {
        FT_Set_Pixel_Sizes(face, 0, pixel_size);
        FT_Matrix m{0x10000, 0, 0, 0x10000};
        if (matrix != nullptr)
            m = *matrix;
        FT_Vector origin{0, 0};
        FT_Set_Transform(face, &m, &origin);
        ref.index = FT_Get_Char_Index(face, code);
        if (FT_Load_Glyph(face, ref.index, FT_LOAD_DEFAULT) == 0 &&
            FT_Render_Glyph(face->glyph, FT_RENDER_MODE_NORMAL) == 0) {
            const FT_Bitmap& bm = face->glyph->bitmap;
            ref.width = int(bm.width);
            ref.rows = int(bm.rows);
            ref.pitch = bm.pitch;
            ref.left = face->glyph->bitmap_left;
            ref.top = face->glyph->bitmap_top;
            ref.advance = face->glyph->advance.x;
            ref.y_ppem = face->size->metrics.y_ppem;
            ref.pixels.assign(bm.buffer, bm.buffer + size_t(bm.rows) * size_t(bm.pitch));
        }
        FT_Done_Face(face);
    }
    FT_Done_FreeType(lib);
    return ref;
}

void expect_record_matches(const font_bmp_cache_storage* bmp, const reference_glyph& ref)
{
    ASSERT_NE(bmp, nullptr);
    EXPECT_EQ(bmp->width, ref.width);
    EXPECT_EQ(bmp->height, ref.rows);
    EXPECT_EQ(bmp->stride, ref.pitch + 8);
    EXPECT_EQ(bmp->x_offset, ref.left);
    EXPECT_EQ(bmp->advance, ref.advance >> 6);
    EXPECT_EQ(bmp->tag, -1);
    EXPECT_EQ(bmp->plane_y, nullptr);
    EXPECT_EQ(bmp->plane_u, nullptr);
    EXPECT_EQ(bmp->plane_v, nullptr);
    if (ref.rows == 0) {
        EXPECT_EQ(bmp->plane_a, nullptr);
        return;
    }
    ASSERT_NE(bmp->plane_a, nullptr);
    size_t mismatches = 0;
    for (int y = 0; y < ref.rows; y++) {
        for (int x = 0; x < ref.pitch; x++)
            mismatches += bmp->plane_a[y * bmp->stride + x] != ref.pixels[size_t(y) * ref.pitch + x];
        for (int x = ref.pitch; x < bmp->stride; x++)
            mismatches += bmp->plane_a[y * bmp->stride + x] != 0;
    }
    for (int i = 0; i < 256; i++)
        mismatches += bmp->plane_a[bmp->stride * bmp->height + i] != 0;
    EXPECT_EQ(mismatches, 0u);
}

std::string without_loading_lines(const std::string& err)
{
    std::istringstream in(err);
    std::string line, out;
    while (std::getline(in, line))
        if (line.rfind("Loading and initing font ", 0) != 0)
            out += line + "\n";
    return out;
}

size_t test_png::row_bytes() const
{
    int channels = 1;
    switch (color_type) {
    case PNG_COLOR_TYPE_RGB: channels = 3; break;
    case PNG_COLOR_TYPE_GRAY_ALPHA: channels = 2; break;
    case PNG_COLOR_TYPE_RGB_ALPHA: channels = 4; break;
    default: channels = 1; break;
    }
    return (size_t(width) * channels * bit_depth + 7) / 8;
}

test_png rgba8_image(uint32_t width, uint32_t height,
                      const std::function<std::vector<uint8_t>(uint32_t, uint32_t)>& pixel)
{
    test_png img;
    img.width = width;
    img.height = height;
    img.data.reserve(size_t(width) * height * 4);
    for (uint32_t y = 0; y < height; y++)
        for (uint32_t x = 0; x < width; x++) {
            const auto p = pixel(x, y);
            img.data.insert(img.data.end(), p.begin(), p.begin() + 4);
        }
    return img;
}

test_png solid_rgba8(uint32_t width, uint32_t height, uint8_t r, uint8_t g, uint8_t b, uint8_t a)
{
    return rgba8_image(width, height, [&](uint32_t, uint32_t) { return std::vector<uint8_t>{r, g, b, a}; });
}

test_png pattern_image(uint32_t width, uint32_t height, int bit_depth, int color_type, int interlace)
{
    test_png img;
    img.width = width;
    img.height = height;
    img.bit_depth = bit_depth;
    img.color_type = color_type;
    img.interlace = interlace;
    const size_t rb = img.row_bytes();
    img.data.resize(rb * height);
    for (uint32_t y = 0; y < height; y++)
        for (size_t i = 0; i < rb; i++)
            img.data[y * rb + i] = uint8_t((y * 7 + i * 13) & 0xFF);
    if (color_type == PNG_COLOR_TYPE_PALETTE)
        for (int i = 0; i < (1 << bit_depth); i++) {
            const uint8_t v = uint8_t(i * 255 / ((1 << bit_depth) - 1));
            img.palette.insert(img.palette.end(), {v, v, v});
        }
    return img;
}

void write_png(const std::string& path, const test_png& image)
{
    make_dirs(path.substr(0, path.rfind('/')));
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr) << path;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, f);
    png_set_IHDR(png, info, image.width, image.height, image.bit_depth, image.color_type, image.interlace,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (!image.palette.empty()) {
        std::vector<png_color> colours;
        for (size_t i = 0; i + 2 < image.palette.size(); i += 3)
            colours.push_back({image.palette[i], image.palette[i + 1], image.palette[i + 2]});
        png_set_PLTE(png, info, colours.data(), int(colours.size()));
    }
    png_write_info(png, info);
    const size_t rb = image.row_bytes();
    std::vector<png_bytep> rows(image.height);
    for (uint32_t y = 0; y < image.height; y++)
        rows[y] = const_cast<png_bytep>(image.data.data() + y * rb);
    // png_write_image handles the interlace passes itself.
    png_write_image(png, rows.data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    std::fclose(f);
}

child_outcome run_font_case_in_child(const std::function<void()>& fn, int timeout_ms)
{
    temp_dir dir;
    const std::string out_path = dir / "out";
    const std::string err_path = dir / "err";
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, 1);
        dup2(err, 2);
        fn();
        std::fflush(nullptr);
        _exit(0);
    }
    child_outcome outcome;
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid)
            break;
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    outcome.exited = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    outcome.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    outcome.out = read_file(out_path);
    outcome.err = read_file(err_path);
    return outcome;
}

} // namespace t4test
