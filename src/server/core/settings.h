// Every server setting: read from the configuration file before anything else runs, and only read afterwards.
// Any thread may read.
#pragma once

#include <cstdint>

namespace orx {

constexpr uint32_t kFileSendPeriodMs = 200;  // between two runs of a file program's sender

struct Settings {
    char szConfigPath[128] = "";
    char szGuidPath[128] = "";  // guid.dat beside the configuration
    uint32_t nAuthType = 0;     // 0 none, 1 Basic, 2 Digest
    uint32_t nConnectLimit = 0;
    uint32_t nLiveTime = 0;        // seconds
    uint32_t nFileSendPeriod = 0;  // milliseconds
    uint32_t nSessionBufSize = 0;  // bytes, as configured
    uint32_t nCacheSeconds = 0;    // CacheLimit
    uint32_t nListenPort = 0;
    char szListenIp[16] = "";
    int bFilePrograms = 0;  // EnableFilePrg
    int bHttpProxy = 0;
    char szHttpProxyTargetIp[20] = "";
    uint16_t nHttpProxyTargetPort = 0;
    uint16_t nHttpProxyListenPort = 0;
    int bUnet = 0;           // EnableUnet
    uint32_t nUnetPort = 0;  // the relay's UDP port
    int bRecord = 0;         // RecordEnable
    int bLowEnergy = 0;
    int bRtcp = 0;
    int bZupo = 0;
    int bControlUsers = 0;
    int bAutoDrop = 0;  // AutoDropDataWhenCrowded
    int bAnonymousViewer = 0;
    int nUdpStartPort = 0;
    int nUdpEndPort = 0;
    int bAutoDelOldFile = 0;
    uint32_t nPreRecordLen = 0;  // seconds
    uint32_t nMinutePerFile = 0;
    char *szRecordPath = nullptr;  // owned; ends in '/'
    int bStandardPushers = 0;      // [INTEROP] StandardPushers
    int bStandardPlayers = 0;      // [INTEROP] StandardPlayers
    int bSurvivePeerFaults = 0;    // [GUARD] SurvivePeerFaults
    int bRunUnprivileged = 0;      // [GUARD] RunUnprivileged
};

extern Settings
    g_settings;  // written by ServerStart and ServerStop on the main thread, while nothing else runs

// Fills *pSettings from the file. Returns 1, or 0 for an empty path and for a UDP port range that is printed
// as invalid. SettingsFree gives back what it holds and makes it all zero.
int SettingsRead(Settings *pSettings, const char *szPath);
void SettingsFree(Settings *pSettings);

// The directory of recordings for a configured value: empty gives the executable's directory, a leading '.'
// is taken relative to it, and a '/' is added when missing. The text is from malloc; null without memory.
char *SettingsRecordPath(const char *szValue);

}  // namespace orx
