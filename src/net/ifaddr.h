// The IPv4 and hardware addresses of the box's network interfaces, read and changed by ioctls on a throw-away
// socket.
//
// An interface name has at most 15 characters; a longer one is refused, never cut, as that would be another
// interface. Addresses are texts in dotted form. errno tells why an ioctl failed. No state: any thread, but
// changes are left to one, since they read and restore the default route in several steps.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

constexpr size_t kIpTextSize = 16;   // "255.255.255.255" and a NUL
constexpr size_t kMacTextSize = 13;  // twelve hex digits and a NUL
constexpr size_t kMacBytes = 6;

// The interface's address, netmask or broadcast address. Returns 0, or -1 with szOut untouched when there is
// no such interface, it has no such address, or the text does not fit nOut bytes (kIpTextSize always does).
int NetGetAddress(const char *szInterface, char *szOut, size_t nOut);
int NetGetNetmask(const char *szInterface, char *szOut, size_t nOut);
int NetGetBroadcast(const char *szInterface, char *szOut, size_t nOut);

// Changes the address or the netmask and sets the default gateway of before once more, as the kernel drops
// the route together with the old address. Returns 0, or -1 when the change was refused or the text is no
// address. A gateway that cannot be reached from the new address stays lost, which is no failure: its
// successor can only be set after the address.
int NetSetAddress(const char *szInterface, const char *szAddress);
int NetSetNetmask(const char *szInterface, const char *szNetmask);

// The hardware address as twelve lower-case hex digits. Returns 0, or what the ioctl gave when it failed: -1.
int NetGetMac(const char *szInterface, char *szOut, size_t nOut);

// Changes the hardware address (see NetParseMac). Returns 0; -1 without a socket; -2 for a malformed address;
// -3 when it was refused, as most hardware does while the interface is up; -4 when the table of interface
// options has no "hw".
int NetSetMac(const char *szInterface, const char *szMac);

// Reads six groups of one or two hex digits, each next one behind a ':' or at once. Returns 1, or 0 when the
// text is anything else or goes on.
int NetParseMac(const char *szMac, uint8_t *pMac);

}  // namespace orx
