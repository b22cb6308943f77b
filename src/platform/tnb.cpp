// The shared frame-buffer domain: joining it, the default buffer, free space.
#include "platform/tnb.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "platform/t4mi_globals.h"
#include "platform/tnb_p.h"

namespace {

// Offsets in the frame descriptor are 32-bit: no buffer may be larger.
constexpr uint64_t max_buffer_bytes = 0xFFFFFFFFull;

// An anonymous shared-memory file of `size` bytes that only this user can
// open, with its size sealed so that a client cannot shrink it under us
// (which would turn our next write into SIGBUS). -1 on failure.
int make_shared_memory(uint64_t size)
{
    const int fd = memfd_create("t4mi tnb buffer", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0)
        return -1;
    if (fchmod(fd, 0600) != 0 || ftruncate(fd, off_t(size)) != 0 ||
        fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void adopt_buffer(int fd, int id, uint64_t size)
{
    tnb_domain& d = tnb_state();
    d.buffer = tnb_buffer{};
    d.buffer.fd = fd;
    d.buffer.id = id;
    d.buffer.size = size;
    d.buffer.free_ranges.emplace(0, size);
    image_tnb_buffer_fd = fd;
    image_tnb_buffer = id;
}

int next_buffer_id()
{
    tnb_domain& d = tnb_state();
    d.last_id = d.last_id % 65535 + 1;  // ids fit the descriptor's 16 bits, 0 is never used
    return d.last_id;
}

// MemAvailable of /proc/meminfo in bytes; 0 when it cannot be read.
uint64_t available_memory()
{
    FILE* f = std::fopen("/proc/meminfo", "r");
    if (f == nullptr)
        return 0;
    char line[256];
    unsigned long long kib = 0;
    while (std::fgets(line, sizeof line, f) != nullptr)
        if (std::sscanf(line, "MemAvailable: %llu kB", &kib) == 1)
            break;
    std::fclose(f);
    return uint64_t(kib) * 1024;
}

} // namespace

tnb_domain& tnb_state()
{
    // Never destroyed: frames held by globals (the client-context registry)
    // may still free their allocations while the process exits.
    static tnb_domain* const domain = new tnb_domain;
    return *domain;
}

int t4mi_join_tnb_domain()
{
    tnb_domain& d = tnb_state();
    if (d.joined)
        return 0;
    const int probe = memfd_create("t4mi tnb probe", MFD_CLOEXEC);
    if (probe < 0)
        return 1;
    close(probe);
    d.joined = true;
    return 0;
}

tnb_domain* t4mi_tnb_domain()
{
    tnb_domain& d = tnb_state();
    return d.joined ? &d : nullptr;
}

void tnb_alloc_init() { tnb_default_buffer_drop(); }

uint64_t tnb_context_free_space(tnb_domain* d, int include_cached)
{
    struct statvfs st {};
    if (d == nullptr || statvfs(d->mount, &st) != 0)
        return 0;
    uint64_t space = uint64_t(st.f_bavail) * st.f_frsize;
    if (const uint64_t mem = available_memory(); mem != 0)
        space = std::min(space, mem);
    if (include_cached)
        space += d->buffer.reserved_bytes;
    return space;
}

int tnb_default_buffer_load()
{
    tnb_domain& d = tnb_state();
    if (d.buffer.fd >= 0)
        return 0;
    if (t4mi_join_tnb_domain() != 0)
        return -1;
    const uint64_t page = tnb_alloc_granularity();
    const uint64_t size = std::min(tnb_total, max_buffer_bytes) / page * page;
    if (size == 0)
        return -1;
    const int fd = make_shared_memory(size);
    if (fd < 0)
        return -1;
    adopt_buffer(fd, next_buffer_id(), size);
    return 0;
}

void tnb_default_buffer_drop()
{
    tnb_domain& d = tnb_state();
    if (d.buffer.fd >= 0) {
        tnb_access_caches_forget_buffer(d.buffer.id);
        close(d.buffer.fd);
    }
    d.buffer = tnb_buffer{};
    image_tnb_buffer_fd = -1;
    image_tnb_buffer = -1;
}

void tnb_alloc_assign_single(int fd, int buffer, int)
{
    tnb_default_buffer_drop();
    if (fd < 0 || buffer < 1 || buffer > 65535)
        return;
    struct stat st {};
    if (fstat(fd, &st) != 0)
        return;
    const uint64_t page = tnb_alloc_granularity();
    const uint64_t size = std::min(uint64_t(st.st_size), max_buffer_bytes) / page * page;
    const int own = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (size == 0 || own < 0) {
        if (own >= 0)
            close(own);
        return;
    }
    tnb_state().last_id = buffer;
    adopt_buffer(own, buffer, size);
}

int tnb_buffer_fd(int buffer)
{
    const tnb_domain& d = tnb_state();
    return d.buffer.fd >= 0 && d.buffer.id == buffer ? d.buffer.fd : -1;
}

uint64_t tnb_buffer_size(int buffer)
{
    const tnb_domain& d = tnb_state();
    return d.buffer.fd >= 0 && d.buffer.id == buffer ? d.buffer.size : 0;
}

bool tnb_buffer_holds_pages(int buffer)
{
    const tnb_domain& d = tnb_state();
    return d.buffer.fd >= 0 && d.buffer.id == buffer && (!d.buffer.allocations.empty() || d.buffer.warm_bytes > 0);
}
