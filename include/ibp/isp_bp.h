/* Library start-up and shut-down for the service process ("ISP") and the
 * debug tool process ("DT"). */
#ifndef IBP_ISP_BP_H
#define IBP_ISP_BP_H

#include "ibp/isp_log.h"
#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

typedef struct {
    u32 bIsDt;            /* 0: service process; anything else: debug tool process */
    LOG_INIT_S stLogInit; /* handed to IBP_LOG_Init by address */
} IBP_INIT_S;

/* Once per process, from the main thread, before any MOD_/MSG_/CMD_/ISP_Send call.
 * Stop: unregister your modules, MOD_SysDestroy, CMD_Destroy (service process),
 * then IBP_Destroy last. */
IBP_API u32 IBP_Init(IBP_INIT_S *pstInit);
IBP_API void IBP_Destroy(void);
IBP_API u32 IBP_SetLogLevelByModule(u32 ulModule, u32 ulLevel);
IBP_API u32 IBP_SetLogFileSizeByModule(u32 ulModule, u32 ulSize);

IBP_EXTERN_C_END

#endif /* IBP_ISP_BP_H */
