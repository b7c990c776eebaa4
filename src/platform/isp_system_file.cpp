// ISP_ layer, functions with logic of their own: file copy, recursive make and
// remove of directories, bounded string searches, number/text conversions,
// 64-bit byte order and time. No state, no lock, no log.
#include <sys/select.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "platform/isp_system_internal.h"

IBP_LOG_SOURCE("isp_system");

namespace ibp::platform {

namespace {

constexpr size_t kCopyChunk = 1024;
constexpr size_t kPathBufSize = 256;
constexpr size_t kPathMaxLen = kPathBufSize - 1;

constexpr s32 kMsPerSec = 1000;
constexpr long kUsPerMs = 1000;
constexpr long kNsPerMs = 1000000L;

// Closes a stream when the scope ends.
class FileGuard {
public:
    explicit FileGuard(FILE *pFile) : pFile_(pFile) {}
    ~FileGuard()
    {
        if (pFile_ != nullptr)
            ISP_fclose(pFile_);
    }
    FileGuard(const FileGuard &) = delete;
    FileGuard &operator=(const FileGuard &) = delete;
    FILE *get() const { return pFile_; }

private:
    FILE *pFile_;
};

// Closes a directory stream when the scope ends.
class DirGuard {
public:
    explicit DirGuard(DIR *pDir) : pDir_(pDir) {}
    ~DirGuard()
    {
        if (pDir_ != nullptr)
            ISP_closedir(pDir_);
    }
    DirGuard(const DirGuard &) = delete;
    DirGuard &operator=(const DirGuard &) = delete;
    DIR *get() const { return pDir_; }
    // Closes now; the guard then has nothing left to do.
    int close()
    {
        DIR *pDir = pDir_;
        pDir_ = nullptr;
        return ISP_closedir(pDir);
    }

private:
    DIR *pDir_;
};

// The broken-down fields from tm_sec to tm_isdst; tm_gmtoff and tm_zone of
// the destination are left alone.
void CopyTmFields(const struct tm &src, struct tm *pstDst)
{
    pstDst->tm_sec = src.tm_sec;
    pstDst->tm_min = src.tm_min;
    pstDst->tm_hour = src.tm_hour;
    pstDst->tm_mday = src.tm_mday;
    pstDst->tm_mon = src.tm_mon;
    pstDst->tm_year = src.tm_year;
    pstDst->tm_wday = src.tm_wday;
    pstDst->tm_yday = src.tm_yday;
    pstDst->tm_isdst = src.tm_isdst;
}

using BrokenDownFn = struct tm *(*)(const time_t *);

struct tm BrokenDown(BrokenDownFn pfnConvert, const time_t *pTime)
{
    struct tm stOut {};
    if (pTime == nullptr)
        return stOut;
    const struct tm *pstLibc = pfnConvert(pTime);
    if (pstLibc != nullptr)
        CopyTmFields(*pstLibc, &stOut);
    return stOut;
}

// Shared scan of ISP_strnstr (first match) and ISP_strlstr (last match).
template <bool kLast>
char *FindPattern(const char *pcStr, const char *pcSub, u32 ulLen)
{
    if (pcStr == nullptr || pcSub == nullptr)
        return nullptr;
    const size_t ulTextLen = strlen(pcStr);
    if (ulTextLen < ulLen)
        return nullptr;
    const char *pcFound = nullptr;
    for (size_t i = 0; i <= ulTextLen - ulLen; ++i) {
        if (memcmp(pcStr + i, pcSub, ulLen) == 0) {
            pcFound = pcStr + i;
            if (!kLast)
                break;
        }
    }
    return const_cast<char *>(pcFound);
}

timespec ToTimespec(const ISP_TIMESPEC_S &stIn)
{
    timespec ts{};
    ts.tv_sec = stIn.lSec;
    ts.tv_nsec = stIn.lNanoSec;
    return ts;
}

ISP_TIMESPEC_S FromTimespec(const timespec &ts)
{
    ISP_TIMESPEC_S st{};
    st.lNanoSec = ts.tv_nsec;
    st.lSec = ts.tv_sec;
    return st;
}

// Builds "<dir>/<name>" in szOut. A result that would not fit is refused
// rather than cut short: a cut name could name another file.
bool JoinPath(char (&szOut)[kPathBufSize], const char *pcDir, const char *pcName)
{
    const size_t ulDirLen = strlen(pcDir);
    const bool bSlash = ulDirLen > 0 && pcDir[ulDirLen - 1] == '/';
    const size_t ulTotal = ulDirLen + (bSlash ? 0 : 1) + strlen(pcName);
    if (ulTotal > kPathMaxLen)
        return false;
    memset(szOut, 0, sizeof(szOut));
    ISP_strncpy(szOut, pcDir, kPathBufSize);
    if (!bSlash)
        ISP_strncat(szOut, "/", kPathMaxLen - strlen(szOut));
    ISP_strncat(szOut, pcName, kPathMaxLen - strlen(szOut));
    return true;
}

bool IsDotEntry(const char *pcName)
{
    return strcmp(pcName, ".") == 0 || strcmp(pcName, "..") == 0;
}

}  // namespace

s32 RmdirTree(const char *pcPath, const s32 *plPauseMs, PauseFn pfnPause)
{
    // The path and everything built on it must fit the 256-byte buffers.
    if (pcPath == nullptr || strnlen(pcPath, kPathBufSize) > kPathMaxLen)
        return -1;

    DirGuard dir(ISP_opendir(pcPath));
    if (dir.get() == nullptr)
        return -1;

    char szEntry[kPathBufSize] = {};
    while (const struct dirent *pstEnt = ISP_readdir(dir.get())) {
        if (IsDotEntry(pstEnt->d_name))
            continue;
        if (!JoinPath(szEntry, pcPath, pstEnt->d_name))
            return -1;

        // stat follows links, so a dangling link stops the removal.
        struct stat stInfo {};
        if (ISP_stat(szEntry, &stInfo) != 0)
            return -1;

        // A link to a directory is removed itself; its target is not emptied.
        bool bDescend = S_ISDIR(stInfo.st_mode);
        if (bDescend) {
            struct stat stLink {};
            if (ISP_lstat(szEntry, &stLink) != 0)
                return -1;
            bDescend = !S_ISLNK(stLink.st_mode);
        }

        const s32 lRet = bDescend ? RmdirTree(szEntry, plPauseMs, pfnPause) : ISP_remove(szEntry);
        if (lRet != 0)
            return -1;
        if (plPauseMs != nullptr)
            (void)pfnPause(*plPauseMs);
    }

    dir.close();
    return rmdir(pcPath) == 0 ? 0 : -1;
}

}  // namespace ibp::platform

