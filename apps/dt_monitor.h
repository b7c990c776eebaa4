// dt_monitor.h: ibp-dt --monitor, one line per message that the service's
// runtime routes, as it happens. The tool asks the service again and again
// (IBP_MONITOR_MSG_ID to "ISP_CMD", from a port of its own); each request
// renews the service's lease on its tap and takes what the tap recorded since
// the last one, so that a monitor that dies leaves the tap off five seconds
// later. The monitor starts no runtime of its own: the debug tool's port
// stays free for ibp-dt and ibp-ping.
#ifndef IBP_APPS_DT_MONITOR_H
#define IBP_APPS_DT_MONITOR_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "app_options.h"

// Between two requests when the last one brought nothing.
constexpr long kDtMonitorIdleMs = 100;
constexpr u32 kDtMonitorWaitMs = 2000;

inline volatile sig_atomic_t gbDtMonitorStop = 0;
// The signal mask of the waits: SIGINT and SIGTERM are blocked elsewhere,
// so that none lands between the look at the stop flag and a wait, which
// would then run its whole length.
inline sigset_t gstDtMonitorWaitMask;

inline void DT_MonitorStop(int) { gbDtMonitorStop = 1; }

// True when pcName names a module of the table: the filter is checked here,
// as a bad argument, rather than by the service.
inline bool DT_IsModuleName(const char *pcName)
{
    for (const MOD_MODULE_CFG_S &stRow : gastModuleCfgInfo) {
        if (std::strcmp(stRow.szModuleName, pcName) == 0)
            return true;
    }
    return false;
}

// The monitor's own endpoint: a UDP socket on a port the system picks, so
// that the monitor runs beside the debug tool and ibp-ping, which hold the
// port of the debug tool's row. It speaks the runtime's wire format itself.
class DT_MonitorLink {
public:
    DT_MonitorLink() : lFd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        const MOD_PROC_CFG_S &stIsp = gastProcCfgInfo[0];
        stIsp_.sin_family = AF_INET;
        stIsp_.sin_addr.s_addr = inet_addr(stIsp.szSocketAddr);
        stIsp_.sin_port = htons(stIsp.usSocketPort);
        struct sockaddr_in stOwn = stIsp_;
        stOwn.sin_port = 0;
        if (lFd_ >= 0 && bind(lFd_, reinterpret_cast<struct sockaddr *>(&stOwn), sizeof(stOwn)) != 0) {
            close(lFd_);
            lFd_ = -1;
        }
    }
    ~DT_MonitorLink()
    {
        if (lFd_ >= 0)
            close(lFd_);
    }
    DT_MonitorLink(const DT_MonitorLink &) = delete;
    DT_MonitorLink &operator=(const DT_MonitorLink &) = delete;
    bool Open() const { return lFd_ >= 0; }

    // One request: the answer's text in *psAnswer, or false when the service
    // did not answer within the wait, or a signal stopped the wait. Only an
    // ack from the service's own address and port, for this request, counts.
    bool Ask(const char *pcModule, std::string *psAnswer)
    {
        const u32 ulBody = static_cast<u32>(std::strlen(pcModule) + 1);
        u8 aucReq[MSG_HDR_LEN + MOD_NAME_LEN] = {};
        const MSG_HDR_S stHdr = {MSG_PREFIX, MSG_TYPE_SYNC_REQ, IBP_MONITOR_MSG_ID, ++ulAssMsgID_, MSG_HDR_LEN + ulBody,
                                 ulBody, MOD_PROC_MODULE_ID, MOD_ID_ISP_CMD, MOD_PROC_ID_DT, MOD_PROC_ID_ISP, 0, 0, 0};
        std::memcpy(aucReq, &stHdr, MSG_HDR_LEN);
        std::memcpy(aucReq + MSG_HDR_LEN, pcModule, ulBody);
        if (sendto(lFd_, aucReq, MSG_HDR_LEN + ulBody, 0, reinterpret_cast<const struct sockaddr *>(&stIsp_),
                   sizeof(stIsp_)) < 0)
            return false;
        struct timespec stStart {};
        clock_gettime(CLOCK_MONOTONIC, &stStart);
        for (long lLeft = kDtMonitorWaitMs; lLeft > 0 && gbDtMonitorStop == 0;
             lLeft = kDtMonitorWaitMs - DT_MsSince(stStart)) {
            struct pollfd stPoll = {lFd_, POLLIN, 0};
            const struct timespec stLeft = {lLeft / 1000, lLeft % 1000 * 1000000L};
            if (ppoll(&stPoll, 1, &stLeft, &gstDtMonitorWaitMask) <= 0)
                continue;  // an interrupted wait looks again, unless it is to stop
            if (Take(psAnswer))
                return true;
        }
        return false;
    }

