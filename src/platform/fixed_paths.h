// Fixed paths of the installation, and the one switch that moves them all.
//
// The program reads a handful of absolute paths that the setup script fills
// (the two built-in faces, the emoji images, the extra font directory, the
// weather directory, the downloader). Tests and side-by-side installations
// redirect every one of them at once by setting the environment variable
// T4MI_ROOT to a directory: each fixed path P is then read as $T4MI_ROOT/P.
// Nothing else in the program builds these paths.
#pragma once

#include <string>
#include <string_view>

inline constexpr const char* T4MI_DEFAULT_FONT_PATH = "/usr/share/tevrin4/fonts/liberation_sans.ttf";
inline constexpr const char* T4MI_EMOJI_FONT_PATH = "/usr/share/tevrin4/fonts/TwitterColorEmoji-SVGinOT.ttf";
inline constexpr const char* T4MI_EMOJI_IMAGE_DIR = "/usr/share/tevrin4/fonts/emoji";
inline constexpr const char* T4MI_EXTRA_FONT_DIR = "/mnt/main/tv/fonts";
inline constexpr const char* T4MI_WEATHER_DIR = "/run/tevrin/weather/kestrel";
inline constexpr const char* T4MI_DOWNLOADER_PATH = "/usr/bin/curl";

// The name of the environment variable that redirects the fixed paths.
inline constexpr const char* T4MI_ROOT_ENV = "T4MI_ROOT";

// `fixed` is one of the absolute paths above (or a path below one of them).
// Returns it unchanged, or prefixed with $T4MI_ROOT when that is set and not
// empty. The variable is read on every call, so a test may change it between
// calls.
std::string t4mi_fixed_path(std::string_view fixed);
