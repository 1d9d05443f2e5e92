// Calls over HTTP/1.1 and HTTPS: a stub adapter that sends each call to a server, and a server that dispatches
// the calls it receives to implementation objects, with sessions and privilege checks. Messages are the SOAP
// codec's. Both ends run on an event loop: a connection holds no thread while it waits.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <fundix/Ref.h>
#include <kitra/DataObject.h>
#include <kitra/Soap.h>
#include <kitra/Stub.h>

namespace Kitra::Http {

// The cookie that carries a session between a client and a server.
inline constexpr const char* kSessionCookie = "kodl_session";

// ---- Certificates

namespace Tls {

// A certificate and its private key, both PEM texts.
struct Identity {
    std::string certificatePem;
    std::string keyPem;
    bool Empty() const { return certificatePem.empty(); }
};

enum class Digest { Sha1, Sha256 };

// A new self-signed certificate (EC P-256, SHA-256) for `commonName`, valid for `days`, naming each of
// `hostNames` (names or IP addresses) as a subject alternative name.
Identity CreateSelfSigned(const std::string& commonName, const std::vector<std::string>& hostNames, int days = 3650);
// Reads a certificate (chain) and key from PEM files. Throws Fundix::InvalidArgumentException naming the file.
Identity Load(const std::string& certificateFile, const std::string& keyFile);
// The identity kept in `folder` (certificate.pem, key.pem); created once, self-signed, when absent, so that
// its thumbprint stays the same across restarts. The folder is made private to the user.
Identity LoadOrCreate(const std::string& folder, const std::string& commonName, const std::vector<std::string>& hostNames);
// The per-user folder where a program keeps its state: $XDG_STATE_HOME/<program>, else
// ~/.local/state/<program>.
std::string DefaultStateFolder(const std::string& program);

// The thumbprint of the first certificate of `certificatePem`: the digest in upper-case hex, bytes
// separated by colons ("AB:CD:..."). Throws Fundix::InvalidArgumentException for text that holds none.
std::string Thumbprint(const std::string& certificatePem, Digest digest = Digest::Sha1);
// The DER bytes of the first certificate of `certificatePem`.
std::vector<uint8_t> ToDer(const std::string& certificatePem);
// Whether `text` is a thumbprint this library can match: 20 (SHA-1) or 32 (SHA-256) bytes of hex, with or
// without colons.
bool IsThumbprint(const std::string& text);

}  // namespace Tls

// ---- Client

struct ClientOptions {
    // Connecting, including the TLS handshake, and each answer after its request was sent.
    std::chrono::milliseconds connectTimeout{5000};
    std::chrono::milliseconds readTimeout{60000};
    // Connections to the server at once; calls past it wait (without a thread) for one to come free.
    size_t maxConnections = 32;
    size_t maxIdleConnections = 8;  // kept alive for the next calls
    // A kept connection unused for this long is closed rather than reused (servers close theirs too).
    std::chrono::milliseconds idleTimeout{20000};
    // HTTPS: the expected certificate's thumbprint (SHA-1 or SHA-256, colon-separated hex). Without one the
    // certificate must chain to a trusted one and name the host.
    std::string thumbprint;
    // HTTPS without a thumbprint: certificates trusted besides the system's (PEM texts, concatenated).
    std::string trustedPem;
    // The largest answer read; past it the call fails.
    size_t maxResponseBytes = size_t(64) << 20;
};

// Sends each call to the server at `url` ("http://127.0.0.1:8085/morphel", "https://host/morphel") in one
// API version. Keeps connections alive, carries the session cookie the server hands out, and raises a
// returned fault as its own exception class. A call that cannot reach the server, or gets no answer in
// time, raises kodl.fault.CommunicationFailure with the reason; a server certificate that is not accepted
// raises kodl.fault.CertificateRejected (a CommunicationFailure) before anything of the call is sent.
//
// Invoke blocks its caller. StartInvoke returns at once, from any thread and for any number of calls; the
// completion runs on one of the transport's threads. Calls from many threads share the connections.
class StubAdapter : public Kitra::StubAdapter {
public:
    StubAdapter(const std::string& url, const std::string& version, ClientOptions options = {});
    ~StubAdapter() override;

    void Invoke(const std::string& id, ManagedMethod* method, Fundix::RefVector<Any>& arguments,
                Fundix::Ref<Any>& result, RequestContext* context) override;
    void StartInvoke(const std::string& id, ManagedMethod* method, Fundix::RefVector<Any>& arguments,
                     const Completion& completion, Fundix::Ref<Fundix::System::ScheduledItem>& item,
                     RequestContext* context) override;

    const Soap::Codec& GetCodec() const { return codec_; }
    // The session key the server gave this client, or empty.
    std::string GetSession() const;
    void SetSession(const std::string& key);

