// The HTTP stub adapter: each call is one POST of a request envelope over a kept connection of the adapter's
// pool. Calls run on the process's client event loop; a synchronous call waits for its own.
#include <signal.h>

#include <condition_variable>
#include <deque>
#include <optional>
#include <thread>

#include <fundix/Exception.h>
#include <kitra/Array.h>
#include <kitra/Http.h>
#include <kitra/fault/types.h>

#include "Internal.h"
#include "Net.h"

namespace Kitra::Http {

namespace {

using namespace Net;

thread_local bool tOnTransport = false;

// The client side's event loop, shared by every adapter of the process. A synchronous call made on one of its
// threads (from a completion) would hold that thread: the loop then gains a thread so that it never stalls.
class Transport {
public:
    net::io_context ioc;

    static Transport& Get() {
        static Transport* transport = new Transport();  // lives as long as the process: calls may be in flight at exit
        return *transport;
    }

    void Blocking() {
        if (blocked_.fetch_add(1) + 1 >= threads_.load()) AddThread();
    }
    void Unblocked() { blocked_.fetch_sub(1); }

private:
    Transport() : work_(ioc.get_executor()) {
        AddThread();
        AddThread();
    }

    void AddThread() {
        threads_.fetch_add(1);
        std::thread([this] {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_BLOCK, &all, nullptr);
            tOnTransport = true;
            for (;;) {
                try {
                    ioc.run();
                    return;
                } catch (...) {
                }
            }
        }).detach();
    }

    net::executor_work_guard<net::io_context::executor_type> work_;
    std::atomic<int> threads_{0};
    std::atomic<int> blocked_{0};
};

struct Connection {
    std::unique_ptr<Stream> plain;
    std::unique_ptr<beast::ssl_stream<Stream>> secure;
    beast::flat_buffer buffer;
    std::string out;  // a synchronous call's request, head and body; kept for its capacity
    Clock::time_point used;

    Stream& Socket() { return secure ? secure->next_layer() : *plain; }
    beast::tcp_stream& Tcp() { return Socket().Tcp(); }
    template <class F>
    void With(F&& f) {
        if (secure) f(*secure);
        else f(*plain);
    }
};

// How a call ended on the network side.
struct Outcome {
    enum Kind { Answered, Failed, Rejected, Refused } kind = Failed;
    std::string reason;
    Tls::Rejection rejection;
    unsigned status = 0;
    std::string body;
    std::string contentType;
    std::exception_ptr error;  // Refused: the call could not even be written
};

class Exchange;

}  // namespace

struct StubAdapter::Pool : std::enable_shared_from_this<StubAdapter::Pool> {
    ClientOptions options;
    bool tls = false;
    std::string host, port, path, where;
    std::optional<ssl::context> context;

    std::mutex mutex;
    std::string session;
    std::vector<std::shared_ptr<Connection>> idle;
    size_t open = 0;
    std::deque<std::shared_ptr<Exchange>> waiting;

    std::string soapAction;  // the header's value for the adapter's version

    void Acquire(const std::shared_ptr<Exchange>& exchange);
    // A kept connection fit for use, or null.
    std::shared_ptr<Connection> TakeIdle();
    // Takes a connection back after an answer (null when it cannot be kept).
    void Release(std::shared_ptr<Connection> connection);
    void TakeCookie(std::string_view header);
};

namespace {

class Exchange : public std::enable_shared_from_this<Exchange> {
public:
    using Done = std::function<void(Outcome&&)>;

    Exchange(std::shared_ptr<StubAdapter::Pool> pool, std::string body, const std::string& soapAction, Done done)
        : pool_(std::move(pool)), done_(std::move(done)) {
        request_.method(bhttp::verb::post);
        request_.target(pool_->path);
        request_.version(11);
        request_.set(bhttp::field::host, pool_->host + ":" + pool_->port);
        request_.set(bhttp::field::content_type, "text/xml; charset=utf-8");
        request_.set("SOAPAction", soapAction);
        std::string session;
        {
            std::lock_guard<std::mutex> lock(pool_->mutex);
            session = pool_->session;
        }
        if (!session.empty()) request_.set(bhttp::field::cookie, std::string(kSessionCookie) + "=" + session);
        request_.body() = std::move(body);
        request_.keep_alive(true);
        request_.prepare_payload();
    }

