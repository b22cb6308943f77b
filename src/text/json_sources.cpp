#include "text/json_sources.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>

#include "platform/clock.h"
#include "platform/fixed_paths.h"
#include "text/text_globals.h"

namespace {

std::string source_path(const std::string& name)
{
    return t4mi_fixed_path(T4MI_WEATHER_DIR) + "/" + name + ".json";
}

// A name that would leave the weather directory is never read.
bool refused_name(const std::string& name)
{
    return name == "." || name == ".." || name.find('/') != std::string::npos;
}

// lstat succeeds on a regular file (a symbolic link does not count).
bool regular_file(const std::string& path, struct stat& st)
{
    return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// A load attempt: on creation and on every change seen. Whatever happens, the
// next try is in 5 s and the source lives 180 s from now; a good load moves
// the next check to 15 s.
void load_source(json_data_source& s)
{
    const uint64_t now = monotonic_clock_us();
    s.next_check = now + JSON_SOURCE_RETRY_US;
    s.expiry = now + JSON_SOURCE_LIFETIME_US;
    if (refused_name(s.name))
        return;
    const std::string path = source_path(s.name);
    struct stat st {};
    if (!regular_file(path, st))
        return;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "Unable to open file '%s'\n", path.c_str());
        return;
    }
    std::string text, line;
    bool first = true;
    while (std::getline(in, line)) {
        if (!first)
            text += '\n';
        text += line;
        first = false;
    }
    std::string err;
    s.document = json11::Json::parse(text, err, json11::COMMENTS);
    if (!err.empty())
        std::fprintf(stderr, "JSON error '%s'\n", err.c_str());
    std::fprintf(stderr, "Loaded json '%s' from '%s'\n", s.name.c_str(), path.c_str());
    s.loaded = true;
    s.file_time = int64_t(st.st_mtime);
    s.next_check = now + JSON_SOURCE_CHECK_US;
}

// A loaded source's periodic look: reload only on a new modification second.
void check_source(json_data_source& s, uint64_t now)
{
    const std::string path = source_path(s.name);
    s.next_check = now + JSON_SOURCE_CHECK_US;
    std::fprintf(stderr, "Checking json '%s' from '%s'\n", s.name.c_str(), path.c_str());
    struct stat st {};
    if (regular_file(path, st) && int64_t(st.st_mtime) != s.file_time)
        load_source(s);
}

// "tempF": a number (truncated) or a string read by strtol base 0 (so "0x1F"
// is 31 and "017" is 15); anything else gives -1111, a sentinel kept as it is.
int32_t degrees_of(const json11::Json& temp)
{
    if (temp.is_number())
        return temp.int_value();
    if (temp.is_string())
        return int32_t(std::strtol(temp.string_value().c_str(), nullptr, 0));
    return -1111;
}

} // namespace

json_data_source& lookup_source(const std::string& name)
{
    auto [it, created] = json_sources.try_emplace(name);
    json_data_source& s = it->second;
    if (created)
        s.name = name;
    const uint64_t now = monotonic_clock_us();
    if (now < s.next_check)
        return s;
    if (!s.loaded)
        load_source(s);
    else
        check_source(s, now);
    return s;
}

void check_sources()
{
    const uint64_t now = monotonic_clock_us();
    if (now < json_sources_last_check + JSON_SOURCE_HOUSEKEEPING_US)
        return;
    json_sources_last_check = now;
    for (auto it = json_sources.begin(); it != json_sources.end();) {
        json_data_source& s = it->second;
        if (now >= s.next_check) {
            if (!s.loaded)
                load_source(s);
            else
                check_source(s, now);
        }
        if (now > s.expiry)
            it = json_sources.erase(it);
        else
            ++it;
    }
}

void build_temperatures(json_data_source& s)
{
    s.temperatures.clear();
    s.cursor = 0;
    const json11::Json& locations = s.document["location"];
    if (!s.document.is_object() || !locations.is_array())
        return;
    std::fprintf(stderr, "Loading JSON temps (kestrel)\n");
    for (const auto& entry : locations.array_items()) {
        if (!entry.is_object())
            continue;
        const int32_t degrees = degrees_of(entry["tempF"]);
        const std::string& name = entry["name"].string_value();
        std::fprintf(stderr, "\"%s\" = %d\n", name.c_str(), degrees);
        s.temperatures.emplace_back(name, degrees);
    }
}

void select_location(const std::string& source_name, const std::string& location)
{
    json_data_source& s = lookup_source(source_name);
    if (s.temperatures.empty())
        build_temperatures(s);
    if (s.temperatures.empty())
        return;
    if (s.cursor < s.temperatures.size() && s.temperatures[s.cursor].first == location)
        return;
    s.cursor = 0;
    while (s.cursor < s.temperatures.size() && s.temperatures[s.cursor].first != location)
        s.cursor++;
}

std::string temperature_text(json_data_source& s, temperature_form form)
{
    if (s.temperatures.empty())
        build_temperatures(s);
    if (s.cursor >= s.temperatures.size())
        return "N/A";
    const auto& [location, degrees] = s.temperatures[s.cursor];
    char deg[32];
    std::snprintf(deg, sizeof deg, "%d\u00b0F", degrees);
    switch (form) {
    case temperature_form::location:
        return location;
    case temperature_form::degrees:
        return deg;
    case temperature_form::location_and_degrees:
    default:
        return location + ": " + deg;
    }
}

std::string temperature_text(const std::string& source_name, temperature_form form)
{
    return temperature_text(lookup_source(source_name), form);
}
