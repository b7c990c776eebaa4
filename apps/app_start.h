// app_start.h: how a program of apps/ starts, after app_options.h has read
// its command line: it claims the UDP port of its process for itself, decides
// where its log records go, and starts the library.
//
//   if (!AppClaimPort(kInfo, kAppRowIsp) || !AppStartLibrary(kInfo, 0, &stLog, LOG_LEVEL_INF))
//       return 1;
#ifndef IBP_APPS_APP_START_H
#define IBP_APPS_APP_START_H

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <iterator>
#include <mutex>

#include "app_options.h"

// Rows of the process table: the service and the debug tool.
constexpr u32 kAppRowIsp = 0;
constexpr u32 kAppRowDt = 1;

// Who else may hold the port of a row, for the line that says it is taken.
inline const char *AppPortHolder(u32 ulRow) { return ulRow == kAppRowIsp ? "ibp-isp" : "ibp-dt or ibp-ping"; }

// Claims the UDP port of a row of the process table for the life of this
// process, before the library binds it. The library's socket allows a second
// bind of the same port (SO_REUSEADDR), so two programs would both bind it;
// an abstract Unix socket named after address and port can be bound once
// only, and the kernel drops the name with the process however it ends. The
// descriptor is never closed. False, after its line, when another holds it.
inline bool AppClaimPort(const AppInfo &stInfo, u32 ulRow)
{
    const MOD_PROC_CFG_S &stProc = gastProcCfgInfo[ulRow];
    const unsigned ulPort = stProc.usSocketPort;
    struct sockaddr_un stName {};
    stName.sun_family = AF_UNIX;
    const int lLen = std::snprintf(stName.sun_path + 1, sizeof(stName.sun_path) - 1, "ibp/udp/%s:%u",
                                   stProc.szSocketAddr, ulPort);
    const int lFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const socklen_t ulNameLen = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + 1 + lLen);
    if (lFd >= 0 && bind(lFd, reinterpret_cast<struct sockaddr *>(&stName), ulNameLen) == 0)
        return true;
    const int lErr = errno;
    if (lFd >= 0)
        close(lFd);
    if (lErr == EADDRINUSE)
        AppError(stInfo, "UDP port %u on %s is in use, most likely by another %s; stop it and start again", ulPort,
                 stProc.szSocketAddr, AppPortHolder(ulRow));
    else
        AppError(stInfo, "cannot claim UDP port %u on %s: %s; check the limits on open files and sockets", ulPort,
                 stProc.szSocketAddr, std::strerror(lErr));
    return false;
}

// ---------------------------------------------------------------- log records

// Records that do not go to the library's own files or to standard output
// pass through one of these output functions, from any thread.
struct AppLogSink {
    std::mutex mutex;  // one record and its rotation at a time
    std::string sFile; // DIR/NAME.log, or empty for standard error
};

inline AppLogSink gstAppLogSink;

// Past this size the file becomes NAME.log.1, as the library's files do.
constexpr off_t kAppLogFileMax = 0x40000;

inline void AppWriteAll(int lFd, const char *pcText, size_t ulLen)
{
    while (ulLen != 0) {
        const ssize_t lDone = write(lFd, pcText, ulLen);
        if (lDone < 0 && errno == EINTR)
            continue;
        if (lDone <= 0)
            return;  // a record that cannot be written is lost, as in the library's files
        pcText += lDone;
        ulLen -= static_cast<size_t>(lDone);
    }
}

inline s32 AppLogToStderr(const char *pcText)
{
    AppWriteAll(STDERR_FILENO, pcText, std::strlen(pcText));
    return 0;
}

