// The fixed world of the runtime: the process table, the module table, and
// the control block of this process with its identity.
#include "ibp/isp_module.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/module_internal.h"

IBP_LOG_SOURCE("isp_module");

extern "C" {

IBP_API MOD_PROC_CFG_S gastProcCfgInfo[MOD_PROC_CFG_NUM] = {
    {"ISP", MOD_PROC_ID_ISP, "127.0.0.1", 7001},
    {"DT", MOD_PROC_ID_DT, "127.0.0.1", 7002},
};

IBP_API MOD_MODULE_CFG_S gastModuleCfgInfo[MOD_MODULE_CFG_NUM] = {
    {"ISP", MOD_PROC_MODULE_ID, MOD_PROC_ID_ISP},
    {"ISP_IMG", MOD_ID_ISP_IMG, MOD_PROC_ID_ISP},
    {"ISP_CMD", MOD_ID_ISP_CMD, MOD_PROC_ID_ISP},
    {"DT", MOD_PROC_MODULE_ID, MOD_PROC_ID_DT},
    {"DT_CLI", MOD_ID_DT_CLI, MOD_PROC_ID_DT},
    {"DT_CMD", MOD_ID_DT_CMD, MOD_PROC_ID_DT},
};

}  // extern "C"

MOD_PROC_S gstCurProc;

namespace {

// First row of a table for which pred holds, row 0 first.
template <typename Row, size_t N, typename Pred>
Row *MOD_FindRow(Row (&astRows)[N], Pred pred)
{
    for (Row &stRow : astRows) {
        if (pred(stRow))
            return &stRow;
    }
    return nullptr;
}

MOD_PROC_CFG_S *MOD_ProcRowByID(u32 ulProcID)
{
    return MOD_FindRow(gastProcCfgInfo, [&](const MOD_PROC_CFG_S &stRow) { return stRow.ulProcID == ulProcID; });
}

}  // namespace

const MOD_PROC_CFG_S *MOD_FindProcRow(u32 ulProcID) { return MOD_ProcRowByID(ulProcID); }

extern "C" {

IBP_API MOD_PROC_S *MOD_GetCurWorkProc(void) { return &gstCurProc; }

IBP_API const char *MOD_GetCurWrokProcName(void) { return gstCurProc.szProcName; }

IBP_API u32 MOD_GetCurWorkProcID(void) { return gstCurProc.ulProcID; }

IBP_API MOD_PROC_CFG_S *MOD_GetProcCfgByName(const char *pcProcName)
{
    if (pcProcName == nullptr) {
        IBP_ERR("pcProcName is NULL");
        return nullptr;
    }
    MOD_PROC_CFG_S *pstCfg = MOD_FindRow(
        gastProcCfgInfo, [&](const MOD_PROC_CFG_S &stRow) { return ISP_strcmp(stRow.szProcName, pcProcName) == 0; });
    if (pstCfg == nullptr)
        IBP_ERR("proc %s not found in config", pcProcName);
    return pstCfg;
}

IBP_API MOD_PROC_CFG_S *MOD_GetProcCfgByID(u32 ulProcID)
{
    MOD_PROC_CFG_S *pstCfg = MOD_ProcRowByID(ulProcID);
    if (pstCfg == nullptr)
        IBP_ERR("proc id %#x not found in config", ulProcID);
    return pstCfg;
}

IBP_API MOD_MODULE_CFG_S *MOD_GetModuleCfgByName(const char *pcModuleName)
{
    if (pcModuleName == nullptr) {
        IBP_ERR("pcModuleName is NULL");
        return nullptr;
    }
    MOD_MODULE_CFG_S *pstCfg = MOD_FindRow(gastModuleCfgInfo, [&](const MOD_MODULE_CFG_S &stRow) {
        return ISP_strcmp(stRow.szModuleName, pcModuleName) == 0;
    });
    if (pstCfg == nullptr)
        IBP_ERR("module name %s not found in config", pcModuleName);
    return pstCfg;
}

IBP_API MOD_MODULE_CFG_S *MOD_GetModuleCfgByID(u32 ulModuleID)
{
    // Two rows share the process module's identifier: the current process picks.
    const bool bProcModule = (ulModuleID == MOD_PROC_MODULE_ID);
    const u32 ulCurProcID = gstCurProc.ulProcID;
    MOD_MODULE_CFG_S *pstCfg = MOD_FindRow(gastModuleCfgInfo, [&](const MOD_MODULE_CFG_S &stRow) {
        return stRow.ulModuleID == ulModuleID && (!bProcModule || stRow.ulProcID == ulCurProcID);
    });
    if (pstCfg == nullptr)
        IBP_ERR("module id %#x not found in config", ulModuleID);
    return pstCfg;
}

}  // extern "C"
