#include <gtest/gtest.h>

#include "frames/client_context.h"
#include "items/scroll_settings.h"
#include "main/control_packets.h"
#include "main/file_watch.h"
#include "main/main_globals.h"
#include "platform/packet.h"
#include "platform/t4mi_globals.h"

namespace {

class ControlPackets : public ::testing::Test {
protected:
    void SetUp() override
    {
        scroll_settings = scroll_settings_record{};
        t4mi_client_contexts.set_context_factory(
            [](uint64_t id) -> t4mi_client_context* { return new scrolling_text_client_context(id); });
        a = static_cast<scrolling_text_client_context*>(t4mi_client_contexts.create());
        b = static_cast<scrolling_text_client_context*>(t4mi_client_contexts.create());
        a->text_dirty = b->text_dirty = false;
    }
    void TearDown() override
    {
        t4mi_client_contexts.destroy_all();
        watch_force = 0;
        watch_next_check = 0;
        watch_confirmations = 0;
    }

    // Sends "v4::text" with the entries in order; checks the "OK" reply.
    void send_text(const std::vector<std::pair<std::string, std::string>>& entries)
    {
        comm_socket_v4_packet request, response;
        request.command = "v4::text";
        for (const auto& [n, v] : entries)
            request.entries.push_back({n, v});
        ASSERT_EQ(my_custom_packet_handler(&request, &response, nullptr, nullptr), 1);
        EXPECT_EQ(response.command, "v4::text");
        EXPECT_EQ(response.status, "OK");
        EXPECT_TRUE(response.args.empty());
    }

