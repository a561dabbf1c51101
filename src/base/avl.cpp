#include "base/avl.h"

#include <strings.h>

#include <cstdlib>
#include <limits>
#include <new>

#include "base/assertion.h"

namespace orx {

// The nodes from the root down to one of interest, and a null behind the last. A tree of height 33, which
// would not fit, has over nine million nodes at the least.
static constexpr int kPathEntries = 33;
using Path = AvlNode *[kPathEntries];

static AvlNode *AllocNode(AvlKey /*key*/, void * /*pValue*/)
{
    void *pMemory = malloc(sizeof(AvlNode));
    return pMemory ? new (pMemory) AvlNode : nullptr;
}

static int FreeNothing(AvlNode * /*pNode*/)
{
    return 0;
}

// Hands a node that was taken out to pfnFree, and frees it when that says so; accepts null.
static void Discard(AvlTree *pTree, AvlNode *pNode)
{
    if (pNode && !pTree->pfnFree(pNode))
        free(pNode);
}

static int CompareInt32(AvlKey a, AvlKey b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

// The usual compare is known here, so that it is inlined instead of called.
static inline int Compare(const AvlTree *pTree, AvlKey a, AvlKey b)
{
    return pTree->pfnCompare == CompareInt32 ? CompareInt32(a, b) : pTree->pfnCompare(a, b);
}

static inline int Height(const AvlNode *pNode)
{
    return pNode ? pNode->height : 0;
}

static inline int TallerChild(const AvlNode *pNode)
{
    int nLeft = Height(pNode->left);
    int nRight = Height(pNode->right);
    return nLeft > nRight ? nLeft : nRight;
}

static inline void SetHeight(AvlNode *pNode)
{
    pNode->height = TallerChild(pNode) + 1;
}

static inline int Balance(const AvlNode *pNode)
{
    return Height(pNode->left) - Height(pNode->right);
}

static inline void Push(Path stack, int *pTop, AvlNode *pNode)
{
    ORX_ASSERT(*pTop < kPathEntries - 2, "!\"tree too high\"");
    stack[++*pTop] = pNode;
}

// Follows the key from the root as far as it leads. Returns the index of the last node, -1 in an empty tree.
static int FindPath(const AvlTree *pTree, AvlKey key, Path stack)
{
    int nTop = -1;
    AvlNode *pNode = pTree->root;
    while (pNode) {
        Push(stack, &nTop, pNode);
        int nOrder = Compare(pTree, pNode->key, key);
        if (nOrder == 0)
            break;
        pNode = nOrder > 0 ? pNode->left : pNode->right;
    }
    stack[nTop + 1] = nullptr;
    return nTop;
}

// The link through which the node at that place of the path is reached. A node that its parent does not have
// on the left must be on the right: the caller asserts that.
static AvlNode **LinkTo(AvlTree *pTree, Path stack, int nIndex)
{
    if (nIndex == 0)
        return &pTree->root;
    AvlNode *pParent = stack[nIndex - 1];
    return pParent->left == stack[nIndex] ? &pParent->left : &pParent->right;
}

static AvlNode *RotateLeft(AvlNode *pNode)
{
    AvlNode *pUp = pNode->right;
    pNode->right = pUp->left;
    pUp->left = pNode;
    SetHeight(pNode);
    SetHeight(pUp);
    return pUp;
}

static AvlNode *RotateRight(AvlNode *pNode)
{
    AvlNode *pUp = pNode->left;
    pNode->left = pUp->right;
    pUp->right = pNode;
    SetHeight(pNode);
    SetHeight(pUp);
    return pUp;
}

// Brings a subtree that leans by two back into balance and puts its new root in the old one's place, in the
// tree as well as on the path.
static void RotateSubtree(AvlTree *pTree, int nBalance, int nIndex, Path stack)
{
    AvlNode *item = stack[nIndex];
    AvlNode **ppLink = LinkTo(pTree, stack, nIndex);
    ORX_ASSERT(*ppLink == item, "parent->right==item");
    if (nBalance < 0) {
        if (Balance(item->right) > 0) {
            item->right = RotateRight(item->right);
            SetHeight(item);
        }
        *ppLink = RotateLeft(item);
    } else {
        if (Balance(item->left) < 0) {
            item->left = RotateLeft(item->left);
            SetHeight(item);
        }
        *ppLink = RotateRight(item);
    }
    stack[nIndex] = *ppLink;
}

// Heights and rotations from the node at nTop up to the root. After an insertion a node in perfect balance
// has kept its height, and nothing above it changes; after a removal it may have become lower.
static void Rebalance(AvlTree *pTree, Path stack, int nTop, int bInserted)
{
    for (int i = nTop; i >= 0; i--) {
        SetHeight(stack[i]);
        int nBalance = Balance(stack[i]);
        if (nBalance < -1 || nBalance > 1)
            RotateSubtree(pTree, nBalance, i, stack);
        else if (bInserted && nBalance == 0)
            return;
    }
}

void AvlInit(AvlTree *pTree, int (*pfnFree)(AvlNode *))
{
    *pTree = AvlTree();
    pTree->pfnFree = pfnFree ? pfnFree : FreeNothing;
    pTree->pfnAlloc = AllocNode;
    pTree->pfnCompare = CompareInt32;
}

AvlNode *AvlInsert(AvlTree *pTree, AvlKey key, void *pValue)
{
    AvlNode *pNode = pTree->pfnAlloc(key, pValue);
    if (!pNode)
        return nullptr;
    pNode->key = key;
    pNode->value = pValue;
    if (AvlAdd(pTree, pNode))
        return pNode;
    Discard(pTree, pNode);
    return nullptr;
}

AvlNode *AvlReplace(AvlTree *pTree, AvlKey key, void *pValue)
{
    uint32_t nFlags = pTree->flags;
    pTree->flags |= AVL_REPLACE;
    AvlNode *pNode = AvlInsert(pTree, key, pValue);
    if (!(nFlags & AVL_REPLACE))
        pTree->flags &= ~uint32_t{AVL_REPLACE};
    return pNode;
}

// Puts pNode where the node at the end of the path is, and discards that one.
static int TakeOver(AvlTree *pTree, AvlNode *pNode, Path stack, int nTop)
{
    AvlNode *p = stack[nTop];
    AvlNode **ppLink = LinkTo(pTree, stack, nTop);
    ORX_ASSERT(*ppLink == p, "t->right==p");
    pNode->left = p->left;
    pNode->right = p->right;
    pNode->height = p->height;
    *ppLink = pNode;
    Discard(pTree, p);
    return 1;
}

int AvlAdd(AvlTree *pTree, AvlNode *pNode)
{
    pNode->left = nullptr;
    pNode->right = nullptr;
    pNode->height = 1;
    if (!pTree->root) {
        pTree->root = pNode;
        return 1;
    }
    Path stack;
    int nTop = FindPath(pTree, pNode->key, stack);
    AvlNode *p = stack[nTop];
    int nOrder = Compare(pTree, pNode->key, p->key);
    if (nOrder == 0) {
        if (pTree->flags & AVL_REPLACE)
            return TakeOver(pTree, pNode, stack, nTop);
        ORX_ASSERT(0, "!\"key conflict\"");
    }
    if (nOrder < 0) {
        ORX_ASSERT(!p->left, "!p->left");
        p->left = pNode;
    } else {
        ORX_ASSERT(!p->right, "!p->right");
        p->right = pNode;
    }
    Rebalance(pTree, stack, nTop, 1);
    return 1;
}

// Takes out the node at the end of the path, which has at most one child. Returns where the tree changed.
static int UnlinkEdge(AvlTree *pTree, Path stack, int nTop)
{
    AvlNode *item = stack[nTop];
    AvlNode **ppLink = LinkTo(pTree, stack, nTop);
    ORX_ASSERT(*ppLink == item, "p->right==item");
    *ppLink = item->left ? item->left : item->right;
    return nTop - 1;
}

// The same for a node with two children: its neighbour on the taller side takes its place, so that the
// removal lowers that side. The path is led on to the neighbour's former parent.
static int UnlinkInner(AvlTree *pTree, Path stack, int nTop)
{
    AvlNode *item = stack[nTop];
    int bRight = Balance(item) < 0;
    int nEnd = nTop;
    for (AvlNode *p = bRight ? item->right : item->left; p; p = bRight ? p->left : p->right)
        Push(stack, &nEnd, p);
    AvlNode *pHeir = stack[nEnd];
    int nChanged = UnlinkEdge(pTree, stack, nEnd);

    AvlNode **ppLink = LinkTo(pTree, stack, nTop);
    ORX_ASSERT(*ppLink == item, "p->right==item");
    pHeir->left = item->left;
    pHeir->right = item->right;
    pHeir->height = item->height;
    *ppLink = pHeir;
    stack[nTop] = pHeir;
    return nChanged;
}

AvlNode *AvlRemove(AvlTree *pTree, AvlKey key)
{
    Path stack;
    int nTop = FindPath(pTree, key, stack);
    if (nTop < 0 || Compare(pTree, stack[nTop]->key, key) != 0)
        return nullptr;
    AvlNode *pNode = stack[nTop];
    int nChanged =
        pNode->left && pNode->right ? UnlinkInner(pTree, stack, nTop) : UnlinkEdge(pTree, stack, nTop);
    Rebalance(pTree, stack, nChanged, 0);
    return pNode;
}

int AvlDelete(AvlTree *pTree, AvlKey key)
{
    AvlNode *pNode = AvlRemove(pTree, key);
    Discard(pTree, pNode);
    return pNode != nullptr;
}

int AvlForget(AvlTree *pTree, AvlKey key)
{
    AvlNode *pNode = AvlRemove(pTree, key);
    free(pNode);
    return pNode != nullptr;
}

AvlNode *AvlFind(const AvlTree *pTree, AvlKey key)
{
    AvlNode *pNode = pTree->root;
    while (pNode) {
        int nOrder = Compare(pTree, pNode->key, key);
        if (nOrder == 0)
            break;
        pNode = nOrder > 0 ? pNode->left : pNode->right;
    }
    return pNode;
}

// The path to a node that must be in the tree.
static int PathTo(const AvlTree *pTree, const AvlNode *item, Path stack)
{
    ORX_ASSERT(item, "item");
    int nTop = FindPath(pTree, item->key, stack);
    ORX_ASSERT(nTop >= 0 && stack[nTop] == item, "stack[top]==item");
    return nTop;
}

AvlNode *AvlParent(const AvlTree *pTree, AvlNode *pNode, int n)
{
    Path stack;
    int nTop = PathTo(pTree, pNode, stack);
    return n >= 0 && n <= nTop ? stack[nTop - n] : nullptr;
}

AvlNode *AvlPrev(const AvlTree *pTree, AvlNode *pNode)
{
    Path stack;
    int nTop = PathTo(pTree, pNode, stack);
    if (AvlNode *p = pNode->left) {
        while (p->right)
            p = p->right;
        return p;
    }
    while (nTop > 0 && stack[nTop - 1]->right != stack[nTop])
        nTop--;
    return nTop > 0 ? stack[nTop - 1] : nullptr;
}

AvlNode *AvlNext(const AvlTree *pTree, AvlNode *pNode)
{
    Path stack;
    int nTop = PathTo(pTree, pNode, stack);
    if (AvlNode *p = pNode->right) {
        while (p->left)
            p = p->left;
        return p;
    }
    while (nTop > 0 && stack[nTop - 1]->left != stack[nTop])
        nTop--;
    return nTop > 0 ? stack[nTop - 1] : nullptr;
}

int AvlDepth(const AvlTree *pTree, AvlNode *pNode)
{
    Path stack;
    return PathTo(pTree, pNode, stack) + 1;
}

static void PushLeftSpine(Path stack, int *pTop, AvlNode *pNode)
{
    for (; pNode; pNode = pNode->left)
        Push(stack, pTop, pNode);
}

// The visitor may free the node it is given, so everything about a node is asked before the visit.
AvlNode *AvlTraversePost(AvlTree *pTree, AvlNode *pStart, int (*pfnVisit)(AvlTree *, AvlNode *))
{
    Path stack;
    int nTop = -1;
    int bRightDone = 0;
    PushLeftSpine(stack, &nTop, pStart);
    while (nTop >= 0) {
        AvlNode *pNode = stack[nTop];
        if (pNode->right && !bRightDone) {
            PushLeftSpine(stack, &nTop, pNode->right);
            continue;
        }
        bRightDone = nTop > 0 && stack[nTop - 1]->right == pNode;
        nTop--;
        if (!pfnVisit(pTree, pNode))
            return pNode;
    }
    return nullptr;
}

// Only the right children left for later are kept, one to a level.
AvlNode *AvlTraversePre(AvlTree *pTree, AvlNode *pStart, int (*pfnVisit)(AvlTree *, AvlNode *))
{
    Path stack;
    int nTop = -1;
    AvlNode *pNode = pStart;
    while (pNode) {
        if (!pfnVisit(pTree, pNode))
            return pNode;
        if (pNode->right)
            Push(stack, &nTop, pNode->right);
        pNode = pNode->left;
        if (!pNode && nTop >= 0)
            pNode = stack[nTop--];
    }
    return nullptr;
}

// Room for two levels of a subtree of that height, or null.
static AvlNode **AllocLevels(int nHeight)
{
    if (nHeight >= std::numeric_limits<size_t>::digits - 1)
        return nullptr;
    size_t nEntries = size_t{2} << nHeight;
    if (nEntries > SIZE_MAX / sizeof(void *))
        return nullptr;
    return static_cast<AvlNode **>(malloc(nEntries * sizeof(void *)));
}

AvlNode *AvlTraverseWide(AvlTree *pTree, AvlNode *pStart, int (*pfnVisit)(AvlTree *, AvlNode *))
{
    if (!pStart)
        return nullptr;
    AvlNode **ppBuffer = AllocLevels(pStart->height);
    ORX_ASSERT(ppBuffer, "!\"out of memory\"");
    AvlNode **ppLevel = ppBuffer;
    AvlNode **ppBelow = ppBuffer + (size_t{1} << pStart->height);
    AvlNode *pStopped = nullptr;
    ppLevel[0] = pStart;
    for (size_t nLevel = 1; nLevel > 0 && !pStopped;) {
        size_t nBelow = 0;
        for (size_t i = 0; i < nLevel && !pStopped; i++) {
            AvlNode *pNode = ppLevel[i];
            if (pNode->left)
                ppBelow[nBelow++] = pNode->left;
            if (pNode->right)
                ppBelow[nBelow++] = pNode->right;
            if (!pfnVisit(pTree, pNode))
                pStopped = pNode;
        }
        AvlNode **ppDone = ppLevel;
        ppLevel = ppBelow;
        ppBelow = ppDone;
        nLevel = nBelow;
    }
    free(ppBuffer);
    return pStopped;
}

static int DiscardVisited(AvlTree *pTree, AvlNode *pNode)
{
    Discard(pTree, pNode);
    return 1;
}

void AvlDestroy(AvlTree *pTree)
{
    AvlTraversePost(pTree, pTree->root, DiscardVisited);
    pTree->root = nullptr;
}

void OnCheckBanlance(const AvlTree * /*pTree*/, const AvlNode *item)
{
    ORX_ASSERT(item, "item");
    ORX_ASSERT(Height(item) == TallerChild(item) + 1,
               "Height(item)==Max(Height(item->left),Height(item->right)) + 1");
}

static const char *TextOf(AvlKey key)
{
    return reinterpret_cast<const char *>(key);  // NOLINT(performance-no-int-to-ptr): AvlTextKey's inverse
}

int AvlCompareTextNoCase(AvlKey a, AvlKey b)
{
    return strcasecmp(TextOf(a), TextOf(b));
}

}  // namespace orx
