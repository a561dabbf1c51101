// The profile store. An input's first three lines are a section, a key and a value; the rest is the INI text.
#include "base/inifile.h"

#include <cctype>

#include "fuzz/fuzz.h"

using namespace orx;

struct Input {
    std::string section, key, value, text;
};

static std::string TakeLine(std::string *pText)
{
    size_t nEnd = std::min(pText->find('\n'), pText->size());
    std::string line = pText->substr(0, nEnd);
    pText->erase(0, nEnd + 1);
    return line.substr(0, line.find('\0'));
}

static bool IsPlain(const std::string &name)
{
    return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) { return isalnum(c); });
}

static void CheckParse(const Input &in)
{
    auto text = Exact<char>(in.text.c_str(), in.text.size() + 1);
    int nSec, nBody, nKey, nKeyEnd, nValue, nEnd;
    int bFound =
        parse_file(in.section.c_str(), in.key.c_str(), text.get(), &nSec, &nBody, &nKey, &nKeyEnd, &nValue, &nEnd);
    int nLen = int(strlen(text.get()));
    ORX_ASSERT(nSec <= nBody && nBody <= nLen, "the section lies in the text");
    ORX_ASSERT(!bFound || (nBody <= nKey && nKey <= nKeyEnd && nKeyEnd + 2 == nValue && nValue <= nEnd &&
                           nEnd <= nLen && in.key == Text(text.get() + nKey, size_t(nKeyEnd + 1 - nKey))),
               "the line lies in the section, with the key asked for");
}

static void CheckRead(const Input &in)
{
    const std::string memory = "inmem:" + in.text;
    auto text = Exact<char>(memory.c_str(), memory.size() + 1);
    const char *szSection = in.section.c_str(), *szKey = in.key.c_str();
    char value[8];
    read_profile_string(szSection, szKey, value, sizeof(value), in.value.c_str(), text.get());
    read_profile_int(szSection, szKey, 0, text.get());
    check_profile_key(szSection, szKey, text.get());
    WriteFile(ScratchFile(), in.text);
    Profile *pHandle = ProfileInit(ScratchFile().c_str());
    if (pHandle) {
        ProfileGetStr(szSection, szKey, value, sizeof(value), nullptr, pHandle);
        ProfileHasSection(szSection, pHandle);
    }
    ProfileFree(pHandle);
}

// What was written can be read where the key or the section is certain to be found again.
static void CheckWrite(const Input &in)
{
    const char *szFile = ScratchFile().c_str(), *szSection = in.section.c_str(), *szKey = in.key.c_str();
    WriteFile(ScratchFile(), in.text);
    int bHadKey = check_profile_key(szSection, szKey, szFile);
    int bWritten = write_profile_string(szSection, szKey, in.value.c_str(), szFile);
    std::string after = ReadFile(ScratchFile());
    ORX_ASSERT(bWritten ? after.size() < kProfileTextSize : after == in.text, "it fits or is unchanged");
    bool bFresh = in.text.find("[" + in.section) == std::string::npos;
    if (!bWritten || !(bHadKey || bFresh) || !IsPlain(in.section) || !IsPlain(in.key) || !IsPlain(in.value))
        return;
    char value[kProfileTextSize];
    ORX_ASSERT(read_profile_string(szSection, szKey, value, sizeof(value), nullptr, szFile) && in.value == value,
               "the key is there, with the value written");
}

// Files and texts in memory come out the same.
static void CheckRemove(const Input &in, bool bSection)
{
    auto remove = [&](char *file) {
        return bSection ? remove_profile_section(in.section.c_str(), file)
                        : remove_profile_key(in.section.c_str(), in.key.c_str(), file);
    };
    const std::string memory = "inmem:" + in.text;
    auto text = Exact<char>(memory.c_str(), memory.size() + 1);
    int bRemoved = remove(text.get());
    ORX_ASSERT(strlen(text.get()) <= strlen(memory.c_str()), "nothing is added");
    if (in.text.size() >= kProfileTextSize || in.text.find_first_of(std::string("\0\xff", 2)) != std::string::npos)
        return;
    WriteFile(ScratchFile(), in.text);
    std::string path = ScratchFile();
    ORX_ASSERT(remove(path.data()) == bRemoved, "the same result");
    ORX_ASSERT("inmem:" + ReadFile(ScratchFile()) == text.get(), "the same text");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    Input in;
    in.text = Text(pData, nBytes);
    in.section = TakeLine(&in.text);
    in.key = TakeLine(&in.text);
    in.value = TakeLine(&in.text);
    CheckParse(in);
    CheckRead(in);
    CheckWrite(in);
    CheckRemove(in, false);
    CheckRemove(in, true);
    WriteFile(ScratchFile(), "[" + in.section + "]\n" + in.key + "=" + in.value + "\n");
    Update2IniFile(ScratchFile().c_str(), in.text.substr(0, 2000).data());  // every line rewrites the file
    return 0;
}