    scrolling_text_client_context* a = nullptr;
    scrolling_text_client_context* b = nullptr;
};

TEST_F(ControlPackets, NewContextOnlyAloneChangesNothingAndMarksNoContext)
{
    const auto before = scroll_settings;
    send_text({{"newcontextonly", "1"}});
    EXPECT_FALSE(a->text_dirty);
    EXPECT_FALSE(b->text_dirty);
    EXPECT_EQ(scroll_settings.text, before.text);
    EXPECT_EQ(scroll_settings.fontColor, before.fontColor);
}

TEST_F(ControlPackets, EntriesApplyInOrderSoAColourResetsItsOpacity)
{
    send_text({{"fontOpacity", "0.5"}, {"fontColor", "ff0000"}});
    EXPECT_EQ(scroll_settings.fontColor, (colour_rgba{255, 0, 0, 255}));
    send_text({{"fontColor", "#ff0000"}, {"fontOpacity", "0.5"}});
    EXPECT_EQ(scroll_settings.fontColor, (colour_rgba{255, 0, 0, 127}));
}

TEST_F(ControlPackets, NegativeMultiLineBecomesZero)
{
    send_text({{"multiLine", "-2"}});
    EXPECT_EQ(scroll_settings.multiLine, 0);
}

TEST_F(ControlPackets, AChangeMarksEveryContextUnlessForNewContextsOnly)
{
    send_text({{"text", "Breaking"}});
    EXPECT_TRUE(a->text_dirty);
    EXPECT_TRUE(b->text_dirty);
    a->text_dirty = b->text_dirty = false;
    send_text({{"text", "Later"}, {"newcontextonly", "1"}});
    EXPECT_EQ(scroll_settings.text, "Later");
    EXPECT_FALSE(a->text_dirty);
    EXPECT_FALSE(b->text_dirty);
    send_text({{"newcontextonly", "0"}, {"unknownName", "x"}});
    EXPECT_FALSE(a->text_dirty); // unknown names are not changes
}

TEST_F(ControlPackets, EveryName)
{
    send_text({{"scrollSpeed", "2.5"}, {"smoothScroll", "1"}, {"emoji", "MonoChrome"}, {"backgroundColor", "#102030"},
               {"backgroundOpacity", "0.5"}, {"shadowColor", "405060"}, {"shadowOpacity", "1.5"},
               {"shadowBlur", "4"}, {"shadowX", "-2"}, {"shadowY", "5"}, {"justify", "center"}, {"space", "-1"},
               {"fontFamily", "Liberation Serif"}, {"fontStyle", "Bold"}, {"fontScale", "0.0005"},
               {"text", "A\n\nB"}});
    const auto& s = scroll_settings;
    EXPECT_EQ(s.scrollSpeed, 2.5);
    EXPECT_EQ(s.smoothScroll, 1.0);
    EXPECT_EQ(s.emoji, 0);
    EXPECT_EQ(s.backgroundColor, (colour_rgba{0x10, 0x20, 0x30, 127}));
    // 1.5 * 255 = 382 -> low byte 126 in the colour; the opacity integer is left as it was.
    EXPECT_EQ(s.shadowColor, (colour_rgba{0x40, 0x50, 0x60, 126}));
    EXPECT_EQ(s.shadowOpacity, 127);
    EXPECT_DOUBLE_EQ(s.shadowBlur, 0.04);
    EXPECT_DOUBLE_EQ(s.shadowX, -0.02);
    EXPECT_DOUBLE_EQ(s.shadowY, 0.05);
    EXPECT_EQ(s.justify, 1);
    EXPECT_EQ(s.space, 0.0);
    EXPECT_EQ(s.fontFamily, "Liberation Serif");
    EXPECT_EQ(s.fontStyle, "Bold");
    EXPECT_EQ(s.fontScale, 0); // not normalised, unlike a file load
    EXPECT_EQ(s.text, "A\n\nB"); // no folding
    EXPECT_EQ(s.static_, 0);
    send_text({{"emoji", "color"}, {"justify", "sideways"}, {"space", "none"}});
    EXPECT_EQ(s.emoji, 1);
    EXPECT_EQ(s.justify, 0);
}

TEST_F(ControlPackets, OutlineAndDirectionNames)
{
    send_text({{"outlineColor", "#204060"}, {"outlineOpacity", "0.5"}, {"outlineWidth", "3"},
               {"scrollDirection", "right"}});
    const auto& s = scroll_settings;
    EXPECT_EQ(s.outlineColor, (colour_rgba{0x20, 0x40, 0x60, 127}));
    EXPECT_DOUBLE_EQ(s.outlineWidth, 0.03);
    EXPECT_EQ(s.scrollDirection, scroll_direction_right);
    EXPECT_TRUE(a->text_dirty);
    EXPECT_TRUE(b->text_dirty);
    // A colour after its opacity makes it opaque again, as for the others;
    // unknown words and bad widths give the defaults and still count as changes.
    a->text_dirty = false;
    testing::internal::CaptureStderr();
    send_text({{"outlineOpacity", "0.5"}, {"outlineColor", "ff0000"}, {"scrollDirection", "sideways"},
               {"outlineWidth", "-1"}});
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "WARNING: unknown scrollDirection sideways\nWARNING: unknown outlineWidth -1\n");
    EXPECT_EQ(s.outlineColor, (colour_rgba{255, 0, 0, 255}));
    EXPECT_EQ(s.scrollDirection, scroll_direction_left);
    EXPECT_EQ(s.outlineWidth, 0.0);
    EXPECT_TRUE(a->text_dirty);
}

TEST_F(ControlPackets, StaticFollowsTheSpeedEvenWithoutEntries)
{
    scroll_settings.scrollSpeed = 0.0;
    scroll_settings.static_ = 0;
    send_text({});
    EXPECT_EQ(scroll_settings.static_, 1);
    EXPECT_FALSE(a->text_dirty);
}

