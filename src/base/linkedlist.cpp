#include "base/linkedlist.h"

#include <cstdlib>
#include <new>

#include "base/assertion.h"

namespace orx {

static ListNode *AllocNode(void * /*pUser*/, void *pItem)
{
    void *pMemory = malloc(sizeof(ListNode));
    if (!pMemory)
        return nullptr;
    auto *pNode = new (pMemory) ListNode;
    pNode->pData = pItem;
    return pNode;
}

static void FreeNode(void * /*pUser*/, ListNode *pNode)
{
    free(pNode);
}

// The difference of two addresses need not fit an int; its sign is all that counts, and 0 must mean identity.
static int CompareAddress(void * /*pUser*/, void *pData, void *pKey)
{
    auto nData = reinterpret_cast<uintptr_t>(pData);
    auto nKey = reinterpret_cast<uintptr_t>(pKey);
    return (nData > nKey) - (nData < nKey);
}

static ListNode *MapNodeAtStart(void * /*pUser*/, void *pItem)
{
    return static_cast<ListNode *>(pItem);
}

static void *MapDataAtStart(void * /*pUser*/, ListNode *pNode)
{
    return pNode;
}

static ListNode *MapNodeAfterHeader(void * /*pUser*/, void *pItem)
{
    return pItem ? static_cast<ListNode *>(pItem) + 1 : nullptr;
}

static void *MapDataAfterHeader(void * /*pUser*/, ListNode *pNode)
{
    return pNode ? pNode - 1 : nullptr;
}

static void *ItemOf(const List *pList, ListNode *pNode)
{
    return pList->pfnMapData ? pList->pfnMapData(pList->pUser, pNode) : pNode->pData;
}

// The node of an item that should be in the list; null when a search does not find it.
static ListNode *NodeOf(const List *pList, void *pItem)
{
    return pList->pfnMapNode ? pList->pfnMapNode(pList->pUser, pItem) : ListFindNode(pList, pItem, 0);
}

// The node under which an item is to enter the list; null when there is none.
static ListNode *MakeNode(const List *pList, void *pItem)
{
    if (pList->pfnMapNode)
        return pList->pfnMapNode(pList->pUser, pItem);
    return pList->pfnAllocNode ? pList->pfnAllocNode(pList->pUser, pItem) : nullptr;
}

// Links a free node in front of pBefore, or behind the last node when pBefore is null.
static void LinkBefore(List *pList, ListNode *pNode, ListNode *pBefore)
{
    ListNode *pAfter = pBefore ? pBefore->pPrev : pList->pLast;
    pNode->pPrev = pAfter;
    pNode->pNext = pBefore;
    (pAfter ? pAfter->pNext : pList->pFirst) = pNode;
    (pBefore ? pBefore->pPrev : pList->pLast) = pNode;
    pNode->pList = pList;
    pList->nItems++;
}

static void FreeItemAndNode(const List *pList, ListNode *pNode)
{
    if (pList->pfnFreeData)
        pList->pfnFreeData(pList->pUser, ItemOf(pList, pNode));
    if (pList->pfnFreeNode)
        pList->pfnFreeNode(pList->pUser, pNode);
}

// What the access operations hand out: the item of the node found, after what the flags ask for.
static void *Take(List *pList, ListNode *pNode, unsigned nFlags)
{
    if (!pNode)
        return nullptr;
    void *pItem = ItemOf(pList, pNode);
    if (nFlags & LIST_DETACH)
        ListUnlink(pList, pNode, nFlags);
    return pItem;
}

void ListInit(List *pList, void *pUser)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    *pList = List();
    pList->pUser = pUser;
    pList->pfnAllocNode = AllocNode;
    pList->pfnFreeNode = FreeNode;
    pList->pfnCompare = CompareAddress;
}

void ListDataProc(List *pList, void (*pfnFreeData)(void *, void *), int (*pfnCompare)(void *, void *, void *))
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    pList->pfnFreeData = pfnFreeData;
    if (pfnCompare)
        pList->pfnCompare = pfnCompare;
}

void ListNodeProc(List *pList, ListNode *(*pfnAllocNode)(void *, void *),
                  void (*pfnFreeNode)(void *, ListNode *))
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    if (pfnAllocNode)
        ORX_ASSERT(pfnFreeNode, "((void *)0)!=pfnFreeNode");
    pList->pfnAllocNode = pfnAllocNode;
    pList->pfnFreeNode = pfnFreeNode;
    pList->pfnMapNode = nullptr;
    pList->pfnMapData = nullptr;
}

