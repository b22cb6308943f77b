// A small JSON value type with the semantics the program relies on, over
// nlohmann::json.
//
// - Parsing never throws: a bad document gives a null value and a readable
//   message in `err` (at most 300 bytes, with the line and column). A
//   document that parses leaves `err` empty.
// - COMMENTS mode accepts // and /* */ comments (weather files); STANDARD
//   mode does not (schedule packets).
// - Nesting deeper than 200 levels is a parse error, so a hostile document
//   cannot exhaust the stack.
// - Lookups never throw either: a missing key, an index out of range or a
//   lookup on a value of another type gives a null value.
// - `int_value` truncates toward zero (saturating outside the int range);
//   `string_value` of a non-string is the empty string; `==` compares type and
//   value (numbers numerically, so 1 == 1.0).
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
