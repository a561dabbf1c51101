#include "base/linkedlist.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>

using namespace orx;
using testing::HasSubstr;

namespace {

// An item whose node comes first (map mode 0); cName makes orders readable.
struct Item {
    ListNode node;
    char cName = 0;
    int nRank = 0;
};

// What the list's procedures did; the list's context points to it.
struct Trace {
    std::string freedItems;
    int nNodesFreed = 0;
};

void FreeItem(void *pUser, void *pItem)
{
    static_cast<Trace *>(pUser)->freedItems += static_cast<Item *>(pItem)->cName;
}

int CompareRank(void * /*pUser*/, void *pData, void *pKey)
{
    return static_cast<Item *>(pData)->nRank - static_cast<Item *>(pKey)->nRank;
}

ListNode *TracedAlloc(void * /*pUser*/, void *pItem)
{
    auto *pNode = new ListNode;
    pNode->pData = pItem;
    return pNode;
}

void TracedFree(void *pUser, ListNode *pNode)
{
    static_cast<Trace *>(pUser)->nNodesFreed++;
    delete pNode;
}

char NameOf(void *pItem)
{
    return pItem ? static_cast<Item *>(pItem)->cName : '-';
}

int AddName(void *pArg1, void * /*pArg2*/, void *pItem)
{
    *static_cast<std::string *>(pArg1) += NameOf(pItem);
    return 0;
}

// The items in order, after a check that both directions and the count agree.
std::string Order(List *pList)
{
    std::string order;
    ListSearch(pList, AddName, &order, nullptr, 0);
    std::string backward;
    ListSearch(pList, AddName, &backward, nullptr, LIST_BACKWARD);
    EXPECT_EQ(order, std::string(backward.rbegin(), backward.rend()));
    EXPECT_EQ(order.size(), ListCount(pList));
    for (ListNode *p = pList->pFirst; p; p = p->pNext)
        EXPECT_EQ(pList, p->pList);
    if (pList->pFirst) {
        EXPECT_EQ(nullptr, pList->pFirst->pPrev);
        EXPECT_EQ(nullptr, pList->pLast->pNext);
    }
    return order;
}

enum Kind { ALLOCATING, EMBEDDED };

// Runs every case on both kinds of list.
class ListBoth : public testing::TestWithParam<Kind> {
protected:
    ListBoth()
    {
        ListInit(&list, &trace);
        if (GetParam() == ALLOCATING)
            ListNodeProc(&list, TracedAlloc, TracedFree);
        else
            ListUsedDefMap(&list, 0);
        ListDataProc(&list, FreeItem, nullptr);
        for (int i = 0; i < 5; i++)
            items[i].cName = static_cast<char>('a' + i);
    }
    ~ListBoth() override { ListEmpty(&list); }

    void Fill(int n)
    {
        for (int i = 0; i < n; i++)
            EXPECT_EQ(1, ListAppend(&list, &items[i]));
    }

    // How many nodes a freeing operation should have freed so far.
    int Nodes(int n) { return GetParam() == ALLOCATING ? n : 0; }

