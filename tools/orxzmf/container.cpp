// Recordings as .mp4 and .mkv, written by Debian's libavformat. Pictures go in as they are. Audio does so
// where the container takes it; otherwise it is decoded and becomes AAC.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "aacconfig.h"
#include "base/bytes.h"
#include "export.h"
#include "jpegimage.h"
#include "outfile.h"
#include "record/aac.h"
#include "record/depacketise.h"
#include "record/nalunit.h"
#include "soundclock.h"
#include "timeline.h"

namespace orx {

constexpr int64_t kG711PacketBytes = 160;
constexpr int kSpeechFrameMs = 20;
constexpr int kAacBitRate = 32000;
constexpr int kPcmFrame = 1024;              // samples in one packet
constexpr int64_t kSilenceSeconds = 10;      // a longer pause is left out, which the time stamps tell
constexpr int64_t kSilenceFrom = 60 * 8000;  // samples of silence that the smallest recording may become

namespace {

// When each picture is shown and in which order they go into the file, in ms.
struct Timing {
    std::vector<int64_t> shown;    // by picture, in the order of the recording
    std::vector<int64_t> decoded;  // rises from picture to picture and is never later than shown
    int64_t nDelay = 0;            // how far shown runs ahead of decoded because pictures are reordered
    size_t nNext = 0;
};

// The audio that is decoded and encoded anew.
struct Transcoder {
    AVCodecContext *pDecoder = nullptr;
    AVCodecContext *pEncoder = nullptr;
    AVFrame *pDecoded = nullptr;
    AVFrame *pFrame = nullptr;   // handed to the encoder
    std::vector<float> waiting;  // samples not yet encoded
    int64_t nEnd = -1;           // place of the sample behind the last one taken; -1 before the first
    int64_t nSilence = 0;        // samples that may still be put where nothing was recorded
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
    SoundClock clock;
    Transcoder transcoder;
    int bTranscode = 0;
    int64_t nFrameTicks = 0;  // of a frame of audio; 0 when a sample is a byte
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

// What libavcodec calls a codec; none for one that is not recorded.
static AVCodecID IdOf(const Codec *pCodec)
{
    const char *szName = pCodec ? pCodec->exported.szAvName : nullptr;
    const AVCodecDescriptor *pDescriptor = szName ? avcodec_descriptor_get_by_name(szName) : nullptr;
    return pDescriptor ? pDescriptor->id : AV_CODEC_ID_NONE;
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

static int OpenDecoder(Export *pExport)
{
    const AVCodec *pCodec = avcodec_find_decoder(IdOf(AudioOf(pExport)));
    AVCodecContext *pContext = pCodec ? avcodec_alloc_context3(pCodec) : nullptr;
    pExport->transcoder.pDecoder = pContext;
    if (!pContext)
        return 0;
    pContext->sample_rate = AudioOf(pExport)->nSampleRate;
    av_channel_layout_default(&pContext->ch_layout, 1);
    return avcodec_open2(pContext, pCodec, nullptr) == 0;
}

static int OpenEncoder(Export *pExport, AVStream *pStream)
{
    // PCM has no delay and loses nothing; AAC is what .mp4 takes.
    int bPcm =
        avformat_query_codec(pExport->pFormat->oformat, AV_CODEC_ID_PCM_S16LE, FF_COMPLIANCE_NORMAL) == 1;
    const AVCodec *pCodec = avcodec_find_encoder(bPcm ? AV_CODEC_ID_PCM_S16LE : AV_CODEC_ID_AAC);
    AVCodecContext *pContext = pCodec ? avcodec_alloc_context3(pCodec) : nullptr;
    pExport->transcoder.pEncoder = pContext;
    if (!pContext)
        return 0;
    pContext->sample_rate = AudioOf(pExport)->nSampleRate;
    pContext->sample_fmt = bPcm ? AV_SAMPLE_FMT_S16 : AV_SAMPLE_FMT_FLTP;
    pContext->bit_rate = bPcm ? 0 : kAacBitRate;
    pContext->time_base = AVRational{1, pContext->sample_rate};
    av_channel_layout_default(&pContext->ch_layout, 1);
    if (pExport->pFormat->oformat->flags & AVFMT_GLOBALHEADER)
        pContext->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    pExport->transcoder.pDecoded = av_frame_alloc();
    pExport->transcoder.pFrame = av_frame_alloc();
    return pExport->transcoder.pDecoded && pExport->transcoder.pFrame &&
           avcodec_open2(pContext, pCodec, nullptr) == 0 &&
           avcodec_parameters_from_context(pStream->codecpar, pContext) >= 0;
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
    pPar->frame_size = static_cast<int>(pExport->nFrameTicks);
    if (pCodec->nForm == FORM_AAC &&
        (!AacConfigRead(pExport->pRecording->codecs.audio, &config) || !SetExtraData(pPar, config.bytes)))
        return 0;
    int nChannels = config.nChannels == 7 ? 8 : static_cast<int>(config.nChannels);
    av_channel_layout_default(&pPar->ch_layout, nChannels > 0 ? nChannels : 1);
    return 1;
}

static int AddAudio(Export *pExport)
{
    const SdpCodec &audio = pExport->pRecording->codecs.audio;
    const Codec *pCodec = AudioOf(pExport);
    AVStream *pStream = avformat_new_stream(pExport->pFormat, nullptr);
    if (!pStream)
        return 0;
    pExport->pAudio = pStream;
    pExport->clock.nRate = pCodec->nForm == FORM_AAC ? static_cast<int>(audio.nRate) : pCodec->nSampleRate;
    pExport->nFrameTicks = pCodec->nForm == FORM_AAC   ? AacUnitTicks(audio.format, audio.nRate)
                           : pCodec->nForm == FORM_AMR ? pCodec->nSampleRate / 1000 * kSpeechFrameMs
                                                       : 0;
    pExport->transcoder.nSilence =
        kSilenceFrom + static_cast<int64_t>(pExport->pRecording->pReader->nFileBytes);
    pStream->time_base = AVRational{1, static_cast<int>(pExport->clock.nRate)};
    pExport->bTranscode =
        avformat_query_codec(pExport->pFormat->oformat, IdOf(pCodec), FF_COMPLIANCE_NORMAL) != 1;
    return pExport->bTranscode ? OpenDecoder(pExport) && OpenEncoder(pExport, pStream)
                               : CopyAudio(pExport, pStream);
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

static int WriteEncoded(Export *pExport)
{
    Transcoder *pCoder = &pExport->transcoder;
    AVPacket *pPacket = pExport->pPacket;
    int nResult = avcodec_receive_packet(pCoder->pEncoder, pPacket);
    for (; nResult == 0; nResult = avcodec_receive_packet(pCoder->pEncoder, pPacket)) {
        pPacket->stream_index = pExport->pAudio->index;
        av_packet_rescale_ts(pPacket, pCoder->pEncoder->time_base, pExport->pAudio->time_base);
        if (av_interleaved_write_frame(pExport->pFormat, pPacket) < 0)
            return 0;
    }
    return nResult == AVERROR(EAGAIN) || nResult == AVERROR_EOF;
}

static void FillFrame(AVFrame *pFrame, const float *pSamples, size_t nSamples)
{
    auto *pPcm = reinterpret_cast<int16_t *>(pFrame->data[0]);
    if (pFrame->format == AV_SAMPLE_FMT_FLTP)
        memcpy(pFrame->data[0], pSamples, nSamples * sizeof(float));
    else
        for (size_t i = 0; i < nSamples; i++)
            pPcm[i] =
                static_cast<int16_t>(std::lrint(std::clamp(pSamples[i] * 32768.0F, -32768.0F, 32767.0F)));
}

static size_t FrameOf(const Transcoder *pCoder)
{
    return static_cast<size_t>(pCoder->pEncoder->frame_size > 0 ? pCoder->pEncoder->frame_size : kPcmFrame);
}

// Hands full frames to the encoder, at the end (bAll) also what is left.
static int Encode(Export *pExport, int bAll)
{
    Transcoder *pCoder = &pExport->transcoder;
    size_t nFrame = FrameOf(pCoder);
    while (pCoder->waiting.size() >= nFrame || (bAll && !pCoder->waiting.empty())) {
        size_t nTake = std::min(nFrame, pCoder->waiting.size());
        AVFrame *pFrame = pCoder->pFrame;
        av_frame_unref(pFrame);
        pFrame->nb_samples = static_cast<int>(nTake);
        pFrame->format = pCoder->pEncoder->sample_fmt;
        pFrame->sample_rate = pCoder->pEncoder->sample_rate;
        av_channel_layout_default(&pFrame->ch_layout, 1);
        if (av_frame_get_buffer(pFrame, 0) < 0)
            return 0;
        FillFrame(pFrame, pCoder->waiting.data(), nTake);
        pFrame->pts = pCoder->nEnd - static_cast<int64_t>(pCoder->waiting.size());
        pCoder->waiting.erase(pCoder->waiting.begin(), pCoder->waiting.begin() + static_cast<long>(nTake));
        if (avcodec_send_frame(pCoder->pEncoder, pFrame) < 0 || !WriteEncoded(pExport))
            return 0;
    }
    return 1;
}

static void TakeDecoded(Transcoder *pCoder)
{
    const AVFrame *pFrame = pCoder->pDecoded;
    for (int i = 0; i < pFrame->nb_samples; i++) {
        float fValue = 0;
        if (pFrame->format == AV_SAMPLE_FMT_S16)
            fValue = static_cast<float>(reinterpret_cast<const int16_t *>(pFrame->data[0])[i]) / 32768.0F;
        else if (pFrame->format == AV_SAMPLE_FMT_FLT || pFrame->format == AV_SAMPLE_FMT_FLTP)
            fValue = reinterpret_cast<const float *>(pFrame->data[0])[i];
        pCoder->waiting.push_back(fValue);
    }
    pCoder->nEnd += pFrame->nb_samples;
}

// Appends silence, or takes samples off the end, until it lies at nEnd, without more than a frame waiting.
static int MoveEnd(Export *pExport, int64_t nEnd)
{
    Transcoder *pCoder = &pExport->transcoder;
    for (; pCoder->nEnd > nEnd && !pCoder->waiting.empty(); pCoder->nEnd--)
        pCoder->waiting.pop_back();
    while (pCoder->nEnd < nEnd) {
        int64_t nPart = std::min<int64_t>(nEnd - pCoder->nEnd, static_cast<int64_t>(FrameOf(pCoder)));
        pCoder->waiting.insert(pCoder->waiting.end(), static_cast<size_t>(nPart), 0.0F);
        pCoder->nEnd += nPart;
        if (!Encode(pExport, 0))
            return 0;
    }
    return 1;
}

// Goes on at nAt, where a packet's sound begins. What is missing there becomes silence, which keeps players
// in step that look at no time stamps; but no more of it than the recording is long.
static int GoOnAt(Export *pExport, int64_t nAt)
{
    Transcoder *pCoder = &pExport->transcoder;
    int64_t nRate = pCoder->pEncoder->sample_rate;
    auto nFrame = static_cast<int64_t>(FrameOf(pCoder));
    if (pCoder->nEnd < 0)
        pCoder->nEnd = nAt;
    int64_t nMissing = nAt - pCoder->nEnd;
    if (nMissing <= nFrame)
        return nMissing <= 0 || MoveEnd(pExport, nAt);
    if (nMissing <= kSilenceSeconds * nRate && nMissing <= pCoder->nSilence) {
        pCoder->nSilence -= nMissing;
        return MoveEnd(pExport, nAt);
    }
    auto nWaiting = static_cast<int64_t>(pCoder->waiting.size());
    if (!MoveEnd(pExport, pCoder->nEnd + (nFrame - nWaiting % nFrame) % nFrame))
        return 0;
    pCoder->nEnd = nAt;
    return 1;
}

// A packet's sound, to lie at nAt and to end nLonger samples later than it does by itself.
static int Transcode(Export *pExport, const uint8_t *pData, size_t nBytes, int64_t nAt, int64_t nLonger)
{
    Transcoder *pCoder = &pExport->transcoder;
    AVPacket *pPacket = pExport->pPacket;
    if (!GoOnAt(pExport, nAt) || av_new_packet(pPacket, static_cast<int>(nBytes)) < 0)
        return 0;
    memcpy(pPacket->data, pData, nBytes);
    int64_t nBefore = pCoder->nEnd;
    int bSent = avcodec_send_packet(pCoder->pDecoder, pPacket) == 0;
    av_packet_unref(pPacket);
    while (bSent && avcodec_receive_frame(pCoder->pDecoder, pCoder->pDecoded) == 0)
        TakeDecoded(pCoder);
    if (pCoder->nEnd == nBefore)
        return 1;  // speech that cannot be decoded is left out
    for (; nLonger > 0 && !pCoder->waiting.empty(); nLonger--, pCoder->nEnd++)
        pCoder->waiting.push_back(pCoder->waiting.back());
    return MoveEnd(pExport, pCoder->nEnd + nLonger) && Encode(pExport, 0);
}

// The next piece of a block of audio: its bytes and samples. Returns 1, or 0 at the end or when it is broken.
static int NextPiece(const Export *pExport, ByteReader *pIn, ByteReader *pPiece, int64_t *pnSamples)
{
    const Codec *pCodec = AudioOf(pExport);
    *pnSamples = pExport->nFrameTicks;
    if (pIn->nLeft == 0)
        return 0;
    if (pCodec->nForm == FORM_AAC) {
        uint32_t nUnit = 0;
        const uint8_t *pUnit = NalNext(pIn, &nUnit);
        *pPiece = ByteReader{pUnit, nUnit};
        return pUnit != nullptr;
    }
    size_t nPart = std::min<size_t>(kG711PacketBytes, pIn->nLeft);
    if (pCodec->nForm == FORM_AMR)
        nPart = AmrFrameBytes(CodecIsWideband(pCodec), pIn->p[0] >> 3);
    else
        *pnSamples = static_cast<int64_t>(nPart);
    const uint8_t *pData = nPart > 0 ? ReadBytes(pIn, nPart) : nullptr;
    *pPiece = ByteReader{pData, nPart};
    return pData != nullptr;
}

static int WritePiece(Export *pExport, const ByteReader &piece, int64_t nSamples)
{
    int64_t nAt = 0;
    int64_t nLonger = 0;
    if (!SoundClockPiece(&pExport->clock, nSamples, &nAt, &nLonger))
        return 1;
    if (pExport->bTranscode)
        return Transcode(pExport, piece.p, piece.nLeft, nAt, nLonger);
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
    for (ByteReader in{sample.pData, sample.nBytes}; NextPiece(pExport, &in, &piece, &nSamples);)
        nAll += nSamples;
    SoundClockBlock(&pExport->clock, nTimeMs, nAll);
    for (ByteReader in{sample.pData, sample.nBytes}; NextPiece(pExport, &in, &piece, &nSamples);)
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
    if (!pExport->bTranscode || !pExport->transcoder.pEncoder)
        return 1;
    return (Encode(pExport, 1) && avcodec_send_frame(pExport->transcoder.pEncoder, nullptr) == 0 &&
            WriteEncoded(pExport))
               ? 1
               : Refuse(pExport, "the sound cannot be encoded");
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
    avcodec_free_context(&work.transcoder.pDecoder);
    avcodec_free_context(&work.transcoder.pEncoder);
    av_frame_free(&work.transcoder.pDecoded);
    av_frame_free(&work.transcoder.pFrame);
    av_packet_free(&work.pPacket);
    avformat_free_context(work.pFormat);
    return bGood;
}

}  // namespace orx
