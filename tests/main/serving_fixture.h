// Fixtures of the tests that serve through the real process, its socket and
// its shared memory (suites named ServingProcess*).
//
// - serving_process_test: a scroll-text item in a fresh directory, the
//   program started on it in the background with the test's fonts, clients
//   connected to its socket, a bounded SIGTERM stop, its standard error
//   polled for a line, and item edits that always move the modification time
//   to another whole second (the item watch compares whole seconds).
// The in-process renderer and plane copies to compare frames with are in
// support/local_render.h.
#pragma once

#include <nlohmann/json_fwd.hpp>

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
#include "support/local_render.h"
#include "support/program_env.h"
#include "support/serving_env.h"

class t4mi_video_frame;

namespace t4test {

inline constexpr const char* SCROLL_TEXT_TYPE = "application/x-tevrin-scrolling-text";
inline constexpr const char* TEMPLATE_TYPE = "application/x-tevrin-metadata-template";
inline constexpr const char* PLAIN_TEXT_TYPE = "text/plain";

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
    // The "v4::stats" reply through `c`, parsed (expects it to be OK).
    nlohmann::json stats(t4mi_client& c);
    // The server's minor page faults so far (/proc/<pid>/stat, field 10): a
    // frame on fresh shared pages costs one a page.
    uint64_t server_minor_faults() const;

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
