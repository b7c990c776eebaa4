#include <gtest/gtest.h>

#include <cstdio>

#include "harness/test_env.h"

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (const char *why = ibptest::NotIsolatedReason())
        std::printf("note: tests needing private namespaces will skip: %s\n", why);
    return RUN_ALL_TESTS();
}
