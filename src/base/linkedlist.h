// A doubly linked list whose behaviour is a small table of procedures in the list itself.
//
// Two kinds of use: by default the list allocates a node for each item; with map procedures (ListMapProc,
// ListUsedDefMap) the item carries its own node and the list allocates nothing.
//
// No locking inside: the owner serialises access. Misuse is an assertion that aborts.
#pragma once

#include <cstdint>

namespace orx {

struct List;

// Four words of the machine. A node is in at most one list.
struct ListNode {
    ListNode *pPrev = nullptr;  // towards the first, null at the first
    ListNode *pNext = nullptr;  // towards the last, null at the last
    void *pData = nullptr;      // the item in a node-allocating list; free for the owner of an embedded node
    List *pList = nullptr;      // the list that holds the node, null while it is in none
};
static_assert(sizeof(ListNode) == 4 * sizeof(void *), "map mode 1 counts on four words");

struct List {
    void *pUser = nullptr;  // the owner's context, first argument of every procedure
    ListNode *pLast = nullptr;
    ListNode *pFirst = nullptr;
    unsigned nItems = 0;
    void (*pfnFreeData)(void *pUser, void *pItem) = nullptr;  // frees an item; may be null
    // 0 equal, >0 pData sorts after pKey. A search hands it the pData word of each node, a sorted insert the
    // items themselves.
    int (*pfnCompare)(void *pUser, void *pData, void *pKey) = nullptr;
    ListNode *(*pfnAllocNode)(void *pUser, void *pItem) = nullptr;  // makes a node for an item
    void (*pfnFreeNode)(void *pUser, ListNode *pNode) = nullptr;    // frees such a node
    ListNode *(*pfnMapNode)(void *pUser, void *pItem) = nullptr;    // an item's embedded node
    void *(*pfnMapData)(void *pUser, ListNode *pNode) = nullptr;    // the inverse
};

// Flags of the access operations, combinable.
enum : unsigned {
    LIST_DETACH = 1,    // unlink what was found; alone, it leaves item and node to the caller
    LIST_FREE = 2,      // when unlinking, also free item and node, each if there is a procedure for it
    LIST_BACKWARD = 4,  // ListSearch: from the last towards the first
};

// Called with (list, pArg1, pArg2, item); see ListTravel for its results.
using ListTraveler = int (*)(List *, void *, void *, void *);

// Zeroes the record; default procedures: nodes from the heap, comparison by identity, items not freed.
void ListInit(List *pList, void *pUser);
// Sets pfnFreeData (null allowed); sets pfnCompare only when not null.
void ListDataProc(List *pList, void (*pfnFreeData)(void *, void *),
                  int (*pfnCompare)(void *, void *, void *));
// Sets both node procedures and clears the map pair. An allocator needs a freer.
void ListNodeProc(List *pList, ListNode *(*pfnAllocNode)(void *, void *),
                  void (*pfnFreeNode)(void *, ListNode *));
// Sets both map procedures and clears the node pair.
void ListMapProc(List *pList, ListNode *(*pfnMapNode)(void *, void *),
                 void *(*pfnMapData)(void *, ListNode *));
// Installs a default map pair: 0, the item begins with its node; 1, the node lies four words into the item.
void ListUsedDefMap(List *pList, int nMode);

// Each returns 1, or 0 when no node could be made. ListInsert places the item behind (bAfter) or before the
// referer; ListSortInsert before the first greater item, so that equal ones keep their order of arrival.
int ListAppend(List *pList, void *pItem);
int ListPrepend(List *pList, void *pItem);
int ListInsert(List *pList, void *pItem, void *pReferer, int bAfter);
int ListSortInsert(List *pList, void *pItem);

// Unlinks the item's node; with bFree also frees item and node. Returns 1, or 0 when a search for the item's
// node finds none. An embedded node that is not in this list is a misuse. Of equal items in a node-allocating
// list the last one goes.
int ListRemove(List *pList, void *pItem, int bFree);
void ListFree(List *pList, void *pItem);  // as ListRemove with freeing

// An item, or null when there is none. Flags LIST_DETACH and LIST_FREE apply to the item returned: with both,
// the pointer returned is already freed.
void *ListFirst(List *pList, unsigned nFlags);
void *ListLast(List *pList, unsigned nFlags);
void *ListNext(List *pList, void *pItem, unsigned nFlags);
void *ListPrev(List *pList, void *pItem, unsigned nFlags);
void *ListItem(List *pList, int nIndex, unsigned nFlags);  // 0 the first, 1 the second, -1 the last, ...
// The first item for which pfnMatch(pArg1, pArg2, item) is non-zero.
void *ListSearch(List *pList, int (*pfnMatch)(void *, void *, void *), void *pArg1, void *pArg2,
                 unsigned nFlags);

// Visits the items; an empty list calls the traveler once, with a null item.
// Forwards (bBackward 0): 0 stops, 2 says that the current item was removed, 1 is a misuse, anything else
// goes on; the result is null. Backwards: 0 stops and returns the item, 1 says removed, 2 is a misuse; null
// at the end. The traveler may remove the current item and no other one that was visited.
void *ListTravel(List *pList, ListTraveler pfnTraveler, void *pArg1, void *pArg2, int bBackward);

// The pData word of an embedded node.
void *ListGetData(List *pList, void *pItem);
void ListSetData(List *pList, void *pItem, void *pData);

unsigned ListCount(const List *pList);
// Frees items and nodes as far as procedures for it are set. With neither set, only the list's own fields are
// zeroed and the former nodes go on naming the list. The record itself is not freed.
void ListEmpty(List *pList);
void ListDestroy(List *pList);

// What the operations above are made of, for owners that work on nodes. ListFindNode gives the first node,
// from the first forwards or from the last backwards, whose pData compares equal to the key, or null;
// ListContains the same as 1 or 0. ListUnlink takes a node of this list out; of the flags only LIST_FREE
// counts.
ListNode *ListFindNode(const List *pList, void *pKey, int bForward);
int ListContains(const List *pList, void *pKey, int bForward);
void ListUnlink(List *pList, ListNode *pNode, unsigned nFlags);

// For embedded lists: the item is its own node, so walking needs no call.
template <typename Record>
inline Record *ListFirstOf(const List *pList)
{
    return reinterpret_cast<Record *>(pList->pFirst);
}

}  // namespace orx
