// The tap of a message monitor: while a monitor holds a lease, the runtime
// copies the header of every message it routes (inside the process, out to
// the other process, in from it) into a bounded ring, which the monitor's
// requests empty. Off, the tap costs one relaxed load per message. On, a copy
// never blocks: when the ring is full the message is counted as not shown.
// A lease that is not renewed ends by itself, so a monitor that dies stops
// the tap; the process thread's timer ends it.
#pragma once

#include "ibp/isp_rawmsg.h"
#include "runtime/mod_stat.h"

extern bool gbTapOn;

// Copies one header, if a monitor watches and it passes the monitor's filter.
void MOD_TapRecord(const MSG_HDR_S &stHdr);

inline void MOD_Tap(const MSG_HDR_S &stHdr)
{
    if constexpr (MOD_STATS_ON) {
        if (__atomic_load_n(&gbTapOn, __ATOMIC_RELAXED))
            MOD_TapRecord(stHdr);
    }
}

// Starts or renews the lease, for ulLeaseMs from now, showing only messages
// from or to the module ulModuleID of the process ulProcID (both 0: all).
// A new lease, or another filter, starts with an empty ring. The reader's
// (the thread that answers the monitor). False when the ring cannot be made.
bool MOD_TapLease(u32 ulModuleID, u32 ulProcID, u32 ulLeaseMs);

// Writes what the ring holds, one line per message, into pcOut of ulCap
// bytes (terminated), as much as fits; returns the messages written and
// stores in *pulLost how many could not be taken since the last call.
u32 MOD_TapTake(char *pcOut, u32 ulCap, u32 *pulLost);

// True while a monitor's lease runs.
inline bool MOD_TapIsOn() { return __atomic_load_n(&gbTapOn, __ATOMIC_RELAXED); }

// For the process thread's timer: ends a lease that has run out; returns the
// milliseconds until the running lease ends, or -1 when there is none.
int MOD_TapExpire();
