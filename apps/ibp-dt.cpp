// ibp-dt: the debug tool process. Without arguments it opens the interactive
// command line against the running service; with -c it runs lines through
// the same interpreter without a terminal, for scripts and tests.
//
//   ibp-dt [--log-stdout] [-c LINE]...
//
// Exit status with -c: 0, or 1 when a line was Wrong, Ambiguous or
// Incomplete or was answered "operate fail", or 2 when the service did not
// answer (the lines behind it are not tried) or the tool could not start.
#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "debug/isp_cli_priv.h"
#include "ibp/ibp.h"
#include "ibp/ibp_version.h"

namespace {

constexpr char kName[] = "ibp-dt";

constexpr char kUsage[] =
    "usage: ibp-dt [--log-stdout] [-c LINE]...\n"
    "The debug tool of the ibp service: sends command lines to the service\n"
    "process (\"ISP\", 127.0.0.1:7001) and prints its answers.\n"
    "\n"
    "Without -c it opens the interactive command line on the terminal:\n"
    "TAB completes or lists, the arrows edit and recall, a line that begins\n"
    "with \"q\" leaves.\n"
    "\n"
    "  -c LINE        run LINE without a terminal and print the answer;\n"
    "                 may be given more than once, each LINE is one line\n"
    "  --log-stdout   write the log to standard output instead of the files\n"
    "                 of the \"CLI\" log module (/var/log/ISP_CLI00.log)\n"
    "  --help         show this text and exit\n"
    "  --version      show the version and exit\n"
    "\n"
    "Exit status: 0; 1 when a -c line was Wrong, Ambiguous or Incomplete or\n"
    "was answered \"operate fail\"; 2 when the service did not answer, or for\n"
    "a bad option.\n";

enum { EXIT_LINE_FAILED = 1, EXIT_NOT_RUN = 2 };

struct DT_OPTIONS_S {
    bool bLogStdout = false;
    std::vector<const char *> vecLines;
};

// Fills the options; returns -1 to go on, or the exit status.
int DT_ParseOptions(int argc, char **argv, DT_OPTIONS_S *pstOpt)
{
    enum { OPT_LOG_STDOUT = 0x100, OPT_HELP, OPT_VERSION };
    static const option kLongOptions[] = {
        {"log-stdout", no_argument, nullptr, OPT_LOG_STDOUT},
        {"help", no_argument, nullptr, OPT_HELP},
        {"version", no_argument, nullptr, OPT_VERSION},
        {nullptr, 0, nullptr, 0},
    };
    opterr = 0;  // one line of our own instead of getopt's
    for (;;) {
        const int lOpt = getopt_long(argc, argv, ":c:", kLongOptions, nullptr);
        if (lOpt == -1)
            break;
        switch (lOpt) {
        case 'c': pstOpt->vecLines.push_back(optarg); break;
        case OPT_LOG_STDOUT: pstOpt->bLogStdout = true; break;
        case OPT_HELP: fputs(kUsage, stdout); return 0;
        case OPT_VERSION: printf("%s %s\n", kName, IBP_VERSION_STRING); return 0;
        case ':':
            fprintf(stderr, "%s: option '%s' needs a line; try '%s --help'\n", kName, argv[optind - 1], kName);
            return EXIT_NOT_RUN;
        default:
            // optopt: the short option, 0 for an unknown long option, or the
            // value of a long option given a value it does not take.
            if (optopt > 0 && optopt < OPT_LOG_STDOUT)
                fprintf(stderr, "%s: unknown option '-%c'; try '%s --help'\n", kName, optopt, kName);
            else
                fprintf(stderr, "%s: %s option '%s'; try '%s --help'\n", kName, optopt == 0 ? "unknown" : "bad",
                        argv[optind - 1], kName);
            return EXIT_NOT_RUN;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "%s: unexpected argument '%s'; try '%s --help'\n", kName, argv[optind], kName);
        return EXIT_NOT_RUN;
    }
    return -1;
}

int DT_RunLines(const std::vector<const char *> &vecLines)
{
    if (CLI_BatchInit() == CLI_RESULT_NO_ANSWER) {
        fprintf(stderr, "%s: the service did not answer\n", kName);
        return EXIT_NOT_RUN;
    }
    int lStatus = 0;
    for (const char *pcLine : vecLines) {
        if (strlen(pcLine) > CLI_LINE_MAX) {
            fprintf(stderr, "%s: line longer than %u characters: %s\n", kName, CLI_LINE_MAX, pcLine);
            lStatus = EXIT_LINE_FAILED;
            continue;
        }
        const CLI_RESULT_E enResult = CLI_BatchLine(pcLine);
        if (enResult == CLI_RESULT_NO_ANSWER) {
            fprintf(stderr, "%s: the service did not answer: %s\n", kName, pcLine);
            return EXIT_NOT_RUN;
        }
        if (enResult != CLI_RESULT_DONE)
            lStatus = EXIT_LINE_FAILED;
    }
    return lStatus;
}

}  // namespace

int main(int argc, char **argv)
{
    DT_OPTIONS_S stOpt;
    if (int lStatus = DT_ParseOptions(argc, argv, &stOpt); lStatus >= 0)
        return lStatus;
    if (stOpt.vecLines.empty() && isatty(STDIN_FILENO) == 0) {
        fprintf(stderr, "%s: standard input is not a terminal; use -c LINE; try '%s --help'\n", kName, kName);
        return EXIT_NOT_RUN;
    }

    IBP_INIT_S stInit{};
    stInit.bIsDt = 1;
    stInit.stLogInit.ulOutputMode = stOpt.bLogStdout ? LOG_OUTPUT_STDOUT : LOG_OUTPUT_FILE;
    for (u32 &ulLevel : stInit.stLogInit.aulLevel)
        ulLevel = LOG_LEVEL_INF;
    if (IBP_Init(&stInit) != 0) {
        fprintf(stderr, "%s: IBP_Init failed (is another debug tool running?)\n", kName);
        return EXIT_NOT_RUN;
    }
    // No "DT_CLI" module: the requests go out from this thread, which speaks
    // as the process module of "DT", and nothing is sent to the tool.
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