TEST_F(ControlPackets, ReloadAnswersOkAndArmsTheWatch)
{
    comm_socket_v4_packet request, response;
    request.command = "reload";
    ASSERT_EQ(my_custom_packet_handler(&request, &response, nullptr, nullptr), 1);
    EXPECT_EQ(response.command, "reload");
    EXPECT_EQ(response.status, "OK");
    EXPECT_EQ(watch_force, 1);
    EXPECT_EQ(watch_next_check, 0u);
    EXPECT_EQ(watch_confirmations, 99999);
    // The next poll reports a change at once, without looking at the disk.
    EXPECT_TRUE(item_file_changed());
    EXPECT_EQ(watch_force, 0);
}

TEST_F(ControlPackets, OtherCommandsAreNotOurs)
{
    comm_socket_v4_packet request, response;
    for (const char* command : {"Reload", "v4::Text", "frame", ""}) {
        request.command = command;
        EXPECT_EQ(my_custom_packet_handler(&request, &response, nullptr, nullptr), 0) << command;
        EXPECT_EQ(response.command, "");
    }
}

TEST_F(ControlPackets, ATextPastItsLimitIsRefusedAndNothingOfThePacketApplies)
{
    const auto before = scroll_settings;
    for (const auto& [entries, message] : std::vector<std::pair<std::vector<comm_socket_v4_nv_entry>, std::string>>{
             {{{"fontColor", "00ff00"}, {"text", std::string(MAX_TEXT_ENTRY_BYTES + 1, 'x')}},
              "Text too large: " + std::to_string(MAX_TEXT_ENTRY_BYTES + 1) + " bytes, at most " +
                  std::to_string(MAX_TEXT_ENTRY_BYTES)},
             {{{"text", "fits"}, {"fontFamily", std::string(MAX_SETTING_ENTRY_BYTES + 1, 'F')}},
              "Value too large: fontFamily, " + std::to_string(MAX_SETTING_ENTRY_BYTES + 1) + " bytes, at most " +
                  std::to_string(MAX_SETTING_ENTRY_BYTES)}}) {
        comm_socket_v4_packet request, response;
        request.command = "v4::text";
        request.entries = entries;
        ASSERT_EQ(my_custom_packet_handler(&request, &response, nullptr, nullptr), 1);
        EXPECT_EQ(response.command, "v4::text");
        EXPECT_EQ(response.status, "ERROR");
        ASSERT_EQ(response.entries.size(), 1u);
        EXPECT_EQ(response.entries[0].name, "message");
        EXPECT_EQ(response.entries[0].value, message);
    }
    EXPECT_EQ(scroll_settings.text, before.text);
    EXPECT_EQ(scroll_settings.fontColor, before.fontColor);
    EXPECT_FALSE(a->text_dirty);
    // At the limits exactly, it applies.
    send_text({{"text", std::string(MAX_TEXT_ENTRY_BYTES, 'y')}, {"fontFamily", std::string(MAX_SETTING_ENTRY_BYTES, 'F')}});
    EXPECT_EQ(scroll_settings.text.size(), MAX_TEXT_ENTRY_BYTES);
    EXPECT_TRUE(a->text_dirty);
}

} // namespace

namespace {

TEST_F(ControlPackets, TextShapingAndDirectionAreLiveSettings)
{
    send_text({{"textShaping", "1"}, {"textDirection", "rtl"}});
    EXPECT_EQ(scroll_settings.textShaping, 1);
    EXPECT_EQ(scroll_settings.textDirection, TEXT_DIRECTION_RTL);
    EXPECT_TRUE(a->text_dirty);
    EXPECT_TRUE(b->text_dirty);
    a->text_dirty = b->text_dirty = false;
    // An unknown value sets the default, with the loader's warning, and still counts as a change.
    testing::internal::CaptureStderr();
    send_text({{"textShaping", "maybe"}, {"textDirection", "sideways"}});
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "WARNING: unknown textShaping maybe\nWARNING: unknown textDirection sideways\n");
    EXPECT_EQ(scroll_settings.textShaping, 0);
    EXPECT_EQ(scroll_settings.textDirection, TEXT_DIRECTION_AUTO);
    EXPECT_TRUE(a->text_dirty);
}

} // namespace
