#include "source.h"

#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>

#include "base/base64.h"

namespace orx {

static int EndsWith(const std::string &text, const std::string &end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

static int IsDirectory(const std::string &path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The clip beside the program, in its folder or in one above it: so the build tree and an installation both
// find it.
static std::string DefaultClip()
{
    char path[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path);
    std::string folder(path, n > 0 ? static_cast<size_t>(n) : 0);
    while (!folder.empty()) {
        folder.erase(folder.find_last_of('/'));
        for (const char *szClip : {"/tests/data/clip.h264", "/share/orx/clip.h264"})
            if (access((folder + szClip).c_str(), R_OK) == 0)
                return folder + szClip;
    }
    return "";
}

static int LoadJpegs(const std::string &pattern, PushSource *pOut)
{
    glob_t found{};
    if (glob(pattern.c_str(), 0, nullptr, &found) != 0) {
        fprintf(stderr, "orxpush: no picture fits %s\n", pattern.c_str());
        globfree(&found);
        return 0;
    }
    pOut->jpegFiles.resize(found.gl_pathc);
    pOut->jpegs.resize(found.gl_pathc);
    int bGood = 1;
    for (size_t i = 0; i < found.gl_pathc && bGood; i++) {
        const char *szProblem = "it cannot be read";
        if (ReadWholeFile(found.gl_pathv[i], &pOut->jpegFiles[i]))
            szProblem = JpegParse(pOut->jpegFiles[i], &pOut->jpegs[i]);
        if (szProblem)
            fprintf(stderr, "orxpush: %s: %s\n", found.gl_pathv[i], szProblem);
        bGood = !szProblem;
    }
    globfree(&found);
    pOut->nWidth = bGood ? pOut->jpegs[0].nWidth : 0;
    pOut->nHeight = bGood ? pOut->jpegs[0].nHeight : 0;
    return bGood;
}

static int LoadH264(const std::string &path, PushSource *pOut)
{
    if (!H264Load(&pOut->h264, path.c_str())) {
        fprintf(stderr, "orxpush: %s cannot be read, or is no H.264 byte stream with parameter sets\n",
                path.empty() ? "the clip tests/data/clip.h264" : path.c_str());
        return 0;
    }
    pOut->nWidth = pOut->h264.nWidth;
    pOut->nHeight = pOut->h264.nHeight;
    return 1;
}

int PushLoadSource(const PushOptions *pOptions, PushSource *pOut)
{
    std::string file = pOptions->file.empty() ? DefaultClip() : pOptions->file;
    if (IsDirectory(file))
        file += "/*.jp*g";
    pOut->bJpeg = EndsWith(file, ".jpg") || EndsWith(file, ".jpeg") || EndsWith(file, ".jp*g");
    if (!(pOut->bJpeg ? LoadJpegs(file, pOut) : LoadH264(file, pOut)))
        return 0;
    if (pOut->bJpeg && pOptions->nKbits)
        fputs("orxpush: --rate has no effect on JPEG\n", stderr);
    if (pOptions->audio.empty() || pOptions->audio == "tone")
        return 1;
    if (!ReadWholeFile(pOptions->audio.c_str(), &pOut->audio) || pOut->audio.empty()) {
        fprintf(stderr, "orxpush: %s cannot be read, or is empty\n", pOptions->audio.c_str());
        return 0;
    }
    return 1;
}

size_t PushPictureCount(const PushSource *pSource)
{
    return pSource->bJpeg ? pSource->jpegs.size() : pSource->h264.pictures.size();
}

int PushPictureIsKey(const PushSource *pSource, size_t nPicture)
{
    return pSource->bJpeg || pSource->h264.pictures[nPicture].bKey;
}

static std::string Base64Of(std::string_view bytes)
{
    std::string out(Base64EncodedSize(bytes.size()), '\0');
    out.resize(Base64EncodeCount(out.data(), bytes.data(), bytes.size()) - 1);
    return out;
}

static std::string VideoSection(const PushOptions *pOptions, const PushSource *pSource)
{
    std::string type = std::to_string(pSource->bJpeg ? kJpegPayload : kVideoPayload);
    std::string out = "m=video 0 RTP/AVP " + type + "\r\na=rtpmap:" + type +
                      (pSource->bJpeg ? " JPEG" : " H264") + "/90000\r\n";
    if (!pSource->bJpeg) {
        char profile[8];
        const std::string_view &sps = pSource->h264.sps;
        snprintf(profile, sizeof profile, "%02X%02X%02X", sps[1] & 0xFF, sps[2] & 0xFF, sps[3] & 0xFF);
        out += "a=fmtp:" + type + " packetization-mode=1;profile-level-id=" + profile +
               ";sprop-parameter-sets=" + Base64Of(sps) + "," + Base64Of(pSource->h264.pps) + "\r\n";
    }
    char rate[32];
    snprintf(rate, sizeof rate, "a=framerate:%g\r\n", pOptions->dFps);
    return out + "a=framesize:" + type + " " + std::to_string(pSource->nWidth) + "-" +
           std::to_string(pSource->nHeight) + "\r\n" + rate + "a=control:trackID=0\r\n";
}

std::string PushDescription(const PushOptions *pOptions, const PushSource *pSource, const std::string &name)
{
    int nTrack = 1;
    std::string out = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=" + (name.empty() ? "live" : name) +
                      "\r\nc=IN IP4 0.0.0.0\r\nt=0 0\r\na=control:*\r\n";
    out += VideoSection(pOptions, pSource);
    if (!pOptions->audio.empty())
        out +=
            "m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000/1\r\na=control:trackID=" + std::to_string(nTrack++) +
            "\r\n";
    if (pOptions->nDataMs)
        out += "m=data 0 RTP/AVP 98\r\na=rtpmap:98 X-ORX-EVENTS/1000\r\na=control:trackID=" +
               std::to_string(nTrack) + "\r\n";
    for (const std::string &line : pOptions->sdpLines)
        out += line + "\r\n";
    return out;
}

}  // namespace orx
