// Recordings that stay below their root and replace no file, and are played from there alone. Where a path
// leads is the kernel's answer: a directory is opened, with the links and ".." in its path, and then looked
// up through its parents. One thread at a time.
#pragma once

#include <cstddef>

namespace orx {

// Opens a directory that is szRoot or lies below it. Returns a descriptor for use with openat, which the
// caller closes, or -1.
int ConfineOpenDir(const char *szRoot, const char *szDir);

// Opens a file for reading that lies below szRoot, wherever the links in its path lead; without waiting,
// should it be a pipe. Returns a descriptor, which the caller closes, or -1.
int ConfineOpenFile(const char *szRoot, const char *szFile);

// Makes every missing directory of szRelative below szRoot, none of them elsewhere. Returns 1 when it is
// there and below the root, else 0.
int ConfineMakeDir(const char *szRoot, const char *szRelative);

// Whether an open directory is the root, also open, or lies below it.
int ConfineIsBelow(int fdRoot, int fdDir);

constexpr unsigned kMaxVariants = 999;  // that are tried before a name counts as taken for good

// The nVariant-th name to take when a file's own (variant 0) is taken: so many seconds later where the name
// is or ends in a time of the day ("S235959.zmf", "x-20260131-235959.zmf"), else numbered ("x-1.zmf"). szPath
// may have directories. Returns 1, or 0 when it does not fit.
int ConfineVariant(char *szOut, size_t nSize, const char *szPath, unsigned nVariant);

// Makes a file in the directory under the first variant of szName of which neither that name nor the one with
// szSuffix behind it is taken; it is made with the suffix. Returns its descriptor, for writing, and the name
// without suffix in szOut; or -1.
int ConfineCreate(int fdDir, const char *szName, const char *szSuffix, char *szOut, size_t nSize);

// Renames a file (relative to fdDir, which may be AT_FDCWD) to the first variant of szTo that is free, which
// szOut receives. Returns 1 or 0.
int ConfineRename(int fdDir, const char *szFrom, const char *szTo, char *szOut, size_t nSize);

}  // namespace orx
