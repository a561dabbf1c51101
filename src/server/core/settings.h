// Every key of the configuration, and what the server keeps of them: read from the file before anything else
// runs, and again when that is asked for (see server/front/reload.h), on the scheduler thread. What counts
// from the next start only any thread may read; all else the scheduler thread alone, which gives others a
// copy of what they need.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace orx {

struct TextBuf;

constexpr size_t kRecordPathSize = 512;  // room of a directory of recordings
struct Profile;

struct Settings {
    char szConfigPath[128] = "";
    char szGuidPath[128] = "";  // guid.dat beside the configuration
    uint32_t nAuthType = 0;     // 0 none, 1 Basic, 2 Digest
    uint32_t nConnectLimit = 0;
    uint32_t nLiveTime = 0;        // seconds
    uint32_t nSessionBufSize = 0;  // bytes of a connection's receive buffer
    uint32_t nCacheSeconds = 0;    // CacheLimit
    uint32_t nListenPort = 0;
    char szListenIp[46] = "";  // without standard players cut to 15 characters
    int bFilePrograms = 0;     // EnableFilePrg
    int bHttpProxy = 0;
    char szHttpProxyTargetIp[20] = "";
    uint32_t nHttpProxyTargetPort = 0;
    uint32_t nHttpProxyListenPort = 0;
    int bUnet = 0;           // EnableUnet
    uint32_t nUnetPort = 0;  // the relay's UDP port
    int bRecord = 0;         // RecordEnable
    int bLowEnergy = 0;
    int bRtcp = 0;
    int bZupo = 0;
    char szZupoServer[64] = "";
    uint32_t nZupoPort = 0;
    char szDeviceGuid[64] = "";  // this box's identity at that server
    int bControlUsers = 0;
    int bAutoDrop = 0;  // AutoDropDataWhenCrowded
    int bAnonymousViewer = 0;
    int nUdpStartPort = 0;
    int nUdpEndPort = 0;
    int bAutoDelOldFile = 0;
    uint32_t nPreRecordLen = 0;  // seconds
    uint32_t nMinutePerFile = 0;
    int bNeverLose = 0;
    int bWideUnits = 0;
    char szRecordAlways[1024] =
        "";                  // names of programs, separated by blanks; '*' at the end stands for any rest
    uint32_t nKeepDays = 0;  // 0: no limit
    uint32_t nReserveMegabytes = 0;
    uint32_t nWriteQueueMegabytes = 0;
    char szRecordSetting[128] = "";  // RecordPath as it stands in the file
    char *szRecordPath = nullptr;    // what is made of it; owned, ends in '/'
    int bStandardPushers = 0;        // [INTEROP] StandardPushers
    int bStandardPlayers = 0;        // [INTEROP] StandardPlayers
    int bUdpPushers = 0;             // [INTEROP] UdpPushers
    uint32_t nHoldPlayers = 0;       // [INTEROP] HoldPlayers, seconds; 0: players of a pusher that goes end
    int bLowDelay = 0;               // [INTEROP] LowDelay
    int bFastWebPort = 0;            // [INTEROP] FastWebPort
    // [GUARD]
    int bSurvivePeerFaults = 0;
    int bRunUnprivileged = 0;
    int bPinMedia = 0;
    int bStrictRoles = 0;
    char szAnnounceFrom[1024] = "";  // addresses and networks, separated by blanks; empty: all
    int bAnnounceAuth = 0;
    int bConfineRecordings = 0;
    uint32_t nMaxSessionsPerAddress = 0;  // here and below 0 is no limit
    uint32_t nStateTimeout = 0;           // seconds
    uint32_t nCacheMegabytes = 0;         // of one program
    uint32_t nCacheMegabytesTotal = 0;
    uint32_t nAuthFailDelay = 0;  // ms
    int bFreshNonce = 0;
    uint32_t nMaxWebRelays = 0;
    uint32_t nMaxRelayPeersPerAddress = 0;
    int bStrictConfig = 0;
    char szProxyProtocolFrom[1024] = "";  // [INTEROP], written as AnnounceFrom; empty: nobody
    // [LOG] and [STATUS]
    char szLogLevel[16] = "";       // error, warn, info or debug; empty: no event is logged
    int bLogConsole = 1;            // 0: nothing but the banner and the answers to commands
    char szLogFile[256] = "";       // relative to the installation directory; empty: none
    char szLogFormat[16] = "";      // text or json
    char szStatusSocket[108] = "";  // the same; a path as sun_path takes it
    int bLogFile = 0;               // of the small log, which main reads by itself
};

