#include "base/avl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <vector>

using namespace orx;
using testing::HasSubstr;

namespace {

std::vector<AvlKey> g_visited;  // keys that visitors and free procedures saw
int g_bTreeFrees;               // 1: NoteFree leaves the freeing to the tree

int NoteFree(AvlNode *pNode)
{
    g_visited.push_back(pNode->key);
    if (g_bTreeFrees)
        return 0;
    free(pNode);
    return 1;
}

// The height of a subtree, after a check of every node in it: balance, recorded height, order of keys.
int CheckSubtree(const AvlTree *pTree, const AvlNode *pNode, const AvlNode *pAbove, const AvlNode *pBelow)
{
    if (!pNode)
        return 0;
    EXPECT_TRUE(!pAbove || pTree->pfnCompare(pNode->key, pAbove->key) < 0);
    EXPECT_TRUE(!pBelow || pTree->pfnCompare(pNode->key, pBelow->key) > 0);
    int nLeft = CheckSubtree(pTree, pNode->left, pNode, pBelow);
    int nRight = CheckSubtree(pTree, pNode->right, pAbove, pNode);
    EXPECT_LE(std::abs(nLeft - nRight), 1) << "at key " << pNode->key;
    EXPECT_EQ(std::max(nLeft, nRight) + 1, pNode->height) << "at key " << pNode->key;
    OnCheckBanlance(pTree, pNode);
    return std::max(nLeft, nRight) + 1;
}

// The tree holds exactly what the map holds, in order, and is balanced everywhere.
void CheckAgainst(const AvlTree *pTree, const std::map<AvlKey, void *> &map)
{
    CheckSubtree(pTree, pTree->root, nullptr, nullptr);
    AvlNode *pNode = pTree->root;
    while (pNode && pNode->left)
        pNode = pNode->left;
    AvlNode *pBefore = nullptr;
    for (const auto &[key, pValue] : map) {
        ASSERT_TRUE(pNode);
        ASSERT_EQ(key, pNode->key);
        ASSERT_EQ(pValue, pNode->value);
        ASSERT_EQ(pBefore, AvlPrev(pTree, pNode));
        pBefore = pNode;
        pNode = AvlNext(pTree, pNode);
    }
    ASSERT_EQ(nullptr, pNode);
}

class Avl : public testing::Test {
protected:
    Avl()
    {
        AvlInit(&tree, nullptr);
        g_visited.clear();
        g_bTreeFrees = 0;
    }
    ~Avl() override { AvlDestroy(&tree); }

    void Insert(std::initializer_list<AvlKey> keys)
    {
        for (AvlKey key : keys)
            EXPECT_NE(nullptr, AvlInsert(&tree, key, nullptr));
    }

    AvlTree tree;
};

TEST_F(Avl, RandomInsertAndRemoveMatchesAMap)
{
    for (int nKeys : {8, 40, 300}) {
        std::mt19937 random(static_cast<unsigned>(nKeys));
        std::map<AvlKey, void *> map;
        for (int nStep = 0; nStep < 3000; nStep++) {
            // grows and shrinks in turn, so that the tree is also seen nearly empty and nearly full
            int bInsert = random() % 8 < (nStep / 500 % 2 ? 2U : 6U);
            AvlKey key = static_cast<AvlKey>(random() % static_cast<unsigned>(nKeys)) - nKeys / 2;
            void *pValue = reinterpret_cast<void *>(static_cast<uintptr_t>(nStep + 1));
            EXPECT_EQ(map.count(key), AvlFind(&tree, key) ? 1U : 0U);
            if (bInsert && !map.count(key)) {
                EXPECT_EQ(pValue, AvlInsert(&tree, key, pValue)->value);
                map[key] = pValue;
            } else if (bInsert) {
                EXPECT_EQ(pValue, AvlReplace(&tree, key, pValue)->value);
                map[key] = pValue;
            } else {
                AvlNode *pNode = AvlRemove(&tree, key);
                EXPECT_EQ(map.erase(key), pNode ? 1U : 0U);
                AvlDiscard(&tree, pNode);
            }
            CheckAgainst(&tree, map);
            if (HasFailure())
                FAIL() << nKeys << " keys, step " << nStep;
        }
        AvlDestroy(&tree);
    }
}

TEST_F(Avl, DestroyHandsEveryNodeToTheFreeProcedureOnce)
{
    for (g_bTreeFrees = 0; g_bTreeFrees < 2; g_bTreeFrees++) {
        AvlInit(&tree, NoteFree);
        AvlDestroy(&tree);
        EXPECT_TRUE(g_visited.empty());
        Insert({4, 2, 6, 1, 3, 5, 7});
        AvlDestroy(&tree);
        EXPECT_EQ((std::vector<AvlKey>{1, 3, 2, 5, 7, 6, 4}), g_visited);
        EXPECT_EQ(nullptr, tree.root);
        AvlDiscard(&tree, nullptr);
        g_visited.clear();
    }
}

TEST_F(Avl, TextKeysIgnoreCase)
{
    tree.pfnCompare = AvlCompareTextNoCase;
    static const char *const aNames[] = {"CSeq", "Accept", "Session", "Range", "User-Agent"};
    for (const char *sz : aNames)
        AvlInsert(&tree, AvlTextKey(sz), const_cast<char *>(sz));
    EXPECT_EQ(aNames[0], AvlValue(&tree, AvlTextKey("cseq")));
    EXPECT_EQ(aNames[3], AvlValue(&tree, AvlTextKey("RANGE")));
    EXPECT_EQ(nullptr, AvlValue(&tree, AvlTextKey("CSe")));
    CheckSubtree(&tree, tree.root, nullptr, nullptr);
}

TEST(AvlDeathTest, MisuseAbortsWithItsText)
{
    static const struct {
        const char *szText;
        void (*pfnMisuse)(AvlTree *, AvlNode *);
    } cases[] = {
        {"`!\"key conflict\"'", [](AvlTree *p, AvlNode *) { AvlInsert(p, 2, nullptr); }},
        {"`item'", [](AvlTree *p, AvlNode *) { AvlParent(p, nullptr, 1); }},
        {"`stack[top]==item'", [](AvlTree *p, AvlNode *pAlien) { AvlParent(p, pAlien, 1); }},
        // an order that contradicts itself leads to a place that is taken
        {"`!p->left'",
         [](AvlTree *p, AvlNode *) {
             p->pfnCompare = [](AvlKey, AvlKey) { return -1; };
             p->root->right = nullptr;
             AvlInsert(p, 9, nullptr);
         }},
        {"`Height(item)==Max(Height(item->left),Height(item->right)) + 1'",
         [](AvlTree *p, AvlNode *) {
             p->root->height++;
             OnCheckBanlance(p, p->root);
         }},
        {"`!\"out of memory\"'",
         [](AvlTree *p, AvlNode *) {
             p->root->height = 62;
             AvlTraverseWide(p, p->root, [](AvlTree *, AvlNode *) { return 1; });
         }},
    };
    AvlTree tree;
    AvlInit(&tree, nullptr);
    for (AvlKey key : {2, 1, 3})
        AvlInsert(&tree, key, nullptr);
    AvlNode alien;
    alien.key = 1;
    for (size_t i = 0; i < std::size(cases); i++) {
        SCOPED_TRACE(i);
        EXPECT_DEATH(cases[i].pfnMisuse(&tree, &alien), HasSubstr(cases[i].szText));
    }
    AvlDestroy(&tree);
}

}  // namespace
