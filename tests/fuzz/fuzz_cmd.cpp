// Fuzz target: the command service with a crafted request. The input is the
// request as it would stand in the block: 48 bytes of header, taken as they
// are (message identifier, type, both lengths, sources and destinations),
// and a body of at least one byte. The answer goes out through the runtime:
// to a queue of this process, or towards the absent debug tool.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz_service.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize)
{
    static const bool bStarted = (fuzzsvc::Start(), true);
    (void)bStarted;
    if (ulSize <= MSG_HDR_LEN)
        return 0;
    MSG_HANDLE hMsg = MSG_Create(pucData + MSG_HDR_LEN, static_cast<u32>(ulSize - MSG_HDR_LEN));
    if (hMsg == nullptr)
        return 0;  // a body beyond the largest block
    std::memcpy(hMsg->pMem, pucData, MSG_HDR_LEN);
    MSG_HDR_S stHdr;
    std::memcpy(&stHdr, pucData, sizeof(stHdr));
    // As the runtime hands a message to a handler and frees it afterwards.
    (void)CMD_ProcMsg(stHdr.ulMsgID, hMsg, nullptr);
    MSG_Destroy(hMsg);
    fuzzsvc::Settle();
    return 0;
}
