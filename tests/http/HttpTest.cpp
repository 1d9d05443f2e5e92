// Calls over HTTP and HTTPS on loopback: sessions, privileges, faults, bad requests, restarts and load; the
// server's limits and deadlines against peers that misbehave; certificates; many calls in flight.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include <dovra/fault/types.h>
#include <kitra/Http.h>
#include <kitra/Kitra.h>
#include <kitra/fault/types.h>
#include <morphel/types.h>

#include "../soap/Wire.h"

namespace {

using Fundix::Ref;
using Kitra::Http::Call;

const char kV4[] = "morphel.version.version4";
const char kV1[] = "morphel.version.version1";

// Serves the operations of a stub from functions by method name: the stub is the implementation object
// the server dispatches to, the functions stand in for a real implementation.
class Backend : public Kitra::StubAdapter {
public:
    using Handler = std::function<Ref<Kitra::Any>(Fundix::RefVector<Kitra::Any>&)>;
    std::map<std::string, Handler> handlers;

    void Invoke(const std::string&, Kitra::ManagedMethod* method, Fundix::RefVector<Kitra::Any>& args,
                Ref<Kitra::Any>& result, Kitra::RequestContext*) override {
        auto it = handlers.find(method->GetName());
        if (it == handlers.end()) throw std::runtime_error("secret internal detail");
        result = it->second(args);
    }
};

// A plain TCP connection for requests and behaviour no stub would show.
class Raw {
public:
    explicit Raw(int port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        timeval five{5, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &five, sizeof five);
    }
    ~Raw() { ::close(fd_); }
    Raw(const Raw&) = delete;
    bool Connected() const { return connected_; }
    bool Send(const std::string& bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0) return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }
    // Everything until the server closes (or five seconds pass); or, with `one`, one answer with a
    // Content-Length.
    std::string Read(bool one = false) {
        std::string all;
        char buffer[4096];
        for (;;) {
            size_t head = all.find("\r\n\r\n");
            if (one && head != std::string::npos) {
                std::string h = all.substr(0, head);
                size_t at = h.find("Content-Length:");
                if (at != std::string::npos && all.size() >= head + 4 + std::stoul(h.substr(at + 15))) return all;
            }
            ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
            if (n <= 0) return all;
            all.append(buffer, static_cast<size_t>(n));
        }
    }
    // True when the server closed the connection within `within`.
    bool ClosedWithin(std::chrono::milliseconds within) {
        auto until = std::chrono::steady_clock::now() + within;
        char buffer[4096];
        while (std::chrono::steady_clock::now() < until) {
            pollfd p{fd_, POLLIN, 0};
            int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now()).count());
            if (::poll(&p, 1, std::max(left, 1)) <= 0) continue;
            ssize_t n = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
            if (n <= 0) return true;
        }
        return false;
    }

private:
    int fd_ = -1;
    bool connected_ = false;
};

