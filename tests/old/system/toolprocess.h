// One of the project's tools as a process, with its output.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/files.h"

namespace orx {

struct ToolProcess {
    // Starts bin/<name> of the build tree with an open standard input.
    ToolProcess(const std::string &name, const std::vector<std::string> &arguments);
    ~ToolProcess();  // kills it when it still runs
    ToolProcess(const ToolProcess &) = delete;
    ToolProcess &operator=(const ToolProcess &) = delete;

    void Type(const std::string &line) const;
    void Signal(int nSignal) const;
    // Waits for its end. Returns the exit status, 256 + n when signal n ended it, -1 when the time is over.
    int WaitExit(int nMs = 30000);
    std::string Output() const { return ReadFile(dir.File("output")); }  // on both outputs
    bool WaitOutput(const std::string &text, int nMs = 10000) const;

    TempDir dir;
    pid_t pid = -1;    // -1: not running
    int fdInput = -1;  // owned; its standard input
};

}  // namespace orx
