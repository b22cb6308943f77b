// Any bytes as a scroll-text item file: the loaded settings keep their
// invariants whatever the file says.
#include <cstdio>
#include <unistd.h>

#include "items/item_types.h"
#include "items/scroll_settings.h"
#include "platform/t4mi_globals.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static t4mi_meta_record meta;
    if (meta.file_fd < 0) {
        FILE* f = std::tmpfile();
        meta.file_fd = dup(fileno(f));
        t4mi_meta = &meta;
        t4mi_file_type = "application/x-tevrin-scrolling-text";
    }
    if (ftruncate(meta.file_fd, 0) != 0 || pwrite(meta.file_fd, data, size, 0) != ssize_t(size))
        return 0;
    load_message();
    const scroll_settings_record& s = scroll_settings;
    // The outline and direction settings only ever hold usable values.
    if (!(s.outlineWidth >= 0.0) ||
        (s.scrollDirection != scroll_direction_left && s.scrollDirection != scroll_direction_right))
        __builtin_trap();
    if (!(s.fontScale == -1 || s.fontScale >= 1) || s.multiLine < 0 || s.space < 0.0 ||
        s.static_ != (s.scrollSpeed <= 0.0))
        __builtin_trap();
    // The shaped-layout settings only ever hold their known values.
    if (s.textShaping > 1 || s.textDirection > TEXT_DIRECTION_RTL)
        __builtin_trap();
    return 0;
}
