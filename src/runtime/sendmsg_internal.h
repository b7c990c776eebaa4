// Inside view of the synchronous send: whether a failed request was queued.
#pragma once

#include "ibp/isp_sendmsg.h"

// MSG_SendSyncMsg that also says whether the request was handed to the
// runtime (*pbQueued true: it is not the caller's any more, even on failure).
u32 MSG_SendSyncMsgEx(u32 ulDstModuleID, u32 ulMsgID, MSG_HANDLE hReqMsg, u32 ulTimeout,
                      MSG_HANDLE *phAckMsg, bool *pbQueued);
