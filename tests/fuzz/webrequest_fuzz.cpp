// What visitors of orxweb write: each line of the input goes to every reader, and what comes out of it goes into
// pages, addresses and headers.
#include "orxweb/httpread.h"

#include <cstring>

#include "fuzz/fuzz.h"
#include "orxweb/webtext.h"

using namespace orx;

static void Line(std::string_view line)
{
    std::string out, password;
    if (UrlDecode(line, 1, &out))
        ORX_ASSERT(out.find('\n') == std::string::npos && out.find('\0') == std::string::npos, "a text of one line");
    FormValue(line, "name", &out);
    CookieValue(line, "orxweb");
    HttpRange range;
    if (RangeRead(line, 1000, &range) == RangeResult::Part)
        ORX_ASSERT(range.nFirst <= range.nLast && range.nLast < 1000, "a range inside");
    ORX_ASSERT(LanguageOf(line, "en de").size() == 2, "one of the languages");
    BasicRead(line, &out, &password);
    TagListed(line, "\"tag\"");
    OriginIsHost(line, "box");
    std::string target = LocalTarget(line);
    ORX_ASSERT(target[0] == '/' && target[1] != '/', "a path of this site");
    for (int bRecording : {0, 1}) {
        ProgramAddress address = ProgramAddressRead(line, bRecording);
        if (address.kind != AddressKind::None)
            ORX_ASSERT(ProgramAddressRead(UrlProgram(address.program), 0).program == address.program, "comes back");
    }
    ORX_ASSERT(Html(line).find_first_of("<>\"'") == std::string::npos, "no markup");
    out = AttachmentAs(line);
    ORX_ASSERT(out.find_first_of("\r\n") == std::string::npos, "one header");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    std::string text = Text(pData, nBytes);
    for (size_t n = 0; n <= text.size();) {
        size_t nEnd = std::min(text.find('\n', n), text.size());
        auto copy = Exact<char>(text.c_str() + n, nEnd - n);
        Line({copy.get(), nEnd - n});
        n = nEnd + 1;
    }
    return 0;
}
