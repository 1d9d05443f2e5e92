// The server's handling of one request, apart from the network: decodes it with the codec of the version the
// client speaks, checks session and privilege before looking up the target, dispatches through the managed
// type's invoke function, and answers with the result or fault. Sessions live here too.
#include <cxxabi.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <typeinfo>

#include <openssl/rand.h>

#include <fundix/Exception.h>
#include <kitra/Http.h>
#include <kitra/Registry.h>
#include <kitra/fault/types.h>

#include "Internal.h"

namespace Kitra::Http {

namespace {

thread_local Call* tCurrent = nullptr;

const char kAnonymous[] = "System.Anonymous";

// 128 bits from the operating system's random source, as hex.
std::string NewKey() {
    unsigned char bytes[16];
    if (RAND_bytes(bytes, sizeof bytes) != 1) throw Fundix::Exception("no random bytes for a session key");
    static const char kHex[] = "0123456789abcdef";
    std::string key(32, '0');
    for (size_t i = 0; i < sizeof bytes; ++i) {
        key[2 * i] = kHex[bytes[i] >> 4];
        key[2 * i + 1] = kHex[bytes[i] & 15];
    }
    return key;
}

std::string Demangle(const char* name) {
    int status = 0;
    char* readable = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    std::string text = status == 0 && readable != nullptr ? readable : name;
    std::free(readable);
    return text;
}

// The exception being handled, for the log: its type and message.
std::string CurrentCause() {
    try {
        throw;
    } catch (const std::exception& e) {
        return Demangle(typeid(e).name()) + ": " + e.what();
    } catch (...) {
        const std::type_info* type = abi::__cxa_current_exception_type();
        return type != nullptr ? Demangle(type->name()) : std::string("unknown exception");
    }
}

// The value of cookie `name` in a Cookie header.
std::string CookieValue(const std::string& header, const std::string& name) {
    size_t at = 0;
    while (at < header.size()) {
        size_t end = header.find(';', at);
        if (end == std::string::npos) end = header.size();
        std::string part = header.substr(at, end - at);
        size_t first = part.find_first_not_of(' ');
        if (first != std::string::npos) part.erase(0, first);
        if (part.compare(0, name.size() + 1, name + "=") == 0) {
            std::string value = part.substr(name.size() + 1);
            while (!value.empty() && value.back() == ' ') value.pop_back();
            // A value may come in double quotes (RFC 6265, 4.1.1).
            if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
            return value;
        }
        at = end + 1;
    }
    return "";
}

}  // namespace

Session::Session(std::string key, std::string userName) : key_(std::move(key)), userName_(std::move(userName)) {}

void Session::Set(const std::string& name, const std::string& value) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        values_[name] = value;
    }
    if (store_ != nullptr) store_->ValuesChanged(*this);
}

std::map<std::string, std::string> Session::GetValues() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
}

std::string Session::Get(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = values_.find(name);
    return it == values_.end() ? "" : it->second;
}

const Soap::Codec* Server::Impl::CodecFor(const std::string& soapAction) const {
    std::string action = soapAction;
    if (action.size() >= 2 && action.front() == '"' && action.back() == '"') action = action.substr(1, action.size() - 2);
    if (action.empty()) return codecs.front().get();
    for (const auto& c : codecs)
        if (c->GetVersionUri() == action) return c.get();
    return nullptr;
}

// The sessions in a map, their times on the steady clock. Expired sessions are swept out at most once a
// second, and whenever a session is added or all are listed.
class MemorySessionStore : public SessionStore {
public:
    explicit MemorySessionStore(const SessionLimits& limits) : limits_(limits) {}

