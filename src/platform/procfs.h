// Who else has a file open, from the process table.
#pragma once

#include <cstdint>
#include <sys/types.h>

struct procfs_path_user {
    unsigned long pid = 0;
    // What matched: 0x1 an open descriptor, 0x2 a memory mapping.
    unsigned long match = 0;
};

// Non-zero when another process (this one is never counted) has `path` open.
// The file is recognised by device and inode, so a link or another name for
// it counts too. `scan_fds` non-zero looks at open descriptors; `scan_maps`
// non-zero looks at memory mappings. Fills `result` with the first user found.
int procfs_path_in_use(const char* path, procfs_path_user* result, int scan_fds, int scan_maps);
