#include "orxweb/media.h"

#include <atomic>
#include <memory>
#include <mutex>

#include "orxweb/clip.h"
#include "orxweb/httpserver.h"
#include "orxweb/livechannel.h"
#include "orxweb/page.h"
#include "orxweb/serverstate.h"

namespace orx {

constexpr int kMostViewers = 200;
constexpr int kStillWidth = 640;
constexpr size_t kFirstBytes = 64 << 10;
constexpr size_t kClipPiece = 256 << 10;

static std::atomic<int> g_nViewers{0};

static WebAnswer Refusal(int nStatus, const char *szText)
{
    WebAnswer answer = WebPlain(nStatus, "text/plain; charset=utf-8", std::string(szText) + "\n");
    if (nStatus == 503)
        WebHeader(&answer, "Retry-After", "1");
    return answer;
}

static WebAnswer RefusalOf(LiveResult result)
{
    switch (result) {
        case LiveResult::NotFound:
            return Refusal(404, "no such program");
        case LiveResult::Forbidden:
            return Refusal(403, "not with this account");
        case LiveResult::Codec:
            return Refusal(415, "a codec that this form cannot carry");
        case LiveResult::Ok:
        case LiveResult::Later:
        case LiveResult::Ended:
        case LiveResult::Unavailable:
            break;
    }
    return Refusal(503, "not now");
}

// --- live ---

struct LiveBody {
    LiveViewer *pViewer = nullptr;  // owned
    WebGrant grant;
    std::string first;  // what was read before the answer began, and is not sent yet

    LiveBody() { g_nViewers++; }
    LiveBody(const LiveBody &) = delete;
    LiveBody &operator=(const LiveBody &) = delete;
    ~LiveBody()
    {
        LiveLeave(pViewer);
        g_nViewers--;
    }
};

static ssize_t LiveBodyRead(void *pSource, uint64_t, char *pOut, size_t nSize)
{
    auto *pBody = static_cast<LiveBody *>(pSource);
    size_t nBytes = std::min(nSize, pBody->first.size());
    if (nBytes) {
        pBody->first.copy(pOut, nBytes);
        pBody->first.erase(0, nBytes);
        return static_cast<ssize_t>(nBytes);
    }
    switch (LiveRead(pBody->pViewer, pOut, nSize, &nBytes)) {
        case LiveResult::Ok:
            return nBytes ? static_cast<ssize_t>(nBytes) : -1;
        case LiveResult::Later:
            return 0;
        default:
            return -1;
    }
}

static int LiveBodyStillMay(void *pSource)
{
    return GrantHolds(static_cast<LiveBody *>(pSource)->grant);
}

static void LiveBodyFree(void *pSource)
{
    delete static_cast<LiveBody *>(pSource);
}

static const WebSourceProcs g_liveProcs = {LiveBodyRead, LiveBodyStillMay, LiveBodyFree};

static WebAnswer LiveBegin(LiveBody *pBody, AddressKind kind)
{
    WebAnswer answer;
    std::string codecs = LiveCodecs(pBody->pViewer);
    std::string type = kind == AddressKind::Mp4
                           ? "video/mp4" + (codecs.empty() ? "" : "; codecs=\"" + codecs + "\"")
                           : std::string("multipart/x-mixed-replace; boundary=") + kMjpegBoundary;
    WebHeader(&answer, "Content-Type", type);
    WebHeader(&answer, "Cache-Control", "no-store");
    answer.pProcs = &g_liveProcs;
    answer.pSource = pBody;
    answer.nSize = kEndless;
    return answer;
}

static LiveBody *LiveOpen(const WebRequest *pRequest, const WebVisitor *pVisitor,
                          const ProgramAddress &address)
{
    auto *pBody = new LiveBody;
    pBody->grant = {pVisitor->account, pVisitor->session, address.program};
    LiveUser user{pVisitor->account.name, pVisitor->account.password};
    pBody->pViewer = LiveJoin(address.program.c_str(), &user,
                              address.kind == AddressKind::Mp4 ? LiveForm::Mp4 : LiveForm::Mjpeg, WebMoreProc,
                              WebMoreContext(pRequest->nId));
    if (pBody->pViewer)
        return pBody;
    delete pBody;
    return nullptr;
}

WebAnswer MediaLive(const WebRequest *pRequest, const WebVisitor *pVisitor, const ProgramAddress &address)
{
    if (!pRequest->bAgain && g_nViewers >= kMostViewers)
        return Refusal(503, "too many viewers");
    auto *pBody =
        pRequest->bAgain ? static_cast<LiveBody *>(pRequest->pKept) : LiveOpen(pRequest, pVisitor, address);
    if (!pBody)
        return Refusal(503, "not now");
    size_t nBytes = 0;
    pBody->first.resize(kFirstBytes);
    LiveResult result = LiveRead(pBody->pViewer, pBody->first.data(), kFirstBytes, &nBytes);
    pBody->first.resize(nBytes);
    if (result == LiveResult::Ok)
        return LiveBegin(pBody, address.kind);
    WebAnswer answer;
    if (result == LiveResult::Later && !pRequest->bTimeout) {
        answer.bLater = 1;
        answer.pKept = pBody;
        return answer;
    }
    delete pBody;
    return RefusalOf(result);
}

void MediaForget(void *pKept)
{
    delete static_cast<LiveBody *>(pKept);
}

WebAnswer MediaStill(const WebRequest *pRequest, const WebVisitor *pVisitor, const ProgramAddress &address)
{
    WebAnswer answer;
    LiveUser user{pVisitor->account.name, pVisitor->account.password};
    std::string picture;
    LiveResult result = LiveStill(address.program.c_str(), &user, kStillWidth, &picture, WebMoreProc,
                                  WebMoreContext(pRequest->nId));
    answer.bLater = result == LiveResult::Later && !pRequest->bTimeout;
    if (answer.bLater)
        return answer;
    return result == LiveResult::Ok ? WebPlain(200, "image/jpeg", std::move(picture)) : RefusalOf(result);
}

// --- recordings ---

// Bytes of a clip are made by a worker, a piece ahead of what is sent.
struct ClipBody {
    Clip *pClip = nullptr;  // owned; used by one worker at a time
    uint64_t nBase = 0;     // of the range
    uint64_t nLength = 0;
    uint64_t nExchange = 0;
    WebGrant grant;
    std::mutex mutex;
    // Guarded by it:
    std::string piece;
    uint64_t nPieceAt = 0;  // its place in the body
    int bWorking = 0, bBroken = 0;

