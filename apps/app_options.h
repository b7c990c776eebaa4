// app_options.h: the command-line conventions that every program in apps/
// shares, so that they all answer alike:
//
//   --help      usage on standard output, exit 0
//   --version   "NAME VERSION" (the library's version) on standard output, exit 0
//   bad option  one line naming it and a hint to --help on standard error, exit 2
//
// and an error that stops a program is one line on standard error that says
// what happened and what to do ("NAME: WHAT; HINT").
//
// A program describes its options in a table of AppOption and hands each
// option that it parses to a function of its own:
//
//   const AppOption kOptions[] = {
//       {"count", 'n', "COUNT", "records to send (default 100)"},
//       {"log-stdout", 0, nullptr, "log to standard output instead of /var/log"},
//   };
//   const AppInfo kInfo = {"ibp-ping", "[OPTION]...", "Sends records to ibp-isp.", kOptions, 2, nullptr};
//   int status = AppParseOptions(argc, argv, kInfo, [&](int key, const char *arg) { ... return true; });
//   if (status >= 0) return status;
//
// The function gets the short letter of the option as key (or, for an
// option with no letter, kAppLongOnly plus its index in the table) and the
// argument or null; it returns false when the argument is not acceptable.
#ifndef IBP_APPS_APP_OPTIONS_H
#define IBP_APPS_APP_OPTIONS_H

#include <arpa/inet.h>
#include <errno.h>
#include <getopt.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ibp/ibp.h"
#include "ibp/ibp_version.h"

// One option of a program. pcArg names the argument in the usage ("COUNT"),
// or is null for an option that takes none.
struct AppOption {
    const char *pcLong;  // without the leading "--"
    char cShort;         // 0 when the option has no one-letter form
    const char *pcArg;
    const char *pcHelp;
};

// What --help shows: "Usage: NAME SYNOPSIS", the purpose, the options
// (--help and --version added behind the program's own), then the epilogue
// (exit statuses, files), which may be null.
struct AppInfo {
    const char *pcName;
    const char *pcSynopsis;
    const char *pcPurpose;
    const AppOption *pstOptions;
    size_t ulOptionNum;
    const char *pcEpilogue;
};

// Key of an option without a one-letter form: this plus its index in the table.
constexpr int kAppLongOnly = 0x1000;
// Exit status of a command line that the program does not accept.
constexpr int kAppUsageStatus = 2;

// One line on standard error, "NAME: TEXT", for errors that stop the program:
// the text says what happened and, behind a semicolon, what to do about it.
inline void AppError(const AppInfo &stInfo, const char *pcFormat, ...) __attribute__((format(printf, 2, 3)));
inline void AppError(const AppInfo &stInfo, const char *pcFormat, ...)
{
    va_list args;
    va_start(args, pcFormat);
    std::string line = std::string(stInfo.pcName) + ": " + pcFormat + "\n";
    std::vfprintf(stderr, line.c_str(), args);
    va_end(args);
}

// A command line that the program does not accept: one line naming the
// offending word, with the hint to --help. Returns the exit status.
inline int AppUsageError(const AppInfo &stInfo, const char *pcWhat, const char *pcWord)
{
    std::fprintf(stderr, "%s: %s '%s'; try '%s --help'\n", stInfo.pcName, pcWhat, pcWord, stInfo.pcName);
    return kAppUsageStatus;
}

inline void AppPrintUsage(const AppInfo &stInfo)
{
    std::printf("Usage: %s %s\n%s\n\nOptions:\n", stInfo.pcName, stInfo.pcSynopsis, stInfo.pcPurpose);
    auto row = [](char cShort, const char *pcLong, const char *pcArg, const char *pcHelp) {
        std::string left = cShort != 0 ? std::string("  -") + cShort + ", --" : std::string("      --");
        left += pcLong;
        if (pcArg != nullptr)
            left += std::string(" ") + pcArg;
        std::printf("%-26s %s\n", left.c_str(), pcHelp);
    };
    for (size_t i = 0; i < stInfo.ulOptionNum; i++) {
        const AppOption &stOpt = stInfo.pstOptions[i];
        row(stOpt.cShort, stOpt.pcLong, stOpt.pcArg, stOpt.pcHelp);
    }
    row(0, "help", nullptr, "show this help and exit");
    row(0, "version", nullptr, "show the program's name and the library's version and exit");
    if (stInfo.pcEpilogue != nullptr)
        std::printf("\n%s", stInfo.pcEpilogue);
}

