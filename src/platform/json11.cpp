#include "platform/json11.h"

#include <cmath>
#include <climits>
#include <exception>
#include <nlohmann/json.hpp>

namespace json11 {

// Children are converted once, at parse time, so that lookups can hand out
// references that live as long as the parent value.
struct Json::impl {
    Type type = NUL;
    double number = 0.0;
    bool boolean = false;
    std::string text;
    std::vector<Json> items;
    std::map<std::string, Json> members;
};

namespace {
const Json& static_null()
{
    static const Json null_value;
    return null_value;
}

const std::string& empty_string()
{
    static const std::string empty;
    return empty;
}

struct depth_exceeded {};
constexpr int max_depth = 200;
constexpr size_t max_message = 300; // bytes of a parse error message
} // namespace

// Builds values from the library's parse tree (a friend, for the private constructor).
class json_builder {
public:
    static Json from(const nlohmann::json& j);
};

Json::Json() : m_ptr(std::make_shared<impl>()) {}
Json::Json(std::nullptr_t) : Json() {}
Json::Json(std::shared_ptr<const impl> p) : m_ptr(std::move(p)) {}

Json::Json(double value)
{
    auto p = std::make_shared<impl>();
    p->type = NUMBER;
    p->number = value;
    m_ptr = std::move(p);
}
Json::Json(int value) : Json(double(value)) {}
Json::Json(bool value)
{
    auto p = std::make_shared<impl>();
    p->type = BOOL;
    p->boolean = value;
    m_ptr = std::move(p);
}
Json::Json(const std::string& value)
{
    auto p = std::make_shared<impl>();
    p->type = STRING;
    p->text = value;
    m_ptr = std::move(p);
}
Json::Json(const char* value) : Json(std::string(value)) {}

Json json_builder::from(const nlohmann::json& j)
{
    switch (j.type()) {
    case nlohmann::json::value_t::number_integer:
        return Json(double(j.get<int64_t>()));
    case nlohmann::json::value_t::number_unsigned:
        return Json(double(j.get<uint64_t>()));
    case nlohmann::json::value_t::number_float:
        return Json(j.get<double>());
    case nlohmann::json::value_t::boolean:
        return Json(j.get<bool>());
    case nlohmann::json::value_t::string:
        return Json(j.get_ref<const std::string&>());
    case nlohmann::json::value_t::array: {
        std::vector<Json> items;
        items.reserve(j.size());
        for (const auto& e : j)
            items.push_back(json_builder::from(e));
        auto p = std::make_shared<Json::impl>();
        p->type = Json::ARRAY;
        p->items = std::move(items);
        return Json(std::shared_ptr<const Json::impl>(std::move(p)));
    }
    case nlohmann::json::value_t::object: {
        auto p = std::make_shared<Json::impl>();
        p->type = Json::OBJECT;
        for (const auto& [k, v] : j.items())
            p->members.emplace(k, json_builder::from(v));
        return Json(std::shared_ptr<const Json::impl>(std::move(p)));
    }
    default:
        return Json();
    }
}

Json Json::parse(const std::string& in, std::string& err, JsonParse strategy)
{
    err.clear();
    const nlohmann::json::parser_callback_t limit_depth =
        [](int depth, nlohmann::json::parse_event_t event, nlohmann::json&) {
            // `depth` counts the containers around the event, so a container
            // that starts at depth d is level d + 1. Only starts add levels.
            const bool starts = event == nlohmann::json::parse_event_t::object_start ||
                                event == nlohmann::json::parse_event_t::array_start;
            if (starts && depth >= max_depth)
                throw depth_exceeded{};
            return true;
        };
    try {
        const auto j = nlohmann::json::parse(in, limit_depth, true, strategy == COMMENTS);
        return json_builder::from(j);
    } catch (const depth_exceeded&) {
        err = "exceeded maximum nesting depth";
    } catch (const nlohmann::json::exception& e) {
        // Drop the library's "[json.exception.parse_error.101] " tag: people read this line.
        std::string what = e.what();
        const auto close = what.find("] ");
        err = (what.rfind("[json.exception", 0) == 0 && close != std::string::npos) ? what.substr(close + 2) : what;
    } catch (const std::exception& e) {
        err = e.what(); // out of memory on a huge document, say
    }
    // The message quotes the token it stopped in, which can be a whole
    // megabyte-long string: keep the line short enough to read.
    if (err.size() > max_message) {
        err.resize(max_message - 3);
        err += "...";
    }
    return Json();
}

Json::Type Json::type() const { return m_ptr->type; }
double Json::number_value() const { return m_ptr->type == NUMBER ? m_ptr->number : 0.0; }

int Json::int_value() const
{
    if (m_ptr->type != NUMBER || std::isnan(m_ptr->number))
        return 0;
    const double t = std::trunc(m_ptr->number);
    if (t >= double(INT_MAX))
        return INT_MAX;
    if (t <= double(INT_MIN))
        return INT_MIN;
    return int(t);
}

bool Json::bool_value() const { return m_ptr->type == BOOL && m_ptr->boolean; }
const std::string& Json::string_value() const { return m_ptr->type == STRING ? m_ptr->text : empty_string(); }
std::vector<Json> Json::array_items() const { return m_ptr->type == ARRAY ? m_ptr->items : std::vector<Json>{}; }
std::map<std::string, Json> Json::object_items() const
{
    return m_ptr->type == OBJECT ? m_ptr->members : std::map<std::string, Json>{};
}

const Json& Json::operator[](size_t i) const
{
    if (m_ptr->type != ARRAY || i >= m_ptr->items.size())
        return static_null();
    return m_ptr->items[i];
}

const Json& Json::operator[](const std::string& key) const
{
    if (m_ptr->type != OBJECT)
        return static_null();
    const auto it = m_ptr->members.find(key);
    return it == m_ptr->members.end() ? static_null() : it->second;
}

static nlohmann::json to_nlohmann(const Json& v)
{
    switch (v.type()) {
    case Json::NUMBER:
        return v.number_value();
    case Json::BOOL:
        return v.bool_value();
    case Json::STRING:
        return v.string_value();
    case Json::ARRAY: {
        auto a = nlohmann::json::array();
        for (const auto& e : v.array_items())
            a.push_back(to_nlohmann(e));
        return a;
    }
    case Json::OBJECT: {
        auto o = nlohmann::json::object();
        for (const auto& [k, e] : v.object_items())
            o[k] = to_nlohmann(e);
        return o;
    }
    default:
        return nullptr;
    }
}

std::string Json::dump() const { return to_nlohmann(*this).dump(); }

bool Json::operator==(const Json& other) const
{
    if (m_ptr == other.m_ptr)
        return true;
    const impl& a = *m_ptr;
    const impl& b = *other.m_ptr;
    if (a.type != b.type)
        return false;
    switch (a.type) {
    case NUL:
        return true;
    case NUMBER:
        return a.number == b.number;
    case BOOL:
        return a.boolean == b.boolean;
    case STRING:
        return a.text == b.text;
    case ARRAY:
        return a.items == b.items;
    case OBJECT:
        return a.members == b.members;
    }
    return false;
}

} // namespace json11
