// The panel's HTTP side: the page and its assets, the frame and status
// endpoints, the two command endpoints, and the checks every request passes.
//
// Routes (docs/panel.md):
//   GET  /, /panel.css, /panel.js   the page, from the binary
//   GET  /frame.png?w=W&h=H         the live output as PNG with alpha
//   GET  /api/stats                 the item's "v4::stats" JSON
//   POST /api/text                  a JSON form -> "v4::text"
//   POST /api/reload                "reload"
#pragma once

#include <cstddef>
#include <string>

namespace httplib {
class Server;
}
class item_link;

struct panel_options {
    // When not empty every request must carry it: "Authorization: Bearer
    // <token>", "?token=<token>" (the page's address; the answer then sets
    // it as the cookie "t4mi_panel_token", which the page's own requests
    // carry), or that cookie. Otherwise 401 and nothing is done. Letters,
    // digits and "-._~" only (t4mi_panel checks), so that it fits a cookie.
    std::string token;
    // Request bodies past this many bytes are refused with 413 before they
    // are read.
    size_t max_body = 65536;
    // True when the panel listens on a loopback address: then only requests
    // whose Host names the loopback are served (403 otherwise), so that a web
    // page elsewhere cannot reach the panel through a name it controls.
    bool loopback_only = true;
};

// The largest preview side in pixels.
inline constexpr int PANEL_MAX_PREVIEW_WIDTH = 1920;
inline constexpr int PANEL_MAX_PREVIEW_HEIGHT = 1080;

// Installs the routes and checks on `server`. `link` and `options` must
// outlive it.
void panel_install(httplib::Server& server, item_link& link, const panel_options& options);
