#include "orxzmf/export.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "orxzmf/jpegimage.h"
#include "recordings.h"

#ifdef ORX_HAVE_AV
extern "C" {
#include <libavformat/avformat.h>
}
#endif

namespace orx {
namespace {

int Export(const std::string &file, const std::string &out)
{
    Recording recording;
    if (!RecordingOpen(&recording, file))
        return 0;
    int nResult = ExportRecording(&recording, out);
    RecordingClose(&recording);
    return nResult;
}

TEST(Export, BareMediaComesOutByteForByte)
{
    TempDir dir;
    std::string stream, sound;
    uint32_t i = 0;
    for (const auto &picture : LoadClip())
        stream += picture.stream;
    for (const char *szAudio : {"PCMU/8000", "PCMA/8000", "AMR/8000", "AMR-WB/16000"}) {
        std::string codec = szAudio, ending = codec[0] == 'P' ? ".g711" : ".amr";
        RecordClip(dir.File("x.zmf"), szAudio);
        ASSERT_EQ(1, Export(dir.File("x.zmf"), dir.File("x.h264")));
        EXPECT_TRUE(stream == ReadFile(dir.File("x.h264")));
        ASSERT_EQ(1, Export(dir.File("x.zmf"), dir.File("x" + ending)));
        sound = codec == "AMR/8000" ? "#!AMR\n" : codec == "AMR-WB/16000" ? "#!AMR-WB\n" : "";
        for (i = 0; i < 500; i++)
            sound += Speech(codec, i);
        EXPECT_TRUE(sound == ReadFile(dir.File("x" + ending))) << szAudio;
        for (const char *szOut : {"x.mjpeg", codec[0] == 'P' ? "y.amr" : "y.g711", "x.avi", "none/x.h264"}) {
            EXPECT_EQ(0, Export(dir.File("x.zmf"), dir.File(szOut))) << szOut;
            EXPECT_FALSE(std::filesystem::exists(dir.File(szOut)));
        }
    }
}

#ifdef ORX_HAVE_AV
struct Contents {
    std::vector<int64_t> shownMs;  // of the pictures, in the order of the file
    std::vector<size_t> keys;
    int64_t nAudioFromMs = -1, nAudioToMs = -1;
    int64_t nDurationMs = 0;
    int nWidth = 0, nHeight = 0;
};

Contents ReadContainer(const std::string &path)
{
    Contents out;
    AVFormatContext *pFormat = nullptr;
    EXPECT_EQ(0, avformat_open_input(&pFormat, path.c_str(), nullptr, nullptr));
    EXPECT_GE(avformat_find_stream_info(pFormat, nullptr), 0);
    out.nDurationMs = pFormat->duration / 1000;
    AVPacket *pPacket = av_packet_alloc();
    int64_t nLastDts = INT64_MIN;
    while (av_read_frame(pFormat, pPacket) == 0) {
        AVStream *pStream = pFormat->streams[pPacket->stream_index];
        av_packet_rescale_ts(pPacket, pStream->time_base, AVRational{1, 1000});
        if (pStream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
            out.nWidth = pStream->codecpar->width;
            out.nHeight = pStream->codecpar->height;
            if (pPacket->flags & AV_PKT_FLAG_KEY)
                out.keys.push_back(out.shownMs.size());
            out.shownMs.push_back(pPacket->pts);
            EXPECT_TRUE(pPacket->dts == AV_NOPTS_VALUE || pPacket->dts > nLastDts);
            nLastDts = pPacket->dts;
        } else {
            if (out.nAudioFromMs < 0)
                out.nAudioFromMs = std::max<int64_t>(pPacket->pts, 0);
            out.nAudioToMs = pPacket->pts + pPacket->duration;
        }
        av_packet_unref(pPacket);
    }
    av_packet_free(&pPacket);
    avformat_close_input(&pFormat);
    return out;
}

TEST(Export, ContainersKeepTimesKeyFramesAndSound)
{
    TempDir dir;
    size_t nPictures = LoadClip().size();
    ASSERT_EQ(250U, nPictures);
    for (const char *szAudio : {"PCMU/8000", "PCMA/8000", "AMR/8000", "AMR-WB/16000", ""}) {
        RecordClip(dir.File("x.zmf"), *szAudio ? szAudio : nullptr);
        for (const char *szEnding : {".mp4", ".mkv"}) {
            std::string path = dir.File(std::string("x") + szEnding);
            testing::internal::CaptureStderr();
            ASSERT_EQ(1, Export(dir.File("x.zmf"), path)) << szAudio << szEnding;
            EXPECT_EQ("", testing::internal::GetCapturedStderr()) << szAudio << szEnding;
            Contents contents = ReadContainer(path);
            ASSERT_EQ(nPictures, contents.shownMs.size()) << szAudio << szEnding;
            for (size_t i = 0; i < nPictures; i++)
                EXPECT_EQ(static_cast<int64_t>(i) * 40, contents.shownMs[i]);
            EXPECT_EQ(10U, contents.keys.size());
            for (size_t i = 0; i < contents.keys.size(); i++)
                EXPECT_EQ(i * 25, contents.keys[i]);
            EXPECT_EQ(320, contents.nWidth);
            EXPECT_EQ(240, contents.nHeight);
            EXPECT_NEAR(10000, static_cast<double>(contents.nDurationMs), 130);
            if (*szAudio) {
                EXPECT_EQ(0, contents.nAudioFromMs);
                EXPECT_NEAR(10000, static_cast<double>(contents.nAudioToMs), 130) << szAudio << szEnding;
            }
        }
    }
}

#endif

TEST(JpegImage, RecordedPayloadsBecomeAnImage)
{
    // An image of 16 x 8 pixels in two payloads, tables by Q.
    std::string scan = "entropy coded data";
    auto payload = [&](uint32_t nOffset, int nQ, const std::string &rest) {
        uint8_t offset[3];
        PutBe(offset, 3, nOffset);
        return std::string(1, '\0') + std::string(reinterpret_cast<char *>(offset), 3) + "\x01" +
               static_cast<char>(nQ) + "\x02\x01" + rest;
    };
    for (int nQ : {50, 99, 1, 255}) {
        std::string tables = nQ == 255 ? std::string("\0\0\0\x80", 4) + std::string(128, 'q') : "";
        std::string sample = payload(0, nQ, tables + scan.substr(0, 7)) + payload(7, nQ, scan.substr(7));
        std::string image;
        ASSERT_EQ(1, JpegImageRebuild(reinterpret_cast<const uint8_t *>(sample.data()),
                                      static_cast<uint32_t>(sample.size()), &image));
        EXPECT_EQ(std::string("\x3F\0", 2) + scan + "\xFF\xD9", image.substr(image.size() - scan.size() - 4));
        uint32_t nWidth = 0, nHeight = 0;
        EXPECT_EQ(1, JpegImageSize(image, &nWidth, &nHeight));
        EXPECT_EQ(16U, nWidth);
        EXPECT_EQ(8U, nHeight);
        size_t nTable = image.find(std::string("\xFF\xDB\0\x43\0", 5)) + 5;
        EXPECT_EQ(nQ == 255 ? 'q' : nQ == 50 ? 16 : nQ == 99 ? 1 : '\xFF', image[nTable]) << nQ;
        std::string again;
        EXPECT_EQ(1, JpegImageRebuild(reinterpret_cast<const uint8_t *>(image.data()),
                                      static_cast<uint32_t>(image.size()), &again));
        EXPECT_EQ(image, again);
    }
    std::string image;
    for (const std::string &bad : {payload(0, 0, scan), payload(0, 120, scan), payload(9, 50, scan), scan})
        EXPECT_EQ(0, JpegImageRebuild(reinterpret_cast<const uint8_t *>(bad.data()),
                                      static_cast<uint32_t>(bad.size()), &image));
}

}  // namespace
}  // namespace orx
