// The JSON value type: parse modes, error messages, the nesting limit, the
// lenient rules (bytes that are not UTF-8, lone surrogates, huge numbers),
// NUL bytes, and the lookup and conversion rules the program relies on.
#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/json11.h"

namespace {

using json11::Json;

Json parse(const std::string& text, std::string& err, json11::JsonParse mode = json11::STANDARD)
{
    return Json::parse(text, err, mode);
}

std::string nested_arrays(int levels) { return std::string(size_t(levels), '[') + std::string(size_t(levels), ']'); }

std::string nested_objects(int levels)
{
    std::string s;
    for (int i = 0; i < levels; i++)
        s += "{\"a\":";
    s += "1";
    return s + std::string(size_t(levels), '}');
}

TEST(Json11Parse, GoodDocumentLeavesNoError)
{
    std::string err = "stale";
    const Json j = parse(R"({"a": [1, 2.5, "x", true, null], "b": {"c": -3}})", err);
    EXPECT_EQ(err, "");
    ASSERT_TRUE(j.is_object());
    EXPECT_EQ(j["a"][0].number_value(), 1.0);
    EXPECT_EQ(j["a"][1].number_value(), 2.5);
    EXPECT_EQ(j["a"][2].string_value(), "x");
    EXPECT_TRUE(j["a"][3].bool_value());
    EXPECT_TRUE(j["a"][4].is_null());
    EXPECT_EQ(j["b"]["c"].int_value(), -3);
    EXPECT_EQ(j["a"].array_items().size(), 5u);
    EXPECT_EQ(j.object_items().size(), 2u);
}

TEST(Json11Parse, BadDocumentsGiveNullAndAReadableMessage)
{
    for (const std::string& bad : std::vector<std::string>{"", "[1,2,]", "{\"a\" 1}", "'x'", "[1] x", "NaN", "\"\\ud8\"",
                                  "\"\\x\"", std::string("[1,\0 2]", 7)}) {
        std::string err;
        const Json j = parse(bad, err);
        EXPECT_TRUE(j.is_null()) << bad;
        EXPECT_FALSE(err.empty()) << bad;
        EXPECT_EQ(err.find("[json.exception"), std::string::npos) << err;
    }
    std::string err;
    parse("[1,2,]", err);
    // Where it stopped is part of the message.
    EXPECT_NE(err.find("line 1, column 6"), std::string::npos) << err;
}

TEST(Json11Parse, CommentsOnlyInCommentsMode)
{
    const std::string text = "// heading\n{ /* inline */ \"a\": 1 // trailing\n}";
    std::string err;
    EXPECT_TRUE(parse(text, err).is_null());
    EXPECT_FALSE(err.empty());
    const Json j = parse(text, err, json11::COMMENTS);
    EXPECT_EQ(err, "");
    EXPECT_EQ(j["a"].int_value(), 1);
    EXPECT_TRUE(parse("[1] /* open", err, json11::COMMENTS).is_null());
    EXPECT_FALSE(err.empty());
    EXPECT_TRUE(parse("// only a comment", err, json11::COMMENTS).is_null());
    EXPECT_FALSE(err.empty());
}

TEST(Json11Parse, NestingUpTo200LevelsOnly)
{
    std::string err;
    EXPECT_TRUE(parse(nested_arrays(200), err).is_array());
    EXPECT_EQ(err, "");
    EXPECT_TRUE(parse(nested_objects(200), err).is_object());
    EXPECT_EQ(err, "");
    EXPECT_TRUE(parse(nested_arrays(201), err).is_null());
    EXPECT_EQ(err, "exceeded maximum nesting depth");
    EXPECT_TRUE(parse(nested_objects(201), err).is_null());
    EXPECT_EQ(err, "exceeded maximum nesting depth");
    // Far deeper, unbalanced: still a plain error.
    EXPECT_TRUE(parse(std::string(1000000, '['), err).is_null());
    EXPECT_FALSE(err.empty());
}

TEST(Json11Parse, LongMessagesAreCut)
{
    // The error quotes the string token it stopped in (a raw control byte).
    std::string err;
    parse("[\"" + std::string(100000, 'a') + "\x01\"]", err);
    EXPECT_EQ(err.size(), 300u);
    EXPECT_EQ(err.substr(297), "...");
}

TEST(Json11Parse, DuplicateKeysKeepTheLast)
{
    std::string err;
    EXPECT_EQ(parse(R"({"a": 1, "a": 2})", err)["a"].int_value(), 2);
}

TEST(Json11Parse, EscapedNulStaysInTheString)
{
    std::string err;
    const Json j = parse(R"(["a\u0000b"])", err);
    EXPECT_EQ(j[0].string_value(), std::string("a\0b", 3));
}

TEST(Json11Lookup, MissingOrWrongTypeGivesNull)
{
    std::string err;
    const Json j = parse(R"({"a": [1], "s": "x"})", err);
    EXPECT_TRUE(j["missing"].is_null());
    EXPECT_TRUE(j["a"][5].is_null());
    EXPECT_TRUE(j["a"]["key"].is_null());
    EXPECT_TRUE(j["s"][0].is_null());
    EXPECT_TRUE(j[0].is_null());
    EXPECT_TRUE(j["missing"]["deeper"][3].is_null());
    EXPECT_TRUE(j["s"].array_items().empty());
    EXPECT_TRUE(j["a"].object_items().empty());
}

TEST(Json11Values, IntValueTruncatesAndSaturates)
{
    std::string err;
    const Json j = parse(R"([2.9, -2.9, 1e20, -1e20, 2147483647, -2147483648, "7", true, 18446744073709551615])", err);
    EXPECT_EQ(j[0].int_value(), 2);
    EXPECT_EQ(j[1].int_value(), -2);
    EXPECT_EQ(j[2].int_value(), INT_MAX);
    EXPECT_EQ(j[3].int_value(), INT_MIN);
    EXPECT_EQ(j[4].int_value(), INT_MAX);
    EXPECT_EQ(j[5].int_value(), INT_MIN);
    EXPECT_EQ(j[6].int_value(), 0); // a string is not a number
    EXPECT_EQ(j[7].int_value(), 0);
    EXPECT_EQ(j[8].int_value(), INT_MAX);
    EXPECT_EQ(j[8].number_value(), 18446744073709551615.0);
}

TEST(Json11Values, StringValueOfANonStringIsEmpty)
{
    std::string err;
    const Json j = parse(R"([5, null, {}, [], false, ""])", err);
    for (size_t i = 0; i < 6; i++)
        EXPECT_EQ(j[i].string_value(), "") << i;
    EXPECT_EQ(j[0].number_value(), 5.0);
    EXPECT_EQ(j[5].number_value(), 0.0);
    EXPECT_FALSE(j[0].bool_value());
}

TEST(Json11Values, EqualityComparesTypeAndValue)
{
    std::string err;
    EXPECT_EQ(parse(R"({"a": [1, "x", null], "b": true})", err), parse(R"({"b":true,"a":[1.0,"x",null]})", err));
    EXPECT_NE(parse("[1]", err), parse("[\"1\"]", err));
    EXPECT_NE(parse("[1]", err), parse("[1, 2]", err));
    EXPECT_NE(parse("{\"a\": 1}", err), parse("{\"b\": 1}", err));
    EXPECT_NE(parse("0", err), parse("false", err));
    EXPECT_NE(parse("null", err), parse("{}", err));
    EXPECT_EQ(Json(), Json(nullptr));
    EXPECT_EQ(parse("null", err), Json());
    EXPECT_EQ(Json(1), Json(1.0));
    EXPECT_EQ(Json("x"), Json(std::string("x")));
    EXPECT_NE(Json(true), Json(1));
}

TEST(Json11Values, DumpReadsBack)
{
    std::string err;
    const Json j = parse(R"({"a": [1, 2.5, "x\"y", true, null], "b": {}})", err);
    EXPECT_EQ(parse(j.dump(), err), j);
    EXPECT_EQ(err, "");
}

