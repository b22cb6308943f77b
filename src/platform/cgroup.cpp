#include "platform/cgroup.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "platform/t4mi_globals.h"

namespace {
int move_to(const std::string& group, bool& warned)
{
    if (group.empty())
        return 0;
    const std::string procs = group + "/cgroup.procs";
    const int fd = open(procs.c_str(), O_WRONLY | O_CLOEXEC);
    bool ok = false;
    if (fd >= 0) {
        const std::string pid = std::to_string(getpid()) + "\n";
        ok = write(fd, pid.data(), pid.size()) == ssize_t(pid.size());
        close(fd);
    }
    if (!ok && !warned) {
        // Once per group: a misconfigured group would otherwise fill the log every 3 s.
        std::fprintf(stderr, "WARNING: cannot join control group %s: %s\n", group.c_str(), std::strerror(errno));
        warned = true;
    }
    return ok ? 0 : 1;
}
bool warned_active = false;
bool warned_idle = false;
} // namespace

int media_item_to_cgroup_active() { return move_to(t4mi_cgroup_active, warned_active); }
int media_item_to_cgroup_idle() { return move_to(t4mi_cgroup_idle, warned_idle); }
