// Counted strings: one heap block with a reference count, a length and the text; shared until somebody
// writes. A string is a handle; every operation takes its address so that it can put another block there, and
// a null handle, never created, is an invalid string to all but StrDestroy. A result handle is overwritten
// and must not hold a string. Texts may hold NUL bytes where a length is given.
//
// No locking: the handles of one block belong to one thread. Misuse aborts. Running out of memory gives 0 and
// leaves the string as it was, unless said otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

struct StrBuf {
    uint32_t nRefs;  // handles that share the block
    uint32_t len;    // bytes of text in use
    uint32_t total;  // room for text
    char text[4];    // total bytes in truth, always ended by a NUL
};
using Str = StrBuf *;

// How a search runs, combinable: one of four routines.
enum : unsigned { STR_FORWARD = 0, STR_BACKWARD = 1, STR_CASELESS = 2 };

// Makes a string of nLen bytes; 0 means the text's length. A null text is the empty one. Running out of
// memory is an assertion.
void StrCreate(Str *p, const char *szText, size_t nLen);
// Lets go of the block. The handle is cleared when that freed it, else it still shows a block that is no
// longer its own. A null handle is left alone.
void StrDestroy(Str *p);
// A second handle on the same block.
void StrShare(Str *p, Str *pResult);
// Makes the block this handle's own. 1, or 0 when no copy can be made.
int CopyOnWrite(Str *p);

// Appends nLen bytes (0: the text's length; null text: nothing), which may lie in the string itself. 1 or 0.
int StrCat(Str *p, const char *szText, size_t nLen);
// A new string of the first text followed by the second; without memory the empty string, a null handle at
// worst.
void StrAdd(Str *p, Str *t, Str *pResult);
// A new string of nLen bytes from nFrom on, all of which must be there. 1, or 0 with a null *pResult.
int StrSub(Str *p, Str *pResult, size_t nFrom, size_t nLen);

// 1 when lengths and texts are equal. Caseless means that ASCII letters compare as lower case.
int StrEqual(Str *p, Str *t);
int StrEqualCaseless(Str *p, Str *t);
// The sign gives the order, as of strcmp and strcasecmp.
int StrCmp(Str *p, Str *t);
int StrCmpCaseless(Str *p, Str *t);

// The address of a match in the text, or null; good until the string is changed. Forwards the first match
// from byte nFrom on, backwards the last one that begins at or before nFrom. The Next forms go on from a
// match that was found (null: no more) to the nearest that does not overlap it.
const char *StrChar(Str *p, char c, size_t nFrom, unsigned nFlags);
const char *StrCharNext(Str *p, char c, const char *pMatch, unsigned nFlags);
const char *StrStr(Str *p, const char *t, size_t nFrom, unsigned nFlags);
const char *StrStrNext(Str *p, const char *t, const char *pMatch, unsigned nFlags);

// Replaces every match of x by szNew (null: nothing), not looking into what was put in. Matches are taken
// from left to right with either direction. 1 or 0.
int StrReplaceStr(Str *p, const char *x, const char *szNew, unsigned nFlags);
// Removes leading or trailing characters that are in the set s. 1 or 0.
int StrTrimLeft(Str *p, const char *s);
int StrTrimRight(Str *p, const char *s);
// Changes the ASCII letters. 1 or 0.
int StrUpper(Str *p);
int StrLower(Str *p);

// Buffer operations that the above are made of.
StrBuf *BufMake(size_t nSize);  // an empty block with room for nSize + 4 bytes of text; null without memory
void BufRelease(StrBuf **p);    // one handle fewer; clears *p when the block was freed; null is left alone
int BufEnsure(StrBuf **p, size_t nMore);   // room for nMore more bytes and the NUL; 1 or 0
int BufClear(StrBuf **p);                  // no text; a shared block is let go for a new one-byte one; 1 or 0
void BufCopy(StrBuf *d, const StrBuf *s);  // the text of s into d, which must have the room; both not null

// The text of a string that may not have been created: never null.
inline const char *StrText(const Str &s)
{
    return s ? s->text : "";
}
inline size_t StrLen(const Str &s)
{
    return s ? s->len : 0;
}

}  // namespace orx
