// The layout of a clip: where in the .mp4 its pieces lie, and from which part of the recording each is made.
// A piece is about a second of media, sound first; a fragment is one piece or several, the first with its
// head. It is kept in a file of the cache directory, which holds the heads of the fragments and sound that
// was encoded anew as well. Files that are torn or of another version are none. Any thread; one record by one
// thread at a time, but a layout that was read is no longer changed.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace orx {

// With which cache files begin: another form of them, or other bytes of clips, have another number.
constexpr char kClipForm[] = "orxclip1";

struct ClipPiece {
    uint64_t nAt = 0;       // in the .mp4
    uint64_t nBytes = 0;    // there, head and all
    uint64_t nPos = 0;      // of its first record in the recording
    uint64_t nHeadAt = 0;   // of its head in the cache file
    uint64_t nSoundAt = 0;  // of its encoded sound there; of the recording's record that its first unit is in
    uint32_t nHead = 0;     // bytes of the head
    uint32_t nSound = 0;    // bytes of encoded sound
    uint32_t nSkip = 0;     // units of that record that belong to the piece before
    uint32_t nUnits = 0;    // units that are the piece's
    uint32_t nCheck = 0;    // over what the cache file has of it
};

// A unit of AAC that is left out since it overlaps.
struct ClipDrop {
    uint32_t nPiece = 0;
    uint32_t nUnit = 0;  // so many units of the piece come before it
};

// What a layout was made from.
struct ClipOrigin {
    uint64_t nBytes = 0;
    int64_t nSeconds = 0;  // when it was changed last
    uint32_t nNanos = 0;
    bool operator==(const ClipOrigin &) const = default;
};

struct ClipLayout {
    int fd = -1;  // of the cache file, owned: see ClipLayoutFree
    ClipOrigin origin;
    std::string tag;
    std::string head;    // of the .mp4, up to the first fragment
    std::string codecs;  // names
    std::string video;   // name of the pictures' codec; empty without
    uint8_t bSetsInside = 0;
    uint64_t nEnd = 0;  // position behind the last record in it
    std::vector<ClipPiece> pieces;
    std::vector<ClipDrop> drops;
};
void ClipLayoutFree(ClipLayout *pLayout);  // closes the file

uint64_t ClipLayoutSize(const ClipLayout *pLayout);  // of the .mp4

// A cache file while it is written, beside the place that it takes when it is whole.
struct ClipFileOut {
    FILE *pFile = nullptr;  // owned
    std::string path;
    uint64_t nBytes = 0;
    int bFailed = 0;
};
// Makes it. Returns 1, or 0 when it cannot be made.
int ClipFileBegin(ClipFileOut *pOut, const std::string &path);
// Appends bytes. Returns where they begin.
uint64_t ClipFilePut(ClipFileOut *pOut, const void *pData, size_t nBytes);
// Appends the head of a fragment for its first piece, or nothing for others, and fills in where it is and the
// checksum. The sound, if any, was put before. Returns 1 or 0.
int ClipFilePutHead(ClipFileOut *pOut, const std::string &head, ClipPiece *pPiece);
// Writes the tables and gives the file its name. Returns 1, or 0 with nothing left when it cannot be written.
int ClipFileEnd(ClipFileOut *pOut, const ClipLayout *pLayout);
void ClipFileDrop(ClipFileOut *pOut);  // what was begun; does nothing after ClipFileEnd

// Returns 1, or 0 when there is none that is whole; a broken one is removed.
int ClipFileRead(const std::string &path, ClipLayout *pOut);
// Only what it was made from. Results as above.
int ClipFileOrigin(const std::string &path, ClipOrigin *pOut);

// The head and the encoded sound of a piece. Returns 1, or 0 when they are not what was written.
int ClipFilePiece(const ClipLayout *pLayout, size_t nPiece, std::string *pHead, std::string *pSound);

// Says that it was used: the least recently used files go first.
void ClipFileTouch(const std::string &path);
// Removes such until the directory's clips come to at most nMost bytes; keep stays.
void ClipFilesTrim(const std::string &directory, uint64_t nMost, const std::string &keep);
// Removes what a process that was ended left half written; before anything is written.
void ClipFilesClean(const std::string &directory);

}  // namespace orx
