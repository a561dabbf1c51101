// A player behind the relay that pauses for longer than a party may be silent. It takes that long, so only
// ORX_LONG=1 runs it.
#include <thread>

#include "remote/unet.h"
#include "support/sockets.h"
#include "system/systemtest.h"

using namespace orx;

TEST(RemoteSoak, APauseLosesNothing)
{
    if (!getenv("ORX_LONG"))
        GTEST_SKIP() << "takes half a minute: ORX_LONG=1 runs it";
    PortBlock ports;
    Listener rtsp;
    Unet unet;
    UnetSettings settings;
    settings.szBindIp = "127.0.0.1";
    settings.nRtspPort = rtsp.nPort;
    ASSERT_EQ(1, UnetStart(&unet, &settings));
    ToolProcess relay("orxrelay",
                      {"--listen", std::to_string(ports.nFirst), "127.0.0.1:" + std::to_string(unet.nPort)});
    ASSERT_TRUE(relay.WaitOutput("open rtsp"));
    Sock player = Connect(ports.nFirst), server = rtsp.Accept();
    ASSERT_GE(server.fd, 0);
    const std::string up = Pattern(3000000, 7), down = Pattern(30000000, 8);
    std::string gotUp;
    std::thread writer([&] { server.Send(down); });
    std::thread reader([&] { gotUp = server.Read(up.size()); });
    player.Send(up);
    std::this_thread::sleep_for(std::chrono::seconds(25));  // all buffers on the way are full by then
    EXPECT_TRUE(down == player.Read(down.size()));
    writer.join();
    reader.join();
    EXPECT_TRUE(up == gotUp);
    player.Close();
    EXPECT_TRUE(server.Closed(20000));
    UnetStop(&unet);
    EXPECT_EQ(0, CountText(relay.Output(), "orxrelay:"));
}
