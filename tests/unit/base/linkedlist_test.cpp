#include "base/linkedlist.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orx {

using testing::HasSubstr;

// An item whose node comes first, as an embedding list wants it; cName makes orders readable.
struct Item {
    ListNode node;
    char cName = 0;
    int nRank = 0;
};

static char NameOf(void *pItem)
{
    return pItem ? static_cast<Item *>(pItem)->cName : '-';
}

static int AddName(void *pNames, void * /*pArg2*/, void *pItem)
{
    *static_cast<std::string *>(pNames) += NameOf(pItem);
    return 0;
}

// The items in order, after a check that both directions and the count agree.
static std::string Order(List *pList)
{
    std::string forward, backward;
    ListSearch(pList, AddName, &forward, nullptr, 0);
    ListSearch(pList, AddName, &backward, nullptr, LIST_BACKWARD);
    EXPECT_EQ(forward, std::string(backward.rbegin(), backward.rend()));
    EXPECT_EQ(forward.size(), ListCount(pList));
    return forward;
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
        auto *pfnByRank = +[](void *, void *pData, void *pKey) {
            return static_cast<Item *>(pData)->nRank - static_cast<Item *>(pKey)->nRank;
        };
        ListDataProc(
            &list, [](void *pFreed, void *pItem) { AddName(pFreed, nullptr, pItem); }, pfnByRank);
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
    static const std::pair<int, char> cases[] = {{0, 'e'},  {3, 'd'},  {4, '-'},  {INT_MAX, '-'},
                                                 {-1, 'd'}, {-4, 'e'}, {-5, '-'}, {INT_MIN, '-'}};
    for (const auto &[nIndex, cName] : cases)
        EXPECT_EQ(cName, NameOf(ListItem(&list, nIndex, 0))) << nIndex;
}

TEST_P(ListBoth, SortedInsertKeepsArrivalOfEqualItems)
{
    for (int i = 0; int nRank : {5, 3, 5, 1, 3}) {
        items[i].nRank = nRank;
        EXPECT_EQ(1, ListSortInsert(&list, &items[i++]));
    }
    EXPECT_EQ("dbeac", Order(&list));
}

// Each access operation on "abcd": which item it gives, and what the flags leave behind.
TEST_P(ListBoth, FlagsUnlinkAndFree)
{
    auto *pfnInner = +[](void *, void *, void *pItem) { return int{NameOf(pItem) == 'b' || NameOf(pItem) == 'c'}; };
    for (unsigned nFlags = 0; nFlags <= (LIST_DETACH | LIST_FREE); nFlags++) {
        const std::pair<char, std::function<void *()>> cases[] = {
            {'a', [&] { return ListFirst(&list, nFlags); }},
            {'d', [&] { return ListLast(&list, nFlags); }},
            {'c', [&] { return ListNext(&list, &items[1], nFlags); }},
            {'a', [&] { return ListPrev(&list, &items[1], nFlags); }},
            {'c', [&] { return ListItem(&list, -2, nFlags); }},
            {'b', [&] { return ListSearch(&list, pfnInner, nullptr, nullptr, nFlags); }},
            {'c', [&] { return ListSearch(&list, pfnInner, nullptr, nullptr, nFlags | LIST_BACKWARD); }},
        };
        for (const auto &[cTaken, access] : cases) {
            SCOPED_TRACE(cTaken + std::string(" flags ") + std::to_string(nFlags));
            std::string left = "abcd";
            Fill(4);
            freed.clear();
            ListNode *pNode = GetParam() ? ListFindNode(&list, &items[cTaken - 'a'], 1) : nullptr;
            EXPECT_EQ(cTaken, NameOf(access()));
            EXPECT_EQ(nFlags & LIST_DETACH ? left.erase(size_t(cTaken - 'a'), 1) : left, Order(&list));
            EXPECT_EQ(nFlags == (LIST_DETACH | LIST_FREE) ? std::string(1, cTaken) : "", freed);
            if (nFlags == LIST_DETACH)
                free(pNode);  // a bare detach leaves it to the caller
            Clear();
        }
    }
}

// A traveler that asks a function.
static int AskFunction(List * /*pList*/, void *pFunction, void * /*pArg2*/, void *pItem)
{
    return (*static_cast<std::function<int(void *)> *>(pFunction))(pItem);
}

TEST_P(ListBoth, TravelCodes)
{
    // Over "abcd": what is visited, what is left, and the result. The traveler removes some and stops at one.
    auto travel = [&](int bBackward, int nGoOn, const char *szRemoved, char cStop) {
        std::string visited;
        std::function<int(void *)> visit = [&](void *pItem) {
            visited += NameOf(pItem);
            if (!strchr(szRemoved, NameOf(pItem)))
                return NameOf(pItem) == cStop ? 0 : nGoOn;
            ListRemove(&list, pItem, 1);
            return bBackward ? 1 : 2;
        };
        Fill(4);
        char cResult = NameOf(ListTravel(&list, AskFunction, &visit, nullptr, bBackward));
        std::string told = visited + " " + Order(&list) + " " + cResult;
        Clear();
        visited.clear();
        EXPECT_EQ(nullptr, ListTravel(&list, AskFunction, &visit, nullptr, bBackward));
        EXPECT_EQ("-", visited) << "an empty list calls once, without an item";
        return told;
    };
    EXPECT_EQ("ab abcd -", travel(0, 3, "", 'b'));
    EXPECT_EQ("abcd bcd -", travel(0, -1, "a", '!'));
    EXPECT_EQ("abcd ad -", travel(0, 4, "bc", '!'));
    EXPECT_EQ("abcd  -", travel(0, 3, "abcd", '!'));
    EXPECT_EQ("dcb abcd b", travel(1, 3, "", 'b'));
    EXPECT_EQ("dcba abc -", travel(1, -1, "d", '!'));
    EXPECT_EQ("dcba ad -", travel(1, 4, "bc", '!'));
    EXPECT_EQ("dcba  -", travel(1, 3, "abcd", '!'));
}

// Nodes that the owner makes; and nodes of the items' own, whose data word is the owner's.
TEST(List, OwnersThatWorkOnNodes)
{
    static std::string calls;
    List list;
    Item a, b;
    ListInit(&list, nullptr);
    ListNodeProc(
        &list,
        [](void *, void *pItem) {
            calls += '+';
            static_cast<Item *>(pItem)->node.pData = pItem;
            return &static_cast<Item *>(pItem)->node;
        },
        [](void *, ListNode *) { calls += '-'; });
    ListAppend(&list, &a);
    ListAppend(&list, &b);
    for (int bThere : {1, 0}) {
        EXPECT_EQ(bThere, ListContains(&list, &a, 0));
        EXPECT_EQ(bThere, ListRemove(&list, &a, 1));
    }
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
        ListAppend(p, p == &list ? &a : &b);
    }
    EXPECT_DEATH(ListAppend(nullptr, &b), HasSubstr("`pList || !\"invalid list\"'"));
    EXPECT_DEATH(ListAppend(&list, &a), HasSubstr("`!p->pList'"));
    EXPECT_DEATH(ListRemove(&list, &b, 0), HasSubstr("`p->pList==pList'"));
    EXPECT_DEATH(ListGetData(&list, &b), HasSubstr("`p && p->pList==pList'"));
    auto *pfnAlloc = +[](void *, void *) -> ListNode * { return nullptr; };
    EXPECT_DEATH(ListNodeProc(&list, pfnAlloc, nullptr), HasSubstr("`((void *)0)!=pfnFreeNode'"));
}

}  // namespace orx