void ListMapProc(List *pList, ListNode *(*pfnMapNode)(void *, void *),
                 void *(*pfnMapData)(void *, ListNode *))
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    if (pfnMapNode)
        ORX_ASSERT(pfnMapData, "((void *)0)!=pfnMapData");
    pList->pfnMapNode = pfnMapNode;
    pList->pfnMapData = pfnMapData;
    pList->pfnAllocNode = nullptr;
    pList->pfnFreeNode = nullptr;
}

void ListUsedDefMap(List *pList, int nMode)
{
    ORX_ASSERT(nMode == 0 || nMode == 1, "!\"only two default map routines available\"");
    if (nMode == 0)
        ListMapProc(pList, MapNodeAtStart, MapDataAtStart);
    else
        ListMapProc(pList, MapNodeAfterHeader, MapDataAfterHeader);
}

int ListAppend(List *pList, void *pItem)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    ListNode *p = MakeNode(pList, pItem);
    if (!p)
        return 0;
    ORX_ASSERT(!p->pList, "!p->pList");
    LinkBefore(pList, p, nullptr);
    return 1;
}

int ListPrepend(List *pList, void *pItem)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    ListNode *p = MakeNode(pList, pItem);
    if (!p)
        return 0;
    ORX_ASSERT(!p->pList, "!p->pList");
    LinkBefore(pList, p, pList->pFirst);
    return 1;
}

int ListInsert(List *pList, void *pItem, void *pReferer, int bAfter)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    ORX_ASSERT(pReferer, "pReferer || !\"invalid item\"");
    ListNode *t = NodeOf(pList, pReferer);
    ListNode *p = nullptr;
    if (pList->pfnMapNode) {
        p = MakeNode(pList, pItem);
        ORX_ASSERT(p && !p->pList && t && t->pList == pList, "p && !p->pList && t && t->pList==pList");
    } else {
        ORX_ASSERT(t && t->pList == pList, "t && t->pList==pList");
        p = MakeNode(pList, pItem);
        if (!p)
            return 0;
        ORX_ASSERT(!p->pList, "!p->pList");
    }
    LinkBefore(pList, p, bAfter ? t->pNext : t);
    return 1;
}

int ListSortInsert(List *pList, void *pItem)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    ListNode *p = MakeNode(pList, pItem);
    if (pList->pfnMapNode)
        ORX_ASSERT(p && !p->pList, "p && !p->pList");
    if (!p)
        return 0;
    ORX_ASSERT(!p->pList, "!p->pList");
    ListNode *pBefore = pList->pFirst;
    while (pBefore && pList->pfnCompare(pList->pUser, ItemOf(pList, pBefore), pItem) <= 0)
        pBefore = pBefore->pNext;
    LinkBefore(pList, p, pBefore);
    return 1;
}

int ListRemove(List *pList, void *pItem, int bFree)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    ListNode *p = NodeOf(pList, pItem);
    if (!p)
        return 0;
    ORX_ASSERT(p->pList == pList, "p->pList==pList");
    ListUnlink(pList, p, bFree ? LIST_FREE : 0U);
    return 1;
}

void ListFree(List *pList, void *pItem)
{
    ListRemove(pList, pItem, 1);
}

void *ListFirst(List *pList, unsigned nFlags)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    return Take(pList, pList->pFirst, nFlags);
}

void *ListLast(List *pList, unsigned nFlags)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    return Take(pList, pList->pLast, nFlags);
}

void *ListNext(List *pList, void *pItem, unsigned nFlags)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    ListNode *p = NodeOf(pList, pItem);
    ORX_ASSERT(p && p->pList == pList, "p && p->pList==pList");
    return Take(pList, p->pNext, nFlags);
}

void *ListPrev(List *pList, void *pItem, unsigned nFlags)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    ListNode *p = NodeOf(pList, pItem);
    ORX_ASSERT(p && p->pList == pList, "p && p->pList==pList");
    return Take(pList, p->pPrev, nFlags);
}

void *ListItem(List *pList, int nIndex, unsigned nFlags)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    ListNode *pNode = nIndex < 0 ? pList->pLast : pList->pFirst;
    if (nIndex < 0) {
        for (int i = -1; pNode && i > nIndex; i--)
            pNode = pNode->pPrev;
    } else {
        for (int i = 0; pNode && i < nIndex; i++)
            pNode = pNode->pNext;
    }
    return Take(pList, pNode, nFlags);
}

