// The server's network side on event loops, one per thread: each connection reads its requests under
// deadlines and limits and holds no thread while it waits; Server::Handle serves each request body.
#include <signal.h>

#include <algorithm>
#include <optional>
#include <thread>

#include <boost/beast/core/detect_ssl.hpp>

#include <fundix/Exception.h>

#include "Internal.h"
#include "Net.h"

namespace Kitra::Http {

namespace {

using namespace Net;

// A refused request's peer may still be sending: after the answer the connection reads and drops at most
// this much for at most this long, so that the answer is not lost to a reset.
constexpr size_t kLingerBytes = 1 << 20;
constexpr std::chrono::milliseconds kLingerTime{1000};
// A connection keeps the buffers of its answers for the next up to this size.
constexpr size_t kKeptBytes = 256 * 1024;

class ConnectionBase : public std::enable_shared_from_this<ConnectionBase> {
public:
    virtual ~ConnectionBase() = default;
    virtual void Start() = 0;
    // Ends the connection when it waits for a request; one serving a request finishes it first.
    virtual void Shutdown() = 0;
    // Ends the connection whatever it does.
    virtual void Abort() = 0;
};

}  // namespace

struct Listener::State {
    Server& server;
    ServerOptions options;
    std::optional<ssl::context> tls;
    std::atomic<bool> stopping{false};

    mutable std::mutex mutex;
    std::condition_variable allClosed;
    size_t open = 0;
    std::map<ConnectionBase*, std::weak_ptr<ConnectionBase>> live;

    std::vector<std::thread> threads;
    // Last, so that they go first: handlers still queued are destroyed while the rest is there. Each thread
    // runs an event loop of its own: the first accepts, each of the others serves its share of the
    // connections, so that the thread that reads a request serves it and no other thread needs waking.
    std::vector<std::unique_ptr<net::io_context>> loops = Loops(options.threads);
    std::vector<net::executor_work_guard<net::io_context::executor_type>> work;
    size_t next = 0;  // the serving loop of the next connection accepted, counted from the first
    tcp::acceptor acceptor{net::make_strand(*loops[0])};
    net::steady_timer retry{acceptor.get_executor()};

    State(Server& s, const ServerOptions& o) : server(s), options(o) {}

    static std::vector<std::unique_ptr<net::io_context>> Loops(size_t threads) {
        std::vector<std::unique_ptr<net::io_context>> loops;
        for (size_t i = 0; i <= std::max<size_t>(1, threads); ++i) loops.push_back(std::make_unique<net::io_context>(1));
        return loops;
    }

    void Accept();
    void Admit(tcp::socket socket);
    void Closed(ConnectionBase* connection) {
        std::lock_guard<std::mutex> lock(mutex);
        live.erase(connection);
        --open;
        if (open == 0) allClosed.notify_all();
    }
};

namespace {

template <bool kTls>
class Connection final : public ConnectionBase {
    using Layer = std::conditional_t<kTls, beast::ssl_stream<Net::Stream>, Net::Stream>;

public:
    template <class... Args>
    Connection(Listener::State* state, std::string peer, Args&&... args)
        : state_(state), options_(state->options), stream_(std::forward<Args>(args)...), peer_(std::move(peer)),
          buffer_(options_.maxHeaderBytes + 64 * 1024) {}
    ~Connection() override { state_->Closed(this); }

    void Start() override {
        net::dispatch(stream_.get_executor(), [self = Self()] { self->Begin(); });
    }
    void Shutdown() override {
        net::post(stream_.get_executor(), [self = Self()] {
            if (self->phase_ != Phase::Serving) self->Close();
        });
    }
    void Abort() override {
        net::post(stream_.get_executor(), [self = Self()] { self->Close(); });
    }

private:
    enum class Phase { Waiting, Serving };

    std::shared_ptr<Connection> Self() { return std::static_pointer_cast<Connection>(shared_from_this()); }
    Net::Stream& Lane() {
        if constexpr (kTls) return stream_.next_layer();
        else return stream_;
    }
    beast::tcp_stream& Tcp() { return Lane().Tcp(); }

