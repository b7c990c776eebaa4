// Fuzz target: the receive path of the process thread. The input is what the
// socket hands over:
//
//   u16 start      where the read and write positions of the ring stand when
//                  the first datagram comes (modulo its 8192 elements), so
//                  that short inputs also wrap round its end
//   { u16 len, bytes }...   datagrams: len bytes, the last one cut at the
//                  input's end; with bit 15 of len set, a datagram of
//                  (len & 0x7fff) bytes that are a u8 count of bytes taken
//                  from the input, then zeros, so that a short input can also
//                  send long messages and fill the ring
//
// (little-endian). Each datagram goes into the receive buffer and is parsed
// as the process thread does, and the delivered messages reach the handlers
// of "ISP_IMG" and of the command service.
//
// The process thread touches the receive buffer only when a datagram comes
// in on port 7001, and in the private network namespace none ever does:
// nothing here sends to this process's own port. So this thread may write
// and parse the buffer as that thread's stand-in.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz_service.h"

namespace {

constexpr u32 kRingElems = 8192;
constexpr u32 kMaxDatagram = kRingElems - 1;  // what one recvfrom asks for

u32 Fill(CBUF_HANDLE hBuf)
{
    u32 ulUsed = 0;
    (void)CBUF_GetReadNum(hBuf, &ulUsed);
    return ulUsed;
}

u32 TakeU16(const uint8_t *&pucData, size_t &ulSize)
{
    if (ulSize < 2) {
        ulSize = 0;
        return 0;
    }
    const u32 ulValue = pucData[0] | static_cast<u32>(pucData[1]) << 8;
    pucData += 2;
    ulSize -= 2;
    return ulValue;
}

// The parse loop of the process thread after a datagram: on until no
// complete message is left; a failure that stepped over bytes (a header that
// can never become a message) lets it go on, any other ends it.
void ParseAll(CBUF_HANDLE hBuf, const sockaddr_in &stFrom)
{
    for (;;) {
        const u32 ulBefore = Fill(hBuf);
        u32 ulFlag = 0;
        if (MOD_ParseSocketMsg(&stFrom, &ulFlag) != 0) {
            if (Fill(hBuf) < ulBefore)
                continue;
            return;
        }
        if (ulFlag != MOD_PARSE_DONE)
            return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize)
{
    static const bool bStarted = (fuzzsvc::Start(), true);
    (void)bStarted;
    static uint8_t aucFiller[kRingElems];
    CBUF_HANDLE hBuf = MOD_GetCurWorkProc()->hCircBuf;

    sockaddr_in stFrom;
    std::memset(&stFrom, 0, sizeof(stFrom));
    stFrom.sin_family = AF_INET;
    stFrom.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    stFrom.sin_port = htons(7002);

    CBUF_Reset(hBuf);
    const u32 ulStart = TakeU16(pucData, ulSize) % kRingElems;
    if (CBUF_Write(hBuf, aucFiller, ulStart) != static_cast<s32>(ulStart) || CBUF_DropElem(hBuf, ulStart) != 0)
        __builtin_trap();  // an empty ring holds 8191 elements
    while (ulSize != 0) {
        const u32 ulField = TakeU16(pucData, ulSize);
        const bool bPadded = (ulField & 0x8000u) != 0;
        u32 ulLen = bPadded ? ulField & 0x7fffu : ulField;
        ulLen = ulLen > kMaxDatagram ? kMaxDatagram : ulLen;
        u32 ulGiven = ulLen;
        if (bPadded && ulSize != 0) {
            ulGiven = *pucData++;
            ulSize--;
        }
        ulGiven = ulGiven > ulLen ? ulLen : ulGiven;
        ulGiven = ulGiven > ulSize ? static_cast<u32>(ulSize) : ulGiven;
        static uint8_t aucDatagram[kMaxDatagram];
        std::memcpy(aucDatagram, pucData, ulGiven);
        std::memset(aucDatagram + ulGiven, 0, ulLen - ulGiven);
        pucData += ulGiven;
        ulSize -= ulGiven;
        ulLen = bPadded ? ulLen : ulGiven;
        // A datagram that does not fit loses its tail, and what fits is
        // parsed all the same.
        if (ulLen != 0)
            (void)CBUF_Write(hBuf, aucDatagram, ulLen);
        ParseAll(hBuf, stFrom);
    }
    fuzzsvc::Settle();
    return 0;
}
