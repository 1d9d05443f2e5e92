// A restart over a database file keeps every job, task, event, collector and log bundle the server
// acknowledged, and fails the tasks it cut off: after the service is destroyed and another attached to the
// same file, and after the program is killed with SIGKILL and started again.
#include <morphel/fault/types.h>

#include "Support.h"

namespace {

using Fundix::Ref;
using Morphel::Server::Conversion::ConversionJobInfo;
using Morphel::Task::TaskInfo;

// The task failed as one the restart cut off.
void ExpectInterrupted(const TaskInfo& info) {
    EXPECT_EQ(info.GetState(), TaskInfo::State::error);
    auto* fault = dynamic_cast<Morphel::Fault::CloneFault*>(info.GetError());
    ASSERT_NE(fault, nullptr);
    EXPECT_EQ(fault->GetDescription(), MorphelServer::kInterruptedTask);
    EXPECT_TRUE(info.GetCompleteTime().IsSet());
    EXPECT_FALSE(info.IsCancelled());  // failed, not cancelled
}

TEST(Restart, AnotherServiceOverTheFileKeepsEverythingAndFailsTheCutOffTask) {
    TempFolder folder;
    const std::string path = folder.path + "/state.db";
    std::string jobId, taskId, runningId, doneId, bundleKey, bundle;
    std::vector<int32_t> keys;
    MorphelServer::ServiceOptions options;
    {
        options.state = MorphelServer::NewSqliteState(path);
        options.conversionTime = std::chrono::hours(1);  // still queued when the service goes
        Hosted hosted(options);
        {
            Client c(hosted.Url());
            auto created = c.CreateJob("kept");
            std::tie(jobId, taskId) =
                std::pair(created->GetJob()->GetId(), created->GetActiveTask()->GetId());
            runningId = c.CreateJob("running")->GetActiveTask()->GetId();
            doneId = c.CreateJob("done")->GetActiveTask()->GetId();
            c.NewCollector();
            bundleKey = Out<Morphel::DiagnosticManager::TaskLogBundleInfo>([&](auto& r) {
                            c.diagnostics->GenerateLogBundle(nullptr, r);
                        })->GetKey();
            bundle = ReadBundle(*c.diagnostics, bundleKey, 1 << 20);
        }
        hosted.server->Stop();
        options.state->Transact([&](MorphelServer::StateTransaction& tx) {
            // One task was running when the service went, another had finished.
            for (auto [id, state] :
                 {std::pair{runningId, TaskInfo::State::running}, {doneId, TaskInfo::State::success}}) {
                auto task = tx.FindTask(id);
                task->info->SetState(state);
                tx.PutTask(*task);
            }
            keys = Keys(tx.SelectEvents(nullptr));
        });
    }

    options.state.reset();  // the file's lock goes with its last holder
    options.state = MorphelServer::NewSqliteState(path);
    auto again = std::make_unique<Hosted>(options);
    options.state->Transact([&](MorphelServer::StateTransaction& tx) {
        auto task = tx.FindTask(taskId);
        ASSERT_TRUE(task.has_value());
        ExpectInterrupted(*task->info);
        ExpectInterrupted(*tx.FindTask(runningId)->info);
        EXPECT_EQ(tx.FindTask(doneId)->info->GetState(), TaskInfo::State::success);
        auto job = tx.FindJob(jobId);
        ASSERT_TRUE(job.has_value());
        EXPECT_EQ(job->info->GetActiveTask(), nullptr);
        EXPECT_EQ(job->info->GetNumConsecutiveErrors(), 1);
        EXPECT_NE(dynamic_cast<Morphel::Fault::CloneFault*>(job->info->GetMostRecentError()), nullptr);
        // The events before the restart, then the start and the failures.
        auto events = tx.SelectEvents(nullptr);
        ASSERT_EQ(events.size(), keys.size() + 3);
        EXPECT_EQ(Keys({events.begin(), events.begin() + keys.size()}), keys);
        EXPECT_NE(dynamic_cast<Morphel::Event::ServerStartedEvent*>(events[keys.size()].Get()), nullptr);
        auto* failed = dynamic_cast<Morphel::Event::TaskEvent*>(events[keys.size() + 1].Get());
        ASSERT_NE(failed, nullptr);
        EXPECT_EQ(failed->GetChainId(), task->info->GetEventChainId());
        EXPECT_EQ(failed->GetType(), Morphel::Event::Event::Type::error);
        ExpectInterrupted(*failed->GetInfo());
        EXPECT_TRUE(tx.CollectorIds().empty());  // their sessions ended with the server that held them
    });
    // The bundle as it was; a third start fails nothing more.
    EXPECT_EQ(ReadBundle(*Client(again->Url()).diagnostics, bundleKey, 1 << 20), bundle);
    again.reset();
    auto count = [&] { return options.state->Run([](auto& tx) { return tx.SelectEvents(nullptr).size(); }); };
    size_t before = count();
    MorphelServer::Service third(options);
    EXPECT_EQ(count(), before + 1);  // only its start
}

// And a first run that came due while no server ran starts when one does again; SIGTERM ends it cleanly.
TEST(Restart, TheProgramKilledWithSigkillKeepsTheJobAndFailsItsTask) {
    TempFolder folder;
    std::vector<std::string> args{"--listen", "127.0.0.1:0", "--state", folder.path, "--user", "ann:pw"};
    Ref<Kitra::MoRef> jobRef, taskRef;
    Ref<ConversionJobInfo> later;
    auto at = InMillis(1000);
    {
        Program first(args);
        ASSERT_FALSE(first.Url().empty());
        Client c(first.Url(), "ann", "pw");
        auto created = c.CreateJob("survivor");
        jobRef = created->GetJob();
        taskRef = created->GetActiveTask();
        later = c.CreateJob("later", nullptr, [&](auto& spec) { spec.SetFirstRun(at); });
        int status = first.Kill(SIGKILL);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    }
    while (Fundix::System::DateTime::Now() <= at)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(std::filesystem::exists(folder.path + "/state.db"));
    Program second(args);
    ASSERT_FALSE(second.Url().empty());
    {
        Client c(second.Url(), "ann", "pw");
        Ref<ConversionJobInfo> job = c.JobInfo(jobRef.Get());
        EXPECT_EQ(job->GetKey(), jobRef->GetId());
        EXPECT_EQ(job->GetActiveTask(), nullptr);
        ExpectInterrupted(*c.TaskInfo(taskRef.Get()));
        EXPECT_TRUE(
            Eventually([&] { return (job = c.JobInfo(later->GetJob()))->GetLastRunStartTime().IsSet(); }));
        EXPECT_EQ(job->GetNumConsecutiveErrors(), 0);  // started here, not cut off there
        EXPECT_FALSE(job->GetNextRunStartTime().IsSet());
    }
    int status = second.Kill(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
