// A first look at the library: the log on standard output, and one message
// made, cloned, checked, decoded and freed, with the records that go with it.
#include <cstdio>
#include <cstring>

#include "ibp/ibp.h"

int main()
{
    LOG_INIT_S stLog{};
    stLog.ulOutputMode = LOG_OUTPUT_STDOUT;  // every threshold 0: all records pass
    if (IBP_LOG_Init(&stLog) != 0)
        return 1;

    const char acBody[] = "dbgcmd";
    MSG_HANDLE hMsg = MSG_Create(acBody, sizeof(acBody));
    if (hMsg == nullptr)
        return 1;
    auto *pstHdr = static_cast<MSG_HDR_S *>(hMsg->pMem);
    pstHdr->ulPrefix = MSG_PREFIX;
    pstHdr->ulMsgID = 0x10001;
    std::printf("made a message of %u bytes, body %u bytes\n", pstHdr->ulMsgLen, pstHdr->ulMsgBodyLen);

    MSG_HANDLE hClone = MSG_Clone(hMsg);
    std::printf("clone %s\n", hClone != nullptr ? "made" : "failed");
    std::printf("header check of the clone: %u\n",
                MSG_CheckHdr(static_cast<const char *>(hClone->pMem), MSG_HDR_LEN));

    void *pBody = nullptr;
    u32 ulBodyLen = 0;
    MSG_Decode(hClone, &pBody, &ulBodyLen);
    std::printf("clone body: \"%s\" (%u bytes)\n", static_cast<const char *>(pBody), ulBodyLen);

    std::printf("now the failures, each with its record:\n");
    pstHdr->ulPrefix = 0;
    MSG_CheckHdr(static_cast<const char *>(hMsg->pMem), MSG_HDR_LEN);
    MSG_Create(acBody, MOD_BUF_MAX_LEN);  // one byte too many for a block
    MSG_Decode(hMsg, nullptr, &ulBodyLen);

    MSG_Destroy(hClone);
    MSG_Destroy(hMsg);
    std::printf("both messages freed\n");
    IBP_LOG_Destroy();
    return 0;
}
