#include "export.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "base/bytes.h"
#include "jpegimage.h"

namespace orx {

namespace {

using RawProc = int (*)(Recording *pRecording, FILE *pFile);

struct ExportFormat {
    const char *szEnding;
    RawProc pfnRaw;  // null: a container
};

}  // namespace

int ExportPicture(VideoCodec nCodec, const Sample &sample, std::string *pOut)
{
    if (nCodec == VIDEO_JPEG)
        return JpegImageRebuild(sample.pData, sample.nBytes, pOut);
    ByteReader in{sample.pData, sample.nBytes};
    pOut->clear();
    while (in.nLeft > 0) {
        uint32_t nUnit = ReadBe(&in, 2);
        const uint8_t *pUnit = nUnit > 2 ? ReadBytes(&in, nUnit - 2) : nullptr;
        if (!pUnit)
            return 0;
        pOut->append("\0\0\0\1", 4);
        pOut->append(reinterpret_cast<const char *>(pUnit), nUnit - 2);
    }
    return !pOut->empty();
}

static int Refuse(const Recording *pRecording, const char *szReason)
{
    fprintf(stderr, "%s: %s\n", pRecording->path.c_str(), szReason);
    return 0;
}

static int WritePictures(Recording *pRecording, FILE *pFile, VideoCodec nCodec)
{
    Sample sample;
    std::string picture;
    if (pRecording->nVideo != nCodec)
        return Refuse(pRecording, nCodec == VIDEO_H264 ? "holds no H.264 video" : "holds no JPEG video");
    while (RecordingNext(pRecording, &sample, "exporting")) {
        if (sample.head.chMedia != 'v')
            continue;
        if (!ExportPicture(nCodec, sample, &picture))
            fprintf(stderr, "%s: a broken picture at %u ms is left out\n", pRecording->path.c_str(),
                    sample.head.nTimeMs);
        else if (fwrite(picture.data(), 1, picture.size(), pFile) != picture.size())
            return Refuse(pRecording, "write error");
    }
    return 1;
}

static int WriteSound(Recording *pRecording, FILE *pFile, const char *szHead)
{
    Sample sample;
    fputs(szHead, pFile);
    while (RecordingNext(pRecording, &sample, "exporting"))
        if (sample.head.chMedia == 'a' && fwrite(sample.pData, 1, sample.nBytes, pFile) != sample.nBytes)
            return Refuse(pRecording, "write error");
    return 1;
}

static int WriteH264(Recording *pRecording, FILE *pFile)
{
    return WritePictures(pRecording, pFile, VIDEO_H264);
}

static int WriteMjpeg(Recording *pRecording, FILE *pFile)
{
    return WritePictures(pRecording, pFile, VIDEO_JPEG);
}

static int WriteG711(Recording *pRecording, FILE *pFile)
{
    if (pRecording->nAudio != AUDIO_PCMU && pRecording->nAudio != AUDIO_PCMA)
        return Refuse(pRecording, "holds no G.711 audio");
    return WriteSound(pRecording, pFile, "");
}

static int WriteAmr(Recording *pRecording, FILE *pFile)
{
    if (pRecording->nAudio != AUDIO_AMR_NB && pRecording->nAudio != AUDIO_AMR_WB)
        return Refuse(pRecording, "holds no AMR audio");
    return WriteSound(pRecording, pFile, pRecording->nAudio == AUDIO_AMR_WB ? "#!AMR-WB\n" : "#!AMR\n");
}

static int WriteRaw(Recording *pRecording, const std::string &out, RawProc pfnRaw)
{
    FILE *pFile = fopen(out.c_str(), "wb");
    if (!pFile) {
        perror(out.c_str());
        return 0;
    }
    int bGood = pfnRaw(pRecording, pFile);
    if (fclose(pFile) != 0 && bGood)
        bGood = Refuse(pRecording, "write error");
    if (!bGood)
        unlink(out.c_str());
    return bGood;
}

int ExportRecording(Recording *pRecording, const std::string &out)
{
    static const ExportFormat formats[] = {{".h264", WriteH264}, {".mjpeg", WriteMjpeg}, {".g711", WriteG711},
                                           {".amr", WriteAmr},   {".mp4", nullptr},      {".mkv", nullptr}};
    for (const ExportFormat &format : formats) {
        size_t nEnding = strlen(format.szEnding);
        if (out.size() <= nEnding || strcasecmp(out.c_str() + out.size() - nEnding, format.szEnding) != 0)
            continue;
        return format.pfnRaw ? WriteRaw(pRecording, out, format.pfnRaw) : ExportContainer(pRecording, out);
    }
    fprintf(stderr, "%s: the ending must be .h264, .mjpeg, .g711, .amr, .mp4 or .mkv\n", out.c_str());
    return 0;
}

}  // namespace orx
