// A restart over a database file, after the program is killed with SIGKILL, keeps every job, task, event and
// log bundle the server acknowledged, and fails the tasks it cut off; a first run that came due while no
// server ran starts when one does again; SIGTERM ends the program cleanly, and a later start fails nothing.
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

TEST(Restart, TheProgramKilledWithSigkillKeepsEverythingAndFailsTheCutOffTasks) {
    TempFolder folder;
    const std::string path = folder.path + "/state.db";
    std::vector<std::string> args{"--listen", "127.0.0.1:0", "--state", folder.path, "--user", "ann:pw"};
    Ref<ConversionJobInfo> kept, running, done, later;
    std::string bundleKey, bundle;
    std::vector<int32_t> keys;
    Fundix::System::DateTime at;
    {
        Program first(args);
        ASSERT_FALSE(first.Url().empty());
        Client c(first.Url(), "ann", "pw");
        c.NewCollector();
        bundleKey = Out<Morphel::DiagnosticManager::TaskLogBundleInfo>([&](auto& r) {
                        c.diagnostics->GenerateLogBundle(nullptr, r);
                    })->GetKey();
        bundle = ReadBundle(*c.diagnostics, bundleKey, 1 << 20);
        kept = c.CreateJob("kept");
        running = c.CreateJob("running");
        done = c.CreateJob("done");
        at = InMillis(1000);  // the tasks above stay active for 2.5 s
        later = c.CreateJob("later", nullptr, [&](auto& spec) { spec.SetFirstRun(at); });
        int status = first.Kill(SIGKILL);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    }
    // One task was running when the program went, another had finished.
    MorphelServer::NewSqliteState(path)->Transact([&](MorphelServer::StateTransaction& tx) {
        for (auto [info, state] :
             {std::pair{running, TaskInfo::State::running}, {done, TaskInfo::State::success}}) {
            auto task = tx.FindTask(info->GetActiveTask()->GetId());
            task->info->SetState(state);
            tx.PutTask(*task);
        }
        keys = Keys(tx.SelectEvents(nullptr));
    });
    while (Fundix::System::DateTime::Now() <= at)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    Program second(args);
    ASSERT_FALSE(second.Url().empty());
    {
        Client c(second.Url(), "ann", "pw");
        Ref<ConversionJobInfo> job = c.JobInfo(kept->GetJob());
        EXPECT_EQ(job->GetKey(), kept->GetKey());
        EXPECT_EQ(job->GetActiveTask(), nullptr);
        EXPECT_EQ(job->GetNumConsecutiveErrors(), 1);
        EXPECT_NE(dynamic_cast<Morphel::Fault::CloneFault*>(job->GetMostRecentError()), nullptr);
        ExpectInterrupted(*c.TaskInfo(kept->GetActiveTask()));
        ExpectInterrupted(*c.TaskInfo(running->GetActiveTask()));
        EXPECT_EQ(c.TaskInfo(done->GetActiveTask())->GetState(), TaskInfo::State::success);
        EXPECT_EQ(ReadBundle(*c.diagnostics, bundleKey, 1 << 20), bundle);

        // The events before the restart, then the start and the failures.
        auto events = c.Events();
        ASSERT_GE(events->GetLength(), keys.size() + 3);
        std::vector<int32_t> all = Keys(events.Get());
        EXPECT_EQ(std::vector<int32_t>(all.begin(), all.begin() + keys.size()), keys);
        EXPECT_NE(dynamic_cast<Morphel::Event::ServerStartedEvent*>(events->Get(keys.size())), nullptr);
        auto* failed = dynamic_cast<Morphel::Event::TaskEvent*>(events->Get(keys.size() + 1));
        ASSERT_NE(failed, nullptr);
        EXPECT_EQ(failed->GetType(), Morphel::Event::Event::Type::error);
        ExpectInterrupted(*failed->GetInfo());

        EXPECT_TRUE(
            Eventually([&] { return (job = c.JobInfo(later->GetJob()))->GetLastRunStartTime().IsSet(); }));
        EXPECT_EQ(job->GetNumConsecutiveErrors(), 0);  // started here, not cut off there
        EXPECT_FALSE(job->GetNextRunStartTime().IsSet());
        c.Make<Morphel::Task::TaskStub>(job->GetActiveTask())->Cancel();
    }
    int status = second.Kill(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    // Another start over the file records only itself; the collectors went with the sessions that held them.
    MorphelServer::ServiceOptions options;
    options.state = MorphelServer::NewSqliteState(path);
    auto count = [&] { return options.state->Run([](auto& tx) { return tx.SelectEvents(nullptr).size(); }); };
    size_t before = count();
    MorphelServer::Service third(options);
    EXPECT_EQ(count(), before + 1);
    EXPECT_TRUE(options.state->Run([](auto& tx) { return tx.CollectorIds().empty(); }));
}

}  // namespace
