// The names that cameras were given, kept in guid.dat: an INI text with a section GUID that maps each
// camera's Guid to its name, and MaxRegisterId, the number of the next name. Scheduler thread only.
#pragma once

#include <cstddef>

namespace orx {

constexpr size_t kMaxGuid = 128;  // characters

// Whether a peer's text can be a key of the store: not the counter's own key, nothing that would end the key,
// start a section or a comment.
int GuidIsUsable(const char *szGuid);

// The number of the next name.
int GuidStoreNextId(const char *szPath);

// Copies the name of a Guid, cut to nSize. Returns 1, or 0 when it has none.
int GuidStoreFind(const char *szPath, const char *szGuid, char *szName, size_t nSize);

// Adds a name and sets MaxRegisterId to nNextId. The file is replaced as a whole. Returns 1, or 0 with the
// file as it was: it cannot be written, or would pass what the profile store reads (8191 bytes).
int GuidStoreAdd(const char *szPath, const char *szGuid, const char *szName, int nNextId);

}  // namespace orx