    void Begin() { pool_->Acquire(shared_from_this()); }

    // Opens a new connection for this call.
    void Connect() {
        connection_ = std::make_shared<Connection>();
        auto strand = net::make_strand(Transport::Get().ioc);
        if (pool_->tls) {
            connection_->secure = std::make_unique<beast::ssl_stream<Stream>>(strand, *pool_->context);
            SSL_set_tlsext_host_name(connection_->secure->native_handle(), pool_->host.c_str());
        } else {
            connection_->plain = std::make_unique<Stream>(strand);
        }
        reused_ = false;
        resolver_ = std::make_unique<tcp::resolver>(strand);
        resolver_->async_resolve(pool_->host, pool_->port, [self = shared_from_this()](beast::error_code ec, tcp::resolver::results_type results) {
            if (ec) return self->Fail("cannot resolve " + self->pool_->host + ": " + ec.message());
            auto& stream = self->connection_->Tcp();
            stream.expires_after(self->pool_->options.connectTimeout);
            stream.async_connect(results, [self](beast::error_code ec, const tcp::endpoint&) {
                if (ec == beast::error::timeout)
                    return self->Fail("no connection to " + self->pool_->where + " within " +
                                      std::to_string(self->pool_->options.connectTimeout.count()) + " ms");
                if (ec) return self->Fail("cannot connect to " + self->pool_->where + ": " + ec.message());
                beast::error_code ignored;
                self->connection_->Tcp().socket().set_option(tcp::no_delay(true), ignored);
                if (self->pool_->tls) return self->Handshake();
                self->Write();
            });
        });
    }

    // Sends the call on a kept connection. Nothing else uses the connection, so the write starts right here
    // (on the caller's thread the request goes out without waking the loop); its completion runs on the strand.
    void Reuse(std::shared_ptr<Connection> connection) {
        connection_ = std::move(connection);
        connection_->Socket().Attach();
        reused_ = true;
        Write();
    }

private:
    void Handshake() {
        connection_->secure->async_handshake(ssl::stream_base::client, [self = shared_from_this()](beast::error_code ec) {
            if (ec == beast::error::timeout)
                return self->Fail("no TLS handshake with " + self->pool_->where + " within " +
                                  std::to_string(self->pool_->options.connectTimeout.count()) + " ms");
            if (ec)
                return self->Fail("TLS handshake with " + self->pool_->where + " failed: " + ec.message() +
                                  " (does the server speak HTTPS?)");
            Tls::Rejection rejection;
            SSL* ssl = self->connection_->secure->native_handle();
            if (!Tls::CheckPeer(ssl, self->pool_->options.thumbprint, SSL_CTX_get_cert_store(self->pool_->context->native_handle()),
                                self->pool_->host, rejection)) {
                Outcome outcome;
                outcome.kind = Outcome::Rejected;
                outcome.reason = rejection.reason;
                outcome.rejection = std::move(rejection);
                return self->End(std::move(outcome), nullptr);
            }
            self->Write();
        });
    }

    void Write() {
        parser_.emplace();
        parser_->body_limit(pool_->options.maxResponseBytes);
        parser_->header_limit(64 * 1024);
        connection_->Tcp().expires_after(pool_->options.readTimeout);
        connection_->With([this](auto& stream) {
            bhttp::async_write(stream, request_, [self = shared_from_this()](beast::error_code ec, size_t) {
                if (ec && ec != beast::error::timeout && !(self->reused_ && !self->retried_)) {
                    // The server may have refused the request before taking all of it (413): its answer says why.
                    self->unsent_ = ec;
                    return self->Read();
                }
                if (ec) return self->Broken(ec, "cannot send to ");
                self->Read();
            });
        });
    }

