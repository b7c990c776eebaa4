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
// argument or null; it returns false when the argument is not acceptable,
// and the error line then shows the option's pcAllowed.
//
// Every program also takes the options that choose where its log records go
// (AppLogChoice, read by app_start.h), behind its own in the usage.
#ifndef IBP_APPS_APP_OPTIONS_H
#define IBP_APPS_APP_OPTIONS_H

#include <errno.h>
#include <getopt.h>
#include <sys/stat.h>
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
    const char *pcAllowed = nullptr;  // what the argument may be ("24 to 8143"), for the error line
};

// Where the log records of a program go. kDefault: the files under /var/log
// when they can be written, otherwise a folder of the user's (app_start.h).
enum class AppLogTo { kDefault, kStdout, kStderr, kDir };

struct AppLogChoice {
    AppLogTo enTo = AppLogTo::kDefault;
    std::string sDir;  // with kDir
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
// Keys of the options that every program takes, below kAppLongOnly.
enum : int {
    kAppKeyHelp = kAppLongOnly - 1,
    kAppKeyVersion = kAppLongOnly - 2,
    kAppKeyLogStdout = kAppLongOnly - 5,
    kAppKeyLogStderr = kAppLongOnly - 4,
    kAppKeyLogDir = kAppLongOnly - 3,
};

// The log options, shown behind the program's own.
const AppOption kAppLogOptions[] = {
    {"log-stdout", 0, nullptr, "log records to standard output"},
    {"log-stderr", 0, nullptr, "log records to standard error"},
    {"log-dir", 0, "DIR", "log records to a file named after the program in DIR", "a folder that this user can write"},
};
constexpr int kAppLogKeys[] = {kAppKeyLogStdout, kAppKeyLogStderr, kAppKeyLogDir};
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

// The status to exit with once standard output is flushed: output that was
// lost (a full disk, a closed pipe) fails the run, as in coreutils, with
// one line that says so.
inline int AppFlushed(const AppInfo &stInfo, int lStatus)
{
    errno = 0;
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return lStatus;
    const int lErr = errno;
    AppError(stInfo, "write error%s%s", lErr != 0 ? ": " : "", lErr != 0 ? std::strerror(lErr) : "");
    return lStatus != 0 ? lStatus : 1;
}

// A command line that the program does not accept: one line naming the
// offending word and, if given, what it may be, with the hint to --help.
// Returns the exit status.
inline int AppUsageError(const AppInfo &stInfo, const char *pcWhat, const char *pcWord, const char *pcAllowed = nullptr)
{
    const std::string sAllowed = pcAllowed != nullptr ? std::string(" (") + pcAllowed + ")" : "";
    std::fprintf(stderr, "%s: %s '%s'%s; try '%s --help'\n", stInfo.pcName, pcWhat, pcWord, sAllowed.c_str(),
                 stInfo.pcName);
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
    for (const AppOption &stOpt : kAppLogOptions)
        row(stOpt.cShort, stOpt.pcLong, stOpt.pcArg, stOpt.pcHelp);
    row(0, "help", nullptr, "show this help and exit");
    row(0, "version", nullptr, "show the program's name and the library's version and exit");
    std::printf("\nLog records go to the files under /var/log, or, where this user cannot write\n"
                "them, to ~/.local/state/ibp/%s.log.\n", stInfo.pcName);
    if (stInfo.pcEpilogue != nullptr)
        std::printf("\n%s", stInfo.pcEpilogue);
}

// The option behind a key, from the program's table or the log options.
inline const AppOption *AppFindOption(const AppInfo &stInfo, int lKey)
{
    for (size_t i = 0; i < sizeof(kAppLogKeys) / sizeof(kAppLogKeys[0]); i++)
        if (lKey == kAppLogKeys[i])
            return &kAppLogOptions[i];
    if (lKey >= kAppLongOnly)
        return &stInfo.pstOptions[lKey - kAppLongOnly];
    for (size_t i = 0; i < stInfo.ulOptionNum; i++)
        if (stInfo.pstOptions[i].cShort == lKey)
            return &stInfo.pstOptions[i];
    return nullptr;
}

// A log option into *pstLog; false for a folder that cannot take the records.
inline bool AppTakeLogOption(int lKey, const char *pcArg, AppLogChoice *pstLog)
{
    pstLog->enTo = lKey == kAppKeyLogStdout ? AppLogTo::kStdout : lKey == kAppKeyLogStderr ? AppLogTo::kStderr
                                                                                          : AppLogTo::kDir;
    if (pstLog->enTo != AppLogTo::kDir)
        return true;
    struct stat stDir {};
    pstLog->sDir = pcArg;
    return stat(pcArg, &stDir) == 0 && S_ISDIR(stDir.st_mode) && access(pcArg, W_OK | X_OK) == 0;
}

// getopt_long's tables for the program's options and the common ones.
inline void AppMakeOptionTables(const AppInfo &stInfo, std::vector<struct option> *pvecLong, std::string *psShort)
{
    auto add = [&](const AppOption &stOpt, int lKey) {
        const int lHasArg = stOpt.pcArg != nullptr ? required_argument : no_argument;
        pvecLong->push_back({stOpt.pcLong, lHasArg, nullptr, lKey});
        if (stOpt.cShort != 0)
            *psShort += std::string(1, stOpt.cShort) + (lHasArg == required_argument ? ":" : "");
    };
    *psShort = ":";  // a missing argument comes back as ':'
    for (size_t i = 0; i < stInfo.ulOptionNum; i++) {
        const AppOption &stOpt = stInfo.pstOptions[i];
        add(stOpt, stOpt.cShort != 0 ? stOpt.cShort : kAppLongOnly + static_cast<int>(i));
    }
    for (size_t i = 0; i < sizeof(kAppLogKeys) / sizeof(kAppLogKeys[0]); i++)
        add(kAppLogOptions[i], kAppLogKeys[i]);
    pvecLong->push_back({"help", no_argument, nullptr, kAppKeyHelp});
    pvecLong->push_back({"version", no_argument, nullptr, kAppKeyVersion});
    pvecLong->push_back({nullptr, 0, nullptr, 0});
}

// An argument that the option refused: named as the user wrote the option,
// "-n" or "--count", with what it may be.
inline int AppRefusedArgument(const AppInfo &stInfo, int lKey, const char *pcWord, const char *pcArg)
{
    const AppOption *pstOpt = AppFindOption(stInfo, lKey);
    const bool bLong = std::strncmp(pcWord, "--", 2) == 0 || pstOpt->cShort == 0;
    const std::string sName = bLong ? std::string("--") + pstOpt->pcLong : std::string("-") + pstOpt->cShort;
    const std::string sWhat = std::string("invalid argument '") + (pcArg != nullptr ? pcArg : "") + "' to";
    return AppUsageError(stInfo, sWhat.c_str(), sName.c_str(), pstOpt->pcAllowed);
}

// Parses argv with getopt_long. Returns -1 when the program is to run on,
// otherwise the status to exit with: 0 after --help or --version, 2 after a
// bad option, a missing or refused argument, or a word that is no option.
// pfnOnOption(key, argument) is called for every option of the table in the
// order of the command line; the log options go to *pstLog.
template <typename OnOption>
int AppParseOptions(int argc, char **argv, const AppInfo &stInfo, AppLogChoice *pstLog, OnOption pfnOnOption)
{
    std::vector<struct option> longopts;
    std::string shortopts;
    AppMakeOptionTables(stInfo, &longopts, &shortopts);
    opterr = 0;
    optind = 1;
    for (;;) {
        int lPrev = optind;
        int lKey = getopt_long(argc, argv, shortopts.c_str(), longopts.data(), nullptr);
        if (lKey == -1)
            break;
        // The word that getopt looked at; for a cluster of letters, the cluster.
        const char *pcWord = argv[optind > lPrev ? optind - 1 : lPrev];
        if (lKey == kAppKeyHelp) {
            AppPrintUsage(stInfo);
            return AppFlushed(stInfo, 0);
        }
        if (lKey == kAppKeyVersion) {
            std::printf("%s %s\n", stInfo.pcName, IBP_VERSION_STRING);
            return AppFlushed(stInfo, 0);
        }
        if (lKey == '?') {
            if (optopt != 0 && optopt < 0x80 && std::strncmp(pcWord, "--", 2) != 0)
                return AppUsageError(stInfo, "unknown option", (std::string("-") + static_cast<char>(optopt)).c_str());
            return AppUsageError(stInfo, "unknown option", pcWord);
        }
        if (lKey == ':')
            return AppUsageError(stInfo, "missing argument to", pcWord);
        const bool bLogKey = lKey >= kAppKeyLogStdout && lKey <= kAppKeyLogDir;
        // With its argument in a word of its own, the option is the word before.
        const bool bOwnWord = optarg != nullptr && optind >= 2 && optarg == argv[optind - 1];
        if (!(bLogKey ? AppTakeLogOption(lKey, optarg, pstLog) : pfnOnOption(lKey, optarg)))
            return AppRefusedArgument(stInfo, lKey, bOwnWord ? argv[optind - 2] : pcWord, optarg);
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

#endif  // IBP_APPS_APP_OPTIONS_H
