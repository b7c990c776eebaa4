// What the command tree and the command service share: the state that
// CMD_Init sets up, and the walk along a node's children. The command line of
// the debug tool keeps its copy of the tree in the same node record.
#pragma once

#include "ibp/isp_cmd.h"
#include "common/mod_list.h"

// Roots of the tree, linked through their stSibling; one root, "isp".
extern MOD_LIST_S gstCmdRootList;
// Guards the tree and the table against registration from any thread.
extern void *ghCmdTreeLock;

// The table of full commands, oldest row first; null when there is none
// (before CMD_Init, after a failed one, after CMD_Destroy).
CMD_FULL_CMD_S *CMD_FullCmdList();
// The buffer in which answers are built; null until CMD_Init has made it.
char *CMD_ResultBuf();
// The root titled "isp", or null before a CMD_Init that got that far.
CMD_NODE_S *CMD_FindRoot();
// What CMD_Init sets up of the tree: whatever an earlier set-up left is
// freed, then the lock, the empty table (live from here on) and the root.
// 0, or 1 after its record.
u32 CMD_TreeSetUp();
// Frees the table, for a set-up that fails after CMD_TreeSetUp.
void CMD_TreeDropTable();
// The buffer in which answers are built, made last; 0, or 1 after its record.
u32 CMD_MakeResultBuf();

inline CMD_NODE_S *CMD_NodeOfSibling(MOD_LIST_S *pstLink) { return MOD_ListEntry(pstLink, &CMD_NODE_S::stSibling); }
inline CMD_NODE_S *CMD_NodeOfChild(MOD_LIST_S *pstLink) { return MOD_ListEntry(pstLink, &CMD_NODE_S::stChild); }

inline bool CMD_IsEndNode(const CMD_NODE_S *pstNode) { return pstNode->enParamType == CMD_PARAM_END; }

// The first child, or null for a node without children.
inline CMD_NODE_S *CMD_FirstChild(const CMD_NODE_S *pstNode)
{
    return pstNode->ulChildNum != 0 ? CMD_NodeOfChild(pstNode->stChild.pstNext) : nullptr;
}

// The next node on the ring of siblings; back at the first child after the last.
inline CMD_NODE_S *CMD_NextSibling(const CMD_NODE_S *pstNode)
{
    return CMD_NodeOfSibling(pstNode->stSibling.pstNext);
}

// Calls visit(child) for each child of pstParent, first child first; stops
// early when visit returns false.
template <typename Visit> void CMD_ForEachChild(const CMD_NODE_S *pstParent, Visit visit)
{
    CMD_NODE_S *pstChild = CMD_FirstChild(pstParent);
    if (pstChild == nullptr)
        return;
    do {
        if (!visit(pstChild))
            return;
        pstChild = CMD_NextSibling(pstChild);
    } while (pstChild->bFirstChild == 0);
}
