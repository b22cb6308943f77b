#include "platform/safe_files.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include "platform/fd_owner.h"

namespace {

// Six characters from [a-zA-Z0-9], about 35 bits, so a planted file cannot
// be guessed in advance; O_EXCL makes a collision a retry, not a hazard.
std::string random_suffix()
{
    static const char alphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    unsigned char bytes[6];
    if (getrandom(bytes, sizeof bytes, GRND_NONBLOCK) != ssize_t(sizeof bytes)) {
        // Without entropy the name is only less surprising; exclusivity still holds.
        static unsigned counter = 0;
        const unsigned long seed = (unsigned long)getpid() * 2654435761u + ++counter;
        for (size_t i = 0; i < sizeof bytes; i++)
            bytes[i] = (unsigned char)(seed >> (i * 5));
    }
    std::string s;
    for (unsigned char b : bytes)
        s.push_back(alphabet[b % (sizeof alphabet - 1)]);
    return s;
}

bool write_all(int fd, const std::string& content)
{
    size_t at = 0;
    while (at < content.size()) {
        const ssize_t n = write(fd, content.data() + at, content.size() - at);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        at += size_t(n);
    }
    return true;
}

} // namespace

std::string t4mi_directory_distrust(int dir_fd)
{
    struct stat st {};
    if (fstat(dir_fd, &st) != 0)
        return "not readable";
    if (!S_ISDIR(st.st_mode))
        return "not a directory";
    char text[96];
    if (st.st_uid != geteuid()) {
        std::snprintf(text, sizeof text, "owned by uid %u, not by uid %u", unsigned(st.st_uid), unsigned(geteuid()));
        return text;
    }
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        std::snprintf(text, sizeof text, "writable by group or others (mode %04o)", unsigned(st.st_mode & 07777));
        return text;
    }
    return {};
}

int t4mi_replace_file_at(int dir_fd, const char* name, const std::string& content, mode_t mode, bool sync,
                         struct stat* written)
{
    std::string tmp;
    int fd = -1;
    for (int attempt = 0; attempt < 16 && fd < 0; attempt++) {
        tmp = std::string(name) + "." + random_suffix() + ".tmp";
        fd = openat(dir_fd, tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (fd < 0 && errno != EEXIST)
            return errno;
    }
    if (fd < 0)
        return EEXIST;
    fd_owner file(fd);
    int failure = 0;
    if (!write_all(fd, content) || (sync && fsync(fd) != 0) || (written != nullptr && fstat(fd, written) != 0))
        failure = errno != 0 ? errno : EIO;
    if (failure == 0 && close(file.release()) != 0)
        failure = errno;
    if (failure == 0 && renameat(dir_fd, tmp.c_str(), dir_fd, name) != 0)
        failure = errno;
    if (failure != 0)
        unlinkat(dir_fd, tmp.c_str(), 0);
    return failure;
}

int t4mi_replace_file(const std::string& path, const std::string& content, mode_t mode, bool sync,
                      struct stat* written)
{
    const auto slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const fd_owner dir_fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir_fd.get() < 0)
        return errno;
    return t4mi_replace_file_at(dir_fd.get(), name.c_str(), content, mode, sync, written);
}

int t4mi_open_item(const std::string& path, const char** refused)
{
    *refused = nullptr;
    // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
    fd_owner fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (fd.get() < 0) {
        struct stat st {};
        if (errno == ENXIO && stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
            *refused = "a socket";
            errno = EINVAL;
        }
        return -1;
    }
    struct stat st {};
    if (fstat(fd.get(), &st) != 0)
        return -1;
    if (S_ISDIR(st.st_mode))
        *refused = "a directory";
    else if (S_ISFIFO(st.st_mode))
        *refused = "a FIFO";
    else if (S_ISSOCK(st.st_mode))
        *refused = "a socket";
    if (*refused != nullptr) {
        errno = EINVAL;
        return -1;
    }
    const int flags = fcntl(fd.get(), F_GETFL);
    if (flags < 0 || fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0)
        return -1;
    return fd.release();
}
