#include "shared/tls.h"

#ifdef ORX_HAVE_TLS

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

namespace orx {

struct Tls {
    SSL *pSsl;
};

// Cameras live for ten years: their certificates have keys of 1024 bits and SHA-1. What they are is judged by
// the pin, not by who signed them.
static SSL_CTX *MakeContext()
{
    signal(SIGPIPE, SIG_IGN);  // OpenSSL writes without MSG_NOSIGNAL
    SSL_CTX *pContext = SSL_CTX_new(TLS_client_method());
    if (!pContext)
        return nullptr;
    SSL_CTX_set_min_proto_version(pContext, TLS1_2_VERSION);
    SSL_CTX_set_cipher_list(pContext, "DEFAULT:@SECLEVEL=1");
    SSL_CTX_set_verify(pContext, SSL_VERIFY_NONE, nullptr);
    SSL_CTX_set_session_cache_mode(pContext, SSL_SESS_CACHE_OFF);
#ifdef SSL_OP_IGNORE_UNEXPECTED_EOF
    SSL_CTX_set_options(pContext, SSL_OP_IGNORE_UNEXPECTED_EOF);  // cameras close without taking leave
#endif
    SSL_CTX_set_mode(pContext, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                   SSL_MODE_RELEASE_BUFFERS);
    return pContext;
}

int TlsBuiltIn()
{
    return 1;
}

static int IsAddress(const char *szName)
{
    in6_addr addr;
    return inet_pton(AF_INET, szName, &addr) == 1 || strchr(szName, ':') != nullptr;
}

Tls *TlsStart(int fd, const char *szName)
{
    static SSL_CTX *s_pContext = MakeContext();  // for the whole program
    SSL *pSsl = s_pContext ? SSL_new(s_pContext) : nullptr;
    if (!pSsl)
        return nullptr;
    SSL_set_fd(pSsl, fd);
    SSL_set_connect_state(pSsl);
    if (!IsAddress(szName))
        SSL_set_tlsext_host_name(pSsl, szName);
    return new Tls{pSsl};
}

void TlsFree(Tls *pTls)
{
    if (!pTls)
        return;
    ERR_clear_error();
    if (SSL_is_init_finished(pTls->pSsl))
        SSL_shutdown(pTls->pSsl);
    SSL_free(pTls->pSsl);
    delete pTls;
}

static TlsStep Judge(Tls *pTls, int nResult, std::string *pWhy)
{
    int nErrno = errno;
    switch (SSL_get_error(pTls->pSsl, nResult)) {
        case SSL_ERROR_WANT_READ:
            return TlsStep::Read;
        case SSL_ERROR_WANT_WRITE:
            return TlsStep::Write;
        case SSL_ERROR_ZERO_RETURN:
            return TlsStep::Closed;
        default:
            break;
    }
    unsigned long nError = ERR_get_error();
    const char *szReason = nError ? ERR_reason_error_string(nError) : nullptr;
    *pWhy = szReason ? szReason : nErrno != 0 ? strerror(nErrno) : "the peer ended it";
    return TlsStep::Failed;
}

TlsStep TlsShake(Tls *pTls, std::string *pWhy)
{
    ERR_clear_error();
    errno = 0;
    int nResult = SSL_do_handshake(pTls->pSsl);
    return nResult == 1 ? TlsStep::Done : Judge(pTls, nResult, pWhy);
}

std::string TlsPrint(const Tls *pTls)
{
#if OPENSSL_VERSION_NUMBER < 0x30000000L
    X509 *pCert = SSL_get_peer_certificate(pTls->pSsl);
#else
    X509 *pCert = SSL_get1_peer_certificate(pTls->pSsl);
#endif
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned nBytes = 0;
    if (!pCert || !X509_digest(pCert, EVP_sha256(), digest, &nBytes))
        nBytes = 0;
    X509_free(pCert);
    std::string hex;
    for (unsigned i = 0; i < nBytes; i++)
        for (int nShift : {4, 0})
            hex += "0123456789abcdef"[digest[i] >> nShift & 15];
    return hex;
}

TlsStep TlsRead(Tls *pTls, void *pOut, size_t nSize, size_t *pnDone, std::string *pWhy)
{
    ERR_clear_error();
    errno = 0;
    int nResult = SSL_read(pTls->pSsl, pOut, static_cast<int>(std::min<size_t>(nSize, INT_MAX)));
    *pnDone = nResult > 0 ? static_cast<size_t>(nResult) : 0;
    return nResult > 0 ? TlsStep::Done : Judge(pTls, nResult, pWhy);
}

TlsStep TlsWrite(Tls *pTls, const void *pData, size_t nBytes, size_t *pnDone, std::string *pWhy)
{
    ERR_clear_error();
    errno = 0;
    int nResult = SSL_write(pTls->pSsl, pData, static_cast<int>(std::min<size_t>(nBytes, INT_MAX)));
    *pnDone = nResult > 0 ? static_cast<size_t>(nResult) : 0;
    return nResult > 0 ? TlsStep::Done : Judge(pTls, nResult, pWhy);
}

}  // namespace orx

#else

namespace orx {

int TlsBuiltIn()
{
    return 0;
}

Tls *TlsStart(int, const char *)
{
    return nullptr;
}

void TlsFree(Tls *) {}

TlsStep TlsShake(Tls *, std::string *)
{
    return TlsStep::Failed;
}

std::string TlsPrint(const Tls *)
{
    return {};
}

TlsStep TlsRead(Tls *, void *, size_t, size_t *, std::string *)
{
    return TlsStep::Failed;
}

TlsStep TlsWrite(Tls *, const void *, size_t, size_t *, std::string *)
{
    return TlsStep::Failed;
}

}  // namespace orx

#endif
