// TLS on a descriptor that does not block, the client's side. Certificates are judged by pins alone (see
// pinfile.h): those of cameras are their own. The loop's thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace orx {

struct Tls;  // about 40 kB while it stands

enum class TlsStep {
    Done,
    Read,   // again once the descriptor can be read
    Write,  // again once it can be written
    Closed,
    Failed,  // *pWhy says why
};

int TlsBuiltIn();  // 0: built without OpenSSL, and TlsStart gives null
// szName: the host, for SNI where it is a name. Returns null without memory.
Tls *TlsStart(int fd, const char *szName);
void TlsFree(Tls *pTls);  // ignores null; takes leave of the peer where that does not block

TlsStep TlsShake(Tls *pTls, std::string *pWhy);
// The SHA-256 digest of the peer's certificate in hex, after the handshake; empty without one.
std::string TlsPrint(const Tls *pTls);
// *pnDone: the bytes read or written, at least 1 with Done.
TlsStep TlsRead(Tls *pTls, void *pOut, size_t nSize, size_t *pnDone, std::string *pWhy);
TlsStep TlsWrite(Tls *pTls, const void *pData, size_t nBytes, size_t *pnDone, std::string *pWhy);

}  // namespace orx
