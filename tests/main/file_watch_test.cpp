#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "items/item_types.h"
#include "items/scroll_settings.h"
#include "main/file_watch.h"
#include "main/main_globals.h"
#include "platform/clock.h"
#include "platform/t4mi_globals.h"
#include "support/item_fixture.h"

namespace {

class FileWatch : public ::testing::Test {
protected:
    void SetUp() override
    {
        watch_next_check = 0;
        watch_force = 0;
        watch_confirmations = 0;
        scroll_settings = scroll_settings_record{};
        set_mtime(1000000000);
        load_message();
        ASSERT_EQ(scroll_settings.file_mtime, 1000000000);
    }
    void TearDown() override { t4mi_clock_unpin_monotonic(); }

    void set_mtime(time_t seconds, long nanoseconds = 0)
    {
        const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
        ASSERT_EQ(utimensat(AT_FDCWD, item.path().c_str(), times, 0), 0);
    }

    // Moves the pinned monotonic clock on by `us` and polls once, capturing
    // stderr. Pinned, the watch sees exactly the steps the test names, however
    // long the test itself takes on a loaded machine.
    bool poll_after(int64_t us, std::string* err)
    {
        now += us;
        t4mi_clock_pin_monotonic_us(now);
        testing::internal::CaptureStderr();
        const bool changed = item_file_changed();
        *err = testing::internal::GetCapturedStderr();
        return changed;
    }

    t4test::open_item item{"#Tevrin4ScrollText\nold\n", "application/x-tevrin-scrolling-text"};
    int64_t now = int64_t(monotonic_clock_us());
};

TEST_F(FileWatch, AnInPlaceRewriteIsReloadedOneCheckAfterItIsSeen)
{
    std::string err;
    item.rewrite("#Tevrin4ScrollText\nnew\n");
    set_mtime(1000000005);
    EXPECT_FALSE(poll_after(0, &err));
    EXPECT_EQ(err, "Checking " + item.path() + "\nWaiting to be sure\n");
    // Within the 2 s the disk is not looked at.
    EXPECT_FALSE(poll_after(1900000, &err));
    EXPECT_EQ(err, "");
    EXPECT_TRUE(poll_after(100000, &err));
    EXPECT_EQ(err, "Checking " + item.path() + "\n");
    EXPECT_EQ(watch_confirmations, 0);
    load_message();
    EXPECT_EQ(scroll_settings.text, "new");
}

TEST_F(FileWatch, AChangeWithinTheSameSecondIsNotSeen)
{
    std::string err;
    item.rewrite("#Tevrin4ScrollText\nsame second\n");
    set_mtime(1000000000, 900000000);
    EXPECT_FALSE(poll_after(0, &err));
    EXPECT_FALSE(poll_after(2000000, &err));
    EXPECT_EQ(err, "");
}

TEST_F(FileWatch, AFileHeldOpenElsewhereWaitsUntilItIsClosed)
{
    int release[2];
    ASSERT_EQ(pipe(release), 0);
    const pid_t editor = fork();
    if (editor == 0) {
        const int fd = open(item.path().c_str(), O_RDONLY);
        char c;
        close(release[1]);
        [[maybe_unused]] ssize_t n = read(release[0], &c, 1); // holds the file until the pipe closes
        close(fd);
        _exit(0);
    }
    close(release[0]);
    usleep(200000); // let the editor open the file
    set_mtime(1000000007);
    char expected[128];
    std::snprintf(expected, sizeof expected, "File changed, but is in use by pid=%lu match=0x%08lx\n",
                  (unsigned long)editor, 1ul);
    std::string err;
    for (int i = 0; i < 3; i++) {
        EXPECT_FALSE(poll_after(i ? 2000000 : 0, &err));
        EXPECT_EQ(err, "Checking " + item.path() + "\n" + expected);
    }
    close(release[1]);
    waitpid(editor, nullptr, 0);
    EXPECT_FALSE(poll_after(2000000, &err));
    EXPECT_EQ(err, "Checking " + item.path() + "\nWaiting to be sure\n");
    EXPECT_TRUE(poll_after(2000000, &err));
}

TEST_F(FileWatch, ReloadReportsAChangeOnTheNextTurnEvenWithoutOne)
{
    std::string err;
    arm_item_file_reload();
    EXPECT_TRUE(poll_after(0, &err));
    EXPECT_EQ(err, "");
    // A real change found later is accepted at its first check.
    set_mtime(1000000009);
    EXPECT_TRUE(poll_after(0, &err));
    EXPECT_EQ(err, "Checking " + item.path() + "\n");
}

TEST_F(FileWatch, ATextItemNeverLoadedIsLoadedByTheWatch)
{
    scroll_settings.file_mtime = 0; // plain-text and template items are not read at start-up
    std::string err;
    EXPECT_FALSE(poll_after(0, &err));
    EXPECT_EQ(err, "Checking " + item.path() + "\nWaiting to be sure\n");
    EXPECT_TRUE(poll_after(2000000, &err));
}

TEST_F(FileWatch, AVanishedFileOrASymbolicLinkShowsNoChange)
{
    std::string err;
    set_mtime(1000000011);
    unlink(item.path().c_str());
    EXPECT_FALSE(poll_after(0, &err));
    ASSERT_EQ(symlink("/etc/hostname", item.path().c_str()), 0);
    EXPECT_FALSE(poll_after(2000000, &err));
    EXPECT_EQ(err, "");
}

TEST_F(FileWatch, AReplacedFileIsReopened)
{
    std::string err;
    const std::string tmp = item.path() + ".new";
    t4test::write_file(tmp, "#Tevrin4ScrollText\nreplaced\n");
    ASSERT_EQ(rename(tmp.c_str(), item.path().c_str()), 0);
    set_mtime(1000000013);
    EXPECT_FALSE(poll_after(0, &err));
    EXPECT_TRUE(poll_after(2000000, &err));
    load_message();
    EXPECT_EQ(scroll_settings.text, "replaced");
}

TEST_F(FileWatch, ASighupSinceTheLastPollReloadsAtOnceLikeTheReloadCommand)
{
    std::string err;
    reload_signalled = 1;
    EXPECT_TRUE(poll_after(0, &err));
    EXPECT_EQ(err, "SIGHUP: reloading the item\n");
    EXPECT_EQ(reload_signalled, 0);
    // Armed as "reload" arms it: a real change later is taken at its first check.
    EXPECT_EQ(watch_confirmations, 99999);
    EXPECT_FALSE(poll_after(0, &err));
}

} // namespace
