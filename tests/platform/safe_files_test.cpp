// Files in the metadata directory: written on fresh names, never through a
// link; the directory checks; item paths that cannot be items.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/fd_owner.h"
#include "platform/safe_files.h"
#include "support/test_env.h"

namespace fs = std::filesystem;

namespace {

std::vector<std::string> names_in(const std::string& d)
{
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(d))
        names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

class SafeFiles : public ::testing::Test {
protected:
    t4test::temp_dir dir;
};

TEST_F(SafeFiles, AFileIsReplacedWholeAndNoTemporaryStays)
{
    t4test::write_file(dir / "status.json", "old");
    struct stat written {};
    ASSERT_EQ(t4mi_replace_file(dir / "status.json", "new text\n", 0644, true, &written), 0);
    EXPECT_EQ(t4test::read_file(dir / "status.json"), "new text\n");
    EXPECT_EQ(names_in(dir.path()), (std::vector<std::string>{"status.json"}));
    struct stat st {};
    ASSERT_EQ(lstat((dir / "status.json").c_str(), &st), 0);
    EXPECT_EQ(st.st_ino, written.st_ino);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
}

TEST_F(SafeFiles, ALinkPlantedAtTheOldTemporaryNameIsNeverWrittenThrough)
{
    t4test::write_file(dir / "victim", "precious");
    ASSERT_EQ(symlink((dir / "victim").c_str(), (dir / "status.json.tmp").c_str()), 0);
    ASSERT_EQ(t4mi_replace_file(dir / "status.json", "{}\n", 0644, false), 0);
    EXPECT_EQ(t4test::read_file(dir / "victim"), "precious");
    EXPECT_EQ(t4test::read_file(dir / "status.json"), "{}\n");
    EXPECT_TRUE(fs::is_symlink(dir / "status.json.tmp"));
}

TEST_F(SafeFiles, AFailedReplacementLeavesNoTemporary)
{
    // The rename fails: the target is a directory.
    t4test::make_dirs(dir / "sub/metadata.json");
    const fd_owner d(open((dir / "sub").c_str(), O_RDONLY | O_DIRECTORY));
    EXPECT_EQ(t4mi_replace_file_at(d.get(), "metadata.json", "x", 0644, false), EISDIR);
    EXPECT_EQ(names_in(dir / "sub"), (std::vector<std::string>{"metadata.json"}));
}

TEST_F(SafeFiles, ADirectoryIsTrustedWhenOursAndClosedToOthers)
{
    for (const auto& [mode, reason] : std::vector<std::pair<mode_t, std::string>>{
             {0700, ""},
             {0755, ""},
             {0770, "writable by group or others (mode 0770)"},
             {01777, "writable by group or others (mode 1777)"},
             {0702, "writable by group or others (mode 0702)"}}) {
        ASSERT_EQ(chmod(dir.path().c_str(), mode), 0);
        const fd_owner d(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY));
        EXPECT_EQ(t4mi_directory_distrust(d.get()), reason) << std::oct << mode;
    }
    ASSERT_EQ(chmod(dir.path().c_str(), 0700), 0);
}

TEST_F(SafeFiles, ADirectoryOfAnotherUserIsNotTrusted)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "giving a directory away needs root";
    t4test::make_dirs(dir / "theirs");
    ASSERT_EQ(chown((dir / "theirs").c_str(), 61234, 61234), 0);
    const fd_owner d(open((dir / "theirs").c_str(), O_RDONLY | O_DIRECTORY));
    EXPECT_EQ(t4mi_directory_distrust(d.get()), "owned by uid 61234, not by uid 0");
}

TEST_F(SafeFiles, ItemsAreOpenedWithoutBlockingAndOnlyFilesAndDevicesAreTaken)
{
    const char* refused = nullptr;
    t4test::write_file(dir / "item.txt", "abcd");
    const fd_owner file(t4mi_open_item(dir / "item.txt", &refused));
    ASSERT_GE(file.get(), 0);
    EXPECT_EQ(refused, nullptr);
    EXPECT_EQ(fcntl(file.get(), F_GETFL) & O_NONBLOCK, 0); // reads block as before

    const fd_owner device(t4mi_open_item("/dev/zero", &refused));
    EXPECT_GE(device.get(), 0);
    EXPECT_EQ(refused, nullptr);

    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(t4mi_open_item(dir / "fifo", &refused), -1);
    EXPECT_STREQ(refused, "a FIFO");
    EXPECT_EQ(t4mi_open_item(dir.path(), &refused), -1);
    EXPECT_STREQ(refused, "a directory");

    const fd_owner listener(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string sock = dir / "s";
    std::strncpy(addr.sun_path, sock.c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);
    EXPECT_EQ(t4mi_open_item(sock, &refused), -1);
    EXPECT_STREQ(refused, "a socket");

    EXPECT_EQ(t4mi_open_item(dir / "missing", &refused), -1);
    EXPECT_EQ(refused, nullptr);
    EXPECT_EQ(errno, ENOENT);
}

} // namespace