TEST(Json11Values, DumpKeepsBytesAndWritesInfinityAsNull)
{
    std::string err;
    const Json j = parse("{\"b\": [1, 2.5, \"x\\\"y\\n\", 1e400], \"a\": \"Z\xFCrich\", \"c\": \"\\ud800\"}", err);
    ASSERT_EQ(err, "");
    // Keys in byte order; the Latin-1 byte and the surrogate's three bytes as
    // they are; JSON has no infinity.
    EXPECT_EQ(j.dump(), "{\"a\":\"Z\xFCrich\",\"b\":[1,2.5,\"x\\\"y\\n\",null],\"c\":\"\xED\xA0\x80\"}");
}

// Bytes of a string value, for messages that show which case failed.
std::string hex_of(const std::string& s)
{
    std::string out;
    char buf[4];
    for (const char c : s) {
        std::snprintf(buf, sizeof buf, "%02X ", static_cast<unsigned char>(c));
        out += buf;
    }
    return out;
}

TEST(Json11Lenient, BytesThatAreNotUtf8ArePassedThrough)
{
    const std::vector<std::string> texts = {
        "Z\xFCrich",         // Latin-1 u-umlaut
        "41\xB0" "F",        // Latin-1 degree sign
        "\xC0\xAF",          // overlong "/"
        "\xE2\x82",          // a three-byte sequence cut short
        "\xED\xA0\x80",      // an encoded surrogate
        "\xF4\x90\x80\x80",  // beyond U+10FFFF
        "\x80",              // a lone continuation byte
        "\xFF\xFE",
    };
    for (const std::string& text : texts) {
        std::string err;
        const Json j = parse("[\"" + text + "\"]", err);
        EXPECT_EQ(err, "") << hex_of(text);
        EXPECT_EQ(j[0].string_value(), text) << hex_of(text);
    }
    // In keys too, in both modes.
    std::string err;
    const Json j = parse("{\"caf\xE9\": \"\xE9t\xE9\"} // \xE9", err, json11::COMMENTS);
    EXPECT_EQ(err, "");
    EXPECT_EQ(j["caf\xE9"].string_value(), "\xE9t\xE9");
    // Outside a string such a byte is no JSON at all.
    EXPECT_TRUE(parse("[\xE9]", err).is_null());
    EXPECT_NE(err.find("byte 0xE9"), std::string::npos) << err;
    EXPECT_TRUE(parse("\xFF", err).is_null());
    EXPECT_FALSE(err.empty());
}

