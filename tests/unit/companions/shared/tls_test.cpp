// Links with TLS against a server on a thread, with certificates of its own as cameras have them.
#ifdef ORX_HAVE_TLS

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <filesystem>
#include <thread>

#include "shared/link.h"
#include "support/sockets.h"

using namespace orx;

// A context with a new certificate that it has signed itself.
static SSL_CTX *MakeServer()
{
    EVP_PKEY *pKey = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
    X509 *pCert = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(pCert), 1);
    X509_gmtime_adj(X509_getm_notBefore(pCert), 0);
    X509_gmtime_adj(X509_getm_notAfter(pCert), 3600);
    X509_set_pubkey(pCert, pKey);
    X509_sign(pCert, pKey, EVP_sha256());
    SSL_CTX *pContext = SSL_CTX_new(TLS_server_method());
    EXPECT_EQ(1, SSL_CTX_use_certificate(pContext, pCert));
    EXPECT_EQ(1, SSL_CTX_use_PrivateKey(pContext, pKey));
    X509_free(pCert);
    EVP_PKEY_free(pKey);
    return pContext;
}

// Serves one connection: gives back what it gets, up to nBytes, and ends it.
static void Echo(SSL_CTX *pContext, const Listener *pListener, size_t nBytes)
{
    Sock sock = pListener->Accept();
    SSL *pSsl = SSL_new(pContext);
    SSL_set_fd(pSsl, sock.fd);
    char bytes[8192];
    int n = SSL_accept(pSsl);
    for (size_t nDone = 0; n > 0 && nDone < nBytes; nDone += static_cast<size_t>(n)) {
        n = SSL_read(pSsl, bytes, sizeof bytes);
        if (n > 0)
            n = SSL_write(pSsl, bytes, n);
    }
    SSL_shutdown(pSsl);
    SSL_free(pSsl);
    SSL_CTX_free(pContext);
}

struct Ended {
    Loop *pLoop;
    std::string received, why;
    LinkFault fault = LinkFault::None;
};

// Sends a text to such a server and takes what comes until the link ends.
static Ended Exchange(SSL_CTX *pContext, const Listener &listener, const std::string &pinFile, const std::string &text)
{
    static const LinkProcs kProcs = {
        nullptr,
        [](void *pUser, const uint8_t *p, size_t n) { static_cast<Ended *>(pUser)->received.append(p, p + n); },
        nullptr,
        [](void *pUser, LinkFault fault, const char *szWhy) {
            auto *pEnded = static_cast<Ended *>(pUser);
            pEnded->fault = fault;
            pEnded->why = szWhy;
            LoopStop(pEnded->pLoop);
        }};
    Ended ended{LoopOpen(), {}, {}};
    std::thread server(Echo, pContext, &listener, text.size());
    LinkTarget target;
    target.host = "127.0.0.1";
    target.nPort = listener.nPort;
    target.bTls = 1;
    target.pinFile = pinFile;
    Link *pLink = LinkOpen(ended.pLoop, &target, &kProcs, &ended);
    EXPECT_EQ(1, LinkSendText(pLink, text));
    LoopRun(ended.pLoop);
    LinkClose(pLink);
    LoopClose(ended.pLoop);
    server.join();
    return ended;
}

TEST(Tls, CarriesBothWaysAndHoldsToTheFirstCertificate)
{
    const std::string file = std::filesystem::temp_directory_path() / ("tlspins." + std::to_string(getpid()));
    Listener listener;
    std::string text;
    for (int i = 0; i < 100000; i++)
        text += std::to_string(i) + " ";
    SSL_CTX *pCamera = MakeServer();
    SSL_CTX_up_ref(pCamera);
    for (SSL_CTX *pContext : {pCamera, pCamera}) {
        Ended ended = Exchange(pContext, listener, file, text);
        EXPECT_EQ(text, ended.received);
        EXPECT_EQ(LinkFault::Closed, ended.fault) << ended.why;
    }
    Ended other = Exchange(MakeServer(), listener, file, text);
    EXPECT_EQ(LinkFault::Tls, other.fault);
    EXPECT_NE(std::string::npos, other.why.find("sha256="));
    EXPECT_EQ("", other.received);
    EXPECT_EQ(LinkFault::Closed, Exchange(MakeServer(), listener, "", text).fault);  // without pins
    std::filesystem::remove(file);
}

#endif
