#include "orxweb/livestill.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cstring>
#include <memory>

namespace orx {

constexpr int kMostSide = 8192;
constexpr int kQuality = 5;  // 2 is the best, 31 the worst

namespace {
struct CodecFree {
    void operator()(AVCodecContext *p) const { avcodec_free_context(&p); }
    void operator()(AVFrame *p) const { av_frame_free(&p); }
    void operator()(AVPacket *p) const { av_packet_free(&p); }
    void operator()(SwsContext *p) const { sws_freeContext(p); }
};
using Context = std::unique_ptr<AVCodecContext, CodecFree>;
using Frame = std::unique_ptr<AVFrame, CodecFree>;
using Packet = std::unique_ptr<AVPacket, CodecFree>;
}  // namespace

static Frame Decode(const Codec *pCodec, const std::string &picture)
{
    av_log_set_level(AV_LOG_QUIET);  // a camera's broken picture is no news
    const AVCodecDescriptor *pKnown =
        pCodec->exported.szAvName ? avcodec_descriptor_get_by_name(pCodec->exported.szAvName) : nullptr;
    const AVCodec *pAv = pKnown ? avcodec_find_decoder(pKnown->id) : nullptr;
    Context decoder{pAv ? avcodec_alloc_context3(pAv) : nullptr};
    Packet packet{av_packet_alloc()};
    Frame frame{av_frame_alloc()};
    if (!decoder || !packet || !frame || av_new_packet(packet.get(), static_cast<int>(picture.size())) != 0)
        return nullptr;
    memcpy(packet->data, picture.data(), picture.size());
    decoder->thread_count = 1;
    decoder->flags2 |= AV_CODEC_FLAG2_SHOW_ALL;  // also one that others would be shown before
    if (avcodec_open2(decoder.get(), pAv, nullptr) != 0 ||
        avcodec_send_packet(decoder.get(), packet.get()) != 0)
        return nullptr;
    avcodec_send_packet(decoder.get(), nullptr);  // nothing follows: what it holds back comes out
    if (avcodec_receive_frame(decoder.get(), frame.get()) != 0 || frame->width < 1 || frame->height < 1 ||
        frame->width > kMostSide || frame->height > kMostSide)
        return nullptr;
    return frame;
}

static Frame Shrink(const AVFrame *pFrom, int nMostWidth)
{
    Frame frame{av_frame_alloc()};
    if (!frame)
        return nullptr;
    frame->width = std::min(pFrom->width, nMostWidth) & ~1;
    frame->height = std::max(2, static_cast<int>(int64_t{pFrom->height} * frame->width / pFrom->width) & ~1);
    frame->format = AV_PIX_FMT_YUVJ420P;
    if (frame->width < 2 || av_frame_get_buffer(frame.get(), 0) != 0)
        return nullptr;
    std::unique_ptr<SwsContext, CodecFree> scale{
        sws_getContext(pFrom->width, pFrom->height, static_cast<AVPixelFormat>(pFrom->format), frame->width,
                       frame->height, AV_PIX_FMT_YUVJ420P, SWS_BILINEAR, nullptr, nullptr, nullptr)};
    if (!scale || sws_scale(scale.get(), pFrom->data, pFrom->linesize, 0, pFrom->height, frame->data,
                            frame->linesize) != frame->height)
        return nullptr;
    return frame;
}

static int Encode(AVFrame *pFrame, std::string *pJpeg)
{
    const AVCodec *pAv = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    Context encoder{pAv ? avcodec_alloc_context3(pAv) : nullptr};
    Packet packet{av_packet_alloc()};
    if (!encoder || !packet)
        return 0;
    encoder->width = pFrame->width;
    encoder->height = pFrame->height;
    encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
    encoder->time_base = {1, 25};
    encoder->thread_count = 1;
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = kQuality * FF_QP2LAMBDA;
    pFrame->quality = encoder->global_quality;
    if (avcodec_open2(encoder.get(), pAv, nullptr) != 0 || avcodec_send_frame(encoder.get(), pFrame) != 0)
        return 0;
    avcodec_send_frame(encoder.get(), nullptr);
    if (avcodec_receive_packet(encoder.get(), packet.get()) != 0)
        return 0;
    pJpeg->assign(reinterpret_cast<const char *>(packet->data), static_cast<size_t>(packet->size));
    return 1;
}

int LiveStillMake(const Codec *pCodec, const std::string &picture, int nMostWidth, std::string *pJpeg)
{
    Frame decoded = Decode(pCodec, picture);
    if (!decoded)
        return 0;
    if (pCodec->nForm == FORM_JPEG && decoded->width <= nMostWidth) {
        *pJpeg = picture;
        return 1;
    }
    Frame small = Shrink(decoded.get(), nMostWidth);
    return small && Encode(small.get(), pJpeg);
}

}  // namespace orx
