#include "platform/derived_params.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/comm_server.h"
#include "platform/fd_owner.h"
#include "platform/safe_files.h"
#include "platform/t4mi_globals.h"

namespace {
std::string absolute_path(const std::string& p)
{
    if (!p.empty() && p[0] == '/')
        return p;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr)
        return p;
    return std::string(cwd) + "/" + p;
}

int make_directories(const std::string& path)
{
    for (size_t pos = 1; pos <= path.size(); pos++) {
        if (pos != path.size() && path[pos] != '/')
            continue;
        const std::string part = path.substr(0, pos);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST)
            return 1;
    }
    struct stat st {};
    return (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) ? 0 : 1;
}

void remove_temporary_files(int dir_fd)
{
    const int fd = dup(dir_fd);
    if (fd < 0)
        return;
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
        close(fd);
        return;
    }
    while (const dirent* e = readdir(dir)) {
        const std::string name = e->d_name;
        const bool tmp = name.size() > 4 && name.compare(name.size() - 4, 4, ".tmp") == 0;
        if (tmp || name == "rss.xml.part")
            unlinkat(dir_fd, name.c_str(), 0);
    }
    closedir(dir);
}
} // namespace

int t4mi_standard_to_derived_params()
{
    if (t4mi_file.empty())
        return 1;
    auto meta = std::make_unique<t4mi_meta_record>();
    meta->file_path = absolute_path(t4mi_file);
    const std::string full = absolute_path(t4mi_file);
    const auto slash = full.rfind('/');
    meta->dir_path = slash == 0 ? "/" : full.substr(0, slash);
    meta->file_name = full.substr(slash + 1);
    if (meta->file_name.empty())
        return 1;
    const char* refused = nullptr;
    fd_owner file_fd(t4mi_open_item(full, &refused));
    if (refused != nullptr) {
        std::fprintf(stderr, "Refusing item file '%s': it is %s\n", full.c_str(), refused);
        return T4MI_DERIVED_REFUSED;
    }
    fd_owner dir_fd(open(meta->dir_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (t4mi_file_metadir.empty())
        t4mi_file_metadir = meta->dir_path + (meta->dir_path == "/" ? "." : "/.") + meta->file_name + ".t4mi";
    t4mi_file_metadir = absolute_path(t4mi_file_metadir);
    if (file_fd.get() < 0 || dir_fd.get() < 0)
        return 1;
    // Everything we write goes into this directory: it must be ours alone, and
    // reached without a link another user could have planted in its place.
    struct stat st {};
    const bool linked = lstat(t4mi_file_metadir.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
    if (!linked && make_directories(t4mi_file_metadir) != 0)
        return 1;
    fd_owner meta_fd(linked ? -1 : open(t4mi_file_metadir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!linked && meta_fd.get() < 0)
        return 1;
    const std::string distrust = linked ? "a symbolic link" : t4mi_directory_distrust(meta_fd.get());
    if (!distrust.empty()) {
        std::fprintf(stderr, "Refusing metadata directory '%s': it is %s\n", t4mi_file_metadir.c_str(),
                     distrust.c_str());
        return T4MI_DERIVED_REFUSED;
    }
    meta->file_fd = file_fd.release();
    meta->dir_fd = dir_fd.release();
    meta->meta_name_fd = meta_fd.release();
    if (t4mi_sock.empty())
        t4mi_sock = t4mi_file_metadir + "/control.sock";
    if (t4mi_sock.size() >= sizeof(sockaddr_un{}.sun_path))
        t4mi_sock.clear(); // cannot be bound; start-up reports it

    auto md = std::make_unique<metadata_v4_metadata_context>();
    md->path = t4mi_file_metadir + "/" + T4MI_METADATA_FILE_NAME;
    metadata_v4_metadata_context_read(md.get());
    if (t4mi_file_type.empty() && !md->mime_type.empty())
        t4mi_file_type = md->mime_type;

    if (t4mi_temp_clean_only)
        remove_temporary_files(meta->meta_name_fd);

    t4mi_free_all();
    t4mi_meta = meta.release();
    t4mi_metadata = md.release();

    // The control socket, when the program asks for it. Runs that only
    // identify or clean up never serve: they must not take the socket from a
    // process that is serving the same item.
    if (t4mi_auto_socket_create && !t4mi_identify_only && !t4mi_temp_clean_only && !t4mi_sock.empty()) {
        t4mi_comm_server = comm_socket_v4_server_create(t4mi_sock.c_str());
        if (t4mi_comm_server == nullptr)
            return 1;
    }
    return 0;
}

int t4mi_redirect_stderr_to_logfile()
{
    if (t4mi_file_metadir.empty())
        return 1;
    const std::string path = t4mi_file_metadir + "/t4mi.log";
    // Appended to, so not replaced by rename; still never through a link, and
    // never a FIFO that would block the open.
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0)
        return 1;
    struct stat st {};
    const int flags = fcntl(fd, F_GETFL);
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        close(fd);
        return 1;
    }
    const int r = dup2(fd, STDERR_FILENO);
    close(fd);
    return r < 0 ? 1 : 0;
}

void fd_debug_dump_open_files(FILE* out)
{
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr)
        return;
    const int own = dirfd(dir);
    while (const dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.' || std::atoi(e->d_name) == own)
            continue;
        char target[PATH_MAX];
        const std::string link = std::string("/proc/self/fd/") + e->d_name;
        const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
        target[n < 0 ? 0 : n] = '\0';
        std::fprintf(out, "  fd %s -> %s\n", e->d_name, target);
    }
    closedir(dir);
}

void t4mi_free_all()
{
    t4mi_status_remove();
    // Closing the server frees its connections and their client contexts
    // and removes the socket file.
    comm_socket_v4_server_close(t4mi_comm_server);
    t4mi_comm_server = nullptr;
    if (t4mi_meta != nullptr) {
        for (int fd : {t4mi_meta->file_fd, t4mi_meta->dir_fd, t4mi_meta->meta_name_fd})
            if (fd >= 0)
                close(fd);
        delete t4mi_meta;
        t4mi_meta = nullptr;
    }
    delete t4mi_metadata;
    t4mi_metadata = nullptr;
}