    void Read() {
        connection_->With([this](auto& stream) {
            bhttp::async_read(stream, connection_->buffer, *parser_, [self = shared_from_this()](beast::error_code ec, size_t) {
                if (ec && self->unsent_) return self->Fail("cannot send to " + self->pool_->where + ": " + self->unsent_.message());
                if (ec) return self->Broken(ec, "no answer from ");
                self->Answered();
            });
        });
    }

    // A kept connection the server closed meanwhile fails before any answer: the call goes once more on a
    // new connection. Anything else ends the call.
    void Broken(beast::error_code ec, const char* what) {
        if (reused_ && !retried_ && !parser_->got_some() && ec != beast::error::timeout) {
            retried_ = true;
            connection_.reset();
            return Connect();
        }
        if (ec == beast::error::timeout)
            return Fail("no answer from " + pool_->where + " within " + std::to_string(pool_->options.readTimeout.count()) + " ms");
        Fail(what + pool_->where + ": " + ec.message());
    }

    void Answered() {
        auto& response = parser_->get();
        for (auto it = response.find(bhttp::field::set_cookie); it != response.end() && it->name() == bhttp::field::set_cookie; ++it)
            pool_->TakeCookie(it->value());
        Outcome outcome;
        outcome.kind = Outcome::Answered;
        outcome.status = response.result_int();
        outcome.contentType = std::string(response[bhttp::field::content_type]);
        outcome.body = std::move(response.body());
        bool keep = response.keep_alive();
        parser_.reset();
        End(std::move(outcome), keep ? connection_ : nullptr);
    }

    void Fail(std::string reason) {
        Outcome outcome;
        outcome.kind = Outcome::Failed;
        outcome.reason = std::move(reason);
        End(std::move(outcome), nullptr);
    }

    void End(Outcome&& outcome, std::shared_ptr<Connection> keep) {
        if (!keep && connection_) {
            connection_->Socket().Close();
        }
        connection_.reset();
        resolver_.reset();
        pool_->Release(std::move(keep));
        Done done = std::move(done_);
        done(std::move(outcome));
    }

    std::shared_ptr<StubAdapter::Pool> pool_;
    Done done_;
    bhttp::request<bhttp::string_body> request_;
    std::optional<bhttp::response_parser<bhttp::string_body>> parser_;
    std::shared_ptr<Connection> connection_;
    std::unique_ptr<tcp::resolver> resolver_;
    bool reused_ = false;
    bool retried_ = false;
    beast::error_code unsent_;  // the write failed; an answer may still have come
};

}  // namespace

namespace {

// Takes the most recently used idle connection that is still fresh; older ones go to `stale`. Under the lock.
std::shared_ptr<Connection> Fresh(StubAdapter::Pool& pool, std::vector<std::shared_ptr<Connection>>& stale) {
    auto now = Clock::now();
    while (!pool.idle.empty()) {
        std::shared_ptr<Connection> c = std::move(pool.idle.back());
        pool.idle.pop_back();
        if (now - c->used < pool.options.idleTimeout) return c;
        --pool.open;
        stale.push_back(std::move(c));
    }
    return nullptr;
}

}  // namespace

std::shared_ptr<Connection> StubAdapter::Pool::TakeIdle() {
    std::vector<std::shared_ptr<Connection>> stale;
    std::lock_guard<std::mutex> lock(mutex);
    return Fresh(*this, stale);
}

void StubAdapter::Pool::Acquire(const std::shared_ptr<Exchange>& exchange) {
    std::shared_ptr<Connection> kept;
    std::vector<std::shared_ptr<Connection>> stale;
    bool connect = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        kept = Fresh(*this, stale);
        if (!kept) {
            if (open < options.maxConnections) {
                ++open;
                connect = true;
            } else {
                waiting.push_back(exchange);
            }
        }
    }
    stale.clear();  // closed as they go, outside the lock
    if (kept) exchange->Reuse(std::move(kept));
    else if (connect) exchange->Connect();
}

