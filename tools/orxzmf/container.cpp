// Recordings as .mp4 and .mkv, written by Debian's libavformat. Pictures go in as they are. Audio does so
// where the container takes it; otherwise it is decoded and becomes AAC.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "aacconfig.h"
#include "base/bytes.h"
#include "export.h"
#include "jpegimage.h"
#include "outfile.h"
#include "record/nalunit.h"
#include "soundclock.h"
#include "soundcoder.h"
#include "soundpiece.h"
#include "timeline.h"

namespace orx {

namespace {

// When each picture is shown and in which order they go into the file, in ms.
struct Timing {
    std::vector<int64_t> shown;    // by picture, in the order of the recording
    std::vector<int64_t> decoded;  // rises from picture to picture and is never later than shown
    int64_t nDelay = 0;            // how far shown runs ahead of decoded because pictures are reordered
    size_t nNext = 0;
};

struct Export {
    Recording *pRecording = nullptr;
    AVFormatContext *pFormat = nullptr;
    AVPacket *pPacket = nullptr;
    AVStream *pVideo = nullptr;
    AVStream *pAudio = nullptr;
    Damage damage;
    Timeline timeline;
    size_t nRecord = 0;  // of the timeline, the next to be written
    Timing timing;
    SoundForm sound;
    SoundClock clock;
    SoundCoder coder;
    int bTranscode = 0;
};

}  // namespace

static int Refuse(const Export *pExport, const char *szReason)
{
    fprintf(stderr, "%s: %s\n", pExport->pRecording->path.c_str(), szReason);
    return 0;
}

static const Codec *AudioOf(const Export *pExport)
{
    return pExport->pRecording->codecs.audio.pCodec;
}

static SampleForm PictureForm(const Recording *pRecording)
{
    return FormOf(pRecording->codecs.video);
}

static AVCodecID IdOf(const Codec *pCodec)
{
    return static_cast<AVCodecID>(SoundCoderId(pCodec));
}

// --- First pass: the times of the pictures ---

// Decoding times for pictures that are not recorded in the order in which they are shown: the sorted times,
// shifted back until none is later than its picture.
static void OrderTimes(Timing *pTiming)
{
    std::vector<int64_t> sorted = pTiming->shown;
    int bReordered = !std::is_sorted(sorted.begin(), sorted.end());
    std::sort(sorted.begin(), sorted.end());
    for (size_t i = 1; i < sorted.size(); i++)
        sorted[i] = std::max(sorted[i], sorted[i - 1] + 1);  // two pictures of one time
    pTiming->decoded = sorted;
    if (!bReordered) {
        pTiming->shown = sorted;
        return;
    }
    for (size_t i = 0; i < sorted.size(); i++)
        pTiming->nDelay = std::max(pTiming->nDelay, sorted[i] - pTiming->shown[i]);
    for (int64_t &nTime : pTiming->decoded)
        nTime -= pTiming->nDelay;
}

static int CollectTimes(Export *pExport, std::string *pFirstPicture, int *pbAudio)
{
    Recording *pRecording = pExport->pRecording;
    std::vector<int64_t> *pTimes = &pExport->timeline.times;
    std::vector<size_t> pictures;  // which of the times are theirs
    Sample sample;
    std::string picture;
    *pbAudio = 0;
    int bKey = 0;
    while (RecordingNext(pRecording, &sample, "reading")) {
        *pbAudio |= sample.head.chMedia == 'a';
        if (sample.head.chMedia == 'v' || sample.head.chMedia == 'a')
            pTimes->push_back(sample.head.nTimeMs);
        if (sample.head.chMedia != 'v')
            continue;
        if (!ExportPicture(PictureForm(pRecording), sample, &picture)) {
            NoteDamage(&pExport->damage, sample);
            continue;
        }
        if (pFirstPicture->empty() || (!bKey && IsKeyFrame(sample.head)))
            *pFirstPicture = picture;  // a key frame has the parameter sets
        bKey |= IsKeyFrame(sample.head);
        pictures.push_back(pTimes->size() - 1);
    }
    TimelineMend(&pExport->timeline);
    for (size_t i : pictures)
        pExport->timing.shown.push_back((*pTimes)[i]);
    OrderTimes(&pExport->timing);
    return RecordingRewind(pRecording);
}

// --- Streams ---

// Size of a picture, from its parameter sets.
static void ParseSize(const std::string &picture, AVCodecParameters *pPar)
{
    AVCodecParserContext *pParser = av_parser_init(pPar->codec_id);
    AVCodecContext *pContext = avcodec_alloc_context3(nullptr);
    if (pParser && pContext) {
        uint8_t *pOut = nullptr;
        int nOut = 0;
        std::string padded = picture + std::string(AV_INPUT_BUFFER_PADDING_SIZE, '\0');
        pParser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
        av_parser_parse2(pParser, pContext, &pOut, &nOut, reinterpret_cast<const uint8_t *>(padded.data()),
                         static_cast<int>(picture.size()), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
        pPar->width = pParser->width;
        pPar->height = pParser->height;
        pPar->format = pParser->format;
        pPar->profile = pContext->profile;
        pPar->level = pContext->level;
    }
    av_parser_close(pParser);
    avcodec_free_context(&pContext);
}

static int SetExtraData(AVCodecParameters *pPar, const std::string &bytes)
{
    pPar->extradata = static_cast<uint8_t *>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!pPar->extradata)
        return 0;
    memcpy(pPar->extradata, bytes.data(), bytes.size());
    pPar->extradata_size = static_cast<int>(bytes.size());
    return 1;
}

static int AddVideo(Export *pExport, const std::string &picture)
{
    AVStream *pStream = avformat_new_stream(pExport->pFormat, nullptr);
    if (!pStream)
        return 0;
    AVCodecParameters *pPar = pStream->codecpar;
    pPar->codec_type = AVMEDIA_TYPE_VIDEO;
    pStream->time_base = AVRational{1, 1000};
    pPar->codec_id = IdOf(pExport->pRecording->codecs.video.pCodec);
    if (PictureForm(pExport->pRecording) == FORM_JPEG) {
        uint32_t nWidth = 0;
        uint32_t nHeight = 0;
        JpegImageSize(picture, &nWidth, &nHeight);
        pPar->width = static_cast<int>(nWidth);
        pPar->height = static_cast<int>(nHeight);
    } else {
        ParseSize(picture, pPar);
        pPar->video_delay = pExport->timing.nDelay > 0;
        // The parameter sets of the first picture; the writer of the container takes them out of it.
        if (!SetExtraData(pPar, picture))
            return 0;
        // the kind that all players take: parameter sets stand in the head
        if (pPar->codec_id == AV_CODEC_ID_HEVC && strcmp(pExport->pFormat->oformat->name, "mp4") == 0)
            pPar->codec_tag = MKTAG('h', 'v', 'c', '1');
    }
    pExport->pVideo = pStream;
    return pPar->width > 0 && pPar->height > 0;
}

// Audio that goes in as it is.
static int CopyAudio(Export *pExport, AVStream *pStream)
{
    const Codec *pCodec = AudioOf(pExport);
    AVCodecParameters *pPar = pStream->codecpar;
    AacConfig config;
    pPar->codec_type = AVMEDIA_TYPE_AUDIO;
    pPar->codec_id = IdOf(pCodec);
    pPar->sample_rate = static_cast<int>(pExport->clock.nRate);
    pPar->bits_per_coded_sample = av_get_bits_per_sample(pPar->codec_id);
    pPar->block_align = 1;
    pPar->frame_size = static_cast<int>(pExport->sound.nFrameTicks);
    if (pCodec->nForm == FORM_AAC &&
        (!AacConfigRead(pExport->pRecording->codecs.audio, &config) || !SetExtraData(pPar, config.bytes)))
        return 0;
    int nChannels = config.nChannels == 7 ? 8 : static_cast<int>(config.nChannels);
    av_channel_layout_default(&pPar->ch_layout, nChannels > 0 ? nChannels : 1);
    return 1;
}

// Takes what the encoder has ready.
static int WriteEncoded(void *pContext, AVPacket *pPacket)
{
    auto *pExport = static_cast<Export *>(pContext);
    pPacket->stream_index = pExport->pAudio->index;
    av_packet_rescale_ts(pPacket, pExport->coder.pEncoder->time_base, pExport->pAudio->time_base);
    return av_interleaved_write_frame(pExport->pFormat, pPacket) >= 0;
}

// Audio that is encoded anew: PCM where the container takes it, AAC in .mp4.
static int RecodeAudio(Export *pExport, AVStream *pStream)
{
    const AVOutputFormat *pFormat = pExport->pFormat->oformat;
    int bPcm = avformat_query_codec(pFormat, AV_CODEC_ID_PCM_S16LE, FF_COMPLIANCE_NORMAL) == 1;
    pExport->coder.pfnCoded = WriteEncoded;
    pExport->coder.pContext = pExport;
    return SoundCoderOpen(&pExport->coder, AudioOf(pExport), bPcm, pFormat->flags & AVFMT_GLOBALHEADER,
                          pExport->pRecording->pReader->nFileBytes) &&
           avcodec_parameters_from_context(pStream->codecpar, pExport->coder.pEncoder) >= 0;
}

static int AddAudio(Export *pExport)
{
    AVStream *pStream = avformat_new_stream(pExport->pFormat, nullptr);
    if (!pStream)
        return 0;
    pExport->pAudio = pStream;
    pExport->sound = SoundFormOf(pExport->pRecording->codecs.audio);
    pExport->clock.nRate = pExport->sound.nRate;
    pStream->time_base = AVRational{1, static_cast<int>(pExport->clock.nRate)};
    pExport->bTranscode =
        avformat_query_codec(pExport->pFormat->oformat, IdOf(AudioOf(pExport)), FF_COMPLIANCE_NORMAL) != 1;
    return pExport->bTranscode ? RecodeAudio(pExport, pStream) : CopyAudio(pExport, pStream);
}

// --- Second pass: writing ---

// Writes a copy of the bytes as one packet; times in the time base given.
static int WritePacket(Export *pExport, AVStream *pStream, const uint8_t *pData, size_t nBytes,
                       AVRational base, int64_t nPts, int64_t nDts, int64_t nDuration, int bKey)
{
    AVPacket *pPacket = pExport->pPacket;
    if (av_new_packet(pPacket, static_cast<int>(nBytes)) < 0)
        return 0;
    memcpy(pPacket->data, pData, nBytes);
    pPacket->stream_index = pStream->index;
    pPacket->pts = nPts;
    pPacket->dts = nDts;
    pPacket->duration = nDuration;
    pPacket->flags = bKey ? AV_PKT_FLAG_KEY : 0;
    av_packet_rescale_ts(pPacket, base, pStream->time_base);
    return av_interleaved_write_frame(pExport->pFormat, pPacket) >= 0;
}

static int WritePicture(Export *pExport, const Sample &sample, std::string *pPicture)
{
    Timing *pTiming = &pExport->timing;
    if (!pExport->pVideo || !ExportPicture(PictureForm(pExport->pRecording), sample, pPicture))
        return 1;
    size_t i = pTiming->nNext++;
    size_t nPictures = pTiming->decoded.size();
    if (i >= nPictures)
        return 1;  // the file grew between the passes
    // The last picture is shown for as long as the one before.
    size_t nFrom = i + 1 < nPictures ? i : i > 0 ? i - 1 : 0;
    int64_t nDuration = nPictures > 1 ? pTiming->decoded[nFrom + 1] - pTiming->decoded[nFrom] : 40;
    return WritePacket(pExport, pExport->pVideo, reinterpret_cast<const uint8_t *>(pPicture->data()),
                       pPicture->size(), AVRational{1, 1000}, pTiming->shown[i], pTiming->decoded[i],
                       nDuration, IsKeyFrame(sample.head));
}

static int WritePiece(Export *pExport, const ByteReader &piece, int64_t nSamples)
{
    int64_t nAt = 0;
    int64_t nLonger = 0;
    if (!SoundClockPiece(&pExport->clock, nSamples, &nAt, &nLonger))
        return 1;
    if (pExport->bTranscode)
        return SoundCoderPut(&pExport->coder, piece.p, piece.nLeft, nAt, nLonger);
    AVRational base{1, static_cast<int>(pExport->clock.nRate)};
    return WritePacket(pExport, pExport->pAudio, piece.p, piece.nLeft, base, nAt, nAt, nSamples + nLonger, 1);
}

static int WriteAudio(Export *pExport, const Sample &sample, int64_t nTimeMs)
{
    if (!pExport->pAudio)
        return 1;
    ByteReader piece{nullptr, 0};
    int64_t nSamples = 0;
    int64_t nAll = 0;
    for (ByteReader in{sample.pData, sample.nBytes}; SoundNextPiece(&pExport->sound, &in, &piece, &nSamples);)
        nAll += nSamples;
    SoundClockBlock(&pExport->clock, nTimeMs, nAll);
    for (ByteReader in{sample.pData, sample.nBytes}; SoundNextPiece(&pExport->sound, &in, &piece, &nSamples);)
        if (!WritePiece(pExport, piece, nSamples))
            return 0;
    return 1;
}

static int WriteSample(Export *pExport, const Sample &sample, std::string *pPicture)
{
    if (sample.head.chMedia != 'v' && sample.head.chMedia != 'a')
        return 1;
    if (pExport->nRecord >= pExport->timeline.times.size())
        return 1;  // the file grew between the passes
    int64_t nTimeMs = pExport->timeline.times[pExport->nRecord++];
    return sample.head.chMedia == 'v' ? WritePicture(pExport, sample, pPicture)
                                      : WriteAudio(pExport, sample, nTimeMs);
}

static int WriteSamples(Export *pExport)
{
    Sample sample;
    std::string picture;
    while (RecordingNext(pExport->pRecording, &sample, "exporting")) {
        if (!WriteSample(pExport, sample, &picture))
            return Refuse(pExport, "write error");
    }
    if (!pExport->bTranscode || SoundCoderEnd(&pExport->coder))
        return 1;
    return Refuse(pExport, "the sound cannot be encoded");
}

static int AddStreams(Export *pExport, const std::string &firstPicture, int bAudio)
{
    if (!AddVideo(pExport, firstPicture))
        return Refuse(pExport, "the size of its pictures is not known");
    if (bAudio && IdOf(AudioOf(pExport)) != AV_CODEC_ID_NONE && !AddAudio(pExport))
        return Refuse(pExport, "its audio cannot be exported");
    return 1;
}

static int WriteFile(Export *pExport, const std::string &path)
{
    if (avio_open(&pExport->pFormat->pb, path.c_str(), AVIO_FLAG_WRITE) < 0)
        return Refuse(pExport, "write error");
    int bGood = avformat_write_header(pExport->pFormat, nullptr) >= 0
                    ? WriteSamples(pExport)
                    : Refuse(pExport, "the header cannot be made");
    if (bGood && av_write_trailer(pExport->pFormat) < 0)
        bGood = Refuse(pExport, "write error");
    if (avio_closep(&pExport->pFormat->pb) < 0 && bGood)
        bGood = Refuse(pExport, "write error");
    return bGood;
}

static int Run(Export *pExport, const std::string &out)
{
    std::string firstPicture;
    int bAudio = 0;
    if (!CollectTimes(pExport, &firstPicture, &bAudio))
        return 0;
    if (firstPicture.empty() || PictureForm(pExport->pRecording) == FORM_NONE)
        return Refuse(pExport, "holds no pictures that can be exported");
    pExport->pPacket = av_packet_alloc();
    if (!pExport->pPacket ||
        avformat_alloc_output_context2(&pExport->pFormat, nullptr, nullptr, out.c_str()) < 0)
        return Refuse(pExport, "the container cannot be made");
    OutFile file;
    return AddStreams(pExport, firstPicture, bAudio) && OutFileBegin(&file, out) &&
           OutFileEnd(&file, WriteFile(pExport, file.beside));
}

int ExportContainer(Recording *pRecording, const std::string &out)
{
    Export work;
    work.pRecording = pRecording;
    av_log_set_level(AV_LOG_WARNING);
    int bGood = Run(&work, out);
    if (bGood)
        SayDamage(pRecording, work.damage);
    SoundCoderFree(&work.coder);
    av_packet_free(&work.pPacket);
    avformat_free_context(work.pFormat);
    return bGood;
}

}  // namespace orx
