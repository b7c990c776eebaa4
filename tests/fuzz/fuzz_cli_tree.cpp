// Fuzz target: the tree text that the debug tool reads from the service's
// answer (three lines per node: title, help, child count). The copy built
// from it must be a tree whose counts are its rings, whatever the text says,
// and the interpreter must walk it: a listing at the root, and completion and
// a run along the first children.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz_cli.h"

namespace {

constexpr size_t kMaxAnswerBody = 8191 - 48;  // the largest block less its header

[[noreturn]] void Broken(const char *pcWhat, const CLI_NODE_S *pstNode)
{
    std::fprintf(stderr, "tree copy broken: %s at node \"%s\"\n", pcWhat, pstNode->szTitle);
    std::abort();
}

void CheckNode(const CLI_NODE_S *pstNode)
{
    u32 ulRing = 0;
    if (const CLI_NODE_S *pstFirst = CLI_FirstChild(pstNode)) {
        const CLI_NODE_S *pstChild = pstFirst;
        do {
            if ((pstChild->bFirstChild != 0) != (pstChild == pstFirst))
                Broken("first-child mark", pstChild);
            if (++ulRing > pstNode->ulChildNum)
                Broken("ring longer than the count", pstNode);
            CheckNode(pstChild);
            pstChild = CLI_NextSibling(pstChild);
        } while (pstChild != pstFirst);
    }
    if (ulRing != pstNode->ulChildNum)
        Broken("ring shorter than the count", pstNode);
}

// "t1 t2 ... " along the first children, as long as a line may be.
std::string FirstPath()
{
    std::string sLine;
    for (const CLI_NODE_S *pstNode = gpCmdTreeNode; pstNode != nullptr; pstNode = CLI_FirstChild(pstNode)) {
        const std::string sWord = std::string(pstNode->szTitle) + " ";
        if (sLine.size() + sWord.size() >= CLI_LINE_MAX)
            break;
        sLine += sWord;
    }
    return sLine;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize)
{
    static const bool bStarted = (fuzzcli::StartQuiet(), CLI_SetBatchOutput(true), true);
    (void)bStarted;
    if (ulSize > kMaxAnswerBody)
        return 0;
    // As the answer is copied: its bytes and a terminator behind them.
    std::string sText(reinterpret_cast<const char *>(pucData), ulSize);
    if (fuzzcli::BuildTree(sText.data())) {
        CheckNode(gpCmdTreeNode);
        if (CLI_NextSibling(gpCmdNodeRoot) != gpCmdNodeRoot)
            Broken("spare record not alone", gpCmdNodeRoot);
        const std::string sPath = FirstPath();
        for (const std::string &sLine : {std::string("?"), sPath + "\t", sPath})
            (void)CLI_BatchLine(sLine.c_str());
    }
    CLI_DropTree();
    return 0;
}
