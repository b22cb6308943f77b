// The message of a failed check names the function as GCC spells its
// signature, whichever compiler built the program (clang writes
// "const char *" and "int &").
#include <gtest/gtest.h>

#include "platform/t4mi_assert.h"

namespace t4test {

struct checker {
    // Fails its check when `text` is null.
    static void check(const char* text, int& count)
    {
        T4MI_ASSERT(text != nullptr);
        count++;
    }
};

TEST(T4miAssert, TheFunctionIsNamedWithoutASpaceBeforePointersAndReferences)
{
    int count = 0;
    EXPECT_DEATH(checker::check(nullptr, count), "^t4mi_scrolltext: static void t4test::checker::check\\(const char\\*, "
                                                  "int&\\): Assertion `text != nullptr' failed\\.\n$");
}

} // namespace t4test
