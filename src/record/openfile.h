// Whether a recording is being written by another process. Any thread.
#pragma once

namespace orx {

// Whether a program has the file open for writing: 1 or 0. The kernel tells it to the file's owner and to
// root; where it does not, a recording without its final name that changed lately counts as being written.
// From then on the process ignores SIGIO, which the kernel sends when somebody opens the file meanwhile.
int IsBeingWritten(const char *szFile);

}  // namespace orx
