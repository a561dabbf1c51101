#include "record/codec.h"

#include <cstring>

#include <gtest/gtest.h>

namespace orx {

// The kind that a section of this codec has.
static uint32_t KindOf(const Codec &codec)
{
    return codec.nMediaType & MEDIA_VIDEO_MASK ? MEDIA_VIDEO_OTHER : MEDIA_AUDIO_OTHER;
}

TEST(Codec, EveryNameLeadsToItsRow)
{
    for (const Codec &codec : Codecs())
        for (const CodecAlias &alias : codec.aliases)
            for (CodecUser nUser : {CODEC_PROGRAM, CODEC_RECORDING, CODEC_WIDE_PROGRAM, CODEC_WIDE_RECORDING}) {
                bool bKnown = (alias.nUsers & nUser & CODEC_ALL) && (alias.nUsers & CODEC_WIDE) <= (nUser & CODEC_WIDE);
                EXPECT_TRUE(!alias.szName ||
                            CodecByName(KindOf(codec), alias.szName, nUser) == (bKnown ? &codec : nullptr))
                    << codec.szName;
            }
    EXPECT_EQ(nullptr, CodecByName(MEDIA_AUDIO_OTHER, "H264", CODEC_PROGRAM)) << "not of this kind";
    EXPECT_EQ(nullptr, CodecByStaticType(0));
}

// What a row must have so that every part of the system can do its work with it.
TEST(Codec, EveryRowIsComplete)
{
    for (const Codec &codec : Codecs()) {
        SCOPED_TRACE(codec.szName);
        int bVideo = KindOf(codec) == MEDIA_VIDEO_OTHER;
        EXPECT_EQ(bVideo, codec.pfnIsKey != nullptr) << "players of video start with a key frame";
        EXPECT_LT(strlen(codec.szName), 16U) << "records of tracks hold 15 characters";
        int bRecorded = CodecByName(KindOf(codec), codec.szName, CODEC_WIDE_RECORDING) == &codec;
        EXPECT_EQ(bRecorded, codec.pfnDepacket != nullptr);
        EXPECT_EQ(bRecorded, codec.nForm != FORM_NONE);
        EXPECT_EQ(bRecorded && !bVideo && codec.nForm != FORM_AAC, codec.nSampleRate != 0);
        EXPECT_EQ(codec.nForm == FORM_UNITS, codec.pNal != nullptr);
        EXPECT_EQ(bRecorded, codec.exported.szEnding && codec.exported.szHolds && codec.exported.szAvName);
        EXPECT_TRUE(!bRecorded || codec.pfnPack) << "what is recorded can be played";
    }
}

}  // namespace orx