constexpr int64_t Megabytes(uint32_t n)  // in bytes
{
    return int64_t{n} * 1024 * 1024;
}

// Written by ServerStart and ServerStop on the main thread, while nothing else runs, and by SettingsTake.
extern Settings g_settings;

// [INTEROP] StandardPushers and StandardPlayers as they were when a session or a program was made, which
// keeps them to its end: a session for its replies and its queue, a program for its packets.
struct Standards {
    int bPushers = 0;
    int bPlayers = 0;
    bool operator==(const Standards &) const = default;
};
inline Standards StandardsNow()
{
    return {g_settings.bStandardPushers, g_settings.bStandardPlayers};
}

// How a number that was read becomes the setting.
enum class Clamp {
    None,             // any number
    Flag,             // 0 stays 0, all else becomes 1
    Hold,             // outside the limits: the nearer one
    HoldUnsigned,     // the same, but a negative number is above
    DefaultUnsigned,  // outside the limits: the default; a negative number is above
    Port,             // modulo 65536, then outside the limits: the default
    PortOrRefuse,     // modulo 65536; outside the limits the server does not start
};

enum class SettingKind { Number, Text };

constexpr size_t kNotHere = SIZE_MAX;  // offset of what another module reads

// From when on a value counts that is read while the server runs.
enum class Counts {
    AtOnce,
    ForNew,   // for what begins from then on: sessions, programs, files, looks at a clock
    Restart,  // from the next start
};

struct SettingPlace {
    const char *szReader;  // "server": SettingsRead; else the module that reads the key where it needs it
    size_t nOffset;        // of the field of Settings, or kNotHere
    size_t nBytes;         // room, for a text with its NUL; a longer one is cut
};

// One key of the configuration. Its documents, cfg/orx.cfg and docs/configuration.md, say the same of it.
struct Setting {
    const char *szSection;
    const char *szKey;  // with "%d" one key for each number from 0
    SettingPlace place;
    Counts counts;
    SettingKind kind;
    // Of a text its default. Of a number null, where nDefault counts, or a key above whose value does.
    const char *szDefault;
    int nDefault;
    Clamp clamp;  // of a number
    int nLowest, nHighest;
};

// Every key that anything reads, in the order in which the server reads its own.
std::span<const Setting> SettingsTable();

// Fills *pSettings from the file. Returns 1, or 0 for an empty path and for a UDP port range that is printed
// as invalid. SettingsFree gives back what it holds and makes it all zero.
int SettingsRead(Settings *pSettings, const char *szPath);
// The same from a text that was loaded, without a word, into nothing but *pSettings. A long text is read
// whole, whatever it says. Any thread.
int SettingsReadText(Settings *pSettings, const Profile *pText);
void SettingsFree(Settings *pSettings);

// Takes over what was read anew, but for what counts from the next start: that stays, and the names of such
// keys that differ are added to *pRestart, between blanks (to a full one no more). What is replaced is left
// in *pRead, for SettingsFree. Of what did not change nothing is written: others may just be reading it.
// Scheduler thread where pInForce is g_settings.
void SettingsTake(Settings *pInForce, Settings *pRead, TextBuf *pRestart);
// What a row makes of a number that stands in a file.
int SettingClamped(const Setting *pRow, int nValue);

// Whether the UDP ports of media keep the server from starting: 1 with what is said of it, else 0.
int SettingsUdpRangeFault(const Settings *pSettings, char *szOut, size_t nSize);

// Whether ListenIp is an IPv6 address, which only standard players may make it.
int SettingsListenIpv6(const Settings *pSettings);

// The directory of recordings for a configured value: empty gives the executable's directory, a leading '.'
// is taken relative to it, and a '/' is added when missing. The text is from malloc; null without memory.
char *SettingsRecordPath(const char *szValue);

}  // namespace orx
