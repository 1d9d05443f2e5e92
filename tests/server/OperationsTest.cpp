// The operations on jobs and tasks over HTTP: cancel, suspend, stop, resume, rename, update and destroy,
// what the task manager answers, tasks of their own, scheduled runs and log bundles.
#include <algorithm>

#include <dovra/scheduler/types.h>
#include <morphel/agent/internal/fault/types.h>
#include <morphel/fault/types.h>

#include "Support.h"

namespace {

using Fundix::Ref;
using Morphel::Server::Conversion::ConversionJobInfo;
using Morphel::Server::Conversion::ConversionJobStub;
using Morphel::Task::TaskInfo;
using Status = Morphel::Server::ManagedEntity::Status;
using namespace std::chrono_literals;

constexpr const char* kFail = "failIfActiveTask";
constexpr const char* kCancel = "cancelActiveTask";

// One service on loopback, its conversions taking the time a test asks for, and a client logged in to it.
class OperationsTest : public ::testing::Test {
protected:
    void Start(std::chrono::milliseconds conversionTime) {
        MorphelServer::ServiceOptions options;
        options.conversionTime = conversionTime;
        hosted_ = std::make_unique<Hosted>(options);
        client_ = std::make_unique<Client>(hosted_->Url());
        conversions_ = client_->conversions;
        tasks_ = client_->tasks;
    }
    template <class... A>
    Ref<ConversionJobInfo> CreateJob(A&&... a) {
        return client_->CreateJob(std::forward<A>(a)...);
    }
    Ref<Dovra::Scheduler::ScheduledTaskInfo> Scheduled(Kitra::MoRef* task) {
        auto info = Out<Morphel::Task::ScheduledTaskInfo>([&](auto& r) { client_->scheduled->Get(task, r); });
        return info != nullptr ? info->GetInfo() : new Dovra::Scheduler::ScheduledTaskInfo();
    }
    // The job's info once it has an active task (a failure after ten seconds).
    Ref<ConversionJobInfo> WaitForRun(ConversionJobStub* job) {
        EXPECT_TRUE(Eventually([&] { return JobInfo(job)->GetActiveTask() != nullptr; }));
        return JobInfo(job);
    }
    // The messages of the events recorded against `job`, or of the task's events, oldest first.
    std::vector<std::string> MessagesOf(Kitra::MoRef* job) {
        Ref<Morphel::Event::EventFilterSpec> byJob(new Morphel::Event::EventFilterSpec());
        byJob->SetJob(job);
        return Messages(client_->Events(byJob.Get()).Get());
    }
    std::vector<std::string> TaskMessages(Kitra::MoRef* task) {
        return Messages(Out<Kitra::DataArray<Morphel::Event::Event>>([&](auto& r) {
                            client_->Make<Morphel::Task::TaskStub>(task)->GetEvent(r);
                        }).Get());
    }
    static std::vector<std::string> Messages(Kitra::DataArray<Morphel::Event::Event>* events) {
        std::vector<std::string> messages;
        for (size_t i = 0; events != nullptr && i < events->GetLength(); ++i)
            messages.push_back(events->Get(i)->GetFullMessage().GetValue());
        return messages;
    }
    Ref<TaskInfo> TaskOf(Kitra::MoRef* task) { return client_->TaskInfo(task); }
    // The task's info once `done` holds for it (a failure after ten seconds).
    Ref<TaskInfo> WaitFor(Kitra::MoRef* task, const std::function<bool(const TaskInfo&)>& done) {
        Ref<TaskInfo> info;
        EXPECT_TRUE(Eventually([&] { return done(*(info = TaskOf(task))); }))
            << "task " << task->GetId() << " never got there";
        return info;
    }
    Ref<ConversionJobInfo> JobInfo(ConversionJobStub* job) {
        return Out<ConversionJobInfo>([&](auto& r) { job->GetInfo(r); });
    }

