// The HTTP stub adapter: each call is one POST of a request envelope; connections are kept for the next call.
#include <httplib.h>

#include <fundix/Exception.h>
#include <kitra/Http.h>
#include <kitra/fault/types.h>

namespace Kitra::Http {

namespace {

[[noreturn]] void Unreachable(const std::string& reason) {
    Kitra::Fault::CommunicationFailure::Exception(reason).Throw();
}

}  // namespace

struct StubAdapter::Connection {
    explicit Connection(const std::string& schemeHostPort) : client(schemeHostPort) {}
    httplib::Client client;
};

StubAdapter::StubAdapter(const std::string& url, const std::string& version, ClientOptions options)
    : codec_(version), options_(options) {
    // "http://host:port/path": everything before the path names the server.
    size_t scheme = url.find("://");
    size_t slash = url.find('/', scheme == std::string::npos ? 0 : scheme + 3);
    if (scheme == std::string::npos || slash == std::string::npos)
        throw Fundix::InvalidArgumentException("not an http URL with a path: " + url);
    scheme_host_port_ = url.substr(0, slash);
    path_ = url.substr(slash);
}

StubAdapter::~StubAdapter() = default;

std::string StubAdapter::GetSession() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return session_;
}

void StubAdapter::SetSession(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    session_ = key;
}

std::unique_ptr<StubAdapter::Connection> StubAdapter::Take() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!idle_.empty()) {
            auto c = std::move(idle_.back());
            idle_.pop_back();
            return c;
        }
    }
    auto c = std::make_unique<Connection>(scheme_host_port_);
    auto ms = [](std::chrono::milliseconds d) { return std::pair<time_t, time_t>(d.count() / 1000, (d.count() % 1000) * 1000); };
    auto [cs, cu] = ms(options_.connectTimeout);
    auto [rs, ru] = ms(options_.readTimeout);
    c->client.set_connection_timeout(cs, cu);
    c->client.set_read_timeout(rs, ru);
    c->client.set_write_timeout(rs, ru);
    c->client.set_keep_alive(true);
    c->client.set_tcp_nodelay(true);  // a request is one write: do not hold it back waiting for an acknowledgement
    return c;
}

void StubAdapter::Give(std::unique_ptr<Connection> connection) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (idle_.size() < options_.maxIdleConnections) idle_.push_back(std::move(connection));
}

void StubAdapter::Invoke(const std::string& id, ManagedMethod* method, Fundix::RefVector<Any>& arguments,
                         Fundix::Ref<Any>& result, RequestContext*) {
    std::string body;
    codec_.EncodeRequest(MoRef(method->GetOwner()->GetName(), id), method, arguments, body);
    httplib::Headers headers{{"SOAPAction", "\"" + codec_.GetVersionUri() + "\""}};
    std::string session = GetSession();
    if (!session.empty()) headers.emplace("Cookie", std::string(kSessionCookie) + "=" + session);

    std::unique_ptr<Connection> connection = Take();
    httplib::Result response = connection->client.Post(path_, headers, body, "text/xml; charset=utf-8");
    if (!response) {
        // A kept connection the server has closed meanwhile fails at once: try once more on a new one.
        connection = Take();
        response = connection->client.Post(path_, headers, body, "text/xml; charset=utf-8");
        if (!response) Unreachable(scheme_host_port_ + path_ + ": " + httplib::to_string(response.error()));
    }
    if (response->has_header("Set-Cookie")) {
        std::string cookie = response->get_header_value("Set-Cookie");
        std::string prefix = std::string(kSessionCookie) + "=";
        if (cookie.compare(0, prefix.size(), prefix) == 0) {
            std::string value = cookie.substr(prefix.size(), cookie.find(';') - prefix.size());
            SetSession(value);
        }
    }
    std::string text = std::move(response->body);
    int status = response->status;
    Give(std::move(connection));
    if (status != 200 && status != 500) Unreachable("HTTP status " + std::to_string(status));
    result = codec_.DecodeResponse(method, text);
}

}  // namespace Kitra::Http