TEST(Json11Lenient, SurrogateEscapesPairedOrWrittenAlone)
{
    // A UTF-16 code unit U in D800..DFFF alone is written the way a UTF-8
    // encoder writes any 16-bit value: 1110xxxx 10xxxxxx 10xxxxxx.
    // D800 = 1101 100000 000000 -> ED A0 80; DBFF = 1101 101111 111111 ->
    // ED AF BF; DC00 = 1101 110000 000000 -> ED B0 80; DFFF -> ED BF BF.
    // A high unit followed at once by a low one is one character:
    // D83D DE00 -> U+1F600 = 000 011111 011000 000000 -> F0 9F 98 80;
    // D800 DC00 -> U+10000 -> F0 90 80 80; DBFF DFFF -> U+10FFFF -> F4 8F BF BF.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {R"(\ud800)", "\xED\xA0\x80"},
        {R"(\uDBFF)", "\xED\xAF\xBF"},
        {R"(\udc00)", "\xED\xB0\x80"},
        {R"(\udfff)", "\xED\xBF\xBF"},
        {R"(\ud83d\ude00)", "\xF0\x9F\x98\x80"},
        {R"(\udbff\udfff)", "\xF4\x8F\xBF\xBF"},
        {R"(\udc00\ud800)", "\xED\xB0\x80\xED\xA0\x80"},          // the wrong order: two lone units
        {R"(\ud800\ud800\udc00)", "\xED\xA0\x80\xF0\x90\x80\x80"}, // the second high one pairs
        {R"(\ud800A)", "\xED\xA0\x80" "A"},
        {R"(\ud800\n)", "\xED\xA0\x80\n"},
        {R"(\ud800\u00e9)", "\xED\xA0\x80\xC3\xA9"},
        {R"(\ud800 \udc00)", "\xED\xA0\x80 \xED\xB0\x80"},          // not at once: no pair
        {R"(x\ud83d)", "x\xED\xA0\xBD"},                           // D83D = 1101 100000 111101
    };
    for (const auto& [escaped, bytes] : cases) {
        std::string err;
        const Json j = parse("[\"" + escaped + "\"]", err);
        EXPECT_EQ(err, "") << escaped;
        EXPECT_EQ(j[0].string_value(), bytes) << escaped << ": " << hex_of(j[0].string_value());
    }
    std::string err;
    EXPECT_EQ(parse(R"({"\ud800": 1})", err)["\xED\xA0\x80"].int_value(), 1);
}

TEST(Json11Lenient, NumbersTooLargeForADoubleAreInfinite)
{
    std::string err;
    const Json j = parse("[1e400, -1e400, 2e308, 1E+999, 1" + std::string(400, '0') + ", 1e308, 1e-400, -1e-400]", err);
    ASSERT_EQ(err, "");
    for (size_t i : {0u, 2u, 3u, 4u}) {
        EXPECT_TRUE(j[i].is_number()) << i;
        EXPECT_TRUE(std::isinf(j[i].number_value()) && j[i].number_value() > 0) << i;
        EXPECT_EQ(j[i].int_value(), INT_MAX) << i;
    }
    EXPECT_TRUE(std::isinf(j[1].number_value()) && j[1].number_value() < 0);
    EXPECT_EQ(j[1].int_value(), INT_MIN);
    EXPECT_EQ(j[5].number_value(), 1e308); // still finite
    EXPECT_EQ(j[6].number_value(), 0.0);   // too small: zero
    EXPECT_EQ(j[7].number_value(), 0.0);
    EXPECT_EQ(j[0], j[2]); // one infinity equals another
    EXPECT_EQ(parse("-0", err).number_value(), 0.0);
}

