// The panel's checks of the form before anything is sent to the item.
#include <gtest/gtest.h>

#include "panel_fields.h"

namespace {

using entries_t = std::vector<std::pair<std::string, std::string>>;

std::string refusal(const nlohmann::json& form)
{
    entries_t entries{{"left", "over"}};
    std::string error;
    EXPECT_FALSE(panel_text_entries(form, &entries, &error));
    EXPECT_TRUE(entries.empty()) << "nothing is sent when a value is refused";
    return error;
}

TEST(PanelFields, ColoursGoBeforeOpacitiesAndEmptyFieldsAreNotSent)
{
    const nlohmann::json form = {{"fontOpacity", "0.5"}, {"fontColor", "#FF8800"}, {"text", "Hello <b>"},
                                 {"fontFamily", ""},     {"justify", "center"},    {"multiLine", "2"}};
    entries_t entries;
    std::string error;
    ASSERT_TRUE(panel_text_entries(form, &entries, &error)) << error;
    const entries_t want = {{"text", "Hello <b>"}, {"multiLine", "2"},       {"justify", "center"},
                            {"fontColor", "FF8800"}, {"fontOpacity", "0.5"}};
    EXPECT_EQ(entries, want);
}

TEST(PanelFields, AnEmptyTextIsSentToClearTheTicker)
{
    entries_t entries;
    std::string error;
    ASSERT_TRUE(panel_text_entries({{"text", ""}}, &entries, &error));
    EXPECT_EQ(entries, (entries_t{{"text", ""}}));
}

TEST(PanelFields, NewContextOnlyComesLast)
{
    entries_t entries;
    std::string error;
    ASSERT_TRUE(panel_text_entries({{"newcontextonly", true}, {"text", "later"}}, &entries, &error));
    EXPECT_EQ(entries, (entries_t{{"text", "later"}, {"newcontextonly", "1"}}));
    ASSERT_TRUE(panel_text_entries({{"newcontextonly", false}, {"text", "now"}}, &entries, &error));
    EXPECT_EQ(entries, (entries_t{{"text", "now"}}));
}

TEST(PanelFields, BadColoursAreRefused)
{
    for (const char* bad : {"zz0000", "fff", "#12345", "1234567", "12 456", "0x1234"})
        EXPECT_EQ(refusal({{"shadowColor", bad}}), "shadowColor: not a colour (six hex digits, like ff8800)") << bad;
}

TEST(PanelFields, OnlyPlainDecimalNumbersInRangeAreTaken)
{
    for (const char* bad : {"fast", "1e3", "0x10", "inf", "nan", " 1", "1.2.3", "-", ".", "+1"})
        EXPECT_EQ(refusal({{"scrollSpeed", bad}}), "scrollSpeed: not a number") << bad;
    EXPECT_EQ(refusal({{"fontOpacity", "1.5"}}), "fontOpacity: must be between 0 and 1");
    EXPECT_EQ(refusal({{"scrollSpeed", "-101"}}), "scrollSpeed: must be between -100 and 100");
    EXPECT_EQ(refusal({{"fontScale", "0"}}), "fontScale: must be between 0.01 and 100");
    EXPECT_EQ(refusal({{"multiLine", "1.5"}}), "multiLine: not a whole number");
    entries_t entries;
    std::string error;
    EXPECT_TRUE(panel_text_entries({{"scrollSpeed", "-2.5"}, {"shadowX", ".5"}, {"backgroundOpacity", "1."}},
                                   &entries, &error))
        << error;
}

TEST(PanelFields, WordsNamesAndTheFormItselfAreChecked)
{
    EXPECT_EQ(refusal({{"justify", "middle"}}), "justify: must be left, center or right");
    EXPECT_EQ(refusal({{"fontFamily", "Liberation\nSans"}}), "fontFamily: control characters are not allowed");
    EXPECT_EQ(refusal({{"fontStyle", std::string(201, 'b')}}), "fontStyle: longer than 200 bytes");
    EXPECT_EQ(refusal({{"text", std::string(16385, 't')}}), "text: longer than 16384 bytes");
    EXPECT_EQ(refusal({{"emoji", "color"}}), "emoji: not a setting the panel sends");
    EXPECT_EQ(refusal({{"scrollSpeed", 2}}), "scrollSpeed: must be text");
    EXPECT_EQ(refusal({{"newcontextonly", "1"}}), "newcontextonly: must be true or false");
    EXPECT_EQ(refusal(nlohmann::json::array()), "the form must be a JSON object");
}

} // namespace
