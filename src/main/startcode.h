// What the start leaves in memory without need.
#pragma once

namespace orx {

// Unmaps the pages of program and libraries that have been read in so far. What is needed comes back, a few
// pages at a time, from the system's copy of the file; what only the start ran, and what the system had mapped
// around it, stays out. Main thread, once the server serves. Does nothing in builds for a debugger, whose
// breakpoints would go with the pages.
void DropStartCode();

}  // namespace orx