extern "C" {

// ---------------------------------------------------------------- files and directories

IBP_API s32 ISP_copy(const char *pcSrc, const char *pcDst)
{
    using namespace ibp::platform;
    if (pcSrc == nullptr || pcDst == nullptr)
        return -1;
    FileGuard src(ISP_fopen(pcSrc, "rb"));
    if (src.get() == nullptr)
        return -1;
    FileGuard dst(ISP_fopen(pcDst, "wb+"));
    if (dst.get() == nullptr)
        return -1;

    unsigned char aucBuf[kCopyChunk];
    // A read error ends the loop like the end of the file.
    for (;;) {
        const size_t ulRead = ISP_fread(aucBuf, 1, sizeof(aucBuf), src.get());
        if (ulRead == 0)
            break;
        if (ISP_fwrite(aucBuf, 1, ulRead, dst.get()) != ulRead)
            return -1;
    }
    return 0;
}

IBP_API s32 ISP_mkdir(const char *pcPath, u32 ulMode)
{
    using namespace ibp::platform;
    if (pcPath == nullptr || pcPath[0] == '\0')
        return 0;

    size_t ulPos = 0;
    while (pcPath[ulPos] == '/')
        ++ulPos;
    if (pcPath[ulPos] == '\0')
        return 0;

    char szPrefix[kPathBufSize];
    for (;;) {
        // The prefix runs up to the next '/' or the end of the text; a doubled
        // slash gives a prefix ending in '/', which mkdir finds existing.
        const size_t ulEnd = static_cast<size_t>(strchrnul(pcPath + ulPos, '/') - pcPath);
        if (ulEnd > kPathMaxLen)
            return -1;
        memset(szPrefix, 0, sizeof(szPrefix));
        memcpy(szPrefix, pcPath, ulEnd);

        if (mkdir(szPrefix, static_cast<mode_t>(ulMode)) != 0 && errno != EEXIST)
            return -1;
        struct stat stInfo {};
        if (ISP_stat(szPrefix, &stInfo) != 0 || !S_ISDIR(stInfo.st_mode))
            return -1;

        if (pcPath[ulEnd] == '\0')
            return 0;
        ulPos = ulEnd + 1;
        if (pcPath[ulPos] == '\0')
            return 0;
    }
}

IBP_API s32 ISP_rmdir(const char *pcPath, const s32 *plPauseMs)
{
    return ibp::platform::RmdirTree(pcPath, plPauseMs, ISP_msleep);
}

// ---------------------------------------------------------------- strings

IBP_API char *ISP_strnstr(const char *pcStr, const char *pcSub, u32 ulLen)
{
    return ibp::platform::FindPattern<false>(pcStr, pcSub, ulLen);
}

IBP_API char *ISP_strlstr(const char *pcStr, const char *pcSub, u32 ulLen)
{
    return ibp::platform::FindPattern<true>(pcStr, pcSub, ulLen);
}

IBP_API char *ISP_strnchr(const char *pcStr, s32 lChar, u32 ulLen)
{
    if (pcStr == nullptr)
        return nullptr;
    const auto *pucStr = reinterpret_cast<const unsigned char *>(pcStr);
    for (u32 i = 0; i < ulLen; ++i) {
        if (static_cast<s32>(pucStr[i]) == lChar)
            return const_cast<char *>(pcStr + i);
    }
    return nullptr;
}

// ---------------------------------------------------------------- conversions

IBP_API char *ISP_ltoa(s32 lValue, char *pcBuf, s32 lRadix)
{
    constexpr s32 kMaxRadix = 36;
    if (pcBuf == nullptr)
        return nullptr;
    if (lValue == 0) {
        pcBuf[0] = '0';
        pcBuf[1] = '\0';
        return pcBuf;
    }
    // Radix 0 would divide by zero and radix 1 would never end.
    if (lRadix < 2 || lRadix > kMaxRadix)
        return nullptr;

    char *pcDigits = pcBuf;
    // Negative numbers are signed only in base 10, where the magnitude is
    // taken in unsigned arithmetic so that the smallest value works too. In
    // other bases the 32-bit two's complement pattern is written, as the
    // digits of a signed division would be no digits at all.
    u32 ulMag = static_cast<u32>(lValue);
    if (lValue < 0 && lRadix == 10) {
        *pcDigits++ = '-';
        ulMag = 0u - ulMag;
    }

    const u32 ulRadix = static_cast<u32>(lRadix);
    char *pcEnd = pcDigits;
    do {
        const u32 ulDigit = ulMag % ulRadix;
        *pcEnd++ = static_cast<char>(ulDigit <= 9 ? '0' + ulDigit : 'a' + (ulDigit - 10));
        ulMag /= ulRadix;
    } while (ulMag != 0);
    *pcEnd = '\0';

    for (char *pcLo = pcDigits, *pcHi = pcEnd - 1; pcLo < pcHi; ++pcLo, --pcHi) {
        const char c = *pcLo;
        *pcLo = *pcHi;
        *pcHi = c;
    }
    return pcBuf;
}

IBP_API u64 ISP_atodul(const char *pcStr)
{
    if (pcStr == nullptr)
        return 0;
    u64 ullValue = 0;
    for (const char *pc = pcStr; *pc != '\0'; ++pc) {
        if (*pc < '0' || *pc > '9')
            return 0;
        ullValue = ullValue * 10u + static_cast<u64>(*pc - '0');  // wraps silently
    }
    return ullValue;
}

IBP_API s32 ISP_dultoa(u64 ullValue, char *pcBuf)
{
    if (pcBuf == nullptr)
        return -1;
    return sprintf(pcBuf, "%llu", static_cast<unsigned long long>(ullValue));
}

IBP_API u64 ISP_htonll(u64 ullValue) { return __builtin_bswap64(ullValue); }
IBP_API u64 ISP_ntohll(u64 ullValue) { return ISP_htonll(ullValue); }

// ---------------------------------------------------------------- time

IBP_API struct tm ISP_gmtime(const time_t *pTime)
{
    return ibp::platform::BrokenDown(gmtime, pTime);
}

IBP_API struct tm ISP_localtime(const time_t *pTime)
{
    return ibp::platform::BrokenDown(localtime, pTime);
}

IBP_API struct tm *ISP_localtime_r(const time_t *pTime, struct tm *pstOut)
{
    if (pTime == nullptr || pstOut == nullptr)
        return nullptr;
    struct tm stLocal {};
    if (localtime_r(pTime, &stLocal) == nullptr)
        return nullptr;
    ibp::platform::CopyTmFields(stLocal, pstOut);
    return pstOut;
}

IBP_API ISP_TIMEVAL_S ISP_gettimeofday(void)
{
    timeval tv{};
    (void)gettimeofday(&tv, nullptr);
    ISP_TIMEVAL_S st{};
    st.lSec = tv.tv_sec;
    st.lMicroSec = tv.tv_usec;
    return st;
}

IBP_API s32 ISP_settimeofday(const ISP_TIMEVAL_S *pstTime)
{
    if (pstTime == nullptr)
        return -1;
    timeval tv{};
    tv.tv_sec = pstTime->lSec;
    tv.tv_usec = pstTime->lMicroSec;
    return settimeofday(&tv, nullptr) == 0 ? 0 : -1;
}

IBP_API s32 ISP_clock_gettime(s32 lClock, ISP_TIMESPEC_S *pstTime)
{
    if (pstTime == nullptr)
        return -1;
    timespec ts{};
    if (clock_gettime(static_cast<clockid_t>(lClock), &ts) != 0)
        return -1;
    *pstTime = ibp::platform::FromTimespec(ts);
    return 0;
}

IBP_API s32 ISP_GetMonotonicTime(u64 *pullMilliSec)
{
    if (pullMilliSec == nullptr)
        return -1;
    ISP_TIMESPEC_S stNow{};
    if (ISP_clock_gettime(CLOCK_MONOTONIC, &stNow) != 0) {
        *pullMilliSec = 0;
        return -1;
    }
    *pullMilliSec = static_cast<u64>(stNow.lSec) * 1000u +
                    static_cast<u64>(stNow.lNanoSec) / static_cast<u64>(ibp::platform::kNsPerMs);
    return 0;
}

IBP_API s32 ISP_msleep(s32 lMilliSec)
{
    using namespace ibp::platform;
    if (lMilliSec < 0)
        return -1;
    timeval tv{};
    tv.tv_sec = lMilliSec / kMsPerSec;
    tv.tv_usec = static_cast<long>(lMilliSec % kMsPerSec) * kUsPerMs;
    return select(0, nullptr, nullptr, nullptr, &tv);
}

IBP_API s32 ISP_nanosleep(const ISP_TIMESPEC_S *pstReq, ISP_TIMESPEC_S *pstRem)
{
    using namespace ibp::platform;
    if (pstReq == nullptr)
        return -1;
    const timespec req = ToTimespec(*pstReq);
    int ret;
    if (pstRem == nullptr) {
        ret = nanosleep(&req, nullptr);
    } else {
        timespec rem{};
        ret = nanosleep(&req, &rem);
        *pstRem = FromTimespec(rem);
    }
    return ret == 0 ? 0 : -1;
}

IBP_API int ISP_rand_r(u32 ulSeed)
{
    unsigned int uiSeed = ulSeed;
    return rand_r(&uiSeed);
}

}  // extern "C"
