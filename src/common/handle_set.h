// The handles of one kind that the library has handed out and not yet taken
// back, so that a call can refuse a pointer that names no living object (one
// never made, or one destroyed before) without reading the memory behind it.
//
// Look-ups take no lock: a hash and, as a rule, one load of a fixed table,
// cheap enough for every call on the receive path. Adding and removing take
// a mutex. Nothing ever moves a slot that a reader may be walking: a removed
// handle leaves a tombstone, which a later add may take over, and tombstones
// go back to empty only when no handle at all is live.
//
// What it cannot tell: a handle destroyed by one thread while another still
// uses it (that race is the caller's, as with any object it frees), and a
// stale handle whose address the heap has since given to a new object of the
// same kind.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "common/mutex_guard.h"
#include "ibp/isp_types.h"

// In an exported call: returns `ret`, after the record of the refusal, when
// `pcRefusal` (an expression: the refusal's text, or null) is not null.
#define HANDLE_REFUSE_IF(pcRefusal, ret)          \
    do {                                          \
        if (const char *pcWhy_ = (pcRefusal)) {   \
            IBP_ERR("%s", pcWhy_);                \
            return ret;                           \
        }                                         \
    } while (0)

template <u32 kSlotBits> class HandleSet {
public:
    static constexpr u32 kSlots = 1u << kSlotBits;
    static constexpr u32 kMaxLive = kSlots / 2;  // at most half full: probe runs stay short

    bool Contains(const void *pHandle) const
    {
        const uintptr_t ulKey = reinterpret_cast<uintptr_t>(pHandle);
        if (ulKey == kEmpty || ulKey == kGone)
            return false;
        u32 ulSlot = SlotOf(ulKey);
        for (u32 i = 0; i < kSlots; ++i, ulSlot = (ulSlot + 1) & kMask) {
            const uintptr_t ulSeen = __atomic_load_n(&aulSlot_[ulSlot], __ATOMIC_RELAXED);
            if (ulSeen == ulKey)
                return true;
            if (ulSeen == kEmpty)
                return false;
        }
        return false;
    }

    // Null when pHandle is live; else the text a call refuses it with:
    // pcNullText for null, pcBadText for any other that is not live.
    const char *Refusal(const void *pHandle, const char *pcNullText, const char *pcBadText) const
    {
        if (pHandle == nullptr)
            return pcNullText;
        return Contains(pHandle) ? nullptr : pcBadText;
    }

    // False when kMaxLive handles are live already.
    bool Add(const void *pHandle)
    {
        const uintptr_t ulKey = reinterpret_cast<uintptr_t>(pHandle);
        MutexGuard stGuard(&stLock_);
        if (ulLive_ == kMaxLive)
            return false;
        u32 ulSlot = SlotOf(ulKey);
        while (aulSlot_[ulSlot] != kEmpty && aulSlot_[ulSlot] != kGone)
            ulSlot = (ulSlot + 1) & kMask;
        __atomic_store_n(&aulSlot_[ulSlot], ulKey, __ATOMIC_RELAXED);
        ++ulLive_;
        return true;
    }

    // True when this call took pHandle out: of two calls racing to remove one
    // handle, only one is told so, and only that one may free the object.
    bool Remove(const void *pHandle)
    {
        const uintptr_t ulKey = reinterpret_cast<uintptr_t>(pHandle);
        MutexGuard stGuard(&stLock_);
        u32 ulSlot = SlotOf(ulKey);
        for (u32 i = 0; i < kSlots; ++i, ulSlot = (ulSlot + 1) & kMask) {
            if (aulSlot_[ulSlot] == kEmpty)
                return false;
            if (aulSlot_[ulSlot] != ulKey)
                continue;
            __atomic_store_n(&aulSlot_[ulSlot], kGone, __ATOMIC_RELAXED);
            if (--ulLive_ == 0)
                ClearTombstones();
            return true;
        }
        return false;
    }

private:
    static constexpr uintptr_t kEmpty = 0;
    static constexpr uintptr_t kGone = 1;  // no heap block lies at address 1
    static constexpr u32 kMask = kSlots - 1;


    // Fibonacci hashing of the address without its alignment bits.
    static u32 SlotOf(uintptr_t ulKey)
    {
        constexpr uintptr_t kGolden = sizeof(uintptr_t) == 8 ? static_cast<uintptr_t>(0x9e3779b97f4a7c15ull)
                                                              : static_cast<uintptr_t>(0x9e3779b9u);
        return static_cast<u32>(((ulKey >> 4) * kGolden) >> (sizeof(uintptr_t) * 8 - kSlotBits));
    }

    // With nothing live, every reader's answer is "no" whatever it sees.
    void ClearTombstones()
    {
        for (uintptr_t &ulSlot : aulSlot_)
            __atomic_store_n(&ulSlot, kEmpty, __ATOMIC_RELAXED);
    }

    uintptr_t aulSlot_[kSlots] = {};
    u32 ulLive_ = 0;
    pthread_mutex_t stLock_ = PTHREAD_MUTEX_INITIALIZER;
};