// Parses argv with getopt_long. Returns -1 when the program is to run on,
// otherwise the status to exit with: 0 after --help or --version, 2 after a
// bad option, a missing or refused argument, or a word that is no option.
// pfnOnOption(key, argument) is called for every option of the table in the
// order of the command line.
template <typename OnOption>
int AppParseOptions(int argc, char **argv, const AppInfo &stInfo, OnOption pfnOnOption)
{
    constexpr int kHelp = kAppLongOnly - 1;
    constexpr int kVersion = kAppLongOnly - 2;
    std::vector<struct option> longopts;
    std::string shortopts = ":";  // a missing argument comes back as ':'
    for (size_t i = 0; i < stInfo.ulOptionNum; i++) {
        const AppOption &stOpt = stInfo.pstOptions[i];
        int lHasArg = stOpt.pcArg != nullptr ? required_argument : no_argument;
        int lKey = stOpt.cShort != 0 ? stOpt.cShort : kAppLongOnly + static_cast<int>(i);
        longopts.push_back({stOpt.pcLong, lHasArg, nullptr, lKey});
        if (stOpt.cShort != 0)
            shortopts += std::string(1, stOpt.cShort) + (lHasArg == required_argument ? ":" : "");
    }
    longopts.push_back({"help", no_argument, nullptr, kHelp});
    longopts.push_back({"version", no_argument, nullptr, kVersion});
    longopts.push_back({nullptr, 0, nullptr, 0});

    opterr = 0;
    optind = 1;
    for (;;) {
        int lPrev = optind;
        int lKey = getopt_long(argc, argv, shortopts.c_str(), longopts.data(), nullptr);
        if (lKey == -1)
            break;
        // The word that getopt looked at; for a cluster of letters, the cluster.
        const char *pcWord = argv[optind > lPrev ? optind - 1 : lPrev];
        if (lKey == kHelp) {
            AppPrintUsage(stInfo);
            return 0;
        }
        if (lKey == kVersion) {
            std::printf("%s %s\n", stInfo.pcName, IBP_VERSION_STRING);
            return 0;
        }
        if (lKey == '?') {
            if (optopt != 0 && optopt < 0x80 && std::strncmp(pcWord, "--", 2) != 0)
                return AppUsageError(stInfo, "unknown option", (std::string("-") + static_cast<char>(optopt)).c_str());
            return AppUsageError(stInfo, "unknown option", pcWord);
        }
        if (lKey == ':')
            return AppUsageError(stInfo, "missing argument to", pcWord);
        if (!pfnOnOption(lKey, optarg)) {
            std::string what = std::string("invalid argument '") + (optarg != nullptr ? optarg : "") + "' to";
            std::string name = lKey < kAppLongOnly ? std::string("-") + static_cast<char>(lKey)
                                                   : std::string("--") + stInfo.pstOptions[lKey - kAppLongOnly].pcLong;
            return AppUsageError(stInfo, what.c_str(), name.c_str());
        }
    }
    if (optind < argc)
        return AppUsageError(stInfo, "unexpected argument", argv[optind]);
    return -1;
}

// Reads a whole unsigned number within [ulMin, ulMax] (decimal, 0x hex).
inline bool AppParseU32(const char *pcText, unsigned long ulMin, unsigned long ulMax, unsigned *pulValue)
{
    if (pcText == nullptr || *pcText == '\0' || *pcText == '-')
        return false;
    char *pcEnd = nullptr;
    errno = 0;
    unsigned long ulValue = std::strtoul(pcText, &pcEnd, 0);
    if (errno != 0 || *pcEnd != '\0' || ulValue < ulMin || ulValue > ulMax)
        return false;
    *pulValue = static_cast<unsigned>(ulValue);
    return true;
}

// True when UDP port usPort on 127.0.0.1 is held by another socket. The
// library's socket allows a second bind of the same port, so a program
// asks before it starts the library, with a socket that does not.
inline bool AppUdpPortInUse(unsigned short usPort)
{
    int lSock = socket(AF_INET, SOCK_DGRAM, 0);
    if (lSock < 0)
        return false;
    struct sockaddr_in stAddr {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_port = htons(usPort);
    stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool bInUse = bind(lSock, reinterpret_cast<struct sockaddr *>(&stAddr), sizeof(stAddr)) != 0 && errno == EADDRINUSE;
    close(lSock);
    return bInUse;
}

// A debug tool process (ibp-dt, ibp-ping) needs the port of "DT" for itself:
// the answers of the service would otherwise go astray. False, after its
// line on standard error, when another holds it.
inline bool AppDebugToolPortFree(const AppInfo &stInfo)
{
    const unsigned ulPort = gastProcCfgInfo[1].usSocketPort;  // the row of "DT"
    if (!AppUdpPortInUse(static_cast<unsigned short>(ulPort)))
        return true;
    AppError(stInfo, "UDP port %u on 127.0.0.1 is in use by another debug tool (ibp-dt or ibp-ping); "
             "let it finish or stop it, then try again", ulPort);
    return false;
}

// Starts the library as the service (bIsDt 0) or a debug tool process, every
// log module at ulLevel, to the files under /var/log or to standard output.
// False, after its line on standard error, when it did not start.
inline bool AppStartLibrary(const AppInfo &stInfo, u32 bIsDt, bool bLogStdout, u32 ulLevel)
{
    IBP_INIT_S stInit{};
    stInit.bIsDt = bIsDt;
    stInit.stLogInit.ulOutputMode = bLogStdout ? LOG_OUTPUT_STDOUT : LOG_OUTPUT_FILE;
    for (u32 &ulModuleLevel : stInit.stLogInit.aulLevel)
        ulModuleLevel = ulLevel;
    if (IBP_Init(&stInit) == 0)
        return true;
    AppError(stInfo, "the library did not start; see the records of /var/log/ISP_ALG00.log (or run with --log-stdout)");
    return false;
}

#endif  // IBP_APPS_APP_OPTIONS_H