void StubAdapter::Pool::Release(std::shared_ptr<Connection> connection) {
    std::shared_ptr<Exchange> next;
    bool connect = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (connection) {
            connection->used = Clock::now();
            if (!waiting.empty()) {
                next = std::move(waiting.front());
                waiting.pop_front();
            } else if (idle.size() < options.maxIdleConnections) {
                idle.push_back(std::move(connection));
                return;
            } else {
                --open;
            }
        } else {
            --open;
        }
        if (!next && !waiting.empty() && open < options.maxConnections) {
            next = std::move(waiting.front());
            waiting.pop_front();
            ++open;
            connect = true;
        }
    }
    if (!next) return;
    if (connect) next->Connect();
    else next->Reuse(std::move(connection));
}

void StubAdapter::Pool::TakeCookie(std::string_view header) {
    std::string prefix = std::string(kSessionCookie) + "=";
    if (header.substr(0, prefix.size()) != prefix) return;
    std::string_view value = header.substr(prefix.size());
    value = value.substr(0, value.find(';'));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
    std::lock_guard<std::mutex> lock(mutex);
    session = std::string(value);
}

namespace {

// The caller's view of an outcome: the decoded result, or the failure raised.
Fundix::Ref<Any> Conclude(const Soap::Codec& codec, ManagedMethod* method, const StubAdapter::Pool& pool, Outcome& outcome) {
    switch (outcome.kind) {
    case Outcome::Refused:
        std::rethrow_exception(outcome.error);
    case Outcome::Failed:
        Fault::CommunicationFailure::Exception(outcome.reason).Throw();
    case Outcome::Rejected: {
        Fundix::Ref<Array<std::string>> chain(new Array<std::string>());
        for (const auto& pem : outcome.rejection.chain) chain->Append(pem);
        Fault::CertificateRejected::Exception(outcome.reason, outcome.rejection.thumbprint, outcome.rejection.selfSigned,
                                              chain.Get())
            .Throw();
    }
    case Outcome::Answered:
        break;
    }
    if (outcome.status != 200 && outcome.status != 500) {
        std::string reason = "HTTP status " + std::to_string(outcome.status) + " from " + pool.where + pool.path;
        // A short plain answer says why (a refused request, HTTPS expected).
        if (outcome.contentType.compare(0, 10, "text/plain") == 0 && !outcome.body.empty()) {
            std::string text = outcome.body.substr(0, 200);
            while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
            reason += ": " + text;
        }
        Fault::CommunicationFailure::Exception(reason).Throw();
    }
    return codec.DecodeResponse(method, outcome.body);
}

void Close(Connection& connection) {
    connection.Socket().Close();
}

// Makes a call on a kept connection on this thread: the request goes out and the answer is read here, without
// the event loop, within the same deadline. False when the server had closed the connection before any answer
// came: the call is then still to be made, on another connection.
bool Direct(StubAdapter::Pool& pool, std::shared_ptr<Connection> connection, const std::string& body, Outcome& outcome) {
    std::string& out = connection->out;
    out.clear();
    out.append("POST ").append(pool.path).append(" HTTP/1.1\r\nHost: ").append(pool.host).append(":").append(pool.port);
    out.append("\r\nContent-Type: text/xml; charset=utf-8\r\nSOAPAction: ").append(pool.soapAction);
    {
        std::lock_guard<std::mutex> lock(pool.mutex);
        if (!pool.session.empty()) out.append("\r\nCookie: ").append(kSessionCookie).append("=").append(pool.session);
    }
    out.append("\r\nContent-Length: ").append(std::to_string(body.size())).append("\r\n\r\n").append(body);

    connection->Socket().Detach();
    connection->Socket().deadline = Clock::now() + pool.options.readTimeout;
    auto fail = [&](std::string reason) {
        Close(*connection);
        pool.Release(nullptr);
        outcome.kind = Outcome::Failed;
        outcome.reason = std::move(reason);
        return true;
    };
    auto timedOut = [&] {
        return fail("no answer from " + pool.where + " within " + std::to_string(pool.options.readTimeout.count()) + " ms");
    };
    beast::error_code ec;
    connection->With([&](auto& stream) { net::write(stream, net::buffer(out), ec); });
    if (ec == beast::error::timeout) return timedOut();
    if (ec) {
        Close(*connection);
        pool.Release(nullptr);
        return false;
    }
    bhttp::response_parser<bhttp::string_body> parser;
    parser.body_limit(pool.options.maxResponseBytes);
    parser.header_limit(64 * 1024);
    connection->With([&](auto& stream) { bhttp::read(stream, connection->buffer, parser, ec); });
    if (ec == beast::error::timeout) return timedOut();
    if (ec && !parser.got_some()) {
        Close(*connection);
        pool.Release(nullptr);
        return false;
    }
    if (ec) return fail("no answer from " + pool.where + ": " + ec.message());

    auto& response = parser.get();
    for (auto it = response.find(bhttp::field::set_cookie); it != response.end() && it->name() == bhttp::field::set_cookie; ++it)
        pool.TakeCookie(it->value());
    outcome.kind = Outcome::Answered;
    outcome.status = response.result_int();
    outcome.contentType = std::string(response[bhttp::field::content_type]);
    outcome.body = std::move(response.body());
    if (response.keep_alive()) {
        pool.Release(std::move(connection));
    } else {
        Close(*connection);
        pool.Release(nullptr);
    }
    return true;
}

}  // namespace

