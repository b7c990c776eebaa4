// The text side of a display function (pulOutBufLen, pcOutBuf): lines are
// appended behind what the buffer holds on entry, each cut to the room left,
// and the length of the whole text is what the function reports.
//
//   CmdDisplay stOut(pcOutBuf, *pulOutBufLen);
//   stOut.Append("%-10s \n", "Name");
//   *pulOutBufLen = stOut.Length();
//
// The text stays terminated at all times, so at most capacity - 1 characters
// are held; a cut is silent, as a too-small buffer is the caller's choice.
//
// Every display function starts with CMD_DISPLAY_CHECK_ARGS, which refuses
// the two null arguments with their records at the caller's own place.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ibp/isp_types.h"

#define CMD_DISPLAY_CHECK_ARGS(pulOutBufLen, pcOutBuf) \
    do {                                                \
        if ((pulOutBufLen) == nullptr) {                \
            IBP_ERR("pulOutBufLen is NULL");            \
            return 1;                                   \
        }                                               \
        if ((pcOutBuf) == nullptr) {                    \
            IBP_ERR("pcOutBuf is NULL");                \
            return 1;                                   \
        }                                               \
    } while (0)

class CmdDisplay {
public:
    // pcOutBuf holds a terminated text (possibly empty); ulCapacity is its
    // size in bytes.
    CmdDisplay(char *pcOutBuf, u32 ulCapacity)
        : pcBuf_(pcOutBuf), ulCap_(ulCapacity), ulLen_(static_cast<u32>(strnlen(pcOutBuf, ulCapacity)))
    {
    }

    // Appends one formatted piece, cut to what is left of the capacity.
    void Append(const char *pcFormat, ...) IBP_PRINTF(2, 3)
    {
        // One byte of the capacity goes to the terminator.
        if (ulLen_ + 1 >= ulCap_)
            return;
        u32 ulRoom = ulCap_ - ulLen_;
        va_list args;
        va_start(args, pcFormat);
        int lRet = vsnprintf(pcBuf_ + ulLen_, ulRoom, pcFormat, args);
        va_end(args);
        if (lRet < 0) {
            pcBuf_[ulLen_] = '\0';
            return;
        }
        ulLen_ += (static_cast<u32>(lRet) < ulRoom) ? static_cast<u32>(lRet) : ulRoom - 1;
    }

    // Length of the whole text, what was there on entry included.
    u32 Length() const { return ulLen_; }

private:
    char *pcBuf_;
    u32 ulCap_;
    u32 ulLen_;
};
