#include "main/file_watch.h"

#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

#include "items/scroll_settings.h"
#include "main/main_globals.h"
#include "platform/clock.h"
#include "platform/metadata.h"
#include "platform/procfs.h"
#include "platform/t4mi_globals.h"

void arm_item_file_reload()
{
    watch_next_check = 0;
    watch_force = 1;
    watch_confirmations = 99999;
}

bool item_file_changed()
{
    if (reload_signalled) {
        reload_signalled = 0;
        std::fprintf(stderr, "SIGHUP: reloading the item\n");
        arm_item_file_reload();
    }
    if (watch_force) {
        watch_force = 0;
        return true;
    }
    const uint64_t now = monotonic_clock_us();
    if (watch_next_check > now)
        return false;
    watch_next_check = now + 2000000;

    // Both the open file and the name must be regular files: a vanished file
    // or a symbolic link put in its place simply shows no change.
    struct stat open_st {}, path_st {};
    if (t4mi_meta == nullptr || fstat(t4mi_meta->file_fd, &open_st) != 0 || !S_ISREG(open_st.st_mode))
        return false;
    if (fstatat(t4mi_meta->dir_fd, t4mi_meta->file_name.c_str(), &path_st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(path_st.st_mode))
        return false;
    if (int64_t(path_st.st_mtime) == scroll_settings.file_mtime)
        return false;
    if (t4mi_meta->dir_path.empty() || t4mi_meta->file_name.empty())
        return false;

    const std::string full = t4mi_meta->dir_path + "/" + t4mi_meta->file_name;
    std::fprintf(stderr, "Checking %s\n", full.c_str());
    procfs_path_user user;
    if (procfs_path_in_use(full.c_str(), &user, 1, 2)) {
        std::fprintf(stderr, "File changed, but is in use by pid=%lu match=0x%08lx\n", user.pid, user.match);
        watch_confirmations = 0;
        return false;
    }
    watch_confirmations++;
    if (watch_confirmations > 1) {
        metadata_v4_context_close_the_file(t4mi_meta);
        metadata_v4_context_open_the_file(t4mi_meta);
        watch_confirmations = 0;
        return true;
    }
    std::fprintf(stderr, "Waiting to be sure\n");
    return false;
}