StubAdapter::StubAdapter(const std::string& url, const std::string& version, ClientOptions options)
    : codec_(version), pool_(std::make_shared<Pool>()) {
    Pool& p = *pool_;
    p.options = options;
    // "http://host[:port]/path", "https://[::1]:8443/path"
    size_t scheme = url.find("://");
    std::string name = scheme == std::string::npos ? "" : url.substr(0, scheme);
    size_t slash = scheme == std::string::npos ? std::string::npos : url.find('/', scheme + 3);
    if ((name != "http" && name != "https") || slash == std::string::npos)
        throw Fundix::InvalidArgumentException("not an http or https URL with a path: " + url);
    p.tls = name == "https";
    std::string authority = url.substr(scheme + 3, slash - scheme - 3);
    p.path = url.substr(slash);
    p.port = p.tls ? "443" : "80";
    if (!authority.empty() && authority.front() == '[') {
        size_t close = authority.find(']');
        if (close == std::string::npos) throw Fundix::InvalidArgumentException("not an http or https URL with a path: " + url);
        p.host = authority.substr(1, close - 1);
        if (close + 1 < authority.size() && authority[close + 1] == ':') p.port = authority.substr(close + 2);
    } else {
        size_t colon = authority.rfind(':');
        p.host = authority.substr(0, colon);
        if (colon != std::string::npos) p.port = authority.substr(colon + 1);
    }
    if (p.host.empty() || p.port.empty() || p.port.find_first_not_of("0123456789") != std::string::npos)
        throw Fundix::InvalidArgumentException("not an http or https URL with a path: " + url);
    p.where = name + "://" + authority;
    p.soapAction = "\"" + codec_.GetVersionUri() + "\"";
    if (!options.thumbprint.empty() && !Tls::IsThumbprint(options.thumbprint))
        throw Fundix::InvalidArgumentException("not a SHA-1 or SHA-256 thumbprint: " + options.thumbprint);
    if (p.tls) {
        try {
            p.context.emplace(ssl::context::tls_client);
            p.context->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                                   ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1);
            // The certificate is checked after the handshake, before anything is sent (Tls::CheckPeer), so that
            // a rejection can name what was presented.
            p.context->set_verify_mode(ssl::verify_none);
            if (options.thumbprint.empty()) {
                p.context->set_default_verify_paths();
                if (!options.trustedPem.empty()) p.context->add_certificate_authority(net::buffer(options.trustedPem));
            }
        } catch (const boost::system::system_error& e) {
            throw Fundix::InvalidArgumentException("cannot set up TLS: " + e.code().message());
        }
    }
}

