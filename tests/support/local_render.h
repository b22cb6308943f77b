// Frames rendered in this process, to compare with frames served through the
// socket (the tests, and the soak run of bench/soak.sh).
//
// - local_renderer: an item rendered in this process as the server sets
//   itself up for it, so a frame from the socket can be compared with the
//   renderer's own byte for byte.
// - plane_copy: the visible pixels of a frame, copied out of either.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "frames/client_context.h"
#include "platform/t4mi_client.h"
#include "support/frame_env.h"
#include "support/item_fixture.h"

class t4mi_video_frame;

namespace t4test {

// Client settings at 30000/1001 frames a second, square pixels.
t4mi_client_settings picture_settings(int32_t width, int32_t height);

// The visible pixels of a frame: width x height bytes per plane, Y, U, V, A.
struct plane_copy {
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> y, u, v, a;
    bool operator==(const plane_copy&) const = default;
    // True when some pixel has a non-zero alpha (on a transparent
    // background: some text or shadow is drawn).
    bool any_alpha() const;
};
plane_copy copy_planes(const t4mi_client_frame& frame);
// Empty copy when the frame cannot be mapped.
plane_copy copy_planes(const t4mi_video_frame* frame);
// "" when equal, else the first plane and row that differ.
std::string first_difference(const plane_copy& got, const plane_copy& want);

// The renderer in this process on an item of `content` and `mime_type`,
// loaded as the program loads it (load_message), with one client context
// at `settings`. Uses the process's scroll settings and item globals while
// it lives: one at a time, and not while another test fixture needs them.
class local_renderer {
public:
    local_renderer(const std::string& content, const std::string& mime_type, const t4mi_client_settings& settings);
    ~local_renderer();
    // Replaces the text as "v4::text" with a "text" entry does.
    void set_text(const std::string& text);
    // Schedule data for the context, as a "data" packet.
    void send_data(const std::string& json);
    // Frame `n` (variant 0); fails the test and returns an empty copy when
    // it cannot be rendered.
    plane_copy frame(uint64_t n);
    // Frees the frames rendered so far (each stays cached otherwise, and a
    // long run would fill the shared buffer).
    void forget_frames();

private:
    shared_buffer_session buffers;
    open_item item;
    std::unique_ptr<scrolling_text_client_context> context;
};

} // namespace t4test
