// The JSON parser behind Json::parse: one pass of recursive descent over the
// text, building the values as it goes, so time and memory grow linearly
// with the input. The rules it follows are listed in json11.h; the lenient
// ones are those of the parser the program was designed around (json11).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <locale.h>

#include "platform/json11_p.h"

namespace json11 {

namespace {

constexpr int max_depth = 200;      // container levels; each costs one stack frame pair
constexpr size_t max_message = 300; // bytes of an error message
constexpr size_t max_quote = 300;   // bytes of a token quoted in a message

struct parse_failure {
    size_t offset;       // byte where the parse stopped
    std::string message; // without the position
};
struct depth_exceeded {};

bool is_digit(char c) { return c >= '0' && c <= '9'; }

int hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// A byte as a message shows it: printable ASCII in quotes, others by number.
std::string shown(char c)
{
    const auto u = static_cast<unsigned char>(c);
    if (u > 0x20 && u < 0x7f)
        return std::string("'") + c + "'";
    char buf[16];
    std::snprintf(buf, sizeof buf, "byte 0x%02X", u);
    return buf;
}

// Bytes read of a bad token, up to `to` or the end of the text, for the
// message: control characters spelled out so that the message stays one
// printable line.
std::string quoted(const char* from, const char* to)
{
    std::string s = "'";
    for (const char* p = from; p != to && *p != '\0' && s.size() < max_quote; p++) {
        const auto u = static_cast<unsigned char>(*p);
        if (u < 0x20 || u == 0x7f) {
            char buf[16];
            std::snprintf(buf, sizeof buf, "<U+%04X>", u);
            s += buf;
        } else {
            s += *p;
        }
    }
    return s + "'";
}

void append_utf8(long c, std::string& out)
{
    if (c < 0x80) {
        out += char(c);
    } else if (c < 0x800) {
        out += char(0xC0 | (c >> 6));
        out += char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += char(0xE0 | (c >> 12));
        out += char(0x80 | ((c >> 6) & 0x3F));
        out += char(0x80 | (c & 0x3F));
    } else {
        out += char(0xF0 | (c >> 18));
        out += char(0x80 | ((c >> 12) & 0x3F));
        out += char(0x80 | ((c >> 6) & 0x3F));
        out += char(0x80 | (c & 0x3F));
    }
}

// strtod in the "C" locale, whatever the process's locale says.
double c_strtod(const char* text)
{
    static const locale_t c_locale = newlocale(LC_ALL_MASK, "C", locale_t(0));
    return strtod_l(text, nullptr, c_locale);
}

// The text has no NUL byte (checked first), so the terminating NUL of the
// std::string marks the end and every look-ahead stops there.
class parser {
public:
    parser(const char* text, bool comments)
        : begin_(text), p_(text), comments_(comments), arena_(json_arena::create()), items_(max_depth),
          members_(max_depth)
    {
    }

    Json document()
    {
        if (std::strncmp(p_, "\xEF\xBB\xBF", 3) == 0)
            p_ += 3; // a UTF-8 byte order mark
        Json v = value(0);
        skip_space();
        if (*p_ != '\0')
            fail(p_, "unexpected " + shown(*p_) + " after the value");
        return v;
    }

private:
    [[noreturn]] void fail(const char* at, std::string message) const
    {
        throw parse_failure{size_t(at - begin_), std::move(message)};
    }

