// The profile store. An input's first three lines are a section, a key and a value; the rest is the INI text.
#include "base/inifile.h"

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <algorithm>
#include <memory>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

#include "base/assertion.h"
#include "base/console.h"
#include "support/files.h"

using namespace orx;

namespace {

struct Input {
    std::string section, key, value, text;
};

// A copy of its very size, so that the address sanitizer sees a step past its end.
std::unique_ptr<char[]> Copy(const std::string &text)
{
    std::unique_ptr<char[]> copy(new char[text.size() + 1]);
    memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

std::string TakeLine(std::string *pText)
{
    size_t nEnd = std::min(pText->find('\n'), pText->size());
    std::string line = pText->substr(0, nEnd);
    pText->erase(0, nEnd + 1);
    return line.substr(0, line.find('\0'));
}

bool IsPlain(const std::string &name)
{
    return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) { return isalnum(c); });
}

// A file in memory, so that nothing is written to disk.
const std::string &ScratchFile()
{
    static const std::string path = "/proc/self/fd/" + std::to_string(memfd_create("inifile", MFD_CLOEXEC));
    return path;
}

void CheckParse(const Input &in)
{
    auto text = Copy(in.text);
    int nSec, nBody, nKey, nKeyEnd, nValue, nEnd;
    int bFound = parse_file(in.section.c_str(), in.key.c_str(), text.get(), &nSec, &nBody, &nKey, &nKeyEnd,
                            &nValue, &nEnd);
    int nLen = int(strlen(text.get()));
    ORX_ASSERT(nSec <= nBody && nBody <= nLen, "the section lies in the text");
    if (!bFound)
        return;
    ORX_ASSERT(nBody <= nKey && nKey <= nKeyEnd && nKeyEnd + 2 == nValue && nValue <= nEnd && nEnd <= nLen,
               "the line lies in the section");
    ORX_ASSERT(in.key == std::string(text.get() + nKey, text.get() + nKeyEnd + 1),
               "the key is the one asked for");
}

void CheckRead(const Input &in)
{
    auto text = Copy("inmem:" + in.text);
    char value[8];
    read_profile_string(in.section.c_str(), in.key.c_str(), value, sizeof(value), in.value.c_str(),
                        text.get());
    read_profile_int(in.section.c_str(), in.key.c_str(), 0, text.get());
    check_profile_key(in.section.c_str(), in.key.c_str(), text.get());

    WriteFile(ScratchFile(), in.text);
    Profile *pHandle = ProfileInit(ScratchFile().c_str());
    if (pHandle) {
        ProfileGetStr(in.section.c_str(), in.key.c_str(), value, sizeof(value), nullptr, pHandle);
        ProfileHasSection(in.section.c_str(), pHandle);
    }
    ProfileFree(pHandle);
}

// What was written can be read where the key or the section is certain to be found again.
void CheckWrite(const Input &in)
{
    const char *szFile = ScratchFile().c_str(), *szSection = in.section.c_str(), *szKey = in.key.c_str();
    WriteFile(ScratchFile(), in.text);
    int bHadKey = check_profile_key(szSection, szKey, szFile);
    int bWritten = write_profile_string(szSection, szKey, in.value.c_str(), szFile);
    std::string after = ReadFile(ScratchFile());
    ORX_ASSERT(bWritten ? after.size() < kProfileTextSize : after == in.text,
               "the file fits or is as it was");
    bool bFresh = in.text.find("[" + in.section) == std::string::npos;
    if (!bWritten || !(bHadKey || bFresh) || !IsPlain(in.section) || !IsPlain(in.key) || !IsPlain(in.value))
        return;
    char value[kProfileTextSize];
    ORX_ASSERT(read_profile_string(szSection, szKey, value, sizeof(value), nullptr, szFile),
               "the key is there");
    ORX_ASSERT(in.value == value, "the value is the one written");
}

// Files and texts in memory come out the same.
void CheckRemove(const Input &in, bool bSection)
{
    auto remove = [&](char *file) {
        return bSection ? remove_profile_section(in.section.c_str(), file)
                        : remove_profile_key(in.section.c_str(), in.key.c_str(), file);
    };
    auto text = Copy("inmem:" + in.text);
    int bRemoved = remove(text.get());
    ORX_ASSERT(strlen(text.get()) <= strlen(("inmem:" + in.text).c_str()), "nothing is added");
    if (in.text.size() >= kProfileTextSize ||
        in.text.find_first_of(std::string("\0\xff", 2)) != std::string::npos)
        return;
    WriteFile(ScratchFile(), in.text);
    auto path = Copy(ScratchFile());
    ORX_ASSERT(remove(path.get()) == bRemoved, "the same result");
    ORX_ASSERT(ReadFile(ScratchFile()) == text.get() + strlen("inmem:"), "the same text");
}

void CheckMerge(const Input &in)
{
    WriteFile(ScratchFile(), "[" + in.section + "]\n" + in.key + "=" + in.value + "\n");
    auto text = Copy(in.text.substr(0, 2000));  // every line rewrites the file
    Update2IniFile(ScratchFile().c_str(), text.get());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    ConsoleSetDaemon(1);
    AssertSurvivePeerFaults(1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    Input in;
    in.text.assign(reinterpret_cast<const char *>(pData), nBytes);
    in.section = TakeLine(&in.text);
    in.key = TakeLine(&in.text);
    in.value = TakeLine(&in.text);
    CheckParse(in);
    CheckRead(in);
    CheckWrite(in);
    CheckRemove(in, false);
    CheckRemove(in, true);
    CheckMerge(in);
    return 0;
}
