#include <gtest/gtest.h>

#include "platform/text_helpers.h"

namespace {

int32_t decode_one(const std::string& bytes, size_t* consumed)
{
    const char* p = bytes.c_str();
    const int32_t c = utf8_decode(&p, bytes.c_str() + bytes.size());
    *consumed = size_t(p - bytes.c_str());
    return c;
}

TEST(Utf8Decode, DecodesOneToFourByteForms)
{
    size_t n = 0;
    EXPECT_EQ(decode_one("A", &n), 'A');
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(decode_one("\xc3\xa9", &n), 0xE9);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(decode_one("\xe2\x82\xac", &n), 0x20AC);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(decode_one("\xf0\x9f\x98\x80", &n), 0x1F600);
    EXPECT_EQ(n, 4u);
}

TEST(Utf8Decode, MalformedBytesAdvanceByExactlyOne)
{
    size_t n = 0;
    EXPECT_LT(decode_one("\xff" "A", &n), 0);
    EXPECT_EQ(n, 1u);
    EXPECT_LT(decode_one("\xc3" "A", &n), 0);  // missing continuation
    EXPECT_EQ(n, 1u);
    EXPECT_LT(decode_one("\xc0\xaf", &n), 0);  // overlong "/"
    EXPECT_EQ(n, 1u);
    EXPECT_LT(decode_one("\xed\xa0\x80", &n), 0); // surrogate
    EXPECT_LT(decode_one("\xf4\x90\x80\x80", &n), 0); // above U+10FFFF
    EXPECT_LT(decode_one("\x80", &n), 0);      // lone continuation
}

TEST(Utf8Decode, StopsAtNulAndAtLimit)
{
    const char text[] = "\0A";
    const char* p = text;
    EXPECT_EQ(utf8_decode(&p, text + 2), 0);
    EXPECT_EQ(p, text);
    const char cut[] = "\xe2\x82\xac";
    p = cut;
    EXPECT_LT(utf8_decode(&p, cut + 2), 0); // the limit cuts the sequence
    EXPECT_EQ(p, cut + 1);
}

TEST(Chomp, RemovesTrailingLineEndsOnly)
{
    char a[] = "line\r\n";
    chomp(a);
    EXPECT_STREQ(a, "line");
    std::string b = "x\n\n\r";
    chomp(b);
    EXPECT_EQ(b, "x");
    std::string c = "\rkeep";
    chomp(c);
    EXPECT_EQ(c, "\rkeep");
}

TEST(DivideNameValue, SplitsAtFirstEqualsAndTrims)
{
    auto p = divide_name_equ_value_pair(" url = http://x/?a=b ");
    ASSERT_TRUE(p.name && p.value);
    EXPECT_EQ(*p.name, "url");
    EXPECT_EQ(*p.value, "http://x/?a=b");
    p = divide_name_equ_value_pair("noequals");
    EXPECT_EQ(*p.name, "noequals");
    EXPECT_FALSE(p.value);
    p = divide_name_equ_value_pair("=value");
    EXPECT_FALSE(p.name);
    EXPECT_EQ(*p.value, "value");
    p = divide_name_equ_value_pair("interval=");
    EXPECT_FALSE(p.value);
    // Item files written on another system end their lines in CR LF.
    p = divide_name_equ_value_pair("url=http://127.0.0.1/feed.xml\r");
    EXPECT_EQ(*p.value, "http://127.0.0.1/feed.xml");
}

} // namespace
