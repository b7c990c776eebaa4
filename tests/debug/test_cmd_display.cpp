// The appender behind every display function: text goes behind what the
// buffer holds, each piece is cut to the room left, the length covers all.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "common/cmd_display.h"

TEST(CmdDisplay, AppendsBehindTheTextOnEntryAndCutsToTheRoomLeft)
{
    // Capacity, text on entry; what the buffer holds after "%-4s|%u" of "ab", 42 and "%s" of "end".
    const struct { u32 ulCap; const char *pcBefore, *pcAfter; } kCases[] = {
        {64, "old\n", "old\nab  |42end"},
        {10, "", "ab  |42en"},      // the second piece is cut, the terminator kept
        {8, "abcdefgh", "abcdefgh"},  // entry text without terminator within the capacity
        {1, "", ""},
        {0, "", ""},
    };
    for (const auto &c : kCases) {
        char acBuf[80];
        memset(acBuf, '#', sizeof(acBuf));
        memcpy(acBuf, c.pcBefore, strlen(c.pcBefore) + (strlen(c.pcBefore) < c.ulCap ? 1 : 0));
        CmdDisplay stOut(acBuf, c.ulCap);
        stOut.Append("%-4s|%u", "ab", 42u);
        stOut.Append("%s", "end");
        EXPECT_EQ(strlen(c.pcAfter), stOut.Length()) << c.ulCap;
        EXPECT_EQ(c.pcAfter, std::string(acBuf, stOut.Length())) << c.ulCap;
        EXPECT_EQ(stOut.Length() < c.ulCap ? '\0' : '#', acBuf[stOut.Length()]) << c.ulCap;
        EXPECT_EQ('#', acBuf[c.ulCap]) << "written past the capacity of " << c.ulCap;
    }
}
