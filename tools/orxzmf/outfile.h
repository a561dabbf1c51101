// A file that is made beside the one it is to become, and takes its name when it is whole: whatever goes
// wrong, a file that was there stays. Who cancels the program (SIGHUP, SIGINT, SIGTERM) leaves none beside
// it. One at a time.
#pragma once

#include <cstdio>
#include <string>

namespace orx {

struct OutFile {
    std::string path;    // what it becomes
    std::string beside;  // where it is made, in the same directory
};

// Makes the file, empty. Returns 1, or 0 with the reason on standard error.
int OutFileBegin(OutFile *pFile, const std::string &path);

// Gives the file, which nobody has open any more, its name when bGood, else removes it. Returns whether it is
// there now; a failure is on standard error.
int OutFileEnd(OutFile *pFile, int bGood);

}  // namespace orx