private:
    static long DT_MsSince(const struct timespec &stStart)
    {
        struct timespec stNow {};
        clock_gettime(CLOCK_MONOTONIC, &stNow);
        return (stNow.tv_sec - stStart.tv_sec) * 1000 + (stNow.tv_nsec - stStart.tv_nsec) / 1000000;
    }

    bool Take(std::string *psAnswer)
    {
        u8 aucAck[MOD_BUF_MAX_LEN];
        struct sockaddr_in stFrom {};
        socklen_t ulFromLen = sizeof(stFrom);
        const ssize_t lLen = recvfrom(lFd_, aucAck, sizeof(aucAck), 0, reinterpret_cast<struct sockaddr *>(&stFrom),
                                      &ulFromLen);
        MSG_HDR_S stHdr;
        if (lLen < static_cast<ssize_t>(MSG_HDR_LEN) || stFrom.sin_addr.s_addr != stIsp_.sin_addr.s_addr ||
            stFrom.sin_port != stIsp_.sin_port)
            return false;
        std::memcpy(&stHdr, aucAck, MSG_HDR_LEN);
        if (stHdr.ulPrefix != MSG_PREFIX || stHdr.enMsgType != MSG_TYPE_SYNC_ACK || stHdr.ulAssMsgID != ulAssMsgID_ ||
            stHdr.ulMsgLen != static_cast<u32>(lLen))
            return false;
        psAnswer->assign(reinterpret_cast<const char *>(aucAck) + MSG_HDR_LEN, static_cast<size_t>(lLen) - MSG_HDR_LEN);
        return true;
    }

    int lFd_;
    struct sockaddr_in stIsp_ {};
    u32 ulAssMsgID_ = 0;
};

// Prints the lines of one answer, at most *pulLeft of them (0: no limit),
// and says what the monitor could not take. False for an answer that is no
// monitor's (the service does not serve it).
inline bool DT_MonitorPrint(const std::string &sAnswer, u32 *pulLeft, bool *pbAny)
{
    unsigned long ulLost = 0;
    if (std::sscanf(sAnswer.c_str(), "monitor %lu", &ulLost) != 1)
        return false;
    if (ulLost != 0)
        std::printf("%lu messages not shown\n", ulLost);
    size_t ulPos = sAnswer.find('\n');
    *pbAny = false;
    while (ulPos != std::string::npos && ulPos + 1 < sAnswer.size()) {
        const size_t ulEnd = sAnswer.find('\n', ulPos + 1);
        std::fwrite(sAnswer.data() + ulPos + 1, 1, (ulEnd == std::string::npos ? sAnswer.size() : ulEnd + 1) - ulPos - 1,
                    stdout);
        *pbAny = true;
        ulPos = ulEnd;
        if (*pulLeft != 0 && --*pulLeft == 0)
            break;
    }
    std::fflush(stdout);
    return true;
}

// Runs the monitor until ulCount lines (0: no limit), a signal, or a service
// that stops answering. Returns the exit status: 0, or 1 when the service did
// not answer or does not serve a monitor.
inline int DT_Monitor(const AppInfo &stInfo, const char *pcModule, u32 ulCount)
{
    struct sigaction stAct {};
    stAct.sa_handler = DT_MonitorStop;
    sigaction(SIGINT, &stAct, nullptr);
    sigaction(SIGTERM, &stAct, nullptr);
    sigset_t stStop;
    sigemptyset(&stStop);
    sigaddset(&stStop, SIGINT);
    sigaddset(&stStop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stStop, &gstDtMonitorWaitMask);
    const MOD_PROC_CFG_S &stIsp = gastProcCfgInfo[0];
    DT_MonitorLink stLink;
    if (!stLink.Open()) {
        AppError(stInfo, "cannot open a UDP socket on %s: %s; check the limits on open files and sockets",
                 stIsp.szSocketAddr, std::strerror(errno));
        return 1;
    }
    u32 ulLeft = ulCount;
    while (gbDtMonitorStop == 0) {
        std::string sAnswer;
        if (!stLink.Ask(pcModule, &sAnswer)) {
            if (gbDtMonitorStop != 0)
                break;
            AppError(stInfo, "ibp-isp on %s:%u stopped answering the monitor within %u ms; start it again and rerun "
                     "ibp-dt --monitor", stIsp.szSocketAddr, static_cast<unsigned>(stIsp.usSocketPort),
                     kDtMonitorWaitMs);
            return 1;
        }
        bool bAny = false;
        if (!DT_MonitorPrint(sAnswer, &ulLeft, &bAny)) {
            AppError(stInfo, "ibp-isp does not serve a monitor (answer \"%.40s\"); its service must call "
                     "IBP_RegStatCmd", sAnswer.c_str());
            return 1;
        }
        if (ulCount != 0 && ulLeft == 0)
            return 0;
        if (!bAny) {
            const struct timespec stPause = {0, kDtMonitorIdleMs * 1000000L};
            ppoll(nullptr, 0, &stPause, &gstDtMonitorWaitMask);
        }
    }
    return 0;
}

#endif /* IBP_APPS_DT_MONITOR_H */
