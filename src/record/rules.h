// How a recording is made, beyond what its order says. Set before the first packet, only read afterwards.
#pragma once

#include <cstdint>

namespace orx {

struct RecordRules {
    int bNeverLose = 0;              // goes on beyond full disks, jumps and faults; replaces no file
    int bWideUnits = 0;              // units and pictures of any length, H.265, AAC: files of version 101
    int bStandardPushers = 0;        // the packets of standard encoders are taken as they come
    int bDeleteOldest = 0;           // the oldest recordings make room
    uint32_t nReserveMegabytes = 0;  // space to keep free
};

}  // namespace orx