    Trace trace;
    List list;
    Item items[5];
};

INSTANTIATE_TEST_SUITE_P(Kinds, ListBoth, testing::Values(ALLOCATING, EMBEDDED),
                         [](const auto &info) { return info.param == ALLOCATING ? "Nodes" : "Embedded"; });

TEST_P(ListBoth, InsertsAtEveryPlace)
{
    EXPECT_EQ(1, ListPrepend(&list, &items[1]));
    EXPECT_EQ(1, ListPrepend(&list, &items[0]));
    EXPECT_EQ(1, ListAppend(&list, &items[3]));
    EXPECT_EQ(1, ListInsert(&list, &items[2], &items[1], 1));
    EXPECT_EQ(1, ListInsert(&list, &items[4], &items[0], 0));
    EXPECT_EQ("eabcd", Order(&list));
    EXPECT_EQ(1, ListRemove(&list, &items[1], 1));
    EXPECT_EQ(1, ListInsert(&list, &items[1], &items[3], 1));
    EXPECT_EQ("eacdb", Order(&list));
    EXPECT_EQ(nullptr, ListNext(&list, &items[1], 0));
    EXPECT_EQ(nullptr, ListPrev(&list, &items[4], 0));
}

TEST_P(ListBoth, SortedInsertKeepsArrivalOfEqualItems)
{
    ListDataProc(&list, FreeItem, CompareRank);
    const int aRanks[] = {5, 3, 5, 1, 3};
    for (int i = 0; i < 5; i++) {
        items[i].nRank = aRanks[i];
        EXPECT_EQ(1, ListSortInsert(&list, &items[i]));
    }
    EXPECT_EQ("dbeac", Order(&list));
    if (GetParam() == ALLOCATING) {
        EXPECT_EQ(1, ListRemove(&list, &items[0], 1)) << "takes the newest of equal items";
        EXPECT_EQ("dbea", Order(&list));
    }
}

TEST_P(ListBoth, IndexesFromBothEnds)
{
    Fill(3);
    static const struct {
        int nIndex;
        char cName;
    } cases[] = {{0, 'a'},  {1, 'b'},  {2, 'c'},  {3, '-'},       {INT_MAX, '-'},
                 {-1, 'c'}, {-2, 'b'}, {-3, 'a'}, {INT_MIN, '-'}, {-4, '-'}};
    for (const auto &c : cases)
        EXPECT_EQ(c.cName, NameOf(ListItem(&list, c.nIndex, 0))) << c.nIndex;
    EXPECT_EQ("abc", Order(&list));
}

int Inner(void *, void *, void *pItem)
{
    return NameOf(pItem) == 'b' || NameOf(pItem) == 'c' ? 7 : 0;
}

// Each access operation on "abcd": which item it gives, and what the flags leave behind.
TEST_P(ListBoth, FlagsUnlinkAndFree)
{
    using Access = void *(*)(List *, Item *, unsigned);
    static const struct {
        const char *szName;
        Access pfnAccess;
        char cTaken;
        const char *szLeft;
    } cases[] = {
        {"first", [](List *p, Item *, unsigned n) { return ListFirst(p, n); }, 'a', "bcd"},
        {"last", [](List *p, Item *, unsigned n) { return ListLast(p, n); }, 'd', "abc"},
        {"next", [](List *p, Item *a, unsigned n) { return ListNext(p, a + 1, n); }, 'c', "abd"},
        {"prev", [](List *p, Item *a, unsigned n) { return ListPrev(p, a + 1, n); }, 'a', "bcd"},
        {"item", [](List *p, Item *, unsigned n) { return ListItem(p, -2, n); }, 'c', "abd"},
        {"search", [](List *p, Item *, unsigned n) { return ListSearch(p, Inner, nullptr, nullptr, n); }, 'b',
         "acd"},
        {"search backward",
         [](List *p, Item *, unsigned n) {
             return ListSearch(p, Inner, nullptr, nullptr, n | LIST_BACKWARD);
         },
         'c', "abd"},
    };
    for (const auto &c : cases) {
        for (unsigned nFlags = 0; nFlags <= 3; nFlags++) {
            SCOPED_TRACE(std::string(c.szName) + " flags " + std::to_string(nFlags));
            trace = Trace();
            Fill(4);
            ListNode *pNode = nullptr;  // what a bare detach leaves to the caller
            for (pNode = list.pFirst; pNode; pNode = pNode->pNext)
                if ((GetParam() == ALLOCATING ? pNode->pData : pNode) == &items[c.cTaken - 'a'])
                    break;
            EXPECT_EQ(c.cTaken, NameOf(c.pfnAccess(&list, items, nFlags)));
            EXPECT_EQ(nFlags & LIST_DETACH ? c.szLeft : "abcd", Order(&list));
            int bFreed = nFlags == (LIST_DETACH | LIST_FREE);
            EXPECT_EQ(bFreed ? std::string(1, c.cTaken) : "", trace.freedItems);
            EXPECT_EQ(bFreed ? Nodes(1) : 0, trace.nNodesFreed);
            if (nFlags == LIST_DETACH) {
                EXPECT_EQ(nullptr, pNode->pList);
                if (GetParam() == ALLOCATING)
                    delete pNode;
            }
            while (ListFirst(&list, LIST_DETACH | LIST_FREE)) {
            }
        }
    }
}

// Travel: a script gives the code for each item; upper-case names are removed before the code is given.
struct Script {
    std::string removed;  // items that the traveler removes
    char cStop = 0;       // where it stops
    int nGoOn = 0;        // what it says otherwise
    int nRemoved = 0;     // what it says after removing
    std::string visited;
};

int FollowScript(List *pList, void *pArg1, void *pArg2, void *pItem)
{
    auto *pScript = static_cast<Script *>(pArg1);
    EXPECT_EQ(pScript, pArg2);
    char cName = NameOf(pItem);
    pScript->visited += cName;
    if (pScript->removed.find(cName) != std::string::npos) {
        ListRemove(pList, pItem, 1);
        return pScript->nRemoved;
    }
    return cName == pScript->cStop ? 0 : pScript->nGoOn;
}

TEST_P(ListBoth, TravelCodes)
{
    static const struct {
        int bBackward;
        const char *szRemoved;
        char cStop;
        int nGoOn;
        const char *szVisited, *szLeft;
        char cResult;
    } cases[] = {
        {0, "", 0, 3, "abcd", "abcd", '-'},  {0, "", 'b', 3, "ab", "abcd", '-'},
        {0, "a", 0, -1, "abcd", "bcd", '-'}, {0, "bc", 0, 4, "abcd", "ad", '-'},
        {0, "d", 0, 9, "abcd", "abc", '-'},  {0, "abcd", 0, 3, "abcd", "", '-'},
        {0, "ab", 'c', 3, "abc", "cd", '-'}, {1, "", 0, 3, "dcba", "abcd", '-'},
        {1, "", 'b', 3, "dcb", "abcd", 'b'}, {1, "d", 0, -1, "dcba", "abc", '-'},
        {1, "bc", 0, 4, "dcba", "ad", '-'},  {1, "a", 0, 9, "dcba", "bcd", '-'},
        {1, "abcd", 0, 3, "dcba", "", '-'},  {1, "dc", 'b', 3, "dcb", "ab", 'b'},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.bBackward ? "backward " : "forward ") + c.szRemoved + " stop " + c.cStop);
        Fill(4);
        Script script{c.szRemoved, c.cStop, c.nGoOn, c.bBackward ? 1 : 2, ""};
        EXPECT_EQ(c.cResult, NameOf(ListTravel(&list, FollowScript, &script, &script, c.bBackward)));
        EXPECT_EQ(c.szVisited, script.visited);
        EXPECT_EQ(c.szLeft, Order(&list));
        while (ListFirst(&list, LIST_DETACH | LIST_FREE)) {
        }
    }
}