    struct Pool;  // the connections to the server (internal)

private:
    Soap::Codec codec_;
    std::shared_ptr<Pool> pool_;
};

// ---- Server

class SessionStore;
class MemorySessionStore;

// A logged-in session. Implementations keep what they need with it (locale, user data) as text values.
class Session : public Fundix::ObjectImpl {
public:
    Session(std::string key, std::string userName);
    const std::string& GetKey() const { return key_; }
    const std::string& GetUserName() const { return userName_; }
    // Sets a value; a store kept outside the process is told of it.
    void Set(const std::string& name, const std::string& value);
    std::string Get(const std::string& name) const;  // empty when unset
    std::map<std::string, std::string> GetValues() const;

private:
    friend class Server;
    friend class Call;
    friend class SessionStore;
    friend class MemorySessionStore;
    SessionStore* store_ = nullptr;  // the store that handed it out, when it keeps values apart
    std::string key_;
    std::string userName_;
    mutable std::mutex mutex_;
    std::map<std::string, std::string> values_;
    std::chrono::steady_clock::time_point opened_;
    std::chrono::steady_clock::time_point used_;  // guarded by the memory store's lock
};

// Where a server keeps its sessions: in memory (NewMemorySessionStore, the default), or outside the process
// so that several servers share them. Each operation adds the sessions it found ended (expired, given up
// for a newer login past the account's cap, removed) to `ended`, for the server to tell its session-end
// handler. Called from the serving threads at once.
class SessionStore {
public:
    virtual ~SessionStore() = default;
    // The live session under `key`, touched (used now); null when there is none or it expired.
    virtual Fundix::Ref<Session> Find(const std::string& key, std::vector<Fundix::Ref<Session>>& ended) = 0;
    // Adds a new session; an account at its cap gives up its least recently used sessions first.
    virtual void Add(const Fundix::Ref<Session>& session, std::vector<Fundix::Ref<Session>>& ended) = 0;
    // Removes the session under `key`; false when there is none.
    virtual bool Remove(const std::string& key, std::vector<Fundix::Ref<Session>>& ended) = 0;
    // Every live session.
    virtual std::vector<Fundix::Ref<Session>> List(std::vector<Fundix::Ref<Session>>& ended) = 0;
    // A value of `session`, one this store handed out (see Adopt), changed.
    virtual void ValuesChanged(const Session& session) { (void)session; }

protected:
    // Makes Session::Set of `session` tell this store (which must outlive the session's use), after
    // giving it `values`.
    void Adopt(Session& session, std::map<std::string, std::string> values = {}) {
        session.values_ = std::move(values);
        session.store_ = this;
    }
};

// How long sessions live and how many an account holds at once.
struct SessionLimits {
    std::chrono::milliseconds idle{std::chrono::minutes(30)};  // unused this long: ended
    std::chrono::milliseconds lifetime{std::chrono::hours(12)};  // this long after login: ended
    size_t perUser = 16;
};

// Sessions in memory, lost with the process; the server's default.
std::shared_ptr<SessionStore> NewMemorySessionStore(const SessionLimits& limits);

class Server;

// The call being served, as the implementation object sees it while its operation runs (on the serving
// thread). Login and logout operations open and close sessions through it.
class Call {
public:
    // The call on this thread, or null outside a served call.
    static Call* Current();

    // The caller's session, or null.
    Session* GetSession() const { return session_.Get(); }
    // Opens a new session for `userName` and makes it the caller's (ending the one it had); the response
    // hands its key to the client. An account past its cap of sessions loses its least recently used one.
    Session* OpenSession(const std::string& userName);
    // Ends the caller's session.
    void CloseSession();
    // Ends another session by key; false when there is none.
    bool CloseSession(const std::string& key);
    std::vector<Fundix::Ref<Session>> GetSessions() const;
    const Soap::Codec& GetCodec() const { return *codec_; }
    const ManagedMethod* GetMethod() const { return method_; }
    const std::string& GetPeer() const { return peer_; }

private:
    friend class Server;
    Server* server_ = nullptr;
    const Soap::Codec* codec_ = nullptr;
    const ManagedMethod* method_ = nullptr;
    std::string peer_;
    Fundix::Ref<Session> session_;
    bool sessionChanged_ = false;
};

struct ServerOptions {
    std::string host = "127.0.0.1";  // loopback unless told otherwise
    int port = 0;                    // 0: any free port (see Server::GetPort)
    std::string path = "/morphel";
    // The versions served, by name; the first is spoken to a request that names none.
    std::vector<std::string> versions;
    // The codec's limits; a request body past limits.maxMessageBytes is refused (413) as it arrives.
    Soap::Limits limits;
    size_t threads = 2;  // threads that serve calls, each on an event loop of its own (and one more accepts)

