// A file that is written from front to back through a small buffer, and whose start can be written over.
// One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

struct FileOut {
    int fd = -1;                 // owned, -1 while closed
    uint8_t *pBuffer = nullptr;  // owned; bytes not yet in the file
    uint32_t nBuffered = 0;
    uint64_t nWritten = 0;  // bytes in the file
    uint64_t nMark = 0;     // up to here what was appended is whole, see FileOutCommit
    uint64_t nKeep = 0;     // the last mark that reached the file
    int bFailed = 0;        // a write failed; nothing is appended any more
    int nErrno = 0;         // with which the last one did
    uint64_t nReached = 0;  // then: bytes behind nWritten, first of what is buffered, that are in the file
};

// Makes the file anew: one of that name is removed first, so that whoever still writes to it does not write
// into this one. Returns 1, or 0 when it cannot be made.
int FileOutOpen(FileOut *pFile, const char *szPath);

// The same with a descriptor that is open for writing, whose file is empty; it is taken over in any case.
int FileOutTake(FileOut *pFile, int fd);

// Appends pHead and pData (null for none) as one piece. Large pieces go straight to the file. Returns 1 or 0.
int FileOutWrite(FileOut *pFile, const void *pHead, size_t nHead, const void *pData, size_t nData);

// Marks what was appended so far as whole: when a later write fails, the file is cut back to the last such
// mark.
void FileOutCommit(FileOut *pFile);

// Writes over bytes that are in the file or its buffer already. Returns 1 or 0.
int FileOutPatch(FileOut *pFile, uint64_t nPos, const void *pData, size_t nData);

// Bytes appended so far.
uint64_t FileOutPos(const FileOut *pFile);

int FileOutFlush(FileOut *pFile);

// After a failed write: ends the file at nBytes, of what reached it, and forgets the rest, so that it can be
// completed. Returns 1 or 0.
int FileOutCut(FileOut *pFile, uint64_t nBytes);

// Whether szPath, relative to the directory fdDir or AT_FDCWD, still names this open file.
int FileOutIsAt(const FileOut *pFile, int fdDir, const char *szPath);

// Flushes and closes; does nothing when closed. Returns 0 when something was lost.
int FileOutClose(FileOut *pFile);

}  // namespace orx
