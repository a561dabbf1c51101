#include "remote/zupo.h"

#include <cstring>

#include "base/bytes.h"

namespace orx {

constexpr size_t kHeadSize = sizeof(ZUPO_PACKET_HEAD);
static_assert(kHeadSize + kZupoBoxSize <= kZupoPacketSize, "the longest packet fits");

int ZupoHeadDecode(ZUPO_PACKET_HEAD *pHead, const void *pPacket, size_t nLen)
{
    ByteReader in{static_cast<const uint8_t *>(pPacket), nLen};
    ZUPO_PACKET_HEAD head;
    head.nHeadTag = ReadBe(&in, 4);
    head.nDataLen = ReadBe(&in, 4);
    head.nCmd = ReadBe(&in, 4);
    head.nResult = ReadBe(&in, 4);
    if (in.bFailed)
        return 0;
    *pHead = head;
    return 1;
}

int ZupoAddressDecode(ZupoAddress *pAddress, const void *pData, size_t nLen)
{
    ByteReader in{static_cast<const uint8_t *>(pData), nLen};
    ZupoAddress address;
    address.nIp = ReadBe(&in, 4);
    address.nPort = static_cast<uint16_t>(ReadBe(&in, 2));
    if (in.bFailed)
        return 0;
    *pAddress = address;
    return 1;
}

static void ReadGuid(ByteReader *pIn, char szGuid[kZupoGuidSize])
{
    const uint8_t *p = ReadBytes(pIn, kZupoGuidSize);
    memset(szGuid, 0, kZupoGuidSize);
    if (p)
        memcpy(szGuid, p, strnlen(reinterpret_cast<const char *>(p), kZupoGuidSize - 1));
}

int ZupoDeviceDecode(DeviceInfo *pInfo, const void *pData, size_t nLen)
{
    ByteReader in{static_cast<const uint8_t *>(pData), nLen};
    DeviceInfo info;
    ReadGuid(&in, info.szGuid);
    info.nPrivateIp = ReadBe(&in, 4);
    info.nPort = static_cast<uint16_t>(ReadBe(&in, 2));
    info.nMappedPort = static_cast<uint16_t>(ReadBe(&in, 2));
    if (in.bFailed)
        return 0;
    *pInfo = info;
    return 1;
}

int ZupoGuidDecode(char szGuid[kZupoGuidSize], const void *pData, size_t nLen)
{
    ByteReader in{static_cast<const uint8_t *>(pData), nLen};
    if (nLen < kZupoGuidSize)
        return 0;
    ReadGuid(&in, szGuid);
    return 1;
}

static uint8_t *PutHead(uint8_t *pPacket, uint32_t nDataLen, uint32_t nCmd, uint32_t nResult)
{
    PutBe(pPacket, 4, kZupoHeadTag);
    PutBe(pPacket + 4, 4, nDataLen);
    PutBe(pPacket + 8, 4, nCmd);
    PutBe(pPacket + 12, 4, nResult);
    return pPacket + kHeadSize;
}

static uint8_t *PutAddress(uint8_t *p, const ZupoAddress *pAddress)
{
    PutBe(p, 4, pAddress->nIp);
    PutBe(p + 4, 2, pAddress->nPort);
    return p + kZupoAddressSize;
}

static uint8_t *PutGuid(uint8_t *p, const char *szGuid)
{
    size_t nLen = strnlen(szGuid, kZupoGuidSize - 1);
    memset(p, 0, kZupoGuidSize);
    memcpy(p, szGuid, nLen);
    return p + kZupoGuidSize;
}

static uint8_t *PutDevice(uint8_t *p, const DeviceInfo *pInfo)
{
    p = PutGuid(p, pInfo->szGuid);
    PutBe(p, 4, pInfo->nPrivateIp);
    PutBe(p + 4, 2, pInfo->nPort);
    PutBe(p + 6, 2, pInfo->nMappedPort);
    return p + 8;
}

size_t ZupoEncode(uint8_t *pPacket, uint32_t nCmd, uint32_t nResult)
{
    return static_cast<size_t>(PutHead(pPacket, 0, nCmd, nResult) - pPacket);
}

size_t ZupoEncodeAddress(uint8_t *pPacket, uint32_t nCmd, uint32_t nResult, const ZupoAddress *pAddress)
{
    uint8_t *p = PutHead(pPacket, kZupoAddressSize, nCmd, nResult);
    return static_cast<size_t>(PutAddress(p, pAddress) - pPacket);
}

size_t ZupoEncodeRegister(uint8_t *pPacket, const DeviceInfo *pInfo)
{
    uint8_t *p = PutHead(pPacket, kZupoDeviceSize, ZUPO_REGISTER, 0);
    return static_cast<size_t>(PutDevice(p, pInfo) - pPacket);
}

size_t ZupoEncodeFind(uint8_t *pPacket, const char *szGuid)
{
    uint8_t *p = PutHead(pPacket, kZupoGuidSize, ZUPO_FIND, 0);
    return static_cast<size_t>(PutGuid(p, szGuid) - pPacket);
}

size_t ZupoEncodeFound(uint8_t *pPacket, const ZupoAddress *pAddress, const DeviceInfo *pInfo)
{
    uint8_t *p = PutAddress(PutHead(pPacket, kZupoBoxSize, ZUPO_FIND_REPLY, kZupoAccepted), pAddress);
    return static_cast<size_t>(PutDevice(p, pInfo) - pPacket);
}

}  // namespace orx