TEST(Json11Values, NumbersAreReadAsStrtodReadsThem)
{
    // The parser reads short numbers itself; the values must be strtod's to
    // the last bit, sign of zero included. Around the edges of that short cut:
    // 2^53 = 9007199254740992, 10^22 is the largest exact power of ten.
    const std::vector<std::string> tokens = {
        "0.1", "0.5", "-2.5", "1.5e3", "8.25E-2", "123456789012345.6", "1234567890123456.7", "0.000001",
        "1e22", "1e23", "1e-22", "1e-23", "9007199254740992.0", "9007199254740993.0", "9007199254740993e0",
        "4.9e-324", "2.2250738585072014e-308", "1.7976931348623157e308", "-0.0", "0.0e5", "0.00000000000000000001",
        "1.00000000000000000000000001", "123456789012345678901234567890", "-999999999999999", "1000000000000000",
        "0.30000000000000004", "5e-1", "12345678.87654321", "1e+0", "1E-0", "3.14159265358979323846",
    };
    for (const std::string& token : tokens) {
        std::string err;
        const Json j = parse("[" + token + "]", err);
        ASSERT_EQ(err, "") << token;
        const double expected = std::strtod(token.c_str(), nullptr);
        const double got = j[0].number_value();
        EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0) << token << ": " << got << " != " << expected;
    }
}

TEST(Json11Parse, ANumberEndsWhereItsTokenEnds)
{
    // What follows a number can look like more of it; reading its value must
    // stop at the token's end, and the document then fails on what follows.
    // The first one once sent the value's reader past the end of the text.
    for (const std::string text : {"{\"pF\": 0.7070.7e}A", "[1.5.5e3]", "[2.5e3.5e9]", "[0.1.", "[7.0e"}) {
        std::string err;
        EXPECT_TRUE(parse(text, err).is_null()) << text;
        EXPECT_NE(err, "") << text;
    }
}

TEST(Json11Parse, NulByteAnywhereIsAnError)
{
    const std::vector<std::pair<std::string, json11::JsonParse>> cases = {
        {std::string("\0", 1), json11::STANDARD},
        {std::string("[1]\0", 4), json11::STANDARD},                          // after a whole document
        {std::string("{\"a\": 1}\0{\"b\": 2}", 17), json11::STANDARD},        // before a second one
        {std::string("[\"a\0b\"]", 7), json11::STANDARD},                     // in a string
        {std::string("[1] // a\0b", 10), json11::COMMENTS},                   // in a line comment
        {std::string("/* \0 */ [1]", 11), json11::COMMENTS},                  // in a block comment
    };
    for (const auto& [text, mode] : cases) {
        std::string err;
        EXPECT_TRUE(parse(text, err, mode).is_null()) << text;
        EXPECT_NE(err.find("NUL byte"), std::string::npos) << err;
        EXPECT_EQ(err.find('\0'), std::string::npos);
    }
    std::string err;
    parse(std::string("[1,\n2]\0", 7), err);
    EXPECT_EQ(err, "parse error at line 2, column 3: NUL byte in the text");
}

TEST(Json11Parse, MessagesAreOnePrintableLine)
{
    std::string err;
    parse("[\"a\nb\"]", err);
    EXPECT_EQ(err, "parse error at line 1, column 4: control character U+000A in a string must be escaped; "
                   "last read: '\"a<U+000A>'");
    parse("[1,\n tru]", err);
    EXPECT_EQ(err, "parse error at line 2, column 5: invalid literal; last read: 'tru]'");
    parse("{\"a\": 01}", err);
    EXPECT_EQ(err, "parse error at line 1, column 8: invalid number; leading zeros are not allowed; last read: '01'");
    parse("[1] x", err);
    EXPECT_EQ(err, "parse error at line 1, column 5: unexpected 'x' after the value");
    parse("", err);
    EXPECT_EQ(err, "parse error at line 1, column 1: unexpected end of input; expected a value");
}

