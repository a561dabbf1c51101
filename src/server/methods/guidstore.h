// The names that cameras were given, kept in guid.dat: an INI text with a section GUID that maps each
// camera's Guid to its name, and MaxRegisterId, the number of the next name. Disk thread only, but at the
// start.
#pragma once

#include <cstddef>

#include "base/inifile.h"

namespace orx {

constexpr size_t kMaxGuid = 128;  // characters

// Whether a peer's text can be a key of the store: not the counter's own key, nothing that would end the key,
// start a section or a comment.
int GuidIsUsable(const char *szGuid);

// The number of the next name.
int GuidStoreNextId(const char *szPath);

// Copies the name of a Guid, cut to nSize. Returns 1, or 0 when it has none.
int GuidStoreFind(const char *szPath, const char *szGuid, char *szName, size_t nSize);

// What the file becomes.
struct GuidStoreText {
    char sz[kProfileTextSize] = "";
    size_t nLen = 0;
};

// Makes the file's text with a name added, first in its section, and MaxRegisterId set to nNextId. Returns 1,
// or 0 when the store cannot take both: it cannot be read, would pass what the profile store reads (8191
// bytes), or has a place for them where they would not be found.
int GuidStoreMake(const char *szPath, const char *szGuid, const char *szName, int nNextId,
                  GuidStoreText *pOut);
// Replaces the file as a whole. Returns 1, or 0 with the file as it was.
int GuidStoreWrite(const char *szPath, const GuidStoreText *pText);

}  // namespace orx
