// Every file of a corpus of good and bad JSON, through both ways JSON comes
// in: as a weather file (the whole file, comments allowed; each load ends in
// "Loaded json", after "JSON error" for a refused file) and as schedule data
// (a packet read up to its first NUL byte, no comments). Each file's outcome
// on both ways is written out below, worked out from its bytes; nothing
// crashes or hangs.
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "weather_fixture.h"

namespace t4test {
namespace {

namespace fs = std::filesystem;
using json11::Json;

std::vector<fs::path> corpus_files()
{
    std::vector<fs::path> files;
    for (const auto& e : fs::directory_iterator(std::string(T4MI_SOURCE_DIR) + "/tests/text/data/json_corpus"))
        if (e.path().extension() == ".json")
            files.push_back(e.path());
    std::sort(files.begin(), files.end());
    return files;
}

bool starts_with(const std::string& s, const std::string& prefix) { return s.rfind(prefix, 0) == 0; }

const std::string DEG = "\xc2\xb0" "F";

// "<location>: <whole degrees>°F", the location on one line.
bool is_default_form(const std::string& s)
{
    if (s.size() < DEG.size() || s.compare(s.size() - DEG.size(), DEG.size(), DEG) != 0)
        return false;
    const std::string head = s.substr(0, s.size() - DEG.size());
    const size_t colon = head.rfind(": ");
    if (colon == std::string::npos || head.find('\n') != std::string::npos)
        return false;
    std::string number = head.substr(colon + 2);
    if (!number.empty() && number[0] == '-')
        number.erase(0, 1);
    return !number.empty() && number.find_first_not_of("0123456789") == std::string::npos;
}

// The schedule fields shown with a file as the data object: title, artist,
// start time of the current entry, and title of the next one.
constexpr const char* FIELDS = "%{title}%|%{artist}%|%{time;current;;24h}%|%{title;next}%";
const std::string NO_FIELDS = "|||"; // a document without "current" or "next1"

struct outcome {
    bool parses;            // as a weather file
    Json::Type type;        // of the weather document
    std::string shown;      // the default form of "kestrel-temp"
    Json::Type data_type;   // of the schedule data object (null when refused)
    std::string fields;     // FIELDS with that data
};

outcome refused() { return {false, Json::NUL, "N/A", Json::NUL, NO_FIELDS}; }
outcome parsed(Json::Type type, const std::string& shown, const std::string& fields = NO_FIELDS)
{
    return {true, type, shown, type, fields};
}

const std::string BOSTON = "Boston: 41" + DEG;

// Bytes that are not UTF-8 and lone surrogate escapes are kept in strings,
// a number too large for a double is an infinity (int_value INT_MAX), and
// the markup skips what is not UTF-8 one byte at a time.
const std::map<std::string, outcome> expected = {
    {"invalid_bad_escape", refused()},
    {"invalid_empty", refused()},
    {"invalid_hash_comment", refused()},
    {"invalid_hex_number", refused()},
    {"invalid_infinity", refused()},
    {"invalid_leading_zero", refused()},
    {"invalid_nan", refused()},
    {"invalid_nested_arrays_50000", refused()},
    {"invalid_nested_balanced_5000", refused()},
    {"invalid_nested_mixed_open", refused()},
    {"invalid_nested_objects_1000", refused()},
    {"invalid_nul_byte", refused()}, // as schedule data: {"location": [ before the NUL
    {"invalid_nul_only", refused()},
    {"invalid_only_comment", refused()},
    {"invalid_plus_number", refused()},
    {"invalid_random_bytes", refused()},
    {"invalid_raw_newline_in_string", refused()},
    {"invalid_raw_tab_in_string", refused()},
    {"invalid_short_unicode_escape", refused()},
    {"invalid_single_quotes", refused()},
    {"invalid_trailing_comma", refused()},
    {"invalid_trailing_garbage", refused()},
    {"invalid_truncated", refused()},
    {"invalid_two_documents", refused()},
    {"invalid_unclosed_comment", refused()},
    {"invalid_unclosed_string", refused()},
    {"invalid_unquoted_key", refused()},
    {"invalid_utf16be_bom", refused()},
    {"invalid_utf16le_bom", refused()},
    {"invalid_utf16le_no_bom", refused()}, // as schedule data: "{" before the first NUL
    {"invalid_utf32le_bom", refused()},
    {"invalid_whitespace_only", refused()},
    {"valid_bad_utf8", parsed(Json::OBJECT, "A\xff" "B: 1" + DEG)},
    {"valid_basic", parsed(Json::OBJECT, BOSTON)},
    {"valid_big_numbers", parsed(Json::OBJECT, "Huge: 2147483647" + DEG)}, // saturated
    {"valid_comments", {true, Json::OBJECT, BOSTON, Json::NUL, NO_FIELDS}}, // no comments in schedule data
    {"valid_crlf", parsed(Json::OBJECT, BOSTON)},
    {"valid_duplicate_keys", parsed(Json::OBJECT, "Last: 2" + DEG)},
    {"valid_empty_object", parsed(Json::OBJECT, "N/A")},
    {"valid_escaped_nul", parsed(Json::OBJECT, std::string("a\0b: 1", 6) + DEG)},
    {"valid_latin1", parsed(Json::OBJECT, "Z\xfcrich: 1" + DEG)},
    {"valid_location_mixed", parsed(Json::OBJECT, "A: 5" + DEG)}, // the first object entry
    {"valid_location_not_array", parsed(Json::OBJECT, "N/A")},
    {"valid_lone_surrogate", parsed(Json::OBJECT, "\xed\xa0\x80: 1" + DEG)}, // \ud800
    {"valid_long_name", parsed(Json::OBJECT, std::string(20000, 'N') + ": 1" + DEG)},
    {"valid_nested_190", parsed(Json::OBJECT, "Deep: 3" + DEG)},
    {"valid_null", parsed(Json::NUL, "N/A")},
    {"valid_number_overflow", parsed(Json::OBJECT, "A: 2147483647" + DEG)}, // 1e400
    {"valid_overlong_utf8", parsed(Json::OBJECT, "\xc0\xaf: 1" + DEG)},
    {"valid_reversed_surrogates", parsed(Json::ARRAY, "N/A")},
    {"valid_scalar", parsed(Json::NUMBER, "N/A")},
    // start 1e400 + 0.1 s is no moment the clock can show.
    {"valid_schedule_huge_start", parsed(Json::OBJECT, "N/A", "Late||<time N/A>|")},
    // Caf\xe9 ends in a cut lead byte, Ren\xe9e has one before "e", 41\xb0 a
    // lone continuation byte; start 1700000000 + 0.1 s is 22:13:20 UTC,
    // 17:13 in the tests' zone (UTC-5).
    {"valid_schedule_latin1", parsed(Json::OBJECT, "N/A", "Caf|Rene|17:13|41 North")},
    // \ud83d\ude00 is U+1F600; the lone \ud800, \udc00 and \ud83d are three
    // bytes each that the markup skips.
    {"valid_schedule_surrogates", parsed(Json::OBJECT, "N/A", "\xf0\x9f\x98\x80 !|||")},
    {"valid_string", parsed(Json::STRING, "N/A")},
    {"valid_string_temps", parsed(Json::OBJECT, "A: 15" + DEG)}, // "017" is octal
    {"valid_top_array", parsed(Json::ARRAY, "N/A")},
    {"valid_truncated_utf8", parsed(Json::OBJECT, "\xe2\x82: 1" + DEG)},
    {"valid_unicode_names", parsed(Json::OBJECT, "Z\xc3\xbcrich: 50" + DEG)},
    {"valid_utf8_bom", parsed(Json::OBJECT, BOSTON)},
    {"valid_utf8_surrogate", parsed(Json::OBJECT, "\xed\xa0\x80: 1" + DEG)},
    {"valid_whitespace", parsed(Json::OBJECT, BOSTON)},
};

using json_corpus = weather_test;

TEST_F(json_corpus, EveryFileHasAnOutcomeAndEveryOutcomeAFile)
{
    const auto files = corpus_files();
    EXPECT_EQ(files.size(), expected.size());
    for (const auto& file : files) {
        const std::string name = file.stem().string();
        EXPECT_EQ(expected.count(name), 1u) << "no outcome written for " << name;
        // The file names tell the outcome as a weather file too.
        if (expected.count(name)) {
            EXPECT_EQ(expected.at(name).parses, starts_with(name, "valid_")) << name;
        }
    }
}

TEST_F(json_corpus, EveryFileEndsInLoadedOrErrorNeverACrash)
{
    alarm(60); // a hang ends the test program instead of the suite
    for (const auto& file : corpus_files()) {
        const std::string name = file.stem().string();
        if (!expected.count(name))
            continue; // reported by the test above
        const outcome& want = expected.at(name);
        fs::copy_file(file, path_of(name));
        std::string shown, location, degrees;
        const std::string err = stderr_of([&] {
            shown = temperature_text(name, temperature_form::location_and_degrees);
            select_location(name, "Boston");
            location = temperature_text(name, temperature_form::location);
            degrees = temperature_text(name, temperature_form::degrees);
        });
        const std::string loaded = loaded_line(name);
        ASSERT_NE(err.find(loaded), std::string::npos) << name << "\n" << err;
        const json_data_source& source = json_sources.at(name);
        EXPECT_TRUE(source.loaded) << name;
        EXPECT_EQ(shown, want.shown) << name;
        if (!want.parses) {
            EXPECT_TRUE(starts_with(err, "JSON error '")) << name << "\n" << err;
            EXPECT_TRUE(starts_with(err.substr(err.find('\n') + 1), loaded)) << name;
            EXPECT_TRUE(source.document.is_null()) << name;
        } else {
            EXPECT_TRUE(starts_with(err, loaded)) << name << "\n" << err;
            EXPECT_EQ(err.find("JSON error"), std::string::npos) << name;
            EXPECT_EQ(source.document.type(), want.type) << name;
        }
        if (shown != "N/A") {
            EXPECT_TRUE(is_default_form(shown)) << name;
        }
        // Only the Boston files have a Boston entry to move to.
        const bool boston = shown == BOSTON;
        EXPECT_EQ(location, boston ? "Boston" : "N/A") << name;
        EXPECT_EQ(degrees, boston ? "41" + DEG : "N/A") << name;
    }
    alarm(0);
}

TEST_F(json_corpus, EveryFileAsScheduleDataOrItemTextIsHarmless)
{
    alarm(60);
    for (const auto& file : corpus_files()) {
        const std::string name = file.stem().string();
        if (!expected.count(name))
            continue;
        const outcome& want = expected.at(name);
        const std::string text = read_file(file.string());
        set_schedule(text);
        EXPECT_EQ(ctx.data.type(), want.data_type) << name;
        EXPECT_EQ(parse(FIELDS), want.fields) << name;
        // As an item template the files hold no "%{", except by chance: bound
        // the text so that no field body can reach the deliberate hang.
        parse(text.substr(0, 500) + "%{title}%%{kestrel-temp;" + name + "}%");
    }
    alarm(0);
}

TEST_F(json_corpus, ScheduleStringsKeepTheirBytes)
{
    const std::string dir = std::string(T4MI_SOURCE_DIR) + "/tests/text/data/json_corpus/";
    set_schedule(read_file(dir + "valid_schedule_latin1.json"));
    EXPECT_EQ(ctx.data["current"]["title"].string_value(), "Caf\xe9");
    EXPECT_EQ(ctx.data["next1"]["title"].string_value(), "41\xb0 North");
    set_schedule(read_file(dir + "valid_schedule_surrogates.json"));
    EXPECT_EQ(ctx.data["current"]["title"].string_value(), "\xf0\x9f\x98\x80 \xed\xa0\x80!");
    EXPECT_EQ(ctx.data["current"]["artist"].string_value(), "\xed\xb0\x80\xed\xa0\xbd");
}

} // namespace
} // namespace t4test
