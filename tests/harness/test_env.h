// What the test process may rely on: private namespaces, emulation.
#pragma once

#include <gtest/gtest.h>

namespace ibptest {

// Null when the program runs in its own network and mount namespaces
// (ports 7001/7002 and /var/log, /tmp, /run are private); otherwise why not.
const char *NotIsolatedReason();

// True when the program runs under qemu-user (armhf test runs).
bool Emulated();

}  // namespace ibptest

// Skips the current test when it would touch the host's ports or files.
#define IBP_REQUIRE_ISOLATION()                                                  \
    do {                                                                         \
        if (const char *why_ = ibptest::NotIsolatedReason())                     \
            GTEST_SKIP() << "needs private namespaces: " << why_;                \
    } while (0)

// qemu-user refuses clone() with CLONE_VM but without CLONE_THREAD (EINVAL);
// real kernels accept it.
#define IBP_SKIP_IF_CLONE_VM_UNSUPPORTED()                                       \
    do {                                                                         \
        if (ibptest::Emulated())                                                 \
            GTEST_SKIP() << "qemu-user refuses clone(CLONE_VM) without "         \
                            "CLONE_THREAD (EINVAL), an emulator limit";          \
    } while (0)
