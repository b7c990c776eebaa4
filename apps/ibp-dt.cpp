// ibp-dt: the debug tool process. Without -c it opens the interactive
// command line against the running service; with -c it runs lines through
// the same interpreter without a terminal, for scripts and tests.
//
//   ibp-dt [--bare-keys] [LOG OPTION] [-c LINE]...
//   ibp-dt --monitor [--module NAME] [--count N] [LOG OPTION]
//
// Exit status with -c: 0, or 1 when a line was Wrong, Ambiguous or
// Incomplete or was answered "operate fail", or 2 when the service did not
// answer (the lines behind it are not tried). 1 as well when the tool could
// not start, and 2 for a bad command line.
#include <fcntl.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "app_start.h"
#include "dt_monitor.h"
#include "ibp/ibp.h"

namespace {

enum { EXIT_LINE_FAILED = 1, EXIT_NOT_STARTED = 1, EXIT_NO_ANSWER = 2 };

const AppOption kOptions[] = {
    {"command", 'c', "LINE", "run LINE without a terminal and print the answer (repeatable)"},
    {"bare-keys", 0, nullptr, "keys as the library's table has them: 0x7F deletes under the cursor,\n"
                                          "                           no Delete key, Ctrl-D does nothing"},
    {"monitor", 0, nullptr, "print one line per message that ibp-isp routes, as it happens"},
    {"module", 0, "NAME", "with --monitor: only messages from or to the module NAME", "a module of the table"},
    {"count", 0, "N", "with --monitor: end after N lines", "1 to 4294967295"},
};
enum { kKeyBareKeys = kAppLongOnly + 1, kKeyMonitor, kKeyModule, kKeyCount };

const AppInfo kInfo = {
    "ibp-dt", "[--bare-keys] [--log-stdout | --log-stderr | --log-dir DIR] [-c LINE]...\n"
    "       ibp-dt --monitor [--module NAME] [--count N] [--log-stdout | --log-stderr | --log-dir DIR]",
    "The debug tool: runs the debug commands of a running ibp-isp. Without -c it\n"
    "opens the interactive command line on the terminal: TAB completes or lists,\n"
    "\"?\" lists, the arrows edit and recall, a line that begins with \"q\" or\n"
    "Ctrl-D on an empty line leaves.",
    kOptions, sizeof(kOptions) / sizeof(kOptions[0]),
    "With --monitor it prints a line for every message that the service's runtime\n"
    "routes (time, source -> destination, type, identifier, body length) until\n"
    "--count lines, Ctrl-C, or a service that stops answering.\n\n"
    "Exit status: 0; 1 when a -c line was wrong, ambiguous or incomplete or was\n"
    "answered \"operate fail\", or the tool could not start, or the monitor's\n"
    "service stopped answering; 2 when the service did not answer a -c line, or\n"
    "the command line was bad.\n"};

struct DT_OPTIONS_S {
    bool bBareKeys = false;
    bool bMonitor = false;
    const char *pcModule = "";
    u32 ulCount = 0;
    AppLogChoice stLog;
    std::vector<const char *> vecLines;
};

int DT_RunLines(const std::vector<const char *> &vecLines)
{
    const MOD_PROC_CFG_S &stIsp = gastProcCfgInfo[kAppRowIsp];
    ISP_CLI_BatchInit();
    int lStatus = 0;
    for (const char *pcLine : vecLines) {
        if (strlen(pcLine) > ISP_CLI_BATCH_LINE_MAX) {
            AppError(kInfo, "line longer than %u characters: %s; shorten it", ISP_CLI_BATCH_LINE_MAX, pcLine);
            lStatus = EXIT_LINE_FAILED;
            continue;
        }
        const u32 ulResult = ISP_CLI_BatchLine(pcLine);
        if (ulResult == ISP_CLI_BATCH_NO_ANSWER) {
            AppError(kInfo, "no answer from ibp-isp on %s:%u within %u ms to \"%s\"; check that it runs, then run "
                     "the line again", stIsp.szSocketAddr, static_cast<unsigned>(stIsp.usSocketPort),
                     ISP_CLI_BATCH_TIMEOUT_MS, pcLine);
            return EXIT_NO_ANSWER;
        }
        if (ulResult != ISP_CLI_BATCH_DONE)
            lStatus = EXIT_LINE_FAILED;
    }
    return lStatus;
}

// The terminal and the flags of standard input as they were before the
// editor made them raw, for a signal that ends the tool while it runs.
struct termios gstDtTerm;
int glDtInFlags = -1;

// Async-signal-safe calls only: the terminal put back, then the default
// action of the signal (SA_RESETHAND), so that the tool dies of it as before.
void DT_RestoreAndDie(int lSig)
{
    (void)tcsetattr(STDIN_FILENO, TCSANOW, &gstDtTerm);
    (void)fcntl(STDIN_FILENO, F_SETFL, glDtInFlags);
    (void)raise(lSig);
}

// The editor puts the terminal back only when it returns; these signals end
// the tool without that. Ctrl-C stays a key in raw mode, and a SIGINT sent
// from elsewhere is taken as the others are.
void DT_GuardTerminal()
{
    glDtInFlags = fcntl(STDIN_FILENO, F_GETFL);
    if (glDtInFlags == -1 || tcgetattr(STDIN_FILENO, &gstDtTerm) != 0)
        return;
    struct sigaction stAct {};
    stAct.sa_handler = DT_RestoreAndDie;
    stAct.sa_flags = SA_RESETHAND;
    for (int lSig : {SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGINT})
        sigaction(lSig, &stAct, nullptr);
}

}  // namespace

