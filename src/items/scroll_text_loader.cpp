// The scroll-text item loader: settings lines and text lines of the item file.
#include <cstdio>
#include <cstring>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "items/item_file.h"
#include "items/scroll_settings.h"
#include "platform/t4mi_assert.h"
#include "platform/t4mi_globals.h"
#include "platform/text_helpers.h"

namespace {
void parse_scroll_text_lines(const char* buffer)
{
    pending_opacities opacities;
    std::string& text = scroll_settings.text;
    int lines_in_paragraph = 0;
    std::string line;
    const char* p = buffer;
    while (*p != '\0') {
        const char* lf = std::strchr(p, '\n');
        const char* next = lf ? lf + 1 : p + std::strlen(p);
        line.assign(p, lf ? lf : next);
        chomp(line);
        if (!line.empty() && line[0] == '#') {
            const auto eq = line.find('=');
            if (eq != std::string::npos)
                apply_scroll_setting(line.substr(1, eq - 1), line.c_str() + eq + 1, false, opacities);
        } else {
            if (lines_in_paragraph != 0)
                text.push_back('\n');
            text.append(line);
            lines_in_paragraph++;
        }
        // In scrolling mode a run of blank lines is one paragraph break. The
        // 0.001 threshold differs from the static test (<= 0) on purpose.
        if (scroll_settings.scrollSpeed > 0.001 && *next == '\n') {
            while (*next == '\n')
                next++;
            text.push_back('\x1f');
            lines_in_paragraph = 0;
        }
        p = next;
    }
    fold_opacities(opacities);
}
} // namespace

void load_item_file(bool settings_lines)
{
    const int fd = t4mi_meta ? t4mi_meta->file_fd : -1;
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        std::fprintf(stderr, "Failed to fstat()\n");
        return;
    }
    flock(fd, LOCK_EX);
    scroll_settings.text.clear();
    scroll_settings.file_mtime = int64_t(st.st_mtime);
    T4MI_ASSERT(t4mi_meta->file_fd >= 0);
    const char* buffer = read_item_file(fd);

    reset_scroll_settings(false);
    if (!settings_lines)
        scroll_settings.text = buffer;
    else
        parse_scroll_text_lines(buffer);

    normalise_loaded_settings();
    scroll_settings.static_ = scroll_settings.scrollSpeed <= 0.0;
    flock(fd, LOCK_UN);
}
