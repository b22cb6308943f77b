// The page's files, built into the binary (no CDN, no files at run time:
// machines on air are often offline). The sources are tools/panel/assets/;
// the build turns them into panel_assets.cpp.
#pragma once

#include <span>
#include <string>

struct panel_asset {
    const char* path;          // URL path, e.g. "/panel.js"
    const char* content_type;  // without parameters: all are UTF-8
    std::string content;
};

std::span<const panel_asset> panel_assets();