StubAdapter::~StubAdapter() = default;

std::string StubAdapter::GetSession() const {
    std::lock_guard<std::mutex> lock(pool_->mutex);
    return pool_->session;
}

void StubAdapter::SetSession(const std::string& key) {
    std::lock_guard<std::mutex> lock(pool_->mutex);
    pool_->session = key;
}

void StubAdapter::Invoke(const std::string& id, ManagedMethod* method, Fundix::RefVector<Any>& arguments,
                         Fundix::Ref<Any>& result, RequestContext*) {
    std::string body;
    codec_.EncodeRequest(MoRef(method->GetOwner()->GetName(), id), method, arguments, body);
    struct Waiter {
        std::mutex mutex;
        std::condition_variable ready;
        bool done = false;
        Outcome outcome;
    };
    // A call made on one of the loop's threads holds that thread: the loop gains one meanwhile.
    struct Hold {
        bool onTransport = tOnTransport;
        Hold() {
            if (onTransport) Transport::Get().Blocking();
        }
        ~Hold() {
            if (onTransport) Transport::Get().Unblocked();
        }
    } hold;
    // On a kept connection the call runs on this thread; a new connection is opened by the loop.
    Outcome outcome;
    if (auto kept = pool_->TakeIdle(); kept && Direct(*pool_, std::move(kept), body, outcome)) {
        result = Conclude(codec_, method, *pool_, outcome);
        return;
    }
    auto waiter = std::make_shared<Waiter>();
    std::make_shared<Exchange>(pool_, std::move(body), pool_->soapAction, [waiter](Outcome&& outcome) {
        std::lock_guard<std::mutex> lock(waiter->mutex);
        waiter->outcome = std::move(outcome);
        waiter->done = true;
        waiter->ready.notify_one();
    })->Begin();
    {
        std::unique_lock<std::mutex> lock(waiter->mutex);
        waiter->ready.wait(lock, [&] { return waiter->done; });
    }
    result = Conclude(codec_, method, *pool_, waiter->outcome);
}

void StubAdapter::StartInvoke(const std::string& id, ManagedMethod* method, Fundix::RefVector<Any>& arguments,
                              const Completion& completion, Fundix::Ref<Fundix::System::ScheduledItem>& item,
                              RequestContext*) {
    Fundix::Ref<StubAdapter> self(this);
    Fundix::Ref<ManagedMethod> m(method);
    auto outcome = std::make_shared<Outcome>();
    auto running = std::make_shared<Fundix::System::ScheduledItem*>(nullptr);
    Fundix::Ref<Fundix::System::ScheduledItem> carrier(new Fundix::System::ScheduledItem([self, m, outcome, running, completion] {
        Complete(*running, completion,
                 [&]() { return Conclude(self->codec_, m.Get(), *self->pool_, *outcome); });
    }));
    *running = carrier.Get();
    item = carrier;
    std::string body;
    try {
        codec_.EncodeRequest(MoRef(method->GetOwner()->GetName(), id), method, arguments, body);
    } catch (...) {
        // Not even written (a value the version lacks): the completion still comes on the transport.
        outcome->kind = Outcome::Refused;
        outcome->error = std::current_exception();
        net::post(Transport::Get().ioc, [carrier] { carrier->Run(); });
        return;
    }
    std::make_shared<Exchange>(pool_, std::move(body), pool_->soapAction, [outcome, carrier](Outcome&& o) {
        *outcome = std::move(o);
        carrier->Run();
    })->Begin();
}

}  // namespace Kitra::Http