// `count` hex digits of one case from `at`. (By hand: <regex> draws a maybe-uninitialized warning from
// g++ 12 in the sanitizer build.)
bool HexAt(const std::string& text, size_t at, size_t count, bool upper) {
    if (at > text.size() || count > text.size() - at) return false;
    for (size_t i = at; i < at + count; ++i) {
        const char c = text[i];
        if (!((c >= '0' && c <= '9') || (upper ? c >= 'A' && c <= 'F' : c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}

int Status(const std::string& response) {
    return response.size() > 12 && response.compare(0, 9, "HTTP/1.1 ") == 0 ? std::stoi(response.substr(9, 3)) : 0;
}

std::string Text(const Kitra::Any* box) { return static_cast<const Kitra::Primitive<std::string>*>(box)->GetValue(); }

class HttpTest : public ::testing::Test {
protected:
    void SetUp() override { StartServer(0); }
    // The server goes first: a call still being served logs into this fixture.
    void TearDown() override { server_.reset(); }

    void StartServer(int port, const std::function<void(Kitra::Http::ServerOptions&)>& tune = {}) {
        Kitra::Http::ServerOptions options;
        options.port = port;
        options.versions = {kV4, kV1};
        options.limits.maxMessageBytes = 64 * 1024;
        if (tune) tune(options);
        server_.reset();
        server_ = std::make_unique<Kitra::Http::Server>(options);
        backend_ = new Backend();
        backend_->handlers["retrieveContent"] = [](auto&) {
            return Ref<Kitra::Any>(WireTest::Sample("morphel.ServiceInstanceContent").Get());
        };
        auto session = [](Kitra::Http::Session* s) -> Ref<Kitra::Any> {
            return new Morphel::UserSession(s->GetKey(), s->GetUserName(), "", Fundix::System::DateTime(),
                                            Fundix::System::DateTime(), "en", "en", Fundix::Optional<bool>());
        };
        backend_->handlers["login"] = [session](Fundix::RefVector<Kitra::Any>& args) {
            if (Text(args[1].Get()) != "pw") Ref<Dovra::Fault::InvalidLogin>(new Dovra::Fault::InvalidLogin())->Throw();
            return session(Call::Current()->OpenSession(Text(args[0].Get())));
        };
        backend_->handlers["logout"] = [](auto&) {
            Call::Current()->CloseSession();
            return Ref<Kitra::Any>();
        };
        backend_->handlers["currentSession"] = [session](auto&) { return session(Call::Current()->GetSession()); };
        backend_->handlers["terminate"] = [](Fundix::RefVector<Kitra::Any>& args) {
            auto* keys = static_cast<Kitra::Array<std::string>*>(args[0].Get());
            for (const auto& k : keys->GetValues()) Call::Current()->CloseSession(k);
            return Ref<Kitra::Any>();
        };
        server_->Register("ServiceInstance", new Morphel::ServiceInstanceStub("impl", backend_.Get(), nullptr));
        server_->Register("SessionManager", new Morphel::SessionManagerStub("impl", backend_.Get(), nullptr));
        server_->SetPrivilegeCheck([](const Kitra::Http::Session& s, const std::string& privilege) {
            return s.GetUserName() == "admin" || privilege != "Sessions.TerminateSession";
        });
        server_->SetFaults(
            [](const Kitra::ManagedMethod&) { return Ref<Kitra::MethodFault>(new Dovra::Fault::NotAuthenticated()); },
            [](const Kitra::ManagedMethod&, const std::string& privilege) {
                Ref<Dovra::Fault::NoPermission> f(new Dovra::Fault::NoPermission());
                f->SetPrivilegeId(privilege);
                return Ref<Kitra::MethodFault>(f.Get());
            });
        server_->SetLogger([this](const std::string& line) {
            std::lock_guard<std::mutex> lock(logMutex_);
            log_.push_back(line);
        });
        server_->Start();
    }

    struct Client {
        Ref<Kitra::Http::StubAdapter> adapter;
        Ref<Morphel::ServiceInstanceStub> root;
        Ref<Morphel::SessionManagerStub> sessions;
    };

    Client Connect(const char* version = kV4,
                   const std::function<void(Kitra::Http::ClientOptions&)>& tune = {},
                   const std::string& url = "") {
        Client c;
        Kitra::Http::ClientOptions options;
        options.connectTimeout = std::chrono::milliseconds(2000);
        options.readTimeout = std::chrono::milliseconds(5000);
        if (tune) tune(options);
        c.adapter = new Kitra::Http::StubAdapter(url.empty() ? server_->GetUrl() : url, version, options);
        c.root = new Morphel::ServiceInstanceStub("ServiceInstance", c.adapter.Get(), nullptr);
        c.sessions = new Morphel::SessionManagerStub("SessionManager", c.adapter.Get(), nullptr);
        return c;
    }

    // True when `c`'s root answers with the service's content.
    static bool Serves(Client& c) {
        Ref<Morphel::ServiceInstanceContent> content;
        c.root->RetrieveContent(content);
        return content != nullptr;
    }
    // The user of `c`'s session; "(refused)" when the server knows no session of it, the message of any
    // other failure.
    static std::string CurrentUser(Client& c) {
        try {
            Ref<Morphel::UserSession> s;
            c.sessions->GetCurrentSession(s);
            return s != nullptr ? s->GetUserName() : "(no session)";
        } catch (const Dovra::Fault::NotAuthenticated::Exception&) {
            return "(refused)";
        } catch (const Fundix::Exception& e) {
            return e.GetMessage();
        }
    }
    static bool Refused(Client& c) { return CurrentUser(c) == "(refused)"; }

    // The key of the session a login opens.
    std::string Login(Client& c, const std::string& user, const std::string& password = "pw") {
        Ref<Morphel::UserSession> s;
        c.sessions->Login(user, password, Fundix::Optional<std::string>(), s);
        return s != nullptr ? s->GetKey() : "(no session)";
    }

    // A raw POST, for requests no stub would send: the whole answer.
    std::string Post(const std::string& body, const std::string& action = "", const std::string& more = "") {
        Raw raw(server_->GetPort());
        std::string head = "POST /morphel HTTP/1.1\r\nHost: x\r\nContent-Type: text/xml\r\nContent-Length: " +
                           std::to_string(body.size()) + "\r\n";
        if (!action.empty()) head += "SOAPAction: " + action + "\r\n";
        raw.Send(head + more + "\r\n" + body);
        return raw.Read(true);
    }
    static std::string Body(const std::string& response) {
        return response.substr(response.find("\r\n\r\n") + 4);
    }
    // What the server logged so far.
    std::vector<std::string> Log() {
        std::lock_guard<std::mutex> lock(logMutex_);
        return log_;
    }

    std::unique_ptr<Kitra::Http::Server> server_;
    Ref<Backend> backend_;
    std::mutex logMutex_;
    std::vector<std::string> log_;
};

// The reason a call could not communicate; "(certificate rejected)" or "(no failure)" instead.
template <class F>
std::string FailureReason(F&& f) {
    try {
        f();
    } catch (const Kitra::Fault::CertificateRejected::Exception&) {
        return "(certificate rejected)";
    } catch (const Kitra::Fault::CommunicationFailure::Exception& e) {
        return static_cast<Kitra::Fault::CommunicationFailure*>(e.GetFault())->GetReason();
    }
    return "(no failure)";
}

bool Has(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

TEST_F(HttpTest, AnonymousThenSessionOnlyAndFailuresWithoutInternals) {
    Client c = Connect();
    ASSERT_TRUE(Serves(c));  // anonymous
    EXPECT_TRUE(Refused(c));
    EXPECT_THROW(Login(c, "ann", "wrong"), Dovra::Fault::InvalidLogin::Exception);
    const std::string key = Login(c, "ann");
    EXPECT_EQ(c.adapter->GetSession(), key);
    EXPECT_EQ(CurrentUser(c), "ann");
    // Not implemented by the backend: a runtime fault, nothing of the message inside.
    try {
        c.sessions->SetLocale("de");
        ADD_FAILURE();
    } catch (const Kitra::RuntimeFault::Exception& e) {
        EXPECT_STREQ(e.GetMessage().c_str(), "kodl.RuntimeFault");
        EXPECT_EQ(e.GetFault()->_GetType()->GetName(), std::string("kodl.RuntimeFault"));
    }
    const auto log = Log();  // the log names the cause; the answer does not
    ASSERT_FALSE(log.empty());
    EXPECT_TRUE(Has(log.front(), "morphel.ServiceInstance.retrieveContent 200")) << log.front();
    EXPECT_TRUE(Has(log.back(), "500 ") &&
                Has(log.back(), "cause=std::runtime_error: secret internal detail"))
        << log.back();
    Ref<Morphel::SessionManagerStub> ghost(
        new Morphel::SessionManagerStub("nobody", c.adapter.Get(), nullptr));
    EXPECT_THROW(ghost->Logout(), Kitra::Fault::ManagedObjectNotFound::Exception);
    c.sessions->Logout();
    EXPECT_TRUE(Refused(c));
}

TEST_F(HttpTest, SeparateSessionsAndPrivileges) {
    Client ann = Connect();
    Client admin = Connect(kV1);  // an older client on the same server
    const std::string annKey = Login(ann, "ann");
    Login(admin, "admin");
    EXPECT_NE(ann.adapter->GetSession(), admin.adapter->GetSession());
    Ref<Kitra::Array<std::string>> keys(new Kitra::Array<std::string>());
    keys->Append(annKey);
    EXPECT_THROW(ann.sessions->Terminate(keys.Get()), Dovra::Fault::NoPermission::Exception);
    admin.sessions->Terminate(keys.Get());
    EXPECT_TRUE(Refused(ann));
}

TEST_F(HttpTest, BadRequestsGetFaultsAndServingGoesOn) {
    auto reason = [](const std::string& r) {
        EXPECT_EQ(Status(r), 500);
        Kitra::Soap::Message m = Kitra::Soap::Codec(kV4).Decode(Body(r));
        auto* f = dynamic_cast<Kitra::Fault::InvalidRequest*>(m.value.Get());
        return f != nullptr ? f->GetReason() : std::string("(another fault)");
    };
    EXPECT_EQ(reason(Post("<not xml")).substr(0, 14), "unclosed token");
    EXPECT_EQ(reason(Post("<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\">"
                          "<soapenv:Body><MorphelNoSuchThing xmlns=\"urn:morphel\"/></soapenv:Body></soapenv:Envelope>")),
              "unknown operation MorphelNoSuchThing");
    EXPECT_EQ(reason(Post("<x/>", "\"urn:morphel/9.0\"")), "unknown version \"urn:morphel/9.0\"");
    // Past the message limit: refused by its length before any of it is read; a stub's caller learns why.
    EXPECT_EQ(Status(Post(std::string(70 * 1024, ' '))), 413);
    Client c = Connect();
    const std::string tooLarge = FailureReason([&] { Login(c, std::string(200 * 1024, 'a')); });
    EXPECT_TRUE(Has(tooLarge, "HTTP status 413") && Has(tooLarge, "larger than 65536 bytes")) << tooLarge;
    EXPECT_TRUE(Serves(c));
}

TEST_F(HttpTest, ConcurrentClientsLoseNoResponse) {
    constexpr int kClients = 8;
    std::atomic<int> answered{0}, failed{0};
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([&, i] {
            Client c = Connect();
            Login(c, "user" + std::to_string(i));
            while (std::chrono::steady_clock::now() < until)
                ++(CurrentUser(c) == "user" + std::to_string(i) ? answered : failed);
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(failed.load(), 0);
    EXPECT_GT(answered.load(), kClients * 10);
}

// ---- Sessions

TEST_F(HttpTest, SessionKeysAreLongRandomAndEndWhenTheyShouldOrAtTheirLifetime) {
    StartServer(0, [](Kitra::Http::ServerOptions& o) {
        o.sessionIdle = std::chrono::milliseconds(600);
        o.sessionsPerUser = 3;
    });
    std::mutex endedMutex;
    std::map<std::string, int> ended;  // by account: sessions the server said ended
    server_->SetSessionEndHandler([&](const Kitra::Http::Session& s) {
        std::lock_guard<std::mutex> lock(endedMutex);
        ++ended[s.GetUserName()];
    });
    auto endedOf = [&](const std::string& user) {
        std::lock_guard<std::mutex> lock(endedMutex);
        return ended[user];
    };
    // Distinct 128-bit keys across many logins (of many accounts, so that no cap interferes).
    Client c = Connect();
    std::set<std::string> keys;
    for (int i = 0; i < 300; ++i) {
        std::string key = Login(c, "user" + std::to_string(i));
        EXPECT_TRUE(key.size() == 32 && HexAt(key, 0, 32, false)) << key;
        keys.insert(key);
    }
    EXPECT_EQ(keys.size(), 300u);

    // A key that was logged out, or left unused past the idle time, is refused.
    Client out = Connect();
    std::string old = Login(out, "ann");
    out.sessions->Logout();
    out.adapter->SetSession(old);
    EXPECT_TRUE(Refused(out));
    EXPECT_EQ(endedOf("ann"), 1);
    Client idle = Connect();
    Login(idle, "bob");
    for (int i = 0; i < 3; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_FALSE(Refused(idle));  // each use keeps it alive for the idle time again
    }
    EXPECT_EQ(endedOf("bob"), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(900));
    EXPECT_TRUE(Refused(idle));
    EXPECT_EQ(endedOf("bob"), 1);

    // Past the per-account cap the least recently used session of that account ends.
    std::vector<Client> carol;
    for (int i = 0; i < 4; ++i) {
        carol.push_back(Connect());
        Login(carol.back(), "carol");
    }
    EXPECT_TRUE(Refused(carol[0]));
    EXPECT_FALSE(Refused(carol[1]));
    EXPECT_FALSE(Refused(carol[3]));
    EXPECT_EQ(endedOf("carol"), 1);
    EXPECT_EQ(endedOf("ann"), 1);  // each end told once

    // A session in use still ends at its lifetime.
    StartServer(0, [](Kitra::Http::ServerOptions& o) { o.sessionLifetime = std::chrono::milliseconds(700); });
    c = Connect();
    Login(c, "ann");
    for (int i = 0; i < 2; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_FALSE(Refused(c));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_TRUE(Refused(c));
}

TEST_F(HttpTest, SessionCheckComesBeforeTheObjectLookupAndQuotedCookiesCount) {
    // Without a session a call on an object that does not exist and one on an object that does get the
    // same fault.
    Client c = Connect();
    Ref<Morphel::SessionManagerStub> ghost(new Morphel::SessionManagerStub("nobody", c.adapter.Get(), nullptr));
    EXPECT_THROW(ghost->Logout(), Dovra::Fault::NotAuthenticated::Exception);
    EXPECT_THROW(c.sessions->Logout(), Dovra::Fault::NotAuthenticated::Exception);

    // A cookie value in double quotes names the same session; the cookie keeps scripts and other sites out.
    Client ann = Connect();
    std::string key = Login(ann, "ann");
    std::string quoted =
        Post(WireTest::Request("morphel.SessionManager", "currentSession", {}, "SessionManager"), "",
             "Cookie: other=1; kodl_session=\"" + key + "\"\r\n");
    EXPECT_EQ(Status(quoted), 200) << quoted;
    EXPECT_NE(quoted.find("ann"), std::string::npos);
    const std::string answer = Post(WireTest::Request(
        "morphel.SessionManager", "login",
        {new Kitra::Primitive<std::string>("dan"), new Kitra::Primitive<std::string>("pw"), nullptr},
        "SessionManager"));
    const std::string head = "\r\nSet-Cookie: kodl_session=", tail = "; Path=/; HttpOnly; SameSite=Strict\r\n";
    const size_t at = answer.find(head);
    EXPECT_TRUE(at != std::string::npos && HexAt(answer, at + head.size(), 32, false) &&
                answer.compare(at + head.size() + 32, tail.size(), tail) == 0)
        << answer.substr(0, answer.find("\r\n\r\n"));
}

// ---- Limits and deadlines against peers that misbehave

TEST_F(HttpTest, SlowSendersAndIdleConnectionsDoNotStallCalls) {
    StartServer(0, [](Kitra::Http::ServerOptions& o) {
        o.headTimeout = std::chrono::milliseconds(800);
        o.idleTimeout = std::chrono::milliseconds(20000);
    });
    std::vector<std::unique_ptr<Raw>> idle;
    for (int i = 0; i < 500; ++i) idle.push_back(std::make_unique<Raw>(server_->GetPort()));
    for (auto& r : idle) ASSERT_TRUE(r->Connected());
    std::vector<std::unique_ptr<Raw>> slow;
    for (int i = 0; i < 20; ++i) slow.push_back(std::make_unique<Raw>(server_->GetPort()));
    std::atomic<bool> stop{false};
    std::thread dribble([&] {
        std::string head = "POST /morphel HTTP/1.1\r\nHost: x\r\nX-Slow: ";
        for (size_t i = 0; i < 40 && !stop; ++i) {
            for (auto& r : slow) r->Send(std::string(1, head[std::min(i, head.size() - 1)]));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    Client c = Connect();
    double worst = 0;
    for (int i = 0; i < 200; ++i) {
        auto start = std::chrono::steady_clock::now();
        ASSERT_TRUE(Serves(c));
        worst = std::max(worst, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    EXPECT_LT(worst, 1.0);
    // The slow senders are cut off at the head deadline; the idle ones are still there.
    for (auto& r : slow) EXPECT_TRUE(r->ClosedWithin(std::chrono::milliseconds(3000)));
    stop = true;
    dribble.join();
    EXPECT_GE(server_->GetOpenConnections(), 500u);
    EXPECT_FALSE(idle.front()->ClosedWithin(std::chrono::milliseconds(10)));
}

TEST_F(HttpTest, OversizedHeadsAndBodiesAreRefusedAsTheyArrive) {
    // Too many header lines, or too many header bytes: 431.
    std::string many;
    for (int i = 0; i < 150; ++i) many += "X-" + std::to_string(i) + ": y\r\n";
    EXPECT_EQ(Status(Post("<x/>", "", many)), 431);
    EXPECT_EQ(Status(Post("<x/>", "", "X-Big: " + std::string(20000, 'a') + "\r\n")), 431);
    {
        // An endless head is cut off at the byte limit, long before it ends.
        Raw raw(server_->GetPort());
        raw.Send("POST /morphel HTTP/1.1\r\nHost: x\r\n");
        bool refusedEarly = false;
        for (int i = 0; i < 100000 && !refusedEarly; ++i)
            refusedEarly = !raw.Send("X-" + std::to_string(i) + ": " + std::string(50, 'v') + "\r\n");
        std::string answer = raw.Read();
        EXPECT_TRUE(refusedEarly || Status(answer) == 431) << answer;
    }
    // A chunked body past the limit (64 KiB here): 413 once the limit is passed, while the client is still
    // sending; the server never takes the rest.
    Raw raw(server_->GetPort());
    raw.Send("POST /morphel HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n");
    std::string chunk = "4000\r\n" + std::string(0x4000, 'a') + "\r\n";
    size_t sent = 0;
    for (; sent < 64 * 1024 * 1024; sent += 0x4000)
        if (!raw.Send(chunk)) break;
    std::string answer = raw.Read();
    EXPECT_LT(sent, size_t(16) << 20);
    EXPECT_TRUE(answer.empty() || Status(answer) == 413) << answer.substr(0, 100);

    // A body slower than its deadline is cut off.
    StartServer(0, [](Kitra::Http::ServerOptions& o) { o.bodyTimeout = std::chrono::milliseconds(300); });
    Raw lazy(server_->GetPort());
    lazy.Send("POST /morphel HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\nabc");
    EXPECT_TRUE(lazy.ClosedWithin(std::chrono::milliseconds(2000)));
}

TEST_F(HttpTest, ConnectionCapGracefulStopAndRestart) {
    StartServer(0, [](Kitra::Http::ServerOptions& o) { o.maxConnections = 4; });
    std::vector<std::unique_ptr<Raw>> held;
    for (int i = 0; i < 4; ++i) held.push_back(std::make_unique<Raw>(server_->GetPort()));
    for (int i = 0; i < 100 && server_->GetOpenConnections() < 4; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    Raw extra(server_->GetPort());
    EXPECT_EQ(Status(extra.Read()), 503);
    // The connections it holds are still served.
    std::string request =
        WireTest::Request("morphel.ServiceInstance", "retrieveContent", {}, "ServiceInstance");
    held[0]->Send("POST /morphel HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(request.size()) + "\r\n\r\n" + request);
    EXPECT_EQ(Status(held[0]->Read(true)), 200);
    held.clear();

    // Stop lets a call in progress finish and refuses new ones.
    StartServer(0);
    backend_->handlers["currentTime"] = [](auto&) -> Ref<Kitra::Any> {
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        return new Kitra::Primitive<Fundix::System::DateTime>(Fundix::System::DateTime());
    };
    Client c = Connect();
    Login(c, "ann");
    auto call = std::async(std::launch::async, [&] { return c.root->GetCurrentTime(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    Raw waiting(server_->GetPort());
    int port = server_->GetPort();
    server_->Stop();
    EXPECT_NO_THROW(call.get());
    EXPECT_TRUE(waiting.ClosedWithin(std::chrono::milliseconds(100)));
    EXPECT_FALSE(Raw(port).Connected());
    EXPECT_NE(FailureReason([&] { Serves(c); }), "(no failure)");

    // A new server on the same port: the client reconnects, and its session died with the old server.
    StartServer(port);
    EXPECT_TRUE(Serves(c));
    EXPECT_TRUE(Refused(c));
}

TEST_F(HttpTest, PlainHttpOnlyOnLoopbackUnlessAllowed) {
    Kitra::Http::ServerOptions options;
    options.versions = {kV4};
    options.host = "0.0.0.0";
    Kitra::Http::Server open(options);
    EXPECT_THROW(open.Start(), Fundix::InvalidArgumentException);
    options.allowPlainHttp = true;
    Kitra::Http::Server allowed(options);
    EXPECT_GT(allowed.Start(), 0);
    allowed.Stop();
}

// ---- HTTPS

class HttpsTest : public HttpTest {
protected:
    void SetUp() override {
        identity_ = Kitra::Http::Tls::CreateSelfSigned("morphel test", {"127.0.0.1", "localhost"});
        StartServer(0, [this](Kitra::Http::ServerOptions& o) { o.tls = identity_; });
    }
    // A client that pins the server's certificate, with a read deadline when one is given.
    Client Pinned(std::chrono::milliseconds readTimeout = std::chrono::milliseconds(5000)) {
        return Connect(kV4, [&](Kitra::Http::ClientOptions& o) {
            o.readTimeout = readTimeout;
            o.thumbprint = server_->GetThumbprint();
        });
    }
    Kitra::Http::Tls::Identity identity_;
};

TEST_F(HttpsTest, PinnedThumbprintOrTrustedCertificate) {
    ASSERT_EQ(server_->GetUrl().substr(0, 8), "https://");
    const std::string sha1 = server_->GetThumbprint();
    EXPECT_EQ(sha1.size(), 59u) << sha1;
    for (size_t i = 0; i < 20; ++i)
        EXPECT_TRUE(HexAt(sha1, 3 * i, 2, true) && (i == 19 || sha1[3 * i + 2] == ':')) << sha1;
    EXPECT_EQ(sha1, Kitra::Http::Tls::Thumbprint(identity_.certificatePem));
    for (const std::string& pin : {sha1, server_->GetThumbprint(Kitra::Http::Tls::Digest::Sha256)}) {
        Client c = Connect(kV4, [&](Kitra::Http::ClientOptions& o) { o.thumbprint = pin; });
        EXPECT_TRUE(Serves(c));
    }
    // Trusted as a certificate authority, and named for the host.
    Client trusted = Connect(kV4, [&](Kitra::Http::ClientOptions& o) { o.trustedPem = identity_.certificatePem; });
    EXPECT_TRUE(Serves(trusted));
}

TEST_F(HttpsTest, RejectedCertificatesStopTheCallBeforeItIsSent) {
    const size_t before = Log().size();
    auto rejected = [&](const std::function<void(Kitra::Http::ClientOptions&)>& tune) {
        Client c = Connect(kV4, tune);
        auto e = WireTest::Raised<Kitra::Fault::CertificateRejected::Exception>([&] { Login(c, "ann"); });
        return Ref<Kitra::Fault::CertificateRejected>(e ? e->GetFault() : nullptr);
    };
    // A wrong thumbprint: the fault carries the presented one, self-signed, with the chain.
    auto wrong = rejected([&](Kitra::Http::ClientOptions& o) { o.thumbprint = std::string(40, '0'); });
    ASSERT_NE(wrong, nullptr);
    EXPECT_EQ(wrong->GetThumbprint(), server_->GetThumbprint());
    EXPECT_TRUE(wrong->IsSelfSigned());
    ASSERT_EQ(wrong->GetChain()->GetValues().size(), 1u);
    EXPECT_EQ(Kitra::Http::Tls::Thumbprint(wrong->GetChain()->GetValues()[0]), server_->GetThumbprint());
    // No thumbprint and not trusted by the system: refused as self-signed.
    auto untrusted = rejected({});
    ASSERT_NE(untrusted, nullptr);
    EXPECT_TRUE(untrusted->IsSelfSigned());
    EXPECT_NE(untrusted->GetReason().find("not trusted"), std::string::npos) << untrusted->GetReason();
    // Trusted, but issued for another host.
    auto other = Kitra::Http::Tls::CreateSelfSigned("elsewhere", {"elsewhere.invalid"});
    StartServer(0, [&](Kitra::Http::ServerOptions& o) { o.tls = other; });
    auto misnamed = rejected([&](Kitra::Http::ClientOptions& o) { o.trustedPem = other.certificatePem; });
    ASSERT_NE(misnamed, nullptr);
    EXPECT_NE(misnamed->GetReason().find("mismatch"), std::string::npos) << misnamed->GetReason();
    EXPECT_EQ(Log().size(), before);  // none of these calls reached the server
    EXPECT_THROW(Connect(kV4, [](Kitra::Http::ClientOptions& o) { o.thumbprint = "12:34"; }), Fundix::InvalidArgumentException);
}

TEST_F(HttpsTest, PlainToTlsAndTlsToPlainFailClearly) {
    auto reason = [&](const std::string& url) {
        Client c = Connect(kV4, {}, url);
        return FailureReason([&] { Serves(c); });
    };
    const std::string plain = reason("http://" + server_->GetUrl().substr(8));
    EXPECT_TRUE(Has(plain, "HTTP status 400") && Has(plain, "speaks HTTPS")) << plain;
    StartServer(0);
    const std::string tls = reason("https://" + server_->GetUrl().substr(7));
    EXPECT_TRUE(Has(tls, "TLS handshake")) << tls;  // a plain server has no certificate to reject
}

// ---- Many calls in flight

TEST_F(HttpsTest, AThousandAsynchronousCallsFromOneThread) {
    Client c = Pinned();
    constexpr int kCalls = 1000;
    std::atomic<int> ok{0}, failed{0}, onCaller{0};
    std::promise<void> all;
    std::atomic<int> left{kCalls};
    auto caller = std::this_thread::get_id();
    std::vector<Ref<Fundix::System::ScheduledItem>> items(kCalls);
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kCalls; ++i) {
        c.root->RetrieveContent(
            Kitra::Completion([&](Fundix::System::ScheduledItem*, Fundix::Exception* e, Kitra::Any* result) {
                if (std::this_thread::get_id() == caller) ++onCaller;
                if (e == nullptr && result != nullptr) ++ok;
                else ++failed;
                if (--left == 0) all.set_value();
            }),
            items[i]);
    }
    // Every call was started before any had to finish.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    ASSERT_EQ(all.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
    EXPECT_EQ(ok.load(), kCalls);
    EXPECT_EQ(failed.load(), 0);
    EXPECT_EQ(onCaller.load(), 0);
    for (auto& item : items) EXPECT_TRUE(item->WaitFor(std::chrono::seconds(5)));  // each item ends as its completion returns
}

// Connections to `port` this process (or another) closed lately, from the system's table of sockets
// waiting out their close.
size_t ClosedConnectionsTo(int port) {
    std::ifstream table("/proc/net/tcp");
    std::string line;
    std::getline(table, line);
    size_t closed = 0;
    char remote[16];
    snprintf(remote, sizeof remote, ":%04X", port);
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot, local, peer, state;
        fields >> slot >> local >> peer >> state;
        if (state == "06" && peer.size() > 5 && peer.substr(peer.size() - 5) == remote) ++closed;
    }
    return closed;
}

// One kept connection: calls in turn, large answers, then deadlines (last, as a call that ran out of time
// gives its connection up). Over TLS, which runs the same connection code as plain HTTP with one more layer.
TEST_F(HttpsTest, KeptConnectionServesInTurnLargeAnswersAndDeadlines) {
    Client c = Pinned();
    // Synchronous calls run on the caller's thread, asynchronous ones on the event loop: one kept connection
    // serves them in turn, moving between the two, and is never given up for a new one.
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(Serves(c));
        ASSERT_TRUE(Serves(c));
        std::promise<std::string> done;
        Ref<Fundix::System::ScheduledItem> item;
        c.root->RetrieveContent(
            Kitra::Completion([&](Fundix::System::ScheduledItem*, Fundix::Exception* e, Kitra::Any* result) {
                done.set_value(e != nullptr        ? e->GetMessage()
                               : result != nullptr ? result->_GetType()->GetName()
                                                   : "");
            }),
            item);
        auto future = done.get_future();
        ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(future.get(), "morphel.ServiceInstanceContent");
        item->WaitFor(std::chrono::seconds(5));
    }
    EXPECT_EQ(server_->GetOpenConnections(), 1u);

    // An answer larger than the socket takes at once: the server writes what it can on the serving thread and
    // the rest asynchronously, in order, and the connection goes on serving.
    backend_->handlers["messageLocaleList"] = [](auto&) -> Ref<Kitra::Any> {
        Ref<Kitra::Array<std::string>> list(new Kitra::Array<std::string>());
        for (int i = 0; i < 2000; ++i) list->Append(std::to_string(i) + std::string(4000, 'a' + i % 26));
        return list.Get();
    };
    Login(c, "ann");
    for (int round = 0; round < 2; ++round) {
        Ref<Kitra::Array<std::string>> list;
        c.sessions->GetMessageLocaleList(list);
        ASSERT_NE(list, nullptr);
        ASSERT_EQ(list->GetValues().size(), 2000u);
        for (int i : {0, 1, 999, 1999}) EXPECT_EQ(list->GetValues()[i], std::to_string(i) + std::string(4000, 'a' + i % 26));
        EXPECT_EQ(CurrentUser(c), "ann");
    }
    EXPECT_EQ(ClosedConnectionsTo(server_->GetPort()), 0u);

    // A synchronous call's deadline holds on a new connection and on a kept one, and a connection whose call
    // ran out of time is not used again (its late answer would be taken for the next).
    Client impatient = Pinned(std::chrono::milliseconds(200));
    std::atomic<int> slow{0}, busy{0};
    backend_->handlers["currentTime"] = [&slow, &busy](auto&) -> Ref<Kitra::Any> {
        ++slow;
        ++busy;
        std::this_thread::sleep_for(std::chrono::milliseconds(700));
        --busy;
        return new Kitra::Primitive<Fundix::System::DateTime>(Fundix::System::DateTime());
    };
    for (int i = 0; i < 2; ++i) {  // first on a new connection, then on the one kept since
        auto start = std::chrono::steady_clock::now();
        const std::string late = FailureReason([&] { impatient.root->GetCurrentTime(); });
        EXPECT_TRUE(Has(late, "within 200 ms")) << late;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(600));
        EXPECT_TRUE(Serves(impatient));
        while (busy > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));  // the server's thread is free
    }
    EXPECT_EQ(slow.load(), 2);
}

}  // namespace
