// Lookups in the process and module tables.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "harness/log_capture.h"
#include "ibp/isp_module.h"
#include "runtime/module_internal.h"

TEST(ModuleCfg, LookupsAndTheProcessModuleOfTheCurrentProcess)
{
    ibptest::LogCapture cap;
    EXPECT_EQ(MOD_GetProcCfgByName("DT"), &gastProcCfgInfo[1]);
    EXPECT_EQ(MOD_GetProcCfgByID(MOD_PROC_ID_DT), &gastProcCfgInfo[1]);
    EXPECT_EQ(MOD_GetModuleCfgByName("DT_CMD"), &gastModuleCfgInfo[5]);
    EXPECT_EQ(MOD_GetModuleCfgByID(MOD_ID_DT_CMD), &gastModuleCfgInfo[5]);  // both processes are described
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();
    // Before the identity is stored the shared identifier names nobody.
    EXPECT_EQ(MOD_GetCurWorkProcID(), 0u);
    const std::pair<std::function<const void *()>, const char *> misses[] = {
        {[] { return MOD_GetProcCfgByName("dt"); }, "proc dt not found in config"},
        {[] { return MOD_GetProcCfgByName(nullptr); }, "pcProcName is NULL"},
        {[] { return MOD_GetProcCfgByID(0); }, "proc id 0 not found in config"},
        {[] { return MOD_GetModuleCfgByName("ISP_CMDX"); }, "module name ISP_CMDX not found in config"},
        {[] { return MOD_GetModuleCfgByName(nullptr); }, "pcModuleName is NULL"},
        {[] { return MOD_GetModuleCfgByID(0x90000003); }, "module id 0x90000003 not found in config"},
        {[] { return MOD_GetModuleCfgByID(MOD_PROC_MODULE_ID); }, "module id 0x9fffffff not found in config"},
    };
    for (const auto &[lookup, text] : misses) {
        EXPECT_EQ(lookup(), nullptr) << text;
        EXPECT_LOG(cap, "ERR", "BP", text);
    }
    for (u32 i : {0u, 1u}) {  // "DT" shares the process module's identifier with "ISP"
        strcpy(gstCurProc.szProcName, gastProcCfgInfo[i].szProcName);
        gstCurProc.ulProcID = gastProcCfgInfo[i].ulProcID;
        EXPECT_EQ(MOD_GetModuleCfgByID(MOD_PROC_MODULE_ID), &gastModuleCfgInfo[3 * i]);
        EXPECT_STREQ(MOD_GetCurWrokProcName(), gastProcCfgInfo[i].szProcName);
        EXPECT_EQ(MOD_GetCurWorkProcID(), gastProcCfgInfo[i].ulProcID);
    }
    EXPECT_EQ(MOD_GetCurWorkProc(), &gstCurProc);
    gstCurProc.szProcName[0] = '\0';
    gstCurProc.ulProcID = 0;
}
