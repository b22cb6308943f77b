#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/procfs.h"
#include "support/test_env.h"

namespace {

// Runs a child that opens `path`, optionally maps it and closes the
// descriptor, then waits until the returned pipe is closed.
pid_t hold_in_child(const std::string& path, bool map_only, int* release)
{
    int ready[2], hold[2];
    if (pipe(ready) != 0 || pipe(hold) != 0)
        return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(path.c_str(), O_RDONLY);
        if (map_only) {
            [[maybe_unused]] void* m = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
            close(fd);
        }
        char c = 1;
        close(hold[1]);
        [[maybe_unused]] ssize_t n = write(ready[1], &c, 1);
        n = read(hold[0], &c, 1);
        _exit(0);
    }
    close(ready[1]);
    close(hold[0]);
    char c;
    [[maybe_unused]] ssize_t n = read(ready[0], &c, 1);
    close(ready[0]);
    *release = hold[1];
    return pid;
}

TEST(ProcfsPathInUse, OurOwnDescriptorsNeverCount)
{
    t4test::temp_dir dir;
    t4test::write_file(dir / "item.txt", "x");
    const int fd = open((dir / "item.txt").c_str(), O_RDONLY);
    procfs_path_user user;
    EXPECT_EQ(procfs_path_in_use((dir / "item.txt").c_str(), &user, 1, 2), 0);
    close(fd);
}

TEST(ProcfsPathInUse, FindsAnOpenDescriptorAndAMapping)
{
    t4test::temp_dir dir;
    t4test::write_file(dir / "item.txt", std::string(100, 'x'));
    for (bool map_only : {false, true}) {
        int release = -1;
        const pid_t pid = hold_in_child(dir / "item.txt", map_only, &release);
        ASSERT_GT(pid, 0);
        procfs_path_user user;
        EXPECT_EQ(procfs_path_in_use((dir / "item.txt").c_str(), &user, 1, 2), 1);
        EXPECT_EQ(user.pid, (unsigned long)pid);
        EXPECT_EQ(user.match, map_only ? 0x2ul : 0x1ul);
        // Each scan can be switched off on its own.
        EXPECT_EQ(procfs_path_in_use((dir / "item.txt").c_str(), &user, map_only ? 1 : 0, map_only ? 0 : 2), 0);
        close(release);
        waitpid(pid, nullptr, 0);
        EXPECT_EQ(procfs_path_in_use((dir / "item.txt").c_str(), &user, 1, 2), 0);
    }
}

TEST(ProcfsPathInUse, AMissingPathIsNotInUse)
{
    procfs_path_user user;
    EXPECT_EQ(procfs_path_in_use("/nonexistent/item.txt", &user, 1, 2), 0);
}

} // namespace
