// Every file of a corpus of good and bad JSON, as a weather file: each one
// ends in "Loaded json" (after "JSON error" for the bad ones), the bad ones
// show "N/A", and nothing crashes or hangs.
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>

#include "weather_fixture.h"

namespace t4test {
namespace {

namespace fs = std::filesystem;

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

// The default form of the valid files, worked out from their contents.
const std::map<std::string, std::string> expected_valid = {
    {"valid_basic", "Boston: 41\xc2\xb0" "F"},
    {"valid_comments", "Boston: 41\xc2\xb0" "F"},
    {"valid_crlf", "Boston: 41\xc2\xb0" "F"},
    {"valid_utf8_bom", "Boston: 41\xc2\xb0" "F"},
    {"valid_whitespace", "Boston: 41\xc2\xb0" "F"},
    {"valid_unicode_names", "Z\xc3\xbcrich: 50\xc2\xb0" "F"},
    {"valid_string_temps", "A: 15\xc2\xb0" "F"},                // "017" is octal
    {"valid_big_numbers", "Huge: 2147483647\xc2\xb0" "F"},      // saturated
    {"valid_escaped_nul", std::string("a\0b: 1\xc2\xb0" "F", 9)},
    {"valid_empty_object", "N/A"},
    {"valid_location_not_array", "N/A"},
    {"valid_location_mixed", "A: 5\xc2\xb0" "F"},               // the first object entry
    {"valid_top_array", "N/A"},
    {"valid_scalar", "N/A"},
    {"valid_string", "N/A"},
    {"valid_null", "N/A"},
    {"valid_duplicate_keys", "Last: 2\xc2\xb0" "F"},
    {"valid_nested_190", "Deep: 3\xc2\xb0" "F"},
    {"valid_long_name", std::string(20000, 'N') + ": 1\xc2\xb0" "F"},
};

using json_corpus = weather_test;

TEST_F(json_corpus, EveryFileEndsInLoadedOrErrorNeverACrash)
{
    alarm(60); // a hang ends the test program instead of the suite
    const auto files = corpus_files();
    ASSERT_GE(files.size(), 50u);
    const std::regex degrees_form("^[^\\n]*: -?[0-9]+\xc2\xb0" "F$");
    size_t valid = 0, invalid = 0;
    for (const auto& file : files) {
        const std::string name = file.stem().string();
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
        EXPECT_TRUE(json_sources.at(name).loaded) << name;
        if (starts_with(name, "invalid_")) {
            invalid++;
            EXPECT_TRUE(starts_with(err, "JSON error '")) << name << "\n" << err;
            EXPECT_TRUE(starts_with(err.substr(err.find('\n') + 1), loaded)) << name;
            EXPECT_EQ(shown, "N/A") << name;
            EXPECT_EQ(location, "N/A") << name;
            EXPECT_EQ(degrees, "N/A") << name;
            EXPECT_TRUE(json_sources.at(name).document.is_null()) << name;
        } else {
            valid++;
            EXPECT_TRUE(starts_with(err, loaded)) << name << "\n" << err;
            EXPECT_EQ(err.find("JSON error"), std::string::npos) << name;
            const auto expected = expected_valid.find(name);
            ASSERT_NE(expected, expected_valid.end()) << "no expected value for " << name;
            EXPECT_EQ(shown, expected->second) << name;
            if (shown != "N/A" && name != "valid_escaped_nul") {
                EXPECT_TRUE(std::regex_match(shown, degrees_form)) << name;
            }
        }
    }
    EXPECT_EQ(valid, expected_valid.size());
    EXPECT_GE(invalid, 35u);
    alarm(0);
}

TEST_F(json_corpus, EveryFileAsScheduleDataOrItemTextIsHarmless)
{
    alarm(60);
    for (const auto& file : corpus_files()) {
        const std::string text = read_file(file.string());
        set_schedule(text);
        // As an item template the files hold no "%{", except by chance: bound
        // the text so that no field body can reach the deliberate hang.
        parse(text.substr(0, 500) + "%{title}%%{kestrel-temp;" + file.stem().string() + "}%");
    }
    alarm(0);
}

} // namespace
} // namespace t4test
