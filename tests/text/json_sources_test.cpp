// The JSON data source cache and the "kestrel-temp" field.
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "support/sanitizers.h"
#include "weather_fixture.h"

namespace t4test {
namespace {

using json_sources_cache = weather_test;
using kestrel_field = weather_test;

const char* const BOSTON = R"({"location": [{"name": "Boston", "tempF": 41}, {"name": "Denver", "tempF": -3}]})";

// --- names and files ------------------------------------------------------

TEST_F(json_sources_cache, NamesThatLeaveTheDirectoryAreNeverRead)
{
    // Files that the refused names would reach if they were not refused.
    write_file(dir() + "/../x.json", BOSTON); // "../x"
    write_file(dir() + "/..json", BOSTON);    // "."
    write_file(dir() + "/...json", BOSTON);   // ".."
    write_file(dir() + "/sub/w.json", BOSTON); // "sub/w"
    for (const std::string name : {"../x", ".", "..", "sub/w"}) {
        const std::string err = stderr_of([&] {
            EXPECT_EQ(temperature_text(name, temperature_form::degrees), "N/A") << name;
        });
        EXPECT_EQ(err, "") << name;
        const json_data_source& s = json_sources.at(name);
        EXPECT_FALSE(s.loaded);
        EXPECT_TRUE(s.document.is_null());
    }
    EXPECT_EQ(parse("[%{kestrel-temp;../x;degrees}%]"), "[N/A]");
}

TEST_F(json_sources_cache, RefusedNameIsRetriedAfterFiveSeconds)
{
    const uint64_t before = monotonic_clock_us();
    json_data_source& s = lookup_source("../x");
    EXPECT_GE(s.next_check, before + 5000000);
    EXPECT_LT(s.next_check, before + 6000000);
    EXPECT_GE(s.expiry, before + 180000000);
}

TEST_F(json_sources_cache, OnlyRegularFilesAreRead)
{
    write_source("real", BOSTON);
    std::filesystem::create_symlink(path_of("real"), path_of("link"));
    std::filesystem::create_directory(path_of("dir"));
    for (const std::string name : {"link", "dir", "missing"}) {
        const std::string err = stderr_of([&] { lookup_source(name); });
        EXPECT_EQ(err, "") << name;
        EXPECT_FALSE(json_sources.at(name).loaded) << name;
    }
}

TEST_F(json_sources_cache, LoadPrintsAndKeepsTheDocument)
{
    write_source("w", BOSTON, 1700000123);
    const uint64_t before = monotonic_clock_us();
    const std::string err = stderr_of([&] { lookup_source("w"); });
    EXPECT_EQ(err, loaded_line("w"));
    const json_data_source& s = json_sources.at("w");
    EXPECT_TRUE(s.loaded);
    EXPECT_EQ(s.name, "w");
    EXPECT_EQ(s.file_time, 1700000123);
    EXPECT_EQ(s.document["location"][0]["name"].string_value(), "Boston");
    // Next check in 15 s, expiry in 180 s.
    EXPECT_GE(s.next_check, before + 15000000);
    EXPECT_LT(s.next_check, before + 16000000);
    EXPECT_GE(s.expiry, before + 180000000);
    EXPECT_LT(s.expiry, before + 181000000);
    // Within the 15 s nothing is looked at again.
    EXPECT_EQ(stderr_of([&] { lookup_source("w"); }), "");
}

TEST_F(json_sources_cache, BadJsonIsReportedAndStoredAsNull)
{
    write_source("bad", R"({"location": [)");
    const std::string err = stderr_of([&] {
        EXPECT_EQ(temperature_text("bad", temperature_form::location_and_degrees), "N/A");
    });
    ASSERT_EQ(err.rfind("JSON error '", 0), 0u) << err;
    const auto first_line = err.substr(0, err.find('\n') + 1);
    EXPECT_GT(first_line.size(), std::string("JSON error ''\n").size()); // a message is given
    EXPECT_EQ(first_line.substr(first_line.size() - 2), "'\n");
    EXPECT_EQ(err.substr(first_line.size()), loaded_line("bad"));
    EXPECT_TRUE(json_sources.at("bad").loaded);
    EXPECT_TRUE(json_sources.at("bad").document.is_null());
}

TEST_F(json_sources_cache, UnreadableFileIsReported)
{
    // As root every permission check passes, so the open is made to fail by
    // having no file descriptor left; in a child, so that this process keeps
    // its limits.
    write_source("w", BOSTON);
    const std::string path = path_of("w");
    const auto r = run_in_child([] {
        // UBSan checks the dynamic type of a stream as it is used, and for a
        // type it has not seen yet it reads memory through a pipe: with no
        // descriptor left, that fails. A first stream that fails to open the
        // same way shows it the types.
        if (t4test::sanitized) {
            std::ifstream warm_up("/dev/null/none", std::ios::binary);
            EXPECT_FALSE(warm_up);
        }
        const int lowest_free = dup(0);
        close(lowest_free);
        rlimit lim{};
        getrlimit(RLIMIT_NOFILE, &lim);
        lim.rlim_cur = rlim_t(lowest_free);
        setrlimit(RLIMIT_NOFILE, &lim);
        const json_data_source& s = lookup_source("w");
        std::fputs(s.loaded ? "loaded" : "not loaded", stdout);
    });
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.err, "Unable to open file '" + path + "'\n");
    EXPECT_EQ(r.out, "not loaded");
}

TEST_F(json_sources_cache, CommentsAndLinesJoinedByLineFeeds)
{
    // Joined with line feeds, each "//" comment ends at its line; the file
    // has CR LF endings and no final line feed.
    write_source("c", "// first line comment\r\n{ /* block */ \"location\": [ // trailing\r\n"
                      "{\"name\": \"Boston\", \"tempF\": 41}]}");
    const std::string err = stderr_of([&] {
        EXPECT_EQ(temperature_text("c", temperature_form::location_and_degrees), "Boston: 41\xc2\xb0" "F");
    });
    EXPECT_EQ(err, loaded_line("c") + "Loading JSON temps (kestrel)\n\"Boston\" = 41\n");
}

// --- change, disappearance, expiry ------------------------------------------

TEST_F(json_sources_cache, TouchWithinTheSameSecondDoesNotReload)
{
    write_source("w", BOSTON, 1700000000, 100);
    stderr_of([&] { lookup_source("w"); });
    write_source("w", R"({"location": [{"name": "Boston", "tempF": 50}]})", 1700000000, 900000000);
    advance_us(16000000);
    EXPECT_EQ(stderr_of([&] { lookup_source("w"); }), checking_line("w"));
    EXPECT_EQ(json_sources.at("w").document["location"][0]["tempF"].int_value(), 41);
    // A new modification second is a change.
    set_mtime(path_of("w"), 1700000001, 0);
    advance_us(16000000);
    EXPECT_EQ(stderr_of([&] { lookup_source("w"); }), checking_line("w") + loaded_line("w"));
    EXPECT_EQ(json_sources.at("w").document["location"][0]["tempF"].int_value(), 50);
    EXPECT_EQ(json_sources.at("w").file_time, 1700000001);
}

TEST_F(json_sources_cache, FileThatAppearsChangesAndDisappears)
{
    // Not there yet: nothing printed, "N/A", retried after 5 s.
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(temperature_text("w", temperature_form::degrees), "N/A"); }), "");
    write_source("w", BOSTON, 1700000000);
    EXPECT_EQ(temperature_text("w", temperature_form::degrees), "N/A"); // the 5 s have not passed
    advance_us(6000000);
    std::string shown;
    EXPECT_EQ(stderr_of([&] { shown = temperature_text("w", temperature_form::degrees); }),
              loaded_line("w") + "Loading JSON temps (kestrel)\n\"Boston\" = 41\n\"Denver\" = -3\n");
    EXPECT_EQ(shown, "41\xc2\xb0" "F");

    // Changed: reloaded within 15 s. The list is not rebuilt while it is
    // non-empty, so the field still shows the old value (kept as it is).
    write_source("w", R"({"location": [{"name": "Boston", "tempF": 50}]})", 1700000060);
    advance_us(16000000);
    EXPECT_EQ(stderr_of([&] { shown = temperature_text("w", temperature_form::degrees); }),
              checking_line("w") + loaded_line("w"));
    EXPECT_EQ(shown, "41\xc2\xb0" "F");
    EXPECT_EQ(json_sources.at("w").document["location"][0]["tempF"].int_value(), 50);

    // Gone: checked, not reloaded, the document is kept.
    std::filesystem::remove(path_of("w"));
    advance_us(16000000);
    EXPECT_EQ(stderr_of([&] { lookup_source("w"); }), checking_line("w"));
    EXPECT_EQ(json_sources.at("w").document["location"][0]["tempF"].int_value(), 50);
    EXPECT_TRUE(json_sources.at("w").loaded);
}

