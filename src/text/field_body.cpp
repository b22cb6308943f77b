#include "text/field_body.h"

#include <cstring>

namespace {
// Both variants; `dropped` is null for the design's own, which hangs.
const char* collect(const char* p, char (&body)[FIELD_BODY_SIZE], bool* dropped)
{
    size_t len = 0;
    for (;;) {
        if (len == FIELD_BODY_SIZE - 1) {
            if (dropped != nullptr && !(p[0] == '}' && p[1] == '%')) {
                const char* close = std::strstr(p, "}%");
                *dropped = true;
                body[0] = '\0';
                return close != nullptr ? close + 2 : p + std::strlen(p);
            }
            // The deliberate hang (see the header). The reads are volatile so
            // that the compiler keeps the loop a loop.
            const volatile char* v = p;
            while (!(v[0] == '}' && v[1] == '%')) {
            }
            p += 2;
            break;
        }
        if (*p == '\0')
            break;
        if (p[0] == '}' && p[1] == '%') {
            p += 2;
            break;
        }
        body[len++] = *p++;
    }
    body[len] = '\0';
    return p;
}
} // namespace

const char* collect_field_body(const char* p, char (&body)[FIELD_BODY_SIZE]) { return collect(p, body, nullptr); }

const char* collect_field_body_bounded(const char* p, char (&body)[FIELD_BODY_SIZE], bool* dropped)
{
    *dropped = false;
    return collect(p, body, dropped);
}

int split_field_parts(char* body, char* (&parts)[FIELD_MAX_PARTS])
{
    int n = 1;
    parts[0] = body;
    for (char* c = body; *c != '\0'; c++) {
        if (*c == ';') {
            *c = '\0';
            if (n < FIELD_MAX_PARTS)
                parts[n++] = c + 1;
        }
    }
    return n;
}