void *ListSearch(List *pList, int (*pfnMatch)(void *, void *, void *), void *pArg1, void *pArg2,
                 unsigned nFlags)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    ListNode *pNode = nFlags & LIST_BACKWARD ? pList->pLast : pList->pFirst;
    while (pNode && !pfnMatch(pArg1, pArg2, ItemOf(pList, pNode)))
        pNode = nFlags & LIST_BACKWARD ? pNode->pPrev : pNode->pNext;
    return Take(pList, pNode, nFlags);
}

// A removed item's node is gone, so both walks go on from the last node that stayed.
static void *TravelForward(List *pList, ListTraveler pfnTraveler, void *pArg1, void *pArg2)
{
    ListNode *pKept = nullptr;
    ListNode *pNode = pList->pFirst;
    while (pNode) {
        int nCode = pfnTraveler(pList, pArg1, pArg2, ItemOf(pList, pNode));
        ORX_ASSERT(nCode != 1, "!\"invalid return code\"");
        if (nCode == 0)
            return nullptr;
        if (nCode != 2)
            pKept = pNode;
        pNode = pKept ? pKept->pNext : pList->pFirst;
    }
    return nullptr;
}

static void *TravelBackward(List *pList, ListTraveler pfnTraveler, void *pArg1, void *pArg2)
{
    ListNode *pKept = nullptr;
    ListNode *pNode = pList->pLast;
    while (pNode) {
        void *pItem = ItemOf(pList, pNode);
        int nCode = pfnTraveler(pList, pArg1, pArg2, pItem);
        ORX_ASSERT(nCode != 2, "!\"invalid return code\"");
        if (nCode == 0)
            return pItem;
        if (nCode != 1)
            pKept = pNode;
        pNode = pKept ? pKept->pPrev : pList->pLast;
    }
    return nullptr;
}

void *ListTravel(List *pList, ListTraveler pfnTraveler, void *pArg1, void *pArg2, int bBackward)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    ORX_ASSERT(pfnTraveler, "((void *)0)!=pfnTraveler || !\"invalid traveler\"");
    if (!pList->pFirst) {
        pfnTraveler(pList, pArg1, pArg2, nullptr);
        return nullptr;
    }
    return bBackward ? TravelBackward(pList, pfnTraveler, pArg1, pArg2)
                     : TravelForward(pList, pfnTraveler, pArg1, pArg2);
}

static ListNode *EmbeddedNode(const List *pList, void *pItem)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    ORX_ASSERT(pList->pfnMapNode, "(((void *)0)!=pList->pfnMapNode)");
    ListNode *p = pList->pfnMapNode(pList->pUser, pItem);
    ORX_ASSERT(p && p->pList == pList, "p && p->pList==pList");
    return p;
}

void *ListGetData(List *pList, void *pItem)
{
    return EmbeddedNode(pList, pItem)->pData;
}

void ListSetData(List *pList, void *pItem, void *pData)
{
    EmbeddedNode(pList, pItem)->pData = pData;
}

unsigned ListCount(const List *pList)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    return pList->nItems;
}

void ListEmpty(List *pList)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    if (pList->pfnFreeNode || pList->pfnFreeData) {
        ListNode *pNode = pList->pFirst;
        while (pNode) {
            ListNode *pNext = pNode->pNext;
            FreeItemAndNode(pList, pNode);
            pNode = pNext;
        }
    }
    pList->pFirst = nullptr;
    pList->pLast = nullptr;
    pList->nItems = 0;
}

void ListDestroy(List *pList)
{
    ListEmpty(pList);
}

ListNode *ListFindNode(const List *pList, void *pKey, int bForward)
{
    ORX_ASSERT(pList, "pList || !\"invalid list\"");
    ListNode *pNode = bForward ? pList->pFirst : pList->pLast;
    while (pNode && pList->pfnCompare(pList->pUser, pNode->pData, pKey) != 0)
        pNode = bForward ? pNode->pNext : pNode->pPrev;
    return pNode;
}

int ListContains(const List *pList, void *pKey, int bForward)
{
    return ListFindNode(pList, pKey, bForward) ? 1 : 0;
}

void ListUnlink(List *pList, ListNode *pNode, unsigned nFlags)
{
    (pNode->pPrev ? pNode->pPrev->pNext : pList->pFirst) = pNode->pNext;
    (pNode->pNext ? pNode->pNext->pPrev : pList->pLast) = pNode->pPrev;
    pNode->pPrev = nullptr;
    pNode->pNext = nullptr;
    pNode->pList = nullptr;
    pList->nItems--;
    if (nFlags & LIST_FREE)
        FreeItemAndNode(pList, pNode);
}

}  // namespace orx