    void Begin() {
        if constexpr (kTls) {
            // A client speaking plain HTTP to this port gets a plain answer that says so.
            Deadline(options_.idleTimeout);
            beast::async_detect_ssl(Tcp(), buffer_, [self = Self()](beast::error_code ec, bool tls) {
                if (ec) return self->Close();
                if (!tls) return self->Refuse(400, "This server speaks HTTPS: use an https:// URL.", false);
                self->Deadline(self->options_.headTimeout);
                self->stream_.async_handshake(ssl::stream_base::server, self->buffer_.data(),
                                              [self](beast::error_code ec, size_t used) {
                                                  if (ec) return self->Close();
                                                  self->buffer_.consume(used);
                                                  self->ReadNext();
                                              });
            });
        } else {
            ReadNext();
        }
    }

    void ReadNext() {
        phase_ = Phase::Waiting;
        if (state_->stopping) return Close();
        parser_.emplace();
        parser_->header_limit(static_cast<uint32_t>(std::min<size_t>(options_.maxHeaderBytes, UINT32_MAX)));
        parser_->body_limit(options_.limits.maxMessageBytes);
        if (buffer_.size() > 0) return Arrived();
        // Idle until the first byte of the next request arrives.
        Deadline(options_.idleTimeout);
        stream_.async_read_some(buffer_.prepare(4096), [self = Self()](beast::error_code ec, size_t n) {
            if (ec) return self->Close();
            self->buffer_.commit(n);
            self->Arrived();
        });
    }

    // Parses what has arrived of a request right here. A small request usually came whole: it is served on
    // this thread at once. The rest of one that did not is read under the head's or the body's deadline.
    void Arrived() {
        beast::error_code ec;
        while (buffer_.size() > 0 && !parser_->is_done()) {
            size_t used = parser_->put(buffer_.data(), ec);
            buffer_.consume(used);
            if (ec == bhttp::error::need_more) {
                ec = {};
                break;
            }
            if (ec || used == 0) break;
        }
        if (!ec && !parser_->is_header_done()) return ReadHead();
        if (!ec && parser_->is_done()) {
            if (Admit()) Serve();
            return;
        }
        OnHead(ec);
    }

    void ReadHead() {
        Deadline(options_.headTimeout);
        bhttp::async_read_header(stream_, buffer_, *parser_, [self = Self()](beast::error_code ec, size_t) { self->OnHead(ec); });
    }

    // Whether a request whose head has arrived is one to serve; if not, it is refused.
    bool Admit() {
        const auto& request = parser_->get();
        size_t fields = 0;
        for (auto it = request.begin(); it != request.end(); ++it)
            if (++fields > options_.maxHeaderFields) {
                Refuse(431, "More than " + std::to_string(options_.maxHeaderFields) + " header fields.");
                return false;
            }
        std::string_view target = request.target();
        target = target.substr(0, target.find('?'));
        if (target != options_.path) {
            Refuse(404, "Nothing is served at this path.");
            return false;
        }
        if (request.method() != bhttp::verb::post) {
            Refuse(405, "Calls are POST requests.");
            return false;
        }
        phase_ = Phase::Serving;
        return true;
    }

    void OnHead(beast::error_code ec) {
        if (ec == bhttp::error::header_limit) return Refuse(431, "Request header larger than " + std::to_string(options_.maxHeaderBytes) + " bytes.");
        if (ec == bhttp::error::body_limit) return TooLarge();
        if (ec) return Malformed(ec);
        if (!Admit()) return;
        const auto& request = parser_->get();
        // A body of unknown length gets room for the limit at once: pages are only used as bytes arrive, and
        // the string never doubles past the limit on its way there.
        if (!parser_->content_length()) parser_->get().body().reserve(options_.limits.maxMessageBytes);
        Deadline(options_.bodyTimeout);
        if (beast::iequals(request[bhttp::field::expect], "100-continue")) {
            auto interim = std::make_shared<bhttp::response<bhttp::empty_body>>(bhttp::status::continue_, 11);
            bhttp::async_write(stream_, *interim, [self = Self(), interim](beast::error_code ec, size_t) {
                if (ec) return self->Close();
                self->ReadBody();
            });
            return;
        }
        ReadBody();
    }

