// Rate limits for the records that input from outside can cause in any number:
// bad headers from the socket, lengths that never fit, unknown destinations,
// a full receive buffer, synchronous acks that nobody waits for or that come
// from elsewhere than their process.
//
// Each kind has a window of one second and a burst: the first records of a
// window are written as they come, the rest are counted, and one record later
// says how many were left out. That count is written when the window has
// ended, by the next event of the kind or by the process thread's timer
// (MOD_RateFlush), and it takes one place of the burst of the window that it
// opens. So a kind never writes more than its burst in a second, and the
// first event of a quiet second is written at once, exactly as without a limit.
//
// Any thread may call these; one small lock guards the counters, and no
// record is written under it.
#pragma once

#include "ibp/isp_types.h"

enum class MOD_RATE_KIND_E : u32 {
    BAD_HDR,    // a header that fails its check
    LONG_MSG,   // a length that never fits the receive buffer
    NO_DEST,    // a message for a module that is not registered here
    BUF_FULL,   // a datagram that did not fit the receive buffer
    UNFINISHED, // a message that its sender never finished
    STRAY_ACK,  // a synchronous ack that no thread waits for
    FOREIGN_ACK, // a synchronous ack from another address than its process's
    KERNEL_DROP, // datagrams that the kernel dropped, the socket's buffer being full
    NUM,
};

// True when the caller is to write the records of this event. A count of the
// kind's previous window is written first, as one record, when it is due.
bool MOD_RateAdmit(MOD_RATE_KIND_E enKind);

// Counts ulNum more events of the kind as left out, for a caller that has
// been refused and then stepped over a run of them at once.
void MOD_RateLeaveOut(MOD_RATE_KIND_E enKind, u32 ulNum);

// Writes the counts of windows that have ended. Returns the time in
// milliseconds until the next window with a count ends, or -1 when no count
// is waiting: the caller's timer runs only while there is such work.
int MOD_RateFlush();

// Writes every count that waits, whether its window has ended or not, and
// makes every kind quiet: for a runtime that stops.
void MOD_RateReset();
