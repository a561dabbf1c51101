#include "orxweb/clipconfig.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

#include "orxweb/clipbytes.h"
#include "record/picturesize.h"

namespace orx {

constexpr uint32_t kVideoObjectJpeg = 0x6C;  // object type indications of MPEG-4 systems
constexpr uint32_t kAudioObjectAac = 0x40;
constexpr size_t kGeneralProfileBytes = 12;  // of H.265: profile, compatibility, constraints, level

namespace {

struct Unit {
    NalKind nKind = NAL_IS_OTHER;
    std::string bytes;
};

// What a sequence parameter set says besides its size.
struct SequenceFacts {
    uint32_t nChroma = 1;
    uint32_t nLumaBits = 8;
    uint32_t nChromaBits = 8;
    uint32_t nSubLayers = 1;
    uint32_t bNested = 1;
    std::string profile;  // H.264: 3 bytes, H.265: kGeneralProfileBytes
};

struct Bits {
    std::string bytes;
    size_t nAt = 0;
    int bFailed = 0;
};

}  // namespace

static uint32_t Take(Bits *p, uint32_t n)
{
    uint32_t nValue = 0;
    for (; n > 0; n--, p->nAt++) {
        p->bFailed |= p->nAt / 8 >= p->bytes.size();
        uint32_t nByte = p->bFailed ? 0U : static_cast<uint8_t>(p->bytes[p->nAt / 8]);
        nValue = nValue << 1 | (nByte >> (7 - p->nAt % 8) & 1);
    }
    return nValue;
}

// Exponential Golomb code.
static uint32_t TakeUe(Bits *p)
{
    uint32_t nZeros = 0;
    while (!p->bFailed && nZeros < 32 && Take(p, 1) == 0)
        nZeros++;
    return p->bFailed || nZeros > 31 ? 0 : (1U << nZeros) - 1 + Take(p, nZeros);
}

// Without the bytes that keep start codes out.
static std::string Unescape(const std::string &unit)
{
    std::string out;
    int nZeros = 0;
    for (char ch : unit) {
        if (nZeros >= 2 && ch == 3) {
            nZeros = 0;
            continue;
        }
        nZeros = ch == 0 ? nZeros + 1 : 0;
        out += ch;
    }
    return out;
}

static std::vector<Unit> UnitsOf(const ClipVideo *pVideo)
{
    std::vector<Unit> units;
    for (int i = 0; i < kNalSetKinds; i++) {
        const auto &kind = pVideo->sets.kinds[i];
        ByteReader in{kind.pUnits, kind.nBytes};
        uint32_t nUnit = 0;
        while (const uint8_t *pUnit = NalNext(&in, &nUnit))
            units.push_back({static_cast<NalKind>(NAL_IS_VIDEO_SET + i),
                             std::string(reinterpret_cast<const char *>(pUnit), nUnit)});
    }
    return units;
}

static std::string SequenceOf(const std::vector<Unit> &units)
{
    for (const Unit &unit : units)
        if (unit.nKind == NAL_IS_SEQUENCE_SET)
            return unit.bytes;
    return "";
}

static int IsH265(const ClipVideo *pVideo)
{
    return pVideo->pCodec->pNal == &g_h265Form;
}

// ITU-T H.264, 7.3.2.1.1.
static SequenceFacts FactsH264(const std::string &sequence)
{
    SequenceFacts facts;
    facts.profile = sequence.substr(0, 4).erase(0, 1);
    facts.profile.resize(3);
    Bits in{Unescape(sequence), 32};
    TakeUe(&in);
    auto nProfile = static_cast<uint8_t>(facts.profile[0]);
    if (nProfile != 66 && nProfile != 77 && nProfile != 88) {
        facts.nChroma = TakeUe(&in);
        if (facts.nChroma == 3)
            Take(&in, 1);
        facts.nLumaBits = 8 + TakeUe(&in);
        facts.nChromaBits = 8 + TakeUe(&in);
    }
    return facts;
}

// ITU-T H.265, 7.3.3: what the sublayers say is stepped over.
static void SkipSubLayers(Bits *pIn, uint32_t nMore)
{
    uint32_t nFlags = nMore > 0 ? Take(pIn, 16) : 0;
    for (uint32_t i = 0; i < nMore && !pIn->bFailed; i++) {
        uint32_t nHas = nFlags >> (14 - 2 * i) & 3;
        pIn->nAt += (nHas & 2 ? 88U : 0U) + (nHas & 1 ? 8U : 0U);
    }
}

// ITU-T H.265, 7.3.2.2.1.
static SequenceFacts FactsH265(const std::string &sequence)
{
    SequenceFacts facts;
    Bits in{Unescape(sequence), 16 + 4};
    uint32_t nMore = Take(&in, 3);
    facts.nSubLayers = nMore + 1;
    facts.bNested = Take(&in, 1);
    facts.profile = in.bytes.size() > 3 ? in.bytes.substr(3, kGeneralProfileBytes) : "";
    facts.profile.resize(kGeneralProfileBytes);
    in.nAt += 8 * kGeneralProfileBytes;
    SkipSubLayers(&in, nMore);
    TakeUe(&in);
    facts.nChroma = TakeUe(&in);
    if (facts.nChroma == 3)
        Take(&in, 1);
    TakeUe(&in);
    TakeUe(&in);
    for (uint32_t i = Take(&in, 1) * 4; i > 0; i--)
        TakeUe(&in);
    facts.nLumaBits = 8 + TakeUe(&in);
    facts.nChromaBits = 8 + TakeUe(&in);
    return facts;
}

void ClipVideoFree(ClipVideo *pVideo)
{
    ParamSetsFree(&pVideo->sets);
}

int ClipVideoMeasure(ClipVideo *pVideo)
{
    std::string sequence = SequenceOf(UnitsOf(pVideo));
    return sequence.size() >= 4 &&
           PictureSizeOfSequence(pVideo->pCodec->pNal, reinterpret_cast<const uint8_t *>(sequence.data()),
                                 static_cast<uint32_t>(sequence.size()), &pVideo->nWidth, &pVideo->nHeight);
}

// Their number, and each behind its length.
static void PutUnits(std::string *pOut, const std::vector<Unit> &units, NalKind nKind, size_t nCountBytes,
                     uint32_t nCountFlags)
{
    uint32_t nUnits = 0;
    for (const Unit &unit : units)
        nUnits += unit.nKind == nKind;
    ClipPut(pOut, nCountBytes, nCountFlags | nUnits);
    for (const Unit &unit : units) {
        if (unit.nKind != nKind)
            continue;
        ClipPut(pOut, 2, unit.bytes.size());
        *pOut += unit.bytes;
    }
}

// ISO 14496-15, 5.3.3.1.
static void PutAvcConfig(std::string *pOut, const std::vector<Unit> &units)
{
    SequenceFacts facts = FactsH264(SequenceOf(units));
    auto nProfile = static_cast<uint8_t>(facts.profile[0]);
    size_t nBox = ClipBoxBegin(pOut, "avcC");
    ClipPut(pOut, 1, 1);
    *pOut += facts.profile;
    ClipPut(pOut, 1, 0xFF);  // lengths have four bytes
    PutUnits(pOut, units, NAL_IS_SEQUENCE_SET, 1, 0xE0);
    PutUnits(pOut, units, NAL_IS_PICTURE_SET, 1, 0);
    if (nProfile == 100 || nProfile == 110 || nProfile == 122 || nProfile == 144) {
        ClipPut(pOut, 1, 0xFC | (facts.nChroma & 3));
        ClipPut(pOut, 1, 0xF8 | ((facts.nLumaBits - 8) & 7));
        ClipPut(pOut, 1, 0xF8 | ((facts.nChromaBits - 8) & 7));
        ClipPut(pOut, 1, 0);
    }
    ClipBoxEnd(pOut, nBox);
}

// ISO 14496-15, 8.3.3.1.
static void PutHevcConfig(std::string *pOut, const std::vector<Unit> &units, int bComplete)
{
    static const struct {
        NalKind nKind;
        uint32_t nType;
    } arrays[] = {{NAL_IS_VIDEO_SET, 32}, {NAL_IS_SEQUENCE_SET, 33}, {NAL_IS_PICTURE_SET, 34}};
    SequenceFacts facts = FactsH265(SequenceOf(units));
    size_t nBox = ClipBoxBegin(pOut, "hvcC");
    ClipPut(pOut, 1, 1);
    *pOut += facts.profile;
    ClipPut(pOut, 2, 0xF000);
    ClipPut(pOut, 1, 0xFC);
    ClipPut(pOut, 1, 0xFC | (facts.nChroma & 3));
    ClipPut(pOut, 1, 0xF8 | ((facts.nLumaBits - 8) & 7));
    ClipPut(pOut, 1, 0xF8 | ((facts.nChromaBits - 8) & 7));
    ClipPut(pOut, 2, 0);
    ClipPut(pOut, 1, facts.nSubLayers << 3 | facts.bNested << 2 | 3);  // lengths have four bytes
    ClipPut(pOut, 1, 3);
    for (const auto &array : arrays) {
        ClipPut(pOut, 1, (bComplete ? 0x80U : 0U) | array.nType);
        PutUnits(pOut, units, array.nKind, 2, 0);
    }
    ClipBoxEnd(pOut, nBox);
}

// A descriptor (ISO 14496-1, 7.2.2) around what follows in content; short ones alone.
static std::string Descriptor(uint32_t nTag, const std::string &content)
{
    std::string out;
    ClipPut(&out, 1, nTag);
    ClipPut(&out, 4, 0x80808000 | static_cast<uint32_t>(content.size() & 0x7F));
    return out + content;
}

static void PutEsds(std::string *pOut, uint32_t nObject, uint32_t nStream, const std::string &config)
{
    std::string decoder, stream;
    ClipPut(&decoder, 1, nObject);
    ClipPut(&decoder, 4, (nStream << 2 | 1) << 24);
    ClipPut(&decoder, 8, 0);  // rates are not told
    if (!config.empty())
        decoder += Descriptor(5, config);
    ClipPut(&stream, 3, 0);
    stream += Descriptor(4, decoder) + Descriptor(6, "\x02");
    size_t nBox = ClipFullBoxBegin(pOut, "esds", 0, 0);
    *pOut += Descriptor(3, stream);
    ClipBoxEnd(pOut, nBox);
}

static const char *EntryType(const ClipVideo *pVideo)
{
    if (pVideo->pCodec->nForm == FORM_JPEG)
        return "mp4v";
    if (IsH265(pVideo))
        return pVideo->bSetsInside ? "hev1" : "hvc1";
    return pVideo->bSetsInside ? "avc3" : "avc1";
}

std::string ClipVideoEntry(const ClipVideo *pVideo)
{
    std::string out;
    std::vector<Unit> units = UnitsOf(pVideo);
    size_t nBox = ClipBoxBegin(&out, EntryType(pVideo));
    ClipPut(&out, 8, 1);  // reserved, and the data reference
    out.append(16, '\0');
    ClipPut(&out, 2, pVideo->nWidth);
    ClipPut(&out, 2, pVideo->nHeight);
    ClipPut(&out, 8, 0x0048000000480000);  // 72 dpi
    ClipPut(&out, 4, 0);
    ClipPut(&out, 2, 1);
    out.append(32, '\0');
    ClipPut(&out, 4, 0x0018FFFF);
    if (pVideo->pCodec->nForm == FORM_JPEG)
        PutEsds(&out, kVideoObjectJpeg, 4, "");
    else if (IsH265(pVideo))
        PutHevcConfig(&out, units, !pVideo->bSetsInside);
    else
        PutAvcConfig(&out, units);
    ClipBoxEnd(&out, nBox);
    return out;
}

std::string ClipAudioEntry(const ClipAudio *pAudio)
{
    std::string out;
    size_t nBox = ClipBoxBegin(&out, "mp4a");
    ClipPut(&out, 8, 1);
    ClipPut(&out, 8, 0);
    ClipPut(&out, 2, pAudio->nChannels);
    ClipPut(&out, 2, 16);
    ClipPut(&out, 4, 0);
    ClipPut(&out, 4, pAudio->nRate <= 0xFFFF ? pAudio->nRate << 16 : 0);
    PutEsds(&out, kAudioObjectAac, 5, pAudio->config);
    ClipBoxEnd(&out, nBox);
    return out;
}

__attribute__((format(printf, 1, 2))) static std::string Format(const char *szFormat, ...)
{
    char szText[80];
    va_list args;
    va_start(args, szFormat);
    vsnprintf(szText, sizeof(szText), szFormat, args);  // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(args);
    return szText;
}

// ISO 14496-15, annex E.3.
static std::string HevcName(const char *szType, const SequenceFacts &facts)
{
    auto byte = [&](size_t i) { return static_cast<unsigned>(static_cast<uint8_t>(facts.profile[i])); };
    uint32_t nCompatible = GetBe(facts.profile.data() + 1, 4), nReversed = 0;
    for (int i = 0; i < 32; i++)
        nReversed |= (nCompatible >> i & 1) << (31 - i);
    const char *const spaces[] = {"", "A", "B", "C"};
    std::string name = Format("%s.%s%u.%X.%c%u", szType, spaces[byte(0) >> 6], byte(0) & 0x1F, nReversed,
                              byte(0) & 0x20 ? 'H' : 'L', byte(11));
    size_t nLast = 10;
    while (nLast >= 5 && byte(nLast) == 0)
        nLast--;
    for (size_t i = 5; i <= nLast; i++)
        name += Format(".%X", byte(i));
    return name;
}

std::string ClipVideoName(const ClipVideo *pVideo)
{
    if (!pVideo->pCodec)
        return "";
    const char *szType = EntryType(pVideo);
    if (pVideo->pCodec->nForm == FORM_JPEG)
        return Format("%s.%X", szType, kVideoObjectJpeg);
    std::string sequence = SequenceOf(UnitsOf(pVideo));
    if (IsH265(pVideo))
        return HevcName(szType, FactsH265(sequence));
    return Format("%s.%06X", szType, GetBe(FactsH264(sequence).profile.data(), 3));
}

std::string ClipAudioName(const ClipAudio *pAudio)
{
    return pAudio->config.empty() ? "" : Format("mp4a.%X.%u", kAudioObjectAac, pAudio->nObjectType);
}

}  // namespace orx
