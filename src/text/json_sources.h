// JSON data sources: the weather files that the "kestrel-temp" field reads.
//
// A source named S is the file <weather dir>/S.json (the weather dir is the
// fixed path T4MI_WEATHER_DIR). Sources are cached process-wide by name
// (`json_sources` in text_globals.h), read on first use, examined for a new
// modification second every 15 s, and dropped by `check_sources` 180 s after
// their last load attempt, so that a source in use is re-read at least that
// often. Failed loads are cached too (a null document). All times here are
// monotonic microseconds. Everything runs on the serving thread; nothing is
// locked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/json11.h"

struct json_data_source {
    uint64_t next_check = 0;  // monotonic µs: examine the file again at or after this
    uint64_t expiry = 0;      // monotonic µs: last load attempt + 180 s; dropped after it
    bool loaded = false;      // a load succeeded (the document may still be null: bad JSON)
    int64_t file_time = 0;    // the file's modification second at the last load
    std::string name;
    json11::Json document;    // null until loaded, and after bad JSON
    // (location name, whole degrees Fahrenheit), built from `document` on
    // demand and not rebuilt while non-empty.
    std::vector<std::pair<std::string, int32_t>> temperatures;
    size_t cursor = 0;        // index into temperatures; past the end: "N/A"
};

// Monotonic intervals of the cache, in µs.
inline constexpr uint64_t JSON_SOURCE_RETRY_US = 5000000;     // after any load attempt
inline constexpr uint64_t JSON_SOURCE_CHECK_US = 15000000;    // after a load or a check
inline constexpr uint64_t JSON_SOURCE_LIFETIME_US = 180000000; // from a load attempt to the drop
inline constexpr uint64_t JSON_SOURCE_HOUSEKEEPING_US = 1000000;

// Finds or creates the source `name` and loads or checks it when its next
// check has come. The reference stays valid until check_sources drops the
// source.
json_data_source& lookup_source(const std::string& name);

// Housekeeping, called on every pass of the serve loop; does its work at most
// once a second: loads or checks every source whose next check has come, then
// drops every source whose expiry has passed.
void check_sources();

// Builds the temperatures of `source` afresh from its document (cursor 0).
// Prints "Loading JSON temps (kestrel)" and one line per location.
void build_temperatures(json_data_source& source);

// Moves the cursor of the source named `source_name` to the first entry named
// `location` (kept when the cursor entry already has that name). Without a
// match the cursor ends past the end, so the forms give "N/A".
void select_location(const std::string& source_name, const std::string& location);

// The temperature forms of the "kestrel-temp" field. Each builds the list
// when it is empty and gives "N/A" when it stays empty or the cursor is past
// its end.
enum class temperature_form {
    location_and_degrees, // "Boston: 41°F"
    location,             // "Boston"
    degrees,              // "41°F"
};
std::string temperature_text(json_data_source& source, temperature_form form);
// The same, looking the source up by name first.
std::string temperature_text(const std::string& source_name, temperature_form form);
