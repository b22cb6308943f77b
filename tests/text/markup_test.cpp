// The markup parser: plain characters, style fields, field bodies, the field
// result buffer and schedule data packets.
#include <cstring>

#include "platform/t4mi_globals.h"
#include "support/test_env.h"
#include "text/field_body.h"
#include "text_fixture.h"

namespace t4test {
namespace {

using markup = text_test;

void expect_style(const text_run& r, uint8_t red, uint8_t green, uint8_t blue, uint8_t alpha)
{
    EXPECT_EQ(r.style.r, red);
    EXPECT_EQ(r.style.g, green);
    EXPECT_EQ(r.style.b, blue);
    EXPECT_EQ(r.style.a, alpha);
}

void expect_item_shadow(const text_run& r)
{
    EXPECT_EQ(r.style.sr, ITEM_SHADOW.r);
    EXPECT_EQ(r.style.sg, ITEM_SHADOW.g);
    EXPECT_EQ(r.style.sb, ITEM_SHADOW.b);
    EXPECT_EQ(r.style.sa, ITEM_SHADOW.a);
    EXPECT_EQ(r.style.shadow_opacity, uint32_t(ITEM_SHADOW_OPACITY));
    EXPECT_EQ(r.glyph, nullptr);
}

TEST_F(markup, HelloGivesFiveRunsInTheItemColours)
{
    EXPECT_EQ(parse("Hello"), "Hello");
    ASSERT_EQ(ctx.runs.size(), 5u);
    for (const auto& r : ctx.runs) {
        expect_style(r, ITEM_FONT.r, ITEM_FONT.g, ITEM_FONT.b, ITEM_FONT.a);
        expect_item_shadow(r);
    }
    EXPECT_EQ(ctx.runs[0].code, 'H');
    EXPECT_EQ(ctx.runs[4].code, 'o');
}

TEST_F(markup, ColourFieldThenResetKeepsAlpha)
{
    EXPECT_EQ(parse("%{color;red}%A%{color}%B"), "AB");
    ASSERT_EQ(ctx.runs.size(), 2u);
    expect_style(ctx.runs[0], 255, 0, 0, ITEM_FONT.a);
    expect_style(ctx.runs[1], ITEM_FONT.r, ITEM_FONT.g, ITEM_FONT.b, ITEM_FONT.a);
}

TEST_F(markup, ColourFieldKeepsAnAlphaSetBeforeIt)
{
    // alpha 0.2 -> 0.2 * 255 = 51; an unknown colour name resets only R, G, B.
    EXPECT_EQ(parse("%{alpha;0.2}%%{color;#00ff80}%A%{color;nosuch}%B"), "AB");
    expect_style(ctx.runs[0], 0x00, 0xff, 0x80, 51);
    expect_style(ctx.runs[1], ITEM_FONT.r, ITEM_FONT.g, ITEM_FONT.b, 51);
}

TEST_F(markup, AlphaValues)
{
    // 0.5 * 255 = 127.5, truncated to 127.
    parse("%{alpha;0.5}%X");
    EXPECT_EQ(ctx.runs.at(0).style.a, 127);
    // ".5" does not start with a digit: back to the item's alpha.
    parse("%{alpha;.5}%X");
    EXPECT_EQ(ctx.runs.at(0).style.a, ITEM_FONT.a);
    // 7 * 255 is clamped to 255.
    parse("%{alpha;7}%X");
    EXPECT_EQ(ctx.runs.at(0).style.a, 255);
    // No argument resets, and so does anything after a lower alpha.
    parse("%{alpha;0}%X%{alpha}%Y");
    EXPECT_EQ(ctx.runs.at(0).style.a, 0);
    EXPECT_EQ(ctx.runs.at(1).style.a, ITEM_FONT.a);
    // "-1" does not start with a digit either.
    parse("%{alpha;-1}%X");
    EXPECT_EQ(ctx.runs.at(0).style.a, ITEM_FONT.a);
}

TEST_F(markup, ShadowFieldsChangeOnlyTheShadow)
{
    // 0.4 * 255 = 102.
    parse("%{shadow-color;blue}%%{shadow-alpha;0.4}%A%{shadow-color;?}%%{shadow-alpha;x}%B");
    ASSERT_EQ(ctx.runs.size(), 2u);
    const text_run& a = ctx.runs[0];
    expect_style(a, ITEM_FONT.r, ITEM_FONT.g, ITEM_FONT.b, ITEM_FONT.a);
    EXPECT_EQ(a.style.sr, 0);
    EXPECT_EQ(a.style.sg, 0);
    EXPECT_EQ(a.style.sb, 255);
    EXPECT_EQ(a.style.sa, 102);
    EXPECT_EQ(a.style.shadow_opacity, uint32_t(ITEM_SHADOW_OPACITY)); // markup never changes it
    expect_item_shadow(ctx.runs[1]);
}

TEST_F(markup, EveryParseStartsFromTheItemSettings)
{
    parse("%{color;red}%%{alpha;0}%A");
    parse("B");
    expect_style(ctx.runs.at(0), ITEM_FONT.r, ITEM_FONT.g, ITEM_FONT.b, ITEM_FONT.a);
    // A changed setting is picked up by the next parse.
    scroll_settings.fontColor = colour_rgba{1, 2, 3, 4};
    parse("C");
    expect_style(ctx.runs.at(0), 1, 2, 3, 4);
}

TEST_F(markup, UnknownSelectorAndNameAppendNothing)
{
    EXPECT_EQ(parse("<%{artist;sideways}%>"), "<>");
    EXPECT_EQ(parse("<%{nosuch}%>"), "<>");
    EXPECT_EQ(parse("<%{Test}%>"), "<>"); // names are case-sensitive
}

TEST_F(markup, TextEndingInAnOpenFieldKeepsWhatCameBefore)
{
    EXPECT_EQ(parse("50%{"), "50");
    EXPECT_EQ(ctx.runs.size(), 2u);
}

TEST_F(markup, TestFieldAppendsSmiley)
{
    EXPECT_EQ(parse("a%{test}%b"), "a<:)b");
    EXPECT_EQ(parse("%{test;ignored;args}%"), "<:)");
}

TEST_F(markup, PercentNotFollowedByBraceIsPlainText)
{
    EXPECT_EQ(parse("100%"), "100%");
    EXPECT_EQ(parse("%%x%}%"), "%%x%}%");
    EXPECT_EQ(parse("%"), "%");
}

TEST_F(markup, UnterminatedFieldTakesTheRestOfTheText)
{
    EXPECT_EQ(parse("A%{test"), "A<:)");
    parse("A%{color;red");
    expect_style(ctx.runs.at(0), ITEM_FONT.r, ITEM_FONT.g, ITEM_FONT.b, ITEM_FONT.a);
}

TEST_F(markup, FieldsDoNotNestAndHaveNoEscapes)
{
    // "}" without "%" is body text: the name is "te}st", unknown.
    EXPECT_EQ(parse("[%{te}st}%]"), "[]");
    // "%{" inside a body is body text: the name is "%{test", unknown, and
    // the first "}%" ends the field, so the second one is plain text.
    EXPECT_EQ(parse("[%{%{test}%}%]"), "[}%]");
}

TEST_F(markup, TimeFieldTakesItsFormatFromTheFourthPart)
{
    // 2026-03-04 00:00:00 UTC is 20516 days after the epoch:
    // 56 years with 14 leap days (1972..2024) = 20454 days, + 31 + 28 + 3.
    // 20516 * 86400 = 1772582400. 13:20 EST5 is 18:20 UTC = +66000 s.
    t4mi_clock_pin_wall_us((1772582400LL + 66000) * 1000000);
    EXPECT_EQ(parse("%{time;now;;24h}%"), "13:20");
    // The index is -1 there, which the next member reads as 1: "next1".
    set_schedule(R"({"next1": {"start": 1772648400}})");
    EXPECT_EQ(parse("%{time;next;;24h}%"), "13:20");
    EXPECT_EQ(parse("%{time;next}%"), "1:20"); // default format, 12 h
}

TEST_F(markup, EmptyTextGivesNoRunsAndClearsBothDeadlines)
{
    parse("abc");
    ctx.time_deadline = 123;
    ctx.date_deadline = 456;
    ctx.parse_pending = true;
    EXPECT_EQ(parse(""), "");
    EXPECT_TRUE(ctx.runs.empty());
    EXPECT_EQ(ctx.time_deadline, 0);
    EXPECT_EQ(ctx.date_deadline, 0);
    EXPECT_FALSE(ctx.parse_pending);
}

TEST_F(markup, ParseKeepsTheListCapacity)
{
    parse(std::string(1000, 'x'));
    const size_t capacity = ctx.runs.capacity();
    parse("y");
    EXPECT_EQ(ctx.runs.size(), 1u);
    EXPECT_EQ(ctx.runs.capacity(), capacity);
}

TEST_F(markup, MalformedUtf8IsSkippedByteByByte)
{
    // \xff: bad lead; \xc3 then "B": missing continuation, only \xc3 goes;
    // \xe2\x82 then "C": cut sequence, two bytes go one by one; \x80: lone
    // continuation.
    EXPECT_EQ(parse("A\xff" "B\xc3" "C\xe2\x82" "D\x80" "E"), "ABCDE");
    EXPECT_EQ(parse("\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"), "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
    ASSERT_EQ(ctx.runs.size(), 3u);
    EXPECT_EQ(ctx.runs[0].code, 0xE9);
    EXPECT_EQ(ctx.runs[1].code, 0x20AC);
    EXPECT_EQ(ctx.runs[2].code, 0x1F600);
}

TEST_F(markup, FieldResultsAreDecodedLikeTheText)
{
    // A field's text becomes runs through the same UTF-8 decoding.
    set_schedule("{\"current\": {\"title\": \"x\\u00e9y\"}}");
    EXPECT_EQ(parse("%{title}%"), "x\xc3\xa9y");
}

TEST_F(markup, AppendTextAndAppendCharUseTheCurrentStyle)
{
    parse("");
    ctx.style.r = 9;
    ctx.append_char('Q');
    ctx.append_text("\xff" "R\xc3\xa9");
    ASSERT_EQ(ctx.runs.size(), 3u);
    EXPECT_EQ(ctx.runs[0].code, 'Q');
    EXPECT_EQ(ctx.runs[1].code, 'R');
    EXPECT_EQ(ctx.runs[2].code, 0xE9);
    for (const auto& r : ctx.runs)
        EXPECT_EQ(r.style.r, 9);
}

TEST_F(markup, FieldResultLongerThanTheBufferIsCut)
{
    // The buffer holds 2,097,152 bytes with the NUL, so 2,097,151 survive.
    const std::string title(2097152 + 10, 'a');
    set_schedule("{\"current\": {\"title\": \"" + title + "\"}}");
    scroll_settings.text = "%{title}%";
    ctx.parse_text();
    EXPECT_EQ(ctx.runs.size(), 2097151u);
    // One byte short of the limit is kept whole.
    set_schedule("{\"current\": {\"title\": \"" + std::string(2097151, 'b') + "\"}}");
    ctx.parse_text();
    EXPECT_EQ(ctx.runs.size(), 2097151u);
}

// --- field bodies ---------------------------------------------------------

struct split_result {
    int n;
    std::vector<std::string> parts;
    std::string rest; // the text after the field
};

split_result split(const std::string& text_after_brace)
{
    char body[FIELD_BODY_SIZE];
    char* parts[FIELD_MAX_PARTS];
    const char* rest = collect_field_body(text_after_brace.c_str(), body);
    split_result out;
    out.n = split_field_parts(body, parts);
    for (int i = 0; i < out.n; i++)
        out.parts.emplace_back(parts[i]);
    out.rest = rest;
    return out;
}

std::string numbered_parts(int count)
{
    std::string body;
    for (int i = 0; i < count; i++)
        body += (i ? ";p" : "p") + std::to_string(i);
    return body;
}

TEST(field_body, SplitsAtEverySemicolonWithoutTrimming)
{
    const auto r = split("time;now; ;24h }%tail");
    ASSERT_EQ(r.n, 4);
    EXPECT_EQ(r.parts[0], "time");
    EXPECT_EQ(r.parts[1], "now");
    EXPECT_EQ(r.parts[2], " ");
    EXPECT_EQ(r.parts[3], "24h ");
    EXPECT_EQ(r.rest, "tail");
    const auto empty = split("}%");
    ASSERT_EQ(empty.n, 1);
    EXPECT_EQ(empty.parts[0], "");
    EXPECT_EQ(split(";;").n, 3); // unterminated: the rest is the body
}

TEST(field_body, ThirtyTwoPartsAreKept)
{
    const auto r = split(numbered_parts(32) + "}%");
    ASSERT_EQ(r.n, 32);
    EXPECT_EQ(r.parts[0], "p0");
    EXPECT_EQ(r.parts[31], "p31");
}

TEST(field_body, ThirtyThirdPartAndLaterAreDropped)
{
    // p31 is the 32nd part; it ends at the next ";" and p32, p33 are lost.
    const auto r = split(numbered_parts(34) + "}%after");
    ASSERT_EQ(r.n, 32);
    EXPECT_EQ(r.parts[31], "p31");
    EXPECT_EQ(r.rest, "after");
    const auto r33 = split(numbered_parts(33) + "}%");
    ASSERT_EQ(r33.n, 32);
    EXPECT_EQ(r33.parts[31], "p31");
}

TEST_F(markup, FieldWithManyPartsIsStillHandled)
{
    parse("%{color;red;" + numbered_parts(40) + "}%A");
    expect_style(ctx.runs.at(0), 255, 0, 0, ITEM_FONT.a);
}

TEST(field_body, BodyOfExactly511BytesFollowedByCloseWorks)
{
    const std::string body511(511, 'x');
    const auto r = split(body511 + "}%tail");
    ASSERT_EQ(r.n, 1);
    EXPECT_EQ(r.parts[0], body511);
    EXPECT_EQ(r.rest, "tail");
}

TEST_F(markup, FieldOf511BytesEndsNormally)
{
    // "test" plus ";" plus 506 bytes is a body of exactly 511 bytes.
    EXPECT_EQ(parse("%{test;" + std::string(506, 'y') + "}%!"), "<:)!");
}

// The hang is run in a child process that is killed after a short while.
TEST(field_body, BodyLongerThan511BytesNeverReturns)
{
    const auto r = run_in_child(
        [] {
            const std::string text = std::string(512, 'x') + "}%";
            char body[FIELD_BODY_SIZE];
            collect_field_body(text.c_str(), body);
            std::fputs("returned", stdout);
        },
        300);
    EXPECT_TRUE(r.timed_out);
    EXPECT_EQ(r.out, "");
}

TEST(field_body, FullBodyAtTheEndOfTheTextNeverReturns)
{
    // 511 body bytes and then the end of the text: the next two bytes are
    // not "}%", so this hangs too.
    const auto r = run_in_child(
        [] {
            const std::string text(511, 'x');
            char body[FIELD_BODY_SIZE];
            collect_field_body(text.c_str(), body);
            std::fputs("returned", stdout);
        },
        300);
    EXPECT_TRUE(r.timed_out);
    EXPECT_EQ(r.out, "");
}

TEST_F(markup, ParseWithAFieldLongerThan511BytesNeverReturns)
{
    scroll_settings.text = "%{test;" + std::string(600, 'z') + "}%";
    const auto r = run_in_child(
        [this] {
            ctx.parse_text();
            std::fputs("returned", stdout);
        },
        300);
    EXPECT_TRUE(r.timed_out);
    EXPECT_EQ(r.out, "");
}

// --- the hardened field body (--harden) ----------------------------------

struct bounded_result {
    bool dropped;
    std::string body;
    std::string rest;
};

bounded_result bounded(const std::string& text_after_brace)
{
    char body[FIELD_BODY_SIZE];
    bool dropped = true;
    const char* rest = collect_field_body_bounded(text_after_brace.c_str(), body, &dropped);
    return {dropped, body, rest};
}

TEST(field_body, BoundedBodiesWithinTheLimitAreAsBefore)
{
    const std::string body511(511, 'x');
    const auto full = bounded(body511 + "}%tail");
    EXPECT_FALSE(full.dropped);
    EXPECT_EQ(full.body, body511);
    EXPECT_EQ(full.rest, "tail");
    const auto open = bounded("time;now");
    EXPECT_FALSE(open.dropped);
    EXPECT_EQ(open.body, "time;now");
    EXPECT_EQ(open.rest, "");
}

TEST(field_body, ABoundedBodyOver511BytesIsDroppedUpToItsClose)
{
    const auto r = bounded(std::string(512, 'x') + "}%tail%{b}%");
    EXPECT_TRUE(r.dropped);
    EXPECT_EQ(r.body, "");
    EXPECT_EQ(r.rest, "tail%{b}%");
    // Unclosed: the rest of the text goes with it.
    const auto unclosed = bounded(std::string(511, 'x'));
    EXPECT_TRUE(unclosed.dropped);
    EXPECT_EQ(unclosed.rest, "");
}

TEST_F(markup, HardenedParseDropsAFieldOver511BytesAndGoesOn)
{
    t4mi_harden = 1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(parse("A%{color;red;" + std::string(600, 'z') + "}%B%{color;red}%C"), "ABC");
    const std::string err = testing::internal::GetCapturedStderr();
    t4mi_harden = 0;
    EXPECT_EQ(err, "WARNING: Field longer than 511 bytes dropped\n");
    ASSERT_EQ(ctx.runs.size(), 3u);
    expect_style(ctx.runs[1], ITEM_FONT.r, ITEM_FONT.g, ITEM_FONT.b, ITEM_FONT.a); // the dropped colour never applied
    expect_style(ctx.runs[2], 255, 0, 0, ITEM_FONT.a);
}

// --- schedule data packets ------------------------------------------------

TEST_F(markup, DataPacketMarksTheTextWhenTheDataChanges)
{
    ctx.text_dirty = false;
    ctx.parse_pending = false;
    EXPECT_FALSE(set_schedule(R"({"current": {"title": "A"}})"));
    EXPECT_TRUE(ctx.text_dirty);
    EXPECT_TRUE(ctx.parse_pending);
    EXPECT_EQ(parse("%{title}%"), "A");

    // The same data again, spelled differently (1 and 1.0, other spacing).
    ctx.text_dirty = false;
    ctx.parse_pending = false;
    EXPECT_FALSE(set_schedule(R"({"current": {"title": "A"}, "n": 1})"));
    ctx.text_dirty = false;
    ctx.parse_pending = false;
    EXPECT_TRUE(set_schedule(R"({ "n" : 1.0, "current" : { "title" : "A" } })"));
    EXPECT_FALSE(ctx.text_dirty);
    EXPECT_FALSE(ctx.parse_pending);
}

TEST_F(markup, BadJsonAndNullPacketGiveNullData)
{
    EXPECT_TRUE(ctx.data.is_null());
    // Null replaces nothing at first: unchanged.
    EXPECT_TRUE(ctx.apply_data_packet(nullptr));
    EXPECT_FALSE(set_schedule(R"({"current": {"title": "A"}})"));
    ctx.text_dirty = false;
    // Comments are not allowed in schedule data: a parse error, null data.
    EXPECT_FALSE(set_schedule(R"({"current": {"title": "A"}} // note)"));
    EXPECT_TRUE(ctx.data.is_null());
    EXPECT_TRUE(ctx.text_dirty);
    EXPECT_TRUE(set_schedule("not json"));
    EXPECT_FALSE(set_schedule(R"([1])"));
    EXPECT_FALSE(ctx.apply_data_packet(nullptr));
    EXPECT_TRUE(ctx.data.is_null());
}

TEST_F(markup, DataPacketIsReadUpToItsFirstNul)
{
    const std::string blob("{\"current\": {\"title\": \"A\"}}\0garbage", 35);
    comm_socket_v4_packet packet;
    packet.set_data(blob.data(), blob.size());
    EXPECT_FALSE(ctx.apply_data_packet(&packet));
    EXPECT_EQ(parse("%{title}%"), "A");
}

TEST_F(markup, NewContextStartsDirtyWithNullDataAndNoDeadlines)
{
    scrolling_text_client_context fresh(7);
    EXPECT_TRUE(fresh.text_dirty);
    EXPECT_TRUE(fresh.parse_pending);
    EXPECT_FALSE(fresh.feed_dirty);
    EXPECT_EQ(fresh.time_deadline, 0);
    EXPECT_EQ(fresh.date_deadline, 0);
    EXPECT_TRUE(fresh.data.is_null());
    EXPECT_TRUE(fresh.runs.empty());
}

} // namespace
} // namespace t4test
