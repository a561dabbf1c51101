#include "export.h"

#include <strings.h>

#include <cstdio>
#include <cstring>

#include "base/bytes.h"
#include "jpegimage.h"
#include "outfile.h"

namespace orx {

int ExportPicture(SampleForm nForm, const Sample &sample, std::string *pOut)
{
    if (nForm == FORM_JPEG)
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

static int WritePictures(Recording *pRecording, FILE *pFile, const Codec *pCodec)
{
    Sample sample;
    std::string picture;
    while (RecordingNext(pRecording, &sample, "exporting")) {
        if (sample.head.chMedia != 'v')
            continue;
        if (!ExportPicture(pCodec->nForm, sample, &picture))
            fprintf(stderr, "%s: a broken picture at %u ms is left out\n", pRecording->path.c_str(),
                    sample.head.nTimeMs);
        else if (fwrite(picture.data(), 1, picture.size(), pFile) != picture.size())
            return Refuse(pRecording, "write error");
    }
    return 1;
}

static int WriteSound(Recording *pRecording, FILE *pFile, const Codec *pCodec)
{
    Sample sample;
    fputs(pCodec->exported.szHead, pFile);
    while (RecordingNext(pRecording, &sample, "exporting"))
        if (sample.head.chMedia == 'a' && fwrite(sample.pData, 1, sample.nBytes, pFile) != sample.nBytes)
            return Refuse(pRecording, "write error");
    return 1;
}

// The bare media of the kind that codecs like pWanted have.
static int WriteMedia(Recording *pRecording, FILE *pFile, const Codec *pWanted)
{
    int bVideo = (pWanted->nMediaType & MEDIA_VIDEO_MASK) != 0;
    const Codec *pHeld = bVideo ? pRecording->codecs.video.pCodec : pRecording->codecs.audio.pCodec;
    if (!pHeld || strcmp(pHeld->exported.szEnding, pWanted->exported.szEnding) != 0)
        return Refuse(pRecording, (std::string("holds no ") + pWanted->exported.szHolds).c_str());
    return bVideo ? WritePictures(pRecording, pFile, pHeld) : WriteSound(pRecording, pFile, pHeld);
}

static int WriteRawFile(Recording *pRecording, const std::string &path, const Codec *pCodec)
{
    FILE *pFile = fopen(path.c_str(), "wb");
    if (!pFile)
        return Refuse(pRecording, "write error");
    int bGood = WriteMedia(pRecording, pFile, pCodec);
    if (fclose(pFile) != 0 && bGood)
        bGood = Refuse(pRecording, "write error");
    return bGood;
}

static int WriteRaw(Recording *pRecording, const std::string &out, const Codec *pCodec)
{
    OutFile file;
    return OutFileBegin(&file, out) && OutFileEnd(&file, WriteRawFile(pRecording, file.beside, pCodec));
}

static int HasEnding(const std::string &out, const char *szEnding)
{
    size_t nEnding = strlen(szEnding);
    return out.size() > nEnding && strcasecmp(out.c_str() + out.size() - nEnding, szEnding) == 0;
}

int ExportRecording(Recording *pRecording, const std::string &out)
{
    std::string endings;
    for (const Codec &codec : Codecs()) {
        const char *szEnding = codec.exported.szEnding;
        if (!szEnding)
            continue;
        if (HasEnding(out, szEnding))
            return WriteRaw(pRecording, out, &codec);
        if (!endings.ends_with(std::string(szEnding) + ", "))  // codecs that share one stand together
            endings += std::string(szEnding) + ", ";
    }
    if (HasEnding(out, ".mp4") || HasEnding(out, ".mkv"))
        return ExportContainer(pRecording, out);
    fprintf(stderr, "%s: the ending must be %s.mp4 or .mkv\n", out.c_str(), endings.c_str());
    return 0;
}

}  // namespace orx
