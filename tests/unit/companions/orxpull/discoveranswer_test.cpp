#include "orxpull/discoveranswer.h"

#include <gtest/gtest.h>

using namespace orx;

static std::string Answer(const std::string &matches)
{
    return "<?xml version=\"1.0\"?><!-- <ProbeMatch> --><env:Envelope><env:Header><wsa:Action>x</wsa:Action>"
           "</env:Header><env:Body><d:ProbeMatches>" +
           matches + "</d:ProbeMatches></env:Body></env:Envelope>";
}

static std::string Match(const std::string &id, const std::string &addresses, const std::string &scopes = "")
{
    return "<d:ProbeMatch><wsa:EndpointReference><wsa:Address>" + id +
           "</wsa:Address></wsa:EndpointReference><d:Types>dn:NetworkVideoTransmitter</d:Types><d:Scopes x='>'>" +
           scopes + "</d:Scopes><d:XAddrs>" + addresses + "</d:XAddrs></d:ProbeMatch>";
}

TEST(DiscoverAnswer, TellsAddressesNameAndHardware)
{
    static const struct {
        std::string answer, line;
    } cases[] = {
        {Answer(Match("urn:uuid:1", "http://10.0.0.5/onvif\n http://[fe80::1]/onvif?a=1&amp;b=2 ",
                      "onvif://www.onvif.org/name/Front%20door onvif://www.onvif.org/hardware/IPC-12")),
         "http://10.0.0.5/onvif http://[fe80::1]/onvif?a=1&b=2  Front door  IPC-12"},
        {Answer(Match("urn:uuid:2", "")), "urn:uuid:2"},
        {Answer(Match("", "http://10.0.0.6/", "onvif://www.onvif.org/name/a%0A%1bb%zz%")),
         "http://10.0.0.6/  a??b%zz%"},
    };
    for (const auto &c : cases) {
        std::vector<DiscoveredCamera> cameras;
        ASSERT_EQ(1, DiscoverTake(c.answer, &cameras)) << c.answer;
        EXPECT_EQ(c.line, DiscoverLine(&cameras[0]));
        EXPECT_EQ(0, DiscoverTake(c.answer, &cameras)) << "it answers on another interface, too";
    }
}

TEST(DiscoverAnswer, TellsOfSeveral)
{
    std::vector<DiscoveredCamera> cameras;
    EXPECT_EQ(2, DiscoverTake(Answer(Match("a", "http://1/") + Match("b", "http://2/") + Match("", "")), &cameras));
    EXPECT_EQ(0, DiscoverTake(Answer(""), &cameras));
    EXPECT_EQ(0, DiscoverTake("", &cameras));
    EXPECT_EQ(0, DiscoverTake("<ProbeMatch/><ProbeMatch", &cameras));
}
