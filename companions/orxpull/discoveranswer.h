// What a device answers to a probe of WS-Discovery, as ONVIF cameras do: an XML text of a stranger, of which
// a few elements are read. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orx {

struct DiscoveredCamera {
    std::string id;                      // of the device, always the same; "urn:uuid:..."
    std::vector<std::string> addresses;  // URLs of its services
    std::string name, hardware;          // of its scopes, percent-decoded; empty: not told
};

// Adds the devices of an answer to those that are there, one more for each new id. Texts are cut to what a
// line can show, and nothing unprintable is in them. Returns how many were new.
int DiscoverTake(std::string_view xml, std::vector<DiscoveredCamera> *pCameras);

// "http://192.168.1.20/onvif/device_service  Front door  IPC-1234"
std::string DiscoverLine(const DiscoveredCamera *pCamera);

// The question. id: a UUID of its own for every message.
std::string DiscoverProbe(const std::string &id);

}  // namespace orx
