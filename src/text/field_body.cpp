#include "text/field_body.h"

const char* collect_field_body(const char* p, char (&body)[FIELD_BODY_SIZE])
{
    size_t len = 0;
    for (;;) {
        if (len == FIELD_BODY_SIZE - 1) {
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
