// Small text helpers shared by the loaders and the markup parser.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Decodes one UTF-8 code point at *p, reading no byte at or beyond `limit`.
// Returns:
//   > 0  the code point; *p moves past its bytes;
//   0    *p points at a NUL byte or at `limit`; *p does not move;
//   < 0  a malformed sequence (bad lead byte, missing continuation, overlong
//        form, surrogate, above U+10FFFF, cut by `limit`); *p moves by
//        exactly one byte, so a caller's loop resynchronises byte by byte.
int32_t utf8_decode(const char** p, const char* limit);

// Removes every trailing line feed and carriage return, in place.
void chomp(char* line);
void chomp(std::string& line);

// One "name=value" line, split at its first "=". Spaces and tabs around the
// name and around the value are trimmed (and CR and LF, for CR LF files). A part that is empty after the trim
// is absent: "url=" has no value, "=x" has no name, a line without "=" has a
// name and no value.
struct name_value_pair {
    std::optional<std::string> name;
    std::optional<std::string> value;
};
name_value_pair divide_name_equ_value_pair(std::string_view line);
