// What the tests of recording and playback share: a server that records below a directory of its own.
#pragma once

#include <string>
#include <vector>

#include "base/bytes.h"
#include "system/mediakit.h"
#include "system/orxprocess.h"

namespace orx {

// Where the records of a recording begin.
inline size_t DataOffset(const std::string &file)
{
    size_t n = 0;
    for (size_t nAt : {4U, 8U, 10U, 12U})
        n += GetBe(file.data() + nAt, 2);
    return n;
}

inline size_t RecordLength(const std::string &file, size_t nAt)
{
    return (size_t{GetBe(file.data() + nAt + 3, 1)} & 0x0F) << 16 | GetBe(file.data() + nAt, 2);
}

// Video records that are whole in the first nBytes.
inline size_t CountPictures(const std::string &file, size_t nBytes)
{
    size_t nPictures = 0;
    size_t nAt = DataOffset(file);
    while (nAt + 8 <= nBytes && nAt + RecordLength(file, nAt) <= nBytes) {
        nPictures += file[nAt + 2] == 'v';
        nAt += RecordLength(file, nAt);
    }
    return nPictures;
}

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
    void Record(Camera *pCamera, const std::string &name, int nPictures)
    {
        ASSERT_EQ(1, pCamera->Open(Url("camera-of-" + name)));
        ASSERT_EQ("200 OK", RecordEx(&pCamera->client, "FileName=" + File(name)));
        pCamera->Send(nPictures);
        pCamera->Flush();
        ASSERT_EQ("200 OK", RecordEx(&pCamera->client, "Cmd=stop"));
    }
};

}  // namespace orx
