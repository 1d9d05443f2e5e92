// The state stores, in memory, in a database file and in PostgreSQL (skipped when none can start): what
// every store keeps, a throwing transaction rolled back, and the file's older versions and failures.
#include <sqlite3.h>

#include <fstream>
#include <tuple>

#include <dovra/scheduler/types.h>
#include <morphel-server/State.h>
#include <morphel/fault/types.h>

#include "Postgres.h"
#include "Support.h"

namespace {

using Fundix::Ref;
using Fundix::System::DateTime;
using MorphelServer::StateTransaction;

Ref<Morphel::Event::Event> EventAt(int64_t micros) {
    Ref<Morphel::Event::Event> e(new Morphel::Event::GeneralEvent());
    e->SetCreatedTime(DateTime::FromUtcMicros(micros));
    e->SetUserName("ann");
    return e;
}

// Records as complete as the service writes them.
MorphelServer::JobRecord Job(const std::string& id, const std::string& name) {
    MorphelServer::JobRecord job{id, new Morphel::Server::Conversion::ConversionJobInfo(),
                                 JobSpecOfThisMachine(name), nullptr};
    job.info->SetKey(id);
    job.info->SetJob(
        Ref<Kitra::MoRef>(new Kitra::MoRef("morphel.server.conversion.ConversionJob", id)).Get());
    job.info->SetTargetVm(job.spec->GetSource());
    return job;
}
MorphelServer::TaskRecord Task(const std::string& id) {
    MorphelServer::TaskRecord task;
    task.id = id;
    task.info = new Morphel::Task::TaskInfo();
    task.info->SetKey(id);
    task.info->SetTask(Ref<Kitra::MoRef>(new Kitra::MoRef("morphel.task.Task", id)).Get());
    return task;
}

class StateTest : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        if (std::string(GetParam()) != "postgres") return;
        auto& cluster = TestPostgres::Cluster::Get();
        if (!cluster.Running()) GTEST_SKIP() << cluster.Reason();
        conninfo_ = cluster.NewDatabase();
        ASSERT_FALSE(conninfo_.empty());
    }
    std::unique_ptr<MorphelServer::State> Open() {
        if (std::string(GetParam()) == "memory") return MorphelServer::NewMemoryState();
        if (std::string(GetParam()) == "postgres") return MorphelServer::NewPostgresState(conninfo_);
        return MorphelServer::NewSqliteState(folder_.path + "/state.db");
    }
    TempFolder folder_;
    std::string conninfo_;
};

INSTANTIATE_TEST_SUITE_P(Stores, StateTest, ::testing::Values("memory", "sqlite", "postgres"));

