#include <gtest/gtest.h>

#include "items/colour.h"

namespace {

TEST(HexColour, SkipsOneHashAndKeepsTheLastSixDigits)
{
    EXPECT_EQ(parse_hex_colour("ff8000"), (colour_rgba{0xff, 0x80, 0x00, 255}));
    EXPECT_EQ(parse_hex_colour("#0000ff"), (colour_rgba{0, 0, 0xff, 255}));
    EXPECT_EQ(parse_hex_colour("80ff8000"), (colour_rgba{0xff, 0x80, 0x00, 255}));
    EXPECT_EQ(parse_hex_colour("red"), (colour_rgba{0, 0, 0, 255}));
    EXPECT_EQ(parse_hex_colour("##ff0000"), (colour_rgba{0, 0, 0, 255})); // only one "#" is skipped
}

TEST(NamedColour, TheTenNames)
{
    const struct {
        const char* name;
        uint8_t r, g, b;
    } table[] = {
        {"red", 0xff, 0, 0},       {"green", 0, 0xff, 0},      {"blue", 0, 0, 0xff},
        {"orange", 0xff, 0x7f, 0}, {"yellow", 0xff, 0xff, 0},  {"cyan", 0, 0xff, 0xff},
        {"purple", 0xff, 0, 0xff}, {"black", 0, 0, 0},         {"white", 0xff, 0xff, 0xff},
        {"gray", 0x7f, 0x7f, 0x7f},
    };
    for (const auto& t : table) {
        uint8_t rgb[3] = {1, 2, 3};
        EXPECT_EQ(parse_named_colour(t.name, rgb), 1) << t.name;
        EXPECT_EQ(rgb[0], t.r) << t.name;
        EXPECT_EQ(rgb[1], t.g) << t.name;
        EXPECT_EQ(rgb[2], t.b) << t.name;
    }
}

TEST(NamedColour, UnknownNamesAndOtherCasesLeaveTheDestination)
{
    for (const char* name : {"Red", "grey", "", "red "}) {
        uint8_t rgb[3] = {1, 2, 3};
        EXPECT_EQ(parse_named_colour(name, rgb), 0) << name;
        EXPECT_EQ(rgb[0], 1);
        EXPECT_EQ(rgb[1], 2);
        EXPECT_EQ(rgb[2], 3);
    }
}

TEST(NamedColour, HashIsHexAndAlwaysSucceeds)
{
    uint8_t rgb[3] = {1, 2, 3};
    EXPECT_EQ(parse_named_colour("#102030", rgb), 1);
    EXPECT_EQ(rgb[0], 0x10);
    EXPECT_EQ(rgb[2], 0x30);
    EXPECT_EQ(parse_named_colour("#zz", rgb), 1);
    EXPECT_EQ(rgb[0], 0);
}

} // namespace
