// What caches and queues took in a flood goes back to the system when they are empty again: the C library
// keeps the pages of freed packets as long as anything lies above them. Scheduler thread only.
#pragma once

namespace orx {

// Looks whether what the server holds has fallen far enough to be worth it; after each callback.
void GiveMemoryBack();

}  // namespace orx
