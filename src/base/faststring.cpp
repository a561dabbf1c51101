#include "base/faststring.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/assertion.h"

namespace orx {

static constexpr size_t kSpareBytes = sizeof(StrBuf::text);  // room beyond what was asked for
static constexpr size_t kMostBytes = UINT32_MAX - sizeof(StrBuf);

static_assert(sizeof(StrBuf) == 16, "three counts and the first four bytes of text");

// Case is that of ASCII whatever the locale: what is compared are protocol words.
static inline char LowerOf(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

static inline char UpperOf(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

static inline size_t LengthOf(const char *szText, size_t nLen)
{
    if (!szText)
        return 0;
    return nLen ? nLen : strlen(szText);
}

// The text as it goes on past the array that the record declares.
static inline char *TextOf(StrBuf *b)
{
    return b->text;
}

// Adds bytes at the end of a block that has the room for them and their NUL.
static void Put(StrBuf *b, const char *pText, size_t nLen)
{
    if (nLen > 0)
        memcpy(b->text + b->len, pText, nLen);
    b->len += static_cast<uint32_t>(nLen);
    TextOf(b)[b->len] = '\0';
}

// A block with the text of *p and room for nMore more bytes; null without memory.
static StrBuf *MakeLarger(const StrBuf *b, size_t nMore)
{
    if (nMore > kMostBytes - b->len)
        return nullptr;
    StrBuf *pNew = BufMake(b->len + nMore + 1);
    if (pNew)
        Put(pNew, b->text, b->len);
    return pNew;
}

StrBuf *BufMake(size_t nSize)
{
    if (nSize > kMostBytes)
        return nullptr;
    auto *b = static_cast<StrBuf *>(malloc(sizeof(StrBuf) + nSize));
    if (!b)
        return nullptr;
    b->nRefs = 1;
    b->len = 0;
    b->total = static_cast<uint32_t>(nSize + kSpareBytes);
    memset(b->text, 0, kSpareBytes);
    return b;
}

void BufRelease(StrBuf **p)
{
    ORX_ASSERT(p, "p || !\"invalid string\"");
    if (!*p || --(*p)->nRefs > 0)
        return;
    free(*p);
    *p = nullptr;
}

// Puts another block in the place of *p, of which this handle lets go.
static void Exchange(StrBuf **p, StrBuf *pNew)
{
    StrBuf *pOld = std::exchange(*p, pNew);
    BufRelease(&pOld);
}

int BufEnsure(StrBuf **p, size_t nMore)
{
    ORX_ASSERT(p && *p, "p || !\"invalid string\"");
    if ((*p)->total - (*p)->len > nMore)
        return 1;
    StrBuf *pNew = MakeLarger(*p, nMore);
    if (!pNew)
        return 0;
    Exchange(p, pNew);
    return 1;
}

int BufClear(StrBuf **p)
{
    ORX_ASSERT(p && *p, "p || !\"invalid string\"");
    if ((*p)->nRefs > 1) {
        StrBuf *pNew = BufMake(1);
        if (!pNew)
            return 0;
        Exchange(p, pNew);
    }
    (*p)->len = 0;
    TextOf(*p)[0] = '\0';
    return 1;
}

void BufCopy(StrBuf *d, const StrBuf *s)
{
    ORX_ASSERT(d, "d || !\"invalid string\"");
    ORX_ASSERT(s, "s || !\"invalid string\"");
    ORX_ASSERT(d->total > s->len, "d->total>s->len || !\"destination buffer too small\"");
    memmove(d->text, s->text, s->len);
    d->len = s->len;
    TextOf(d)[d->len] = '\0';
}

void StrCreate(Str *p, const char *szText, size_t nLen)
{
    ORX_ASSERT(p, "p || !\"invalid string\"");
    nLen = LengthOf(szText, nLen);
    StrBuf *b = nLen < kMostBytes ? BufMake(nLen + 1) : nullptr;
    ORX_ASSERT(b, "!\"out of memory\"");
    Put(b, szText, nLen);
    *p = b;
}

void StrDestroy(Str *p)
{
    BufRelease(p);
}

int CopyOnWrite(Str *p)
{
    ORX_ASSERT(p && *p, "p || !\"invalid string\"");
    if ((*p)->nRefs == 1)
        return 1;
    StrBuf *pCopy = BufMake((*p)->total - kSpareBytes);
    if (!pCopy)
        return 0;
    BufCopy(pCopy, *p);
    Exchange(p, pCopy);
    return 1;
}

// The old block is let go only after the text was added: it may be a piece of that very block.
int StrCat(Str *p, const char *szText, size_t nLen)
{
    ORX_ASSERT(p && *p, "p || !\"invalid string\"");
    if (!szText)
        return 1;
    nLen = LengthOf(szText, nLen);
    StrBuf *b = *p;
    if (b->nRefs == 1 && b->total - b->len > nLen) {
        Put(b, szText, nLen);
        return 1;
    }
    StrBuf *pNew = MakeLarger(b, nLen);
    if (!pNew)
        return 0;
    Put(pNew, szText, nLen);
    Exchange(p, pNew);
    return 1;
}

void StrAdd(Str *p, Str *t, Str *pResult)
{
    ORX_ASSERT(p && *p, "p || !\"invalid string\"");
    ORX_ASSERT(t && *t, "t || !\"invalid string\"");
    StrBuf *pNew = MakeLarger(*p, (*t)->len);
    if (pNew)
        Put(pNew, (*t)->text, (*t)->len);
    else
        pNew = BufMake(1);
    *pResult = pNew;
}

int StrSub(Str *p, Str *pResult, size_t nFrom, size_t nLen)
{
    ORX_ASSERT(p && *p, "p || !\"invalid string\"");
    const StrBuf *b = *p;
    ORX_ASSERT(nLen <= b->len && nFrom <= b->len - nLen, "b->len>=nFrom+nLen || !\"substring out of range\"");
    StrBuf *pNew = BufMake(nLen + 1);
    if (pNew)
        Put(pNew, b->text + nFrom, nLen);
    *pResult = pNew;
    return pNew ? 1 : 0;
}

void StrShare(Str *p, Str *pResult)
{
    ORX_ASSERT(p && *p, "p || !\"invalid string\"");
    (*p)->nRefs++;
    *pResult = *p;
}

static int CompareBytes(const char *a, const char *b, size_t nLen)
{
    return memcmp(a, b, nLen);
}

static int CompareCaseless(const char *a, const char *b, size_t nLen)
{
    for (size_t i = 0; i < nLen; i++) {
        int nDiff = static_cast<unsigned char>(LowerOf(a[i])) - static_cast<unsigned char>(LowerOf(b[i]));
        if (nDiff != 0)
            return nDiff;
    }
    return 0;
}

using ByteCompare = int (*)(const char *, const char *, size_t);

// Over the whole lengths, so that a NUL inside a text hides nothing behind it; a shorter text sorts before a
// longer one that it begins.
static int Compare(Str *p, Str *t, ByteCompare pfnCompare)
{
    ORX_ASSERT(p && *p, "p || !\"invalid string\"");
    ORX_ASSERT(t && *t, "t || !\"invalid string\"");
    uint32_t nThis = (*p)->len;
    uint32_t nThat = (*t)->len;
    int nOrder = pfnCompare((*p)->text, (*t)->text, nThis < nThat ? nThis : nThat);
    return nOrder != 0 ? nOrder : (nThis > nThat) - (nThis < nThat);
}

int StrEqual(Str *p, Str *t)
{
    return Compare(p, t, CompareBytes) == 0;
}

int StrEqualCaseless(Str *p, Str *t)
{
    return Compare(p, t, CompareCaseless) == 0;
}

int StrCmp(Str *p, Str *t)
{
    return Compare(p, t, CompareBytes);
}

int StrCmpCaseless(Str *p, Str *t)
{
    return Compare(p, t, CompareCaseless);
}

// What is searched for, a character being a text of one.
struct Wanted {
    const char *pText;
    size_t nLen;  // at least 1
};

// The four searches: where in b the match begins, or null. Forwards the first one from nFrom on, backwards
// the last one that begins at nFrom or before.
static const char *FindForward(const StrBuf *b, Wanted wanted, size_t nFrom)
{
    if (nFrom > b->len)
        return nullptr;
    return static_cast<const char *>(memmem(b->text + nFrom, b->len - nFrom, wanted.pText, wanted.nLen));
}

static const char *SearchBackward(const StrBuf *b, Wanted wanted, size_t nFrom, ByteCompare pfnCompare)
{
    if (wanted.nLen > b->len)
        return nullptr;
    size_t nLast = b->len - wanted.nLen;
    for (size_t i = (nFrom < nLast ? nFrom : nLast) + 1; i-- > 0;)
        if (pfnCompare(b->text + i, wanted.pText, wanted.nLen) == 0)
            return b->text + i;
    return nullptr;
}

static const char *FindBackward(const StrBuf *b, Wanted wanted, size_t nFrom)
{
    return SearchBackward(b, wanted, nFrom, CompareBytes);
}

static const char *FindForwardCaseless(const StrBuf *b, Wanted wanted, size_t nFrom)
{
    for (size_t i = nFrom; wanted.nLen <= b->len && i <= b->len - wanted.nLen; i++)
        if (CompareCaseless(b->text + i, wanted.pText, wanted.nLen) == 0)
            return b->text + i;
    return nullptr;
}

static const char *FindBackwardCaseless(const StrBuf *b, Wanted wanted, size_t nFrom)
{
    return SearchBackward(b, wanted, nFrom, CompareCaseless);
}

// By the flags STR_BACKWARD and STR_CASELESS.
using FindProc = const char *(*)(const StrBuf *, Wanted, size_t);
static constexpr FindProc kFinders[] = {FindForward, FindBackward, FindForwardCaseless, FindBackwardCaseless};

static const char *Find(Str *p, Wanted wanted, size_t nFrom, unsigned nFlags)
{
    return kFinders[nFlags](*p, wanted, nFrom);
}

// The search goes on where the match does not reach: behind its end, or before its begin.
static const char *FindNext(Str *p, Wanted wanted, const char *pMatch, unsigned nFlags)
{
    auto nOffset = reinterpret_cast<uintptr_t>(pMatch) - reinterpret_cast<uintptr_t>((*p)->text);
    if (!pMatch || nOffset > (*p)->len)
        return nullptr;
    if (!(nFlags & STR_BACKWARD))
        return Find(p, wanted, nOffset + wanted.nLen, nFlags);
    return nOffset < wanted.nLen ? nullptr : Find(p, wanted, nOffset - wanted.nLen, nFlags);
}

static void CheckSearch(Str *p, unsigned nFlags)
{
    ORX_ASSERT(p && *p, "p || !\"invalid string\"");
    ORX_ASSERT(nFlags <= 3, "nFlags<=3 || !\"invalid search flags\"");
}

const char *StrChar(Str *p, char c, size_t nFrom, unsigned nFlags)
{
    CheckSearch(p, nFlags);
    return Find(p, {&c, 1}, nFrom, nFlags);
}

const char *StrCharNext(Str *p, char c, const char *pMatch, unsigned nFlags)
{
    CheckSearch(p, nFlags);
    return FindNext(p, {&c, 1}, pMatch, nFlags);
}

const char *StrStr(Str *p, const char *t, size_t nFrom, unsigned nFlags)
{
    CheckSearch(p, nFlags);
    ORX_ASSERT(t && *t, "t && *t || !\"null string to search\"");
    return Find(p, {t, strlen(t)}, nFrom, nFlags);
}

const char *StrStrNext(Str *p, const char *t, const char *pMatch, unsigned nFlags)
{
    CheckSearch(p, nFlags);
    ORX_ASSERT(t && *t, "t && *t || !\"null string to search\"");
    return FindNext(p, {t, strlen(t)}, pMatch, nFlags);
}

// The text of *p with every match of x replaced, in a new block; null without memory.
static StrBuf *MakeReplaced(Str *p, Wanted x, Wanted put, unsigned nFlags)
{
    uint64_t nSize = (*p)->len;
    for (const char *pMatch = Find(p, x, 0, nFlags); pMatch; pMatch = FindNext(p, x, pMatch, nFlags))
        nSize = nSize - x.nLen + put.nLen;
    StrBuf *pNew = nSize < kMostBytes ? BufMake(static_cast<size_t>(nSize) + 1) : nullptr;
    if (!pNew)
        return nullptr;
    const char *pFrom = (*p)->text;
    for (const char *pMatch = Find(p, x, 0, nFlags); pMatch; pMatch = FindNext(p, x, pMatch, nFlags)) {
        Put(pNew, pFrom, static_cast<size_t>(pMatch - pFrom));
        Put(pNew, put.pText, put.nLen);
        pFrom = pMatch + x.nLen;
    }
    Put(pNew, pFrom, static_cast<size_t>((*p)->text + (*p)->len - pFrom));
    return pNew;
}

int StrReplaceStr(Str *p, const char *x, const char *szNew, unsigned nFlags)
{
    ORX_ASSERT(p && *p, "p || !\"invalid string\"");
    ORX_ASSERT(x && *x, "x && *x || !\"null string to replace\"");
    CheckSearch(p, nFlags);
    nFlags &= ~unsigned{STR_BACKWARD};
    Wanted wanted{x, strlen(x)};
    if (!Find(p, wanted, 0, nFlags))
        return 1;
    StrBuf *pNew = MakeReplaced(p, wanted, {szNew, LengthOf(szNew, 0)}, nFlags);
    if (!pNew)
        return 0;
    Exchange(p, pNew);
    return 1;
}

// The set without its NUL: a NUL inside the text is not trimmed.
static int IsInSet(char c, const char *s, size_t nSet)
{
    return memchr(s, c, nSet) ? 1 : 0;
}

int StrTrimLeft(Str *p, const char *s)
{
    ORX_ASSERT(p && *p, "p || !\"invalid string\"");
    ORX_ASSERT(s && *s, "s && *s || !\"invalid char set for trim\"");
    size_t nSet = strlen(s);
    uint32_t n = 0;
    while (n < (*p)->len && IsInSet(TextOf(*p)[n], s, nSet))
        n++;
    if (n == 0)
        return 1;
    if (!CopyOnWrite(p))
        return 0;
    (*p)->len -= n;
    memmove((*p)->text, (*p)->text + n, (*p)->len + 1);
    return 1;
}

int StrTrimRight(Str *p, const char *s)
{
    ORX_ASSERT(p && *p, "p || !\"invalid string\"");
    ORX_ASSERT(s && *s, "s && *s || !\"invalid char set for trim\"");
    size_t nSet = strlen(s);
    uint32_t nKept = (*p)->len;
    while (nKept > 0 && IsInSet(TextOf(*p)[nKept - 1], s, nSet))
        nKept--;
    if (nKept == (*p)->len)
        return 1;
    if (!CopyOnWrite(p))
        return 0;
    (*p)->len = nKept;
    TextOf(*p)[nKept] = '\0';
    return 1;
}

int StrUpper(Str *p)
{
    if (!CopyOnWrite(p))
        return 0;
    for (uint32_t i = 0; i < (*p)->len; i++)
        TextOf(*p)[i] = UpperOf(TextOf(*p)[i]);
    return 1;
}

int StrLower(Str *p)
{
    if (!CopyOnWrite(p))
        return 0;
    for (uint32_t i = 0; i < (*p)->len; i++)
        TextOf(*p)[i] = LowerOf(TextOf(*p)[i]);
    return 1;
}

}  // namespace orx
