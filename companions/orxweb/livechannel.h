// Live pictures for browsers. All viewers of a program share one RTSP session with the server and one muxer;
// each takes the muxer's fragments at its own pace, and one that is slow is set forward to the newest group.
// Media runs on a loop and a thread of its own; viewers are used by any thread, one viewer by one at a time.
#pragma once

#include <cstddef>
#include <string>

namespace orx {

struct LiveSettings {
    std::string rtspBase;   // "rtsp://127.0.0.1:8554/": a program's path follows
    int nLingerMs = 10000;  // a session without viewers stays so long
};

// Starts the thread. Returns 1 or 0. Once, before anything else here.
int LiveStart(const LiveSettings *pSettings);
void LiveStop();  // ends what is there; viewers read an end

enum class LiveForm { Mp4, Mjpeg };
enum class LiveResult {
    Ok,
    Later,        // nothing for now: pfnMore will be called
    Ended,        // the program, the session or the viewer's time is over
    NotFound,     // no such program (404)
    Forbidden,    // not with these credentials (401, 403)
    Codec,        // nothing in it that the form can carry
    Unavailable,  // the server is away
};

struct LiveUser {
    std::string name, password;  // of the account on whose behalf the server is asked
};

struct LiveViewer;

// Joins a program (its path without the first slash), from its last key frame on. pfnMore is called, from any
// thread, once after each LiveResult::Later, and must not call back here. Returns null without memory.
LiveViewer *LiveJoin(const char *szProgram, const LiveUser *pUser, LiveForm form,
                     void (*pfnMore)(void *pUser), void *pContext);
// Gives back up to nSize bytes of the stream, *pnBytes of them. In the form Mp4: the initialisation segment,
// then fragments; of Mjpeg: parts of a multipart message with the boundary kMjpegBoundary.
LiveResult LiveRead(LiveViewer *pViewer, char *pOut, size_t nSize, size_t *pnBytes);
void LiveLeave(LiveViewer *pViewer);  // ignores null; pfnMore does not come any more
constexpr const char *kMjpegBoundary = "orxpicture";

// The "codecs" parameter of the stream (RFC 6381), such as "avc1.64001f,mp4a.40.2"; empty until the
// initialisation segment is there. Any thread.
std::string LiveCodecs(const LiveViewer *pViewer);

// The latest key frame of a program as a JPEG picture of at most nWidth pixels, made when somebody asks and
// kept for a few seconds. Later: pfnMore is called once it can be asked again.
LiveResult LiveStill(const char *szProgram, const LiveUser *pUser, int nWidth, std::string *pJpeg,
                     void (*pfnMore)(void *pUser), void *pContext);

}  // namespace orx
