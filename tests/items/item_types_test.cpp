// The table of item types: what start-up admits, how a file is identified by
// its first line, which loader runs at start and on a reload, and which
// format load_message reads.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "items/item_types.h"
#include "items/scroll_settings.h"
#include "platform/t4mi_globals.h"
#include "support/item_fixture.h"

namespace {

constexpr const char* SCROLL_TEXT = "application/x-tevrin-scrolling-text";
constexpr const char* RSS = "application/x-tevrin-rss-feed";
constexpr const char* TEMPLATE = "application/x-tevrin-metadata-template";
constexpr const char* TEXT_ITEM = "application/vnd.tv.tevrin.text-item";
constexpr const char* PLAIN = "text/plain";

// The first line of a file as identification sees it: a 128-byte window,
// zero-filled past the end.
const item_type* identify(const std::string& start)
{
    unsigned char window[128] = {};
    std::memcpy(window, start.data(), std::min(start.size(), sizeof window));
    return item_type_of_first_line(window, sizeof window);
}

std::string type_of(const item_type* t) { return t == nullptr ? "(none)" : t->mime_type; }

TEST(ItemTypes, FiveTypesAreAdmittedIgnoringCase)
{
    ASSERT_EQ(item_types().size(), 5u);
    for (const char* mime : {SCROLL_TEXT, PLAIN, RSS, TEMPLATE, TEXT_ITEM})
        EXPECT_EQ(type_of(find_item_type(mime)), mime);
    EXPECT_EQ(type_of(find_item_type("TEXT/PLAIN")), PLAIN);
    EXPECT_EQ(type_of(find_item_type("Application/X-Tevrin-RSS-Feed")), RSS);
    // The misspelt template type is not one of ours.
    EXPECT_EQ(find_item_type("application/s-tavrin-metadata-template"), nullptr);
    EXPECT_EQ(find_item_type(""), nullptr);
    EXPECT_EQ(find_item_type("text/plain "), nullptr);
}

TEST(ItemTypes, TheLoaderIsChosenByTheExactType)
{
    EXPECT_EQ(type_of(find_item_type_exactly(RSS)), RSS);
    EXPECT_EQ(find_item_type_exactly("TEXT/PLAIN"), nullptr);
    EXPECT_EQ(find_item_type_exactly("Application/X-Tevrin-RSS-Feed"), nullptr);
}

TEST(ItemTypes, HeadersIdentifyOnlyWhenALineEndFollows)
{
    EXPECT_EQ(type_of(identify("#Tevrin4ScrollText\nA")), SCROLL_TEXT);
    EXPECT_EQ(type_of(identify("#Tevrin4ScrollText\r\nA")), SCROLL_TEXT);
    EXPECT_EQ(type_of(identify("#Tevrin4RSS\n")), RSS);
    EXPECT_EQ(type_of(identify("#TevrinMetadataTemplate\r")), TEMPLATE);
    EXPECT_EQ(identify("#Tevrin4ScrollText \n"), nullptr);
    EXPECT_EQ(identify("#Tevrin4ScrollText"), nullptr); // the window's zero follows
    EXPECT_EQ(identify("#tevrin4scrolltext\n"), nullptr);
    EXPECT_EQ(identify("just some words\n"), nullptr);
    // A window too short to hold the header and its line end identifies nothing.
    const unsigned char shortest[] = "#Tevrin4RSS\n";
    EXPECT_EQ(item_type_of_first_line(shortest, 11), nullptr);
    EXPECT_EQ(type_of(item_type_of_first_line(shortest, 12)), RSS);
}

TEST(ItemTypes, PlainTextAndTemplatesAreNeverIdentifiedByContent)
{
    for (const item_type& t : item_types()) {
        const bool has_header = t.header != nullptr;
        const bool given_only = std::string(t.mime_type) == PLAIN || std::string(t.mime_type) == TEXT_ITEM;
        EXPECT_EQ(has_header, !given_only) << t.mime_type;
    }
}

class ItemTypeLoading : public ::testing::Test {
protected:
    void SetUp() override { scroll_settings = scroll_settings_record{}; }
    void TearDown() override { scroll_settings = scroll_settings_record{}; }

    void open(const std::string& content, const char* type)
    {
        item.reset();
        item = std::make_unique<t4test::open_item>(content, type);
    }

    std::unique_ptr<t4test::open_item> item;
};

constexpr const char* SCROLL_FILE = "#Tevrin4ScrollText\n#-fontColor=ff0000\nHello\n";

TEST_F(ItemTypeLoading, StartUpLoadsScrollTextAndTextItemsAtOnce)
{
    for (const char* type : {SCROLL_TEXT, TEXT_ITEM}) {
        scroll_settings = scroll_settings_record{};
        open(SCROLL_FILE, type);
        load_item_text_at_start();
        EXPECT_EQ(scroll_settings.text, "Hello") << type;
        EXPECT_EQ(scroll_settings.fontColor, (colour_rgba{255, 0, 0, 255})) << type;
    }
}

TEST_F(ItemTypeLoading, StartUpLeavesPlainTextTemplatesAndOtherCasesToTheFileWatch)
{
    for (const char* type : {PLAIN, TEMPLATE, "TEXT/PLAIN", "APPLICATION/X-TEVRIN-SCROLLING-TEXT"}) {
        scroll_settings = scroll_settings_record{};
        open(SCROLL_FILE, type);
        load_item_text_at_start();
        EXPECT_EQ(scroll_settings.text, "") << type;
        EXPECT_EQ(scroll_settings.file_mtime, 0) << type; // no loader ran
    }
}

TEST_F(ItemTypeLoading, AReloadReadsTextTypesInTheirFormat)
{
    open(SCROLL_FILE, PLAIN);
    reload_item_text();
    EXPECT_EQ(scroll_settings.text, SCROLL_FILE);
    EXPECT_EQ(scroll_settings.fontColor, (colour_rgba{0, 0, 0, 255}));

    open(SCROLL_FILE, "APPLICATION/X-TEVRIN-SCROLLING-TEXT");
    reload_item_text();
    EXPECT_EQ(scroll_settings.text, "Hello"); // the format is chosen ignoring case
    EXPECT_EQ(scroll_settings.fontColor, (colour_rgba{255, 0, 0, 255}));
}

TEST_F(ItemTypeLoading, AFeedTypeInAnotherCaseIsReloadedAsPlainText)
{
    // Only the exact type runs the feed loader; any other case is read by
    // load_message, in the feed's row format: the whole file.
    const std::string feed = "#Tevrin4RSS\nurl=http://example.invalid/feed\n";
    open(feed, "Application/X-Tevrin-RSS-Feed");
    reload_item_text();
    EXPECT_EQ(scroll_settings.text, feed);
}

TEST_F(ItemTypeLoading, AnUnknownTypeIsReadAsPlainText)
{
    open(SCROLL_FILE, "text/x-unknown");
    reload_item_text();
    EXPECT_EQ(scroll_settings.text, SCROLL_FILE);
}

} // namespace
