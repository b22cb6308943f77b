// Rendering frames in-process, without a socket: what the offline render
// tool (t4mi_frames) and the benchmarks share.
//
// A session runs start-up's steps (process.h) that rendering needs: FreeType
// with the two built-in faces and the font catalogue, the shared frame-buffer
// domain with a budget, the access cache. It loads an item file into the
// scroll settings by its type (items/item_types.h), and makes
// client contexts configured like a client's settings would. Frames then
// come from load_frame() exactly as a served client gets them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "frames/client_context.h"
#include "frames/frame_buffer.h"

class t4mi_video_frame;

struct render_geometry {
    int32_t width = 1920;          // pixels
    int32_t height = 1080;
    int64_t time_scale = 30000;    // ticks per second
    int64_t frame_duration = 1001; // ticks per frame
    int64_t aspect_num = 0;        // screen aspect; 0, 0: square pixels assumed
    int64_t aspect_den = 0;
};

class render_session {
public:
    render_session() = default;
    ~render_session();
    render_session(const render_session&) = delete;
    render_session& operator=(const render_session&) = delete;

    // Opens the faces, the catalogue and the frame buffers (`budget` bytes).
    // False with a message in `err` when something is missing.
    bool open(uint64_t budget, std::string* err);

    // Loads an item file. An empty `mime_type` identifies it by its first
    // line like start-up does; "text/plain" and templates take the whole file.
    bool load_item(const std::string& path, const std::string& mime_type, std::string* err);

    // A new context of the given geometry, owned by the session.
    scrolling_text_client_context* new_context(const render_geometry& g);

    // Renders frame `n` for the context; null on failure. The frame stays in
    // the context's cache; map_frame_planes (frame_buffer.h) shows its pixels.
    t4mi_video_frame* frame(scrolling_text_client_context* ctx, uint64_t n);

private:
    bool opened = false;
    std::string item_dir;
    std::vector<std::unique_ptr<scrolling_text_client_context>> contexts;
};
