// The command line inside the library: the tree copy built from every cut of
// the base tree text and from texts with surplus nodes. (Random keys through
// the editor and the interpreter: the fuzz target cli_keys and its corpus.)
#include <gtest/gtest.h>

#include "debug/isp_cli_priv.h"
#include "harness/files.h"
#include "harness/log_capture.h"

using ibptest::LogCapture;

namespace {

const std::string kBase = ibptest::ReadData("debug/data/base_tree.txt");

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
