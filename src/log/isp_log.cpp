// The log: thresholds, record composition, output to files, stdout or a function.
//
// Concurrency: no file kept open; every call works on its own stack buffers
// and its own descriptor (a heap block only for a record longer than 2 KiB),
// so any thread may log at any time.
// gstLogObj and the module table are read without a lock and written with
// single word stores. The one lock is per log file, round the rotation steps,
// with a lock on the file itself there against other processes.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "ibp/isp_log.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"

IBP_LOG_SOURCE("isp_log");

namespace {

constexpr u32 kRecordMax = 1024;  // 1023 characters and the end mark
constexpr u32 kPlaceMax = 64;     // "file-line", 63 characters and the end mark
constexpr u32 kNameCmpMax = 16;

LOG_MODULE_S g_astLogModule[LOG_MODULE_NUM] = {
    {"BP", "/var/log/ISP_ALG00.log", "/var/log/ISP_ALG01.log", 0x40000},
    {"AE", "/var/log/ISP_ALG00.log", "/var/log/ISP_ALG01.log", 0x40000},
    {"AWB", "/var/log/ISP_ALG00.log", "/var/log/ISP_ALG01.log", 0x40000},
    {"ADN", "/var/log/ISP_ALG00.log", "/var/log/ISP_ALG01.log", 0x40000},
    {"LED", "/var/log/ISP_ALG00.log", "/var/log/ISP_ALG01.log", 0x40000},
    {"AF", "/var/log/ISP_AF00.log", "/var/log/ISP_AF01.log", 0x40000},
    {"AF_CALI", "/var/log/ISP_AF_Cali.log", "/var/log/ISP_AF_Cali01.log", 0},
    {"AF_TEST", "/var/log/AF_Test00.log", "/var/log/AF_Test01.log", 0},
    {"IMG", "/var/log/ISP_IMG00.log", "/var/log/ISP_IMG01.log", 0x40000},
    {"CLI", "/var/log/ISP_CLI00.log", "/var/log/ISP_CLI01.log", 0x40000},
    {"WP", "/var/log/ISP_ALG00.log", "/var/log/ISP_ALG01.log", 0x40000},
    {"FD", "/var/log/ISP_FD00.log", "/var/log/ISP_FD01.log", 0x40000},
};

// One rotation guard per row; rows that share a file use the guard of the
// first row naming that file, so two writers never rotate one file twice.
pthread_mutex_t g_astRotateLock[LOG_MODULE_NUM] = {
    PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
    PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
    PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
    PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
};

// Lock-free reads and writes of single words that other threads change.
template <typename T> T LoadRelaxed(const T &ref) { return __atomic_load_n(&ref, __ATOMIC_RELAXED); }
template <typename T> void StoreRelaxed(T &ref, T value) { __atomic_store_n(&ref, value, __ATOMIC_RELAXED); }

s32 LOG_StdoutOutput(const char *pcText)
{
    fputs(pcText, stdout);
    fflush(stdout);
    return 0;
}

// Records lost since the file last took one, per row as the rotation guards.
u32 g_aulLost[LOG_MODULE_NUM];

// The first row that names the module's file: what rows sharing a file share.
// Asked only when a file is rotated or a record lost, so it is worked out
// each time rather than kept behind a guard that C programs would have to link.
u32 LOG_FileRowOf(u32 ulModule)
{
    for (u32 i = 0; i < ulModule; i++) {
        if (strcmp(g_astLogModule[i].pcFile, g_astLogModule[ulModule].pcFile) == 0)
            return i;
    }
    return ulModule;
}

pthread_mutex_t *LOG_RotateLockOf(u32 ulModule) { return &g_astRotateLock[LOG_FileRowOf(ulModule)]; }

// A lost record is told when it is the first of a run, not once per record;
// the first record that gets through again tells how many the run lost.
void LOG_NoteLost(u32 ulModule, int err)
{
    if (__atomic_fetch_add(&g_aulLost[LOG_FileRowOf(ulModule)], 1u, __ATOMIC_RELAXED) == 0)
        printf("write log file %s failed! errno=%d %s, records are lost until it takes them again\n",
               g_astLogModule[ulModule].pcFile, err, strerror(err));
}

void LOG_NoteWritten(u32 ulModule)
{
    u32 &ulLost = g_aulLost[LOG_FileRowOf(ulModule)];
    if (LoadRelaxed(ulLost) == 0)
        return;
    u32 ulRun = __atomic_exchange_n(&ulLost, 0u, __ATOMIC_RELAXED);
    if (ulRun != 0)
        printf("write log file %s again, %u records lost\n", g_astLogModule[ulModule].pcFile, ulRun);
}

// Moves pcFile to pcBackupFile; fd is the writer's descriptor of the file its
// record went to. Writers that raced over the limit take turns: threads of
// this process at the file's guard, other processes (the debug tool logs to
// the same files) at a lock on the file itself. Each turn rotates only while
// the path still names that file and it is still over the limit: a later
// turn finds the file already rotated and leaves the generation just saved alone.
void LOG_RotateFile(u32 ulModule, int fd)
{
    const LOG_MODULE_S &stRow = g_astLogModule[ulModule];
    pthread_mutex_t *pstLock = LOG_RotateLockOf(ulModule);
    pthread_mutex_lock(pstLock);
    while (flock(fd, LOCK_EX) != 0 && errno == EINTR) {
    }
    struct stat stPath, stOurs;
    u32 ulMaxSize = LoadRelaxed(stRow.ulMaxSize);
    if (stat(stRow.pcFile, &stPath) == 0 && fstat(fd, &stOurs) == 0 && stPath.st_ino == stOurs.st_ino &&
        stPath.st_dev == stOurs.st_dev && ulMaxSize != 0 &&
        static_cast<unsigned long long>(stPath.st_size) > ulMaxSize) {
        (void)unlink(stRow.pcBackupFile);
        (void)rename(stRow.pcFile, stRow.pcBackupFile);
    }
    (void)flock(fd, LOCK_UN);  // not left to close: a child forked meanwhile shares the lock
    pthread_mutex_unlock(pstLock);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

// Expands the record into pcBuf, or into a heap block when it is longer;
// returns the text and its length in *pulLen, or nullptr with errno set when
// the heap is out or an argument does not convert (a wide character with no
// multibyte form). The caller frees the text when it is not pcBuf.
char *LOG_ExpandRecord(char *pcBuf, size_t ulBufLen, size_t *pulLen, const char *pcComposite, va_list args)
{
    va_list again;
    va_copy(again, args);
    int lLen = vsnprintf(pcBuf, ulBufLen, pcComposite, args);
    char *pcText = lLen < 0 ? nullptr : pcBuf;
    if (lLen >= 0 && static_cast<size_t>(lLen) >= ulBufLen) {
        pcText = static_cast<char *>(malloc(static_cast<size_t>(lLen) + 1));
        if (pcText != nullptr)
            (void)vsnprintf(pcText, static_cast<size_t>(lLen) + 1, pcComposite, again);
        else
            errno = ENOMEM;
    }
    va_end(again);
    *pulLen = lLen < 0 ? 0 : static_cast<size_t>(lLen);
    return pcText;
}

// The record in one write. Whatever part of it a short write left (the file
// system is full) is cut off again: with O_APPEND the offset after the write
// is the end of what it wrote, so the record began that many bytes before.
// Only while that is still the file's end, though: a file that has grown past
// it holds another writer's record (or fragment) behind ours, which the cut
// would erase or, were that one cut first, pad with zeros; our fragment then
// stays. A writer appending between the look and the cut is the gap left.
// False with errno set when the record is lost.
bool LOG_WriteWhole(int fd, const char *pcText, size_t ulLen)
{
    ssize_t lDone;
    do {
        lDone = write(fd, pcText, ulLen);
    } while (lDone < 0 && errno == EINTR);
    if (lDone >= 0 && static_cast<size_t>(lDone) == ulLen)
        return true;
    if (lDone < 0)
        return false;
    off_t lEnd = lseek(fd, 0, SEEK_CUR);
    struct stat stInfo;
    if (lDone > 0 && lEnd >= lDone && fstat(fd, &stInfo) == 0 && stInfo.st_size == lEnd)
        (void)ftruncate(fd, lEnd - lDone);
    errno = ENOSPC;  // a regular file takes less than asked only when it has no room
    return false;
}

// One record to the module's file, on a descriptor opened for appending:
// records of several threads or processes never interleave, and no stream
// buffer is set up and torn down for every record.
void LOG_WriteFile(u32 ulModule, const char *pcComposite, va_list args)
{
    const LOG_MODULE_S &stRow = g_astLogModule[ulModule];
    int fd = open(stRow.pcFile, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        int err = errno;
        printf("open log file %s failed! errno=%d %s\n", stRow.pcFile, err, strerror(err));
        return;
    }
    char acBuf[2 * kRecordMax];
    size_t ulLen = 0;
    char *pcText = LOG_ExpandRecord(acBuf, sizeof(acBuf), &ulLen, pcComposite, args);
    bool bWritten = pcText != nullptr && LOG_WriteWhole(fd, pcText, ulLen);
    int err = errno;
    if (pcText != acBuf)
        free(pcText);
    off_t lPos = bWritten ? lseek(fd, 0, SEEK_CUR) : 0;
    if (lPos < 0)
        err = errno;
    if (!bWritten) {
        close(fd);
        LOG_NoteLost(ulModule, err);
        return;
    }
    LOG_NoteWritten(ulModule);
    if (lPos < 0) {
        close(fd);
        printf("ftell failed! errno=%d %s\n", err, strerror(err));
        return;
    }
    u32 ulMaxSize = LoadRelaxed(stRow.ulMaxSize);
    if (ulMaxSize != 0 && static_cast<unsigned long long>(lPos) > ulMaxSize)
        LOG_RotateFile(ulModule, fd);
    close(fd);
}

// Writes the expanded head and the caller's format, still unexpanded, into
// pcOut: one composite format of at most 1023 characters.
// "YYYY-MM-DD HH:MM:SS" of the second tSec, in local time; the text of the
// last second is kept per thread, as most records of a thread fall into the
// second of the one before.
const char *LOG_DateText(time_t tSec)
{
    static __thread time_t tCached = -1;
    static __thread char acCached[64];
    if (tSec != tCached) {
        struct tm stTm;
        localtime_r(&tSec, &stTm);
        snprintf(acCached, sizeof(acCached), "%.4d-%.2d-%.2d %.2d:%.2d:%.2d", stTm.tm_year + 1900, stTm.tm_mon + 1,
                 stTm.tm_mday, stTm.tm_hour, stTm.tm_min, stTm.tm_sec);
        tCached = tSec;
    }
    return acCached;
}

void LOG_ComposeFormat(char (&acOut)[kRecordMax], u32 ulModule, u32 ulLevel,
                       const char *pcSrcFile, const char *pcFunc, s32 lLine,
                       const char *pcFormat)
{
    char acPlace[kPlaceMax];
    snprintf(acPlace, sizeof(acPlace), "%s-%d", pcSrcFile, lLine);

    struct timeval stNow;
    gettimeofday(&stNow, nullptr);
    int lHead = snprintf(acOut, sizeof(acOut), "%s.%.3ld %-20s@%-24s [%3s][%s]", LOG_DateText(stNow.tv_sec),
                         static_cast<long>(stNow.tv_usec / 1000), acPlace, pcFunc, g_apcLogLevelName[ulLevel],
                         g_astLogModule[ulModule].pcName);
    size_t ulUsed = (lHead < 0) ? 0 : (static_cast<size_t>(lHead) < kRecordMax ? static_cast<size_t>(lHead) : kRecordMax - 1);
    size_t ulRoom = kRecordMax - 1 - ulUsed;
    size_t ulFmtLen = strnlen(pcFormat, ulRoom);
    memcpy(acOut + ulUsed, pcFormat, ulFmtLen);
    ulUsed += ulFmtLen;
    if ((ulUsed == 0 || acOut[ulUsed - 1] != '\n') && ulUsed < kRecordMax - 1)
        acOut[ulUsed++] = '\n';
    acOut[ulUsed] = '\0';
}

// A record needs all three texts; a missing one is told, in argument order,
// like the log's other complaints, and the record is dropped.
bool LOG_RefuseNull(const char *pcSrcFile, const char *pcFunc, const char *pcFormat)
{
    const char *pcMissing = pcSrcFile == nullptr ? "pcSrcFile"
                            : pcFunc == nullptr  ? "pcFunc"
                            : pcFormat == nullptr ? "pcFormat"
                                                  : nullptr;
    if (pcMissing != nullptr)
        printf("%s is NULL\n", pcMissing);
    return pcMissing != nullptr;
}

}  // namespace

extern "C" {

LOG_OBJ_S gstLogObj;
const char *const g_apcLogLevelName[LOG_LEVEL_NUM] = {"DBG", "INF", "WRN", "ERR"};
const char *const g_apcOldLogFile[12] = {
    "/tmp/isp_comm00.log", "/tmp/isp_comm01.log", "/tmp/isp_adn00.log", "/tmp/isp_adn01.log",
    "/tmp/isp_ae00.log",   "/tmp/isp_ae01.log",   "/tmp/isp_awb00.log", "/tmp/isp_awb01.log",
    "/tmp/isp_led00.log",  "/tmp/isp_led01.log",  "/tmp/isp_itf00.log", "/tmp/isp_itf01.log",
};

IBP_API void LOG_Pirnt(u32 ulModule, u32 ulLevel, const char *pcSrcFile, const char *pcFunc,
                       s32 lLine, const char *pcFormat, ...)
{
    if (LoadRelaxed(gstLogObj.bInited) == 0) {
        puts("isp log not initialized");
        return;
    }
    if (ulModule >= LOG_MODULE_NUM) {
        printf("module %d invalid, set to BP\n", ulModule);
        ulModule = LOG_MODULE_BP;
    }
    if (ulLevel >= LOG_LEVEL_NUM) {
        printf("level %d invalid, set to INFO\n", ulLevel);
        ulLevel = LOG_LEVEL_INF;
    }
    if (LoadRelaxed(gstLogObj.aulLevel[ulModule]) > ulLevel)
        return;
    if (LOG_RefuseNull(pcSrcFile, pcFunc, pcFormat))
        return;

    char acComposite[kRecordMax];
    LOG_ComposeFormat(acComposite, ulModule, ulLevel, pcSrcFile, pcFunc, lLine, pcFormat);

    va_list args;
    va_start(args, pcFormat);
    if (LoadRelaxed(gstLogObj.ulOutputMode) == LOG_OUTPUT_FILE) {
        LOG_WriteFile(ulModule, acComposite, args);
    } else {
        LOG_OUTPUT_PFN pfnOutput = LoadRelaxed(gstLogObj.pfnOutput);
        if (pfnOutput != nullptr) {
            char acText[kRecordMax];
            memset(acText, 0, sizeof(acText));
            vsnprintf(acText, sizeof(acText), acComposite, args);
            pfnOutput(acText);
        }
    }
    va_end(args);
}

#pragma GCC diagnostic pop

IBP_API u32 IBP_LOG_Init(const LOG_INIT_S *pstInit)
{
    if (pstInit == nullptr) {
        puts("pstInit is NULL!");
        return 1;
    }
    memset(&gstLogObj, 0, sizeof(gstLogObj));
    gstLogObj.ulOutputMode = pstInit->ulOutputMode;
    switch (pstInit->ulOutputMode) {
    case LOG_OUTPUT_FILE:
        gstLogObj.pfnOutput = nullptr;
        break;
    case LOG_OUTPUT_STDOUT:
        gstLogObj.pfnOutput = LOG_StdoutOutput;
        break;
    default:
        gstLogObj.pfnOutput = pstInit->pfnOutput;
        break;
    }
    memcpy(gstLogObj.aulLevel, pstInit->aulLevel, sizeof(gstLogObj.aulLevel));
    StoreRelaxed(gstLogObj.bInited, 1u);
    for (const char *pcOld : g_apcOldLogFile)
        (void)ISP_unlink(pcOld);
    IBP_INF("bp log init success!");
    return 0;
}

IBP_API void IBP_LOG_Destroy(void)
{
    StoreRelaxed(gstLogObj.bInited, 0u);
    StoreRelaxed(gstLogObj.pfnOutput, static_cast<LOG_OUTPUT_PFN>(nullptr));
}

IBP_API u32 IBP_LOG_SetLevelByModule(u32 ulModule, u32 ulLevel)
{
    if (ulModule >= LOG_MODULE_NUM) {
        IBP_ERR("module %d invalid, set to BP", ulModule);
        ulModule = LOG_MODULE_BP;
    }
    if (ulLevel >= LOG_LEVEL_NUM) {
        IBP_ERR("level %d invalid, set to INFO", ulLevel);
        ulLevel = LOG_LEVEL_INF;
    }
    StoreRelaxed(gstLogObj.aulLevel[ulModule], ulLevel);
    IBP_ERR("set module %d log level to %d", ulModule, ulLevel);
    return 0;
}

IBP_API u32 IBP_LOG_SetLevelByName(const char *pcName, u32 ulLevel)
{
    if (pcName == nullptr) {
        IBP_ERR("pcName is NULL");
        return 1;
    }
    if (ulLevel >= LOG_LEVEL_NUM) {
        IBP_ERR("level %d invalid", ulLevel);
        return 1;
    }
    for (u32 i = 0; i < LOG_MODULE_NUM; i++) {
        if (strncasecmp(pcName, g_astLogModule[i].pcName, kNameCmpMax) == 0) {
            StoreRelaxed(gstLogObj.aulLevel[i], ulLevel);
            IBP_INF("set module %s log level to %d", pcName, ulLevel);
            return 0;
        }
    }
    IBP_ERR("module %s not found", pcName);
    return 1;
}

IBP_API u32 IBP_LOG_SetFileSizeByModule(u32 ulModule, u32 ulSize)
{
    if (ulModule >= LOG_MODULE_NUM) {
        IBP_ERR("module %d invalid, set to BP", ulModule);
        ulModule = LOG_MODULE_BP;
    }
    const char *pcFile = g_astLogModule[ulModule].pcFile;
    StoreRelaxed(g_astLogModule[ulModule].ulMaxSize, ulSize);
    for (LOG_MODULE_S &stRow : g_astLogModule) {
        if (strcmp(stRow.pcFile, pcFile) == 0)
            StoreRelaxed(stRow.ulMaxSize, ulSize);
    }
    IBP_ERR("set log file %s size to %u", pcFile, ulSize);
    return 0;
}

}  // extern "C"
