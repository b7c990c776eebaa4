// ibp-dt: the debug tool process. Without -c it opens the interactive
// command line against the running service; with -c it runs lines through
// the same interpreter without a terminal, for scripts and tests.
//
//   ibp-dt [--log-stdout] [-c LINE]...
//
// Exit status with -c: 0, or 1 when a line was Wrong, Ambiguous or
// Incomplete or was answered "operate fail", or 2 when the service did not
// answer (the lines behind it are not tried) or the tool could not start.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "app_options.h"
#include "ibp/ibp.h"

namespace {

enum { EXIT_LINE_FAILED = 1, EXIT_NOT_RUN = 2 };

const AppOption kOptions[] = {
    {"command", 'c', "LINE", "run LINE without a terminal and print the answer (repeatable)"},
    {"log-stdout", 0, nullptr, "log to standard output, not to the files of log module CLI"},
};

const AppInfo kInfo = {
    "ibp-dt", "[--log-stdout] [-c LINE]...",
    "The debug tool: runs the debug commands of a running ibp-isp. Without -c it\n"
    "opens the interactive command line on the terminal: TAB completes or lists,\n"
    "the arrows edit and recall, a line that begins with \"q\" leaves.",
    kOptions, sizeof(kOptions) / sizeof(kOptions[0]),
    "Exit status: 0; 1 when a -c line was wrong, ambiguous or incomplete or was\n"
    "answered \"operate fail\"; 2 when the service did not answer, the tool could\n"
    "not start, or the command line was bad.\n"};

struct DT_OPTIONS_S {
    bool bLogStdout = false;
    std::vector<const char *> vecLines;
};

int DT_RunLines(const std::vector<const char *> &vecLines)
{
    const unsigned ulIspPort = gastProcCfgInfo[0].usSocketPort;
    if (ISP_CLI_BatchInit() == ISP_CLI_BATCH_NO_ANSWER) {
        AppError(kInfo, "no answer from ibp-isp on 127.0.0.1:%u within %u ms; start ibp-isp first", ulIspPort,
                 ISP_CLI_BATCH_TIMEOUT_MS);
        return EXIT_NOT_RUN;
    }
    int lStatus = 0;
    for (const char *pcLine : vecLines) {
        if (strlen(pcLine) > ISP_CLI_BATCH_LINE_MAX) {
            AppError(kInfo, "line longer than %u characters: %s; shorten it", ISP_CLI_BATCH_LINE_MAX, pcLine);
            lStatus = EXIT_LINE_FAILED;
            continue;
        }
        const u32 ulResult = ISP_CLI_BatchLine(pcLine);
        if (ulResult == ISP_CLI_BATCH_NO_ANSWER) {
            AppError(kInfo, "no answer to \"%s\" within %u ms; see the records of ibp-isp", pcLine,
                     ISP_CLI_BATCH_TIMEOUT_MS);
            return EXIT_NOT_RUN;
        }
        if (ulResult != ISP_CLI_BATCH_DONE)
            lStatus = EXIT_LINE_FAILED;
    }
    return lStatus;
}

// Whether the tool can talk to the service; if not, it has said why.
bool DT_CanStart(bool bInteractive)
{
    const unsigned ulIspPort = gastProcCfgInfo[0].usSocketPort;
    if (bInteractive && isatty(STDIN_FILENO) == 0) {
        AppError(kInfo, "standard input is not a terminal; run the lines with -c LINE instead");
        return false;
    }
    // With no service the prompt would only ever say "Wrong command input!".
    if (!AppDebugToolPortFree(kInfo))
        return false;
    if (!AppUdpPortInUse(static_cast<unsigned short>(ulIspPort))) {
        AppError(kInfo, "no ibp-isp on 127.0.0.1:%u; start ibp-isp first", ulIspPort);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    DT_OPTIONS_S stOpt;
    const int lParsed = AppParseOptions(argc, argv, kInfo, [&](int lKey, const char *pcArg) {
        if (lKey == 'c')
            stOpt.vecLines.push_back(pcArg);
        else
            stOpt.bLogStdout = true;
        return true;
    });
    if (lParsed >= 0)
        return lParsed;
    if (!DT_CanStart(stOpt.vecLines.empty()))
        return EXIT_NOT_RUN;

    if (!AppStartLibrary(kInfo, 1, stOpt.bLogStdout, LOG_LEVEL_INF))
        return EXIT_NOT_RUN;
    // No "DT_CLI" module: the requests go out from this thread, which speaks
    // as the process module of "DT", and nothing is ever sent to the tool.
    int lStatus = 0;
    if (!stOpt.vecLines.empty())
        lStatus = DT_RunLines(stOpt.vecLines);
    else if (ISP_CLI_Init() != 0)
        lStatus = EXIT_NOT_RUN;
    fflush(stdout);
    MOD_SysDestroy();
    IBP_Destroy();
    return lStatus;
}
