// The camera process's end of its message queue, and its program; both in namespaces of the test's own.
#pragma once

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/files.h"
#include "support/namespaces.h"

namespace orx {

constexpr char kCameraProgram[] = "/opt/app/bin/pusher";

// A message as the camera process knows it: who sends it, and a text.
struct WireMsg {
    long nType = 0;
    int32_t nSender = 0;
    char text[1028] = "";
};
constexpr size_t kWireBytes = sizeof(WireMsg::nSender) + sizeof(WireMsg::text);

// Makes the program that the queue is known by, in namespaces of their own. Returns whether that may be.
inline bool MakeCameraProgram()
{
    if (!EnterNamespaces(CLONE_NEWIPC | CLONE_NEWNS) || !MountEmpty("/opt"))
        return false;
    std::filesystem::create_directories("/opt/app/bin");
    WriteFile(kCameraProgram, "");
    return true;
}

// The oldest command to the camera, as the text up to its end; "" when there is none.
inline std::string TakeCommand(int nQueue, int nSender)
{
    WireMsg msg;
    if (msgrcv(nQueue, &msg, kWireBytes, 1, IPC_NOWAIT) != ssize_t(kWireBytes))
        return "";
    EXPECT_EQ(nSender, msg.nSender);
    for (size_t i = strlen(msg.text); i < sizeof(msg.text); i++)
        EXPECT_EQ('\0', msg.text[i]);
    return msg.text;
}

}  // namespace orx
