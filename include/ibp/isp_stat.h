/** @file
 * Statistics of the runtime of this process, and the debug commands that
 * show them.
 *
 * The runtime counts, always and without a lock on its paths, what each
 * module of this process receives, handles, sends and drops, how deep its
 * queue is, how long its handlers take, and what the process's socket takes
 * in, sends and loses. An application reads the same numbers as the debug
 * commands "isp stat module" and "isp stat proc" show, through the calls
 * below. Counters are 32 bits and wrap; byte counts are 64 bits. */
#ifndef IBP_ISP_STAT_H
#define IBP_ISP_STAT_H

#include "ibp/isp_module.h"
#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

/** Message identifier of the monitor's requests to "ISP_CMD": a synchronous
 * request whose body is a module name (or empty, for every message) renews
 * the monitor's lease of five seconds and is answered with the text
 * "monitor N\n", N the messages that could not be shown since the last
 * request, followed by one line per message routed since then. */
#define IBP_MONITOR_MSG_ID 0x10003u
/** How long a monitor's lease lasts without a new request, in milliseconds. */
#define IBP_MONITOR_LEASE_MS 5000u

/** Counters of one registered module, since its registration or the last
 * IBP_ClearStat. */
typedef struct {
    char szModuleName[MOD_NAME_LEN]; /**< the module's name */
    u32 ulModuleID;                  /**< the module's identifier */
    u32 ulRecvMsgs;                  /**< messages queued to it, from this process or the socket */
    u32 ulHandledMsgs;               /**< messages handed to one of its handlers */
    u32 ulSentMsgs;                  /**< messages it sent */
    u32 ulNoHandler;                 /**< messages taken from its queue without a handler, dropped */
    u32 ulRefused;                   /**< messages refused because it was going away */
    u32 ulDrained;                   /**< messages freed unhandled when it went away */
    u32 ulStrayAcks;                 /**< synchronous acks for it that no thread waited for, dropped */
    u32 ulQueueDepth;                /**< messages in its queue now */
    u32 ulQueueHigh;                 /**< most messages that were in its queue at once */
    u32 ulHandlerRuns;               /**< handler runs timed: every message handed to a handler */
    u32 ulHandlerP50Us;              /**< median handler time, microseconds, rounded up to a power of two */
    u32 ulHandlerP99Us;              /**< 99th percentile of the handler time, likewise */
    u32 ulHandlerMaxUs;              /**< longest handler time, microseconds */
} IBP_MODULE_STAT_S;

/** Kinds of bad input from the socket, counted in IBP_PROC_STAT_S. */
typedef enum {
    IBP_BAD_HEADER = 0,      /**< a header that fails its check */
    IBP_BAD_LENGTH = 1,      /**< a length that never fits the receive buffer */
    IBP_BAD_NO_DEST = 2,     /**< a message for a module not registered here */
    IBP_BAD_BUF_FULL = 3,    /**< a datagram that did not fit the receive buffer */
    IBP_BAD_UNFINISHED = 4,  /**< a message that its sender never finished */
    IBP_BAD_FOREIGN_ACK = 5, /**< a synchronous ack from another address than its process's */
    IBP_BAD_KIND_NUM = 6     /**< number of kinds */
} IBP_BAD_INPUT_E;

/** Counters of the process, since the start of its runtime or the last
 * IBP_ClearStat. */
typedef struct {
    u32 ulDatagramsIn;                    /**< datagrams read from the socket */
    u32 ulDatagramsOut;                   /**< datagrams sent */
    u64 ullBytesIn;                       /**< bytes of the datagrams read */
    u64 ullBytesOut;                      /**< bytes of the datagrams sent */
    u32 ulSendFailures;                   /**< datagrams that could not be sent */
    u32 ulKernelDrops;                    /**< datagrams the kernel dropped, the socket's buffer being full */
    u32 aulBadInput[IBP_BAD_KIND_NUM];    /**< bad input by kind (IBP_BAD_INPUT_E) */
    u32 ulStrayAcks;                      /**< synchronous acks that no thread waited for, dropped */
    u32 ulSyncWaiting;                    /**< threads waiting for a synchronous ack now */
    u32 ulSyncTimedOut;                   /**< synchronous requests that timed out */
    u32 ulSyncFailed;                     /**< synchronous requests that failed because a module went away */
    u32 ulMonitorOn;                      /**< 1 while a monitor's lease runs, else 0 */
    u32 ulMonitorShown;                   /**< messages handed to a monitor */
    u32 ulMonitorLost;                    /**< messages a monitor could not take */
} IBP_PROC_STAT_S;

/** Fills pstStat with the counters of the registered module ulModuleID.
 * Returns 0, or 1 for a null pstStat or a module not registered here. */
IBP_API u32 IBP_GetModuleStat(u32 ulModuleID, IBP_MODULE_STAT_S *pstStat);
/** Fills pstStat with the counters of this process. Returns 0, or 1 for a
 * null pstStat. */
IBP_API u32 IBP_GetProcStat(IBP_PROC_STAT_S *pstStat);
/** Sets every counter back to 0, but the depths and waiting threads of now. */
IBP_API void IBP_ClearStat(void);
/** Registers in the service process, after IBP_Init, the debug commands
 * "isp stat module", "isp stat proc" and "isp stat clear", and the service
 * that lets "ibp-dt --monitor" watch the messages as they are routed.
 * Returns 0, or 1 when a registration failed. */
IBP_API u32 IBP_RegStatCmd(void);

IBP_EXTERN_C_END

#endif /* IBP_ISP_STAT_H */
