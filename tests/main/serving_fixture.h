// Fixtures of the tests that serve through the real process, its socket and
// its shared memory (suites named ServingProcess*).
//
// - serving_process_test: a scroll-text item in a fresh directory, the
//   program started on it in the background with the test's fonts, clients
//   connected to its socket, a bounded SIGTERM stop, its standard error
//   polled for a line, and item edits that always move the modification time
//   to another whole second (the item watch compares whole seconds).
// - local_renderer: the same item rendered in this process, as the server
//   sets itself up for it, so a frame from the socket can be compared with
//   the renderer's own byte for byte.
// - plane_copy: the visible pixels of a frame, copied out of either.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frames/client_context.h"
#include "platform/t4mi_client.h"
#include "support/frame_env.h"
#include "support/item_fixture.h"
#include "support/program_env.h"
#include "support/serving_env.h"

class t4mi_video_frame;

namespace t4test {

inline constexpr const char* SCROLL_TEXT_TYPE = "application/x-tevrin-scrolling-text";
inline constexpr const char* TEMPLATE_TYPE = "application/x-tevrin-metadata-template";
inline constexpr const char* PLAIN_TEXT_TYPE = "text/plain";

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

private:
    shared_buffer_session buffers;
    open_item item;
    std::unique_ptr<scrolling_text_client_context> context;
};

class serving_process_test : public ::testing::Test {
protected:
    // Writes `ITEM` to the item file (a test may write another before start()).
    void SetUp() override;

    // Starts the server on the item with `extra` switches; waits until ready.
    void start(const std::vector<std::string>& extra = {});
    // A connected client (10 s per call).
    std::unique_ptr<t4mi_client> client();
    // Stops the server with SIGTERM, expects exit status 0, returns its
    // standard error.
    std::string stop();
    // Polls the server's standard error until it holds `needle` after byte
    // `from` or `timeout_ms` passed; `meanwhile` runs between polls (about
    // every 20 ms). Returns the offset of the match, or npos.
    size_t wait_for_err(const std::string& needle, int timeout_ms, size_t from = 0,
                        const std::function<void()>& meanwhile = {});
    // Rewrites the item in place and moves its modification time a whole
    // number of seconds away from any it had, so the watch sees a change.
    void edit_item(const std::string& content);
    // Frame `n` from the server through `c`, copied and released.
    plane_copy served(t4mi_client& c, uint64_t n);

    // The item every test of the fixture starts with: a red half-transparent
    // ticker scrolling at one picture height a second.
    static constexpr const char* ITEM =
        "#Tevrin4ScrollText\n"
        "#-backgroundColor=ff0000\n"
        "#-backgroundOpacity=0.5\n"
        "#-scrollSpeed=1\n"
        "#-multiLine=1\n"
        "Breaking news: the ticker scrolls\n";

    temp_dir dir;
    program_fonts fonts;
    std::string item_path;
    std::unique_ptr<serving_process> proc;

private:
    int edits = 0;
};

} // namespace t4test
