#include "shared/pinfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/fdguard.h"

namespace orx {

constexpr size_t kMostBytes = 1 << 20;  // some ten thousand peers

// Returns 1 with the text, empty when there is no file yet; 0 with errno.
static int ReadPins(const std::string &file, std::string *pText)
{
    FdGuard in(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.fd < 0)
        return errno == ENOENT;
    char buf[4096];
    ssize_t n;
    while ((n = read(in.fd, buf, sizeof buf)) > 0) {
        pText->append(buf, static_cast<size_t>(n));
        if (pText->size() > kMostBytes) {
            errno = EFBIG;
            return 0;
        }
    }
    return n == 0;
}

// A file of its own beside the old one takes its place: a reader sees the one or the other.
static int WritePins(const std::string &file, const std::string &text)
{
    std::string fresh = file + "." + std::to_string(getpid());
    FdGuard out(open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (out.fd < 0)
        return 0;
    ssize_t n = write(out.fd, text.data(), text.size());
    if (n == static_cast<ssize_t>(text.size()) && rename(fresh.c_str(), file.c_str()) == 0)
        return 1;
    int nError = n < 0 || n == static_cast<ssize_t>(text.size()) ? errno : ENOSPC;
    unlink(fresh.c_str());
    errno = nError;
    return 0;
}

// The digest that a line gives for the peer; empty when it is another's.
static std::string_view PinOf(std::string_view line, std::string_view peer)
{
    constexpr std::string_view kKey = " sha256=";
    if (line.substr(0, peer.size()) != peer || line.substr(peer.size(), kKey.size()) != kKey)
        return {};
    line.remove_prefix(peer.size() + kKey.size());
    return line.substr(0, line.find_last_not_of(" \t\r") + 1);
}

static std::string_view FindPin(std::string_view text, std::string_view peer)
{
    while (!text.empty()) {
        size_t nEnd = std::min(text.find('\n'), text.size());
        std::string_view pin = PinOf(text.substr(0, nEnd), peer);
        if (!pin.empty())
            return pin;
        text.remove_prefix(std::min(nEnd + 1, text.size()));
    }
    return {};
}

PinState PinCheck(const std::string &file, const std::string &peer, const std::string &hexPrint,
                  std::string *pWhy)
{
    std::string text;
    if (!ReadPins(file, &text)) {
        *pWhy = file + " cannot be read: " + strerror(errno);
        return PinState::Failed;
    }
    std::string_view pin = FindPin(text, peer);
    if (!pin.empty())
        return strcasecmp(std::string(pin).c_str(), hexPrint.c_str()) == 0 ? PinState::Same
                                                                           : PinState::Changed;
    if (!text.empty() && text.back() != '\n')
        text += '\n';
    if (WritePins(file, text + peer + " sha256=" + hexPrint + "\n"))
        return PinState::New;
    *pWhy = file + " cannot be written: " + strerror(errno);
    return PinState::Failed;
}

}  // namespace orx
