/* The log: one call that turns a module, a level, a source place and a
 * format into a dated record in a rotating file pair, on standard output or
 * in an output function of the application. */
#ifndef IBP_ISP_LOG_H
#define IBP_ISP_LOG_H

#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

#define LOG_MODULE_NUM 12
#define LOG_LEVEL_NUM 4

/* Log modules. */
#define LOG_MODULE_BP 0
#define LOG_MODULE_AE 1
#define LOG_MODULE_AWB 2
#define LOG_MODULE_ADN 3
#define LOG_MODULE_LED 4
#define LOG_MODULE_AF 5
#define LOG_MODULE_AF_CALI 6
#define LOG_MODULE_AF_TEST 7
#define LOG_MODULE_IMG 8
#define LOG_MODULE_CLI 9
#define LOG_MODULE_WP 10
#define LOG_MODULE_FD 11

/* Levels, higher is more severe. */
#define LOG_LEVEL_DBG 0
#define LOG_LEVEL_INF 1
#define LOG_LEVEL_WRN 2
#define LOG_LEVEL_ERR 3

/* Output modes of LOG_INIT_S.ulOutputMode; any value above 1 means "function". */
#define LOG_OUTPUT_FILE 0
#define LOG_OUTPUT_STDOUT 1
#define LOG_OUTPUT_FUNC 2

/* Receives the finished text of one record; the result is ignored. */
typedef s32 (*LOG_OUTPUT_PFN)(const char *pcText);

typedef struct {
    u32 ulOutputMode;
    LOG_OUTPUT_PFN pfnOutput;
    u32 aulLevel[LOG_MODULE_NUM];
} LOG_INIT_S;

typedef struct {
    u32 bInited;
    u32 ulOutputMode;
    LOG_OUTPUT_PFN pfnOutput;
    u32 aulLevel[LOG_MODULE_NUM];
} LOG_OBJ_S;

typedef struct {
    const char *pcName;
    const char *pcFile;
    const char *pcBackupFile;
    u32 ulMaxSize;
} LOG_MODULE_S;

IBP_API extern LOG_OBJ_S gstLogObj;
IBP_API extern const char *const g_apcLogLevelName[LOG_LEVEL_NUM];
IBP_API extern const char *const g_apcOldLogFile[12];

IBP_API void LOG_Pirnt(u32 ulModule, u32 ulLevel, const char *pcSrcFile, const char *pcFunc,
                       s32 lLine, const char *pcFormat, ...) IBP_PRINTF(6, 7);

IBP_API u32 IBP_LOG_Init(const LOG_INIT_S *pstInit);
IBP_API void IBP_LOG_Destroy(void);
IBP_API u32 IBP_LOG_SetLevelByModule(u32 ulModule, u32 ulLevel);
IBP_API u32 IBP_LOG_SetLevelByName(const char *pcName, u32 ulLevel);
IBP_API u32 IBP_LOG_SetFileSizeByModule(u32 ulModule, u32 ulSize);

IBP_EXTERN_C_END

#endif /* IBP_ISP_LOG_H */
