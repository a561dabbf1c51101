// What orxweb takes of the server's configuration file: its own section, and how the server is reached.
// Any thread.
#pragma once

#include <memory>
#include <string>

#include "net/addrlist.h"

namespace orx {

struct WebSettings {
    // [WEB]
    std::string listen;     // Listen: an address, "::" for both families
    int nPort = 8080;       // Port
    std::string title;      // Title
    std::string cachePath;  // CachePath
    // of the server
    std::string socketPath;  // [STATUS] Socket
    std::string recordPath;  // [STORAGE] RecordPath; ends in '/'
    std::string logFile;     // [LOG] File; empty: none
    std::string rtspBase;    // rtsp://HOST:PORT/
    int nAuthType = 0;       // [SERVER] AuthType
    int bHttpProxy = 0;      // [SERVER] EnableHttpProxy
    std::string superUser;   // [USERS] SuperUser; empty: there is none
    AddrList proxyFrom;      // [INTEROP] ProxyProtocolFrom
};

// Reads the file. Returns 1, or 0 when it cannot be read.
int WebSettingsRead(const std::string &path, WebSettings *pOut);

// Keeps the settings of a file at hand, and reads it anew when it has changed (looked at once a second).
// What listens is as it was at the start. Returns 1 or 0, as WebSettingsRead.
int WebSettingsUse(const std::string &path);
std::shared_ptr<const WebSettings> WebSettingsNow();

}  // namespace orx
