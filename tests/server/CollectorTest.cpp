// History collectors over a history shorter than their latest page: the latest page is the whole
// history, and reset stands before its oldest event rather than before the start of time; and over a
// bounded history, whose oldest events go while collectors read it.
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kitra/Http.h>
#include <kitra/Kitra.h>
#include <morphel-server/Service.h>
#include <morphel/event/types.h>
#include <morphel/types.h>

namespace {

using Fundix::Ref;
using Morphel::Event::Event;

std::vector<int32_t> Keys(Kitra::DataArray<Event>* page) {
    std::vector<int32_t> out;
    for (size_t i = 0; page != nullptr && i < page->GetLength(); ++i)
        out.push_back(page->Get(i)->GetKey());
    return out;
}

// A service with `options` served on loopback, with a session of demo.
struct Hosted {
    explicit Hosted(MorphelServer::ServiceOptions options) : service(options), server(ServerOptions()) {
        service.Attach(server);
        server.Start();
        adapter = new Kitra::Http::StubAdapter(server.GetUrl(), "morphel.version.version4");
        sessions = new Morphel::SessionManagerStub("SessionManager", adapter.Get(), nullptr);
        events = new Morphel::Event::EventManagerStub("EventManager", adapter.Get(), nullptr);
        Login();
    }
    ~Hosted() { server.Stop(); }
    static Kitra::Http::ServerOptions ServerOptions() {
        Kitra::Http::ServerOptions options;
        options.versions = MorphelServer::Service::Versions();
        return options;
    }
    void Login() {
        Ref<Morphel::UserSession> session;
        sessions->Login("demo", "demo", Fundix::Optional<std::string>(), session);
    }
    Ref<Morphel::Event::EventHistoryCollectorStub> NewCollector() {
        Ref<Kitra::MoRef> ref;
        events->CreateCollector(
            Ref<Morphel::Event::EventFilterSpec>(new Morphel::Event::EventFilterSpec()).Get(), ref);
        return new Morphel::Event::EventHistoryCollectorStub(ref->GetId(), adapter.Get(), nullptr);
    }
    // Two events, a login and a logout, of another client: the collectors of this one's session stay.
    void OtherLogsInAndOut() {
        Ref<Kitra::Http::StubAdapter> other(new Kitra::Http::StubAdapter(server.GetUrl(), "morphel.version.version4"));
        Ref<Morphel::SessionManagerStub> stub(new Morphel::SessionManagerStub("SessionManager", other.Get(), nullptr));
        Ref<Morphel::UserSession> session;
        stub->Login("demo", "demo", Fundix::Optional<std::string>(), session);
        stub->Logout();
    }
    std::vector<int32_t> All() {
        Ref<Kitra::DataArray<Event>> page;
        events->QueryEvent(Ref<Morphel::Event::EventFilterSpec>(new Morphel::Event::EventFilterSpec()).Get(),
                           page);
        return Keys(page.Get());
    }
    MorphelServer::Service service;
    Kitra::Http::Server server;
    Ref<Kitra::Http::StubAdapter> adapter;
    Ref<Morphel::SessionManagerStub> sessions;
    Ref<Morphel::Event::EventManagerStub> events;
};

TEST(Collector, ResetWhenTheHistoryIsShorterThanTheLatestPage) {
    Hosted hosted({});  // start, login: 1, 2
    auto collector = hosted.NewCollector();
    Ref<Kitra::DataArray<Event>> page;
    collector->SetLatestPageSize(5);
    collector->GetLatestPage(page);
    EXPECT_EQ(Keys(page.Get()), (std::vector<int32_t>{1, 2}));
    collector->ReadNext(1, page);
    EXPECT_EQ(Keys(page.Get()), std::vector<int32_t>{1});
    collector->Reset();  // before the latest page, which is the whole history
    collector->ReadPrev(3, page);
    EXPECT_TRUE(Keys(page.Get()).empty());
    collector->ReadNext(10, page);
    EXPECT_EQ(Keys(page.Get()), (std::vector<int32_t>{1, 2}));
    collector->ReadNext(10, page);
    EXPECT_TRUE(Keys(page.Get()).empty());
    // A page exactly as long as the history: the same.
    collector->SetLatestPageSize(2);
    collector->Reset();
    collector->ReadNext(10, page);
    EXPECT_EQ(Keys(page.Get()), (std::vector<int32_t>{1, 2}));
}

TEST(Collector, GoesOnFromTheOldestEventKeptWhenItsUnreadEventsWereDropped) {
    MorphelServer::ServiceOptions options;
    options.maxEvents = 4;
    Hosted hosted(options);  // start, login: 1, 2
    auto collector = hosted.NewCollector();
    Ref<Kitra::DataArray<Event>> page;
    collector->ReadNext(1, page);
    EXPECT_EQ(Keys(page.Get()), std::vector<int32_t>{1});
    for (int i = 0; i < 2; ++i)  // 3 to 6
        hosted.OtherLogsInAndOut();
    EXPECT_EQ(hosted.All(), (std::vector<int32_t>{3, 4, 5, 6}));
    collector->ReadNext(2, page);  // 2, unread, is gone
    EXPECT_EQ(Keys(page.Get()), (std::vector<int32_t>{3, 4}));
    collector->ReadPrev(10, page);
    EXPECT_EQ(Keys(page.Get()), (std::vector<int32_t>{4, 3}));
    collector->ReadPrev(10, page);
    EXPECT_TRUE(Keys(page.Get()).empty());
    collector->ReadNext(3, page);
    EXPECT_EQ(Keys(page.Get()), (std::vector<int32_t>{3, 4, 5}));
    hosted.OtherLogsInAndOut();  // 7, 8: 3 and 4 go; the collector stands after 5
    collector->ReadNext(10, page);
    EXPECT_EQ(Keys(page.Get()), (std::vector<int32_t>{6, 7, 8}));
    collector->SetLatestPageSize(2);
    collector->Reset();
    collector->ReadNext(10, page);
    EXPECT_EQ(Keys(page.Get()), (std::vector<int32_t>{7, 8}));
    collector->Rewind();
    collector->ReadNext(10, page);
    EXPECT_EQ(Keys(page.Get()), (std::vector<int32_t>{5, 6, 7, 8}));
}

TEST(Collector, EventsOlderThanTheAgeLimitGo) {
    MorphelServer::ServiceOptions options;
    options.maxEventAge = std::chrono::seconds(1);
    Hosted hosted(options);  // start, login: 1, 2
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    hosted.sessions->Logout();  // 3: the others are past the limit
    hosted.Login();
    EXPECT_EQ(hosted.All(), (std::vector<int32_t>{3, 4}));
}

}  // namespace
