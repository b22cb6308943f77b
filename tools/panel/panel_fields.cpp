#include "panel_fields.h"

#include <cctype>
#include <cmath>
#include <cstdlib>

namespace {

enum class kind { text, line, colour, number, integer, word };

struct field {
    const char* name;
    kind type;
    double lo, hi;         // numbers: the accepted range
    const char* words[3];  // kind::word: the accepted words
};

// In the order they are sent. The ranges are what an operator can mean:
// the item itself takes any number, which is why the panel is strict.
const field FIELDS[] = {
    {"text", kind::text, 0, 0, {}},
    {"fontFamily", kind::line, 0, 0, {}},
    {"fontStyle", kind::line, 0, 0, {}},
    {"fontScale", kind::number, 0.01, 100, {}},
    {"multiLine", kind::integer, 0, 64, {}},
    {"justify", kind::word, 0, 0, {"left", "center", "right"}},
    {"scrollSpeed", kind::number, -100, 100, {}},
    {"shadowBlur", kind::number, 0, 100, {}},
    {"shadowX", kind::number, -100, 100, {}},
    {"shadowY", kind::number, -100, 100, {}},
    {"fontColor", kind::colour, 0, 0, {}},
    {"backgroundColor", kind::colour, 0, 0, {}},
    {"shadowColor", kind::colour, 0, 0, {}},
    {"fontOpacity", kind::number, 0, 1, {}},
    {"backgroundOpacity", kind::number, 0, 1, {}},
    {"shadowOpacity", kind::number, 0, 1, {}},
};

// The longest text and the longest family or style name, in bytes.
constexpr size_t TEXT_MAX_BYTES = 16384;
constexpr size_t NAME_MAX_BYTES = 200;

// A plain decimal: optional minus, digits, optional fraction. No exponent,
// no hex, no "inf"/"nan", no spaces: what strtod would take in ways an
// operator did not mean is refused instead.
bool plain_number(const std::string& v, double* out)
{
    size_t i = v[0] == '-' ? 1 : 0;
    size_t digits = 0, dots = 0;
    for (size_t k = i; k < v.size(); ++k) {
        if (std::isdigit(static_cast<unsigned char>(v[k])))
            ++digits;
        else if (v[k] == '.' && dots == 0)
            ++dots;
        else
            return false;
    }
    if (digits == 0 || v.size() > 32)
        return false;
    *out = std::strtod(v.c_str(), nullptr);
    return std::isfinite(*out);
}

std::string range_text(double v)
{
    std::string s = std::to_string(v);
    s.erase(s.find_last_not_of('0') + 1);
    if (!s.empty() && s.back() == '.')
        s.pop_back();
    return s;
}

// The reason a value is refused, or empty when it is good.
std::string check(const field& f, std::string& v)
{
    switch (f.type) {
    case kind::text:
        return v.size() > TEXT_MAX_BYTES ? "longer than " + std::to_string(TEXT_MAX_BYTES) + " bytes" : "";
    case kind::line:
        if (v.size() > NAME_MAX_BYTES)
            return "longer than " + std::to_string(NAME_MAX_BYTES) + " bytes";
        for (unsigned char c : v)
            if (c < 0x20 || c == 0x7f)
                return "control characters are not allowed";
        return "";
    case kind::colour: {
        if (!v.empty() && v[0] == '#')
            v.erase(0, 1);
        bool hex = v.size() == 6;
        for (unsigned char c : v)
            hex = hex && std::isxdigit(c);
        return hex ? "" : "not a colour (six hex digits, like ff8800)";
    }
    case kind::number:
    case kind::integer: {
        double n = 0;
        if (!plain_number(v, &n) || (f.type == kind::integer && v.find('.') != std::string::npos))
            return f.type == kind::integer ? "not a whole number" : "not a number";
        if (n < f.lo || n > f.hi)
            return "must be between " + range_text(f.lo) + " and " + range_text(f.hi);
        return "";
    }
    case kind::word:
        for (const char* w : f.words)
            if (w != nullptr && v == w)
                return "";
        return "must be left, center or right";
    }
    return "";
}

} // namespace

bool panel_text_entries(const nlohmann::json& form, std::vector<std::pair<std::string, std::string>>* entries,
                        std::string* error)
{
    entries->clear();
    if (!form.is_object()) {
        *error = "the form must be a JSON object";
        return false;
    }
    for (const auto& [name, value] : form.items()) {
        bool known = name == "newcontextonly";
        for (const field& f : FIELDS)
            known = known || name == f.name;
        if (!known) {
            *error = name + ": not a setting the panel sends";
            return false;
        }
        if (name != "newcontextonly" && !value.is_string()) {
            *error = name + ": must be text";
            return false;
        }
    }
    std::vector<std::pair<std::string, std::string>> out;
    for (const field& f : FIELDS) {
        const auto it = form.find(f.name);
        if (it == form.end())
            continue;
        std::string v = it->get<std::string>();
        if (v.empty() && f.type != kind::text)
            continue;
        if (std::string why = check(f, v); !why.empty()) {
            *error = std::string(f.name) + ": " + why;
            return false;
        }
        out.emplace_back(f.name, v);
    }
    if (const auto it = form.find("newcontextonly"); it != form.end()) {
        if (!it->is_boolean()) {
            *error = "newcontextonly: must be true or false";
            return false;
        }
        if (it->get<bool>())
            out.emplace_back("newcontextonly", "1");
    }
    *entries = std::move(out);
    return true;
}
