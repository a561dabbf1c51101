// Packets of the rendezvous protocol: what a decoder accepts encodes to the bytes it was read from.
#include "remote/zupo.h"

#include "fuzz/fuzz.h"

using namespace orx;

static constexpr size_t kHead = sizeof(ZUPO_PACKET_HEAD);

static void CheckAddress(const uint8_t *pData, size_t nBytes)
{
    ZupoAddress address;
    uint8_t packet[kZupoPacketSize];
    if (!ZupoAddressDecode(&address, pData, nBytes))
        return;
    size_t nLen = ZupoEncodeAddress(packet, ZUPO_PUNCH, 0, &address);
    ORX_ASSERT(nLen == kHead + kZupoAddressSize, "the head and six bytes");
    ORX_ASSERT(memcmp(packet + kHead, pData, kZupoAddressSize) == 0, "the same address");
}

static void CheckDevice(const uint8_t *pData, size_t nBytes)
{
    DeviceInfo info, again;
    uint8_t packet[kZupoPacketSize];
    if (!ZupoDeviceDecode(&info, pData, nBytes))
        return;
    ORX_ASSERT(strnlen(info.szGuid, sizeof(info.szGuid)) < sizeof(info.szGuid), "the identity is terminated");
    size_t nLen = ZupoEncodeRegister(packet, &info);
    ORX_ASSERT(nLen == kHead + kZupoDeviceSize, "the head and forty bytes");
    ORX_ASSERT(ZupoDeviceDecode(&again, packet + kHead, nLen - kHead), "readable");
    ORX_ASSERT(memcmp(&info, &again, sizeof(info)) == 0, "the same device, with nothing behind its identity");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    ZUPO_PACKET_HEAD head;
    char szGuid[kZupoGuidSize];
    if (!ZupoHeadDecode(&head, pData, nBytes))
        return 0;
    CheckAddress(pData + kHead, nBytes - kHead);
    CheckDevice(pData + kHead, nBytes - kHead);
    ZupoGuidDecode(szGuid, pData + kHead, nBytes - kHead);
    return 0;
}
