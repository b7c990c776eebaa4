// Lookups in the process and module tables.
#include <gtest/gtest.h>

#include <cstring>

#include "harness/log_capture.h"
#include "ibp/isp_module.h"
#include "runtime/module_internal.h"

namespace {

void BeProcess(const char *pcName, u32 ulProcID)
{
    strcpy(gstCurProc.szProcName, pcName);
    gstCurProc.ulProcID = ulProcID;
}

TEST(ModuleCfg, NameLookupsAreExact)
{
    ibptest::LogCapture cap;
    EXPECT_EQ(MOD_GetProcCfgByName("DT"), &gastProcCfgInfo[1]);
    EXPECT_EQ(MOD_GetModuleCfgByName("DT"), &gastModuleCfgInfo[3]);
    EXPECT_EQ(MOD_GetModuleCfgByName("DT_CMD"), &gastModuleCfgInfo[5]);
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();

    EXPECT_EQ(MOD_GetProcCfgByName("dt"), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "proc dt not found in config");
    EXPECT_EQ(MOD_GetModuleCfgByName("ISP_CMDX"), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "module name ISP_CMDX not found in config");
    EXPECT_EQ(MOD_GetProcCfgByName(nullptr), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "pcProcName is NULL");
    EXPECT_EQ(MOD_GetModuleCfgByName(nullptr), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "pcModuleName is NULL");
}

TEST(ModuleCfg, IdLookupsAndTheProcessModuleOfTheCurrentProcess)
{
    ibptest::LogCapture cap;
    EXPECT_EQ(MOD_GetProcCfgByID(MOD_PROC_ID_DT), &gastProcCfgInfo[1]);
    EXPECT_EQ(MOD_GetProcCfgByID(0), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "proc id 0 not found in config");

    // Before the identity is stored the shared identifier names nobody.
    EXPECT_EQ(MOD_GetCurWorkProcID(), 0u);
    EXPECT_EQ(MOD_GetModuleCfgByID(MOD_PROC_MODULE_ID), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "module id 0x9fffffff not found in config");

    BeProcess("ISP", MOD_PROC_ID_ISP);
    EXPECT_EQ(MOD_GetModuleCfgByID(MOD_PROC_MODULE_ID), &gastModuleCfgInfo[0]);
    EXPECT_EQ(MOD_GetModuleCfgByID(MOD_ID_DT_CMD), &gastModuleCfgInfo[5]);  // both processes are described
    EXPECT_EQ(MOD_GetCurWorkProc(), &gstCurProc);
    EXPECT_STREQ(MOD_GetCurWrokProcName(), "ISP");
    EXPECT_EQ(MOD_GetCurWorkProcID(), MOD_PROC_ID_ISP);

    BeProcess("DT", MOD_PROC_ID_DT);
    EXPECT_EQ(MOD_GetModuleCfgByID(MOD_PROC_MODULE_ID), &gastModuleCfgInfo[3]);
    BeProcess("", 0);

    EXPECT_EQ(MOD_GetModuleCfgByID(0x90000003), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "module id 0x90000003 not found in config");
}

}  // namespace
