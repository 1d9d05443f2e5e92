// History collectors over a history shorter than their latest page (reset stands before its oldest event),
// over a bounded history whose oldest events go while they read it, and of tasks and jobs as filters select.
#include "Support.h"

namespace {

using Fundix::Ref;
using Morphel::Event::Event;

// A service with `options` served on loopback, with a session of demo.
struct Served {
    explicit Served(MorphelServer::ServiceOptions options) : hosted(options), client(hosted.Url()) {}
    Ref<Morphel::Event::EventHistoryCollectorStub> NewCollector() {
        return client.Make<Morphel::Event::EventHistoryCollectorStub>(client.NewCollector().Get());
    }
    // Two events, a login and a logout, of another client: the collectors of this one's session stay.
    void OtherLogsInAndOut() { Client(hosted.Url()).sessions->Logout(); }
    std::vector<int32_t> All() { return Keys(client.Events().Get()); }
    Hosted hosted;
    Client client;
};

TEST(Collector, ReadsAHistoryShorterThanTheLatestPageAndGoesOnFromTheOldestEventKept) {
    MorphelServer::ServiceOptions options;
    options.maxEvents = 4;
    Served hosted(options);  // start, login: 1, 2
    auto collector = hosted.NewCollector();
    Ref<Kitra::DataArray<Event>> page;
    using K = std::vector<int32_t>;
    auto next = [&](int32_t n) { return collector->ReadNext(n, page), Keys(page.Get()); };
    auto prev = [&](int32_t n) { return collector->ReadPrev(n, page), Keys(page.Get()); };
    auto latest = [&] { return collector->GetLatestPage(page), Keys(page.Get()); };
    collector->SetLatestPageSize(5);
    EXPECT_EQ(latest(), (K{1, 2}));
    EXPECT_EQ(next(1), K{1});
    collector->Reset();  // before the latest page, which is the whole history
    EXPECT_EQ(prev(3), K{});
    EXPECT_EQ(next(10), (K{1, 2}));
    EXPECT_EQ(next(10), K{});
    collector->SetLatestPageSize(2);  // a page exactly as long as the history: the same
    collector->Reset();
    EXPECT_EQ(next(10), (K{1, 2}));
    ExpectFault<Kitra::Fault::InvalidArgument>([&] { collector->SetLatestPageSize(0); });
    ExpectFault<Kitra::Fault::InvalidArgument>([&] { collector->ReadNext(0, page); });
    // Unread events dropped from the bounded history: the collector goes on from the oldest one kept.
    collector->Rewind();
    next(1);
    for (int i = 0; i < 2; ++i)  // 3 to 6
        hosted.OtherLogsInAndOut();
    EXPECT_EQ(hosted.All(), (K{3, 4, 5, 6}));
    EXPECT_EQ(next(2), (K{3, 4}));  // 2, unread, is gone
    EXPECT_EQ(prev(10), (K{4, 3}));
    EXPECT_EQ(next(3), (K{3, 4, 5}));
    hosted.OtherLogsInAndOut();  // 7, 8: 3 and 4 go; the collector stands after 5
    EXPECT_EQ(next(10), (K{6, 7, 8}));
    EXPECT_EQ(latest(), (K{7, 8}));  // the newest of a longer history
    collector->Reset();
    EXPECT_EQ(next(10), (K{7, 8}));
    collector->Rewind();
    EXPECT_EQ(next(10), (K{5, 6, 7, 8}));
}

TEST(Collector, EventsOlderThanTheAgeLimitGo) {
    MorphelServer::ServiceOptions options;
    options.maxEventAge = std::chrono::seconds(1);
    Served hosted(options);  // start, login: 1, 2
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    hosted.client.sessions->Logout();  // 3: the others are past the limit
    hosted.client.Login("demo", "demo");
    EXPECT_EQ(hosted.All(), (std::vector<int32_t>{3, 4}));
}

using Morphel::Server::Conversion::ConversionJobInfo;
using Morphel::Server::Job::JobFilterSpec;
using Morphel::Task::TaskFilterSpec;
using Morphel::Task::TaskInfo;

// The ids of the tasks or jobs on `page`.
template <class Info>
std::vector<std::string> Ids(Kitra::DataArray<Info>* page) {
    std::vector<std::string> out;
    for (size_t i = 0; page != nullptr && i < page->GetLength(); ++i)
        out.push_back(page->Get(i)->GetKey());
    return out;
}

TEST(Collector, TaskAndJobCollectorsPageInTheOrderOfCreationAndFilter) {
    MorphelServer::ServiceOptions options;
    options.conversionTime = std::chrono::hours(1);  // the runs go on while the test reads
    Served hosted(options);
    Ref<ConversionJobInfo> fifth;
    for (int i = 0; i < 5; ++i)  // ConversionJob-1, Task-2, ... Task-10: past 9, the text's order is not
        if (auto created = hosted.client.CreateJob("job" + std::to_string(i)); i == 2) fifth = created;
    hosted.client.Make<Morphel::Task::TaskStub>("Task-4")->Cancel();
    hosted.client.Make<Morphel::Server::Conversion::ConversionJobStub>("ConversionJob-3")
        ->Suspend("failIfActiveTask");
    auto sixth = hosted.client.TaskInfo(fifth->GetActiveTask());

    Ref<Kitra::DataArray<TaskInfo>> page;
    auto read = [&](Ref<TaskFilterSpec> filter) {
        Ref<Kitra::MoRef> ref;
        hosted.client.tasks->CreateCollector(filter.Get(), ref);
        return hosted.client.Make<Morphel::Task::TaskHistoryCollectorStub>(ref.Get());
    };
    auto all = read(new TaskFilterSpec());
    all->ReadNext(10, page);
    EXPECT_EQ(Ids(page.Get()), (std::vector<std::string>{"Task-2", "Task-4", "Task-6", "Task-8", "Task-10"}));
    all->ReadPrev(2, page);
    EXPECT_EQ(Ids(page.Get()), (std::vector<std::string>{"Task-10", "Task-8"}));

    auto tasks = ArrayOf<Kitra::DataArray<Kitra::MoRef>>(sixth->GetTask());
    using Morphel::Task::TaskFilterSpec_ByTime, Morphel::Task::TaskFilterSpec_ByUsername;
    Ref<TaskFilterSpec_ByTime> queued(new TaskFilterSpec_ByTime(
        Morphel::Task::TaskFilterSpec_TimeOption::queuedTime, sixth->GetQueueTime(), {}));
    Ref<TaskFilterSpec_ByUsername> ann(
        new TaskFilterSpec_ByUsername(true, ArrayOf<Kitra::Array<std::string>>("ann").Get()));
    // Each filter field selects on its own.
    auto selects = [&](const std::function<void(TaskFilterSpec&)>& set) {
        Ref<TaskFilterSpec> filter(new TaskFilterSpec());
        set(*filter);
        read(filter)->ReadNext(10, page);
        return Ids(page.Get());
    };
    using V = std::vector<std::string>;
    EXPECT_EQ(selects([](auto& f) {
                  f.SetState(ArrayOf<Kitra::Array<TaskInfo::State>>(TaskInfo::State::error).Get());
              }),
              V{"Task-4"});
    EXPECT_EQ(selects([&](auto& f) { f.SetTimeRange(queued.Get()); }), (V{"Task-6", "Task-8", "Task-10"}));
    EXPECT_EQ(selects([&](auto& f) { f.SetUserName(ann.Get()); }), V{});  // neither ann's nor the system's
    EXPECT_EQ(selects([](auto& f) { f.SetDescriptionId(ArrayOf<Kitra::Array<std::string>>("other").Get()); }),
              V{});
    EXPECT_EQ(selects([&](auto& f) { f.SetJob(fifth->GetJob()); }), V{"Task-6"});
    EXPECT_EQ(selects([&](auto& f) { f.SetParentTask(tasks.Get()); }), V{});
    EXPECT_EQ(selects([&](auto& f) { f.SetRootTask(tasks.Get()); }), V{"Task-6"});

    using Morphel::Server::Job::JobFilterSpec_ByTime;
    Ref<JobFilterSpec_ByTime> since(new JobFilterSpec_ByTime("createdTime", fifth->GetCreationTime(), {}));
    Ref<Kitra::MoRef> ref;
    auto jobs = [&](const std::function<void(JobFilterSpec&)>& set) {
        Ref<JobFilterSpec> filter(new JobFilterSpec());
        set(*filter);
        hosted.client.conversions->CreateCollector(filter.Get(), ref);
        Ref<Kitra::DataArray<ConversionJobInfo>> page;
        hosted.client.Make<Morphel::Server::Conversion::ConversionJobHistoryCollectorStub>(ref.Get())
            ->ReadNext(10, page);
        return Ids(page.Get());
    };
    EXPECT_EQ(jobs([](auto&) {}), (V{"ConversionJob-1", "ConversionJob-3", "ConversionJob-5",
                                     "ConversionJob-7", "ConversionJob-9"}));
    EXPECT_EQ(jobs([](auto& f) { f.SetOwner("ann"); }), V{});
    EXPECT_EQ(jobs([](auto& f) { f.SetState(ArrayOf<Kitra::Array<std::string>>("suspended").Get()); }),
              V{"ConversionJob-3"});
    EXPECT_EQ(jobs([&](auto& f) { f.SetTimeRange(since.Get()); }),
              (V{"ConversionJob-5", "ConversionJob-7", "ConversionJob-9"}));
    since->SetTimeType("someTime");
    Ref<JobFilterSpec> unknownTime(new JobFilterSpec());
    unknownTime->SetTimeRange(since.Get());
    auto unknown = ExpectFault<Kitra::Fault::InvalidArgument>(
        [&] { hosted.client.conversions->CreateCollector(unknownTime.Get(), ref); });
    EXPECT_EQ(unknown->GetInvalidProperty().GetValue(), "filter.timeRange.timeType");
}

}  // namespace