TEST_F(json_sources_cache, SourceIsDroppedAfter180SecondsAndLoadedAgain)
{
    write_source("w", BOSTON, 1700000000);
    EXPECT_EQ(temperature_text("w", temperature_form::degrees), "41\xc2\xb0" "F");
    // The file changes but keeps its modification second, so no check sees it.
    write_source("w", R"({"location": [{"name": "Boston", "tempF": 50}]})", 1700000000);
    advance_us(179000000);
    EXPECT_EQ(stderr_of([] { check_sources(); }), checking_line("w"));
    ASSERT_EQ(json_sources.count("w"), 1u); // 179 s: still there
    advance_us(2000000);
    EXPECT_EQ(stderr_of([] { check_sources(); }), ""); // next check at 194 s
    EXPECT_EQ(json_sources.count("w"), 0u);             // 181 s after its load: dropped
    // The next use loads it afresh and builds a new list.
    std::string shown;
    EXPECT_EQ(stderr_of([&] { shown = temperature_text("w", temperature_form::degrees); }),
              loaded_line("w") + "Loading JSON temps (kestrel)\n\"Boston\" = 50\n");
    EXPECT_EQ(shown, "50\xc2\xb0" "F");
}

TEST_F(json_sources_cache, ReloadByHousekeepingRenewsTheLifetime)
{
    write_source("w", BOSTON, 1700000000);
    lookup_source("w");
    set_mtime(path_of("w"), 1700000005, 0);
    advance_us(181000000);
    EXPECT_EQ(stderr_of([] { check_sources(); }), checking_line("w") + loaded_line("w"));
    EXPECT_EQ(json_sources.count("w"), 1u);
}