    ClipBody() = default;
    ClipBody(const ClipBody &) = delete;
    ClipBody &operator=(const ClipBody &) = delete;
    ~ClipBody() { ClipClose(pClip); }
};
using ClipBodyPtr = std::shared_ptr<ClipBody>;

// Makes the piece at nAt. By the one who has set bWorking.
static void ClipFill(ClipBody *pBody, uint64_t nAt)
{
    std::string piece(std::min<uint64_t>(kClipPiece, pBody->nLength - nAt), '\0');
    ssize_t n = ClipRead(pBody->pClip, pBody->nBase + nAt, piece.data(), piece.size());
    std::lock_guard lock(pBody->mutex);
    pBody->bWorking = 0;
    pBody->bBroken = n <= 0;
    piece.resize(n > 0 ? static_cast<size_t>(n) : 0);
    pBody->piece.swap(piece);
    pBody->nPieceAt = nAt;
}

struct ClipWork {
    ClipBodyPtr pBody;
    uint64_t nAt;
};

static void ClipWorkDo(void *pContext)
{
    std::unique_ptr<ClipWork> pWork(static_cast<ClipWork *>(pContext));
    ClipFill(pWork->pBody.get(), pWork->nAt);
    WebMore(pWork->pBody->nExchange);
}

static ssize_t ClipBodyRead(void *pSource, uint64_t nOffset, char *pOut, size_t nSize)
{
    const ClipBodyPtr &pBody = *static_cast<ClipBodyPtr *>(pSource);
    std::lock_guard lock(pBody->mutex);
    if (pBody->bWorking)
        return 0;
    if (pBody->bBroken)
        return -2;
    if (nOffset >= pBody->nLength)
        return -1;
    if (nOffset >= pBody->nPieceAt && nOffset - pBody->nPieceAt < pBody->piece.size()) {
        size_t nFrom = nOffset - pBody->nPieceAt;
        size_t nBytes = std::min(nSize, pBody->piece.size() - nFrom);
        pBody->piece.copy(pOut, nBytes, nFrom);
        return static_cast<ssize_t>(nBytes);
    }
    auto *pWork = new ClipWork{pBody, nOffset};
    pBody->bWorking = 1;
    if (WebWork(ClipWorkDo, pWork))
        return 0;
    delete pWork;
    return -2;
}

static int ClipBodyStillMay(void *pSource)
{
    return GrantHolds((*static_cast<ClipBodyPtr *>(pSource))->grant);
}

static void ClipBodyFree(void *pSource)
{
    delete static_cast<ClipBodyPtr *>(pSource);
}

static const WebSourceProcs g_clipProcs = {ClipBodyRead, ClipBodyStillMay, ClipBodyFree};

static std::string FileNameOf(const std::string &program, const std::string &file)
{
    return program + "-" + file.substr(0, file.rfind('.')) + ".mp4";
}

// What of a clip is asked for; sets status and Content-Range.
static HttpRange ClipRange(const WebRequest *pRequest, uint64_t nSize, const std::string &tag,
                           WebAnswer *pAnswer)
{
    HttpRange range{0, nSize ? nSize - 1 : 0};
    // of a part only GET is known (RFC 9110, 14.2)
    if (pRequest->range.empty() || pRequest->method != "GET" ||
        (!pRequest->ifRange.empty() && pRequest->ifRange != tag))
        return range;
    const std::string size = std::to_string(nSize);
    switch (RangeRead(pRequest->range, nSize, &range)) {
        case RangeResult::Whole:
            break;
        case RangeResult::Part:
            pAnswer->nStatus = 206;
            WebHeader(
                pAnswer, "Content-Range",
                "bytes " + std::to_string(range.nFirst) + "-" + std::to_string(range.nLast) + "/" + size);
            break;
        case RangeResult::Outside:
            pAnswer->nStatus = 416;
            WebHeader(pAnswer, "Content-Range", "bytes */" + size);
            break;
    }
    return range;
}

static void ClipHeaders(const WebRequest *pRequest, const ClipBody *pBody, const std::string &file,
                        WebAnswer *pAnswer)
{
    std::string wanted, codecs = ClipCodecs(pBody->pClip);
    WebHeader(pAnswer, "Content-Type", "video/mp4" + (codecs.empty() ? "" : "; codecs=\"" + codecs + "\""));
    if (FormValue(pRequest->query, "download", &wanted) > 0 && wanted != "0")
        WebHeader(pAnswer, "Content-Disposition", AttachmentAs(FileNameOf(pBody->grant.program, file)));
}

static WebAnswer ClipAnswer(const WebRequest *pRequest, ClipBodyPtr pBody, const std::string &file)
{
    WebAnswer answer;
    uint64_t nSize = ClipSize(pBody->pClip);
    const std::string tag = "\"" + ClipTag(pBody->pClip) + "\"";
    WebHeader(&answer, "ETag", tag);
    WebHeader(&answer, "Accept-Ranges", "bytes");
    WebHeader(&answer, "Cache-Control", "private, no-cache");
    WebHeader(&answer, "Vary", "Cookie, Authorization");
    if (!pRequest->ifNoneMatch.empty() && TagListed(pRequest->ifNoneMatch, tag)) {
        answer.nStatus = 304;
        return answer;
    }
    HttpRange range = ClipRange(pRequest, nSize, tag, &answer);
    if (answer.nStatus == 416)
        return answer;
    ClipHeaders(pRequest, pBody.get(), file, &answer);
    pBody->nBase = range.nFirst;
    pBody->nLength = nSize ? range.nLast - range.nFirst + 1 : 0;
    if (pBody->nLength && pRequest->method != "HEAD")
        ClipFill(pBody.get(), 0);
    answer.nSize = pBody->nLength;
    answer.pProcs = &g_clipProcs;
    answer.pSource = new ClipBodyPtr(std::move(pBody));
    return answer;
}

// The bytes that the visitor has begun with, of a recording that grows: the entity tag of If-Range, or the
// one that the address has.
static std::string WantedTag(const WebRequest *pRequest)
{
    std::string tag = pRequest->ifRange;
    if (tag.empty())
        FormValue(pRequest->query, "tag", &tag);
    std::erase(tag, '"');
    return tag;
}

WebAnswer MediaRecording(const WebRequest *pRequest, const WebVisitor *pVisitor, const std::string &program,
                         const std::string &file)
{
    auto pBody = std::make_shared<ClipBody>();
    pBody->nExchange = pRequest->nId;
    pBody->grant = {pVisitor->account, pVisitor->session, program};
    switch (ClipOpen(program.c_str(), file.c_str(), &pBody->pClip, WantedTag(pRequest).c_str())) {
        case ClipState::Ready:
            return ClipAnswer(pRequest, std::move(pBody), file);
        case ClipState::Making:
            return Refusal(503, "being prepared");
        case ClipState::None:
            return Refusal(404, "no such recording");
        case ClipState::Broken:
            break;
    }
    return Refusal(422, "this recording cannot be turned into an .mp4");
}

}  // namespace orx
