// What the HTTP client, the server and the listener share inside the library.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <kitra/Http.h>

namespace Kitra::Http {

namespace Tls {

// The colon-separated hex digest of a certificate.
std::string Thumbprint(X509* certificate, Digest digest);
std::string ToPem(X509* certificate);
// "AB:CD:.." or "abcd..": the bytes in upper-case hex without separators; empty when not hex.
std::string NormalizeThumbprint(const std::string& text);

// What a client found wrong with a server's certificate.
struct Rejection {
    std::string reason;
    std::string thumbprint;  // SHA-1 of the presented certificate
    bool selfSigned = false;
    std::vector<std::string> chain;  // PEM, the server's own first
};

// Checks the certificate the server presented on `ssl` after the handshake: against `expected` (a
// thumbprint) when given, else against `store` and `host`. False with `out` filled when not accepted.
bool CheckPeer(SSL* ssl, const std::string& expected, X509_STORE* store, const std::string& host, Rejection& out);

}  // namespace Tls

class Listener;

struct Server::Impl {
    ServerOptions options;
    std::vector<std::unique_ptr<Soap::Codec>> codecs;

    mutable std::mutex mutex;
    std::map<std::string, Fundix::Ref<ManagedObject>> objects;
    std::shared_ptr<SessionStore> sessions;  // set before serving, then only read
    PrivilegeCheck privilegeCheck;
    NotAuthenticated notAuthenticated;
    NoPermission noPermission;
    Logger logger;
    SessionEnded sessionEnded;
    Resolver resolver;

    std::unique_ptr<Listener> listener;
    std::string thumbprintSha1, thumbprintSha256;

    const Soap::Codec* CodecFor(const std::string& soapAction) const;
    // Outside mutex: tells the handler of each session in `ended`.
    void Ended(const std::vector<Fundix::Ref<Session>>& ended) const;
};

// The network side of a server: accepts connections, reads requests within the limits and deadlines of
// the options, hands each body to Server::Handle and writes the answer.
class Listener {
public:
    Listener(Server& server, const ServerOptions& options);
    ~Listener();
    int Start();  // binds and runs; the port
    void Stop();
    size_t Open() const;

    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace Kitra::Http