    // HTTPS with this certificate and key; empty: plain HTTP, which Start allows on a loopback address only
    // unless allowPlainHttp says otherwise.
    Tls::Identity tls;
    bool allowPlainHttp = false;

    // Deadlines: a new or kept connection may wait idleTimeout for its next request; from its first byte
    // the request head (and a TLS handshake) must arrive within headTimeout, the body within bodyTimeout,
    // and the answer must be taken within writeTimeout.
    std::chrono::milliseconds idleTimeout{30000};
    std::chrono::milliseconds headTimeout{5000};
    std::chrono::milliseconds bodyTimeout{10000};
    std::chrono::milliseconds writeTimeout{10000};
    // Stop waits this long for the calls in progress.
    std::chrono::milliseconds stopTimeout{10000};
    size_t maxHeaderBytes = 16 * 1024;  // past either: 431
    size_t maxHeaderFields = 100;
    // Connections open at once; past it new ones are answered 503 and closed (plain) or closed (HTTPS).
    size_t maxConnections = 2048;

    // Sessions end after this long unused, or this long after login, whichever comes first.
    std::chrono::milliseconds sessionIdle{std::chrono::minutes(30)};
    std::chrono::milliseconds sessionLifetime{std::chrono::hours(12)};
    size_t sessionsPerUser = 16;
    // Where sessions are kept; null: in memory, with the limits above (a store of its own keeps its own).
    std::shared_ptr<SessionStore> sessionStore;
};

class Server {
public:
    // Decides whether `session` holds `privilege`; without one, every logged-in session holds every privilege.
    using PrivilegeCheck = std::function<bool(const Session& session, const std::string& privilege)>;
    // The fault for a call that needs a session and has none, and for a privilege the session lacks.
    using NotAuthenticated = std::function<Fundix::Ref<MethodFault>(const ManagedMethod& method)>;
    using NoPermission = std::function<Fundix::Ref<MethodFault>(const ManagedMethod& method, const std::string& privilege)>;
    // One line per request served; a call that failed inside its implementation with something other than
    // a fault names the cause (exception type and message) in its line, never in the answer.
    using Logger = std::function<void(const std::string& line)>;
    // Told of each session that ended: by logout, by another's terminate, by expiry, or given up for a
    // newer login of its account past the cap. Called outside the server's locks, on the thread that
    // noticed the end; an expired session is noticed by the next request that looks for sessions, at most
    // a second after it expired while the server has requests at all.
    using SessionEnded = std::function<void(const Session& session)>;
    // Asked for the target of a call that no registered object answers (after the session check): the
    // object `id` names, or null for none (the call then fails with ManagedObjectNotFound). It may register
    // the object so that it is not asked again. Runs on the serving thread, outside the server's locks.
    using Resolver = std::function<Fundix::Ref<ManagedObject>(const std::string& id)>;

    explicit Server(ServerOptions options);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void Register(const std::string& id, ManagedObject* implementation);
    void Unregister(const std::string& id);
    void SetPrivilegeCheck(PrivilegeCheck check);
    void SetFaults(NotAuthenticated notAuthenticated, NoPermission noPermission);
    void SetLogger(Logger logger);
    void SetSessionEndHandler(SessionEnded handler);
    void SetResolver(Resolver resolver);
    // Replaces the session store (before Start; the sessions of the one before are forgotten).
    void SetSessionStore(std::shared_ptr<SessionStore> store);
    // The keys of the sessions that have not ended (none is touched).
    std::set<std::string> GetSessionKeys();

    // Binds and serves on threads of its own; returns the port. Throws Fundix::InvalidArgumentException when
    // it cannot bind, or for plain HTTP on an address other than loopback without allowPlainHttp.
    int Start();
    // Stops accepting, closes connections waiting for a request, lets the calls in progress finish (up to
    // stopTimeout) and stops. Never call it from a served call.
    void Stop();
    int GetPort() const { return port_; }
    std::string GetUrl() const;
    bool IsTls() const;
    // The thumbprint of the server's certificate, or empty for plain HTTP.
    std::string GetThumbprint(Tls::Digest digest = Tls::Digest::Sha1) const;
    size_t GetOpenConnections() const;

    // Handles one request body: the response body and HTTP status. Public so that tests and other
    // transports can drive it; `soapAction` and `cookie` are the request's headers (empty when absent).
    struct Reply {
        int status = 200;
        std::string body;
        std::string setSession;  // a session key to hand to the client, when it changed
        bool clearSession = false;
        std::string cause;  // what an implementation threw that was no fault; for the log only
    };
    Reply Handle(const std::string& body, const std::string& soapAction, const std::string& cookie,
                 const std::string& peer);

    struct Impl;

private:
    friend class Call;
    std::unique_ptr<Impl> impl_;
    int port_ = 0;
};

}  // namespace Kitra::Http
