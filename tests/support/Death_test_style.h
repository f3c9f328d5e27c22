// Death_test_style.h: the death-test style for tests whose process has
// threads. The thread-safe style re-executes the test program, which a
// cross build run under a user-mode emulator cannot do (the kernel does not
// know the foreign binary); such a build sets VQX_DEATH_TEST_STYLE=fast and
// the death tests fork instead.
#ifndef VQX_TESTS_DEATH_TEST_STYLE_H
#define VQX_TESTS_DEATH_TEST_STYLE_H

#include <gtest/gtest.h>

#include <cstdlib>

inline void set_death_test_style()
{
    const char* style = std::getenv("VQX_DEATH_TEST_STYLE");
    GTEST_FLAG_SET(death_test_style, style && *style ? style : "threadsafe");
}

/// True when death tests fork: their child then has only the forking thread
/// (no simulator frame thread, no driver timer).
inline bool death_tests_fork()
{
    set_death_test_style();
    return GTEST_FLAG_GET(death_test_style) == "fast";
}

#endif
