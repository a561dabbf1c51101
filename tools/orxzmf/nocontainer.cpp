// Stands in for containers built without libavformat.
#include <cstdio>

#include "export.h"

namespace orx {

int ExportContainer(Recording *, const std::string &out)
{
    fprintf(
        stderr,
        "%s: this orxzmf was built without libavformat and cannot write .mp4 or .mkv. Install the packages\n"
        "libavformat-dev, libavcodec-dev and libavutil-dev and build it again.\n",
        out.c_str());
    return 0;
}

}  // namespace orx