    void ReadBody() {
        bhttp::async_read(stream_, buffer_, *parser_, [self = Self()](beast::error_code ec, size_t) {
            if (ec == bhttp::error::body_limit) return self->TooLarge();
            if (ec) return self->Malformed(ec);
            self->Serve();
        });
    }

    void TooLarge() {
        Refuse(413, "Request body larger than " + std::to_string(options_.limits.maxMessageBytes) + " bytes.");
    }

    // A broken request gets a plain answer; a peer that went away or ran out of time is just closed.
    void Malformed(beast::error_code ec) {
        if (ec.category() == bhttp::make_error_code(bhttp::error::end_of_stream).category() && ec != bhttp::error::end_of_stream &&
            ec != bhttp::error::partial_message)
            return Refuse(400, "Bad request: " + ec.message() + ".");
        Close();
    }

    void Serve() {
        auto& request = parser_->get();
        bool keep = request.keep_alive();
        Server::Reply reply;
        try {
            reply = state_->server.Handle(request.body(), std::string(request["SOAPAction"]),
                                          std::string(request[bhttp::field::cookie]), peer_);
        } catch (...) {
            return Close();
        }
        parser_.reset();  // the request body goes now
        keep = keep && !state_->stopping;
        const char* attributes = kTls ? "; Path=/; HttpOnly; SameSite=Strict; Secure" : "; Path=/; HttpOnly; SameSite=Strict";
        std::string& out = out_;
        out.clear();
        auto status = static_cast<bhttp::status>(reply.status);
        std::string_view reason = bhttp::obsolete_reason(status);
        out.append("HTTP/1.1 ").append(std::to_string(reply.status)).append(" ").append(reason.data(), reason.size());
        out.append("\r\nContent-Type: text/xml; charset=utf-8\r\n");
        if (!reply.setSession.empty())
            out.append("Set-Cookie: ").append(kSessionCookie).append("=").append(reply.setSession).append(attributes).append("\r\n");
        else if (reply.clearSession)
            out.append("Set-Cookie: ").append(kSessionCookie).append("=").append(attributes).append("; Max-Age=0\r\n");
        if (!keep) out.append("Connection: close\r\n");
        out.append("Content-Length: ").append(std::to_string(reply.body.size())).append("\r\n\r\n").append(reply.body);
        Write(keep);
    }

    // Sends the answer in out_ as far as the socket takes it now, here; what remains goes asynchronously
    // under the write deadline.
    void Write(bool keep) {
        spill_.clear();
        beast::error_code ec;
        Lane().spill = &spill_;
        net::write(stream_, net::buffer(out_), ec);
        Lane().spill = nullptr;
        if (ec) return Close();
        if (spill_.empty()) return Written(keep);
        Deadline(options_.writeTimeout);
        net::async_write(Tcp(), net::buffer(spill_), [self = Self(), keep](beast::error_code ec, size_t) {
            if (ec) return self->Close();
            self->Written(keep);
        });
    }

    void Written(bool keep) {
        // Answers far larger than usual do not keep their memory with an idle connection.
        if (out_.capacity() > kKeptBytes) std::string().swap(out_);
        if (spill_.capacity() > kKeptBytes) std::string().swap(spill_);
        if (!keep) return Close();
        ReadNext();
    }

    // Answers `status` with a short text, then closes (after a while of reading what the peer still sends).
    void Refuse(unsigned status, const std::string& text, bool overTls = kTls) {
        phase_ = Phase::Serving;
        parser_.reset();
        response_ = {};
        response_.version(11);
        response_.result(status);
        response_.set(bhttp::field::content_type, "text/plain; charset=utf-8");
        response_.body() = text + "\n";
        response_.keep_alive(false);
        response_.prepare_payload();
        Deadline(options_.writeTimeout);
        auto linger = [self = Self()](beast::error_code ec, size_t) {
            if (ec) return self->Close();
            self->Linger();
        };
        if (overTls) bhttp::async_write(stream_, response_, linger);
        else bhttp::async_write(Tcp(), response_, linger);
    }

