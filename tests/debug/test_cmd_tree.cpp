// The command tree as registrations build it, read back through the tree
// text: the cases of tree_cases.txt one by one in a fresh service, and the
// calls that are refused without touching the tree.
#include <gtest/gtest.h>

#include <vector>

#include "debug/cmd_util.h"

using namespace ibptest;

namespace {

u32 FnA(u32 *pulLen, char *pcOut) { return *pulLen = static_cast<u32>(snprintf(pcOut, *pulLen, "A")), 0; }
u32 FnB(u32 *pulLen, char *pcOut) { return *pulLen = static_cast<u32>(snprintf(pcOut, *pulLen, "B")), 0; }

struct TreeCase {
    std::string name;
    std::vector<std::string> steps;  // "reg ...", "log ...", "ask ..."
    std::string subtree;
};

std::vector<TreeCase> LoadCases()
{
    std::vector<TreeCase> cases;
    std::istringstream in(ReadData("debug/data/tree_cases.txt"));
    bool bText = false;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("== ", 0) == 0) {
            cases.push_back({line.substr(3), {}, {}});
            bText = false;
        } else if (!cases.empty() && line == "--") {
            bText = true;
        } else if (!cases.empty() && bText) {
            cases.back().subtree += line + "\n";
        } else if (!cases.empty() && !line.empty() && line[0] != '#') {
            cases.back().steps.push_back(line);
        }
    }
    return cases;
}

// "reg F R N T:title[:help] - ...": registers and checks the result.
void Register(const std::string &step)
{
    std::istringstream in(step.substr(4));
    std::string fn, elem;
    u32 ulResult = 0, ulNum = 0;
    in >> fn >> ulResult >> ulNum;
    std::vector<CMD_ELEMENT_S> elems;
    while (in >> elem) {
        const size_t colon = elem.find(':', 2);
        const u32 enType = elem[0] == 'T' ? CMD_PARAM_TITLE : elem[0] == 'I' ? CMD_PARAM_INTEGER : CMD_PARAM_STRING;
        elems.push_back({});
        if (elem != "-")
            CMD_SetCmdElement(&elems.back(), enType, elem.substr(2, colon - 2).c_str(),
                              colon == std::string::npos ? nullptr : elem.c_str() + colon + 1);
    }
    EXPECT_EQ(CMD_RegDisplayCmd(fn == "A" ? FnA : fn == "B" ? FnB : nullptr, elems.data(), ulNum), ulResult) << step;
}

class CmdTreeCase : public CmdService, public testing::WithParamInterface<TreeCase> {};

}  // namespace

TEST_P(CmdTreeCase, GivesItsSubtree)
{
    const TreeCase &c = GetParam();
    for (const std::string &step : c.steps) {
        if (step.rfind("reg ", 0) == 0) {
            Register(step);
        } else if (step.rfind("log ", 0) == 0) {
            EXPECT_LOG(cap_, step.substr(4, 3), "BP", step.substr(8));
        } else {
            const size_t eq = step.find(" = ");
            EXPECT_EQ(Ask(CMD_MSG_EXEC_CMD, step.substr(4, eq - 4) + '\0'), step.substr(eq + 3)) << step;
        }
    }
    // The root gains a second child, if any; all else of the base tree stays as it was.
    const std::string base = ReadData("debug/data/base_tree.txt");
    EXPECT_EQ(Ask(CMD_MSG_GET_TREE, std::string("dbgcmd", 7)),
              c.subtree.empty() ? base : "isp\ntitle:\n2\n" + base.substr(13) + c.subtree);
}

INSTANTIATE_TEST_SUITE_P(Table, CmdTreeCase, testing::ValuesIn(LoadCases()),
                         [](const testing::TestParamInfo<TreeCase> &info) { return "Case" + std::to_string(info.index); });

TEST_F(CmdService, CallsOutOfTurnChangeNothing)
{
    CMD_ELEMENT_S stElem;
    CMD_SetCmdElement(&stElem, CMD_PARAM_TITLE, "y", nullptr);
    EXPECT_EQ(CMD_Init(), 1u);  // the service runs: a second set-up would pull its tree away
    // Without a table nothing is registered, and the tree stays as it was.
    CMD_Destroy();
    EXPECT_EQ(CMD_RegDisplayCmd(FnA, &stElem, 1), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "cmd table not initialized, call CMD_Init first");
    EXPECT_EQ(Ask(CMD_MSG_GET_TREE, std::string("dbgcmd", 7)), ReadData("debug/data/base_tree.txt"));
    EXPECT_EQ(Ask(CMD_MSG_EXEC_CMD, std::string("<isp bp proc cfg >", 19)), "operate fail");
}
