// Internal seams of the ISP_ layer, reachable by the tests through the static
// library: the attribute set-up of ISP_thr_create, the deadline of
// ISP_cond_timedwait, and the tree removal of ISP_rmdir with the pause
// function passed in; and the scope guard of its mutex handles.
#pragma once

#include <pthread.h>
#include <time.h>

#include "ibp/isp_system.h"
#include "ibp/isp_types.h"

// Holds a mutex handle of ISP_mutex_init for a scope.
class IspMutexGuard {
public:
    explicit IspMutexGuard(void *hLock) : hLock_(hLock) { ISP_mutex_lock(hLock_); }
    ~IspMutexGuard() { ISP_mutex_unlock(hLock_); }
    IspMutexGuard(const IspMutexGuard &) = delete;
    IspMutexGuard &operator=(const IspMutexGuard &) = delete;

private:
    void *hLock_;
};

namespace ibp::platform {

// attr must be initialised; returns 0, or -1 when an attribute call failed.
s32 ThrAttrApply(pthread_attr_t *attr, u32 ulFlags, s32 lPriority);

// lPriority lowered to the policy's maximum, then raised to its minimum.
s32 ThrClampPriority(int policy, s32 lPriority);

// The absolute deadline lMilliSec after now, normalised to a valid time.
timespec CondDeadline(timespec now, s32 lMilliSec);

using PauseFn = s32 (*)(s32 lMilliSec);

// ISP_rmdir with pfnPause called in place of ISP_msleep after each entry.
s32 RmdirTree(const char *pcPath, const s32 *plPauseMs, PauseFn pfnPause);

}  // namespace ibp::platform
