// The box's IPv4 default route. No state: any thread, but changes are left to one, since setting a gateway
// takes several steps.
#pragma once

#include <cstddef>

namespace orx {

// The gateway of the first default route that is up, as dotted text. Returns 0, with szOut untouched when
// there is no default route; -1 when the routing table cannot be read; -2 when a line of it is malformed, or
// the text does not fit nOut bytes (kIpTextSize always does).
int NetGetGateway(char *szOut, size_t nOut);

// The same from the file szPath, which looks like /proc/net/route.
int NetReadGateway(const char *szPath, char *szOut, size_t nOut);

// Deletes the default route through szGateway; "0.0.0.0" stands for any. Returns 0 or -1.
int NetDelGateway(const char *szGateway);

// Replaces the current default route, if there is one, by one through szGateway. Returns 0, or -1 when the
// text is no address or the kernel refuses the route, as it does when no interface reaches the gateway: the
// route of before is then set again.
int NetSetGateway(const char *szGateway);

}  // namespace orx
