#include "platform/json11.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cmath>

#include "platform/json11_p.h"

namespace json11 {

namespace {

const std::string& empty_string()
{
    static const std::string empty;
    return empty;
}

// A new record of `type` from `arena` (null: the heap), with its fields
// left to the caller.
template <typename Record>
std::shared_ptr<Record> record(json_arena* arena, Json::Type type)
{
    auto p = arena != nullptr ? std::allocate_shared<Record>(arena_allocator<Record>(arena))
                              : std::make_shared<Record>();
    p->type = type;
    return p;
}

// `n` values' room from `arena` (null: the heap).
template <typename T>
T* room_for(json_arena* arena, size_t n)
{
    return arena != nullptr ? arena_allocator<T>(arena).allocate(n) : std::allocator<T>().allocate(n);
}

template <typename T>
void free_room(json_arena* arena, T* p, size_t n)
{
    std::destroy_n(p, n);
    if (arena != nullptr)
        arena->deallocate();
    else
        std::allocator<T>().deallocate(p, n);
}

} // namespace

Json::Json() : Json(json_builder::null()) {}
Json::Json(std::nullptr_t) : Json() {}
Json::Json(std::shared_ptr<const impl> p) : m_ptr(std::move(p)) {}
Json::Json(double value) : Json(json_builder::number(nullptr, value)) {}
Json::Json(int value) : Json(double(value)) {}
Json::Json(bool value) : Json(json_builder::boolean(value)) {}
Json::Json(const std::string& value) : Json(json_builder::string(nullptr, std::string(value))) {}
Json::Json(const char* value) : Json(std::string(value)) {}

json_builder::array_value::~array_value()
{
    if (items != nullptr)
        free_room(arena, items, size);
}

json_builder::object_value::~object_value()
{
    if (members != nullptr)
        free_room(arena, members, size);
}

Json json_builder::number(json_arena* arena, double value)
{
    auto p = record<number_value>(arena, Json::NUMBER);
    p->value = value;
    return Json(std::move(p));
}

Json json_builder::string(json_arena* arena, std::string&& text)
{
    static const Json empty(record<string_value>(nullptr, Json::STRING));
    if (text.empty())
        return empty;
    auto p = record<string_value>(arena, Json::STRING);
    p->text = std::move(text);
    return Json(std::move(p));
}

Json json_builder::array(json_arena* arena, std::vector<Json>& items)
{
    static const Json empty(record<array_value>(nullptr, Json::ARRAY));
    if (items.empty())
        return empty;
    auto p = record<array_value>(arena, Json::ARRAY);
    p->items = room_for<Json>(arena, items.size());
    p->arena = arena;
    std::uninitialized_move(items.begin(), items.end(), p->items);
    p->size = items.size();
    items.clear();
    return Json(std::move(p));
}

Json json_builder::object(json_arena* arena, std::vector<member>& members)
{
    static const Json empty(record<object_value>(nullptr, Json::OBJECT));
    if (members.empty())
        return empty;
    auto p = record<object_value>(arena, Json::OBJECT);
    p->arena = arena;
    const auto before = [](const member& a, const member& b) { return a.first < b.first; };
    if (std::adjacent_find(members.begin(), members.end(), [&](const member& a, const member& b) {
            return !before(a, b);
        }) == members.end()) {
        // Already in order without equal keys, as a program's output often is.
        p->members = room_for<member>(arena, members.size());
        std::uninitialized_move(members.begin(), members.end(), p->members);
        p->size = members.size();
        members.clear();
        return Json(std::move(p));
    }
    // Sort small records rather than the members themselves, first by the
    // key's first eight bytes as one number; of equal keys the later one
    // (the higher address) sorts last and is the one kept.
    struct sort_key {
        uint64_t prefix;
        member* m;
    };
    std::vector<sort_key> order(members.size());
    for (size_t i = 0; i < members.size(); i++) {
        const std::string& k = members[i].first;
        uint64_t prefix = 0;
        for (size_t b = 0; b < 8 && b < k.size(); b++)
            prefix |= uint64_t(static_cast<unsigned char>(k[b])) << (56 - 8 * b);
        order[i] = {prefix, &members[i]};
    }
    std::sort(order.begin(), order.end(), [](const sort_key& a, const sort_key& b) {
        if (a.prefix != b.prefix)
            return a.prefix < b.prefix;
        const int c = a.m->first.compare(b.m->first);
        return c < 0 || (c == 0 && a.m < b.m);
    });
    size_t kept = 0;
    for (size_t i = 0; i < order.size(); i++)
        if (i + 1 == order.size() || order[i + 1].m->first != order[i].m->first)
            order[kept++] = order[i];
    p->members = room_for<member>(arena, kept);
    for (size_t i = 0; i < kept; i++)
        new (p->members + i) member(std::move(*order[i].m));
    p->size = kept;
    members.clear();
    return Json(std::move(p));
}

const Json& json_builder::null()
{
    static const Json value(record<Json::impl>(nullptr, Json::NUL));
    return value;
}

const Json& json_builder::boolean(bool value)
{
    static const Json yes = [] {
        auto p = record<bool_value>(nullptr, Json::BOOL);
        p->value = true;
        return Json(std::move(p));
    }();
    static const Json no = [] {
        auto p = record<bool_value>(nullptr, Json::BOOL);
        p->value = false;
        return Json(std::move(p));
    }();
    return value ? yes : no;
}

Json Json::parse(const std::string& in, std::string& err, JsonParse strategy)
{
    return parse_document(in, err, strategy == COMMENTS);
}

Json::Type Json::type() const { return m_ptr->type; }
double Json::number_value() const { return m_ptr->type == NUMBER ? json_builder::as_number(*this).value : 0.0; }

int Json::int_value() const
{
    const double n = number_value();
    if (std::isnan(n))
        return 0;
    const double t = std::trunc(n);
    if (t >= double(INT_MAX))
        return INT_MAX;
    if (t <= double(INT_MIN))
        return INT_MIN;
    return int(t);
}

bool Json::bool_value() const { return m_ptr->type == BOOL && json_builder::as_bool(*this).value; }

const std::string& Json::string_value() const
{
    return m_ptr->type == STRING ? json_builder::as_string(*this).text : empty_string();
}

std::vector<Json> Json::array_items() const
{
    if (m_ptr->type != ARRAY)
        return {};
    const auto& a = json_builder::as_array(*this);
    return std::vector<Json>(a.items, a.items + a.size);
}

std::map<std::string, Json> Json::object_items() const
{
    if (m_ptr->type != OBJECT)
        return {};
    const auto& o = json_builder::as_object(*this);
    return std::map<std::string, Json>(o.members, o.members + o.size);
}

const Json& Json::operator[](size_t i) const
{
    if (m_ptr->type != ARRAY)
        return json_builder::null();
    const auto& a = json_builder::as_array(*this);
    return i < a.size ? a.items[i] : json_builder::null();
}

const Json& Json::operator[](const std::string& key) const
{
    if (m_ptr->type != OBJECT)
        return json_builder::null();
    const auto& o = json_builder::as_object(*this);
    const json_builder::member* first = o.members;
    const json_builder::member* end = first + o.size;
    const auto* it = std::lower_bound(first, end, key,
                                      [](const json_builder::member& m, const std::string& k) { return m.first < k; });
    return it != end && it->first == key ? it->second : json_builder::null();
}

namespace {
// Quotes `text` with the escapes JSON requires and nothing more: other bytes,
// valid UTF-8 or not, are copied as they are, so a string read leniently
// reads back the same.
void dump_string(const std::string& text, std::string& out)
{
    static const char hex[] = "0123456789abcdef";
    out += '"';
    for (const char c : text) {
        const auto u = static_cast<unsigned char>(c);
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\b': out += "\\b"; break;
        case '\f': out += "\\f"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (u < 0x20) {
                out += "\\u00";
                out += hex[u >> 4];
                out += hex[u & 15];
            } else {
                out += c;
            }
        }
    }
    out += '"';
}
} // namespace

