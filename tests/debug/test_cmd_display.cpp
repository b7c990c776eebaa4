// The appender behind every display function: text goes behind what the
// buffer holds, each piece is cut to the room left, the length covers all.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "debug/cmd_display.h"

namespace {

TEST(CmdDisplay, AppendsBehindTheTextOnEntry)
{
    char acBuf[64] = "old\n";
    CmdDisplay stOut(acBuf, sizeof(acBuf));
    EXPECT_EQ(4u, stOut.Length());
    stOut.Append("%-6s|%u\n", "ab", 42u);
    stOut.Append("%s", "end");
    EXPECT_STREQ("old\nab    |42\nend", acBuf);
    EXPECT_EQ(strlen(acBuf), stOut.Length());
}

TEST(CmdDisplay, CutsEachPieceToTheRoomLeftAndStaysTerminated)
{
    char acBuf[16];
    memset(acBuf, '#', sizeof(acBuf));
    acBuf[0] = '\0';
    CmdDisplay stOut(acBuf, 10);
    stOut.Append("%s", "12345");
    stOut.Append("%s", "6789abc");
    EXPECT_STREQ("123456789", acBuf);
    EXPECT_EQ(9u, stOut.Length());
    stOut.Append("%s", "more");  // full: nothing changes
    EXPECT_STREQ("123456789", acBuf);
    EXPECT_EQ(9u, stOut.Length());
    EXPECT_EQ('#', acBuf[10]);  // nothing written past the capacity
}

TEST(CmdDisplay, TextOnEntryThatFillsTheCapacityIsKept)
{
    char acBuf[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};  // no terminator within 8
    CmdDisplay stOut(acBuf, sizeof(acBuf));
    stOut.Append("%s", "x");
    EXPECT_EQ(8u, stOut.Length());
    EXPECT_EQ(0, memcmp(acBuf, "abcdefgh", 8));
}

TEST(CmdDisplay, ZeroAndOneByteCapacitiesHoldNothing)
{
    char acBuf[4] = "";
    CmdDisplay stNone(acBuf, 0);
    stNone.Append("%s", "x");
    EXPECT_EQ(0u, stNone.Length());
    EXPECT_EQ('\0', acBuf[0]);
    CmdDisplay stOne(acBuf, 1);
    stOne.Append("%s", "x");
    EXPECT_EQ(0u, stOne.Length());
    EXPECT_STREQ("", acBuf);
}

}  // namespace
