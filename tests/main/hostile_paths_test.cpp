// Start-up of the real program against paths another local user prepared, or
// that are not files at all: it refuses them in one line and writes nothing
// through them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/test_env.h"

namespace fs = std::filesystem;

namespace {

// A user id with no account on this machine: a second user that needs no
// change to the machine's user list.
uid_t unused_uid()
{
    for (uid_t id = 61000; id < 65000; id++)
        if (getpwuid(id) == nullptr && getgrgid(id) == nullptr)
            return id;
    return 0;
}

// Runs `body` as user and group `id` (no supplementary groups, umask 0) in
// a forked child; true when it returned. `body` reports failure by
// returning false.
bool as_user(uid_t id, const std::function<bool()>& body)
{
    const pid_t child = fork();
    if (child == 0) {
        umask(0);
        const bool dropped = setgroups(0, nullptr) == 0 && setresgid(id, id, id) == 0 && setresuid(id, id, id) == 0;
        _exit(dropped && body() ? 0 : 1);
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class HostilePaths : public ::testing::Test {
protected:
    t4test::process_result run(const std::vector<std::string>& args)
    {
        return t4test::run_process(t4test::scrolltext_binary(), args, {root.env(), fonts.env()}, 15000, dir.path());
    }

    // A directory everybody may write in (like /tmp), with our item in it.
    std::string shared_item()
    {
        chmod(dir.path().c_str(), 0711);
        t4test::make_dirs(dir / "shared");
        chmod((dir / "shared").c_str(), 01777);
        t4test::write_file(dir / "shared/item.txt", "#Tevrin4ScrollText\nHello\n");
        return dir / "shared/item.txt";
    }

    static std::vector<std::string> names_in(const std::string& d)
    {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(d))
            names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    t4test::temp_dir dir;
    t4test::fixed_root root;
    t4test::private_fontconfig fonts{{}};
};

TEST_F(HostilePaths, AMetadataDirectoryOfAnotherUserIsRefusedAndNothingIsWrittenThroughItsLinks)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "acting as a second user needs root";
    const uid_t other = unused_uid();
    ASSERT_NE(other, 0u);
    const std::string item = shared_item();
    const std::string victim = dir / "victim.txt";
    t4test::write_file(victim, "precious\n");
    const std::string meta = dir / "shared/.item.txt.t4mi";
    // The other user prepares the item's metadata directory, open to all,
    // with the temporary names pointing at a file of ours.
    ASSERT_TRUE(as_user(other, [&] {
        return mkdir(meta.c_str(), 0777) == 0 && symlink(victim.c_str(), (meta + "/status.json.tmp").c_str()) == 0 &&
               symlink(victim.c_str(), (meta + "/metadata.json.tmp").c_str()) == 0 &&
               symlink(victim.c_str(), (meta + "/t4mi.log").c_str()) == 0;
    }));

    const auto r = run({"--file", item, "--oneshot", "--force-metadata", "--log"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "Refusing metadata directory '" + meta + "': it is owned by uid " + std::to_string(other) +
                         ", not by uid 0\n");
    EXPECT_EQ(t4test::read_file(victim), "precious\n");
    EXPECT_EQ(names_in(meta), (std::vector<std::string>{"metadata.json.tmp", "status.json.tmp", "t4mi.log"}));
}

TEST_F(HostilePaths, AMetadataDirectoryLinkedElsewhereIsRefused)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "acting as a second user needs root";
    const uid_t other = unused_uid();
    ASSERT_NE(other, 0u);
    const std::string item = shared_item();
    // A directory of ours with a file --temp-clean would remove, and the
    // other user's link to it in the item's metadata directory's place.
    t4test::write_file(dir / "ours/keep.tmp", "mine");
    chmod((dir / "ours").c_str(), 0700);
    const std::string meta = dir / "shared/.item.txt.t4mi";
    ASSERT_TRUE(as_user(other, [&] { return symlink((dir / "ours").c_str(), meta.c_str()) == 0; }));

    const auto r = run({"--file", item, "--temp-clean"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "Refusing metadata directory '" + meta + "': it is a symbolic link\n");
    EXPECT_EQ(t4test::read_file(dir / "ours/keep.tmp"), "mine");
}

TEST_F(HostilePaths, AMetadataDirectoryOfOursThatOthersMayWriteIsRefused)
{
    t4test::write_file(dir / "item.txt", "#Tevrin4ScrollText\nHello\n");
    for (const mode_t mode : {0770, 0703}) {
        const std::string meta = dir / ("meta" + std::to_string(mode));
        ASSERT_EQ(mkdir(meta.c_str(), 0700), 0);
        ASSERT_EQ(chmod(meta.c_str(), mode), 0);
        const auto r = run({"--file", dir / "item.txt", "--metadir", meta, "--oneshot"});
        EXPECT_EQ(r.exit_status, 1);
        char octal[8];
        std::snprintf(octal, sizeof octal, "%04o", unsigned(mode));
        EXPECT_EQ(r.err, "Refusing metadata directory '" + meta + "': it is writable by group or others (mode " +
                             octal + ")\n");
        EXPECT_TRUE(names_in(meta).empty());
    }
}

TEST_F(HostilePaths, AMetadataDirectoryWeCreateIsOwnerOnlyAndKeepsNoTemporaries)
{
    t4test::write_file(dir / "item.txt", "#Tevrin4ScrollText\nHello\n");
    const auto r = run({"--file", dir / "item.txt", "--metadir", dir / "new/meta", "--identify"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    struct stat st {};
    ASSERT_EQ(stat((dir / "new/meta").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    // Written on fresh names and renamed: no temporary file is left.
    EXPECT_EQ(names_in(dir / "new/meta"), (std::vector<std::string>{"metadata.json"}));
}

TEST_F(HostilePaths, TheSocketIsMadeOnlyInADirectoryOthersCannotWrite)
{
    t4test::write_file(dir / "item.txt", "#Tevrin4ScrollText\nHello\n");
    t4test::make_dirs(dir / "public");
    ASSERT_EQ(chmod((dir / "public").c_str(), 0777), 0);
    const std::string sock = dir / "public/item.sock";
    const auto r = run({"--file", dir / "item.txt", "--metadir", dir / "meta", "--socket", sock, "--oneshot"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "Cannot create control socket '" + sock +
                         "': its directory is writable by group or others (mode 0777)\n"
                         "Failed to obtain derived params\n");
    EXPECT_FALSE(fs::exists(fs::symlink_status(sock)));
}

TEST_F(HostilePaths, AFifoAsTheItemIsRefusedWithoutWaitingForAWriter)
{
    const std::string fifo = dir / "item.fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::vector<std::string>& extra : {std::vector<std::string>{}, {"--type", "text/plain"}}) {
        std::vector<std::string> args = {"--file", fifo, "--oneshot"};
        args.insert(args.end(), extra.begin(), extra.end());
        const auto r = run(args);
        EXPECT_FALSE(r.timed_out);
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.err, "Refusing item file '" + fifo + "': it is a FIFO\n");
    }
    EXPECT_FALSE(fs::exists(dir / ".item.fifo.t4mi"));
}

TEST_F(HostilePaths, ADirectoryAsTheItemIsRefusedInOneLine)
{
    t4test::make_dirs(dir / "folder");
    for (const std::vector<std::string>& extra : {std::vector<std::string>{}, {"--type", "text/plain"}}) {
        std::vector<std::string> args = {"--file", dir / "folder", "--oneshot"};
        args.insert(args.end(), extra.begin(), extra.end());
        const auto r = run(args);
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.err, "Refusing item file '" + (dir / "folder") + "': it is a directory\n");
    }
    EXPECT_FALSE(fs::exists(dir / ".folder.t4mi"));
}

TEST_F(HostilePaths, ADeviceServesOnlyWithAnExplicitType)
{
    // Identification reads only regular files and refuses the rest silently.
    const auto plain = run({"--file", "/dev/zero", "--metadir", dir / "m1", "--oneshot"});
    EXPECT_EQ(plain.exit_status, 1);
    EXPECT_EQ(plain.err.find("Refusing"), std::string::npos) << plain.err;
    EXPECT_TRUE(plain.err.ends_with("   Sock: " + (dir / "m1/control.sock") + "\n")) << plain.err;
    const auto typed = run({"--file", "/dev/zero", "--metadir", dir / "m2", "--oneshot", "--type", "text/plain"});
    EXPECT_EQ(typed.exit_status, 0) << typed.err;
}

TEST_F(HostilePaths, A3ByteFileIsStillRefusedSilently)
{
    t4test::write_file(dir / "short.txt", "abc");
    const auto r = run({"--file", dir / "short.txt", "--oneshot"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err.find("Refusing"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("not a scrolling text file"), std::string::npos) << r.err;
}

} // namespace
