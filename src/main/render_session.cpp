#include "main/render_session.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "frames/compositor.h"
#include "frames/reader.h"
#include "items/item_types.h"
#include "main/process.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"

namespace {
void close_item()
{
    if (t4mi_meta == nullptr)
        return;
    for (int fd : {t4mi_meta->file_fd, t4mi_meta->dir_fd, t4mi_meta->meta_name_fd})
        if (fd >= 0)
            close(fd);
    delete t4mi_meta;
    t4mi_meta = nullptr;
}
} // namespace

render_session::~render_session()
{
    contexts.clear();
    close_item();
    if (!opened)
        return;
    release_frame_buffers();
    close_fonts();
}

bool render_session::open(uint64_t budget, std::string* err)
{
    opened = true;
    if (const char* failure = open_fonts()) {
        err->assign(failure, std::strlen(failure) - 1);
        return false;
    }
    if (t4mi_join_tnb_domain() != 0) {
        *err = "Failed to join TNB domain";
        return false;
    }
    tnb_total = budget;
    if (t4mi_acc_cache == nullptr)
        t4mi_acc_cache = t4mi_global_access_cache_create();
    if (tnb_default_buffer_load() != 0) {
        *err = "cannot create the shared frame buffer";
        return false;
    }
    return true;
}

bool render_session::load_item(const std::string& path, const std::string& mime_type, std::string* err)
{
    close_item();
    auto* meta = new t4mi_meta_record;
    t4mi_meta = meta;
    meta->file_path = path;
    const auto slash = path.rfind('/');
    meta->dir_path = slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
    meta->file_name = slash == std::string::npos ? path : path.substr(slash + 1);
    meta->file_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    meta->dir_fd = ::open(meta->dir_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // Feeds keep rss.xml in the metadata directory; offline, that is the item's own directory.
    meta->meta_name_fd = ::open(meta->dir_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (meta->file_fd < 0) {
        *err = "cannot open " + path;
        return false;
    }
    t4mi_file_type = mime_type;
    if (t4mi_file_type.empty() && examine_file() != 0) {
        *err = "not a scrolling text file: " + path;
        return false;
    }
    // No file watch runs here, so text and template items are read at once.
    reload_item_text();
    return true;
}

scrolling_text_client_context* render_session::new_context(const render_geometry& g)
{
    auto ctx = std::make_unique<scrolling_text_client_context>(uint64_t(contexts.size() + 1));
    ctx->picture_width = uint32_t(g.width);
    ctx->picture_height = uint32_t(g.height);
    ctx->time_scale = g.time_scale;
    ctx->frame_duration = g.frame_duration;
    ctx->timing_taken = 1;
    if (g.aspect_num > 0 && g.aspect_den > 0) {
        ctx->screen_aspect_num = g.aspect_num;
        ctx->screen_aspect_den = g.aspect_den;
        ctx->frame_aspect[0] = int32_t(g.aspect_num);
        ctx->frame_aspect[1] = int32_t(g.aspect_den);
    }
    ctx->create_reader();
    contexts.push_back(std::move(ctx));
    return contexts.back().get();
}

t4mi_video_frame* render_session::frame(scrolling_text_client_context* ctx, uint64_t n)
{
    return load_frame(ctx->reader, n, 0, ctx, 0);
}