inline s32 AppLogToFile(const char *pcText)
{
    std::lock_guard<std::mutex> lock(gstAppLogSink.mutex);
    const int lFd = open(gstAppLogSink.sFile.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (lFd < 0)
        return -1;
    AppWriteAll(lFd, pcText, std::strlen(pcText));
    struct stat stFile {};
    const bool bFull = fstat(lFd, &stFile) == 0 && stFile.st_size > kAppLogFileMax;
    close(lFd);
    if (bFull)
        (void)rename(gstAppLogSink.sFile.c_str(), (gstAppLogSink.sFile + ".1").c_str());
    return 0;
}

// Whether the library can write its files under /var/log: the folder (new
// files, rotation) and the files of the modules the programs log on.
inline int AppVarLogError()
{
    if (access("/var/log", W_OK | X_OK) != 0)
        return errno;
    for (const char *pcFile : {"/var/log/ISP_ALG00.log", "/var/log/ISP_CLI00.log"})
        if (access(pcFile, F_OK) == 0 && access(pcFile, W_OK) != 0)
            return errno;
    return 0;
}

// The folder of the user's own records, made below an existing base if
// need be: $XDG_STATE_HOME/ibp or ~/.local/state/ibp. Empty when there is
// none that this user can write.
inline std::string AppUserLogDir()
{
    const char *pcState = std::getenv("XDG_STATE_HOME");
    const char *pcHome = std::getenv("HOME");
    const bool bState = pcState != nullptr && pcState[0] == '/';
    const std::string sBase = bState ? pcState : pcHome != nullptr && pcHome[0] == '/' ? pcHome : "";
    struct stat stBase {};
    if (sBase.empty() || stat(sBase.c_str(), &stBase) != 0 || !S_ISDIR(stBase.st_mode))
        return "";
    static const char *const kBelowHome[] = {".local", "state", "ibp"};
    std::string sDir = sBase;
    for (const char *const *ppcPart = bState ? &kBelowHome[2] : &kBelowHome[0]; ppcPart != std::end(kBelowHome);
         ppcPart++) {
        sDir += std::string("/") + *ppcPart;
        (void)mkdir(sDir.c_str(), 0700);  // one that exists stays as it is
    }
    return access(sDir.c_str(), W_OK | X_OK) == 0 ? sDir : "";
}

// Where the records go unless the user chose: the library's files under
// /var/log, or, where this user cannot write them, the user's own folder
// (else standard error), said once on standard error with the way to choose.
inline void AppResolveLog(const AppInfo &stInfo, AppLogChoice *pstLog)
{
    if (pstLog->enTo != AppLogTo::kDefault)
        return;
    const int lErr = AppVarLogError();
    if (lErr == 0)
        return;
    pstLog->sDir = AppUserLogDir();
    pstLog->enTo = pstLog->sDir.empty() ? AppLogTo::kStderr : AppLogTo::kDir;
    const std::string sWhere = pstLog->sDir.empty() ? "standard error" : pstLog->sDir + "/" + stInfo.pcName + ".log";
    AppError(stInfo, "cannot write the log files under /var/log (%s); records go to %s; choose with --log-dir DIR, "
             "--log-stderr or --log-stdout", std::strerror(lErr), sWhere.c_str());
}

// The log part of the start record for the choice, every module at ulLevel.
inline void AppLogInit(const AppInfo &stInfo, const AppLogChoice &stLog, u32 ulLevel, LOG_INIT_S *pstInit)
{
    static constexpr u32 kModes[] = {LOG_OUTPUT_FILE, LOG_OUTPUT_STDOUT, LOG_OUTPUT_FUNC, LOG_OUTPUT_FUNC};
    pstInit->ulOutputMode = kModes[static_cast<int>(stLog.enTo)];
    pstInit->pfnOutput = stLog.enTo == AppLogTo::kStderr ? AppLogToStderr : AppLogToFile;
    if (stLog.enTo == AppLogTo::kDir)
        gstAppLogSink.sFile = stLog.sDir + "/" + stInfo.pcName + ".log";
    for (u32 &ulModuleLevel : pstInit->aulLevel)
        ulModuleLevel = ulLevel;
}

// Where to look for the records, for the lines that send the user there.
inline std::string AppLogPlace(const AppLogChoice &stLog)
{
    static const char *const kPlaces[] = {"/var/log/ISP_ALG00.log", "standard output", "standard error"};
    return stLog.enTo == AppLogTo::kDir ? gstAppLogSink.sFile : kPlaces[static_cast<int>(stLog.enTo)];
}

// Starts the library as the service (bIsDt 0) or a debug tool process, every
// log module at ulLevel, its records where *pstLog says (resolved here).
// False, after its line on standard error, when it did not start.
inline bool AppStartLibrary(const AppInfo &stInfo, u32 bIsDt, AppLogChoice *pstLog, u32 ulLevel)
{
    AppResolveLog(stInfo, pstLog);
    IBP_INIT_S stInit{};
    stInit.bIsDt = bIsDt;
    AppLogInit(stInfo, *pstLog, ulLevel, &stInit.stLogInit);
    if (IBP_Init(&stInit) == 0)
        return true;
    AppError(stInfo, "the library did not start; see the records in %s", AppLogPlace(*pstLog).c_str());
    return false;
}

#endif  // IBP_APPS_APP_START_H
