// The item watch and "reload" through the real process: an edited item, an
// item another process holds open, a forced reload, and a plain-text item
// that only the watch ever loads.
//
// Frames are compared with the renderer in this process on the same item,
// byte for byte. At 640 x 108 and one picture height a second the text moves
// 108 × 1001 / 30000 = 3.6 pixels a frame from x = 640, so from frame 300
// on (1081 pixels in) the picture is full of text.
#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "main/serving_fixture.h"

namespace {

using t4test::local_renderer;
using t4test::picture_settings;
using t4test::plane_copy;

constexpr const char* NEW_ITEM =
    "#Tevrin4ScrollText\n"
    "#-backgroundColor=ff0000\n"
    "#-backgroundOpacity=0.5\n"
    "#-scrollSpeed=1\n"
    "#-multiLine=1\n"
    "Weather: sunny spells later\n";

const t4mi_client_settings SETTINGS = picture_settings(640, 108);

double seconds_since(std::chrono::steady_clock::time_point t)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

class ServingProcessReload : public t4test::serving_process_test {
protected:
    // Frames `numbers` of `item` of `type` rendered in this process.
    static std::vector<plane_copy> rendered_here(const std::string& item, const std::string& type,
                                                 const std::vector<uint64_t>& numbers,
                                                 const std::string& replaced_text = {})
    {
        local_renderer r(item, type, SETTINGS);
        if (!replaced_text.empty())
            r.set_text(replaced_text);
        std::vector<plane_copy> out;
        for (uint64_t n : numbers)
            out.push_back(r.frame(n));
        return out;
    }

    // Keeps a client busy while the test waits for the watch, as a playout
    // client would be: a fresh frame each time, released at once.
    std::function<void()> keep_rendering(t4mi_client& c)
    {
        return [this, &c] { served(c, next_busy_frame++); };
    }

    uint64_t next_busy_frame = 1000;
};

TEST_F(ServingProcessReload, AnEditedItemIsReloadedAfterTwoChecksAndLaterFramesShowTheNewText)
{
    const auto before = rendered_here(ITEM, t4test::SCROLL_TEXT_TYPE, {300, 310});
    const auto after = rendered_here(NEW_ITEM, t4test::SCROLL_TEXT_TYPE, {310});
    ASSERT_NE(before[1], after[0]) << "the two texts must look different at frame 310";
    start();
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(SETTINGS)) << (c ? c->error() : "");
    EXPECT_EQ(t4test::first_difference(served(*c, 300), before[0]), "");

    const size_t from = proc->err().size();
    const auto edited = std::chrono::steady_clock::now();
    edit_item(NEW_ITEM);
    const size_t changed = wait_for_err("Text item changed\n", 10000, from, keep_rendering(*c));
    ASSERT_NE(changed, std::string::npos) << proc->err();
    const double took = seconds_since(edited);

    // Seen at one check, confirmed at the next, 2 s later: between 2 s and
    // 4 s after the edit (with room for a slow machine above).
    EXPECT_GE(took, 1.95);
    EXPECT_LE(took, 7.0);
    const std::string err = proc->err();
    const size_t checking = err.find("Checking " + item_path + "\n", from);
    const size_t waiting = err.find("Waiting to be sure\n", from);
    EXPECT_LT(checking, waiting) << err;
    EXPECT_LT(waiting, changed) << err;
    EXPECT_EQ(err.find("in use", from), std::string::npos) << err;

    // A frame never asked for before, so it is rendered from the new text.
    EXPECT_EQ(t4test::first_difference(served(*c, 310), after[0]), "");
    stop();
}

