// Calls over HTTP: a stub adapter that sends each call to a server, and a server that dispatches the calls it
// receives to implementation objects, with sessions and privilege checks. Messages are the SOAP codec's.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <fundix/Ref.h>
#include <kitra/DataObject.h>
#include <kitra/Soap.h>
#include <kitra/Stub.h>

namespace Kitra::Http {

// The cookie that carries a session between a client and a server.
inline constexpr const char* kSessionCookie = "kodl_session";

// ---- Client

struct ClientOptions {
    std::chrono::milliseconds connectTimeout{5000};
    std::chrono::milliseconds readTimeout{60000};
    size_t maxIdleConnections = 4;  // kept alive for the next calls
};

// Sends each call to the server at `url` ("http://127.0.0.1:8085/morphel") in one API version. Keeps
// connections alive, carries the session cookie the server hands out, and raises a returned fault as its own
// exception class. A call that cannot reach the server raises kodl.fault.CommunicationFailure.
// Asynchronous calls run on the object model's completion threads (the default StartInvoke).
class StubAdapter : public Kitra::StubAdapter {
public:
    StubAdapter(const std::string& url, const std::string& version, ClientOptions options = {});
    ~StubAdapter() override;

    void Invoke(const std::string& id, ManagedMethod* method, Fundix::RefVector<Any>& arguments,
                Fundix::Ref<Any>& result, RequestContext* context) override;

    const Soap::Codec& GetCodec() const { return codec_; }
    // The session key the server gave this client, or empty.
    std::string GetSession() const;
    void SetSession(const std::string& key);

private:
    struct Connection;
    std::unique_ptr<Connection> Take();
    void Give(std::unique_ptr<Connection> connection);

    Soap::Codec codec_;
    ClientOptions options_;
    std::string scheme_host_port_;
    std::string path_;
    mutable std::mutex mutex_;
    std::vector<std::unique_ptr<Connection>> idle_;
    std::string session_;
};

// ---- Server

// A logged-in session. Implementations keep what they need with it (locale, user data) as text values.
class Session : public Fundix::ObjectImpl {
public:
    Session(std::string key, std::string userName);
    const std::string& GetKey() const { return key_; }
    const std::string& GetUserName() const { return userName_; }
    void Set(const std::string& name, const std::string& value);
    std::string Get(const std::string& name) const;  // empty when unset

private:
    std::string key_;
    std::string userName_;
    mutable std::mutex mutex_;
    std::map<std::string, std::string> values_;
};

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
    // hands its key to the client.
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
    Soap::Limits limits;
    size_t threads = 8;
};

class Server {
public:
    // Decides whether `session` holds `privilege`; without one, every logged-in session holds every privilege.
    using PrivilegeCheck = std::function<bool(const Session& session, const std::string& privilege)>;
    // The fault for a call that needs a session and has none, and for a privilege the session lacks.
    using NotAuthenticated = std::function<Fundix::Ref<MethodFault>(const ManagedMethod& method)>;
    using NoPermission = std::function<Fundix::Ref<MethodFault>(const ManagedMethod& method, const std::string& privilege)>;
    // One line per request served.
    using Logger = std::function<void(const std::string& line)>;

    explicit Server(ServerOptions options);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void Register(const std::string& id, ManagedObject* implementation);
    void Unregister(const std::string& id);
    void SetPrivilegeCheck(PrivilegeCheck check);
    void SetFaults(NotAuthenticated notAuthenticated, NoPermission noPermission);
    void SetLogger(Logger logger);

    // Binds and serves on threads of its own; returns the port. Throws Fundix::Exception when it cannot bind.
    int Start();
    // Stops serving and waits for the calls in progress.
    void Stop();
    int GetPort() const { return port_; }
    std::string GetUrl() const;

    // Handles one request body: the response body and HTTP status. Public so that tests and other
    // transports can drive it; `soapAction` and `cookie` are the request's headers (empty when absent).
    struct Reply {
        int status = 200;
        std::string body;
        std::string setSession;  // a session key to hand to the client, when it changed
        bool clearSession = false;
    };
    Reply Handle(const std::string& body, const std::string& soapAction, const std::string& cookie,
                 const std::string& peer);

private:
    friend class Call;
    struct Impl;
    std::unique_ptr<Impl> impl_;
    int port_ = 0;
};

}  // namespace Kitra::Http
