// Identification of an item file by its first line.
#include <cstdio>
#include <sys/stat.h>

#include "items/item_types.h"
#include "main/process.h"
#include "platform/sliding_window.h"
#include "platform/t4mi_assert.h"
#include "platform/t4mi_globals.h"

int examine_file()
{
    T4MI_ASSERT(t4mi_meta->file_fd >= 0);
    struct stat st {};
    if (fstat(t4mi_meta->file_fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 4)
        return 1;

    const size_t window_size = 128;
    sliding_window_v4* wmap = sliding_window_v4_create_mmap(window_size, t4mi_meta->file_fd);
    if (wmap == nullptr) {
        std::fprintf(stderr, "Cannot create mmap\n");
        return 1;
    }
    T4MI_ASSERT(sliding_window_v4_mmap_lazy_lseek(wmap,0,window_size));
    T4MI_ASSERT(wmap->buffer != NULL);

    const item_type* type = item_type_of_first_line(wmap->buffer, window_size);
    if (type == nullptr) {
        sliding_window_v4_destroy(wmap);
        std::fprintf(stderr, "This is not a scrolling text file.\n");
        return 1;
    }
    wmap = sliding_window_v4_destroy(wmap);
    T4MI_ASSERT(wmap == NULL);
    t4mi_set_string(&t4mi_file_type, type->mime_type);
    std::fprintf(stderr, "* Identified file, updating metadata\n");
    t4mi_do_write_metadata = 1;
    return 0;
}
