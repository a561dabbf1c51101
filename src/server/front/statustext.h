// What the status socket answers, as text: JSON and Prometheus' exposition format. On the threads of the
// status socket.
#pragma once

#include "base/jsontext.h"
#include "server/front/remoteservices.h"
#include "server/front/statusdisk.h"
#include "server/front/statusfacts.h"

namespace orx {

// All that is told at once. pDisk is null when the disk does not answer.
struct StatusFacts {
    const ServerFacts *pServer;
    const DiskAnswer *pDisk;
    RelayFacts relay;
    uint32_t nUptimeSeconds;
};

void StatusWriteJson(JsonText *pOut, const StatusFacts *pFacts);
void StatusWriteMetrics(JsonText *pOut, const StatusFacts *pFacts);
// The reasons why the server is not well, a line each. Returns how many.
unsigned StatusWriteHealth(JsonText *pOut, const StatusFacts *pFacts);

// A list of recordings, and of a program's ("" of all) the days.
void StatusWriteRecordings(JsonText *pOut, const char *szProgram, const DiskAnswer *pDisk);
void StatusWriteDays(JsonText *pOut, const DiskAnswer *pDisk);

}  // namespace orx
