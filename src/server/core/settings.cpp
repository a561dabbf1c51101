#include "server/core/settings.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <netinet/in.h>
#include <unistd.h>

#include "base/configfile.h"
#include "base/console.h"
#include "base/textbuf.h"

namespace orx {

Settings g_settings;

static constexpr SettingPlace Here(size_t nOffset, size_t nBytes)
{
    return {"server", nOffset, nBytes};
}

#define FIELD(name) Here(offsetof(Settings, name), sizeof(Settings::name))

static constexpr SettingPlace ReadBy(const char *szReader, size_t nBytes = sizeof(int32_t))
{
    return {szReader, kNotHere, nBytes};
}

static constexpr Setting Number(const char *szSection, const char *szKey, SettingPlace place, Counts counts,
                                int nDefault, Clamp clamp = Clamp::None, int nLowest = 0, int nHighest = 0)
{
    return {szSection, szKey,    place, counts,  SettingKind::Number,
            nullptr,   nDefault, clamp, nLowest, nHighest};
}

static constexpr Setting Text(const char *szSection, const char *szKey, SettingPlace place, Counts counts,
                              const char *szDefault)
{
    return {szSection, szKey, place, counts, SettingKind::Text, szDefault, 0, Clamp::None, 0, 0};
}

static constexpr Setting g_table[] = {
    Number("SERVER", "AuthType", FIELD(nAuthType), Counts::Restart, 1, Clamp::DefaultUnsigned, 0, 3),
    Number("SERVER", "ConnectLimit", FIELD(nConnectLimit), Counts::AtOnce, 100, Clamp::Hold, 5, INT32_MAX),
    Number("SERVER", "AutoDropDataWhenCrowded", FIELD(bAutoDrop), Counts::AtOnce, 0),
    Number("SERVER", "EnableAnonymousViewer", FIELD(bAnonymousViewer), Counts::AtOnce, 0),
    Number("SERVER", "EnableRtcp", FIELD(bRtcp), Counts::ForNew, 0),
    Number("SERVER", "EnableLowEnergy", FIELD(bLowEnergy), Counts::AtOnce, 0),
    Number("SERVER", "ControlUsers", FIELD(bControlUsers), Counts::AtOnce, 0),
    Number("SERVER", "EnableFilePrg", FIELD(bFilePrograms), Counts::ForNew, 0),
    Number("SERVER", "EnableHttpProxy", FIELD(bHttpProxy), Counts::Restart, 0),
    Number("SERVER", "EnableUnet", FIELD(bUnet), Counts::Restart, 0),
    Number("ZUPO", "ZupoEnable", FIELD(bZupo), Counts::Restart, 0),
    Number("SERVER", "SessionBufSize", FIELD(nSessionBufSize), Counts::Restart, 16384, Clamp::HoldUnsigned,
           4096, 65536),
    Number("SERVER", "CacheLimit", FIELD(nCacheSeconds), Counts::ForNew, 10, Clamp::Hold, 5, 60),
    Number("SERVER", "LiveTime", FIELD(nLiveTime), Counts::AtOnce, 10, Clamp::HoldUnsigned, 1, 120),
    Number("SERVER", "UdpStartPort", FIELD(nUdpStartPort), Counts::Restart, 50000, Clamp::PortOrRefuse, 1000,
           65530),
    Number("SERVER", "UdpEndPort", FIELD(nUdpEndPort), Counts::Restart, 52000, Clamp::PortOrRefuse, 1001,
           65534),
    Number("STORAGE", "AutoDelOldFile", FIELD(bAutoDelOldFile), Counts::ForNew, 1),
    Number("STORAGE", "PreRecordLen", FIELD(nPreRecordLen), Counts::ForNew, 3, Clamp::HoldUnsigned, 0, 10),
    Number("STORAGE", "MinutePerFile", FIELD(nMinutePerFile), Counts::ForNew, 5, Clamp::HoldUnsigned, 0, 60),
    Number("STORAGE", "RecordEnable", FIELD(bRecord), Counts::ForNew, 0, Clamp::Flag),
    Number("STORAGE", "NeverLose", FIELD(bNeverLose), Counts::ForNew, 0),
    Number("STORAGE", "WideUnits", FIELD(bWideUnits), Counts::ForNew, 0),
    Text("STORAGE", "RecordAlways", FIELD(szRecordAlways), Counts::ForNew, ""),
    Number("STORAGE", "KeepDays", FIELD(nKeepDays), Counts::AtOnce, 0, Clamp::Hold, 0, 36500),
    Number("STORAGE", "ReserveMegabytes", FIELD(nReserveMegabytes), Counts::ForNew, 30, Clamp::Hold, 1,
           1000000),
    Number("STORAGE", "WriteQueueMegabytes", FIELD(nWriteQueueMegabytes), Counts::Restart, 32, Clamp::Hold, 1,
           4095),
    Number("INTEROP", "StandardPushers", FIELD(bStandardPushers), Counts::ForNew, 0),
    Number("INTEROP", "StandardPlayers", FIELD(bStandardPlayers), Counts::ForNew, 0),
    Number("INTEROP", "UdpPushers", FIELD(bUdpPushers), Counts::ForNew, 0),
    Number("INTEROP", "HoldPlayers", FIELD(nHoldPlayers), Counts::ForNew, 0, Clamp::Hold, 0, 3600),
    Number("INTEROP", "LowDelay", FIELD(bLowDelay), Counts::AtOnce, 0),
    Number("GUARD", "SurvivePeerFaults", FIELD(bSurvivePeerFaults), Counts::AtOnce, 0),
    Number("GUARD", "RunUnprivileged", FIELD(bRunUnprivileged), Counts::AtOnce, 0),
    Number("GUARD", "PinMedia", FIELD(bPinMedia), Counts::AtOnce, 0),
    Number("GUARD", "StrictRoles", FIELD(bStrictRoles), Counts::AtOnce, 0),
    Text("GUARD", "AnnounceFrom", FIELD(szAnnounceFrom), Counts::AtOnce, ""),
    Number("GUARD", "AnnounceAuth", FIELD(bAnnounceAuth), Counts::AtOnce, 0),
    Number("GUARD", "ConfineRecordings", FIELD(bConfineRecordings), Counts::ForNew, 0),
    Number("GUARD", "MaxSessionsPerAddress", FIELD(nMaxSessionsPerAddress), Counts::AtOnce, 0, Clamp::Hold, 0,
           100000),
    Number("GUARD", "StateTimeout", FIELD(nStateTimeout), Counts::AtOnce, 0, Clamp::Hold, 0, 3600),
    Number("GUARD", "CacheMegabytes", FIELD(nCacheMegabytes), Counts::AtOnce, 0, Clamp::Hold, 0, 4095),
    Number("GUARD", "CacheMegabytesTotal", FIELD(nCacheMegabytesTotal), Counts::AtOnce, 0, Clamp::Hold, 0,
           65536),
    Number("GUARD", "AuthFailDelay", FIELD(nAuthFailDelay), Counts::AtOnce, 0, Clamp::Hold, 0, 8000),
    Number("GUARD", "FreshNonce", FIELD(bFreshNonce), Counts::AtOnce, 0),
    Number("GUARD", "MaxWebRelays", FIELD(nMaxWebRelays), Counts::Restart, 0, Clamp::Hold, 0, 10000),
    Number("GUARD", "MaxRelayPeersPerAddress", FIELD(nMaxRelayPeersPerAddress), Counts::Restart, 0,
           Clamp::Hold, 0, 32),
    Text("SERVER", "HttpProxyTargetIp", FIELD(szHttpProxyTargetIp), Counts::Restart, "127.0.0.1"),
    Number("SERVER", "HttpProxyTargetPort", FIELD(nHttpProxyTargetPort), Counts::Restart, 8080, Clamp::Port,
           0, 65535),
    Number("SERVER", "HttpProxyListenPort", FIELD(nHttpProxyListenPort), Counts::Restart, 80, Clamp::Port, 0,
           65535),
    Number("SERVER", "ListenPort", FIELD(nListenPort), Counts::Restart, 554, Clamp::Port, 1, 65535),
    Text("SERVER", "ListenIp", FIELD(szListenIp), Counts::Restart, "0.0.0.0"),
    {"SERVER", "UnetPort", FIELD(nUnetPort), Counts::Restart, SettingKind::Number, "ListenPort", 0,
     Clamp::Port, 0, 65535},
    Text("STORAGE", "RecordPath", FIELD(szRecordSetting), Counts::ForNew, ""),
    Text("ZUPO", "ZupoServerAddr", FIELD(szZupoServer), Counts::Restart, "zupo.example.com"),
    Number("ZUPO", "ZupoServerPort", FIELD(nZupoPort), Counts::Restart, 6323, Clamp::Port, 0, 65535),
    Text("MAIN", "DeviceGuid", FIELD(szDeviceGuid), Counts::ForNew, ""),  // and the relay, which sends it
    Number("GUARD", "StrictConfig", FIELD(bStrictConfig), Counts::AtOnce, 0, Clamp::Flag),
    Text("INTEROP", "ProxyProtocolFrom", FIELD(szProxyProtocolFrom), Counts::ForNew, ""),
    Text("LOG", "Level", FIELD(szLogLevel), Counts::AtOnce, ""),
    Number("LOG", "Console", FIELD(bLogConsole), Counts::AtOnce, 1, Clamp::Flag),
    Text("LOG", "File", FIELD(szLogFile), Counts::AtOnce, ""),
    Text("LOG", "Format", FIELD(szLogFormat), Counts::AtOnce, "text"),
    Text("STATUS", "Socket", FIELD(szStatusSocket), Counts::Restart, ""),
    Number("SERVER", "LogFile", FIELD(bLogFile), Counts::Restart, 0),
    Text("USERS", "SuperUser", ReadBy("accounts", 128), Counts::AtOnce, ""),
    Text("USERS", "SuperPwd", ReadBy("accounts", 64), Counts::AtOnce, ""),
    Number("USERS", "NumUsers", ReadBy("accounts"), Counts::AtOnce, 0, Clamp::Hold, 0, 1024),
    Text("USERS", "UserName%d", ReadBy("accounts", 128), Counts::AtOnce, ""),
    Text("USERS", "UserPwd%d", ReadBy("accounts", 64), Counts::AtOnce, ""),
    Number("USERS", "UserLevel%d", ReadBy("accounts"), Counts::AtOnce, 2),
    Text("USERCTRL", "UserDevList%d", ReadBy("accounts", 1024), Counts::AtOnce, ""),
    Text("WIFI", "DevName", ReadBy("directcfg", 64), Counts::AtOnce, ""),  // and the relay
    Number("WIFI", "UseWirelessLan", ReadBy("relay"), Counts::AtOnce, 0),
    Number("UPNP", "UpnpEnable", ReadBy("relay"), Counts::AtOnce, 0),
    Number("UPNP", "MappedListenPort", ReadBy("relay"), Counts::AtOnce, 0, Clamp::Port, 0, 65535),
    Number("INTEROP", "FastWebPort", FIELD(bFastWebPort), Counts::Restart, 0, Clamp::Flag),
    // Of the companions, processes of their own, which read them when they start.
    Number("PULL", "NumSources", ReadBy("orxpull"), Counts::Restart, 0, Clamp::Hold, 0, 1000),
    Text("PULL", "Url%d", ReadBy("orxpull", 1024), Counts::Restart, ""),
    Text("PULL", "Program%d", ReadBy("orxpull", 201), Counts::Restart, ""),
    Text("PULL", "Transport%d", ReadBy("orxpull", 16), Counts::Restart, "tcp"),
    Number("PULL", "OnDemand%d", ReadBy("orxpull"), Counts::Restart, 0, Clamp::Flag),
    Number("PULL", "Audio%d", ReadBy("orxpull"), Counts::Restart, 1, Clamp::Flag),
    Text("PULL", "User", ReadBy("orxpull", 128), Counts::Restart, ""),
    Text("PULL", "Password", ReadBy("orxpull", 64), Counts::Restart, ""),
    Number("PULL", "HoldSeconds", ReadBy("orxpull"), Counts::Restart, 60, Clamp::Hold, 0, 86400),
    Text("WEB", "Listen", ReadBy("orxweb", 46), Counts::Restart, "0.0.0.0"),
    Number("WEB", "Port", ReadBy("orxweb"), Counts::Restart, 8080, Clamp::Port, 1, 65535),
    Text("WEB", "Title", ReadBy("orxweb", 128), Counts::Restart, "Orx"),
    Text("WEB", "CachePath", ReadBy("orxweb", 256), Counts::Restart, "cache"),
};

#undef FIELD

static constexpr int NumbersFit()
{
    for (const Setting &row : g_table)
        if (row.kind == SettingKind::Number && row.place.nBytes != sizeof(int32_t))
            return 0;
    return 1;
}
static_assert(NumbersFit(), "a number goes into a field of 32 bits");

std::span<const Setting> SettingsTable()
{
    return g_table;
}

static int Inside(const Setting *pRow, int32_t nValue)
{
    return nValue >= pRow->nLowest && nValue <= pRow->nHighest;
}

static int32_t Clamped(const Setting *pRow, int32_t nDefault, int32_t nValue)
{
    switch (pRow->clamp) {
        case Clamp::None:
            return nValue;
        case Clamp::Flag:
            return nValue != 0;
        case Clamp::Hold:
            return std::clamp(nValue, pRow->nLowest, pRow->nHighest);
        case Clamp::HoldUnsigned:
            return nValue < 0 ? pRow->nHighest : std::clamp(nValue, pRow->nLowest, pRow->nHighest);
        case Clamp::DefaultUnsigned:
            return Inside(pRow, nValue) ? nValue : nDefault;
        case Clamp::Port:
            return Inside(pRow, nValue & 0xFFFF) ? nValue & 0xFFFF : nDefault;
        case Clamp::PortOrRefuse:
            return nValue & 0xFFFF;
    }
    return nValue;
}

int SettingClamped(const Setting *pRow, int nValue)
{
    return Clamped(pRow, pRow->nDefault, nValue);
}

// The number that was read for a row.
static int32_t NumberOf(const Settings *pSettings, const Setting *pRow)
{
    int32_t nValue = 0;
    memcpy(&nValue, reinterpret_cast<const char *>(pSettings) + pRow->place.nOffset, sizeof(nValue));
    return nValue;
}

// A default is a number, or what another key of the section, which was read before, says.
static int32_t DefaultOf(const Settings *pSettings, const Setting *pRow)
{
    for (const Setting &row : g_table)
        if (pRow->szDefault && strcmp(row.szKey, pRow->szDefault) == 0)
            return NumberOf(pSettings, &row);
    return pRow->nDefault;
}

static void ReadRow(Settings *pSettings, const Setting *pRow, const ConfigFile *pConfig)
{
    char *pField = reinterpret_cast<char *>(pSettings) + pRow->place.nOffset;
    if (pRow->kind == SettingKind::Text) {
        ConfigGetStr(pConfig, pRow->szSection, pRow->szKey, pField, static_cast<int>(pRow->place.nBytes),
                     pRow->szDefault);
        return;
    }
    int32_t nDefault = DefaultOf(pSettings, pRow);
    int32_t nValue = Clamped(pRow, nDefault, ConfigGetInt(pConfig, pRow->szSection, pRow->szKey, nDefault));
    memcpy(pField, &nValue, sizeof(nValue));
}

int SettingsUdpRangeFault(const Settings *pSettings, char *szOut, size_t nSize)
{
    TextBuf text{szOut, nSize};
    for (const Setting &row : g_table)
        if (row.clamp == Clamp::PortOrRefuse && !Inside(&row, NumberOf(pSettings, &row)))
            return TextAdd(&text, "Invalid %s: %d!", row.szKey, NumberOf(pSettings, &row));
    if (pSettings->nUdpEndPort > pSettings->nUdpStartPort)
        return 0;
    return TextAdd(&text, "Invalid UdpPort Range: from %d to %d!", pSettings->nUdpStartPort,
                   pSettings->nUdpEndPort);
}

// The executable's directory, a '/' behind it, and the value's rest.
static void AddBesideExecutable(TextBuf *pText, const char *szRest)
{
    char szExe[256] = "";
    ssize_t n = readlink("/proc/self/exe", szExe, sizeof(szExe) - 1);
    szExe[n > 0 ? n : 0] = '\0';
    char *pSlash = strrchr(szExe, '/');
    if (pSlash)
        *pSlash = '\0';
    TextAdd(pText, "%s/%s", szExe, szRest);
}

char *SettingsRecordPath(const char *szValue)
{
    char szPath[kRecordPathSize] = "";
    TextBuf text{szPath, sizeof(szPath)};
    if (szValue[0] == '\0')
        AddBesideExecutable(&text, "");
    else if (szValue[0] == '.')
        AddBesideExecutable(&text, strlen(szValue) > 2 ? szValue + 2 : "");
    else
        TextAdd(&text, "%s", szValue);
    if (text.nLen == 0 || szPath[text.nLen - 1] != '/')
        TextAdd(&text, "/");
    return strdup(szPath);
}

// The register-id file lies beside the configuration. Returns 1, or 0 when its path is too long.
static int MakeGuidPath(Settings *pSettings)
{
    const char *pSlash = strrchr(pSettings->szConfigPath, '/');
    int nDir = pSlash ? static_cast<int>(pSlash + 1 - pSettings->szConfigPath) : 0;
    TextBuf text{pSettings->szGuidPath, sizeof(pSettings->szGuidPath)};
    return TextAdd(&text, "%.*sguid.dat", nDir, pSettings->szConfigPath);
}

static int KeepPath(Settings *pSettings, const char *szPath)
{
    return TextCopy(pSettings->szConfigPath, sizeof(pSettings->szConfigPath), szPath) &&
           MakeGuidPath(pSettings);
}

static void ReadRows(Settings *pSettings, const ConfigFile *pConfig)
{
    for (const Setting &row : g_table)
        if (row.place.nOffset != kNotHere)
            ReadRow(pSettings, &row, pConfig);
    if (!pSettings->bStandardPlayers)
        pSettings->szListenIp[INET_ADDRSTRLEN - 1] = '\0';
    pSettings->szRecordPath = SettingsRecordPath(pSettings->szRecordSetting);
}

int SettingsRead(Settings *pSettings, const char *szPath)
{
    if (!szPath || !szPath[0])
        return 0;
    if (!KeepPath(pSettings, szPath)) {
        print("The configuration's path is too long: %s\r\n", szPath);
        return 0;
    }
    ConfigFile config(szPath);
    ReadRows(pSettings, &config);
    print("AutoDropDataWhenCrowded=%d.\r\n", pSettings->bAutoDrop);
    char szFault[80];
    if (pSettings->szRecordPath && !SettingsUdpRangeFault(pSettings, szFault, sizeof(szFault)))
        return 1;
    if (pSettings->szRecordPath)
        print("%s\r\n", szFault);
    return 0;
}

int SettingsReadText(Settings *pSettings, const Profile *pText)
{
    char szFault[80];
    ConfigFile config(pText);
    if (!pText->path[0] || !KeepPath(pSettings, pText->path))
        return 0;
    ReadRows(pSettings, &config);
    return pSettings->szRecordPath && !SettingsUdpRangeFault(pSettings, szFault, sizeof(szFault));
}

void SettingsFree(Settings *pSettings)
{
    free(pSettings->szRecordPath);
    *pSettings = Settings();
}

// Whether the field of a row is the same in both.
static int IsSame(const Setting *pRow, const Settings *pOne, const Settings *pOther)
{
    const char *a = reinterpret_cast<const char *>(pOne) + pRow->place.nOffset;
    const char *b = reinterpret_cast<const char *>(pOther) + pRow->place.nOffset;
    return pRow->kind == SettingKind::Text ? strcmp(a, b) == 0 : memcmp(a, b, pRow->place.nBytes) == 0;
}

void SettingsTake(Settings *pInForce, Settings *pRead, TextBuf *pRestart)
{
    for (const Setting &row : g_table) {
        if (row.place.nOffset == kNotHere || IsSame(&row, pInForce, pRead))
            continue;
        if (row.counts == Counts::Restart)
            TextAdd(pRestart, pRestart->nLen ? " %s" : "%s", row.szKey);
        else
            memcpy(reinterpret_cast<char *>(pInForce) + row.place.nOffset,
                   reinterpret_cast<const char *>(pRead) + row.place.nOffset, row.place.nBytes);
    }
    if (strcmp(pInForce->szRecordPath, pRead->szRecordPath) != 0)
        std::swap(pInForce->szRecordPath, pRead->szRecordPath);
}

int SettingsListenIpv6(const Settings *pSettings)
{
    return pSettings->bStandardPlayers && strchr(pSettings->szListenIp, ':') != nullptr;
}

}  // namespace orx
