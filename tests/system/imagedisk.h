// A file system of its own, on an image in a file. For a process in a mount namespace of its own.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace orx {

struct ImageDisk {
    std::string image, dir;  // the file; where it is mounted
    static bool Sh(const std::string &command) { return system((command + " >/dev/null 2>&1").c_str()) == 0; }
    bool Mount() const { return Sh("mount -o loop '" + image + "' '" + dir + "'"); }
    bool Make() const
    {
        std::filesystem::create_directories(dir);
        return Sh("truncate -s 300M '" + image + "'") && Sh("PATH=$PATH:/usr/sbin mkfs.ext4 -q -F '" + image + "'") &&
               Mount();
    }
};

}  // namespace orx
