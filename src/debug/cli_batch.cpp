// What the debug tool program needs of the command line beyond ISP_CLI_Init:
// its ways at a terminal, and its lines without one (ibp-dt -c). Exported on
// purpose, so that the tool links the shared object like any other program.
#include "debug/isp_cli_priv.h"

IBP_LOG_SOURCE("isp_cli");

constexpr bool Same(CLI_RESULT_E enOwn, ISP_CLI_BATCH_E enExported)
{
    return static_cast<int>(enOwn) == static_cast<int>(enExported);
}
static_assert(Same(CLI_RESULT_DONE, ISP_CLI_BATCH_DONE) && Same(CLI_RESULT_WRONG, ISP_CLI_BATCH_WRONG) &&
                  Same(CLI_RESULT_AMBIGUOUS, ISP_CLI_BATCH_AMBIGUOUS) &&
                  Same(CLI_RESULT_INCOMPLETE, ISP_CLI_BATCH_INCOMPLETE) &&
                  Same(CLI_RESULT_OPERATE_FAIL, ISP_CLI_BATCH_OPERATE_FAIL) &&
                  Same(CLI_RESULT_BAD_ANSWER, ISP_CLI_BATCH_BAD_ANSWER) &&
                  Same(CLI_RESULT_NO_ANSWER, ISP_CLI_BATCH_NO_ANSWER),
              "the exported results are the interpreter's own");
static_assert(ISP_CLI_BATCH_LINE_MAX == CLI_LINE_MAX && ISP_CLI_BATCH_TIMEOUT_MS == CLI_REQ_TIMEOUT_MS);

IBP_API u32 ISP_CLI_BatchInit(void)
{
    CLI_BatchInit();  // the first line fetches the tree
    return ISP_CLI_BATCH_DONE;
}

IBP_API void ISP_CLI_ToolOn(u32 bTermKeys) { CLI_ToolOn(bTermKeys != 0); }

IBP_API u32 ISP_CLI_BatchLine(const char *pcLine)
{
    if (pcLine == nullptr) {
        CLI_ERR("pcLine is NULL");
        return ISP_CLI_BATCH_WRONG;
    }
    return CLI_BatchLine(pcLine);
}
