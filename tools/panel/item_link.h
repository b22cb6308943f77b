// The panel's side of the item's control socket: two connections (frames,
// and commands), each used by one HTTP worker at a time.
//
// However many browsers ask and however fast, the item sees at most one
// frame request per `frame_interval_ms` (whatever the sizes asked for) and
// one "v4::stats" per `stats_interval_ms`; between those the last answer is
// served again (a size never served before waits for its turn). So
// the panel costs a playout client at most one small frame's render now and
// then, never a queue of them.
//
// A connection that fails is closed and made again at the next request
// (the item may have been restarted; with a metadata directory its
// status.json names the socket anew).
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/t4mi_client.h"

struct item_link_options {
    std::string socket_path;  // the control socket, or empty to read it from the metadata directory
    std::string metadir;      // the item's metadata directory (status.json)
    int frame_interval_ms = 100;
    int stats_interval_ms = 250;
    int call_timeout_ms = 2000;
};

class item_link {
public:
    explicit item_link(item_link_options options);

    // The live output at `width` x `height` pixels as a PNG with alpha:
    // frame number (time since the link was made) x 30000/1001. False with
    // a reason in `error` when the item cannot be reached.
    bool frame_png(int width, int height, std::string* png, std::string* error);
    // The item's "v4::stats" JSON text.
    bool stats(std::string* json, std::string* error);
    // "v4::text" with these entries, in order.
    bool send_text(const std::vector<std::pair<std::string, std::string>>& entries, std::string* error);
    // "reload".
    bool reload(std::string* error);

private:
    bool attach(t4mi_client& c, std::string* error);

    item_link_options options;
    uint64_t start_ms;

    // Set by a command the panel sent, or when the stats show new settings:
    // the frames connections start again.
    // A still (static) text is rendered once per layout and every request
    // shares that frame, so a context that keeps asking goes on being served
    // the cached picture of the old text; a new context lays the new one out.
    std::atomic<bool> frames_stale{false};

    // One connection (one client context) per preview size, so that two
    // browsers at two sizes do not make the item lay the text out again at
    // every turn; the last picture of each size is kept beside it.
    struct preview {
        std::unique_ptr<t4mi_client> client;
        uint64_t used_ms = 0;   // when a browser last asked for this size
        uint64_t png_ms = 0;    // when `png` was fetched; 0: never
        std::string png;
    };
    static constexpr size_t MAX_PREVIEWS = 4;
    // The preview of this size, its connection made and set up; null with a
    // reason when the item cannot be reached.
    preview* preview_for(int width, int height, uint64_t now, std::string* error);

    std::mutex frames_mutex;  // guards the previews
    std::map<std::pair<int, int>, preview> previews;  // by width, height
    uint64_t fetched_at_ms = 0;                       // the last frame request to the item

    std::mutex control_mutex;  // guards the command connection and the stats cache
    t4mi_client control;
    uint64_t stats_at_ms = 0;
    std::string stats_json;
    std::string last_settings;  // the "settings" of the last stats, as JSON text
};
