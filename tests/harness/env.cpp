#include "harness/test_env.h"

#include <cstdlib>

namespace ibptest {

const char *NotIsolatedReason()
{
    const char *isolated = std::getenv("IBP_TEST_ISOLATED");
    if (isolated != nullptr && isolated[0] == '1')
        return nullptr;
    const char *why = std::getenv("IBP_TEST_NO_ISOLATION");
    return why != nullptr ? why : "not started through tests/harness/isolate.sh";
}

bool Emulated()
{
    const char *emu = std::getenv("IBP_TEST_EMULATED");
    return emu != nullptr && emu[0] == '1';
}

}  // namespace ibptest
