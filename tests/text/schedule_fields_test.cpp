// The schedule fields, through the markup as an item template uses them.
// Times are in "EST5" (UTC-5): local midnight starting 4 March 2026 is
// 1772600400 (see time_formats_test.cpp for the arithmetic).
#include "text_fixture.h"

namespace t4test {
namespace {

using schedule_fields = text_test;

TEST_F(schedule_fields, AuthorServesArtistAndTheOtherWayRound)
{
    set_schedule(R"({"current": {"author": "A"}})");
    EXPECT_EQ(parse("%{artist}%|%{author}%"), "A|A");
    set_schedule(R"({"current": {"artist": "B"}})");
    EXPECT_EQ(parse("%{artist}%|%{author}%"), "B|B");
    set_schedule(R"({"current": {"artist": "B", "author": "A"}})");
    EXPECT_EQ(parse("%{artist}%|%{author}%"), "B|A");
    // An empty string or another type counts as absent.
    set_schedule(R"({"current": {"artist": "", "author": "A"}})");
    EXPECT_EQ(parse("%{artist}%"), "A");
    set_schedule(R"({"current": {"artist": 5, "author": "A"}})");
    EXPECT_EQ(parse("%{artist}%"), "A");
}

TEST_F(schedule_fields, TitleFromProgramKeepsTheJoiner)
{
    set_schedule(R"({"current": {"program": "News"}})");
    EXPECT_EQ(parse("%{title}%"), "News - ");
    set_schedule(R"({"current": {"episode": "Part 2"}})");
    EXPECT_EQ(parse("%{title}%"), " - Part 2");
    set_schedule(R"({"current": {"program": "News", "episode": "Late"}})");
    EXPECT_EQ(parse("%{title}%"), "News - Late");
    set_schedule(R"({"current": {"title": "T", "program": "News", "episode": "Late"}})");
    EXPECT_EQ(parse("%{title}%|%{program}%|%{episode}%"), "T|News|Late");
}

TEST_F(schedule_fields, ItemPathGivesItsLastComponent)
{
    set_schedule(R"({"current": {"item": "/media/shows/ep1.mpg"}})");
    EXPECT_EQ(parse("%{title}%|%{program}%"), "ep1.mpg|ep1.mpg");
    set_schedule(R"({"current": {"item": "/media/shows/"}})");
    EXPECT_EQ(parse("[%{title}%|%{program}%]"), "[|]");
    set_schedule(R"({"current": {"item": "plain.mpg"}})");
    EXPECT_EQ(parse("%{title}%"), "plain.mpg");
    // The item is the last resort: a program comes first for "title", a
    // title for "program".
    set_schedule(R"({"current": {"item": "/x/y.mpg", "title": "T", "program": "P"}})");
    EXPECT_EQ(parse("%{title}%|%{program}%"), "T|P");
    set_schedule(R"({"current": {"item": "/x/y.mpg", "title": "T"}})");
    EXPECT_EQ(parse("%{program}%"), "T");
    EXPECT_EQ(parse("[%{episode}%]"), "[]");
}

TEST_F(schedule_fields, NextWithoutIndexMeansTheFirst)
{
    set_schedule(R"({"current": {"title": "A"}, "next1": {"title": "B"}})");
    EXPECT_EQ(parse("%{title;next}%"), "B");
    EXPECT_EQ(parse("%{title;next;1}%"), "B");
    EXPECT_EQ(parse("[%{title;next;0}%]"), "[]");
    EXPECT_EQ(parse("[%{title;next;2}%]"), "[]");
    EXPECT_EQ(parse("%{title;next;}%"), "B");
}

TEST_F(schedule_fields, SelectorsAndIndexes)
{
    set_schedule(R"({"current": {"artist": "C"}, "next2": {"artist": "N2"}, "prev1": {"artist": "P1"},
                     "prev3": {"artist": "P3"}, "next0": {"artist": "N0"}})");
    EXPECT_EQ(parse("%{artist}%"), "C");
    EXPECT_EQ(parse("%{artist;current}%"), "C");
    EXPECT_EQ(parse("%{artist;}%"), "C");
    EXPECT_EQ(parse("%{artist;current;5}%"), "C"); // the index means nothing to current
    EXPECT_EQ(parse("%{artist;next;2}%"), "N2");
    EXPECT_EQ(parse("%{artist;next;0}%"), "N0"); // 0 is used as it is
    EXPECT_EQ(parse("%{artist;prev}%"), "P1");
    EXPECT_EQ(parse("%{artist;prev;3;ignored;args}%"), "P3");
    EXPECT_EQ(parse("[%{artist;Next;2}%]"), "[]"); // selectors are case-sensitive
    EXPECT_EQ(parse("[%{artist;now}%]"), "[]");
    // strtoul: leading digits count, a leading "+" is accepted.
    EXPECT_EQ(parse("%{artist;next;2x}%"), "N2");
    EXPECT_EQ(parse("%{artist;next;+2}%"), "N2");
    // 4294967298 wraps to 2 in the 32-bit index.
    EXPECT_EQ(parse("%{artist;next;4294967298}%"), "N2");
}

TEST_F(schedule_fields, MissingEntriesGiveNothing)
{
    EXPECT_EQ(parse("[%{artist}%%{title;next}%%{summary;prev;2}%%{time}%%{date-end;next}%]"), "[]");
    set_schedule(R"({"current": null, "next1": 5, "prev1": "text"})");
    EXPECT_EQ(parse("[%{artist}%%{title;next}%%{title;prev}%%{time;prev}%]"), "[]");
    set_schedule(R"({"current": {}})");
    EXPECT_EQ(parse("[%{artist}%%{author}%%{title}%%{program}%%{episode}%%{rating}%%{summary}%]"
                    "[%{description}%%{time}%%{time-end}%%{date}%%{date-end}%]"),
              "[][]");
}

TEST_F(schedule_fields, RatingIsReducedToItsLastComponent)
{
    set_schedule(R"({"current": {"rating": "TV-PG"}})");
    EXPECT_EQ(parse("%{rating}%"), "TV-PG");
    set_schedule(R"({"current": {"rating": "us/tv/TV-14"}})");
    EXPECT_EQ(parse("%{rating}%"), "TV-14");
    set_schedule(R"({"current": {"rating": "us/"}})");
    EXPECT_EQ(parse("[%{rating}%]"), "[]");
}

TEST_F(schedule_fields, SummaryAndDescriptionStandInForEachOther)
{
    set_schedule(R"({"current": {"summary": "S"}, "next1": {"description": "D"}})");
    EXPECT_EQ(parse("%{summary}%|%{description}%|%{summary;next}%|%{description;next}%"), "S|S|D|D");
}

TEST_F(schedule_fields, LastPathComponent)
{
    EXPECT_EQ(ctx._json_last_path_component("a/b/c"), "c");
    EXPECT_EQ(ctx._json_last_path_component("abc"), "abc");
    EXPECT_EQ(ctx._json_last_path_component("/"), "");
    EXPECT_EQ(ctx._json_last_path_component(""), "");
}

TEST_F(schedule_fields, StartIsShownATenthOfASecondLater)
{
    // 1000.95 + 0.1 = 1001.05; in UTC 1001 s is 00:16:41.
    use_test_zone("UTC0");
    set_schedule(R"({"current": {"start": 1000.95, "end": 1000.95}})");
    EXPECT_EQ(parse("%{time;;;24h,s}%"), "0:16:41");
    // "end" and dates get no offset: 1000.95 stays in second 40.
    EXPECT_EQ(parse("%{time-end;;;24h,s}%"), "0:16:40");
    // A start at hh:mm:00.95 shows second 01.
    use_test_zone();
    set_schedule(R"({"current": {"start": 1772600700.95}})"); // local 00:05:00.95
    EXPECT_EQ(parse("%{time;current;;s}%"), "12:05:01");
}

TEST_F(schedule_fields, DateFieldsUseStartAndEndWithoutOffset)
{
    // start: local 3 March 23:59:59.95 (midnight 1772600400 minus 0.05);
    // +0.1 makes the time 00:00:00 on 4 March, the date stays 3 March.
    set_schedule(R"({"current": {"start": 1772600399.95, "end": 1772600400}})");
    EXPECT_EQ(parse("%{time;;;24h,s}% %{date;;;yyyy-mm-dd}% %{date-end}%"), "0:00:00 2026-03-03 03/04/2026");
}

TEST_F(schedule_fields, ScheduleTimesNeverArmARefresh)
{
    set_schedule(R"({"current": {"start": 1772600700, "end": 1772604000},
                     "next1": {"start": 1772604000, "end": 1772607600}})");
    // Local 00:05 and 01:00; the end of the next entry is 02:00.
    EXPECT_EQ(parse("%{time}%-%{time-end}% %{time;next}%-%{time-end;next;1}% %{date;next}%"),
              "12:05-1:00 1:00-2:00 03/04/2026");
    EXPECT_EQ(ctx.time_deadline, 0);
    EXPECT_EQ(ctx.date_deadline, 0);
}

