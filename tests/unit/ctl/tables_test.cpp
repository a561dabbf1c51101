#include "orxctl/tables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orx {

TEST(OrxCtlTest, TablesShowWhatIsKnown)
{
    JsonValue status;
    ASSERT_TRUE(JsonParse(R"({"programs":[{"program":"/\u001b[2J)"
                          "\xC2\x9B"
                          R"(ä","state":"live","bit_rate":512345,"players":2,
        "recordings":1,"last_packet_ms":null,"pusher":{"address":"1.2.3.4:5"},
        "tracks":[{"codec":"H264","width":640,"height":368,"frame_rate":25.01,"key_distance_ms":1000}]}]})",
                          &status));
    EXPECT_EQ(
        "PROGRAM STATE CODEC SIZE    FPS  BIT/S KEY ms AGE ms PLAY REC PUSHER\n"
        "/?[2J?ä live  H264  640x368 25.0 512k  1000   -      2    1   1.2.3.4:5\n",
        ProgramsTable(status, 0));
    EXPECT_EQ("PROGRAM\n/?[2J?ä\n", ProgramsTable(status, 7));
    EXPECT_EQ("a?b\n?[2J?", TerminalText("a\xE2\x80\xAE"
                                         "b\n\x1B[2J\xE2\x81\xA6"));
    EXPECT_THAT(SessionsTable(status, 0), testing::StartsWith("SESSION"));
    EXPECT_THAT(StatusTable(JsonValue(), 80), testing::HasSubstr("relay       off"));
}

TEST(OrxCtlTest, WhatIsNoJsonIsRefused)
{
    JsonValue value;
    for (const char *sz : {"", "{", "{\"a\"}", "[1,]", "\"\\", "[1] 2", "nul", "{\"a\":1"})
        EXPECT_FALSE(JsonParse(sz, &value)) << sz;
    EXPECT_FALSE(JsonParse(std::string(100, '['), &value)) << "too deep";
    EXPECT_TRUE(JsonParse(" {\"a\" : [ 1.5e3 , {} , [] , true ] } ", &value));
    EXPECT_EQ(1500, JsonToNumber(JsonMember(value, "a").items[0]));
}

}  // namespace orx
