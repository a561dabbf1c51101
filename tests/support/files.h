// A directory of its own for a test, and whole files in one call.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

namespace orx {

struct TempDir {
    std::string path;

    TempDir()
    {
        std::string name = std::filesystem::temp_directory_path() / "orx-test-XXXXXX";
        path = mkdtemp(name.data()) ? name : "";
    }
    ~TempDir() { std::filesystem::remove_all(path); }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    std::string File(const std::string &name) const { return path + "/" + name; }
};

inline void WriteFile(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();  // not byte by byte: recordings have many
    return std::move(out).str();
}

}  // namespace orx
