// The JSON value type: parse modes, error messages, the nesting limit and the
// lookup and conversion rules the program relies on.
#include <gtest/gtest.h>

#include <climits>
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
    for (const std::string& bad : std::vector<std::string>{"", "[1,2,]", "{\"a\" 1}", "'x'", "[1] x", "NaN", "1e400", "\"\\ud800\"",
                                  "\"\xff\"", std::string("[1,\0 2]", 7)}) {
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

} // namespace
