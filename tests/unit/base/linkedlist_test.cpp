#include "base/linkedlist.h"

#include <climits>
#include <cstdlib>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orx {
namespace {

using testing::HasSubstr;

// An item whose node comes first, as an embedding list wants it; cName makes orders readable.
struct Item {
    ListNode node;
    char cName = 0;
    int nRank = 0;
};

char NameOf(void *pItem)
{
    return pItem ? static_cast<Item *>(pItem)->cName : '-';
}

int AddName(void *pNames, void * /*pArg2*/, void *pItem)
{
    *static_cast<std::string *>(pNames) += NameOf(pItem);
    return 0;
}

// The items in order, after a check that both directions and the count agree.
std::string Order(List *pList)
{
    std::string forward, backward;
    ListSearch(pList, AddName, &forward, nullptr, 0);
    ListSearch(pList, AddName, &backward, nullptr, LIST_BACKWARD);
    EXPECT_EQ(forward, std::string(backward.rbegin(), backward.rend()));
    EXPECT_EQ(forward.size(), ListCount(pList));
    return forward;
}

int CompareRank(void * /*pUser*/, void *pData, void *pKey)
{
    return static_cast<Item *>(pData)->nRank - static_cast<Item *>(pKey)->nRank;
}

// Every case runs on a list that allocates its nodes and on one whose items embed them.
struct ListBoth : testing::TestWithParam<bool> {
    std::string freed;  // items that the list freed
    List list;
    Item items[5];

    ListBoth()
    {
        ListInit(&list, &freed);
        if (!GetParam())
            ListUsedDefMap(&list, 0);
        ListDataProc(
            &list, [](void *pFreed, void *pItem) { AddName(pFreed, nullptr, pItem); }, CompareRank);
        for (int i = 0; i < 5; i++) {
            items[i].cName = static_cast<char>('a' + i);
            items[i].nRank = i;
        }
    }
    ~ListBoth() override { Clear(); }

    void Fill(int n)
    {
        for (int i = 0; i < n; i++)
            EXPECT_EQ(1, ListAppend(&list, &items[i]));
    }
    void Clear()
    {
        while (ListFirst(&list, LIST_DETACH | LIST_FREE))
            continue;
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, ListBoth, testing::Bool(),
                         [](const auto &info) { return info.param ? "Nodes" : "Embedded"; });

TEST_P(ListBoth, InsertsAtEveryPlace)
{
    EXPECT_EQ(1, ListPrepend(&list, &items[0]));
    EXPECT_EQ(1, ListAppend(&list, &items[3]));
    EXPECT_EQ(1, ListInsert(&list, &items[2], &items[0], 1));
    EXPECT_EQ(1, ListInsert(&list, &items[4], &items[0], 0));
    EXPECT_EQ("eacd", Order(&list));
    static const struct {
        int nIndex;
        char cName;
    } cases[] = {{0, 'e'},  {3, 'd'},  {4, '-'},  {INT_MAX, '-'},
                 {-1, 'd'}, {-4, 'e'}, {-5, '-'}, {INT_MIN, '-'}};
    for (const auto &c : cases)
        EXPECT_EQ(c.cName, NameOf(ListItem(&list, c.nIndex, 0))) << c.nIndex;
}

TEST_P(ListBoth, SortedInsertKeepsArrivalOfEqualItems)
{
    const int ranks[] = {5, 3, 5, 1, 3};
    for (int i = 0; i < 5; i++) {
        items[i].nRank = ranks[i];
        EXPECT_EQ(1, ListSortInsert(&list, &items[i]));
    }
    EXPECT_EQ("dbeac", Order(&list));
}

int IsInner(void *, void *, void *pItem)
{
    return NameOf(pItem) == 'b' || NameOf(pItem) == 'c';
}

// Each access operation on "abcd": which item it gives, and what the flags leave behind.
TEST_P(ListBoth, FlagsUnlinkAndFree)
{
    static const struct {
        void *(*pfnAccess)(List *, Item *, unsigned);
        char cTaken;
        const char *szLeft;
    } cases[] = {
        {[](List *p, Item *, unsigned n) { return ListFirst(p, n); }, 'a', "bcd"},
        {[](List *p, Item *, unsigned n) { return ListLast(p, n); }, 'd', "abc"},
        {[](List *p, Item *a, unsigned n) { return ListNext(p, a + 1, n); }, 'c', "abd"},
        {[](List *p, Item *a, unsigned n) { return ListPrev(p, a + 1, n); }, 'a', "bcd"},
        {[](List *p, Item *, unsigned n) { return ListItem(p, -2, n); }, 'c', "abd"},
        {[](List *p, Item *, unsigned n) { return ListSearch(p, IsInner, nullptr, nullptr, n); }, 'b', "acd"},
        {[](List *p, Item *, unsigned n) {
             return ListSearch(p, IsInner, nullptr, nullptr, n | LIST_BACKWARD);
         },
         'c', "abd"},
    };
    for (const auto &c : cases) {
        for (unsigned nFlags = 0; nFlags <= (LIST_DETACH | LIST_FREE); nFlags++) {
            SCOPED_TRACE(c.szLeft + std::string(" flags ") + std::to_string(nFlags));
            Fill(4);
            freed.clear();
            ListNode *pNode = GetParam() ? ListFindNode(&list, &items[c.cTaken - 'a'], 1) : nullptr;
            EXPECT_EQ(c.cTaken, NameOf(c.pfnAccess(&list, items, nFlags)));
            EXPECT_EQ(nFlags & LIST_DETACH ? c.szLeft : "abcd", Order(&list));
            EXPECT_EQ(nFlags == (LIST_DETACH | LIST_FREE) ? std::string(1, c.cTaken) : "", freed);
            if (nFlags == LIST_DETACH)
                free(pNode);  // a bare detach leaves it to the caller
            Clear();
        }
    }
}

// A traveler that notes where it comes, removes some items, and stops at one.
struct Script {
    std::string removed;
    char cStop;
    int nGoOn, nRemoved;  // what it says when it goes on, and after removing
    std::string visited;
};

int FollowScript(List *pList, void *pArg1, void * /*pArg2*/, void *pItem)
{
    auto *pScript = static_cast<Script *>(pArg1);
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
        int bBackward, nGoOn;
        const char *szRemoved, *szVisited, *szLeft;
        char cStop, cResult;
    } cases[] = {
        {0, 3, "", "ab", "abcd", 'b', '-'},  {0, -1, "a", "abcd", "bcd", 0, '-'},
        {0, 4, "bc", "abcd", "ad", 0, '-'},  {0, 3, "abcd", "abcd", "", 0, '-'},
        {1, 3, "", "dcb", "abcd", 'b', 'b'}, {1, -1, "d", "dcba", "abc", 0, '-'},
        {1, 4, "bc", "dcba", "ad", 0, '-'},  {1, 3, "abcd", "dcba", "", 0, '-'},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.bBackward ? "backward " : "forward ") + c.szRemoved);
        Fill(4);
        Script script{c.szRemoved, c.cStop, c.nGoOn, c.bBackward ? 1 : 2, ""};
        EXPECT_EQ(c.cResult, NameOf(ListTravel(&list, FollowScript, &script, nullptr, c.bBackward)));
        EXPECT_EQ(c.szVisited, script.visited);
        EXPECT_EQ(c.szLeft, Order(&list));
        Clear();
        Script empty{"", '-', 0, 0, ""};  // an empty list calls once, without an item
        EXPECT_EQ(nullptr, ListTravel(&list, FollowScript, &empty, nullptr, c.bBackward));
        EXPECT_EQ("-", empty.visited);
    }
}