TEST_F(json_sources_cache, HousekeepingRunsAtMostOnceASecond)
{
    write_source("w", BOSTON);
    lookup_source("w");
    advance_us(16000000);
    EXPECT_EQ(stderr_of([] { check_sources(); }), checking_line("w"));
    json_sources.at("w").next_check = 0; // due again at once
    EXPECT_EQ(stderr_of([] { check_sources(); }), "");
    advance_us(1100000);
    EXPECT_EQ(stderr_of([] { check_sources(); }), checking_line("w"));
}

TEST_F(json_sources_cache, HousekeepingLoadsSourcesThatNeverLoaded)
{
    lookup_source("w"); // no file yet
    write_source("w", BOSTON);
    advance_us(2000000);
    EXPECT_EQ(stderr_of([] { check_sources(); }), ""); // 5 s not over
    advance_us(4000000);
    EXPECT_EQ(stderr_of([] { check_sources(); }), loaded_line("w"));
    EXPECT_TRUE(json_sources.at("w").loaded);
}

TEST_F(json_sources_cache, HousekeepingWalksSourcesInNameOrder)
{
    for (const std::string name : {"b", "a", "c"}) {
        write_source(name, BOSTON);
        lookup_source(name);
    }
    advance_us(16000000);
    EXPECT_EQ(stderr_of([] { check_sources(); }), checking_line("a") + checking_line("b") + checking_line("c"));
}

// --- temperatures ---------------------------------------------------------

TEST_F(json_sources_cache, TemperatureValues)
{
    // Strings go through strtol base 0: 0x1F = 31, 017 = 15 (octal); numbers
    // are truncated toward zero; anything else gives -1111.
    write_source("t", R"({"location": [
        {"name": "Hex", "tempF": "0x1F"}, {"name": "Oct", "tempF": "017"}, {"name": "Neg", "tempF": "-5"},
        {"name": "Word", "tempF": "warm"}, {"name": "Frac", "tempF": 12.9}, {"name": "NegFrac", "tempF": -3.7},
        {"name": "None"}, {"name": "Bool", "tempF": true}, {"tempF": 7}, 5, "x", null,
        {"name": 9, "tempF": [1]}]})");
    std::string shown;
    const std::string err = stderr_of([&] { shown = temperature_text("t", temperature_form::degrees); });
    EXPECT_EQ(err, loaded_line("t") +
                       "Loading JSON temps (kestrel)\n"
                       "\"Hex\" = 31\n\"Oct\" = 15\n\"Neg\" = -5\n\"Word\" = 0\n\"Frac\" = 12\n"
                       "\"NegFrac\" = -3\n\"None\" = -1111\n\"Bool\" = -1111\n\"\" = 7\n\"\" = -1111\n");
    EXPECT_EQ(shown, "31\xc2\xb0" "F");
    const auto& list = json_sources.at("t").temperatures;
    ASSERT_EQ(list.size(), 10u);
    EXPECT_EQ(list[6], (std::pair<std::string, int32_t>("None", -1111)));
}

