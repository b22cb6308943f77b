// A file descriptor with one owner: closed when the owner goes, unless
// released first.
#pragma once

#include <unistd.h>

class fd_owner {
public:
    explicit fd_owner(int fd) : fd_(fd) {}
    ~fd_owner()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    fd_owner(const fd_owner&) = delete;
    fd_owner& operator=(const fd_owner&) = delete;
    // The descriptor, -1 when none; still owned.
    int get() const { return fd_; }
    // Hands the descriptor to the caller, who closes it.
    int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};
