// The message queue to the local camera process, and the reader that loads a configuration file for it.
//
// Commands go to the camera as short texts in messages of type 1; what it answers comes in messages whose
// type is the process id of who asked. The queue handle is one for the process: one thread only, that of the
// disk in the server. No operation waits but WaitReplyMsg, and with it the actions that expect an answer:
// they hold up the thread for up to 550 milliseconds.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

constexpr long kCameraMsgType = 1;        // the type of a message to the camera
constexpr size_t kCameraTextSize = 1024;  // room of a message's text, its NUL included

// A message, in both directions. The camera counts 1032 bytes behind the type, four more than there are
// fields.
struct CameraMsg {
    long nType = 0;       // kCameraMsgType, or the process id that an answer is for
    int32_t nSender = 0;  // process id
    char text[kCameraTextSize] = "";
    char fill[4] = "";  // always zero
};
constexpr size_t kCameraMsgBytes = 1032;
static_assert(sizeof(CameraMsg) == sizeof(long) + kCameraMsgBytes, "the message is laid out without gaps");

// Opens the camera's queue, or makes it when bCreate is non-zero and there is none; the handle is kept until
// CgiPushClose. Returns the queue's id, or -1, which is said on the console.
int CgiPushOpen(int bCreate);
// Forgets the handle. The queue stays.
void CgiPushClose();

// Sends a control action without waiting. A null or empty parameter is sent as "none", a null or empty stream
// as "vdr_cif.sdp". Returns 0; -1 when no queue is open, the queue is full or gone, or the text would not
// fit.
int CgiPushControl(const char *szAction, const char *szParam, const char *szStream);
// Sends an information request, for the stream "0.sdp" when none is given. Results as CgiPushControl.
int CgiPushRequest(const char *szType, const char *szStream);

// Waits up to nTimeoutMs milliseconds, looking every 50, for an answer to this process, and copies its text
// as strncpy does: filled up with zeros, and without a NUL when it takes all nSize bytes. Returns the bytes
// received, or -1 with szOut untouched.
int WaitReplyMsg(int nTimeoutMs, char *szOut, size_t nSize);

// Runs an action of the table below by its name. szParam is for those that take one, szAnswer for those that
// hand out the camera's answer (as WaitReplyMsg does; may be null); both are ignored by the others. Returns
// 0, or -1 for an unknown action and when sending failed. That no answer came is no failure.
int CgiPushAction(const char *szAction, const char *szParam, char *szAnswer, size_t nSize);

enum : unsigned {
    CGI_REQUEST = 1,  // an information request, else a control action
    CGI_PARAM = 2,    // takes the caller's parameter
    CGI_ANSWER = 4,   // hands out the answer
};
struct CgiAction {
    const char *szName;
    unsigned nFlags;      // CGI_...
    int nWaitMs;          // how long it waits for an answer; 0 when none comes
    size_t nAnswerBytes;  // how much of an answer is taken in that nobody gets
};
constexpr CgiAction kCgiActions[] = {
    {"reboot", 0, 0, 0},
    {"reset", 0, 0, 0},
    {"checkupdate", 0, 0, 0},
    {"toserial", CGI_PARAM, 0, 0},
    {"cfgauto", CGI_PARAM, 500, 1024},
    {"cfgfile", CGI_PARAM, 0, 0},
    {"snapfile", CGI_PARAM, 500, 256},
    {"getcamtime", CGI_REQUEST | CGI_ANSWER, 500, 0},
    {"getalarmlist", CGI_REQUEST | CGI_ANSWER, 500, 0},
};

// Loads a whole file as a text that the profile store reads from memory: "inmem:" and the content, without a
// NUL. Returns the text, which the caller frees with free, and its length; null when the file is empty or
// cannot be read, which is said on the console.
char *GetCfgFileContent(const char *szPath, size_t *pnSize);

}  // namespace orx
