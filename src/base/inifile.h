// The INI profile store, in two faces.
//
// The path-based face opens the file on every call and works on a copy of at most 8191 bytes; a byte 0xFF
// ends the file. Where a `file` argument is taken to read or remove it may also be the INI text itself: a
// text that begins with '[' and holds a line feed, or "inmem:" followed by the text. Such texts may be of any
// length and are handled where they lie; they are never taken for a file's name. The handle face (Profile)
// loads a file of any size once and answers from memory.
//
// Section names match by prefix; nothing is trimmed; names and keys are case-sensitive. Results are 1 (found,
// done) and 0. No locking: callers keep writes to one file from overlapping.
//
// A null argument, an empty `file` or a buffer of no size aborts. An empty section or key name (a request may
// carry it) and a file of 8192 bytes or more are peer assertions: when those are survived, the name is not
// found and the file is neither read nor written over.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

constexpr size_t kProfileTextSize = 8192;  // room of the path-based face, its NUL included

// Loads a file into buf, which has kProfileTextSize bytes, and its length into *pLen. Returns 0, with the
// length 0, when it cannot be opened or read.
int load_ini_file(const char *file, char *buf, int *pLen);
// Finds a key. All places are byte indexes into buf and -1 when not found: section name and body, the key's
// first and last character, the value and what follows it. When only the key is missing, the section is the
// last one that matched.
int parse_file(const char *section, const char *key, const char *buf, int *pSecStart, int *pSecBody,
               int *pKeyStart, int *pKeyEnd, int *pValueStart, int *pValueEnd);

// A walk over all key lines of the sections that match, in the order in which parse_file looks at them: the
// first one of a key is what parse_file finds. For those who want many keys of one text.
struct ProfileWalk {
    const char *text;     // not owned, as are the names
    const char *section;  // not empty
    const char *p = nullptr;
    int nSecStart = -1;  // of the section that matched last, as parse_file gives them
    int nSecBody = -1;
};
struct ProfileLine {
    const char *pKey;  // in the text, as is the value
    size_t nKey;
    const char *pValue;
    size_t nValue;
};
// Steps to the next line that has a '='. Returns 1, or 0 at the end.
int ProfileWalkNext(ProfileWalk *pWalk, ProfileLine *pLine);

// Copies the value, cut to size - 1 bytes and terminated. When it is not found, copies the default, which
// leaves no NUL when it has size bytes or more; a null default leaves the buffer as it was.
int read_profile_string(const char *section, const char *key, char *value, int size, const char *szDefault,
                        const char *file);
// Reads at most 31 characters, as atoi does. Returns the default when the key is not found.
int read_profile_int(const char *section, const char *key, int nDefault, const char *file);
// Sets a key: replaces its value, or adds it as the first line of the last section that matches, or adds the
// section at the end. Where a line is added, a doubled percent sign in the text behind it comes out single.
// Takes only a path. Returns 0, with the file as it was, when the result would pass 8191 bytes; else 0 when
// the file cannot be written.
int write_profile_string(const char *section, const char *key, const char *value, const char *file);
int write_profile_int(const char *section, const char *key, int nValue, const char *file);
int check_profile_key(const char *section, const char *key, const char *file);
// Unlike the reading operations these want the whole section name, look only at its first occurrence and
// accept a blank between key and '='. A key's line must end in a line feed. An in-memory text is edited in
// place, so that it must be writable.
int remove_profile_key(const char *section, const char *key, char *file);
int remove_profile_section(const char *section, char *file);
// Applies every key=value line of the source, up to the first line without '=', to the destination and prints
// it. Comments are lines like others. 1 done, 0 no source, -1 no memory.
int MergeIniFile(const char *szFileDst, const char *szFileSrc);
// The same from a text, which is changed on the way. Returns 1.
int Update2IniFile(const char *szIniFile, char *szContent);

struct Profile {
    char path[256] = "";   // where it was loaded from, cut to the buffer
    char *text = nullptr;  // the whole content and one NUL; owned, from malloc
    uint32_t size = 0;     // content bytes
};

Profile *ProfileInit(const char *szPath);  // null when the file is missing or empty; free with ProfileFree
void ProfileFree(Profile *pHandle);        // ignores null
int ProfileGetStr(const char *section, const char *key, char *value, int size, const char *szDefault,
                  const Profile *pHandle);
int ProfileGetInt(const char *section, const char *key, int nDefault, const Profile *pHandle);
int ProfileGetIntEx(const char *section, const char *key, int *pValue, int nDefault, const Profile *pHandle);
// 1 when the text holds "[section]", followed by blanks and a line end, at the first place where it holds it.
int ProfileHasSection(const char *section, const Profile *pHandle);

}  // namespace orx
