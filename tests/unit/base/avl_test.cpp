#include "base/avl.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orx {

using testing::HasSubstr;

struct Avl : testing::Test {
    AvlTree tree;
    Avl() { AvlInit(&tree, nullptr); }
    ~Avl() override { AvlDestroy(&tree); }
};

// The height of a subtree, after a check of every node in it. The nodes are appended in their order.
static int CheckSubtree(AvlNode *pNode, std::vector<AvlNode *> *pInOrder)
{
    if (!pNode)
        return 0;
    int nLeft = CheckSubtree(pNode->left, pInOrder);
    pInOrder->push_back(pNode);
    int nRight = CheckSubtree(pNode->right, pInOrder);
    EXPECT_LE(std::abs(nLeft - nRight), 1) << "at key " << pNode->key;
    EXPECT_EQ(std::max(nLeft, nRight) + 1, pNode->height) << "at key " << pNode->key;
    return std::max(nLeft, nRight) + 1;
}

// The tree holds exactly what the map holds, in order, and is balanced everywhere.
static void CheckAgainst(const AvlTree *pTree, const std::map<AvlKey, void *> &map)
{
    std::vector<AvlNode *> nodes;
    CheckSubtree(pTree->root, &nodes);
    ASSERT_EQ(map.size(), nodes.size());
    size_t i = 0;
    for (const auto &[key, pValue] : map) {
        EXPECT_EQ(key, nodes[i]->key);
        EXPECT_EQ(pValue, nodes[i]->value);
        EXPECT_EQ(i > 0 ? nodes[i - 1] : nullptr, AvlPrev(pTree, nodes[i]));
        EXPECT_EQ(i + 1 < nodes.size() ? nodes[i + 1] : nullptr, AvlNext(pTree, nodes[i]));
        i++;
    }
}

TEST_F(Avl, RandomInsertAndRemoveMatchesAMap)
{
    for (int nKeys : {8, 40, 300}) {
        std::mt19937 random(static_cast<unsigned>(nKeys));
        std::map<AvlKey, void *> map;
        for (int nStep = 0; nStep < 3000 && !HasFailure(); nStep++) {
            // grows and shrinks in turn, so that the tree is also seen nearly empty and nearly full
            bool bInsert = random() % 8 < (nStep / 500 % 2 ? 2U : 6U);
            AvlKey key = static_cast<AvlKey>(random() % static_cast<unsigned>(nKeys)) - nKeys / 2;
            void *pValue = reinterpret_cast<void *>(static_cast<uintptr_t>(nStep + 1));
            EXPECT_EQ(map.count(key), AvlFind(&tree, key) ? 1U : 0U);
            if (bInsert) {
                auto *pfnEnter = map.count(key) ? AvlReplace : AvlInsert;
                EXPECT_EQ(pValue, pfnEnter(&tree, key, pValue)->value);
                map[key] = pValue;
            } else {
                EXPECT_EQ(static_cast<int>(map.erase(key)), nStep % 2 ? AvlDelete(&tree, key) : AvlForget(&tree, key));
            }
            CheckAgainst(&tree, map);
        }
        AvlDestroy(&tree);
    }
}

TEST_F(Avl, OnlyDeleteReachesTheValue)
{
    int nFreed[2] = {};
    tree.pfnFree = [](AvlNode *pNode) { return int{++*static_cast<int *>(pNode->value) == 0}; };
    for (int i = 0; i < 2; i++)
        AvlInsert(&tree, i, &nFreed[i]);
    EXPECT_EQ(1, AvlDelete(&tree, 0));
    EXPECT_EQ(1, AvlForget(&tree, 1));
    EXPECT_THAT(nFreed, testing::ElementsAre(1, 0));
}

// Entered in order, seven keys make a full tree: 4 above 2 and 6, these above the odd ones.
TEST_F(Avl, WalksAndPaths)
{
    static std::string visited;
    static AvlKey stopKey;
    auto *pfnVisit = +[](AvlTree *, AvlNode *pNode) {
        visited += std::to_string(pNode->key);
        return pNode->key != stopKey ? 1 : 0;
    };
    static const struct {
        AvlNode *(*pfnWalk)(AvlTree *, AvlNode *, int (*)(AvlTree *, AvlNode *));
        AvlKey start, stop;
        const char *szVisited;
    } walks[] = {
        {AvlTraversePre, 4, 0, "4213657"}, {AvlTraversePost, 4, 0, "1325764"}, {AvlTraverseWide, 4, 0, "4261357"},
        {AvlTraversePre, 4, 3, "4213"},    {AvlTraversePost, 6, 7, "57"},      {AvlTraverseWide, 2, 1, "21"},
    };
    AvlNode own;  // an entry that brings its node
    own.key = 7;
    for (AvlKey key = 1; key < 7; key++)
        AvlInsert(&tree, key, nullptr);
    EXPECT_EQ(1, AvlAdd(&tree, &own));
    for (const auto &c : walks) {
        visited = "";
        stopKey = c.stop;
        EXPECT_EQ(AvlFind(&tree, c.stop), c.pfnWalk(&tree, AvlFind(&tree, c.start), pfnVisit));
        EXPECT_EQ(c.szVisited, visited);
        EXPECT_EQ(nullptr, c.pfnWalk(&tree, nullptr, pfnVisit));
    }
    OnCheckBanlance(&tree, tree.root);
    EXPECT_EQ(1, AvlDepth(&tree, tree.root));
    EXPECT_EQ(3, AvlDepth(&tree, &own));
    for (int n = 0; AvlKey key : {7, 6, 4, 0})  // the node itself, its ancestors, and none above the root
        EXPECT_EQ(AvlFind(&tree, key), AvlParent(&tree, &own, n++)) << key;
    EXPECT_EQ(&own, AvlRemove(&tree, 7));
}

using AvlDeathTest = Avl;

TEST_F(AvlDeathTest, MisuseAbortsWithItsText)
{
    AvlInsert(&tree, 2, nullptr);
    AvlNode alien;
    alien.key = 2;
    EXPECT_DEATH(AvlInsert(&tree, 2, nullptr), HasSubstr("`!\"key conflict\"'"));
    EXPECT_DEATH(AvlNext(&tree, &alien), HasSubstr("`stack[top]==item'"));
    alien.height = 2;
    EXPECT_DEATH(OnCheckBanlance(&tree, &alien),
                 HasSubstr("`Height(item)==Max(Height(item->left),Height(item->right)) + 1'"));
}

}  // namespace orx
