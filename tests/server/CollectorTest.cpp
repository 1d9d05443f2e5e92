// History collectors over a history shorter than their latest page: the latest page is the whole
// history, and reset stands before its oldest event rather than before the start of time.
#include <chrono>
#include <memory>
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
    for (size_t i = 0; page != nullptr && i < page->GetLength(); ++i) out.push_back(page->Get(i)->GetKey());
    return out;
}

TEST(Collector, ResetWhenTheHistoryIsShorterThanTheLatestPage) {
    MorphelServer::Service service;
    Kitra::Http::ServerOptions options;
    options.versions = MorphelServer::Service::Versions();
    Kitra::Http::Server server(options);
    service.Attach(server);
    server.Start();
    {
        Ref<Kitra::Http::StubAdapter> adapter(new Kitra::Http::StubAdapter(server.GetUrl(), "morphel.version.version4"));
        Ref<Morphel::ServiceInstanceStub> root(new Morphel::ServiceInstanceStub("ServiceInstance", adapter.Get(), nullptr));
        Ref<Morphel::ServiceInstanceContent> content;
        root->RetrieveContent(content);
        Ref<Morphel::SessionManagerStub> sessions(
            new Morphel::SessionManagerStub(content->GetSessionManager()->GetId(), adapter.Get(), nullptr));
        Ref<Morphel::UserSession> session;
        sessions->Login("demo", "demo", Fundix::Optional<std::string>(), session);  // start + login: 2 events
        Ref<Morphel::Event::EventManagerStub> events(
            new Morphel::Event::EventManagerStub(content->GetEventManager()->GetId(), adapter.Get(), nullptr));
        Ref<Kitra::MoRef> ref;
        events->CreateCollector(Ref<Morphel::Event::EventFilterSpec>(new Morphel::Event::EventFilterSpec()).Get(), ref);
        Ref<Morphel::Event::EventHistoryCollectorStub> collector(
            new Morphel::Event::EventHistoryCollectorStub(ref->GetId(), adapter.Get(), nullptr));

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
        sessions->Logout();
    }
    server.Stop();
}

}  // namespace
