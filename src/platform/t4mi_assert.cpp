#include "platform/t4mi_assert.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// The function's signature as GCC writes it ("const char*", "int&"): clang
// puts a space before every '*' and '&', and the message must not depend on
// the compiler that built the program.
std::string gcc_spelling(const char* function)
{
    std::string s;
    for (const char* c = function; *c != '\0'; ++c)
        if (!(c[0] == ' ' && (c[1] == '*' || c[1] == '&')))
            s += *c;
    return s;
}

} // namespace

void t4mi_assert_fail(const char* expression, const char* function)
{
    std::fprintf(stderr, "t4mi_scrolltext: %s: Assertion `%s' failed.\n", gcc_spelling(function).c_str(), expression);
    std::fflush(stderr);
    std::abort();
}