    Fundix::Ref<Session> Find(const std::string& key, std::vector<Fundix::Ref<Session>>& ended) override {
        auto now = std::chrono::steady_clock::now();
        std::lock_guard<std::mutex> lock(mutex_);
        if (now - lastSweep_ >= std::chrono::seconds(1)) DropExpired(now, ended);
        auto it = sessions_.find(key);
        if (it == sessions_.end()) return nullptr;
        Session& s = *it->second;
        if (Expired(s, now)) {
            ended.push_back(it->second);
            sessions_.erase(it);
            return nullptr;
        }
        s.used_ = now;
        return it->second;
    }
    void Add(const Fundix::Ref<Session>& session, std::vector<Fundix::Ref<Session>>& ended) override {
        auto now = std::chrono::steady_clock::now();
        session->opened_ = session->used_ = now;
        std::lock_guard<std::mutex> lock(mutex_);
        DropExpired(now, ended);
        std::vector<std::map<std::string, Fundix::Ref<Session>>::iterator> own;
        for (auto it = sessions_.begin(); it != sessions_.end(); ++it)
            if (it->second->GetUserName() == session->GetUserName()) own.push_back(it);
        while (!own.empty() && own.size() >= limits_.perUser) {
            auto oldest = std::min_element(own.begin(), own.end(),
                                           [](const auto& a, const auto& b) { return a->second->used_ < b->second->used_; });
            ended.push_back((*oldest)->second);
            sessions_.erase(*oldest);
            own.erase(oldest);
        }
        sessions_[session->GetKey()] = session;
    }
    bool Remove(const std::string& key, std::vector<Fundix::Ref<Session>>& ended) override {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = sessions_.find(key);
        if (it == sessions_.end()) return false;
        ended.push_back(it->second);
        sessions_.erase(it);
        return true;
    }
    std::vector<Fundix::Ref<Session>> List(std::vector<Fundix::Ref<Session>>& ended) override {
        std::lock_guard<std::mutex> lock(mutex_);
        DropExpired(std::chrono::steady_clock::now(), ended);
        std::vector<Fundix::Ref<Session>> all;
        for (const auto& [key, session] : sessions_) all.push_back(session);
        return all;
    }

private:
    bool Expired(const Session& s, std::chrono::steady_clock::time_point now) const {
        return now - s.used_ >= limits_.idle || now - s.opened_ >= limits_.lifetime;
    }
    // Under mutex_.
    void DropExpired(std::chrono::steady_clock::time_point now, std::vector<Fundix::Ref<Session>>& ended) {
        lastSweep_ = now;
        for (auto it = sessions_.begin(); it != sessions_.end();) {
            if (Expired(*it->second, now)) {
                ended.push_back(it->second);
                it = sessions_.erase(it);
            } else {
                ++it;
            }
        }
    }

    const SessionLimits limits_;
    std::mutex mutex_;
    std::map<std::string, Fundix::Ref<Session>> sessions_;
    std::chrono::steady_clock::time_point lastSweep_;
};

std::shared_ptr<SessionStore> NewMemorySessionStore(const SessionLimits& limits) {
    return std::make_shared<MemorySessionStore>(limits);
}

void Server::Impl::Ended(const std::vector<Fundix::Ref<Session>>& ended) const {
    if (!sessionEnded) return;
    for (const auto& s : ended)
        sessionEnded(*s);
}

Session* Call::OpenSession(const std::string& userName) {
    if (session_ != nullptr) CloseSession();
    session_ = new Session(NewKey(), userName);
    Server::Impl& impl = *server_->impl_;
    std::vector<Fundix::Ref<Session>> ended;
    impl.sessions->Add(session_, ended);
    impl.Ended(ended);
    sessionChanged_ = true;
    return session_.Get();
}

void Call::CloseSession() {
    if (session_ == nullptr) return;
    CloseSession(session_->GetKey());
    session_ = nullptr;
    sessionChanged_ = true;
}

bool Call::CloseSession(const std::string& key) {
    Server::Impl& impl = *server_->impl_;
    std::vector<Fundix::Ref<Session>> ended;
    bool removed = impl.sessions->Remove(key, ended);
    impl.Ended(ended);
    return removed;
}

