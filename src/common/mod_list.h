// Circular doubly linked lists through a MOD_LIST_S link inside the record.
// No locking here: callers hold the lock of the list they work on.
#pragma once

#include <cstddef>

#include "ibp/isp_rawmsg.h"

inline void MOD_ListInit(MOD_LIST_S *pstHead)
{
    pstHead->pstNext = pstHead;
    pstHead->pstPrev = pstHead;
}

inline bool MOD_ListEmpty(const MOD_LIST_S *pstHead) { return pstHead->pstNext == pstHead; }

inline void MOD_ListAddTail(MOD_LIST_S *pstHead, MOD_LIST_S *pstNode)
{
    pstNode->pstPrev = pstHead->pstPrev;
    pstNode->pstNext = pstHead;
    pstHead->pstPrev->pstNext = pstNode;
    pstHead->pstPrev = pstNode;
}

// Unlinks the node and clears both its pointers.
inline void MOD_ListDel(MOD_LIST_S *pstNode)
{
    pstNode->pstPrev->pstNext = pstNode->pstNext;
    pstNode->pstNext->pstPrev = pstNode->pstPrev;
    pstNode->pstNext = nullptr;
    pstNode->pstPrev = nullptr;
}

// Moves every entry of pstFrom, in order, to the empty head pstTo; pstFrom
// is left empty.
inline void MOD_ListSplice(MOD_LIST_S *pstFrom, MOD_LIST_S *pstTo)
{
    MOD_ListInit(pstTo);
    if (MOD_ListEmpty(pstFrom))
        return;
    pstTo->pstNext = pstFrom->pstNext;
    pstTo->pstPrev = pstFrom->pstPrev;
    pstTo->pstNext->pstPrev = pstTo;
    pstTo->pstPrev->pstNext = pstTo;
    MOD_ListInit(pstFrom);
}

// Moves every entry of pstFrom, in order, to the tail of pstTo; pstFrom is
// left empty.
inline void MOD_ListAppend(MOD_LIST_S *pstFrom, MOD_LIST_S *pstTo)
{
    if (MOD_ListEmpty(pstFrom))
        return;
    MOD_LIST_S *pstFirst = pstFrom->pstNext;
    MOD_LIST_S *pstLast = pstFrom->pstPrev;
    pstFirst->pstPrev = pstTo->pstPrev;
    pstTo->pstPrev->pstNext = pstFirst;
    pstLast->pstNext = pstTo;
    pstTo->pstPrev = pstLast;
    MOD_ListInit(pstFrom);
}

// The record that holds `member` at `pstLink`.
template <typename T, typename M>
T *MOD_ListEntry(MOD_LIST_S *pstLink, M T::*member)
{
    const T *pstNull = nullptr;
    auto ulOffset = reinterpret_cast<const char *>(&(pstNull->*member)) - reinterpret_cast<const char *>(pstNull);
    return reinterpret_cast<T *>(reinterpret_cast<char *>(pstLink) - ulOffset);
}
