/** @file
 * The log: one call that turns a module, a level, a source place and a
 * format into a dated record in a rotating file pair, on standard output or
 * in an output function of the application. */
#ifndef IBP_ISP_LOG_H
#define IBP_ISP_LOG_H

#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

#define LOG_MODULE_NUM 12 /**< log modules, numbered 0 to 11 */
#define LOG_LEVEL_NUM 4   /**< levels, numbered 0 to 3 */

/** @name Log modules
 * The first argument of LOG_Pirnt: whose record it is and which file it goes to.
 * @{ */
#define LOG_MODULE_BP 0       /**< the library itself; /var/log/ISP_ALG00.log */
#define LOG_MODULE_AE 1       /**< auto exposure; ISP_ALG00.log */
#define LOG_MODULE_AWB 2      /**< auto white balance; ISP_ALG00.log */
#define LOG_MODULE_ADN 3      /**< denoising; ISP_ALG00.log */
#define LOG_MODULE_LED 4      /**< lights; ISP_ALG00.log */
#define LOG_MODULE_AF 5       /**< auto focus; ISP_AF00.log */
#define LOG_MODULE_AF_CALI 6  /**< focus calibration; ISP_AF_Cali.log, never rotated */
#define LOG_MODULE_AF_TEST 7  /**< focus tests; AF_Test00.log, never rotated */
#define LOG_MODULE_IMG 8      /**< the image library; ISP_IMG00.log */
#define LOG_MODULE_CLI 9      /**< the command line of the debug tool; ISP_CLI00.log */
#define LOG_MODULE_WP 10      /**< ISP_ALG00.log */
#define LOG_MODULE_FD 11      /**< ISP_FD00.log */
/** @} */

/** @name Levels
 * Higher is more severe; a record passes when its level is not below the
 * threshold of its module.
 * @{ */
#define LOG_LEVEL_DBG 0 /**< debug */
#define LOG_LEVEL_INF 1 /**< information */
#define LOG_LEVEL_WRN 2 /**< warning */
#define LOG_LEVEL_ERR 3 /**< error */
/** @} */

/** @name Output modes
 * Values of LOG_INIT_S.ulOutputMode; any value above 1 means "function".
 * @{ */
#define LOG_OUTPUT_FILE 0   /**< the file of the record's module */
#define LOG_OUTPUT_STDOUT 1 /**< standard output */
#define LOG_OUTPUT_FUNC 2   /**< the application's LOG_INIT_S.pfnOutput */
/** @} */

/** Receives the finished text of one record; the result is ignored. */
typedef s32 (*LOG_OUTPUT_PFN)(const char *pcText);

/** Start record of the log; part of IBP_INIT_S. */
typedef struct {
    u32 ulOutputMode;             /**< LOG_OUTPUT_FILE, LOG_OUTPUT_STDOUT or LOG_OUTPUT_FUNC */
    LOG_OUTPUT_PFN pfnOutput;     /**< the output function of LOG_OUTPUT_FUNC */
    u32 aulLevel[LOG_MODULE_NUM]; /**< threshold of each log module; above 3 silences it */
} LOG_INIT_S;

/** The one log object, gstLogObj. */
typedef struct {
    u32 bInited;                  /**< 1 between IBP_LOG_Init and IBP_LOG_Destroy */
    u32 ulOutputMode;             /**< as given to IBP_LOG_Init */
    LOG_OUTPUT_PFN pfnOutput;     /**< output function in force, or null for the files */
    u32 aulLevel[LOG_MODULE_NUM]; /**< threshold of each log module */
} LOG_OBJ_S;

/** A row of the table of log modules: name, file pair and size limit. */
typedef struct {
    const char *pcName;       /**< "BP", "AE", ...: what records show and IBP_LOG_SetLevelByName matches */
    const char *pcFile;       /**< file that receives the records */
    const char *pcBackupFile; /**< where pcFile is renamed when it passes ulMaxSize */
    u32 ulMaxSize;            /**< size limit of pcFile in bytes; 0: never rotated */
} LOG_MODULE_S;

/** The log object; zero before IBP_LOG_Init. */
IBP_API extern LOG_OBJ_S gstLogObj;
/** "DBG", "INF", "WRN", "ERR", indexed by level. */
IBP_API extern const char *const g_apcLogLevelName[LOG_LEVEL_NUM];
/** Files of an older layout under /tmp that IBP_LOG_Init deletes. */
IBP_API extern const char *const g_apcOldLogFile[12];

/** Makes one record "date time place@function [LVL][MODULE]message" from the
 * format and its arguments, if the level passes the module's threshold, and
 * writes it where the log was told to. Any thread, any time; before
 * IBP_LOG_Init it prints "isp log not initialized". */
IBP_API void LOG_Pirnt(u32 ulModule, u32 ulLevel, const char *pcSrcFile, const char *pcFunc,
                       s32 lLine, const char *pcFormat, ...) IBP_PRINTF(6, 7);

/** Starts the log: output mode and thresholds from pstInit; deletes the old
 * files of g_apcOldLogFile. Returns 0, or 1 when pstInit is null. */
IBP_API u32 IBP_LOG_Init(const LOG_INIT_S *pstInit);
/** Stops the log; later records only print "isp log not initialized". */
IBP_API void IBP_LOG_Destroy(void);
/** Sets the threshold of a log module by number; a bad number means BP, a
 * bad level INF. Returns 0. */
IBP_API u32 IBP_LOG_SetLevelByModule(u32 ulModule, u32 ulLevel);
/** Sets the threshold of a log module by name, in any case ("awb"). Returns
 * 0, or 1 for an unknown name or a level above 3. */
IBP_API u32 IBP_LOG_SetLevelByName(const char *pcName, u32 ulLevel);
/** Sets the size limit of a log module's file and of every module that
 * shares the file; 0 turns rotation off. Returns 0. */
IBP_API u32 IBP_LOG_SetFileSizeByModule(u32 ulModule, u32 ulSize);

IBP_EXTERN_C_END

#endif /* IBP_ISP_LOG_H */
