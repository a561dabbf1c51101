// Files that are written whole. Any thread; blocks until the storage has taken the bytes.
#pragma once

#include <cstddef>

namespace orx {

// Gives a file new content: written beside it (as szPath.new), then renamed over it, so that a power cut
// leaves the old content or the new. Returns 1, or 0 with the file as it was.
int FileReplace(const char *szPath, const void *pData, size_t nLen);

// Makes a file of a name that nobody can guess, readable for this user alone. szTemplate is a path with
// "XXXXXX" before its last nSuffix characters; the name is written over it. Returns 1, or 0 with no file
// left.
int FileCreateTemp(char *szTemplate, int nSuffix, const void *pData, size_t nLen);

// Whether files can be made in a directory, by making one that nobody sees and that is gone at once:
// permissions alone tell root nothing of file systems that take no files. Returns 1, or 0 with errno.
int DirTakesFiles(const char *szDir);

}  // namespace orx
