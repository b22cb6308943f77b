// Flattening feed HTML to plain text.
#include <gtest/gtest.h>

#include "items/rss_loader.h"
#include "rss_fixture.h"

namespace {

TEST(RssInnerHtmlToText, TagsDropEntitiesDecodeTrailingBlanksGo)
{
    // The title of the feed edge case: Hello, an escaped ampersand, a bold
    // word and a trailing space.
    EXPECT_EQ(RSSInnerHTMLToText("Hello &amp; <b>World</b> "), "Hello & World");
}

TEST(RssInnerHtmlToText, PlainTextPassesThrough)
{
    EXPECT_EQ(RSSInnerHTMLToText("Storm closes ports"), "Storm closes ports");
    EXPECT_EQ(RSSInnerHTMLToText("Caf\xc3\xa9 \xe2\x82\xac" "5"), "Caf\xc3\xa9 \xe2\x82\xac" "5"); // UTF-8 kept
}

TEST(RssInnerHtmlToText, OnlyTheFourTrailingBlanksAreRemoved)
{
    EXPECT_EQ(RSSInnerHTMLToText("  lead <i>and trail</i> \t\r\n \n"), "  lead and trail");
    // A no-break space (U+00A0, from &nbsp;) is not one of them.
    EXPECT_EQ(RSSInnerHTMLToText("<i>x</i>&nbsp;"), "x\xc2\xa0");
    EXPECT_EQ(RSSInnerHTMLToText("<i>x</i>&#x2003;"), "x\xe2\x80\x83"); // em space
}

TEST(RssInnerHtmlToText, OnlyWhitespaceOrOnlyTagsGivesEmptyText)
{
    EXPECT_EQ(RSSInnerHTMLToText(" \t\r\n"), "");
    EXPECT_EQ(RSSInnerHTMLToText("<b> \t </b>"), ""); // kept by the parser, then trimmed to nothing
    EXPECT_EQ(RSSInnerHTMLToText("<img src=\"a.jpg\"><br/>"), "");
    EXPECT_EQ(RSSInnerHTMLToText(""), "");
}

TEST(RssInnerHtmlToText, HtmlEntitiesAndCharacterReferences)
{
    // &hellip; U+2026, &#8217; U+2019, &lt;b&gt; is text, not a tag.
    EXPECT_EQ(RSSInnerHTMLToText("Wait&hellip; it&#8217;s &lt;b&gt;"), "Wait\xe2\x80\xa6 it\xe2\x80\x99s <b>");
}

TEST(RssInnerHtmlToText, BlockElementsAreJoinedWithoutSeparators)
{
    // Nothing marks the end of a paragraph: only the line feed written
    // between the two survives (the body takes text, so the parser keeps
    // blanks in it), and the last one goes with the trailing blanks.
    EXPECT_EQ(RSSInnerHTMLToText("<p>First.</p>\n<p>Second.</p>\n"), "First.\nSecond.");
    EXPECT_EQ(RSSInnerHTMLToText("<p>First.</p><p>Second.</p>"), "First.Second.");
    // A line break element adds nothing either.
    EXPECT_EQ(RSSInnerHTMLToText("one<br>two"), "onetwo");
}

TEST(RssInnerHtmlToText, LinksAndImagesKeepOnlyTheirText)
{
    EXPECT_EQ(RSSInnerHTMLToText("<img src=\"x.jpg\" alt=\"A picture\" /><a href=\"https://example.com/\">Read "
                                 "more</a>"),
              "Read more");
}

TEST(RssInnerHtmlToText, BrokenMarkupIsRecovered)
{
    EXPECT_EQ(RSSInnerHTMLToText("<p>Unclosed <b>bold"), "Unclosed bold");
    EXPECT_EQ(RSSInnerHTMLToText("a < b and c > d"), "a < b and c > d");
}

TEST(RssInnerHtmlToText, ANestedDocumentGivesItsBodyText)
{
    EXPECT_EQ(RSSInnerHTMLToText("<html><body><p>inner</p></body></html>"), "inner");
}

} // namespace
