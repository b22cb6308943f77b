// The control socket at start-up and exit of the real program: made only by
// runs that serve, never left behind, and never taken from another process.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/test_env.h"

namespace fs = std::filesystem;

namespace {

class ControlSocketStartup : public ::testing::Test {
protected:
    t4test::process_result run(const std::vector<std::string>& args)
    {
        return t4test::run_process(t4test::scrolltext_binary(), args, {root.env(), fonts.env()}, 30000, dir.path());
    }
    std::string item()
    {
        t4test::write_file(dir / "item.txt", "#Tevrin4ScrollText\nHello\n");
        return dir / "item.txt";
    }
    std::string socket_path() const { return dir / ".item.txt.t4mi/control.sock"; }

    // A listening socket at the item's socket path, as a serving process has.
    int listen_at_socket_path()
    {
        t4test::make_dirs(dir / ".item.txt.t4mi");
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strcpy(addr.sun_path, socket_path().c_str());
        if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 4) != 0) {
            close(fd);
            return -1;
        }
        return fd;
    }

    t4test::temp_dir dir;
    t4test::fixed_root root;
    t4test::private_fontconfig fonts{{}};
};

TEST_F(ControlSocketStartup, AServingRunLeavesNoSocketBehind)
{
    const auto r = run({"--file", item(), "--oneshot"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(r.err.find("   Sock: " + socket_path() + "\n"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(socket_path()));
}

TEST_F(ControlSocketStartup, AFileThatIsNotASocketAtThePathStopsStartUp)
{
    t4test::write_file(socket_path(), "not a socket");
    const auto r = run({"--file", item(), "--oneshot"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "Cannot create control socket '" + socket_path() + "': File exists\n"
                     "Failed to obtain derived params\n");
    EXPECT_EQ(t4test::read_file(socket_path()), "not a socket");
}

TEST_F(ControlSocketStartup, IdentifyAndTempCleanRunsLeaveAServingProcessesSocketAlone)
{
    const std::string file = item();
    const int fd = listen_at_socket_path();
    ASSERT_GE(fd, 0);
    struct stat before {};
    ASSERT_EQ(lstat(socket_path().c_str(), &before), 0);
    EXPECT_EQ(run({"--file", file, "--identify"}).exit_status, 0);
    EXPECT_EQ(run({"--file", file, "--temp-clean"}).exit_status, 0);
    struct stat after {};
    ASSERT_EQ(lstat(socket_path().c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    close(fd);
}

TEST_F(ControlSocketStartup, AStaleSocketIsReplacedAndRemoved)
{
    const std::string file = item();
    const int fd = listen_at_socket_path();
    ASSERT_GE(fd, 0);
    close(fd);  // the process that served is gone; its file stays
    ASSERT_TRUE(fs::exists(socket_path()));
    const auto r = run({"--file", file, "--oneshot"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_FALSE(fs::exists(socket_path()));
}

TEST_F(ControlSocketStartup, AStartUpFailureAfterTheSocketWasMadeRemovesIt)
{
    // Refused after the tear-down exists...
    auto r = run({"--file", item(), "--type", "application/s-tavrin-metadata-template", "--oneshot"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("Unknown file type field\n"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(socket_path()));
    // ... and before it: a plain return from main.
    fs::remove(root.at("/usr/share/tevrin4/fonts/liberation_sans.ttf"));
    r = run({"--file", item(), "--oneshot"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("Unable to load default font\n"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(socket_path()));
}

} // namespace
