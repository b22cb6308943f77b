#include "platform/procfs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {
struct dir_closer {
    void operator()(DIR* d) const { closedir(d); }
};
using dir_ptr = std::unique_ptr<DIR, dir_closer>;

bool is_number(const char* s)
{
    if (*s == '\0')
        return false;
    for (; *s; s++)
        if (*s < '0' || *s > '9')
            return false;
    return true;
}

bool has_descriptor_on(const std::string& proc, const struct stat& target)
{
    dir_ptr fds(opendir((proc + "/fd").c_str()));
    if (!fds)
        return false;
    while (const dirent* e = readdir(fds.get())) {
        struct stat st {};
        if (!is_number(e->d_name) || stat((proc + "/fd/" + e->d_name).c_str(), &st) != 0)
            continue;
        if (st.st_dev == target.st_dev && st.st_ino == target.st_ino)
            return true;
    }
    return false;
}

bool has_mapping_of(const std::string& proc, const struct stat& target)
{
    FILE* maps = std::fopen((proc + "/maps").c_str(), "r");
    if (maps == nullptr)
        return false;
    char line[4096];
    bool found = false;
    while (!found && std::fgets(line, sizeof line, maps)) {
        unsigned major = 0, minor = 0;
        unsigned long long inode = 0;
        if (std::sscanf(line, "%*s %*s %*s %x:%x %llu", &major, &minor, &inode) == 3)
            found = inode == target.st_ino && makedev(major, minor) == target.st_dev;
    }
    std::fclose(maps);
    return found;
}
} // namespace

int procfs_path_in_use(const char* path, procfs_path_user* result, int scan_fds, int scan_maps)
{
    struct stat target {};
    if (stat(path, &target) != 0)
        return 0;
    dir_ptr procs(opendir("/proc"));
    if (!procs)
        return 0;
    const pid_t self = getpid();
    while (const dirent* e = readdir(procs.get())) {
        if (!is_number(e->d_name) || std::atol(e->d_name) == self)
            continue;
        const std::string proc = std::string("/proc/") + e->d_name;
        unsigned long match = 0;
        if (scan_fds && has_descriptor_on(proc, target))
            match |= 0x1;
        if (scan_maps && has_mapping_of(proc, target))
            match |= 0x2;
        if (match != 0) {
            if (result != nullptr) {
                result->pid = std::strtoul(e->d_name, nullptr, 10);
                result->match = match;
            }
            return 1;
        }
    }
    return 0;
}
