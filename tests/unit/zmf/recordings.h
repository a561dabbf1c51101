// Recordings of the test clip and of made-up sound, for the tests of orxzmf.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "record/zmfwriter.h"
#include "support/files.h"

namespace orx {

struct ClipPicture {
    std::string stream;    // with 4-byte start codes
    std::string recorded;  // with 2-byte lengths
    bool bKey;
};

// The pictures of a byte stream of one slice each.
inline std::vector<ClipPicture> LoadClip()
{
    std::string data = ReadFile(ORX_TEST_DATA "/clip.h264");
    std::vector<ClipPicture> pictures;
    ClipPicture picture{};
    const std::string code("\0\0\1", 3);
    for (size_t nAt = data.find(code); nAt != std::string::npos;) {
        size_t nNext = data.find(code, nAt + 3);
        std::string unit = data.substr(nAt + 3, nNext == std::string::npos ? nNext : nNext - nAt - 3);
        while (!unit.empty() && unit.back() == '\0')
            unit.pop_back();
        int nType = unit[0] & 0x1F;
        uint8_t prefix[2];
        PutBe(prefix, 2, static_cast<uint32_t>(unit.size() + 2));
        picture.bKey |= nType == 7 && picture.recorded.empty();
        picture.stream += std::string(1, '\0') + code + unit;
        picture.recorded += std::string(reinterpret_cast<char *>(prefix), 2) + unit;
        if (nType == 1 || nType == 5) {
            pictures.push_back(picture);
            picture = ClipPicture{};
        }
        nAt = nNext;
    }
    return pictures;
}

inline void Put(ZMFWriter *pWriter, char chMedia, uint8_t nFlags, uint32_t nTimeMs, const std::string &data)
{
    ASSERT_EQ(1,
              ZMFWriterWriteSample(pWriter, reinterpret_cast<const uint8_t *>(data.data()),
                                   static_cast<uint32_t>(data.size()), nTimeMs, SampleType(chMedia, nFlags)));
}

inline std::string VideoAndAudio(const char *szVideo, const char *szAudio)
{
    return std::string("v=0\r\ns=x\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 ") + szVideo +
           "/90000\r\nm=audio 0 RTP/AVP 97\r\na=rtpmap:97 " + szAudio + "\r\n";
}

// 20 ms of sound as each codec records it.
inline std::string Speech(const std::string &codec, uint32_t nIndex)
{
    if (codec == "AMR/8000")
        return std::string(1, '\x3C') + std::string(31, static_cast<char>(nIndex));
    if (codec == "AMR-WB/16000")
        return std::string(1, '\x14') + std::string(32, static_cast<char>(nIndex));
    std::string out;
    for (uint32_t i = 0; i < 160; i++)
        out += static_cast<char>(std::sin((nIndex * 160 + i) * 0.35) > 0 ? 0x90 : 0x10);
    return out;
}

// The clip with sound, pictures 40 ms apart.
inline void RecordClip(const std::string &path, const char *szAudio)
{
    ZMFWriter *pWriter = ZMFWriterCreateFile(path.c_str(), RECORD_MANUAL, "Door");
    ZMFWriterSetSdp(pWriter, VideoAndAudio("H264", szAudio ? szAudio : "none/1").c_str());
    ZMFWriterWriteHead(pWriter);
    uint32_t i = 0;
    for (const auto &picture : LoadClip()) {
        Put(pWriter, 'v', picture.bKey ? ZMF_KEY : 0, 1000 + i * 40, picture.recorded);
        for (uint32_t k = 0; szAudio && k < 2; k++)
            Put(pWriter, 'a', 0, 1000 + i * 40 + k * 20, Speech(szAudio, 2 * i + k));
        i++;
    }
    ZMFWriterFree(pWriter);
}

}  // namespace orx
