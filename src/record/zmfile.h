// The recording file: header record, key-frame index, SDP text, application data, then the samples in order
// of arrival. docs/recording-format.md describes it; writer and reader agree on it through this module. Every
// number in the file is big-endian. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

constexpr uint32_t kZmfMagic = 0x7A6D6640;  // "zmf@"
constexpr uint32_t kZmfHeadBytes = 168;     // header record as written
constexpr uint32_t kZmfFixedHeadBytes = 8;  // what every header has, however short
constexpr uint32_t kZmfVersionAt = 6;       // where the header has its version, 2 bytes
constexpr uint16_t kZmfVersion = 100;       // 1.00
constexpr uint16_t kZmfWideVersion = 101;   // with wide units or records, H.265 or AAC
constexpr uint32_t DEF_IDX_COUNT = 200;     // index entries as written; every n-th key frame has one
constexpr uint32_t kZmfEntryBytes = 8;      // one index entry
constexpr uint32_t kZmfIdxBytes = DEF_IDX_COUNT * kZmfEntryBytes;
constexpr uint32_t kZmfRecordHeadBytes = 8;
constexpr uint32_t kZmfMaxRecordBytes = 0xFFFFF;  // 20 bits of length
constexpr uint32_t kZmfMaxWideBytes = 0x3FFFFF;   // 22 bits, in files of version 101
constexpr uint32_t kZmfBigRecordBytes = 0x10000;  // from here on the flags byte carries part of the length
constexpr uint8_t ZMF_KEY = 0x40;                 // record flag: video key frame
constexpr char kOpenSuffix[] = ".tm!";            // behind the name of a file that is being written
constexpr uint32_t kZmfTextBlockMax = 65528;      // largest multiple of 8 that a 16-bit size holds

// Event types of a recording.
enum RecordKind : int { RECORD_SCHEDULED = 1, RECORD_ALARM = 2, RECORD_MANUAL = 3 };

struct ZMFileHeader {
    uint32_t nMagic = kZmfMagic;
    uint16_t nHeadSize = kZmfHeadBytes;
    uint16_t nVersion = kZmfVersion;
    uint16_t nIdxSize = kZmfIdxBytes;  // multiple of 8
    uint16_t nSdpSize = 0;
    uint16_t nAppDataBytes = 0;  // multiple of 8
    char szStartTime[16] = "";   // local time, YYYYMMDD-hhmmss
    uint16_t nRecordKind = 0;    // RECORD_...
    uint32_t uDuration = 0;      // largest time stamp, ms; 0 in a file that was never closed
    uint32_t uVideoSamples = 0;
    uint32_t uReservedSamples = 0;
    uint32_t uTextSamples = 0;
    uint32_t uUserSamples = 0;
    char szLabel[32] = "";  // without a NUL when all 32 characters are used
    uint32_t uKeyFrames = 0;
    uint16_t nIdxInterval = 1;  // every how many key frames one has an index entry
    uint16_t nFileSeq = 0;      // number of the file within one recording
};

// Writes the 168 bytes of the record at pOut.
void ZMFileHeaderEncode(const ZMFileHeader *pHead, uint8_t *pOut);

// Reads a header of which nBytes are at hand; fields behind them come out 0. Returns 1, or 0 for another
// magic, a size below 8, or fewer than 8 bytes.
int ZMFileHeaderDecode(const uint8_t *pData, size_t nBytes, ZMFileHeader *pHead);

// Position of the first sample record in the file.
uint32_t ZMFileDataOffset(const ZMFileHeader *pHead);

struct ZMFIndexEntry {
    uint32_t nPos = 0;     // of the key frame's record, from the first record on
    uint32_t nTimeMs = 0;  // from the start of the file
};

// In the type word of a sample: only a file of version 101 can hold it.
constexpr uint32_t SAMPLE_WIDE = 0x10000;

struct ZMFRecordHead {
    uint32_t nLength = 0;  // of the whole record, these 8 bytes included
    char chMedia = 0;      // 'v', 'a', 't', 'u'
    uint8_t nFlags = 0;    // ZMF_KEY; the six bits that belong to the length are left out
    uint32_t nTimeMs = 0;  // from the start of the file
};

inline int IsKeyRecord(const ZMFRecordHead *pHead)
{
    return pHead->chMedia == 'v' && (pHead->nFlags & ZMF_KEY);
}

void ZMFRecordHeadEncode(const ZMFRecordHead *pHead, uint8_t *pOut);
void ZMFRecordHeadDecode(const uint8_t *pData, ZMFRecordHead *pHead);  // of 8 bytes

}  // namespace orx
