// A second start of the same item, through the real program: it finds the
// first server alive on the socket and leaves, and the first one never
// notices; a socket file nobody listens on is still taken over.
#include <gtest/gtest.h>

#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "main/serving_fixture.h"

namespace {

using t4test::picture_settings;
using t4test::plane_copy;

class ServingProcessSecondStart : public t4test::serving_process_test {
protected:
    struct stat socket_stat()
    {
        struct stat st {};
        EXPECT_EQ(lstat(proc->socket_path().c_str(), &st), 0);
        return st;
    }
};

TEST_F(ServingProcessSecondStart, TheSecondServerLeavesAndTheFirstKeepsServing)
{
    start();
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(picture_settings(64, 16))) << (c ? c->error() : "");
    const plane_copy before = served(*c, 0);
    const struct stat sock_before = socket_stat();
    const std::string status_before = t4test::read_file(dir / "meta/status.json");
    const std::string metadata_before = t4test::read_file(dir / "meta/metadata.json");

    // --oneshot: were it to take the socket, it would also leave at once and
    // take the socket file with it.
    const auto second = t4test::run_process(t4test::scrolltext_binary(),
                                            {"--file", item_path, "--metadir", dir / "meta", "--oneshot"},
                                            fonts.env(), 15000);
    EXPECT_EQ(second.exit_status, 1);
    EXPECT_NE(second.err.find("Cannot create control socket '" + proc->socket_path() + "': already served by pid " +
                              std::to_string(proc->pid()) + "\n"),
              std::string::npos)
        << second.err;

    // Its socket file, status and metadata are the first server's still.
    const struct stat sock_after = socket_stat();
    EXPECT_EQ(sock_after.st_ino, sock_before.st_ino);
    EXPECT_EQ(t4test::read_file(dir / "meta/status.json"), status_before);
    EXPECT_EQ(t4test::read_file(dir / "meta/metadata.json"), metadata_before);

    // The first server goes on serving the client it had and a new one.
    EXPECT_EQ(t4test::first_difference(served(*c, 0), before), "");
    auto fresh = client();
    ASSERT_TRUE(fresh && fresh->send_settings(picture_settings(64, 16)));
    EXPECT_EQ(t4test::first_difference(served(*fresh, 0), before), "");
    c.reset();
    fresh.reset();
    stop();
}

TEST_F(ServingProcessSecondStart, ASocketFileNobodyListensOnIsReplaced)
{
    // What a server that was killed leaves behind.
    t4test::make_dirs(dir / "meta");
    ASSERT_EQ(chmod((dir / "meta").c_str(), 0700), 0);
    const std::string path = dir / "meta/control.sock";
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);
    close(fd);

    start();
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(picture_settings(64, 16)));
    EXPECT_TRUE(served(*c, 0).any_alpha());
    c.reset();
    stop();
}

} // namespace