    // Whitespace and, in comments mode, comments: "//" to the end of the line
    // (a CR or LF), "/*" to the next "*/".
    void skip_space()
    {
        for (;;) {
            while (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r')
                p_++;
            if (!comments_ || *p_ != '/')
                return;
            if (p_[1] == '/') {
                p_ += 2;
                while (*p_ != '\0' && *p_ != '\n' && *p_ != '\r')
                    p_++;
            } else if (p_[1] == '*') {
                const char* close = std::strstr(p_ + 2, "*/");
                if (close == nullptr)
                    fail(p_, "unterminated comment; missing '*/'");
                p_ = close + 2;
            } else {
                fail(p_ + 1, "invalid comment; expected '/' or '*' after '/'");
            }
        }
    }

    // `depth` counts the containers around the value.
    Json value(int depth)
    {
        skip_space();
        switch (*p_) {
        case '{':
            return object(depth);
        case '[':
            return array(depth);
        case '"':
            return json_builder::string(arena_.get(), string_token());
        case 't':
            return literal("true", json_builder::boolean(true));
        case 'f':
            return literal("false", json_builder::boolean(false));
        case 'n':
            return literal("null", json_builder::null());
        case '\0':
            fail(p_, "unexpected end of input; expected a value");
        default:
            if (*p_ == '-' || is_digit(*p_))
                return number();
            fail(p_, "unexpected " + shown(*p_) + "; expected a value");
        }
    }

    Json array(int depth)
    {
        if (depth >= max_depth)
            throw depth_exceeded{};
        p_++; // '['
        std::vector<Json>& items = items_[size_t(depth)];
        skip_space();
        if (*p_ == ']') {
            p_++;
            return json_builder::array(arena_.get(), items);
        }
        for (;;) {
            items.push_back(value(depth + 1));
            skip_space();
            if (*p_ == ']') {
                p_++;
                return json_builder::array(arena_.get(), items);
            }
            if (*p_ != ',')
                fail(p_, "unexpected " + shown(*p_) + " in an array; expected ',' or ']'");
            p_++;
        }
    }

    Json object(int depth)
    {
        if (depth >= max_depth)
            throw depth_exceeded{};
        p_++; // '{'
        std::vector<json_builder::member>& members = members_[size_t(depth)];
        skip_space();
        if (*p_ == '}') {
            p_++;
            return json_builder::object(arena_.get(), members);
        }
        for (;;) {
            skip_space();
            if (*p_ != '"')
                fail(p_, "unexpected " + shown(*p_) + " in an object; expected a string key");
            std::string key = string_token();
            skip_space();
            if (*p_ != ':')
                fail(p_, "unexpected " + shown(*p_) + " after an object key; expected ':'");
            p_++;
            members.emplace_back(std::move(key), value(depth + 1));
            skip_space();
            if (*p_ == '}') {
                p_++;
                return json_builder::object(arena_.get(), members);
            }
            if (*p_ != ',')
                fail(p_, "unexpected " + shown(*p_) + " in an object; expected ',' or '}'");
            p_++;
        }
    }

    Json literal(const char* word, const Json& v)
    {
        const size_t n = std::strlen(word);
        if (std::strncmp(p_, word, n) != 0) {
            size_t read = 0; // up to the first byte that differs
            while (read < n && p_[read] == word[read])
                read++;
            fail(p_ + read, "invalid literal; last read: " + quoted(p_, p_ + read + 1));
        }
        p_ += n;
        return v;
    }

    // The JSON number grammar; the value as strtod reads it, so a number too
    // large for a double is an infinity.
    Json number()
    {
        const char* start = p_;
        auto bad = [&](const char* what) { fail(p_, std::string(what) + "; last read: " + quoted(start, p_ + 1)); };
        if (*p_ == '-')
            p_++;
        if (*p_ == '0') {
            p_++;
            if (is_digit(*p_))
                bad("invalid number; leading zeros are not allowed");
        } else if (is_digit(*p_)) {
            while (is_digit(*p_))
                p_++;
        } else {
            bad("invalid number; expected a digit after '-'");
        }
        bool integral = true;
        if (*p_ == '.') {
            integral = false;
            p_++;
            if (!is_digit(*p_))
                bad("invalid number; expected a digit after '.'");
            while (is_digit(*p_))
                p_++;
        }
        if (*p_ == 'e' || *p_ == 'E') {
            integral = false;
            p_++;
            if (*p_ == '+' || *p_ == '-')
                p_++;
            if (!is_digit(*p_))
                bad("invalid number; expected a digit in the exponent");
            while (is_digit(*p_))
                p_++;
        }
        return json_builder::number(arena_.get(), integral ? integer_value(start) : decimal_value(start));
    }

    // An integer token from `start` to p_. Up to 15 digits are exact in a
    // double; "-0" is 0, as an integer.
    double integer_value(const char* start) const
    {
        if (p_ - start > 15)
            return c_strtod(std::string(start, p_).c_str());
        const bool negative = *start == '-';
        long long n = 0;
        for (const char* d = start + (negative ? 1 : 0); d != p_; d++)
            n = n * 10 + (*d - '0');
        return double(negative ? -n : n);
    }

    // A token with a fraction or an exponent. When its digits make an integer
    // m below 2^53 and its power of ten e lies within +-22, both are exact
    // doubles and one multiplication or division gives the correctly rounded
    // value, the same as strtod's; other tokens go to strtod.
    double decimal_value(const char* start) const
    {
        const char* d = start;
        const bool negative = *d == '-';
        if (negative)
            d++;
        uint64_t m = 0;
        int digits = 0, e = 0;
        // Bounded by the token's end: what follows it may look like more
        // digits ("0.7070.7e"), and the parse fails there only after this.
        for (; d != p_ && (is_digit(*d) || *d == '.'); d++) {
            if (*d == '.')
                continue;
            if (m == 0 && *d == '0')
                continue; // leading zeros add nothing
            if (++digits > 16)
                return c_strtod(std::string(start, p_).c_str());
            m = m * 10 + uint64_t(*d - '0');
        }
        const char* dot = static_cast<const char*>(std::memchr(start, '.', size_t(d - start)));
        if (dot != nullptr)
            e -= int(d - dot - 1);
        if (d != p_ && (*d == 'e' || *d == 'E')) {
            d++;
            const bool minus = *d == '-';
            if (*d == '+' || *d == '-')
                d++;
            int x = 0;
            for (; d != p_; d++) {
                if (x > 100000)
                    return c_strtod(std::string(start, p_).c_str());
                x = x * 10 + (*d - '0');
            }
            e += minus ? -x : x;
        }
        static constexpr double powers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                            1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
        if (m > (uint64_t(1) << 53) || e < -22 || e > 22)
            return c_strtod(std::string(start, p_).c_str());
        const double v = e < 0 ? double(m) / powers[-e] : double(m) * powers[e];
        return negative ? -v : v;
    }

    // A string token from its opening quote; leaves p_ after the closing one.
    // Bytes are copied as they are, valid UTF-8 or not. A \u escape of a
    // UTF-16 code unit waits for the next one, to join a surrogate pair;
    // a code unit left unpaired is written as its own three-byte sequence.
    std::string string_token()
    {
        const char* start = p_;
        p_++; // '"'
        std::string out;
        long pending = -1; // an escaped code unit not yet written
        auto flush = [&] {
            if (pending >= 0)
                append_utf8(pending, out);
            pending = -1;
        };
        for (;;) {
            const char* run = p_;
            while (static_cast<unsigned char>(*p_) >= 0x20 && *p_ != '"' && *p_ != '\\')
                p_++;
            if (p_ != run) {
                flush();
                out.append(run, p_);
            }
            const char c = *p_;
            if (c == '"') {
                p_++;
                flush();
                return out;
            }
            if (c == '\0')
                fail(p_, "unterminated string; last read: " + quoted(start, p_));
            if (c != '\\') {
                char what[64];
                std::snprintf(what, sizeof what, "control character U+%04X in a string must be escaped",
                              static_cast<unsigned char>(c));
                fail(p_, what + std::string("; last read: ") + quoted(start, p_ + 1));
            }
            const char e = p_[1];
            if (e == 'u') {
                long unit = 0;
                for (int i = 2; i < 6; i++) {
                    const int h = hex_value(p_[i]);
                    if (h < 0)
                        fail(p_ + i, "invalid \\u escape; expected four hex digits; last read: " +
                                         quoted(start, p_ + i + 1));
                    unit = unit * 16 + h;
                }
                p_ += 6;
                if (pending >= 0xD800 && pending <= 0xDBFF && unit >= 0xDC00 && unit <= 0xDFFF) {
                    append_utf8(0x10000 + ((pending - 0xD800) << 10) + (unit - 0xDC00), out);
                    pending = -1;
                } else {
                    flush();
                    pending = unit;
                }
                continue;
            }
            flush();
            switch (e) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            default:
                fail(p_ + 1, "invalid escape; last read: " + quoted(start, p_ + 2));
            }
            p_ += 2;
        }
    }

