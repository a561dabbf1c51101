// The packets between a box and its rendezvous server, and between that server and those who look for a box.
// Every packet is a head of 16 bytes and a payload, all numbers big-endian; each travels as one reliable
// packet. docs/protocol.md describes their use. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

constexpr int kZupoDefaultPort = 6323;  // of the rendezvous server
constexpr uint32_t kZupoHeadTag = 0x100;
constexpr size_t kZupoGuidSize = 32;    // an identity, NUL-padded; at most 31 characters
constexpr size_t kZupoAddressSize = 6;  // of an encoded ZupoAddress
constexpr size_t kZupoDeviceSize = 40;  // of an encoded DeviceInfo
constexpr size_t kZupoBoxSize = 46;     // of an encoded address and DeviceInfo
constexpr size_t kZupoPacketSize = 64;  // room for every packet there is
constexpr uint32_t kZupoAccepted = 1;   // nResult of a register or find reply
constexpr uint32_t kZupoRefused = 0;    // nResult: on the refusal list, or without a usable identity
constexpr uint32_t kZupoUnknown = 2;    // nResult of a find reply: no such box is registered

enum : uint32_t {
    ZUPO_REGISTER = 1001,        // box to server, a DeviceInfo
    ZUPO_REGISTER_REPLY = 1002,  // server to box, nResult and the box's address as the server sees it
    ZUPO_HEARTBEAT = 1003,       // box to server, no payload
    ZUPO_PUNCH = 1201,           // server to box, the address to open a path towards
    ZUPO_FIND = 2001,            // client to server, an identity
    ZUPO_FIND_REPLY = 2002,      // server to client, nResult and, accepted, the box's address and DeviceInfo
};

struct ZUPO_PACKET_HEAD {
    uint32_t nHeadTag = kZupoHeadTag;
    uint32_t nDataLen = 0;  // payload bytes
    uint32_t nCmd = 0;      // ZUPO_...
    uint32_t nResult = 0;
};
static_assert(sizeof(ZUPO_PACKET_HEAD) == 16, "the assertion texts speak of this size");

struct ZupoAddress {
    uint32_t nIp = 0;  // host order
    uint16_t nPort = 0;
};

struct DeviceInfo {
    char szGuid[kZupoGuidSize] = "";  // identity; the bytes behind it are 0
    uint32_t nPrivateIp = 0;          // in the box's own network, host order; 0 unknown
    uint16_t nPort = 0;               // of RTSP there
    uint16_t nMappedPort = 0;         // of RTSP at the router's public address; 0 without a mapping
};
static_assert(sizeof(DeviceInfo) == kZupoDeviceSize, "kept as it is sent");

// Reads the head of a packet of nLen bytes. Returns 1, or 0 with the head untouched when it is too short.
int ZupoHeadDecode(ZUPO_PACKET_HEAD *pHead, const void *pPacket, size_t nLen);
// Read a payload of exactly that kind at the start of nLen bytes. Return 1, or 0 with nothing touched when it
// is too short. An identity of 32 characters is cut to 31.
int ZupoAddressDecode(ZupoAddress *pAddress, const void *pData, size_t nLen);
int ZupoDeviceDecode(DeviceInfo *pInfo, const void *pData, size_t nLen);
int ZupoGuidDecode(char szGuid[kZupoGuidSize], const void *pData, size_t nLen);

// Make a whole packet in pPacket (kZupoPacketSize bytes). Return its length.
size_t ZupoEncode(uint8_t *pPacket, uint32_t nCmd, uint32_t nResult);  // without a payload
size_t ZupoEncodeAddress(uint8_t *pPacket, uint32_t nCmd, uint32_t nResult, const ZupoAddress *pAddress);
size_t ZupoEncodeRegister(uint8_t *pPacket, const DeviceInfo *pInfo);
size_t ZupoEncodeFind(uint8_t *pPacket, const char *szGuid);
size_t ZupoEncodeFound(uint8_t *pPacket, const ZupoAddress *pAddress, const DeviceInfo *pInfo);

}  // namespace orx
