/** @file
 * Library start-up and shut-down for the service process ("ISP") and the
 * debug tool process ("DT"). */
#ifndef IBP_ISP_BP_H
#define IBP_ISP_BP_H

#include "ibp/isp_log.h"
#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

/** Start record of IBP_Init; the caller's, read only during the call. */
typedef struct {
    u32 bIsDt;            /**< 0: service process; anything else: debug tool process */
    LOG_INIT_S stLogInit; /**< handed to IBP_LOG_Init by address */
} IBP_INIT_S;

/** Starts the log, then the runtime of this process (its UDP port, the _CMD
 * and process modules) and, in the service process, the command service with
 * the base debug commands. Once per process, from the main thread, before any
 * MOD_/MSG_/CMD_/ISP_Send call. Returns 0, or 1 when the runtime did not start.
 * Stop: unregister your modules, MOD_SysDestroy, CMD_Destroy (service process),
 * then IBP_Destroy last. */
IBP_API u32 IBP_Init(IBP_INIT_S *pstInit);
/** Ends the log, and nothing else: the last call of the stop sequence. */
IBP_API void IBP_Destroy(void);
/** Sets the threshold of a log module (IBP_LOG_SetLevelByModule). */
IBP_API u32 IBP_SetLogLevelByModule(u32 ulModule, u32 ulLevel);
/** Sets the size limit of a log module's file, in bytes (IBP_LOG_SetFileSizeByModule). */
IBP_API u32 IBP_SetLogFileSizeByModule(u32 ulModule, u32 ulSize);

IBP_EXTERN_C_END

#endif /* IBP_ISP_BP_H */