    const char* begin_;
    const char* p_;
    bool comments_;
    // The records of this document; the parser's hold ends with it.
    struct arena_release {
        void operator()(json_arena* a) const { a->release(); }
    };
    std::unique_ptr<json_arena, arena_release> arena_;
    // The values of the open containers, one list per level, kept between
    // containers so that each container's values are gathered without
    // reallocating and then stored once at their exact size.
    std::vector<std::vector<Json>> items_;
    std::vector<std::vector<json_builder::member>> members_;
};

// "line L, column C" of a byte, both from 1; the column counts bytes.
std::string position_of(const std::string& in, size_t offset)
{
    size_t line = 1, line_start = 0;
    for (size_t i = 0; i < offset; i++) {
        if (in[i] == '\n') {
            line++;
            line_start = i + 1;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(offset - line_start + 1);
}

} // namespace

Json parse_document(const std::string& in, std::string& err, bool comments)
{
    err.clear();
    try {
        // The parser relies on the text having no NUL but its terminator; a
        // NUL inside would otherwise end the document early without a word.
        const size_t nul = in.find('\0');
        if (nul != std::string::npos)
            throw parse_failure{nul, "NUL byte in the text"};
        return parser(in.c_str(), comments).document();
    } catch (const parse_failure& f) {
        err = "parse error at " + position_of(in, f.offset) + ": " + f.message;
    } catch (const depth_exceeded&) {
        err = "exceeded maximum nesting depth";
    } catch (const std::exception& e) {
        err = e.what(); // out of memory on a huge document, say
    }
    if (err.size() > max_message) {
        err.resize(max_message - 3);
        err += "...";
    }
    return json_builder::null();
}

} // namespace json11
