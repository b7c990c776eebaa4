/** @file
 * The base debug commands that the library registers in the service process,
 * all under the word "bp": the process, module, socket and buffer displays,
 * and the log level of a module. */
#ifndef IBP_BP_DEBUG_H
#define IBP_BP_DEBUG_H

#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

/** Registers the six base commands; IBP_Init calls it after CMD_Init.
 * Returns 0 when all six are registered. */
IBP_API u32 IBP_RegDebugCmd(void);
/** Display function of "isp bp log <module> <level>": sets the threshold of
 * the named log module in this process and writes no text. */
IBP_API u32 IBP_SetLoglevel(u32 *pulOutBufLen, char *pcOutBuf);

IBP_EXTERN_C_END

#endif /* IBP_BP_DEBUG_H */