TEST_F(kestrel_field, HexStringAndMissingTemperature)
{
    write_source("today", R"({"location": [{"name": "Hex", "tempF": "0x1F"}, {"name": "Nothing"}]})");
    EXPECT_EQ(parse("%{kestrel-temp;today;degrees}%"), "31\xc2\xb0" "F");
    EXPECT_EQ(parse("%{kestrel-temp;today;degrees;Nothing}%"), "-1111\xc2\xb0" "F");
}

TEST_F(kestrel_field, UnknownLocationGivesNA)
{
    write_source("today", BOSTON);
    EXPECT_EQ(parse("%{kestrel-temp;today;degrees;Nowhere}%"), "N/A");
    // The cursor stays past the end, so every form says N/A...
    EXPECT_EQ(parse("%{kestrel-temp;today;degrees}%|%{kestrel-temp;today}%"), "N/A|N/A");
    // ...until a known location is selected again.
    EXPECT_EQ(parse("%{kestrel-temp;today;location;Denver}%"), "Denver");
}

TEST_F(kestrel_field, Forms)
{
    write_source("today", BOSTON);
    EXPECT_EQ(parse("%{kestrel-temp;today}%"), "Boston: 41\xc2\xb0" "F");
    EXPECT_EQ(parse("%{kestrel-temp;today;location}%"), "Boston");
    EXPECT_EQ(parse("%{kestrel-temp;today;degrees}%"), "41\xc2\xb0" "F");
    EXPECT_EQ(parse("%{kestrel-temp;today;other}%"), "Boston: 41\xc2\xb0" "F");
    EXPECT_EQ(parse("%{kestrel-temp;today;;Denver}%"), "Denver: -3\xc2\xb0" "F");
    // The cursor stays where the last selection put it; an empty location
    // selects nothing.
    EXPECT_EQ(parse("%{kestrel-temp;today;location;}%"), "Denver");
    EXPECT_EQ(parse("%{kestrel-temp;today;degrees}%"), "-3\xc2\xb0" "F");
}

TEST_F(kestrel_field, NothingWithoutASource)
{
    write_source("today", BOSTON);
    EXPECT_EQ(parse("[%{kestrel-temp}%%{kestrel-temp;}%%{kestrel-temp;;degrees;Boston}%]"), "[]");
    EXPECT_TRUE(json_sources.empty());
}

TEST_F(kestrel_field, MissingOrUnusableDocumentGivesNA)
{
    write_source("arr", R"([{"name": "Boston", "tempF": 41}])");
    write_source("noloc", R"({"locations": []})");
    write_source("locobj", R"({"location": {"name": "Boston", "tempF": 41}})");
    write_source("empty", R"({"location": []})");
    const std::string err = stderr_of([&] {
        EXPECT_EQ(parse("%{kestrel-temp;nofile}%|%{kestrel-temp;arr}%|%{kestrel-temp;noloc}%|"
                        "%{kestrel-temp;locobj}%"),
                  "N/A|N/A|N/A|N/A");
    });
    EXPECT_EQ(err.find("Loading JSON temps"), std::string::npos);
    // An empty location array is examined (and announced) on every use.
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(parse("%{kestrel-temp;empty}%"), "N/A"); }),
              loaded_line("empty") + "Loading JSON temps (kestrel)\n");
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(parse("%{kestrel-temp;empty}%"), "N/A"); }),
              "Loading JSON temps (kestrel)\n");
}

TEST_F(kestrel_field, SelectLocationPrefersTheCursorThenTheFirstMatch)
{
    write_source("dup", R"({"location": [{"name": "A", "tempF": 1}, {"name": "B", "tempF": 2},
                                           {"name": "A", "tempF": 3}]})");
    select_location("dup", "A");
    EXPECT_EQ(json_sources.at("dup").cursor, 0u);
    json_sources.at("dup").cursor = 2; // on the second "A": kept
    select_location("dup", "A");
    EXPECT_EQ(json_sources.at("dup").cursor, 2u);
    select_location("dup", "B");
    EXPECT_EQ(json_sources.at("dup").cursor, 1u);
    select_location("dup", "A"); // scanned from the start
    EXPECT_EQ(json_sources.at("dup").cursor, 0u);
    select_location("dup", "Z");
    EXPECT_EQ(json_sources.at("dup").cursor, 3u);
}

} // namespace
} // namespace t4test
