#include "export.h"

#include <strings.h>

#include <cstdio>
#include <cstring>

#include "aacconfig.h"
#include "base/bytes.h"
#include "jpegimage.h"
#include "outfile.h"
#include "record/nalunit.h"

namespace orx {

int ExportPicture(SampleForm nForm, const Sample &sample, std::string *pOut)
{
    if (nForm == FORM_JPEG)
        return JpegImageRebuild(sample.pData, sample.nBytes, pOut);
    ByteReader in{sample.pData, sample.nBytes};
    uint32_t nUnit = 0;
    pOut->clear();
    while (const uint8_t *pUnit = NalNext(&in, &nUnit)) {
        pOut->append("\0\0\0\1", 4);
        pOut->append(reinterpret_cast<const char *>(pUnit), nUnit);
    }
    if (in.nLeft > 0)
        return 0;
    return !pOut->empty();
}

static int Refuse(const Recording *pRecording, const char *szReason)
{
    fprintf(stderr, "%s: %s\n", pRecording->path.c_str(), szReason);
    return 0;
}

void NoteDamage(Damage *pDamage, const Sample &sample)
{
    if (pDamage->nPictures++ == 0)
        pDamage->nFirstMs = sample.head.nTimeMs;
}

void SayDamage(const Recording *pRecording, const Damage &damage)
{
    uint64_t nFile = pRecording->pReader->nFileBytes;
    if (damage.nPictures > 0)
        fprintf(stderr, "%s: %u damaged pictures were left out, the first of them at %u ms\n",
                pRecording->path.c_str(), damage.nPictures, damage.nFirstMs);
    if (pRecording->nPos < nFile)
        fprintf(stderr, "%s: %llu bytes at the end are no whole record\n", pRecording->path.c_str(),
                static_cast<unsigned long long>(nFile - pRecording->nPos));
}

static int WriteBytes(FILE *pFile, const void *pData, size_t nBytes)
{
    return fwrite(pData, 1, nBytes, pFile) == nBytes;
}

static int WritePictures(Recording *pRecording, FILE *pFile, const Codec *pCodec)
{
    Sample sample;
    std::string picture;
    Damage damage;
    uint32_t nWritten = 0;
    while (RecordingNext(pRecording, &sample, "exporting")) {
        if (sample.head.chMedia != 'v')
            continue;
        if (!ExportPicture(pCodec->nForm, sample, &picture))
            NoteDamage(&damage, sample);
        else if (!WriteBytes(pFile, picture.data(), picture.size()))
            return Refuse(pRecording, "write error");
        else
            nWritten++;
    }
    SayDamage(pRecording, damage);
    return nWritten > 0 || Refuse(pRecording, "holds no pictures that can be exported");
}

// The units of a block, each behind a head that says what it is.
static int WriteAac(FILE *pFile, const AacConfig &config, const Sample &sample)
{
    ByteReader in{sample.pData, sample.nBytes};
    uint32_t nUnit = 0;
    while (const uint8_t *pUnit = NalNext(&in, &nUnit)) {
        std::string head = AdtsHead(config, nUnit);
        if (!head.empty() &&
            (!WriteBytes(pFile, head.data(), head.size()) || !WriteBytes(pFile, pUnit, nUnit)))
            return 0;
    }
    return 1;
}

static int WriteSound(Recording *pRecording, FILE *pFile, const Codec *pCodec)
{
    Sample sample;
    AacConfig config;
    if (pCodec->nForm == FORM_AAC &&
        (!AacConfigRead(pRecording->codecs.audio, &config) || AdtsHead(config, 1).empty()))
        return Refuse(pRecording, "bare files cannot hold AAC of its kind; take .mp4 or .mkv");
    uint32_t nBlocks = 0;
    fputs(pCodec->exported.szHead, pFile);
    while (RecordingNext(pRecording, &sample, "exporting")) {
        if (sample.head.chMedia != 'a')
            continue;
        nBlocks++;
        if (!(pCodec->nForm == FORM_AAC ? WriteAac(pFile, config, sample)
                                        : WriteBytes(pFile, sample.pData, sample.nBytes)))
            return Refuse(pRecording, "write error");
    }
    SayDamage(pRecording, Damage{});
    return nBlocks > 0 || Refuse(pRecording, "holds no sound");
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
