// Invariant checks that abort the process.
//
// The playout system's logs are read by people who know the program by its
// entry file's name, so every failed check names "t4mi_scrolltext" and the
// function, whatever source file it sits in:
//   t4mi_scrolltext: <function>: Assertion `<expression>' failed.
// The checks stay on in release builds: a broken invariant must never be
// served as a garbled frame.
#pragma once

[[noreturn]] void t4mi_assert_fail(const char* expression, const char* function);

#define T4MI_ASSERT(expr) \
  ((expr) ? static_cast<void>(0) : t4mi_assert_fail(#expr, __PRETTY_FUNCTION__))
