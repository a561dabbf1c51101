#include "base/avl.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orx {
namespace {

using testing::HasSubstr;

struct Avl : testing::Test {
    AvlTree tree;

    Avl() { AvlInit(&tree, nullptr); }
    ~Avl() override { AvlDestroy(&tree); }
};

// The height of a subtree, after a check of every node in it. The nodes are appended in their order.
int CheckSubtree(AvlNode *pNode, std::vector<AvlNode *> *pInOrder)
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
void CheckAgainst(const AvlTree *pTree, const std::map<AvlKey, void *> &map)
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
                EXPECT_EQ(static_cast<int>(map.erase(key)),
                          nStep % 2 ? AvlDelete(&tree, key) : AvlForget(&tree, key));
            }
            CheckAgainst(&tree, map);
        }
        AvlDestroy(&tree);
    }
}

int FreeInt(AvlNode *pNode)
{
    return ++*static_cast<int *>(pNode->value) == 0;
}

TEST_F(Avl, OnlyDeleteReachesTheValue)
{
    int nFreed[2] = {};
    tree.pfnFree = FreeInt;
    for (int i = 0; i < 2; i++)
        AvlInsert(&tree, i, &nFreed[i]);
    EXPECT_EQ(1, AvlDelete(&tree, 0));
    EXPECT_EQ(1, AvlForget(&tree, 1));
    EXPECT_THAT(nFreed, testing::ElementsAre(1, 0));
}

TEST_F(Avl, TextKeysIgnoreCase)
{
    tree.pfnCompare = AvlCompareTextNoCase;
    static const char *const names[] = {"CSeq", "Accept", "Session", "Range"};
    for (const char *sz : names)
        AvlInsert(&tree, AvlTextKey(sz), const_cast<char *>(sz));
    EXPECT_EQ(names[0], AvlValue(&tree, AvlTextKey("cseq")));
    EXPECT_EQ(names[3], AvlValue(&tree, AvlTextKey("RANGE")));
    EXPECT_EQ(nullptr, AvlValue(&tree, AvlTextKey("CSe")));
}

using AvlDeathTest = Avl;

TEST_F(AvlDeathTest, MisuseAbortsWithItsText)
{
    AvlInsert(&tree, 2, nullptr);
    AvlNode alien;
    alien.key = 2;
    EXPECT_DEATH(AvlInsert(&tree, 2, nullptr), HasSubstr("`!\"key conflict\"'"));
    EXPECT_DEATH(AvlNext(&tree, &alien), HasSubstr("`stack[top]==item'"));
}

}  // namespace
}  // namespace orx
