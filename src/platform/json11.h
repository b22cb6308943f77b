// A small JSON value type with the semantics the program relies on, and its
// parser (json11_parse.cpp, our own; the interface is json11's).
//
// Parsing
// - Never throws: a bad document gives a null value and a readable message
//   in `err` (one line of at most 300 bytes, "parse error at line L, column
//   C: ..."; columns count bytes). A document that parses leaves `err` empty.
// - One pass, no backtracking: time and memory grow linearly with the input
//   (an object's keys are sorted, n log n in the keys of that one object).
//   A value takes some 40 to 80 bytes, so a megabyte of the densest JSON
//   ("[[[[..." or "[0,0,0,...") becomes some 30 MB of values.
// - Accepted: the JSON grammar (RFC 8259), after an optional UTF-8 byte
//   order mark. Whitespace is space, tab, LF and CR. Of equal object keys the
//   last one wins.
// - COMMENTS mode also accepts // comments (to the next LF or CR) and /* */
//   comments wherever whitespace may stand (weather files); STANDARD mode
//   does not (schedule packets).
// - Lenient, as json11 is: bytes that are not valid UTF-8 are copied into
//   strings unchanged (a Latin-1 "\xB0" stays that one byte). A \uXXXX
//   escape of a lone UTF-16 surrogate, or of a surrogate pair in the wrong
//   order, is written as the code unit's own three-byte UTF-8-style sequence
//   (\ud800 gives ED A0 80); a high surrogate escape followed at once by a
//   low one gives the one four-byte character. \u0000 is a NUL byte in the
//   string.
// - A number is read as strtod reads it: a number too large for a double is
//   an infinity (1e400 gives +inf, -1e400 -inf), one too small is 0 or
//   subnormal. Integers of up to 15 digits are exact; "-0" is 0.
// - Refused: a NUL byte anywhere in the text (an error, so that a document
//   is never cut short without a word); raw control bytes (below 0x20) in
//   strings; unknown escapes; \u with fewer than four hex digits; single
//   quotes, unquoted keys, trailing commas, leading zeros, "+1", hex,
//   NaN/Infinity; anything but whitespace (and comments) after the value; an
//   empty text.
// - Nesting deeper than 200 levels of arrays and objects is an error
//   ("exceeded maximum nesting depth"): the parser recurses once per level,
//   so a hostile document cannot exhaust the stack.
//
// Values
// - Lookups never throw either: a missing key, an index out of range or a
//   lookup on a value of another type gives a null value.
// - `int_value` truncates toward zero (saturating outside the int range, so
//   an infinity gives INT_MAX or INT_MIN; NaN gives 0); `string_value` of a
//   non-string is the empty string; `==` compares type and value (numbers
//   numerically, so 1 == 1.0).
// - `dump` writes compact JSON that parses back to an equal value: keys in
//   byte order, string bytes as they are apart from the escapes JSON
//   requires, numbers in their shortest exact form, an infinity as null.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace json11 {

enum JsonParse { STANDARD, COMMENTS };

class Json {
public:
    enum Type { NUL, NUMBER, BOOL, STRING, ARRAY, OBJECT };

    Json();
    Json(std::nullptr_t);
    Json(double value);
    Json(int value);
    Json(bool value);
    Json(const std::string& value);
    Json(const char* value);

    static Json parse(const std::string& in, std::string& err, JsonParse strategy = STANDARD);

    Type type() const;
    bool is_null() const { return type() == NUL; }
    bool is_number() const { return type() == NUMBER; }
    bool is_bool() const { return type() == BOOL; }
    bool is_string() const { return type() == STRING; }
    bool is_array() const { return type() == ARRAY; }
    bool is_object() const { return type() == OBJECT; }

    double number_value() const;
    int int_value() const;
    bool bool_value() const;
    const std::string& string_value() const;
    std::vector<Json> array_items() const;
    std::map<std::string, Json> object_items() const;

    const Json& operator[](size_t i) const;
    const Json& operator[](const std::string& key) const;

    std::string dump() const;

    bool operator==(const Json& other) const;
    bool operator!=(const Json& other) const { return !(*this == other); }

private:
    friend class json_builder;
    struct impl;
    explicit Json(std::shared_ptr<const impl> p);
    std::shared_ptr<const impl> m_ptr;
};

} // namespace json11
