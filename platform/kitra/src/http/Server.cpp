// The HTTP server: decodes each request with the codec of the version the client speaks, checks session and
// privilege, dispatches through the managed type's invoke function, and answers with the result or fault.
#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include <httplib.h>

#include <fundix/Exception.h>
#include <kitra/Http.h>
#include <kitra/Registry.h>
#include <kitra/fault/types.h>

namespace Kitra::Http {

namespace {

thread_local Call* tCurrent = nullptr;

const char kAnonymous[] = "System.Anonymous";

std::string NewKey() {
    static std::mutex mutex;
    static std::mt19937_64 random{std::random_device{}()};
    std::lock_guard<std::mutex> lock(mutex);
    char text[33];
    std::snprintf(text, sizeof text, "%016llx%016llx", static_cast<unsigned long long>(random()),
                  static_cast<unsigned long long>(random()));
    return text;
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
        if (part.compare(0, name.size() + 1, name + "=") == 0) return part.substr(name.size() + 1);
        at = end + 1;
    }
    return "";
}

}  // namespace

Session::Session(std::string key, std::string userName) : key_(std::move(key)), userName_(std::move(userName)) {}

void Session::Set(const std::string& name, const std::string& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_[name] = value;
}

std::string Session::Get(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = values_.find(name);
    return it == values_.end() ? "" : it->second;
}

struct Server::Impl {
    ServerOptions options;
    std::vector<std::unique_ptr<Soap::Codec>> codecs;
    httplib::Server http;
    std::thread thread;
    std::atomic<bool> running{false};

    mutable std::mutex mutex;
    std::map<std::string, Fundix::Ref<ManagedObject>> objects;
    std::map<std::string, Fundix::Ref<Session>> sessions;
    PrivilegeCheck privilegeCheck;
    NotAuthenticated notAuthenticated;
    NoPermission noPermission;
    Logger logger;

    const Soap::Codec* CodecFor(const std::string& soapAction) const {
        std::string action = soapAction;
        if (action.size() >= 2 && action.front() == '"' && action.back() == '"') action = action.substr(1, action.size() - 2);
        if (action.empty()) return codecs.front().get();
        for (const auto& c : codecs)
            if (c->GetVersionUri() == action) return c.get();
        return nullptr;
    }
};

Session* Call::OpenSession(const std::string& userName) {
    if (session_ != nullptr) CloseSession();
    session_ = new Session(NewKey(), userName);
    {
        std::lock_guard<std::mutex> lock(server_->impl_->mutex);
        server_->impl_->sessions[session_->GetKey()] = session_;
    }
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
    std::lock_guard<std::mutex> lock(server_->impl_->mutex);
    return server_->impl_->sessions.erase(key) > 0;
}

std::vector<Fundix::Ref<Session>> Call::GetSessions() const {
    std::lock_guard<std::mutex> lock(server_->impl_->mutex);
    std::vector<Fundix::Ref<Session>> all;
    for (const auto& [key, session] : server_->impl_->sessions) all.push_back(session);
    return all;
}

Call* Call::Current() { return tCurrent; }

Server::Server(ServerOptions options) : impl_(std::make_unique<Impl>()) {
    if (options.versions.empty()) throw Fundix::InvalidArgumentException("a server needs at least one version");
    for (const auto& v : options.versions) impl_->codecs.push_back(std::make_unique<Soap::Codec>(v, options.limits));
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

std::string Server::GetUrl() const {
    return "http://" + impl_->options.host + ":" + std::to_string(port_) + impl_->options.path;
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
    if (!key.empty()) {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        auto it = impl_->sessions.find(key);
        if (it != impl_->sessions.end()) call.session_ = it->second;
    }
    try {
        Soap::Message request = codec->Decode(body);
        if (request.kind != Soap::MessageKind::Request)
            Fault::InvalidRequest::Exception("not a request", Fundix::Optional<std::string>()).Throw();
        ManagedMethod* method = request.method;
        call.method_ = method;
        Fundix::Ref<ManagedObject> target;
        {
            std::lock_guard<std::mutex> lock(impl_->mutex);
            auto it = impl_->objects.find(request.target->GetId());
            if (it != impl_->objects.end()) target = it->second;
        }
        if (target == nullptr) Fault::ManagedObjectNotFound::Exception(request.target.Get()).Throw();

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
        // Anything else is a failure of the implementation: the caller learns no internals.
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
        impl_->logger(line);
    }
    return reply;
}

int Server::Start() {
    Impl& impl = *impl_;
    size_t threads = impl.options.threads;
    impl.http.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    // Bodies a little past the codec's limit still reach it, so that they get a fault rather than a bare status.
    impl.http.set_payload_max_length(impl.options.limits.maxMessageBytes + (size_t(1) << 20));
    impl.http.set_keep_alive_max_count(1000);
    impl.http.set_tcp_nodelay(true);
    impl.http.Post(impl.options.path, [this](const httplib::Request& request, httplib::Response& response) {
        Reply reply = Handle(request.body, request.get_header_value("SOAPAction"), request.get_header_value("Cookie"),
                             request.remote_addr);
        response.status = reply.status;
        if (!reply.setSession.empty())
            response.set_header("Set-Cookie", std::string(kSessionCookie) + "=" + reply.setSession + "; Path=/; HttpOnly");
        else if (reply.clearSession)
            response.set_header("Set-Cookie", std::string(kSessionCookie) + "=; Path=/; Max-Age=0");
        response.set_content(std::move(reply.body), "text/xml; charset=utf-8");
    });
    int port = impl.options.port == 0 ? impl.http.bind_to_any_port(impl.options.host)
                                      : (impl.http.bind_to_port(impl.options.host, impl.options.port) ? impl.options.port : -1);
    if (port <= 0)
        throw Fundix::InvalidArgumentException("cannot listen on " + impl.options.host + ":" + std::to_string(impl.options.port));
    port_ = port;
    impl.running = true;
    impl.thread = std::thread([&impl] { impl.http.listen_after_bind(); });
    while (!impl.http.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return port_;
}

void Server::Stop() {
    if (!impl_->running.exchange(false)) return;
    impl_->http.stop();
    if (impl_->thread.joinable()) impl_->thread.join();
}

}  // namespace Kitra::Http
