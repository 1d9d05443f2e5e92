// Calls over HTTP on loopback: sessions, privileges, faults, bad requests, restarts and load.
#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include <gtest/gtest.h>
#include <httplib.h>

#include <dovra/fault/types.h>
#include <kitra/Http.h>
#include <kitra/Kitra.h>
#include <kitra/fault/types.h>
#include <morphel/types.h>

#include "Sample.h"

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

std::string Text(const Kitra::Any* box) { return static_cast<const Kitra::Primitive<std::string>*>(box)->GetValue(); }

class HttpTest : public ::testing::Test {
protected:
    void SetUp() override { StartServer(0); }

    void StartServer(int port) {
        Kitra::Http::ServerOptions options;
        options.port = port;
        options.versions = {kV4, kV1};
        options.limits.maxMessageBytes = 64 * 1024;
        server_ = std::make_unique<Kitra::Http::Server>(options);
        backend_ = new Backend();
        backend_->handlers["retrieveContent"] = [](auto&) {
            Kitra::Soap::Codec codec(kV4);
            return Ref<Kitra::Any>(MorphelTypesTool::Sample(
                Kitra::GetType<Morphel::ServiceInstanceContent>()->AsDataObjectType(), codec).Get());
        };
        backend_->handlers["login"] = [](Fundix::RefVector<Kitra::Any>& args) -> Ref<Kitra::Any> {
            if (Text(args[1].Get()) != "pw") Ref<Dovra::Fault::InvalidLogin>(new Dovra::Fault::InvalidLogin())->Throw();
            Kitra::Http::Session* session = Call::Current()->OpenSession(Text(args[0].Get()));
            return new Morphel::UserSession(session->GetKey(), session->GetUserName(), "", Fundix::System::DateTime(),
                                            Fundix::System::DateTime(), "en", "en", Fundix::Optional<bool>());
        };
        backend_->handlers["logout"] = [](auto&) {
            Call::Current()->CloseSession();
            return Ref<Kitra::Any>();
        };
        backend_->handlers["currentSession"] = [](auto&) -> Ref<Kitra::Any> {
            Kitra::Http::Session* s = Call::Current()->GetSession();
            return new Morphel::UserSession(s->GetKey(), s->GetUserName(), "", Fundix::System::DateTime(),
                                            Fundix::System::DateTime(), "en", "en", Fundix::Optional<bool>());
        };
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

    Client Connect(const char* version = kV4) {
        Client c;
        Kitra::Http::ClientOptions options;
        options.connectTimeout = std::chrono::milliseconds(500);
        options.readTimeout = std::chrono::milliseconds(5000);
        c.adapter = new Kitra::Http::StubAdapter(server_->GetUrl(), version, options);
        c.root = new Morphel::ServiceInstanceStub("ServiceInstance", c.adapter.Get(), nullptr);
        c.sessions = new Morphel::SessionManagerStub("SessionManager", c.adapter.Get(), nullptr);
        return c;
    }

    Ref<Morphel::UserSession> Login(Client& c, const std::string& user) {
        Ref<Morphel::UserSession> s;
        c.sessions->Login(user, "pw", Fundix::Optional<std::string>(), s);
        return s;
    }

    // A raw POST, for requests no stub would send.
    httplib::Result Post(const std::string& body, const std::string& action = "") {
        httplib::Client raw("127.0.0.1", server_->GetPort());
        httplib::Headers headers;
        if (!action.empty()) headers.emplace("SOAPAction", action);
        return raw.Post("/morphel", headers, body, "text/xml");
    }

    std::unique_ptr<Kitra::Http::Server> server_;
    Ref<Backend> backend_;
    std::mutex logMutex_;
    std::vector<std::string> log_;
};

template <class E, class F>
void ExpectFault(F&& f) {
    try {
        f();
        ADD_FAILURE() << "no fault";
    } catch (const E&) {
    } catch (const Fundix::Exception& e) {
        ADD_FAILURE() << "raised " << e.GetMessage();
    }
}

TEST_F(HttpTest, AnonymousThenSessionOnly) {
    Client c = Connect();
    Ref<Morphel::ServiceInstanceContent> content;
    c.root->RetrieveContent(content);  // anonymous
    ASSERT_NE(content, nullptr);
    ExpectFault<Dovra::Fault::NotAuthenticated::Exception>([&] {
        Ref<Morphel::UserSession> s;
        c.sessions->GetCurrentSession(s);
    });
    ExpectFault<Dovra::Fault::InvalidLogin::Exception>([&] {
        Ref<Morphel::UserSession> s;
        c.sessions->Login("ann", "wrong", Fundix::Optional<std::string>(), s);
    });
    Ref<Morphel::UserSession> session = Login(c, "ann");
    EXPECT_EQ(c.adapter->GetSession(), session->GetKey());
    Ref<Morphel::UserSession> current;
    c.sessions->GetCurrentSession(current);
    EXPECT_EQ(current->GetUserName(), "ann");
    c.sessions->Logout();
    ExpectFault<Dovra::Fault::NotAuthenticated::Exception>([&] {
        Ref<Morphel::UserSession> s;
        c.sessions->GetCurrentSession(s);
    });
    std::lock_guard<std::mutex> lock(logMutex_);
    ASSERT_FALSE(log_.empty());
    EXPECT_NE(log_.front().find("morphel.ServiceInstance.retrieveContent 200"), std::string::npos) << log_.front();
}

TEST_F(HttpTest, SeparateSessionsAndPrivileges) {
    Client ann = Connect();
    Client admin = Connect(kV1);  // an older client on the same server
    Ref<Morphel::UserSession> annSession = Login(ann, "ann");
    Login(admin, "admin");
    EXPECT_NE(ann.adapter->GetSession(), admin.adapter->GetSession());
    Ref<Kitra::Array<std::string>> keys(new Kitra::Array<std::string>());
    keys->Append(annSession->GetKey());
    ExpectFault<Dovra::Fault::NoPermission::Exception>([&] { ann.sessions->Terminate(keys.Get()); });
    admin.sessions->Terminate(keys.Get());
    ExpectFault<Dovra::Fault::NotAuthenticated::Exception>([&] {
        Ref<Morphel::UserSession> s;
        ann.sessions->GetCurrentSession(s);
    });
}

TEST_F(HttpTest, FailuresWithoutInternalsAndUnknownObjects) {
    Client c = Connect();
    Login(c, "ann");
    // Not implemented by the backend: a runtime fault, nothing of the message inside.
    try {
        c.sessions->SetLocale("de");
        ADD_FAILURE();
    } catch (const Kitra::RuntimeFault::Exception& e) {
        EXPECT_STREQ(e.GetMessage().c_str(), "kodl.RuntimeFault");
    }
    Ref<Morphel::SessionManagerStub> ghost(new Morphel::SessionManagerStub("nobody", c.adapter.Get(), nullptr));
    ExpectFault<Kitra::Fault::ManagedObjectNotFound::Exception>([&] { ghost->Logout(); });
}

TEST_F(HttpTest, BadRequestsGetFaultsAndServingGoesOn) {
    auto reason = [](const httplib::Result& r) {
        EXPECT_EQ(r->status, 500);
        Kitra::Soap::Message m = Kitra::Soap::Codec(kV4).Decode(r->body);
        auto* f = dynamic_cast<Kitra::Fault::InvalidRequest*>(m.value.Get());
        return f != nullptr ? f->GetReason() : std::string("(another fault)");
    };
    EXPECT_EQ(reason(Post("<not xml")).substr(0, 14), "unclosed token");
    EXPECT_EQ(reason(Post("<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\">"
                          "<soapenv:Body><MorphelNoSuchThing xmlns=\"urn:morphel\"/></soapenv:Body></soapenv:Envelope>")),
              "unknown operation MorphelNoSuchThing");
    EXPECT_EQ(reason(Post("<x/>", "\"urn:morphel/9.0\"")), "unknown version \"urn:morphel/9.0\"");
    EXPECT_EQ(reason(Post(std::string(70 * 1024, ' '))).substr(0, 11), "message of ");
    Client c = Connect();
    Ref<Morphel::ServiceInstanceContent> content;
    c.root->RetrieveContent(content);
    EXPECT_NE(content, nullptr);
}

TEST_F(HttpTest, AsynchronousCallsDoNotBlock) {
    Client c = Connect();
    std::promise<std::string> done;
    Ref<Fundix::System::ScheduledItem> item;
    c.root->RetrieveContent(
        Kitra::Completion([&](Fundix::System::ScheduledItem*, Fundix::Exception* e, Kitra::Any* result) {
            done.set_value(e != nullptr ? e->GetMessage() : result->_GetType()->GetName());
        }),
        item);
    auto future = done.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(future.get(), "morphel.ServiceInstanceContent");
}

TEST_F(HttpTest, ServerRestartsUnderAClient) {
    Client c = Connect();
    Login(c, "ann");
    int port = server_->GetPort();
    server_->Stop();
    ExpectFault<Kitra::Fault::CommunicationFailure::Exception>([&] {
        Ref<Morphel::ServiceInstanceContent> content;
        c.root->RetrieveContent(content);
    });
    server_.reset();
    StartServer(port);
    Ref<Morphel::ServiceInstanceContent> content;
    c.root->RetrieveContent(content);  // reconnects
    EXPECT_NE(content, nullptr);
    // The sessions died with the old server.
    ExpectFault<Dovra::Fault::NotAuthenticated::Exception>([&] {
        Ref<Morphel::UserSession> s;
        c.sessions->GetCurrentSession(s);
    });
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
            while (std::chrono::steady_clock::now() < until) {
                try {
                    Ref<Morphel::UserSession> s;
                    c.sessions->GetCurrentSession(s);
                    if (s != nullptr && s->GetUserName() == "user" + std::to_string(i)) ++answered;
                    else ++failed;
                } catch (...) {
                    ++failed;
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(failed.load(), 0);
    EXPECT_GT(answered.load(), kClients * 10);
}

}  // namespace
