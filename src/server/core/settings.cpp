#include "server/core/settings.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "base/console.h"
#include "base/inifile.h"
#include "base/textbuf.h"

namespace orx {

Settings g_settings;

// How a number that was read becomes the setting.
enum class Clamp {
    None,
    MaxOr,    // above nLimit: nInstead (as unsigned, so that a negative one is above, too)
    MinMax,   // below nLimit: nLimit; above nInstead: nInstead
    ZeroMax,  // 0: 1; above nLimit: nLimit
    Wrap16,   // taken modulo 65536
};

struct NumberSetting {
    const char *szSection;
    const char *szKey;
    size_t nOffset;  // of a 32-bit field of Settings
    int nDefault;
    Clamp clamp;
    int nLimit;
    int nInstead;
};

#define FIELD(name) offsetof(Settings, name)

static const NumberSetting g_numbers[] = {
    {"SERVER", "AuthType", FIELD(nAuthType), 1, Clamp::MaxOr, 3, 1},
    {"SERVER", "ConnectLimit", FIELD(nConnectLimit), 100, Clamp::MinMax, 5, INT32_MAX},
    {"SERVER", "AutoDropDataWhenCrowded", FIELD(bAutoDrop), 0, Clamp::None, 0, 0},
    {"SERVER", "EnableAnonymousViewer", FIELD(bAnonymousViewer), 0, Clamp::None, 0, 0},
    {"SERVER", "EnableRtcp", FIELD(bRtcp), 0, Clamp::None, 0, 0},
    {"SERVER", "EnableLowEnergy", FIELD(bLowEnergy), 0, Clamp::None, 0, 0},
    {"SERVER", "ControlUsers", FIELD(bControlUsers), 0, Clamp::None, 0, 0},
    {"SERVER", "EnableFilePrg", FIELD(bFilePrograms), 0, Clamp::None, 0, 0},
    {"SERVER", "EnableHttpProxy", FIELD(bHttpProxy), 0, Clamp::None, 0, 0},
    {"SERVER", "EnableUnet", FIELD(bUnet), 0, Clamp::None, 0, 0},
    {"ZUPO", "ZupoEnable", FIELD(bZupo), 0, Clamp::None, 0, 0},
    {"SERVER", "SessionBufSize", FIELD(nSessionBufSize), 16384, Clamp::None, 0, 0},
    {"SERVER", "CacheLimit", FIELD(nCacheSeconds), 10, Clamp::MinMax, 5, 60},
    {"SERVER", "LiveTime", FIELD(nLiveTime), 10, Clamp::ZeroMax, 120, 0},
    {"SERVER", "UdpStartPort", FIELD(nUdpStartPort), 50000, Clamp::Wrap16, 0, 0},
    {"SERVER", "UdpEndPort", FIELD(nUdpEndPort), 52000, Clamp::Wrap16, 0, 0},
    {"STORAGE", "AutoDelOldFile", FIELD(bAutoDelOldFile), 1, Clamp::None, 0, 0},
    {"STORAGE", "PreRecordLen", FIELD(nPreRecordLen), 3, Clamp::MaxOr, 10, 10},
    {"STORAGE", "MinutePerFile", FIELD(nMinutePerFile), 5, Clamp::MaxOr, 60, 60},
    {"STORAGE", "RecordEnable", FIELD(bRecord), 0, Clamp::None, 0, 0},
    {"INTEROP", "StandardPushers", FIELD(bStandardPushers), 0, Clamp::None, 0, 0},
    {"INTEROP", "StandardPlayers", FIELD(bStandardPlayers), 0, Clamp::None, 0, 0},
    {"GUARD", "SurvivePeerFaults", FIELD(bSurvivePeerFaults), 0, Clamp::None, 0, 0},
    {"GUARD", "RunUnprivileged", FIELD(bRunUnprivileged), 0, Clamp::None, 0, 0},
};

#undef FIELD

static int32_t Clamped(const NumberSetting *pRow, int32_t nValue)
{
    switch (pRow->clamp) {
        case Clamp::None:
            return nValue;
        case Clamp::MaxOr:
            return static_cast<uint32_t>(nValue) > static_cast<uint32_t>(pRow->nLimit) ? pRow->nInstead
                                                                                       : nValue;
        case Clamp::MinMax:
            return nValue < pRow->nLimit ? pRow->nLimit : nValue > pRow->nInstead ? pRow->nInstead : nValue;
        case Clamp::ZeroMax:
            if (nValue == 0)
                return 1;
            return static_cast<uint32_t>(nValue) > static_cast<uint32_t>(pRow->nLimit) ? pRow->nLimit
                                                                                       : nValue;
        case Clamp::Wrap16:
            return nValue & 0xFFFF;
    }
    return nValue;
}

static void ReadNumbers(Settings *pSettings, const char *szPath)
{
    for (const NumberSetting &row : g_numbers) {
        int32_t nValue = Clamped(&row, read_profile_int(row.szSection, row.szKey, row.nDefault, szPath));
        memcpy(reinterpret_cast<char *>(pSettings) + row.nOffset, &nValue, sizeof(nValue));
        if (row.nOffset == offsetof(Settings, bAutoDrop))
            print("AutoDropDataWhenCrowded=%d.\r\n", nValue);
    }
    pSettings->bRecord = pSettings->bRecord != 0;
}

static void ReadHttpProxy(Settings *pSettings, const char *szPath)
{
    if (!pSettings->bHttpProxy)
        return;
    read_profile_string("SERVER", "HttpProxyTargetIp", pSettings->szHttpProxyTargetIp,
                        sizeof(pSettings->szHttpProxyTargetIp), "127.0.0.1", szPath);
    pSettings->nHttpProxyTargetPort =
        static_cast<uint16_t>(read_profile_int("SERVER", "HttpProxyTargetPort", 8080, szPath));
    pSettings->nHttpProxyListenPort =
        static_cast<uint16_t>(read_profile_int("SERVER", "HttpProxyListenPort", 80, szPath));
}

static void ReadListenAddress(Settings *pSettings, const char *szPath)
{
    pSettings->nListenPort = read_profile_int("SERVER", "ListenPort", 554, szPath) & 0xFFFF;
    if (pSettings->nListenPort == 0)
        pSettings->nListenPort = 554;
    read_profile_string("SERVER", "ListenIp", pSettings->szListenIp, sizeof(pSettings->szListenIp), "0.0.0.0",
                        szPath);
    pSettings->nUnetPort =
        read_profile_int("SERVER", "UnetPort", static_cast<int>(pSettings->nListenPort), szPath) & 0xFFFF;
}

static int CheckUdpRange(const Settings *pSettings)
{
    if (pSettings->nUdpStartPort < 1000 || pSettings->nUdpStartPort > 65530) {
        print("Invalid UdpStartPort: %d!\r\n", pSettings->nUdpStartPort);
        return 0;
    }
    if (pSettings->nUdpEndPort < 1001 || pSettings->nUdpEndPort > 65534) {
        print("Invalid UdpEndPort: %d!\r\n", pSettings->nUdpEndPort);
        return 0;
    }
    if (pSettings->nUdpEndPort <= pSettings->nUdpStartPort) {
        print("Invalid UdpPort Range: from %d to %d!\r\n", pSettings->nUdpStartPort, pSettings->nUdpEndPort);
        return 0;
    }
    return 1;
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
    char szPath[512] = "";
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

int SettingsRead(Settings *pSettings, const char *szPath)
{
    if (!szPath || !szPath[0])
        return 0;
    if (!TextCopy(pSettings->szConfigPath, sizeof(pSettings->szConfigPath), szPath) ||
        !MakeGuidPath(pSettings)) {
        print("The configuration's path is too long: %s\r\n", szPath);
        return 0;
    }
    ReadNumbers(pSettings, szPath);
    ReadHttpProxy(pSettings, szPath);
    ReadListenAddress(pSettings, szPath);
    pSettings->nFileSendPeriod = kFileSendPeriodMs;
    char szRecordPath[128] = "";
    read_profile_string("STORAGE", "RecordPath", szRecordPath, sizeof(szRecordPath), "", szPath);
    pSettings->szRecordPath = SettingsRecordPath(szRecordPath);
    return pSettings->szRecordPath && CheckUdpRange(pSettings);
}

void SettingsFree(Settings *pSettings)
{
    free(pSettings->szRecordPath);
    *pSettings = Settings();
}

}  // namespace orx