TEST_F(schedule_fields, TimeStartOfTheWrongTypeGivesNothing)
{
    set_schedule(R"({"current": {"start": "1772600700", "end": null}})");
    EXPECT_EQ(parse("[%{time}%%{time-end}%%{date}%%{date-end}%]"), "[]");
}

TEST_F(schedule_fields, NowOnlyForTimeAndDate)
{
    t4mi_clock_pin_wall_us(1772600709LL * 1000000); // local 00:05:09, shown as 09.999
    set_schedule(R"({"current": {"start": 1772604000, "end": 1772607600}})");
    EXPECT_EQ(parse("%{time;now}% %{date;now;;m/dd}%"), "12:05 3/04");
    EXPECT_EQ(parse("[%{time-end;now}%%{date-end;now}%]"), "[]");
    EXPECT_EQ(ctx.time_deadline, 0);
    EXPECT_EQ(ctx.date_deadline, 0);
}

TEST_F(schedule_fields, PrevMembersOfTimeFamilies)
{
    set_schedule(R"({"prev1": {"start": 1772597700, "end": 1772600400},
                     "prev2": {"start": 1772594100}})");
    // prev1: 23:15 to midnight on 3 March; prev2: 22:15.
    EXPECT_EQ(parse("%{time;prev;;24h}%-%{time-end;prev;;24h}% %{time;prev;2;24h}% %{date-end;prev}%"),
              "23:15-0:00 22:15 03/04/2026");
}

} // namespace
} // namespace t4test
