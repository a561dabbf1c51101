// A server that records below a directory of its own, and plays from there.
#pragma once

#include <string>

#include "system/mediakit.h"
#include "system/systemtest.h"

namespace orx {

struct RecordingTest : SystemTest {
    std::string root = server.dir.File("rec");

    RecordingTest()
    {
        server.Set("SERVER", "EnableFilePrg", "1");
        server.Set("STORAGE", "RecordEnable", "1");
        server.Set("STORAGE", "RecordPath", root);
    }
    std::string File(const std::string &name) const { return root + "/" + name; }
    std::string Url(const std::string &name) const { return server.Url("/" + name); }

    // Has the camera send so many pictures while they are recorded into a file of the root.
    void Record(Camera *pCamera, const std::string &name, int nPictures, const std::string &moreSdp = "")
    {
        ASSERT_EQ(1, pCamera->Open(Url("camera-of-" + name), moreSdp));
        ASSERT_EQ("200 OK", pCamera->Record("FileName=" + File(name)));
        pCamera->Send(nPictures);
        ASSERT_EQ("200 OK", pCamera->Record("Cmd=stop"));
    }
};

}  // namespace orx
