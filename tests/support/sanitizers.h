// Whether this tree is built with sanitizers (the CMake setting
// T4MI_SANITIZE; CI's sanitizer stage). A sanitizer build keeps every
// assertion of the default build except the few that a sanitizer makes
// meaningless: those skip with T4MI_SKIP_UNDER_SANITIZERS and say why, or
// check what the sanitizer does instead.
#pragma once

#include <gtest/gtest.h>

namespace t4test {

#if defined(T4MI_SANITIZED) && T4MI_SANITIZED
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

// How much slower our own work runs in a sanitizer build (ASan and UBSan at
// -O1, against -O2): a bound on how long the server computes is scaled by
// it, and the test says so. Timeouts that the program keeps are not.
inline constexpr double slowdown = sanitized ? 4.0 : 1.0;

} // namespace t4test

// Skips the rest of a test in a sanitizer build, with the reason.
#define T4MI_SKIP_UNDER_SANITIZERS(why)                                                                      \
    do {                                                                                                     \
        if (t4test::sanitized)                                                                               \
            GTEST_SKIP() << "meaningless under sanitizers: " << (why);                                     \
    } while (0)
