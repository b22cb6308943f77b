#include "platform/sliding_window.h"

#include <sys/mman.h>
#include <unistd.h>

sliding_window_v4* sliding_window_v4_create_mmap(size_t window_size, int fd)
{
    if (window_size == 0 || fd < 0)
        return nullptr;
    auto* view = new sliding_window_v4;
    view->fd = fd;
    view->window_size = window_size;
    return view;
}

static void unmap(sliding_window_v4* view)
{
    if (view->map_base != nullptr)
        munmap(view->map_base, view->map_length);
    view->map_base = nullptr;
    view->map_length = 0;
    view->buffer = nullptr;
}

int sliding_window_v4_mmap_lazy_lseek(sliding_window_v4* view, uint64_t offset, size_t length)
{
    if (view == nullptr || length == 0 || length > view->window_size)
        return 0;
    unmap(view);
    const uint64_t page = uint64_t(sysconf(_SC_PAGESIZE));
    const uint64_t start = offset - offset % page;
    const size_t span = size_t(offset - start) + length;
    void* base = mmap(nullptr, span, PROT_READ, MAP_SHARED, view->fd, off_t(start));
    if (base == MAP_FAILED)
        return 0;
    view->map_base = base;
    view->map_length = span;
    view->buffer = static_cast<const unsigned char*>(base) + (offset - start);
    return 1;
}

sliding_window_v4* sliding_window_v4_destroy(sliding_window_v4* view)
{
    if (view != nullptr) {
        unmap(view);
        delete view;
    }
    return nullptr;
}