// Nodes that the owner makes; and nodes of the items' own, whose data word is the owner's.
TEST(List, OwnersThatWorkOnNodes)
{
    std::string calls;
    List list;
    Item a, b;
    ListInit(&list, &calls);
    ListUsedDefMap(&list, 0);
    ListNodeProc(
        &list,
        [](void *pCalls, void *pItem) {
            *static_cast<std::string *>(pCalls) += '+';
            static_cast<Item *>(pItem)->node.pData = pItem;
            return &static_cast<Item *>(pItem)->node;
        },
        [](void *pCalls, ListNode *) { *static_cast<std::string *>(pCalls) += '-'; });
    ListAppend(&list, &a);
    ListAppend(&list, &b);
    EXPECT_EQ(1, ListContains(&list, &a, 0));
    EXPECT_EQ(1, ListRemove(&list, &a, 1));
    EXPECT_EQ(0, ListContains(&list, &a, 0));
    EXPECT_EQ(0, ListRemove(&list, &a, 1));
    ListEmpty(&list);
    EXPECT_EQ("++--", calls);

    ListUsedDefMap(&list, 0);
    a.node = b.node = {};
    ListAppend(&list, &a);
    ListAppend(&list, &b);
    ListSetData(&list, &a, &calls);
    EXPECT_EQ(&calls, ListGetData(&list, &a));
    EXPECT_EQ(nullptr, ListGetData(&list, &b));
    EXPECT_EQ(1, ListContains(&list, &calls, 1));
}

TEST(ListDeathTest, MisuseAbortsWithItsText)
{
    List list, other;
    Item a, b;
    for (List *p : {&list, &other}) {
        ListInit(p, nullptr);
        ListUsedDefMap(p, 0);
    }
    ListAppend(&list, &a);
    ListAppend(&other, &b);
    EXPECT_DEATH(ListAppend(nullptr, &b), HasSubstr("`pList || !\"invalid list\"'"));
    EXPECT_DEATH(ListAppend(&list, &a), HasSubstr("`!p->pList'"));
    EXPECT_DEATH(ListRemove(&list, &b, 0), HasSubstr("`p->pList==pList'"));
    EXPECT_DEATH(ListGetData(&list, &b), HasSubstr("`p && p->pList==pList'"));
    auto *pfnAlloc = +[](void *, void *) -> ListNode * { return nullptr; };
    EXPECT_DEATH(ListNodeProc(&list, pfnAlloc, nullptr), HasSubstr("`((void *)0)!=pfnFreeNode'"));
}

}  // namespace
}  // namespace orx
