// What fuzz targets share: faults of peers are survived and nothing is printed, and what is handed to the
// code under test has a block of its very size, so that the address sanitizer sees a step past its end.
#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"
#include "support/files.h"

extern "C" inline __attribute__((used)) int LLVMFuzzerInitialize(int *, char ***)
{
    orx::ConsoleSetDaemon(1);
    orx::AssertSurvivePeerFaults(1);
    return 0;
}

namespace orx {

inline std::string Text(const void *p, size_t nBytes)
{
    return {static_cast<const char *>(p), nBytes};
}

template <typename Byte = uint8_t>
std::unique_ptr<Byte[]> Exact(const void *p, size_t nBytes)
{
    std::unique_ptr<Byte[]> copy(new Byte[nBytes]);
    std::copy_n(static_cast<const Byte *>(p), nBytes, copy.get());
    return copy;
}

// A file in memory, so that nothing is written to disk.
inline const std::string &ScratchFile()
{
    static const std::string path = "/proc/self/fd/" + std::to_string(memfd_create("fuzz", MFD_CLOEXEC));
    return path;
}

}  // namespace orx
