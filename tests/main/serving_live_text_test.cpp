// Live changes through the real process: "v4::text" with "newcontextonly"
// and schedule data filling a template's fields.
//
// Frames are compared with the renderer in this process, byte for byte. At
// 640 x 108 and one picture height a second the text moves 3.6 pixels a
// frame from x = 640, so frames from 300 on are full of text.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "main/serving_fixture.h"

namespace {

using t4test::local_renderer;
using t4test::picture_settings;
using t4test::plane_copy;

const t4mi_client_settings SETTINGS = picture_settings(640, 108);

class ServingProcessLiveText : public t4test::serving_process_test {};

TEST_F(ServingProcessLiveText, NewContextOnlyTextReachesOnlyClientsThatConnectAfterIt)
{
    const std::string text = "Only for those who come later";
    std::vector<plane_copy> old_frames, new_frames;
    {
        local_renderer r(ITEM, t4test::SCROLL_TEXT_TYPE, SETTINGS);
        for (uint64_t n : {300, 310, 320})
            old_frames.push_back(r.frame(n));
    }
    {
        local_renderer r(ITEM, t4test::SCROLL_TEXT_TYPE, SETTINGS);
        r.set_text(text);
        new_frames.push_back(r.frame(310));
    }
    ASSERT_NE(old_frames[1], new_frames[0]);

    start();
    auto existing = client();
    ASSERT_TRUE(existing && existing->send_settings(SETTINGS));
    EXPECT_EQ(t4test::first_difference(served(*existing, 300), old_frames[0]), "");

    // Sent by a third connection, as a control tool would.
    auto control = client();
    ASSERT_TRUE(control && control->set_text({{"text", text}, {"newcontextonly", "1"}})) << control->error();

    // The existing client keeps its text: fresh frames, the old words.
    EXPECT_EQ(t4test::first_difference(served(*existing, 310), old_frames[1]), "");
    EXPECT_EQ(t4test::first_difference(served(*existing, 320), old_frames[2]), "");
    // A client that connects now lays the new text out.
    auto later = client();
    ASSERT_TRUE(later && later->send_settings(SETTINGS));
    EXPECT_EQ(t4test::first_difference(served(*later, 310), new_frames[0]), "");
    stop();
}

TEST_F(ServingProcessLiveText, ScheduleDataFillsTheTitleFieldOfATemplateItem)
{
    // A template item's file is its text, fields and all; the watch loads it
    // about 2 s after serving starts.
    const std::string item = "On air now: %{title}% +++ ";
    const std::string evening = R"({"current":{"title":"Evening news"}})";
    const std::string film = R"({"current":{"title":"The late film"}})";
    t4test::write_file(item_path, item);
    plane_copy without_data, with_evening, with_film, evening_at_330;
    {
        local_renderer r(item, t4test::TEMPLATE_TYPE, SETTINGS);
        without_data = r.frame(320);
    }
    {
        local_renderer r(item, t4test::TEMPLATE_TYPE, SETTINGS);
        r.send_data(evening);
        with_evening = r.frame(320);
        evening_at_330 = r.frame(330);
    }
    {
        local_renderer r(item, t4test::TEMPLATE_TYPE, SETTINGS);
        r.send_data(film);
        with_film = r.frame(330);
    }
    ASSERT_NE(without_data, with_evening) << "the title must be in view at frame 320";
    ASSERT_NE(evening_at_330, with_film) << "the title must be in view at frame 330";

    start({"--type", t4test::TEMPLATE_TYPE});
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(SETTINGS));
    ASSERT_NE(wait_for_err("Text item changed\n", 8000), std::string::npos) << proc->err();

    bool changed = false;
    ASSERT_TRUE(c->send_data(evening, &changed)) << c->error();
    EXPECT_TRUE(changed);
    EXPECT_EQ(t4test::first_difference(served(*c, 320), with_evening), "");
    // The same data again is no change; other data is.
    ASSERT_TRUE(c->send_data(evening, &changed));
    EXPECT_FALSE(changed);
    ASSERT_TRUE(c->send_data(film, &changed));
    EXPECT_TRUE(changed);
    EXPECT_EQ(t4test::first_difference(served(*c, 330), with_film), "");

    // Data belongs to its connection: another client without any shows the
    // field empty.
    auto other = client();
    ASSERT_TRUE(other && other->send_settings(SETTINGS));
    EXPECT_EQ(t4test::first_difference(served(*other, 320), without_data), "");
    stop();
}

} // namespace