std::vector<Fundix::Ref<Session>> Call::GetSessions() const {
    Server::Impl& impl = *server_->impl_;
    std::vector<Fundix::Ref<Session>> ended;
    auto all = impl.sessions->List(ended);
    impl.Ended(ended);
    return all;
}

Call* Call::Current() { return tCurrent; }

Server::Server(ServerOptions options) : impl_(std::make_unique<Impl>()) {
    if (options.versions.empty()) throw Fundix::InvalidArgumentException("a server needs at least one version");
    for (const auto& v : options.versions) impl_->codecs.push_back(std::make_unique<Soap::Codec>(v, options.limits));
    if (!options.tls.Empty()) {
        impl_->thumbprintSha1 = Tls::Thumbprint(options.tls.certificatePem, Tls::Digest::Sha1);
        impl_->thumbprintSha256 = Tls::Thumbprint(options.tls.certificatePem, Tls::Digest::Sha256);
    }
    impl_->sessions = options.sessionStore != nullptr
                          ? options.sessionStore
                          : NewMemorySessionStore({options.sessionIdle, options.sessionLifetime, options.sessionsPerUser});
    impl_->options = std::move(options);
}

Server::~Server() { Stop(); }

void Server::Register(const std::string& id, ManagedObject* implementation) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->objects[id] = implementation;
}

void Server::Unregister(const std::string& id) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->objects.erase(id);
}

void Server::SetPrivilegeCheck(PrivilegeCheck check) { impl_->privilegeCheck = std::move(check); }

void Server::SetFaults(NotAuthenticated notAuthenticated, NoPermission noPermission) {
    impl_->notAuthenticated = std::move(notAuthenticated);
    impl_->noPermission = std::move(noPermission);
}

void Server::SetLogger(Logger logger) { impl_->logger = std::move(logger); }

void Server::SetSessionEndHandler(SessionEnded handler) { impl_->sessionEnded = std::move(handler); }

void Server::SetSessionStore(std::shared_ptr<SessionStore> store) {
    if (store == nullptr) throw Fundix::InvalidArgumentException("no session store");
    impl_->sessions = std::move(store);
}

void Server::SetResolver(Resolver resolver) { impl_->resolver = std::move(resolver); }

std::set<std::string> Server::GetSessionKeys() {
    std::vector<Fundix::Ref<Session>> ended;
    std::set<std::string> keys;
    for (const auto& s : impl_->sessions->List(ended))
        keys.insert(s->GetKey());
    impl_->Ended(ended);
    return keys;
}

std::string Server::GetUrl() const {
    std::string host = impl_->options.host;
    if (host.find(':') != std::string::npos) host = "[" + host + "]";
    return (IsTls() ? "https://" : "http://") + host + ":" + std::to_string(port_) + impl_->options.path;
}