void json_builder::dump(const Json& v, std::string& out)
{
    switch (v.type()) {
    case Json::NUL:
        out += "null";
        break;
    case Json::NUMBER: {
        const double n = as_number(v).value;
        if (std::isfinite(n)) {
            char buf[32]; // the shortest text that reads back the same double
            const auto r = std::to_chars(buf, buf + sizeof buf, n);
            out.append(buf, r.ptr);
        } else {
            out += "null"; // JSON has no infinity
        }
        break;
    }
    case Json::BOOL:
        out += as_bool(v).value ? "true" : "false";
        break;
    case Json::STRING:
        dump_string(as_string(v).text, out);
        break;
    case Json::ARRAY: {
        const char* sep = "";
        out += '[';
        const auto& a = as_array(v);
        for (const Json* e = a.items; e != a.items + a.size; e++) {
            out += sep;
            sep = ",";
            dump(*e, out);
        }
        out += ']';
        break;
    }
    case Json::OBJECT: {
        const char* sep = "";
        out += '{';
        const auto& o = as_object(v);
        for (const auto* m = o.members; m != o.members + o.size; m++) {
            out += sep;
            sep = ",";
            dump_string(m->first, out);
            out += ':';
            dump(m->second, out);
        }
        out += '}';
        break;
    }
    }
}

std::string Json::dump() const
{
    std::string out;
    json_builder::dump(*this, out);
    return out;
}

bool Json::operator==(const Json& other) const
{
    if (json_builder::same_record(*this, other))
        return true;
    if (type() != other.type())
        return false;
    switch (type()) {
    case NUL:
        return true;
    case NUMBER:
        return number_value() == other.number_value();
    case BOOL:
        return bool_value() == other.bool_value();
    case STRING:
        return string_value() == other.string_value();
    case ARRAY: {
        const auto& a = json_builder::as_array(*this);
        const auto& b = json_builder::as_array(other);
        return std::equal(a.items, a.items + a.size, b.items, b.items + b.size);
    }
    case OBJECT: {
        const auto& a = json_builder::as_object(*this);
        const auto& b = json_builder::as_object(other);
        return std::equal(a.members, a.members + a.size, b.members, b.members + b.size);
    }
    }
    return false;
}

} // namespace json11