TEST_P(StateTest, KeepsWhatIsPutAndNumbersWhatIsAppended) {
    auto state = Open();
    state->Transact([](StateTransaction& tx) {
        EXPECT_EQ(tx.NextId(), 1);
        EXPECT_EQ(tx.NextId(), 2);
        EXPECT_EQ(tx.NextChainId(), 1);
        EXPECT_EQ(tx.GetMaxTask(), 100);
        tx.SetMaxTask(7);
        EXPECT_EQ(tx.GetMaxTask(), 7);

        Ref<Morphel::Event::Event> a(new Morphel::Event::GeneralEvent()), b(new Morphel::Event::Event());
        a->SetChainId(4);
        b->SetChainId(5);
        EXPECT_EQ(tx.AppendEvent(a.Get()), 1);
        EXPECT_EQ(tx.AppendEvent(b.Get()), 2);
        Ref<Morphel::Event::EventFilterSpec> chain(new Morphel::Event::EventFilterSpec());
        chain->SetEventChainId(5);
        EXPECT_EQ(Keys(tx.SelectEvents(chain.Get())), std::vector<int32_t>{2});

        for (const char* id : {"t1", "t2", "t3", "t4"})
            tx.AddRecentTask(id, 3);
        EXPECT_EQ(tx.RecentTasks(), (std::vector<std::string>{"t2", "t3", "t4"}));
        tx.AddRecentTask("t5", 1);
        EXPECT_EQ(tx.RecentTasks(), std::vector<std::string>{"t5"});

        MorphelServer::JobRecord job = Job("ConversionJob-1", "one");
        job.extraInfo = Ref<Kitra::Any>(job.spec->_Clone());
        tx.PutJob(job);
        job.spec->SetName("changed after the put");  // records go in and come out as copies
        tx.FindJob("ConversionJob-1")->spec->SetName("changed without a put");
        EXPECT_TRUE(tx.FindJob("ConversionJob-1")->extraInfo->_IsEqual(Job("", "one").spec.Get(), false));
        EXPECT_EQ(tx.FindJobByName("one")->id, "ConversionJob-1");
        EXPECT_FALSE(tx.FindJobByName("two").has_value());
        EXPECT_EQ(tx.JobIds(), std::vector<std::string>{"ConversionJob-1"});
        EXPECT_TRUE(tx.EraseJob("ConversionJob-1"));
        EXPECT_FALSE(tx.EraseJob("ConversionJob-1"));
        // A task's whole record: state, progress, result and error.
        MorphelServer::TaskRecord task = Task("Task-2");
        task.jobId = "ConversionJob-1";
        task.disks = {"disk:0", "", "disk 1"};
        task.vmName = "copy";
        task.info->SetState(Morphel::Task::TaskInfo::State::error);
        task.info->SetProgress(45);
        task.info->SetQueueTime(DateTime::FromUtcMicros(1700000000123456));
        task.info->SetError(Ref<Morphel::Fault::CloneFault>(new Morphel::Fault::CloneFault("cut off")).Get());
        task.info->SetResult(Job("", "r").spec.Get());
        tx.PutTask(task);
        auto found = tx.FindTask("Task-2");
        ASSERT_TRUE(found.has_value());
        EXPECT_EQ(std::tie(found->jobId, found->disks, found->vmName),
                  std::tie(task.jobId, task.disks, task.vmName));
        EXPECT_TRUE(found->info->_IsEqual(task.info.Get(), false));
        EXPECT_EQ(tx.TaskIds(), std::vector<std::string>{"Task-2"});

        MorphelServer::CollectorRecord collector;
        collector.filter = new Morphel::Event::EventFilterSpec();
        collector.owner = "session-a";
        tx.PutCollector("c", collector);
        collector.after = 7;
        EXPECT_EQ(tx.FindCollector("c")->after, 0);  // a copy: only a put changes the state
        tx.PutCollector("c", collector);
        EXPECT_EQ(tx.FindCollector("c")->after, 7);
        collector.owner = "session-b";
        tx.PutCollector("d", collector);
        tx.PutCollector("e", collector);
        EXPECT_EQ(tx.CollectorIdsOf("session-a"), std::vector<std::string>{"c"});
        EXPECT_EQ(tx.CollectorIdsOf("session-b"), (std::vector<std::string>{"d", "e"}));
        EXPECT_TRUE(tx.EraseCollector("c"));
        EXPECT_EQ(tx.CountCollectors(), 2u);
        EXPECT_EQ(tx.CollectorIds(), (std::vector<std::string>{"d", "e"}));
        // Scheduled tasks by name, by job and by due time (enabled, with a next run); a task of its own
        // keeps the record it was created with; an erased task leaves the recent tasks.
        auto scheduled = [](const std::string& id, const std::string& job, int64_t next, bool enabled) {
            MorphelServer::ScheduledTaskRecord s{id, job, new Dovra::Scheduler::ScheduledTaskInfo()};
            s.info->SetKey(id);
            s.info->SetName("n" + id);
            s.info->SetEnabled(enabled);
            if (next != 0) s.info->SetNextRunTime(DateTime::FromUtcMicros(next));
            return s;
        };
        EXPECT_FALSE(tx.NextDueTime().has_value());
        tx.PutScheduledTask(scheduled("s1", "j1", 300, true));
        tx.PutScheduledTask(scheduled("s2", "j1", 100, false));
        tx.PutScheduledTask(scheduled("s3", "j2", 200, true));
        tx.PutScheduledTask(scheduled("s4", "j2", 0, true));
        EXPECT_EQ(tx.ScheduledTaskIdsOf("j2"), (std::vector<std::string>{"s3", "s4"}));
        EXPECT_EQ(tx.FindScheduledTaskByName("ns2")->id, "s2");
        EXPECT_EQ(tx.DueScheduledTasks(DateTime::FromUtcMicros(300)), (std::vector<std::string>{"s3", "s1"}));
        EXPECT_EQ(tx.DueScheduledTasks(DateTime::FromUtcMicros(299)), std::vector<std::string>{"s3"});
        EXPECT_EQ(tx.NextDueTime()->GetUtcMicros(), 200);
        EXPECT_TRUE(
            tx.FindScheduledTask("s3")->info->_IsEqual(scheduled("s3", "j2", 200, true).info.Get(), false));
        tx.PutScheduledTask(scheduled("s3", "j2", 200, false));
        EXPECT_EQ(tx.NextDueTime()->GetUtcMicros(), 300);
        EXPECT_TRUE(tx.EraseScheduledTask("s1"));
        EXPECT_FALSE(tx.NextDueTime().has_value());

        MorphelServer::TaskRecord own = Task("Task-3");
        own.spec = new Morphel::Task::TaskSpec();
        own.spec->SetConversionParams(
            Ref<Morphel::Params::ConversionParams>(new Morphel::Params::ConversionParams()).Get());
        tx.PutTask(own);
        EXPECT_TRUE(tx.FindTask("Task-3")->spec->_IsEqual(own.spec.Get(), false));
        EXPECT_EQ(tx.FindTask("Task-2")->spec, nullptr);
        tx.AddRecentTask("Task-3", 3);
        EXPECT_TRUE(tx.EraseTask("Task-3"));
        EXPECT_FALSE(tx.FindTask("Task-3").has_value());
        EXPECT_EQ(tx.RecentTasks(), std::vector<std::string>{"t5"});
        // A task collector: its kind, its filter's type, a place past an event key's range.
        collector.kind = MorphelServer::CollectorKind::task;
        collector.filter = new Morphel::Task::TaskFilterSpec();
        collector.after = int64_t(1) << 40;
        tx.PutCollector("t", collector);
        auto tasks = tx.FindCollector("t");
        EXPECT_EQ(tasks->kind, MorphelServer::CollectorKind::task);
        EXPECT_NE(dynamic_cast<Morphel::Task::TaskFilterSpec*>(tasks->filter.Get()), nullptr);
        EXPECT_EQ(tasks->after, int64_t(1) << 40);
        // Log bundles: their bytes as they were, oldest first.
        for (const char* key : {"bundle-9", "bundle-10"}) {
            MorphelServer::LogBundleRecord b;
            b.key = key;
            b.info = new Morphel::DiagnosticManager::TaskLogBundleInfo(
                key, DateTime::FromUtcMicros(5), Morphel::DiagnosticManager::BundleFormat::zip, nullptr, 5,
                -7);
            b.data = std::string("PK\0\xff", 4) + key;
            b.taskId = "Task-2";
            b.failedLogins = key[7] == '9';
            tx.PutLogBundle(b);
        }
        EXPECT_EQ(tx.LogBundleKeys(), (std::vector<std::string>{"bundle-9", "bundle-10"}));
        auto bundle = tx.FindLogBundle("bundle-9");
        ASSERT_TRUE(bundle.has_value());
        EXPECT_EQ(std::tie(bundle->data, bundle->taskId),
                  std::make_tuple(std::string("PK\0\xff", 4) + "bundle-9", std::string("Task-2")));
        EXPECT_TRUE(bundle->failedLogins);
        EXPECT_FALSE(tx.FindLogBundle("bundle-10")->failedLogins);
        EXPECT_EQ(dynamic_cast<Morphel::DiagnosticManager::TaskLogBundleInfo*>(bundle->info.Get())->GetCrc(),
                  -7);
        EXPECT_TRUE(tx.EraseLogBundle("bundle-9"));
        EXPECT_FALSE(tx.EraseLogBundle("bundle-9"));
        EXPECT_EQ(tx.LogBundleKeys(), std::vector<std::string>{"bundle-10"});
    });
    // Values come out of Run as the transaction returned them.
    EXPECT_EQ(state->Run([](StateTransaction& tx) { return tx.NextId(); }), 3);
}

