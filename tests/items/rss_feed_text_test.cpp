// The walk over a feed document: which nodes give the text and how items join.
#include <gtest/gtest.h>

#include <csignal>
#include <memory>

#include <libxml/parser.h>

#include "items/rss_feed_text.h"
#include "platform/t4mi_globals.h"
#include "rss_fixture.h"

namespace {

using rss_test::stderr_capture;
using rss_test::with_separators;

const char* const NO_RSS = "WARNING: Did not find RSS node\nWARNING: Did not find channel node\n";

// The text of a feed given as a string, as the loader would parse it.
std::string text_of(const std::string& xml)
{
    std::string buffer = xml;
    buffer.push_back('\0');
    return rss_text_from_buffer(buffer.data(), int(buffer.size()));
}

std::string channel(const std::string& items) { return "<rss version=\"2.0\"><channel>" + items + "</channel></rss>"; }

TEST(RssFeedText, TitleAndDescriptionAreJoinedByADash)
{
    EXPECT_EQ(text_of(channel("<item><title>T</title><description>D</description></item>")), "T - D");
    // The order of the elements in the item does not matter.
    EXPECT_EQ(text_of(channel("<item><description>D</description><title>T</title></item>")), "T - D");
}

TEST(RssFeedText, AnItemWithoutTitleAndDescriptionAddsNothing)
{
    EXPECT_EQ(text_of(channel("<item><title>first</title></item>"
                              "<item><link>https://example.com/</link></item>"
                              "<item><description>third</description></item>")),
              with_separators("first<US>third"));
}

TEST(RssFeedText, ItemsThatConvertToNothingCountAsMissing)
{
    // Whitespace only, tags only: no separator either. The title of the
    // third item is missing, so its description stands alone.
    EXPECT_EQ(text_of(channel("<item><title>one</title></item>"
                              "<item><title>   </title><description>&lt;br/&gt;</description></item>"
                              "<item><title>&lt;img src=\"a.png\"/&gt;</title><description>three</description></item>"
                              "<item><title>four</title><description> \n\t</description></item>")),
              with_separators("one<US>three<US>four"));
}

TEST(RssFeedText, OnlyTheFirstChildOfAnElementGivesItsText)
{
    // "A " then "A" after the trim; a description whose first child is an
    // element has no text of its own.
    EXPECT_EQ(text_of(channel("<item><title>A <b>B</b></title><description><p>x</p></description></item>")), "A");
}

TEST(RssFeedText, CdataIsTakenAsHtml)
{
    EXPECT_EQ(text_of(channel("<item><title><![CDATA[Rain & <em>wind</em>]]></title></item>")), "Rain & wind");
    // A line feed before the CDATA is the first child: blank, so missing.
    EXPECT_EQ(text_of(channel("<item><title>T</title><description>\n<![CDATA[<p>lost</p>]]></description></item>")),
              "T");
}

TEST(RssFeedText, ALaterElementOfTheSameNameReplacesAnEarlierOne)
{
    // Names are compared without namespaces: itunes:title is a title.
    EXPECT_EQ(text_of("<rss xmlns:itunes=\"http://www.itunes.com/dtds/podcast-1.0.dtd\"><channel><item>"
                      "<title>Episode 1: Long</title><itunes:title>Short</itunes:title>"
                      "<description>a</description><description>b</description>"
                      "</item></channel></rss>"),
              "Short - b");
}

TEST(RssFeedText, OnlyItemsOfTheFirstChannelCount)
{
    EXPECT_EQ(text_of("<rss><title>feed</title><channel><title>channel title</title>"
                      "<item><title>in one</title></item></channel>"
                      "<channel><item><title>in two</title></item></channel>"
                      "<item><title>outside</title></item></rss>"),
              "in one");
}

TEST(RssFeedText, AnotherRootElementIsNoFeed)
{
    stderr_capture err;
    EXPECT_EQ(text_of("<feed xmlns=\"http://www.w3.org/2005/Atom\"><entry><title>A</title></entry></feed>"), "");
    EXPECT_EQ(err.text(), NO_RSS);
}

TEST(RssFeedText, ASiblingAfterTheRootNamedRssIsSearchedToo)
{
    // Only a processing instruction can follow the root; its name is
    // compared like an element's, it has no channel.
    stderr_capture err;
    EXPECT_EQ(text_of("<feed/><?rss x?>"), "");
    EXPECT_EQ(err.text(), "WARNING: Did not find channel node\n");
}

TEST(RssFeedText, RssWithoutChannel)
{
    stderr_capture err;
    EXPECT_EQ(text_of("<rss><item><title>A</title></item></rss>"), "");
    EXPECT_EQ(err.text(), "WARNING: Did not find channel node\n");
}

TEST(RssFeedText, AMalformedDocumentGivesEmptyTextAndBothWarnings)
{
    stderr_capture err;
    EXPECT_EQ(text_of(channel("<item><title>Fish & Chips</title></item>")), "");
    EXPECT_NE(err.text().find(NO_RSS), std::string::npos);
}

TEST(RssFeedText, AnEmptyBufferIsAFailedParse)
{
    stderr_capture err;
    EXPECT_EQ(text_of(""), "");
    EXPECT_NE(err.text().find(NO_RSS), std::string::npos);
}

TEST(RssFeedText, NoDocumentAtAll)
{
    stderr_capture err;
    EXPECT_EQ(rss_text_from_document(nullptr), "");
    EXPECT_EQ(err.text(), NO_RSS);
}

TEST(RssFeedText, HardenedADocumentWithoutRootGivesAWarningAndNoText)
{
    struct doc_deleter {
        void operator()(xmlDoc* d) const { xmlFreeDoc(d); }
    };
    const std::unique_ptr<xmlDoc, doc_deleter> doc(xmlNewDoc(BAD_CAST "1.0"));
    t4mi_harden = 1;
    stderr_capture err;
    const std::string text = rss_text_from_document(doc.get());
    t4mi_harden = 0;
    EXPECT_EQ(text, "");
    EXPECT_EQ(err.text(), "WARNING: Empty XML document\n");
}

TEST(RssFeedTextDeathTest, ADocumentWithoutRootAbortsTheProcess)
{
    // The parser never hands back a well-formed document without a root, so
    // the walk is given one made by hand.
    struct doc_deleter {
        void operator()(xmlDoc* d) const { xmlFreeDoc(d); }
    };
    const std::unique_ptr<xmlDoc, doc_deleter> doc(xmlNewDoc(BAD_CAST "1.0"));
    EXPECT_EXIT(rss_text_from_document(doc.get()), testing::KilledBySignal(SIGABRT), "^Empty XML document\n$");
}

} // namespace
