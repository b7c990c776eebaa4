// The command line inside the library: the tree copy built from every cut of
// the base tree text and from texts with surplus nodes, and a storm of random
// keys through the editor and the interpreter that stays within every buffer.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "debug/isp_cli_priv.h"
#include "debug/cmd_util.h"

using ibptest::LogCapture;

namespace {

const std::string kBase = ibptest::ReadData("base_tree.txt");

// Depth first as the tree text: title and help lines, and counts when asked.
// Fails the test where a count is not the number of children on the ring.
std::string Dump(const CLI_NODE_S *pstNode, bool bCounts)
{
    std::string s = std::string(pstNode->szTitle) + "\n" + pstNode->szHelp + "\n";
    s += bCounts ? std::to_string(pstNode->ulChildNum) + "\n" : "";
    u32 ulRing = 0;
    if (const CLI_NODE_S *pstFirst = CLI_FirstChild(pstNode)) {
        const CLI_NODE_S *pstChild = pstFirst;
        do {
            s += Dump(pstChild, bCounts), ulRing++;
            pstChild = CLI_NextSibling(pstChild);
        } while (pstChild != pstFirst);
    }
    EXPECT_EQ(ulRing, pstNode->ulChildNum) << pstNode->szTitle;
    return s;
}

std::string Build(std::string sText, bool bCounts = false)
{
    CLI_ResetTree();
    EXPECT_EQ(ISP_CLI_BuildCmdTreeByStr(sText.data()), 0u);
    EXPECT_EQ(CLI_NextSibling(gpCmdNodeRoot), gpCmdNodeRoot) << "the spare record is alone on its ring";
    return Dump(gpCmdTreeNode, bCounts);
}

}  // namespace

TEST(CliTree, EveryCutOfTheBaseTextBuildsWhatItHolds)
{
    LogCapture cap(LOG_LEVEL_ERR + 1);  // silent
    EXPECT_EQ(Build(kBase, true), kBase);
    for (size_t ulCut = 0; ulCut < kBase.size(); ulCut++) {
        // The root takes what there is of its lines, every other node its three.
        std::vector<std::string> lines;
        std::istringstream in(kBase.substr(0, ulCut));
        for (std::string l; std::getline(in, l);)
            lines.push_back(l);
        lines.resize(std::max<size_t>(lines.size(), 2));
        std::string sWant;
        for (size_t i = 0; i == 0 || i + 2 < lines.size(); i += 3)
            sWant += lines[i] + "\n" + lines[i + 1] + "\n";
        EXPECT_EQ(Build(kBase.substr(0, ulCut)), sWant) << "cut at " << ulCut;
    }
    const struct { const char *pcText, *pcWant; } kSurplus[] = {
        {"isp\ntitle:\n1\nbp\ntitle:bp\n0\nxx\ntitle:xx\n0\n", "isp\ntitle:\nbp\ntitle:bp\n"},
        {"isp\ntitle:\n0\nbp\ntitle:bp\n1\n", "isp\ntitle:\n"},
        {"isp\ntitle:\n-1\nbp\nend:\n-1\n", "isp\ntitle:\nbp\nend:\n"},
    };
    for (const auto &c : kSurplus)
        EXPECT_EQ(Build(c.pcText), c.pcWant);
    CLI_DropTree();
}

TEST(CliEditor, StormOfRandomKeysStaysWithinTheBuffers)
{
    LogCapture cap(LOG_LEVEL_ERR + 1);
    std::mt19937 rng(14);
    // Random bytes, the editor's keys and the tree's words, in a random mix.
    const std::vector<std::string> kKeys = {"\r", "\r", "\t", "\t", "?", "\x1b[A", "\x1b[B", "\x1bOC", "\x1b[D", "\x1b",
                                            "\x1b[15~", "\b", "\x7f", "isp ", "bp ", "log ", "cli ", "proc ", "cfg ",
                                            "p", "BP ", "3 ", "-1 ", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa "};
    std::string sStorm;
    while (sStorm.size() < 100000)
        sStorm += rng() % 3 == 0 ? std::string(1, static_cast<char>(rng())) : kKeys[rng() % kKeys.size()];
    sStorm.resize(100000);
    const int lIn = memfd_create("cli-storm", 0), lNull = open("/dev/null", O_WRONLY);
    const int lSavedIn = dup(0), lSavedOut = dup(1);
    ASSERT_EQ(pwrite(lIn, sStorm.data(), sStorm.size(), 0), ssize_t(sStorm.size()));
    Build(kBase);
    fflush(stdout);
    dup2(lIn, 0), dup2(lNull, 1);
    u32 ulLines = 0;
    bool bWithin = true;  // checked once the screen is back
    for (clearerr(stdin); ISP_CLI_Getline(); ulLines++) {  // also past lines that begin with "q"
        bWithin &= strlen(gszLineBuf) <= CLI_LINE_MAX;
        ISP_CLI_MainProcess();
        bWithin &= strlen(gszExtendParam) < sizeof(gszExtendParam);
    }
    fflush(stdout);
    dup2(lSavedIn, 0), dup2(lSavedOut, 1);
    clearerr(stdin);
    for (int fd : {lIn, lNull, lSavedIn, lSavedOut})
        close(fd);
    EXPECT_TRUE(bWithin);
    EXPECT_GT(ulLines, 2000u);  // the storm went through the interpreter, not around it
    CLI_DropTree();
}
