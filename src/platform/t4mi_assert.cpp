#include "platform/t4mi_assert.h"

#include <cstdio>
#include <cstdlib>

void t4mi_assert_fail(const char* expression, const char* function)
{
    std::fprintf(stderr, "t4mi_scrolltext: %s: Assertion `%s' failed.\n", function, expression);
    std::fflush(stderr);
    std::abort();
}