TEST_P(StateTest, DropsTheOldestEventsByCountAndAge) {
    auto state = Open();
    state->Transact([](StateTransaction& tx) {
        for (int64_t t : {100, 200, 300, 400, 500})
            tx.AppendEvent(EventAt(t).Get());
        EXPECT_EQ(tx.DropEvents(3, DateTime::FromUtcMicros(0)), 2u);  // by count
        EXPECT_EQ(Keys(tx.SelectEvents(nullptr)), (std::vector<int32_t>{3, 4, 5}));
    });
    state->Transact([](StateTransaction& tx) {
        EXPECT_EQ(tx.DropEvents(3, DateTime::FromUtcMicros(0)), 0u);
        tx.AppendEvent(EventAt(150).Get());  // an earlier clock: it goes when those before it have gone
        EXPECT_EQ(tx.DropEvents(10, DateTime::FromUtcMicros(450)), 2u);  // by age: 3 and 4
        EXPECT_EQ(Keys(tx.SelectEvents(nullptr)), (std::vector<int32_t>{5, 6}));
        EXPECT_EQ(tx.DropEvents(10, DateTime::FromUtcMicros(501)), 2u);
        EXPECT_TRUE(tx.SelectEvents(nullptr).empty());
        EXPECT_EQ(tx.AppendEvent(EventAt(600).Get()), 7);  // keys go on growing
        EXPECT_EQ(tx.DropEvents(0, DateTime::FromUtcMicros(0)), 1u);
        EXPECT_EQ(tx.AppendEvent(EventAt(700).Get()), 8);
    });
    state.reset();
    if (std::string(GetParam()) != "sqlite") return;  // the file keeps where its keys stand
    EXPECT_EQ(Open()->Run([](StateTransaction& tx) { return Keys(tx.SelectEvents(nullptr)); }),
              std::vector<int32_t>{8});
}