    void Linger() {
        beast::error_code ignored;
        Tcp().socket().shutdown(tcp::socket::shutdown_send, ignored);
        Deadline(kLingerTime);
        drain_ = std::make_unique<char[]>(8192);
        Drain(0);
    }

    void Drain(size_t drained) {
        if (drained >= kLingerBytes) return Close();
        Tcp().async_read_some(net::buffer(drain_.get(), 8192), [self = Self(), drained](beast::error_code ec, size_t n) {
            if (ec) return self->Close();
            self->Drain(drained + n);
        });
    }

    // Every read and write of the connection ends by `deadline_`: past it the connection is closed, and what
    // it waited for fails. One timer serves all deadlines; it is set again only when a deadline comes earlier
    // than it is set for, so that a kept connection's requests do not touch it.
    void Deadline(std::chrono::milliseconds within) {
        deadline_ = Clock::now() + within;
        if (deadline_ < armed_) Arm();
    }

    void Arm() {
        armed_ = deadline_;
        timer_.expires_at(deadline_);
        timer_.async_wait([self = Self()](beast::error_code ec) {
            if (ec || self->closed_) return;  // set again meanwhile, or done with
            self->armed_ = Clock::time_point::max();
            if (Clock::now() >= self->deadline_) return self->Close();
            self->Arm();
        });
    }

    void Close() {
        if (closed_) return;
        closed_ = true;
        timer_.cancel();
        beast::error_code ignored;
        Tcp().socket().shutdown(tcp::socket::shutdown_both, ignored);
        Tcp().close();
    }

    Listener::State* state_;
    const ServerOptions& options_;
    Layer stream_;
    std::string peer_;
    beast::flat_buffer buffer_;
    std::optional<bhttp::request_parser<bhttp::string_body>> parser_;
    bhttp::response<bhttp::string_body> response_;  // a refusal
    std::string out_, spill_;                        // an answer; what the socket did not take at once
    std::unique_ptr<char[]> drain_;
    net::steady_timer timer_{Tcp().get_executor()};
    Clock::time_point deadline_ = Clock::time_point::max(), armed_ = Clock::time_point::max();
    Phase phase_ = Phase::Waiting;
    bool closed_ = false;
};

}  // namespace

void Listener::State::Accept() {
    acceptor.async_accept(net::make_strand(*loops[1 + next++ % (loops.size() - 1)]), [this](beast::error_code ec, tcp::socket socket) {
        if (ec == net::error::operation_aborted || stopping) return;
        if (ec) {
            // Out of descriptors or memory for a moment: try again shortly rather than spin.
            retry.expires_after(std::chrono::milliseconds(50));
            retry.async_wait([this](beast::error_code ec) {
                if (!ec && !stopping) Accept();
            });
            return;
        }
        Admit(std::move(socket));
        Accept();
    });
}

void Listener::State::Admit(tcp::socket socket) {
    beast::error_code ec;
    bool full;
    {
        std::lock_guard<std::mutex> lock(mutex);
        full = open >= options.maxConnections;
        if (!full) ++open;
    }
    if (full) {
        // Refused cleanly, without waiting on the peer: a plain answer when it can be written at once.
        if (!tls) {
            static const char kBusy[] =
                "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain\r\nContent-Length: 25\r\n"
                "Retry-After: 1\r\nConnection: close\r\n\r\nToo many open connections";
            socket.non_blocking(true, ec);
            socket.write_some(net::buffer(kBusy, sizeof kBusy - 1), ec);
        }
        socket.shutdown(tcp::socket::shutdown_both, ec);
        socket.close(ec);
        return;
    }
    socket.set_option(tcp::no_delay(true), ec);  // an answer is one write: do not hold it back
    std::string peer = socket.remote_endpoint(ec).address().to_string();
    std::shared_ptr<ConnectionBase> connection;
    if (tls) connection = std::make_shared<Connection<true>>(this, std::move(peer), std::move(socket), *tls);
    else connection = std::make_shared<Connection<false>>(this, std::move(peer), std::move(socket));
    {
        std::lock_guard<std::mutex> lock(mutex);
        live[connection.get()] = connection;
    }
    connection->Start();
}

Listener::Listener(Server& server, const ServerOptions& options) : state_(std::make_shared<State>(server, options)) {}

Listener::~Listener() { Stop(); }

size_t Listener::Open() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->open;
}