    std::unique_ptr<Hosted> hosted_;
    std::unique_ptr<Client> client_;
    Ref<Morphel::Server::Conversion::ConversionManagerStub> conversions_;
    Ref<Morphel::Task::TaskManagerStub> tasks_;
};

// A scheduled task's settings: enabled, running first at `runAt`, then every `interval` minutes.
Ref<Dovra::Scheduler::ScheduledTaskSpec> Schedule(const std::string& name, Fundix::System::DateTime runAt,
                                                  Fundix::Optional<int32_t> interval = {}) {
    Ref<Dovra::Scheduler::ScheduledTaskSpec> spec(new Dovra::Scheduler::ScheduledTaskSpec());
    spec->SetName(name);
    spec->SetEnabled(true);
    spec->SetRunAt(runAt);
    spec->SetIntervalMinutes(interval);
    return spec;
}

bool Running(const TaskInfo& info) { return info.GetState() == TaskInfo::State::running; }
bool Succeeded(const TaskInfo& info) { return info.GetState() == TaskInfo::State::success; }

TEST_F(OperationsTest, CancelStopsTheRunAndFreesTheJob) {
    Start(4s);  // 20 steps of 200 ms
    Ref<ConversionJobInfo> created = CreateJob("cancelled");
    Kitra::MoRef* ref = created->GetActiveTask();
    auto task = client_->Make<Morphel::Task::TaskStub>(ref);
    auto job = client_->Make<ConversionJobStub>(created->GetJob());
    EXPECT_TRUE(WaitFor(ref, Running)->IsCancelable());
    task->Cancel();
    Ref<TaskInfo> info = TaskOf(ref);
    EXPECT_EQ(info->GetState(), TaskInfo::State::error);
    EXPECT_TRUE(info->IsCancelled());
    EXPECT_FALSE(info->IsCancelable());
    EXPECT_NE(dynamic_cast<Morphel::Agent::Internal::Fault::Cancel*>(info->GetError()), nullptr);
    EXPECT_EQ(JobInfo(job.Get())->GetActiveTask(), nullptr);
    EXPECT_EQ(job->GetOverallStatus(), Status::yellow);
    // The run's thread stops: over a few more steps nothing changes and nothing is logged; cancelling an
    // ended task changes nothing either.
    auto messages = TaskMessages(ref);
    EXPECT_EQ(messages.empty() ? "" : messages.back(), "Task cancelled");
    std::this_thread::sleep_for(600ms);
    task->Cancel();
    EXPECT_EQ(TaskMessages(ref), messages);
    EXPECT_TRUE(TaskOf(ref)->_IsEqual(info.Get(), false));
    EXPECT_EQ(JobInfo(job.Get())->GetNumConsecutiveErrors(), 1);
}

TEST_F(OperationsTest, SuspendStopAndResumeFollowTheJobsStateAndItsActiveTask) {
    Start(60s);  // runs that end only when cancelled
    Ref<ConversionJobInfo> created = CreateJob("first");
    auto job = client_->Make<ConversionJobStub>(created->GetJob());
    auto invalid = ExpectFault<Kitra::Fault::InvalidArgument>([&] { job->Suspend("later"); });
    EXPECT_EQ(invalid->GetInvalidProperty().GetValue(), "activeTaskHandling");
    auto busy = ExpectFault<Morphel::Fault::JobHasActiveTaskFault>([&] { job->Suspend(kFail); });
    EXPECT_EQ(Id(busy->GetTask()), Id(created->GetActiveTask()));
    EXPECT_EQ(Id(busy->GetJob()), Id(created->GetJob()));
    ExpectFault<Dovra::Fault::InvalidState>([&] { job->Resume(); });

    job->Suspend(kCancel);
    EXPECT_EQ(JobInfo(job.Get())->GetState(), "suspended");
    EXPECT_TRUE(TaskOf(created->GetActiveTask())->IsCancelled());
    ExpectFault<Dovra::Fault::InvalidState>([&] { job->Suspend(kFail); });
    job->Resume();
    EXPECT_EQ(JobInfo(job.Get())->GetState(), "active");
    ExpectFault<Kitra::Fault::InvalidArgument>([&] { job->Stop(""); });
    job->Stop(kFail);  // no task is active any more
    EXPECT_EQ(JobInfo(job.Get())->GetState(), "deactivated");
    // Stopping a job whose task is active: refused, or the task cancelled.
    Ref<ConversionJobInfo> second = CreateJob("second");
    auto other = client_->Make<ConversionJobStub>(second->GetJob());
    ExpectFault<Morphel::Fault::JobHasActiveTaskFault>([&] { other->Stop(kFail); });
    EXPECT_EQ(JobInfo(other.Get())->GetState(), "active");
    other->Stop(kCancel);
    other->Stop(kFail);  // changes nothing, records nothing
    EXPECT_EQ(JobInfo(other.Get())->GetState(), "deactivated");
    EXPECT_TRUE(TaskOf(second->GetActiveTask())->IsCancelled());
    // Each change is recorded against its job, the cancel against the task.
    EXPECT_EQ(MessagesOf(second->GetJob()),
              (std::vector<std::string>{"Conversion job 'second' created", "Task queued", "Task cancelled",
                                        "Conversion job 'second' stopped"}));
}

// Destroy, rename and the updates of a job whose run goes on.
TEST_F(OperationsTest, DestroyRenameAndUpdatesCheckTheirArgumentsAndKeepTheRest) {
    Start(60s);
    Ref<ConversionJobInfo> doomed = CreateJob("doomed");
    ExpectFault<Dovra::Fault::InvalidState>([&] { conversions_->DestroyJob(doomed->GetJob(), {}); });
    ExpectFault<Kitra::Fault::InvalidArgument>(
        [&] { conversions_->DestroyJob(doomed->GetJob(), std::string("now")); });
    EXPECT_FALSE(TaskOf(doomed->GetActiveTask())->IsCancelled());
    conversions_->DestroyJob(doomed->GetJob(), std::string(kCancel));
    ExpectFault<Dovra::Fault::NotFound>([&] { client_->JobInfo(doomed->GetJob()); });
    ExpectFault<Dovra::Fault::NotFound>([&] { conversions_->DestroyJob(doomed->GetJob(), {}); });
    ExpectFault<Kitra::Fault::ManagedObjectNotFound>(
        [&] { JobInfo(client_->Make<ConversionJobStub>(doomed->GetJob()).Get()); });
    EXPECT_TRUE(TaskOf(doomed->GetActiveTask())->IsCancelled());
    // The task stays; what it converted went with its job.
    EXPECT_EQ(Out<Morphel::Task::TaskSpec>([&](auto& r) { tasks_->GetTaskSpec(doomed->GetActiveTask(), r); }),
              nullptr);

    Ref<Morphel::Params::ThrottlingParams> first(new Morphel::Params::ThrottlingParams("light", 5));
    Ref<ConversionJobInfo> one = CreateJob("one", first.Get());
    Ref<ConversionJobInfo> two = CreateJob("doomed");  // the name is free again
    auto job = client_->Make<ConversionJobStub>(one->GetJob());
    auto invalid = ExpectFault<Dovra::Fault::InvalidName>([&] { job->Rename(""); });
    EXPECT_EQ(Id(invalid->GetEntity()), Id(one->GetJob()));
    auto duplicate = ExpectFault<Dovra::Fault::DuplicateName>([&] { job->Rename("doomed"); });
    EXPECT_EQ(Id(duplicate->GetObject()), Id(two->GetJob()));
    EXPECT_EQ(job->Rename("one"), "one");  // its own name
    EXPECT_EQ(job->Rename("uno"), "uno");
    CreateJob("one");  // free again

    using Update = Morphel::Server::Job::Job::JobUpdateSpec;
    Ref<Update> update(new Update());
    Ref<Morphel::Server::Job::JobSpec> spec;
    auto apply = [&] { job->UpdateJobSpec(update.Get(), spec); };
    update->SetName(std::string("doomed"));
    ExpectFault<Dovra::Fault::DuplicateName>(apply);
    // The run started with the job: a new first run is refused, and nothing else of the update is kept.
    update->SetName(std::string("eins"));
    update->SetFirstRun(Fundix::System::DateTime::Now());
    auto started = ExpectFault<Morphel::Fault::FirstRunAlreadyStartedFault>(apply);
    EXPECT_EQ(Id(started->GetJob()), Id(one->GetJob()));
    update->UnsetFirstRun();
    update->SetDescription(std::string("renamed twice"));
    apply();
    EXPECT_EQ(spec->GetDescription().GetValue(), "renamed twice");
    EXPECT_EQ(job->GetName(), "eins");
    auto asJob = Out<Morphel::Server::Job::JobInfo>(  // the job answers as a job too
        [&](auto& r) { client_->Make<Morphel::Server::Job::JobStub>(one->GetJob())->GetInfo(r); });
    EXPECT_EQ(asJob != nullptr ? asJob->GetKey() : "", one->GetKey());
    // The extra information is replaced, the previous one returned.
    Ref<Kitra::Any> previous;
    Ref<Morphel::Params::ThrottlingParams> second(new Morphel::Params::ThrottlingParams("medium", 9));
    job->UpdateExtraInfo(second.Get(), previous);
    EXPECT_TRUE(previous != nullptr && previous->_IsEqual(first.Get(), false));
    job->UpdateExtraInfo(nullptr, previous);
    EXPECT_TRUE(previous != nullptr && previous->_IsEqual(second.Get(), false));
    job->GetExtraInfo(previous);
    EXPECT_EQ(previous, nullptr);
}

TEST_F(OperationsTest, ConversionParamsChangeOnlyWithoutAnActiveTask) {
    Start(60s);
    Ref<ConversionJobInfo> created = CreateJob("params");
    auto job = client_->Make<ConversionJobStub>(created->GetJob());
    using UpdateSpec = Morphel::Server::Conversion::ConversionParamsUpdateSpec;
    Ref<UpdateSpec> update(new UpdateSpec());
    update->SetDoReconfig(true);
    Ref<Morphel::Params::ConversionParams> params;
    ExpectFault<Dovra::Fault::InvalidState>([&] { job->UpdateConversionParams(update.Get(), params); });
    client_->Make<Morphel::Task::TaskStub>(created->GetActiveTask())->Cancel();

    using Throttling = Morphel::Params::ThrottlingParamsUpdateSpec;
    update->SetThrottling(Ref<Throttling>(new Throttling(std::string("light"), 10, {})).Get());
    update->SetServicesToSuspend(ArrayOf<Kitra::Array<std::string>>("backup").Get());
    update->SetShutdownSource(true);
    job->UpdateConversionParams(update.Get(), params);
    EXPECT_TRUE(params->IsDoReconfig().GetValue());
    EXPECT_EQ(params->GetThrottlingParams()->GetNetworkBandwidthThrottlingInMB().GetValue(), 10);
    EXPECT_TRUE(params->GetCloningParams()->GetServicesToSuspend() != nullptr);
    EXPECT_EQ(params->GetCloningParams()->GetTarget()->GetName(), "copy");  // untouched
    auto spec = Out<Morphel::Server::Conversion::ConversionJobSpec>([&](auto& r) { job->GetSpec(r); });
    EXPECT_TRUE(spec->GetConversionParams()->_IsEqual(params.Get(), false));
    ASSERT_NE(spec->GetP2vSourceModificationSpec(), nullptr);
    EXPECT_TRUE(spec->GetP2vSourceModificationSpec()->IsShutdownSource().GetValue());
    EXPECT_TRUE(
        Out<Morphel::Task::TaskSpec>([&](auto& r) { tasks_->GetTaskSpec(created->GetActiveTask(), r); })
            ->IsShutdownSource()
            .GetValue());
    // The switches clear what an unset field would keep.
    Ref<UpdateSpec> clear(new UpdateSpec());
    clear->SetThrottling(Ref<Throttling>(new Throttling({}, {}, true)).Get());
    clear->SetClearServicesToSuspend(true);
    job->UpdateConversionParams(clear.Get(), params);
    EXPECT_TRUE(params->IsDoReconfig().GetValue());
    EXPECT_EQ(params->GetThrottlingParams()->GetCpuThrottling().GetValue(), "light");
    EXPECT_FALSE(params->GetThrottlingParams()->GetNetworkBandwidthThrottlingInMB().IsSet());
    auto* left = params->GetCloningParams()->GetServicesToSuspend();
    EXPECT_TRUE(left == nullptr || left->GetLength() == 0);
}

TEST_F(OperationsTest, TaskManagerDescribesATaskWithoutChildren) {
    Start(1100ms);
    Ref<ConversionJobInfo> created = CreateJob("described");
    Kitra::MoRef* task = created->GetActiveTask();
    Ref<Kitra::MoRef> unknown(new Kitra::MoRef("morphel.task.Task", "Task-999"));
    Ref<Morphel::Task::TaskSpec> spec;
    tasks_->GetTaskSpec(task, spec);
    ASSERT_NE(spec, nullptr);
    EXPECT_TRUE(spec->GetTarget()->_IsEqual(created->GetTargetVm(), false));
    auto property = Out<Morphel::Task::TaskSpec>(
        [&](auto& r) { client_->Make<Morphel::Task::TaskStub>(task)->GetSpec(r); });
    EXPECT_TRUE(property != nullptr && property->_IsEqual(spec.Get(), false));  // the same through the task
    ExpectFault<Dovra::Fault::NotFound>([&] { tasks_->GetTaskSpec(unknown.Get(), spec); });
    // An empty array travels as none.
    Ref<Kitra::DataArray<TaskInfo>> children;
    tasks_->GetChildTask(task, children);
    EXPECT_TRUE(children == nullptr || children->GetLength() == 0);
    ExpectFault<Dovra::Fault::NotFound>([&] { tasks_->GetChildTask(unknown.Get(), children); });
    Ref<Morphel::Task::ConversionRuntimeEnvironmentInfo> env(
        new Morphel::Task::ConversionRuntimeEnvironmentInfo(100));
    EXPECT_EQ(tasks_->EstimateTimeToComplete(spec.Get(), env.Get()).GetValue(), 2);  // 1.1 s, rounded up
    // The overall status follows the run to its end; a successful task is no longer cancelable.
    auto job = client_->Make<ConversionJobStub>(created->GetJob());
    EXPECT_EQ(job->GetOverallStatus(), Status::gray);
    EXPECT_FALSE(WaitFor(task, Succeeded)->IsCancelable());
    EXPECT_EQ(job->GetOverallStatus(), Status::green);
}

TEST_F(OperationsTest, ScheduledRunsStartAtTheirTimeSkipWhileTheJobIsBusyAndMoveOn) {
    Start(60s);  // runs that end only when cancelled
    Ref<ConversionJobInfo> created = CreateJob("nightly");
    auto job = client_->Make<ConversionJobStub>(created->GetJob());
    client_->Make<Morphel::Task::TaskStub>(created->GetActiveTask())->Cancel();
    Ref<Dovra::Scheduler::ScheduledTaskInfo> made;
    auto create = [&](Ref<Dovra::Scheduler::ScheduledTaskSpec> spec, Kitra::MoRef* on = nullptr) {
        Ref<Morphel::Task::ScheduledTaskSpec> wrapped(
            new Morphel::Task::ScheduledTaskSpec(spec.Get(), nullptr));
        client_->scheduled->Create(on != nullptr ? on : created->GetJob(), wrapped.Get(), made);
        return Ref<Kitra::MoRef>(new Kitra::MoRef("kodl.ManagedObject", made->GetKey()));
    };

    Ref<Kitra::MoRef> unknown(new Kitra::MoRef("kodl.ManagedObject", "ScheduledTask-999"));
    ExpectFault<Dovra::Fault::InvalidName>([&] { create(Schedule("", InMillis(0))); });
    auto noJob = ExpectFault<Kitra::Fault::InvalidArgument>(
        [&] { create(Schedule("x", InMillis(0)), unknown.Get()); });
    EXPECT_EQ(noJob->GetInvalidProperty().GetValue(), "obj");
    ExpectFault<Dovra::Fault::NotFound>([&] { Scheduled(unknown.Get()); });
    ExpectFault<Dovra::Fault::NotFound>(
        [&] { client_->scheduled->Reconfigure(unknown.Get(), Schedule("x", InMillis(0)).Get()); });
    // Due in a second, then every minute.
    Fundix::System::DateTime runAt = InMillis(1000);
    Ref<Kitra::MoRef> ref = create(Schedule("every minute", runAt, 1));
    EXPECT_EQ(made->GetState(), "scheduled");
    EXPECT_EQ(JobInfo(job.Get())->GetNextRunStartTime().GetValue(), runAt);
    auto duplicate =
        ExpectFault<Dovra::Fault::DuplicateName>([&] { create(Schedule("every minute", runAt)); });
    EXPECT_EQ(Id(duplicate->GetObject()), ref->GetId());
    auto fromScheduled = [&](Kitra::MoRef* task) {
        return Out<ConversionJobInfo>([&](auto& r) { conversions_->GetJobInfoFromScheduledTask(task, r); });
    };
    EXPECT_EQ(fromScheduled(ref.Get())->GetKey(), created->GetKey());
    ExpectFault<Dovra::Fault::NotFound>([&] { fromScheduled(unknown.Get()); });

    Ref<ConversionJobInfo> ran = WaitForRun(job.Get());
    Ref<Dovra::Scheduler::ScheduledTaskInfo> info = Scheduled(ref.Get());
    EXPECT_EQ(info->GetState(), "running");
    EXPECT_EQ(Id(info->GetActiveTask()), Id(ran->GetActiveTask()));
    EXPECT_NE(Id(ran->GetActiveTask()), Id(created->GetActiveTask()));
    EXPECT_TRUE(info->GetPrevRunTime().IsSet());
    EXPECT_EQ(info->GetNextRunTime().GetValue().GetUtcMicros(), runAt.GetUtcMicros() + 60'000'000);
    EXPECT_EQ(ran->GetNextRunStartTime().GetValue(), info->GetNextRunTime().GetValue());
    EXPECT_EQ(TaskOf(ran->GetActiveTask())->GetDescriptionId(), "morphel.task.ScheduledTaskManager.create");
    ExpectFault<Dovra::Fault::InvalidState>(
        [&] { client_->scheduled->Reconfigure(ref.Get(), Schedule("later", runAt).Get()); });
    // Due at once while the job's run is active: skipped, and done.
    Ref<Kitra::MoRef> once = create(Schedule("once", InMillis(-1000)));
    EXPECT_TRUE(Eventually([&] {
        auto messages = MessagesOf(created->GetJob());
        return std::find(messages.begin(), messages.end(),
                         "Scheduled task 'once' skipped a run: the job's task " + Id(ran->GetActiveTask()) +
                             " is still active") != messages.end();
    }));
    EXPECT_EQ(Scheduled(once.Get())->GetState(), "completed");
    EXPECT_FALSE(Scheduled(once.Get())->GetPrevRunTime().IsSet());
    // Once the run ends it may change: disabled, it starts nothing.
    client_->Make<Morphel::Task::TaskStub>(ran->GetActiveTask())->Cancel();
    EXPECT_EQ(Scheduled(ref.Get())->GetState(), "scheduled");
    ExpectFault<Dovra::Fault::DuplicateName>(
        [&] { client_->scheduled->Reconfigure(ref.Get(), Schedule("once", runAt).Get()); });
    Ref<Dovra::Scheduler::ScheduledTaskSpec> off = Schedule("every minute", InMillis(-1000), 1);
    off->SetEnabled(false);
    client_->scheduled->Reconfigure(ref.Get(), off.Get());
    EXPECT_EQ(Scheduled(ref.Get())->GetState(), "disabled");
    EXPECT_FALSE(JobInfo(job.Get())->GetNextRunStartTime().IsSet());
    // A job holds a bounded number of them.
    for (size_t i = 2; i < MorphelServer::kMaxScheduledTasksPerJob; ++i) {
        off->SetName("off " + std::to_string(i));
        create(off);
    }
    ExpectFault<Kitra::Fault::InvalidArgument>([&] { create(Schedule("one more", runAt)); });
    // The job's scheduled tasks go with it.
    conversions_->DestroyJob(created->GetJob(), {});
    ExpectFault<Dovra::Fault::NotFound>([&] { Scheduled(ref.Get()); });
}

TEST_F(OperationsTest, AFirstRunWaitsForItsTimeOrForResume) {
    Start(60s);
    // At its firstRun, through the scheduled task that waits for it; no task until then.
    Fundix::System::DateTime at = InMillis(1000);
    Ref<ConversionJobInfo> later = CreateJob("later", nullptr, [&](auto& spec) { spec.SetFirstRun(at); });
    EXPECT_EQ(later->GetActiveTask(), nullptr);
    EXPECT_FALSE(later->GetLastRunStartTime().IsSet());
    EXPECT_EQ(later->GetNextRunStartTime().GetValue(), at);
    Ref<ConversionJobInfo> ran = WaitForRun(client_->Make<ConversionJobStub>(later->GetJob()).Get());
    EXPECT_TRUE(ran->GetLastRunStartTime().IsSet());
    EXPECT_FALSE(ran->GetNextRunStartTime().IsSet());
    EXPECT_EQ(Scheduled(later->GetScheduledTask())->GetState(), "running");
    EXPECT_EQ(TaskOf(ran->GetActiveTask())->GetDescriptionId(),
              "morphel.server.conversion.ConversionManager.createJob");
    // Moved to an hour from now, then asked to run now.
    Ref<ConversionJobInfo> moved =
        CreateJob("moved", nullptr, [&](auto& spec) { spec.SetFirstRun(InMillis(60'000)); });
    auto movedJob = client_->Make<ConversionJobStub>(moved->GetJob());
    using Update = Morphel::Server::Job::Job::JobUpdateSpec;
    Ref<Update> update(new Update()), now(new Update());
    update->SetFirstRun(InMillis(3600'000));
    now->SetDoFirstRunNow(true);
    Ref<Morphel::Server::Job::JobSpec> spec;
    movedJob->UpdateJobSpec(update.Get(), spec);
    EXPECT_EQ(JobInfo(movedJob.Get())->GetNextRunStartTime().GetValue(), update->GetFirstRun().GetValue());
    EXPECT_EQ(JobInfo(movedJob.Get())->GetActiveTask(), nullptr);
    movedJob->UpdateJobSpec(now.Get(), spec);
    EXPECT_NE(JobInfo(movedJob.Get())->GetActiveTask(), nullptr);
    EXPECT_EQ(Scheduled(moved->GetScheduledTask())->GetState(), "completed");
    // Created suspended: nothing runs until resume, even once its time has come.
    Ref<ConversionJobInfo> held =
        CreateJob("held", nullptr, [](auto& spec) { spec.SetStartSuspended(true); });
    EXPECT_EQ(held->GetState(), "suspended");
    EXPECT_EQ(held->GetActiveTask(), nullptr);
    auto heldJob = client_->Make<ConversionJobStub>(held->GetJob());
    heldJob->UpdateJobSpec(now.Get(), spec);
    EXPECT_EQ(JobInfo(heldJob.Get())->GetActiveTask(), nullptr);
    heldJob->Resume();
    Ref<ConversionJobInfo> resumed = JobInfo(heldJob.Get());
    ASSERT_NE(resumed->GetActiveTask(), nullptr);
    EXPECT_EQ(TaskOf(resumed->GetActiveTask())->GetState(), TaskInfo::State::queued);
}

TEST_F(OperationsTest, TasksOfTheirOwnRunAndEndedTasksGo) {
    Start(1500ms);
    Ref<TaskInfo> created;
    ExpectFault<Kitra::Fault::InvalidArgument>([&] { tasks_->CreateTask(nullptr, created); });
    Ref<Morphel::Task::TaskSpec> spec(new Morphel::Task::TaskSpec());
    spec->SetConversionParams(
        Ref<Morphel::Params::ConversionParams>(new Morphel::Params::ConversionParams()).Get());
    ExpectFault<Kitra::Fault::InvalidArgument>(
        [&] { tasks_->CreateTask(spec.Get(), created); });  // no source
    spec->SetSource(ThisMachine().Get());
    tasks_->CreateTask(spec.Get(), created);
    EXPECT_EQ(created->GetState(), TaskInfo::State::queued);
    EXPECT_EQ(created->GetJob(), nullptr);
    Ref<Kitra::MoRef> ref = created->GetTask();
    auto recent = [&] {
        auto refs = Out<Kitra::DataArray<Kitra::MoRef>>([&](auto& r) { tasks_->GetRecentTask(r); });
        std::vector<std::string> ids;
        for (size_t i = 0; refs != nullptr && i < refs->GetLength(); ++i)
            ids.push_back(refs->Get(i)->GetId());
        return ids;
    };
    EXPECT_EQ(recent().empty() ? "" : recent().back(), ref->GetId());
    auto kept = Out<Morphel::Task::TaskSpec>([&](auto& r) { tasks_->GetTaskSpec(ref.Get(), r); });
    EXPECT_TRUE(kept != nullptr && kept->_IsEqual(spec.Get(), false));

    ExpectFault<Dovra::Fault::InvalidState>([&] { tasks_->DestroyTask(ref.Get()); });  // queued or running
    WaitFor(ref.Get(), Succeeded);
    auto messages = TaskMessages(ref.Get());
    EXPECT_EQ(messages.empty() ? "" : messages.back(), "Task completed");
    // Gone from the state, the recent tasks and the server; its events stay.
    tasks_->DestroyTask(ref.Get());
    ExpectFault<Dovra::Fault::NotFound>([&] { TaskOf(ref.Get()); });
    ExpectFault<Dovra::Fault::NotFound>([&] { tasks_->DestroyTask(ref.Get()); });
    EXPECT_EQ(std::count(recent().begin(), recent().end(), ref->GetId()), 0);
    ExpectFault<Kitra::Fault::ManagedObjectNotFound>([&] { TaskMessages(ref.Get()); });
    Ref<Morphel::Event::EventFilterSpec> chain(new Morphel::Event::EventFilterSpec());
    chain->SetEventChainId(created->GetEventChainId());
    EXPECT_EQ(Messages(client_->Events(chain.Get()).Get()), messages);
}

TEST_F(OperationsTest, LogBundlesAreZipArchivesReadInPagesKeptByKeyAndBounded) {
    Start(1h);
    Ref<Kitra::MoRef> task = CreateJob("bundled")->GetActiveTask();
    Ref<Morphel::DiagnosticManagerStub> diagnostics = client_->diagnostics;
    Ref<Morphel::DiagnosticManager::TaskLogBundleInfo> info;
    diagnostics->GenerateTaskLogBundle(task.Get(), info);
    const std::string key = info->GetKey();
    EXPECT_EQ(info->GetFormat(), Morphel::DiagnosticManager::BundleFormat::zip);
    auto named = [&] {  // the task names its latest bundle
        Ref<TaskInfo> t = TaskOf(task.Get());
        return t->GetLogBundleInfo() != nullptr ? t->GetLogBundleInfo()->GetKey() : "";
    };
    EXPECT_EQ(named(), key);
    // Pages of at most the size asked, a short last one, none past the end.
    const std::string bytes = ReadBundle(*diagnostics, key, 100);
    ASSERT_EQ(int64_t(bytes.size()), info->GetSize());
    ASSERT_GT(bytes.size(), 100u);
    EXPECT_EQ(FromBase64(diagnostics->RetrieveTaskLogBundle(key, info->GetSize() - 7, 100)),
              bytes.substr(bytes.size() - 7));
    EXPECT_EQ(diagnostics->RetrieveTaskLogBundle(key, info->GetSize(), 100), "");
    auto before =
        ExpectFault<Kitra::Fault::InvalidArgument>([&] { diagnostics->RetrieveTaskLogBundle(key, -1, 100); });
    EXPECT_EQ(before->GetInvalidProperty().GetValue(), "offset");
    // A zip archive whose one file holds a line for each of the task's events; the crc covers the archive.
    std::string zip = ReadZip(bytes);
    std::string expected = std::to_string(info->GetCrc()) + "\n" + task->GetId() + ".log\n";
    ASSERT_EQ(zip.substr(0, expected.size()), expected) << zip;
    EXPECT_EQ(size_t(std::count(zip.begin(), zip.end(), '\n')), 2 + TaskMessages(task.Get()).size()) << zip;
    // No download address: the bundle is read through the pages.
    ExpectFault<Dovra::Fault::InvalidState>([&] { diagnostics->RetrieveTaskLogBundleUrl(key); });
    ExpectFault<Dovra::Fault::NotFound>([&] { diagnostics->RetrieveTaskLogBundleUrl("bundle-0"); });
    // The server's log of this machine; no other machine's.
    Ref<Morphel::DiagnosticManager::TaskLogBundleInfo> server;
    diagnostics->GenerateLogBundle(ThisMachine().Get(), server);
    EXPECT_NE(ReadZip(ReadBundle(*diagnostics, server->GetKey(), 1 << 20)).find("\nserver.log\n"),
              std::string::npos);
    ExpectFault<Dovra::Fault::LogBundlingFailed>(
        [&] { diagnostics->GenerateLogBundle(ThisMachine("elsewhere.example").Get(), server); });
    // At most 16: the oldest go first.
    Ref<Morphel::DiagnosticManager::TaskLogBundleInfo> latest;
    for (int i = 0; i < 15; ++i)
        diagnostics->GenerateTaskLogBundle(task.Get(), latest);
    ExpectFault<Dovra::Fault::NotFound>([&] { diagnostics->RetrieveTaskLogBundle(key, 0, 100); });
    EXPECT_FALSE(ReadBundle(*diagnostics, server->GetKey(), 1000).empty());
    EXPECT_EQ(named(), latest->GetKey());

    diagnostics->DeleteTaskLogBundle(latest->GetKey());
    ExpectFault<Dovra::Fault::NotFound>([&] { diagnostics->DeleteTaskLogBundle(latest->GetKey()); });
    EXPECT_EQ(named(), "");
}

}  // namespace
