// Files the process creates in its metadata directory, and the checks that
// make that directory safe to write in.
//
// Another local user must not be able to make us write through a link they
// planted (a "status.json.tmp" pointing at one of our files) or move our
// files about. So: the directory must be ours and writable by nobody else,
// and every file is created on a fresh random name that cannot exist yet
// (O_EXCL), never following a link (O_NOFOLLOW), then renamed into place.
#pragma once

#include <string>
#include <sys/stat.h>
#include <sys/types.h>

// Why the directory open at `dir_fd` cannot be trusted with our files, or an
// empty string when it can: it must be owned by our effective user and not
// writable by group or others. The reason reads after "it is ":
// "owned by uid 1001, not by uid 0", "writable by group or others (mode 0777)".
std::string t4mi_directory_distrust(int dir_fd);

// Replaces the file `name` in the directory `dir_fd` with `content`: writes
// a new file "<name>.<random>.tmp" (created exclusively, mode `mode`, not
// through a link), optionally fsyncs it, and renames it over `name`, so that
// a reader sees the old file or the new one, never half of one. On failure
// the temporary file is removed and `name` is left as it was. Returns 0, or
// the errno of the step that failed. When `written` is given it receives the
// new file's stat (its inode identifies our file later).
int t4mi_replace_file_at(int dir_fd, const char* name, const std::string& content, mode_t mode, bool sync,
                         struct stat* written = nullptr);

// The same for a full path: the directory is the path up to its last "/".
int t4mi_replace_file(const std::string& path, const std::string& content, mode_t mode, bool sync,
                      struct stat* written = nullptr);

// Opens `path` for reading without blocking on a FIFO or a device, and
// refuses what cannot be an item: a directory, a FIFO or a socket. Returns
// the descriptor (blocking mode restored), or -1 with errno set; for a
// refused kind `*refused` names it ("a directory", "a FIFO", "a socket") and
// errno is EINVAL. Regular files and devices are opened as before.
int t4mi_open_item(const std::string& path, const char** refused);
