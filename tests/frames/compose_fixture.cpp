#include "frames/compose_fixture.h"

#include "fonts/emoji_images.h"
#include "fonts/font_catalogue.h"
#include "fonts/font_globals.h"
#include "fonts/glyph_cache.h"
#include "frames/compositor.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"
#include "platform/fixed_paths.h"
#include "platform/video_frame.h"
#include "support/test_env.h"

namespace t4test {

namespace {

constexpr const char* LIBERATION_FONT_DIR = "/usr/share/fonts/truetype/liberation";
constexpr const char* WQY_FONT_DIR = "/usr/share/fonts/truetype/wqy";
constexpr const char* SYMBOLA_FONT_DIR = "/usr/share/fonts/truetype/ancient-scripts";

class compose_environment : public ::testing::Environment {
public:
    void SetUp() override
    {
        root = std::make_unique<fixed_root>();
        fontconfig = std::make_unique<private_fontconfig>(
            std::vector<std::string>{LIBERATION_FONT_DIR, WQY_FONT_DIR, SYMBOLA_FONT_DIR});
        ASSERT_EQ(FT_Init_FreeType(&ft_library), 0);
        ASSERT_EQ(FT_New_Face(ft_library, t4mi_fixed_path(T4MI_DEFAULT_FONT_PATH).c_str(), 0, &default_face), 0);
        ASSERT_EQ(FT_New_Face(ft_library, t4mi_fixed_path(T4MI_EMOJI_FONT_PATH).c_str(), 0, &emoji_face), 0);
        build_font_catalogue();
        ASSERT_TRUE(font_catalogue.count("Liberation Sans"));
    }
    void TearDown() override
    {
        free_emoji_png_cache();
        clear_font_catalogue();
        FT_Done_Face(default_face);
        FT_Done_Face(emoji_face);
        default_face = nullptr;
        emoji_face = nullptr;
        FT_Done_FreeType(ft_library);
        ft_library = nullptr;
        fontconfig.reset();
        root.reset();
    }

    std::unique_ptr<fixed_root> root;
    std::unique_ptr<private_fontconfig> fontconfig;
};

compose_environment* const environment =
    static_cast<compose_environment*>(::testing::AddGlobalTestEnvironment(new compose_environment));

void copy_plane(std::vector<uint8_t>& out, const uint8_t* plane, uint32_t stride, uint32_t width, uint32_t height)
{
    out.resize(size_t(width) * height);
    for (uint32_t row = 0; row < height; row++)
        std::copy(plane + size_t(row) * stride, plane + size_t(row) * stride + width, out.begin() + long(row) * width);
}

} // namespace

std::string compose_fixed_root() { return environment->root->path(); }
std::string compose_fontconfig_env() { return environment->fontconfig->env(); }

frame_pixels copy_pixels(const yuva_frame_planes& p)
{
    frame_pixels out;
    out.width = p.width;
    out.height = p.height;
    copy_plane(out.y, p.y, p.y_stride, p.width, p.height);
    copy_plane(out.u, p.u, p.chroma_stride, p.width, p.height);
    copy_plane(out.v, p.v, p.chroma_stride, p.width, p.height);
    copy_plane(out.a, p.alpha, p.alpha_stride, p.width, p.height);
    return out;
}

bool copy_pixels(const t4mi_video_frame* frame, frame_pixels* out)
{
    yuva_frame_planes planes;
    if (frame == nullptr || !map_frame_planes(frame, &planes) || planes.alpha == nullptr)
        return false;
    *out = copy_pixels(planes);
    return true;
}

uint64_t pixels_checksum(const frame_pixels& p)
{
    uint64_t h = 0xcbf29ce484222325ull;
    for (const std::vector<uint8_t>* plane : {&p.y, &p.u, &p.v, &p.a})
        for (uint8_t b : *plane) {
            h ^= b;
            h *= 0x100000001b3ull;
        }
    return h;
}

std::u32string placed_text(const scrolling_text_client_context* ctx)
{
    std::u32string s;
    for (const auto& [x, glyphs] : ctx->glyph_placements)
        for (const placed_glyph& g : glyphs)
            s += char32_t(g.code);
    return s;
}

void compose_test::SetUp()
{
    buffers = std::make_unique<shared_buffer_session>(64ull << 20);
    ASSERT_TRUE(buffers->ready());
    scroll_settings = scroll_settings_record{};
    scroll_settings.fontColor = {255, 255, 255, 255};
    scroll_settings.shadowColor = {0, 0, 0, 0};
    scroll_settings.shadowOpacity = 0;
    scroll_settings.shadowBlur = 0;
    scroll_settings.shadowX = 0;
    scroll_settings.shadowY = 0;
    free_emoji_png_cache();
}

void compose_test::TearDown()
{
    contexts.clear(); // frames go back to the shared buffer before it is dropped
    buffers.reset();
    free_emoji_png_cache();
    scroll_settings = scroll_settings_record{};
    line_count = 1;
}

scrolling_text_client_context* compose_test::make_context(int32_t width, int32_t height, int64_t time_scale,
                                                          int64_t frame_duration, int64_t aspect_num,
                                                          int64_t aspect_den)
{
    auto ctx = std::make_unique<scrolling_text_client_context>(uint64_t(contexts.size() + 1));
    ctx->picture_width = uint32_t(width);
    ctx->picture_height = uint32_t(height);
    ctx->time_scale = time_scale;
    ctx->frame_duration = frame_duration;
    ctx->timing_taken = 1;
    if (aspect_num > 0 && aspect_den > 0) {
        ctx->screen_aspect_num = aspect_num;
        ctx->screen_aspect_den = aspect_den;
        ctx->frame_aspect[0] = int32_t(aspect_num);
        ctx->frame_aspect[1] = int32_t(aspect_den);
    }
    ctx->create_reader();
    contexts.push_back(std::move(ctx));
    return contexts.back().get();
}

void compose_test::lay_out(scrolling_text_client_context* ctx, const std::string& text)
{
    scroll_settings.text = text;
    scroll_settings.static_ = scroll_settings.scrollSpeed <= 0.0 ? 1 : 0;
    ctx->parse_text();
    ctx->recompute_text_times();
}

t4mi_video_frame* compose_test::render(scrolling_text_client_context* ctx, uint64_t n)
{
    return load_frame(ctx->reader, n, 0, ctx, 0);
}

frame_pixels compose_test::render_pixels(scrolling_text_client_context* ctx, uint64_t n)
{
    frame_pixels p;
    EXPECT_TRUE(copy_pixels(render(ctx, n), &p)) << "frame " << n;
    return p;
}

const font_bmp_cache_storage* compose_test::glyph(scrolling_text_client_context* ctx, int32_t code)
{
    return get_font_bmp(ctx, line_height(ctx), code);
}

uint64_t compose_test::line_height(const scrolling_text_client_context* ctx) const
{
    return uint64_t(ctx->reader->frame_height / line_count);
}

} // namespace t4test
