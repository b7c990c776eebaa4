#include <gtest/gtest.h>

#include <cstdio>

#include "harness/test_env.h"

// Tests ask for impossible allocations on purpose: under AddressSanitizer
// they must fail as they do in production, not abort the program.
extern "C" __attribute__((visibility("default"), used)) const char *__asan_default_options()
{
    return "allocator_may_return_null=1";
}

// Tests ask for impossible sizes to see the failure path; the thread
// sanitizer's allocator must fail them too instead of aborting.
extern "C" __attribute__((visibility("default"), used)) const char *__tsan_default_options()
{
    return "allocator_may_return_null=1";
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (const char *why = ibptest::NotIsolatedReason())
        std::printf("note: tests needing private namespaces will skip: %s\n", why);
    return RUN_ALL_TESTS();
}