int Listener::Start() {
    State& s = *state_;
    const ServerOptions& o = s.options;
    std::string where = o.host + ":" + std::to_string(o.port);
    tcp::endpoint endpoint;
    try {
        tcp::resolver resolver(*s.loops[0]);
        auto results = resolver.resolve(o.host, std::to_string(o.port), tcp::resolver::passive | tcp::resolver::numeric_service);
        if (results.empty()) throw Fundix::InvalidArgumentException("cannot listen on " + where + ": no address");
        endpoint = results.begin()->endpoint();
    } catch (const boost::system::system_error& e) {
        throw Fundix::InvalidArgumentException("cannot listen on " + where + ": " + e.code().message());
    }
    if (o.tls.Empty() && !o.allowPlainHttp && !endpoint.address().is_loopback())
        throw Fundix::InvalidArgumentException("plain HTTP is served on a loopback address only (" + where +
                                               "): serve HTTPS, or allow plain HTTP explicitly");
    if (!o.tls.Empty()) {
        try {
            s.tls.emplace(ssl::context::tls_server);
            s.tls->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                               ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1 | ssl::context::single_dh_use);
            s.tls->use_certificate_chain(net::buffer(o.tls.certificatePem));
            s.tls->use_private_key(net::buffer(o.tls.keyPem), ssl::context::pem);
        } catch (const boost::system::system_error& e) {
            throw Fundix::InvalidArgumentException("cannot use the certificate and key: " + e.code().message());
        }
    }
    beast::error_code ec;
    s.acceptor.open(endpoint.protocol(), ec);
    if (!ec) s.acceptor.set_option(net::socket_base::reuse_address(true), ec);
    if (!ec) s.acceptor.bind(endpoint, ec);
    if (!ec) s.acceptor.listen(net::socket_base::max_listen_connections, ec);
    if (ec) throw Fundix::InvalidArgumentException("cannot listen on " + where + ": " + ec.message());
    int port = s.acceptor.local_endpoint().port();

    for (auto& loop : s.loops) s.work.push_back(net::make_work_guard(*loop));
    s.Accept();
    for (auto& loop : s.loops) {
        s.threads.emplace_back([&ioc = *loop] {
            // Signals are the program's business, not the serving threads'.
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_BLOCK, &all, nullptr);
            for (;;) {
                try {
                    ioc.run();
                    return;
                } catch (...) {
                }
            }
        });
    }
    return port;
}

void Listener::Stop() {
    State& s = *state_;
    if (s.threads.empty() || s.stopping.exchange(true)) return;
    net::post(s.acceptor.get_executor(), [&s] {
        beast::error_code ignored;
        s.acceptor.close(ignored);
        s.retry.cancel();
    });
    auto each = [&s](auto action) {
        std::vector<std::shared_ptr<ConnectionBase>> all;
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            for (auto& [raw, weak] : s.live)
                if (auto c = weak.lock()) all.push_back(c);
        }
        for (auto& c : all) action(*c);
    };
    // Waiting connections close now; calls in progress finish and their connections close after answering.
    each([](ConnectionBase& c) { c.Shutdown(); });
    {
        std::unique_lock<std::mutex> lock(s.mutex);
        if (!s.allClosed.wait_for(lock, s.options.stopTimeout, [&s] { return s.open == 0; })) {
            lock.unlock();
            each([](ConnectionBase& c) { c.Abort(); });
            lock.lock();
            s.allClosed.wait_for(lock, std::chrono::seconds(1), [&s] { return s.open == 0; });
        }
    }
    s.work.clear();
    for (auto& loop : s.loops) loop->stop();
    for (auto& t : s.threads) t.join();
    s.threads.clear();
}

}  // namespace Kitra::Http