TEST_P(ListBoth, TravelOfAnEmptyListCallsOnceWithoutAnItem)
{
    for (int bBackward = 0; bBackward < 2; bBackward++) {
        Script script{"", '-', 0, 0, ""};
        EXPECT_EQ(nullptr, ListTravel(&list, FollowScript, &script, &script, bBackward));
        EXPECT_EQ("-", script.visited);
    }
}

// Every misuse on a list that holds items a and b; item c is in another list, item d in none.
struct Misused {
    List list, other, allocating;
    Item a, b, c, d;
};

int Say1(List *, void *, void *, void *)
{
    return 1;
}

int Say2(List *, void *, void *, void *)
{
    return 2;
}

TEST(ListDeathTest, MisuseAbortsWithItsText)
{
    static const struct {
        const char *szText;
        void (*pfnMisuse)(Misused *);
    } cases[] = {
        {"`pList || !\"invalid list\"'", [](Misused *m) { ListAppend(nullptr, &m->d); }},
        {"`((void *)0)!=pfnTraveler || !\"invalid traveler\"'",
         [](Misused *m) { ListTravel(&m->list, nullptr, nullptr, nullptr, 0); }},
        {"`pReferer || !\"invalid item\"'", [](Misused *m) { ListInsert(&m->list, &m->d, nullptr, 1); }},
        {"`p && !p->pList && t && t->pList==pList'",
         [](Misused *m) { ListInsert(&m->list, &m->c, &m->a, 1); }},
        {"`t && t->pList==pList'", [](Misused *m) { ListInsert(&m->allocating, &m->a, &m->d, 1); }},
        {"`p && !p->pList'", [](Misused *m) { ListSortInsert(&m->list, &m->a); }},
        {"`!p->pList'", [](Misused *m) { ListAppend(&m->list, &m->a); }},
        {"`p->pList==pList'", [](Misused *m) { ListRemove(&m->list, &m->c, 0); }},
        {"`p && p->pList==pList'", [](Misused *m) { ListNext(&m->list, &m->c, 0); }},
        {"`(((void *)0)!=pList->pfnMapNode)'", [](Misused *m) { ListGetData(&m->allocating, &m->a); }},
        {"`((void *)0)!=pfnFreeNode'", [](Misused *m) { ListNodeProc(&m->list, TracedAlloc, nullptr); }},
        {"`((void *)0)!=pfnMapData'", [](Misused *m) { ListMapProc(&m->list, m->list.pfnMapNode, nullptr); }},
        {"`!\"only two default map routines available\"'", [](Misused *m) { ListUsedDefMap(&m->list, 2); }},
        {"`!\"invalid return code\"'", [](Misused *m) { ListTravel(&m->list, Say1, nullptr, nullptr, 0); }},
        {"`!\"invalid return code\"'", [](Misused *m) { ListTravel(&m->list, Say2, nullptr, nullptr, 1); }},
    };
    Misused m;
    for (List *p : {&m.list, &m.other, &m.allocating})
        ListInit(p, nullptr);
    ListUsedDefMap(&m.list, 0);
    ListUsedDefMap(&m.other, 0);
    ListAppend(&m.list, &m.a);
    ListAppend(&m.list, &m.b);
    ListAppend(&m.other, &m.c);
    for (size_t i = 0; i < std::size(cases); i++) {
        SCOPED_TRACE(i);
        EXPECT_DEATH(cases[i].pfnMisuse(&m), HasSubstr(cases[i].szText));
    }
}

}  // namespace