TEST(Json11Parse, ByteOrderMarkOnlyWholeAndFirst)
{
    std::string err;
    EXPECT_EQ(parse("\xEF\xBB\xBF[1]", err)[0].int_value(), 1);
    EXPECT_EQ(err, "");
    EXPECT_TRUE(parse("\xEF\xBB[1]", err).is_null());
    EXPECT_FALSE(err.empty());
    EXPECT_TRUE(parse("[\xEF\xBB\xBF" "1]", err).is_null());
    EXPECT_FALSE(err.empty());
}

TEST(Json11Parse, CommentsWhereverWhitespaceMayStand)
{
    std::string err;
    const Json j = parse("/*a*/{/*b*/\"k\"/*c*/:/*d*/[/*e*/1/*f*/,//g\r2]/*h*/}//i", err, json11::COMMENTS);
    EXPECT_EQ(err, "");
    EXPECT_EQ(j["k"][1].int_value(), 2);
    for (const char* bad : {"[1] /", "[1] /x", "[1 /* 2 ]", "[\"/* not a comment */\" /*/ ]"}) {
        EXPECT_TRUE(parse(bad, err, json11::COMMENTS).is_null()) << bad;
        EXPECT_FALSE(err.empty()) << bad;
    }
    EXPECT_EQ(parse("[\"/* kept */\"]", err, json11::COMMENTS)[0].string_value(), "/* kept */");
}

std::string nested_mixed(int levels)
{
    std::string s;
    for (int i = 0; i < levels; i++)
        s += i % 2 == 0 ? "[" : "{\"a\":";
    s += "1";
    for (int i = levels - 1; i >= 0; i--)
        s += i % 2 == 0 ? "]" : "}";
    return s;
}

TEST(Json11Parse, NestingLimitCountsLevelsNotValues)
{
    std::string err;
    EXPECT_TRUE(parse(nested_mixed(200), err).is_array());
    EXPECT_EQ(err, "");
    EXPECT_TRUE(parse(nested_mixed(201), err).is_null());
    EXPECT_EQ(err, "exceeded maximum nesting depth");
    // Many containers side by side are no deeper than one.
    std::string wide = "[";
    for (int i = 0; i < 1000; i++)
        wide += std::string(i > 0 ? "," : "") + nested_arrays(199);
    wide += "]";
    const Json j = parse(wide, err);
    EXPECT_EQ(err, "");
    EXPECT_EQ(j.array_items().size(), 1000u);
    // 200 levels in comments mode, with a comment at the bottom.
    EXPECT_TRUE(parse(std::string(200, '[') + "/* deep */" + std::string(200, ']'), err, json11::COMMENTS).is_array());
    EXPECT_EQ(err, "");
}

// Not a timing test: the parser is one pass, and the benchmark
// (bench/json_bench.cpp) gives its figures. This only guards against the
// cost growing with the square of the size again, when an 8 MiB array of
// small objects took a minute.
TEST(Json11Parse, LargeDocumentsParseAtOnce)
{
    const size_t size = size_t(8) << 20;
    std::string objects = "[", members = "{", deep = "[";
    for (size_t i = 0; objects.size() < size; i++)
        objects += (i > 0 ? ",{\"id\":" : "{\"id\":") + std::to_string(i) + ",\"name\":\"abc\"}";
    objects += "]";
    for (size_t i = 0; members.size() < size / 4; i++)
        members += (i > 0 ? ",\"k" : "\"k") + std::to_string(i) + "\":" + std::to_string(i);
    members += "}";
    for (size_t i = 0; deep.size() < size / 8; i++)
        deep += (i > 0 ? "," : "") + nested_arrays(199);
    deep += "]";
    const std::string strings = "[\"" + std::string(size, 's') + "\"]";

    auto parse_at_once = [](const std::string& text) {
        std::string err;
        const auto start = std::chrono::steady_clock::now();
        Json j = parse(text, err);
        const auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_EQ(err, "");
        EXPECT_LT(seconds, 20.0) << "well under a second is usual, even under sanitizers";
        return j;
    };
    const Json a = parse_at_once(objects);
    const size_t n = a.array_items().size();
    ASSERT_GT(n, 200000u);
    EXPECT_EQ(a[n - 1]["id"].int_value(), int(n - 1));
    EXPECT_EQ(parse_at_once(members)["k1000"].int_value(), 1000);
    EXPECT_EQ(parse_at_once(strings)[0].string_value().size(), size);
    EXPECT_TRUE(parse_at_once(deep)[0][0][0].is_array());
}

} // namespace
