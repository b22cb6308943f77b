#include "platform/text_helpers.h"

#include <cstring>

int32_t utf8_decode(const char** p, const char* limit)
{
    const auto* s = reinterpret_cast<const unsigned char*>(*p);
    const auto* end = reinterpret_cast<const unsigned char*>(limit);
    if (s >= end || *s == 0)
        return 0;
    const unsigned lead = s[0];
    int extra;
    uint32_t cp;
    uint32_t min;
    if (lead < 0x80) {
        *p += 1;
        return int32_t(lead);
    } else if ((lead & 0xE0) == 0xC0) {
        extra = 1, cp = lead & 0x1F, min = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        extra = 2, cp = lead & 0x0F, min = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        extra = 3, cp = lead & 0x07, min = 0x10000;
    } else {
        *p += 1;
        return -1;
    }
    for (int i = 1; i <= extra; i++) {
        if (s + i >= end || (s[i] & 0xC0) != 0x80) {
            *p += 1;
            return -1;
        }
        cp = (cp << 6) | (s[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        *p += 1;
        return -1;
    }
    *p += extra + 1;
    return int32_t(cp);
}

void chomp(char* line)
{
    size_t n = std::strlen(line);
    while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\r'))
        line[--n] = '\0';
}

void chomp(std::string& line)
{
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
}

namespace {
std::optional<std::string> trimmed_or_absent(std::string_view s)
{
    const auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos)
        return std::nullopt;
    const auto last = s.find_last_not_of(" \t\r\n");
    return std::string(s.substr(first, last - first + 1));
}
} // namespace

name_value_pair divide_name_equ_value_pair(std::string_view line)
{
    name_value_pair out;
    const auto eq = line.find('=');
    if (eq == std::string_view::npos) {
        out.name = trimmed_or_absent(line);
        return out;
    }
    out.name = trimmed_or_absent(line.substr(0, eq));
    out.value = trimmed_or_absent(line.substr(eq + 1));
    return out;
}
