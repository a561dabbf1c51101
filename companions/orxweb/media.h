// The answers that are pictures and sound: live streams, still pictures, recordings. The visitor was found to
// be allowed before. Workers' threads.
#pragma once

#include "orxweb/httpread.h"
#include "orxweb/webaccess.h"
#include "orxweb/webrequest.h"

namespace orx {

WebAnswer MediaLive(const WebRequest *pRequest, const WebVisitor *pVisitor, const ProgramAddress &address);
WebAnswer MediaStill(const WebRequest *pRequest, const WebVisitor *pVisitor, const ProgramAddress &address);
// file: as ClipPathSplit gives it.
WebAnswer MediaRecording(const WebRequest *pRequest, const WebVisitor *pVisitor, const std::string &program,
                         const std::string &file);
void MediaForget(void *pKept);  // of a request that nobody answers any more

}  // namespace orx