int main(int argc, char **argv)
{
    DT_OPTIONS_S stOpt;
    const int lParsed = AppParseOptions(argc, argv, kInfo, &stOpt.stLog, [&](int lKey, const char *pcArg) {
        switch (lKey) {
            case 'c':
                stOpt.vecLines.push_back(pcArg);
                return true;
            case kKeyMonitor:
                stOpt.bMonitor = true;
                return true;
            case kKeyModule:
                stOpt.pcModule = pcArg;
                return DT_IsModuleName(pcArg);
            case kKeyCount:
                return AppParseU32(pcArg, 1, 0xFFFFFFFFul, &stOpt.ulCount);
            default:
                stOpt.bBareKeys = true;
                return true;
        }
    });
    if (lParsed >= 0)
        return lParsed;
    if (stOpt.bMonitor && !stOpt.vecLines.empty())
        return AppUsageError(kInfo, "--monitor does not take", "-c");
    if (!stOpt.bMonitor && (stOpt.pcModule[0] != '\0' || stOpt.ulCount != 0))
        return AppUsageError(kInfo, "without --monitor there is no use for", stOpt.ulCount != 0 ? "--count" : "--module");
    if (!stOpt.bMonitor && stOpt.vecLines.empty() && isatty(STDIN_FILENO) == 0) {
        AppError(kInfo, "standard input is not a terminal; run the lines with -c LINE instead");
        return EXIT_NOT_STARTED;
    }
    if (stOpt.bMonitor)
        return AppFlushed(kInfo, DT_Monitor(kInfo, stOpt.pcModule, stOpt.ulCount));
    // Without a service the tool still starts: the first line says so, and
    // fetches the tree once the service answers.
    if (!AppClaimPort(kInfo, kAppRowDt) || !AppStartLibrary(kInfo, 1, &stOpt.stLog, LOG_LEVEL_INF))
        return EXIT_NOT_STARTED;
    // No "DT_CLI" module: the requests go out from this thread, which speaks
    // as the process module of "DT", and nothing is ever sent to the tool.
    ISP_CLI_ToolOn(stOpt.bBareKeys ? 0 : 1);
    if (stOpt.vecLines.empty())
        DT_GuardTerminal();
    int lStatus = 0;
    // Answers that were lost fail a run of lines; a terminal that hangs up
    // ends the interactive tool as "q" does.
    if (!stOpt.vecLines.empty())
        lStatus = AppFlushed(kInfo, DT_RunLines(stOpt.vecLines));
    else if (ISP_CLI_Init() != 0) {
        AppError(kInfo, "no memory for the command tree; close other programs and start again");
        lStatus = EXIT_NOT_STARTED;
    }
    fflush(stdout);
    MOD_SysDestroy();
    IBP_Destroy();
    return lStatus;
}