TEST_P(StateTest, AThrowingTransactionLeavesNothingAndACommittedOneSurvivesReopening) {
    if (std::string(GetParam()) == "memory") GTEST_SKIP() << "memory keeps nothing to roll back to";
    auto state = Open();
    state->Transact([](StateTransaction& tx) {
        tx.AppendEvent(EventAt(100).Get());
        MorphelServer::CollectorRecord c;
        c.filter = new Morphel::Event::EventFilterSpec();
        c.owner = "s";
        tx.PutCollector("kept", c);
    });
    EXPECT_THROW(state->Transact([](StateTransaction& tx) {
        EXPECT_EQ(tx.NextId(), 1);
        tx.AppendEvent(EventAt(200).Get());
        tx.DropEvents(0, DateTime::FromUtcMicros(0));
        EXPECT_TRUE(tx.SelectEvents(nullptr).empty());
        tx.SetMaxTask(3);
        EXPECT_TRUE(tx.EraseCollector("kept"));
        tx.PutJob(Job("j", "j"));
        throw std::logic_error("no");
    }),
                 std::logic_error);
    state->Transact([](StateTransaction& tx) {
        EXPECT_EQ(tx.NextId(), 1);
        EXPECT_EQ(tx.GetMaxTask(), 100);
        EXPECT_FALSE(tx.FindJob("j").has_value());
        EXPECT_EQ(tx.CollectorIds(), std::vector<std::string>{"kept"});
        EXPECT_EQ(Keys(tx.SelectEvents(nullptr)), std::vector<int32_t>{1});
        EXPECT_EQ(tx.AppendEvent(EventAt(300).Get()), 2);
    });
    state.reset();
    state = Open();
    state->Transact([](StateTransaction& tx) {
        EXPECT_EQ(tx.NextId(), 2);
        EXPECT_EQ(Keys(tx.SelectEvents(nullptr)), (std::vector<int32_t>{1, 2}));
        EXPECT_EQ(tx.SelectEvents(nullptr)[0]->GetUserName(), "ann");
    });
}

// ---- The database file

