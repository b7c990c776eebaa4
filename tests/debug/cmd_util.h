// Shared by the command service tests: a running service process, requests
// to its command service and the answers of a service that a test plays.
#pragma once

#include <optional>
#include <string>

#include "harness/files.h"
#include "harness/service.h"
#include "runtime/sendmsg_internal.h"

namespace ibptest {

// The synchronous ack that a played service sends for the request `req`.
inline Bytes AckTo(const Bytes &req, const std::string &sBody)
{
    const auto *h = reinterpret_cast<const MSG_HDR_S *>(req.data());
    return MakeBlock(MSG_TYPE_SYNC_ACK, h->ulMsgID, h->ulDstModuleID, h->ulSrcModuleID, h->ulDstProcID,
                     h->ulSrcProcID, sBody, h->ulAssMsgID);
}

// One request to the command service from the calling thread; the answer,
// or nothing when none came within ulTimeout ms.
inline std::optional<std::string> Ask(u32 ulMsgID, const std::string &body, u32 ulTimeout = 2000)
{
    MSG_HANDLE hReq = MSG_Create(body.data(), static_cast<u32>(body.size()));
    MSG_HANDLE hAck = nullptr;
    bool bQueued = false;
    if (MSG_SendSyncMsgEx(MOD_ID_ISP_CMD, ulMsgID, hReq, ulTimeout, &hAck, &bQueued) != 0) {
        if (!bQueued)
            MSG_Destroy(hReq);
        return std::nullopt;
    }
    void *pBody = nullptr;
    u32 ulLen = 0;
    MSG_Decode(hAck, &pBody, &ulLen);
    std::string answer(static_cast<const char *>(pBody), ulLen);
    MSG_Destroy(hAck);
    return answer;
}

// A service process with the base commands, logging into cap_.
using CmdService = ServiceTest<LOG_LEVEL_INF>;

}  // namespace ibptest
