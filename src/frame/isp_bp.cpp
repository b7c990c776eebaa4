// Library start-up and shut-down for the service and the debug tool process.
#include "ibp/isp_bp.h"

#include <cstdio>

#include "ibp/bp_debug.h"
#include "ibp/isp_cmd.h"
#include "ibp/isp_log.h"
#include "ibp/isp_module.h"
#include "log/log_internal.h"
#include "runtime/proc_internal.h"

IBP_LOG_SOURCE("isp_bp");

namespace {

struct IBP_PROC_IDENTITY_S {
    const char *pcName;
    u32 ulProcID;
};

constexpr IBP_PROC_IDENTITY_S kService = {"ISP", MOD_PROC_ID_ISP};
constexpr IBP_PROC_IDENTITY_S kDebugTool = {"DT", MOD_PROC_ID_DT};

}  // namespace

extern "C" {

IBP_API u32 IBP_Init(IBP_INIT_S *pstInit)
{
    // The log is what this call starts, so the complaint can only go where
    // the log's own complaints go.
    if (pstInit == nullptr) {
        puts("pstInit is NULL");
        return 1;
    }
    // A second start would set up lists and queues under running threads,
    // and restart the log: refuse it before touching anything.
    if (MOD_IsSysRunning()) {
        IBP_ERR("ibp is running already! call MOD_SysDestroy before another IBP_Init");
        return 1;
    }
    if (IBP_LOG_Init(&pstInit->stLogInit) != 0) {
        IBP_ERR("IBP_LOG_Init() fail!");
        return 1;
    }
    const IBP_PROC_IDENTITY_S &stId = pstInit->bIsDt == 0 ? kService : kDebugTool;
    if (MOD_SysInit(stId.pcName, stId.ulProcID) != 0) {
        IBP_ERR("MOD_SysInit() fail! bIsDt=%u", pstInit->bIsDt);
        return 1;
    }
    // The debug tool asks the service's command service; it has none itself.
    if (pstInit->bIsDt != 0)
        return 0;
    // Without the command service the runtime still runs: not fatal.
    if (CMD_Init() != 0)
        IBP_WRN("CMD_Init fail");
    (void)IBP_RegDebugCmd();
    return 0;
}

IBP_API void IBP_Destroy(void) { IBP_LOG_Destroy(); }

IBP_API u32 IBP_SetLogLevelByModule(u32 ulModule, u32 ulLevel)
{
    return IBP_LOG_SetLevelByModule(ulModule, ulLevel);
}

IBP_API u32 IBP_SetLogFileSizeByModule(u32 ulModule, u32 ulSize)
{
    return IBP_LOG_SetFileSizeByModule(ulModule, ulSize);
}

}  // extern "C"