class SqliteStateTest : public ::testing::Test {
protected:
    std::string Path() const { return folder_.path + "/state.db"; }
    // Runs `sql` on the file directly.
    void Sql(const std::string& sql) {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(Path().c_str(), &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
        sqlite3_close(db);
    }
    TempFolder folder_;
};

TEST_F(SqliteStateTest, ReadsEachRecordInTheVersionItWasWrittenIn) {
    auto put = [](StateTransaction& tx) {
        MorphelServer::JobRecord job = Job("ConversionJob-1", "old");
        job.info->SetOwner("ann");
        job.info->SetSource("host-a");  // since version 3
        tx.PutJob(job);
    };
    MorphelServer::SqliteOptions version2;
    version2.version = "version2";
    MorphelServer::NewSqliteState(Path(), version2)->Transact(put);
    MorphelServer::NewSqliteState(Path())->Transact([&](StateTransaction& tx) {
        auto job = tx.FindJob("ConversionJob-1");
        ASSERT_TRUE(job.has_value());
        EXPECT_EQ(job->info->GetOwner(), "ann");
        EXPECT_EQ(job->spec->GetName(), "old");
        EXPECT_FALSE(job->info->GetSource().IsSet());  // version 2 never held it
        put(tx);                                       // written again in version 4
    });
    EXPECT_EQ(MorphelServer::NewSqliteState(Path())->Run([](StateTransaction& tx) {
        return tx.FindJob("ConversionJob-1")->info->GetSource().GetValue();
    }),
              "host-a");
}

TEST_F(SqliteStateTest, AFileOfTheFirstSchemaKeepsItsEventCollectorsAndGainsTheLaterTables) {
    MorphelServer::NewSqliteState(Path())->Transact([](StateTransaction& tx) {
        MorphelServer::CollectorRecord c;
        Ref<Morphel::Event::EventFilterSpec> filter(new Morphel::Event::EventFilterSpec());
        filter->SetEventChainId(5);
        c.filter = filter;
        c.after = 3;
        c.owner = "s";
        tx.PutCollector("EventHistoryCollector-1", c);
    });
    Sql("ALTER TABLE collectors DROP COLUMN kind; DROP TABLE logBundles; DROP TABLE scheduledTasks;"
        "ALTER TABLE tasks DROP COLUMN spec; UPDATE schemaVersion SET version = 1");
    MorphelServer::NewSqliteState(Path())->Transact([](StateTransaction& tx) {
        auto c = tx.FindCollector("EventHistoryCollector-1");
        ASSERT_TRUE(c.has_value());
        EXPECT_EQ(c->kind, MorphelServer::CollectorKind::event);
        auto* filter = dynamic_cast<Morphel::Event::EventFilterSpec*>(c->filter.Get());
        ASSERT_NE(filter, nullptr);
        EXPECT_EQ(filter->GetEventChainId().GetValue(), 5);
        EXPECT_EQ(c->after, 3);
        EXPECT_TRUE(tx.LogBundleKeys().empty());
        EXPECT_TRUE(tx.ScheduledTaskIds().empty());
    });
}

TEST_F(SqliteStateTest, FailuresNameTheFile) {
    auto open = [&] { MorphelServer::NewSqliteState(Path()); };
    std::ofstream(Path())
        << "not a database, only text long enough to hold a header of one hundred bytes......";
    ExpectFailure(open, Path() + ": file is not a database");
    std::filesystem::remove(Path());

    auto held = MorphelServer::NewSqliteState(Path());
    ExpectFailure(open, Path() + ": database is locked");
    held->Transact([](StateTransaction& tx) { tx.PutTask(Task("Task-1")); });
    held.reset();

    Sql("UPDATE tasks SET info = '<broken'");
    auto state = MorphelServer::NewSqliteState(Path());
    ExpectFailure([&] { state->Transact([](StateTransaction& tx) { tx.FindTask("Task-1"); }); },
                  Path() + ": task Task-1 cannot be read");
    state.reset();
    Sql("INSERT INTO events VALUES (1, 0, 'morphel.version.version4', '<broken')");
    ExpectFailure(open, Path() + ": event 1 cannot be read");
    Sql("DELETE FROM events; UPDATE schemaVersion SET version = 99");
    ExpectFailure(open, Path() + ": written by a newer server (schema version 99");
    ExpectFailure([&] { MorphelServer::NewSqliteState(folder_.path + "/none/state.db"); },
                  folder_.path + "/none/state.db: cannot be opened");
}

}  // namespace
