// A height-balanced search tree without parent pointers: an operation that needs the path from the root
// records it in a stack of 33 entries, which bounds the height at 32. Keys are unique. No locking inside;
// misuse aborts.
#pragma once

#include <cstdint>

namespace orx {

// As wide as a pointer, so that a map can be keyed by text; descriptors are kept as 32-bit signed numbers.
using AvlKey = intptr_t;

struct AvlNode {
    AvlNode *left = nullptr;   // smaller keys
    AvlNode *right = nullptr;  // larger keys
    int height = 0;            // 1 at a leaf
    AvlKey key = 0;
    void *value = nullptr;
};

enum : uint32_t { AVL_REPLACE = 1 };  // inserting an existing key replaces the old node

struct AvlTree {
    uintptr_t nZero = 0;
    AvlNode *root = nullptr;
    uint32_t flags = 0;                        // AVL_...
    int (*pfnFree)(AvlNode *pNode) = nullptr;  // on discarding a node; 0 lets the tree free() it
    AvlNode *(*pfnAlloc)(AvlKey key, void *pValue) = nullptr;  // a node from malloc, all zero, or null
    int (*pfnCompare)(AvlKey a, AvlKey b) = nullptr;           // the sign gives the order
};

// Zeroes the record and installs the default allocator, the compare of 32-bit signed numbers, and pfnFree
// (null: a default that lets the tree free the node).
void AvlInit(AvlTree *pTree, int (*pfnFree)(AvlNode *));
// The new node; null when no node could be made. An existing key is a misuse unless AVL_REPLACE is set.
AvlNode *AvlInsert(AvlTree *pTree, AvlKey key, void *pValue);
// As AvlInsert, but an existing node is replaced and discarded.
AvlNode *AvlReplace(AvlTree *pTree, AvlKey key, void *pValue);
// Enters a node whose key is set; its other fields but the value are overwritten. 1 inserted, 0 refused.
int AvlAdd(AvlTree *pTree, AvlNode *pNode);
// Takes the node out without freeing it; null when the key is absent. The links of the node given back mean
// nothing any more.
AvlNode *AvlRemove(AvlTree *pTree, AvlKey key);
// Takes the entry out of a map that owns its values: node and value are discarded through pfnFree. Returns 1,
// or 0 when the key is absent.
int AvlDelete(AvlTree *pTree, AvlKey key);
// Takes the entry out of a map that only names what others own: the node is freed, pfnFree is not called and
// the value stays as it is. Returns 1, or 0 when the key is absent.
int AvlForget(AvlTree *pTree, AvlKey key);
AvlNode *AvlFind(const AvlTree *pTree, AvlKey key);
// For a node that is in the tree: its n-th ancestor (1 the parent) or null above the root, its neighbours in
// key order or null at the ends, the number of nodes on the path to it (1 for the root).
AvlNode *AvlParent(const AvlTree *pTree, AvlNode *pNode, int n);
AvlNode *AvlPrev(const AvlTree *pTree, AvlNode *pNode);
AvlNode *AvlNext(const AvlTree *pTree, AvlNode *pNode);
int AvlDepth(const AvlTree *pTree, AvlNode *pNode);
// Walks of the subtree at pStart (null: nothing): children before their node, nodes before their children,
// level by level from left to right. Each returns the node at which pfnVisit gave 0, else null. The visitor
// must not insert or remove; that of the first walk may free its node.
AvlNode *AvlTraversePost(AvlTree *pTree, AvlNode *pStart, int (*pfnVisit)(AvlTree *, AvlNode *));
AvlNode *AvlTraversePre(AvlTree *pTree, AvlNode *pStart, int (*pfnVisit)(AvlTree *, AvlNode *));
AvlNode *AvlTraverseWide(AvlTree *pTree, AvlNode *pStart, int (*pfnVisit)(AvlTree *, AvlNode *));
// Discards every node through pfnFree; the tree is empty afterwards and may be used again.
void AvlDestroy(AvlTree *pTree);
// Asserts that the node's height is that of its taller child plus one.
void OnCheckBanlance(const AvlTree *pTree, const AvlNode *pNode);

// The value under a key, or null.
inline void *AvlValue(const AvlTree *pTree, AvlKey key)
{
    AvlNode *pNode = AvlFind(pTree, key);
    return pNode ? pNode->value : nullptr;
}

// A text as a key: the tree keeps the pointer, the text must outlive the entry. For use with
// AvlCompareTextNoCase.
inline AvlKey AvlTextKey(const char *sz)
{
    return reinterpret_cast<AvlKey>(sz);
}
int AvlCompareTextNoCase(AvlKey a, AvlKey b);

}  // namespace orx
