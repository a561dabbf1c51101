// Runs a fuzz target without libFuzzer: once over every file in the folders named. Fails when there is none.
#include <cstdint>
#include <cstdio>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *pArgc, char ***pppArgv);

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++)
        for (const auto &entry : std::filesystem::directory_iterator(argv[i]))
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const auto &file : files) {
        fprintf(stderr, "%s\n", file.c_str());
        std::string content = orx::ReadFile(file);
        // a block of its very size, so that the address sanitizer sees a read past its end, and never null
        std::unique_ptr<uint8_t[]> bytes(new uint8_t[content.size()]);
        std::copy(content.begin(), content.end(), bytes.get());
        LLVMFuzzerTestOneInput(bytes.get(), content.size());
    }
    printf("%zu inputs\n", files.size());
    return files.empty();
}