Server::Reply Server::Handle(const std::string& body, const std::string& soapAction, const std::string& cookie,
                             const std::string& peer) {
    Reply reply;
    const Soap::Codec* codec = impl_->CodecFor(soapAction);
    auto fail = [&](const Soap::Codec& c, MethodFault* fault) {
        reply.status = 500;
        reply.body.clear();
        c.EncodeFault(fault, reply.body);
    };
    if (codec == nullptr) {
        Fundix::Ref<Fault::InvalidRequest> fault(new Fault::InvalidRequest("unknown version " + soapAction, {}));
        fail(*impl_->codecs.front(), fault.Get());
        return reply;
    }
    Call call;
    call.server_ = this;
    call.codec_ = codec;
    call.peer_ = peer;
    std::string key = CookieValue(cookie, kSessionCookie);
    try {
        if (!key.empty()) {
            std::vector<Fundix::Ref<Session>> ended;
            call.session_ = impl_->sessions->Find(key, ended);
            impl_->Ended(ended);
        }
        Soap::Message request = codec->Decode(body);
        if (request.kind != Soap::MessageKind::Request)
            Fault::InvalidRequest::Exception("not a request", Fundix::Optional<std::string>()).Throw();
        ManagedMethod* method = request.method;
        call.method_ = method;
        const char* privilege = method->GetPrivilege();
        bool anonymous = privilege != nullptr && std::string_view(privilege) == kAnonymous;
        if (!anonymous) {
            if (call.session_ == nullptr) {
                Fundix::Ref<MethodFault> fault =
                    impl_->notAuthenticated ? impl_->notAuthenticated(*method) : Fundix::Ref<MethodFault>(new RuntimeFault());
                fault->Throw();
            }
            if (privilege != nullptr && impl_->privilegeCheck && !impl_->privilegeCheck(*call.session_, privilege)) {
                Fundix::Ref<MethodFault> fault =
                    impl_->noPermission ? impl_->noPermission(*method, privilege) : Fundix::Ref<MethodFault>(new RuntimeFault());
                fault->Throw();
            }
        }
        // Only now, so that a caller without a session learns nothing of which objects exist.
        Fundix::Ref<ManagedObject> target;
        {
            std::lock_guard<std::mutex> lock(impl_->mutex);
            auto it = impl_->objects.find(request.target->GetId());
            if (it != impl_->objects.end()) target = it->second;
        }
        if (target == nullptr && impl_->resolver) target = impl_->resolver(request.target->GetId());
        if (target == nullptr) Fault::ManagedObjectNotFound::Exception(request.target.Get()).Throw();
        const ManagedTypeInfo* info = method->GetOwner()->GetManagedTypeInfo();
        if (info->invoke == nullptr) throw Fundix::InvalidArgumentException("no dispatch");
        Fundix::Ref<Any> result;
        tCurrent = &call;
        try {
            info->invoke(target.Get(), method->GetIndex(), request.arguments, result);
        } catch (...) {
            tCurrent = nullptr;
            throw;
        }
        tCurrent = nullptr;
        codec->EncodeResponse(method, result.Get(), reply.body);
    } catch (const MethodFault::Exception& e) {
        Fundix::Ref<MethodFault> fault(e.GetFault());
        if (fault == nullptr) fault = new RuntimeFault();
        fail(*codec, fault.Get());
    } catch (...) {
        // Anything else is a failure of the implementation: the caller learns no internals, the log the cause.
        reply.cause = CurrentCause();
        Fundix::Ref<RuntimeFault> fault(new RuntimeFault());
        fail(*codec, fault.Get());
    }
    if (call.sessionChanged_) {
        if (call.session_ != nullptr) reply.setSession = call.session_->GetKey();
        else reply.clearSession = true;
    }
    if (impl_->logger) {
        std::string line = peer + " " + (call.method_ ? call.method_->GetWireName() : std::string("-")) + " " +
                           std::to_string(reply.status) + " " + std::to_string(body.size()) + "B";
        if (call.session_ != nullptr) line += " user=" + call.session_->GetUserName();
        if (!reply.cause.empty()) line += " cause=" + reply.cause;
        impl_->logger(line);
    }
    return reply;
}

int Server::Start() {
    if (impl_->listener) throw Fundix::InvalidArgumentException("the server is already serving");
    auto listener = std::make_unique<Listener>(*this, impl_->options);
    port_ = listener->Start();
    impl_->listener = std::move(listener);
    return port_;
}

void Server::Stop() {
    if (!impl_->listener) return;
    impl_->listener->Stop();
    impl_->listener.reset();
}

bool Server::IsTls() const { return !impl_->options.tls.Empty(); }

std::string Server::GetThumbprint(Tls::Digest digest) const {
    if (!IsTls()) return "";
    return digest == Tls::Digest::Sha1 ? impl_->thumbprintSha1 : impl_->thumbprintSha256;
}

size_t Server::GetOpenConnections() const { return impl_->listener ? impl_->listener->Open() : 0; }

}  // namespace Kitra::Http