TEST_F(ServingProcessReload, AnItemHeldOpenByAnotherProcessIsReloadedOnlyOnceItIsClosed)
{
    const auto old_frames = rendered_here(ITEM, t4test::SCROLL_TEXT_TYPE, {310});
    const auto new_frames = rendered_here(NEW_ITEM, t4test::SCROLL_TEXT_TYPE, {320});
    start();
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(SETTINGS));

    // An "editor": a child that holds the item open until its pipe closes.
    int ready[2], hold[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(hold, O_CLOEXEC), 0);
    const pid_t editor = fork();
    ASSERT_GE(editor, 0);
    if (editor == 0) {
        alarm(60);  // never outlives a broken test
        close(hold[1]);
        close(ready[0]);
        const int fd = open(item_path.c_str(), O_RDONLY);
        char b = fd >= 0 ? 'y' : 'n';
        if (write(ready[1], &b, 1) != 1)
            _exit(1);
        while (read(hold[0], &b, 1) > 0) {
        }
        _exit(0);
    }
    close(ready[1]);
    close(hold[0]);
    char b = 0;
    ASSERT_EQ(read(ready[0], &b, 1), 1);
    close(ready[0]);
    ASSERT_EQ(b, 'y');

    const size_t from = proc->err().size();
    edit_item(NEW_ITEM);
    // The descriptor matches (0x1); the editor maps nothing (no 0x2).
    const std::string in_use = "File changed, but is in use by pid=" + std::to_string(editor) + " match=0x00000001\n";
    const size_t first = wait_for_err(in_use, 6000, from, keep_rendering(*c));
    ASSERT_NE(first, std::string::npos) << proc->err();
    const size_t second = wait_for_err(in_use, 6000, first + 1, keep_rendering(*c));
    EXPECT_NE(second, std::string::npos) << proc->err();
    // Not reloaded while held: no change, no confirmation, the old text.
    EXPECT_EQ(proc->err().find("Text item changed\n", from), std::string::npos) << proc->err();
    EXPECT_EQ(proc->err().find("Waiting to be sure\n", from), std::string::npos) << proc->err();
    EXPECT_EQ(t4test::first_difference(served(*c, 310), old_frames[0]), "");

    close(hold[1]);
    int status = -1;
    ASSERT_EQ(waitpid(editor, &status, 0), editor);
    const auto closed = std::chrono::steady_clock::now();
    const size_t after_close = proc->err().size();
    // The count started again at the in-use check: two more checks.
    const size_t changed = wait_for_err("Text item changed\n", 10000, after_close, keep_rendering(*c));
    ASSERT_NE(changed, std::string::npos) << proc->err();
    EXPECT_GE(seconds_since(closed), 1.5);
    const size_t waiting = proc->err().find("Waiting to be sure\n", after_close);
    EXPECT_LT(waiting, changed) << proc->err();
    EXPECT_EQ(t4test::first_difference(served(*c, 320), new_frames[0]), "");
    stop();
}

TEST_F(ServingProcessReload, ReloadThroughTheSocketReReadsTheUnchangedFileOnTheNextTurn)
{
    const std::string replaced = "Replaced through the socket";
    const auto from_socket = rendered_here(ITEM, t4test::SCROLL_TEXT_TYPE, {310}, replaced);
    const auto from_file = rendered_here(ITEM, t4test::SCROLL_TEXT_TYPE, {320});
    start();
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(SETTINGS));
    ASSERT_TRUE(c->set_text({{"text", replaced}})) << c->error();
    EXPECT_EQ(t4test::first_difference(served(*c, 310), from_socket[0]), "");

    // The file did not change; "reload" reads it all the same, on the turn
    // after the command: far sooner than the watch's 2 s.
    const size_t from = proc->err().size();
    const auto asked = std::chrono::steady_clock::now();
    ASSERT_TRUE(c->reload()) << c->error();
    const size_t changed = wait_for_err("Text item changed\n", 2000, from);
    ASSERT_NE(changed, std::string::npos) << proc->err();
    EXPECT_LT(seconds_since(asked), 1.0);
    EXPECT_EQ(proc->err().find("Checking ", from), std::string::npos) << proc->err();
    EXPECT_EQ(t4test::first_difference(served(*c, 320), from_file[0]), "");
    stop();
}

TEST_F(ServingProcessReload, APlainTextItemGetsItsTextFromTheWatchAboutTwoSecondsAfterStart)
{
    const std::string plain = "Plain words, no settings\n";
    t4test::write_file(item_path, plain);
    const auto expected = rendered_here(plain, t4test::PLAIN_TEXT_TYPE, {320});
    ASSERT_TRUE(expected[0].any_alpha());
    start({"--type", t4test::PLAIN_TEXT_TYPE});
    const auto ready = std::chrono::steady_clock::now();
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(SETTINGS));
    // No text yet, and the default background is transparent: every alpha is 0.
    const plane_copy empty = served(*c, 310);
    if (seconds_since(ready) < 1.5) {
        EXPECT_FALSE(empty.any_alpha());
    }

    const size_t changed = wait_for_err("Text item changed\n", 8000, 0, keep_rendering(*c));
    ASSERT_NE(changed, std::string::npos) << proc->err();
    const double took = seconds_since(ready);
    EXPECT_GE(took, 1.9);
    EXPECT_LE(took, 7.0);
    const std::string err = proc->err();
    const size_t checking = err.find("Checking " + item_path + "\n");
    const size_t waiting = err.find("Waiting to be sure\n");
    EXPECT_LT(checking, waiting) << err;
    EXPECT_LT(waiting, changed) << err;
    EXPECT_EQ(t4test::first_difference(served(*c, 320), expected[0]), "");
    stop();
}

} // namespace
