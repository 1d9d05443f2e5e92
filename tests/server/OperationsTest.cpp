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
        scheduled_ = client_->scheduled;
    }
    template <class Stub>
    Ref<Stub> Make(const Kitra::MoRef* ref) {
        return client_->Make<Stub>(ref);
    }

    // A job converting this machine, with `extraInfo`, its settings as `adjust` leaves them.
    Ref<ConversionJobInfo> CreateJob(
        const std::string& name, Kitra::Any* extraInfo = nullptr,
        const std::function<void(Morphel::Server::Conversion::ConversionJobSpec&)>& adjust = {}) {
        auto spec = JobSpecOfThisMachine(name);
        if (adjust) adjust(*spec);
        Ref<ConversionJobInfo> info;
        conversions_->CreateJob(spec.Get(), extraInfo, info);
        return info;
    }
    Ref<Morphel::Task::ScheduledTaskInfo> Scheduled(Kitra::MoRef* task) {
        Ref<Morphel::Task::ScheduledTaskInfo> info;
        scheduled_->Get(task, info);
        return info;
    }
    // The job's info once it has an active task (a failure after ten seconds).
    Ref<ConversionJobInfo> WaitForRun(ConversionJobStub* job) {
        EXPECT_TRUE(Eventually([&] { return JobInfo(job)->GetActiveTask() != nullptr; }));
        return JobInfo(job);
    }
    // The messages of the events recorded against `job`, oldest first.
    std::vector<std::string> MessagesOf(Kitra::MoRef* job) {
        Ref<Morphel::Event::EventFilterSpec> byJob(new Morphel::Event::EventFilterSpec());
        byJob->SetJob(job);
        auto events = client_->Events(byJob.Get());
        std::vector<std::string> messages;
        for (size_t i = 0; events != nullptr && i < events->GetLength(); ++i)
            messages.push_back(events->Get(i)->GetFullMessage().GetValue());
        return messages;
    }
    Ref<TaskInfo> TaskOf(Kitra::MoRef* task) {
        Ref<TaskInfo> info;
        tasks_->GetTaskInfo(task, info);
        return info;
    }
    // The task's info once `done` holds for it (a failure after ten seconds).
    Ref<TaskInfo> WaitFor(Kitra::MoRef* task, const std::function<bool(const TaskInfo&)>& done) {
        Ref<TaskInfo> info;
        EXPECT_TRUE(Eventually([&] { return done(*(info = TaskOf(task))); }))
            << "task " << task->GetId() << " never got there";
        return info;
    }
    Ref<ConversionJobInfo> JobInfo(ConversionJobStub* job) {
        Ref<ConversionJobInfo> info;
        job->GetInfo(info);
        return info;
    }

    std::unique_ptr<Hosted> hosted_;
    std::unique_ptr<Client> client_;
    Ref<Morphel::Server::Conversion::ConversionManagerStub> conversions_;
    Ref<Morphel::Task::TaskManagerStub> tasks_;
    Ref<Morphel::Task::ScheduledTaskManagerStub> scheduled_;
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

TEST_F(OperationsTest, CancelStopsTheRunAndFreesTheJob) {
    Start(4s);  // 20 steps of 200 ms
    Ref<ConversionJobInfo> created = CreateJob("cancelled");
    EXPECT_TRUE(TaskOf(created->GetActiveTask())->IsCancelable());
    auto task = Make<Morphel::Task::TaskStub>(created->GetActiveTask());
    auto job = Make<ConversionJobStub>(created->GetJob());

    WaitFor(created->GetActiveTask(), Running);
    task->Cancel();
    Ref<TaskInfo> info = TaskOf(created->GetActiveTask());
    EXPECT_EQ(info->GetState(), TaskInfo::State::error);
    EXPECT_TRUE(info->IsCancelled());
    EXPECT_FALSE(info->IsCancelable());
    EXPECT_NE(dynamic_cast<Morphel::Agent::Internal::Fault::Cancel*>(info->GetError()), nullptr);

    EXPECT_EQ(JobInfo(job.Get())->GetActiveTask(), nullptr);
    EXPECT_EQ(job->GetOverallStatus(), Status::yellow);

    // The run's thread stops: over a few more steps nothing changes and nothing is logged.
    Ref<Kitra::DataArray<Morphel::Event::Event>> events;
    task->GetEvent(events);
    EXPECT_EQ(events->Get(events->GetLength() - 1)->GetFullMessage(), "Task cancelled");
    std::this_thread::sleep_for(600ms);
    Ref<Kitra::DataArray<Morphel::Event::Event>> later;
    task->GetEvent(later);
    EXPECT_EQ(later->GetLength(), events->GetLength());
    EXPECT_EQ(TaskOf(created->GetActiveTask())->GetProgress().GetValue(), info->GetProgress().GetValue());

    // Cancelling an ended task changes nothing.
    task->Cancel();
    EXPECT_TRUE(TaskOf(created->GetActiveTask())->_IsEqual(info.Get(), false));
    EXPECT_EQ(JobInfo(job.Get())->GetNumConsecutiveErrors(), 1);
}

TEST_F(OperationsTest, SuspendStopAndResumeFollowTheJobsStateAndItsActiveTask) {
    Start(60s);  // runs that end only when cancelled
    Ref<ConversionJobInfo> created = CreateJob("first");
    auto job = Make<ConversionJobStub>(created->GetJob());
    auto invalid = ExpectFault<Kitra::Fault::InvalidArgument>([&] { job->Suspend("later"); });
    ASSERT_NE(invalid, nullptr);
    EXPECT_EQ(invalid->GetInvalidProperty().GetValue(), "activeTaskHandling");
    auto busy = ExpectFault<Morphel::Fault::JobHasActiveTaskFault>([&] { job->Suspend(kFail); });
    ASSERT_NE(busy, nullptr);
    EXPECT_EQ(busy->GetTask()->GetId(), created->GetActiveTask()->GetId());
    EXPECT_EQ(busy->GetJob()->GetId(), created->GetJob()->GetId());
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
    ExpectFault<Dovra::Fault::InvalidState>([&] { job->Resume(); });
    ExpectFault<Dovra::Fault::InvalidState>([&] { job->Suspend(kCancel); });

    // Stopping a job whose task is active: refused, or the task cancelled.
    Ref<ConversionJobInfo> second = CreateJob("second");
    auto other = Make<ConversionJobStub>(second->GetJob());
    ExpectFault<Morphel::Fault::JobHasActiveTaskFault>([&] { other->Stop(kFail); });
    EXPECT_EQ(JobInfo(other.Get())->GetState(), "active");
    EXPECT_FALSE(TaskOf(second->GetActiveTask())->IsCancelled());
    other->Stop(kCancel);
    other->Stop(kFail);  // changes nothing, records nothing
    EXPECT_EQ(JobInfo(other.Get())->GetState(), "deactivated");
    EXPECT_TRUE(TaskOf(second->GetActiveTask())->IsCancelled());

    // Each change is recorded against its job, the cancel against the task.
    EXPECT_EQ(MessagesOf(second->GetJob()),
              (std::vector<std::string>{"Conversion job 'second' created", "Task queued", "Task cancelled",
                                        "Conversion job 'second' stopped"}));
}

TEST_F(OperationsTest, DestroyJobCancelsItsActiveTaskOnlyWhenAsked) {
    Start(60s);
    Ref<ConversionJobInfo> created = CreateJob("doomed");
    ExpectFault<Dovra::Fault::InvalidState>([&] { conversions_->DestroyJob(created->GetJob(), {}); });
    ExpectFault<Kitra::Fault::InvalidArgument>(
        [&] { conversions_->DestroyJob(created->GetJob(), std::string("now")); });
    EXPECT_FALSE(TaskOf(created->GetActiveTask())->IsCancelled());

    conversions_->DestroyJob(created->GetJob(), std::string(kCancel));
    Ref<ConversionJobInfo> gone;
    ExpectFault<Dovra::Fault::NotFound>([&] { conversions_->GetJobInfo(created->GetJob(), gone); });
    ExpectFault<Dovra::Fault::NotFound>([&] { conversions_->DestroyJob(created->GetJob(), {}); });
    ExpectFault<Kitra::Fault::ManagedObjectNotFound>(
        [&] { JobInfo(Make<ConversionJobStub>(created->GetJob()).Get()); });
    EXPECT_TRUE(TaskOf(created->GetActiveTask())->IsCancelled());
    // The task stays; what it converted went with its job.
    Ref<Morphel::Task::TaskSpec> spec;
    tasks_->GetTaskSpec(created->GetActiveTask(), spec);
    EXPECT_EQ(spec, nullptr);
    CreateJob("doomed");  // the name is free again
}

TEST_F(OperationsTest, RenameAndUpdatesCheckNamesAndKeepTheRest) {
    Start(60s);
    Ref<Morphel::Params::ThrottlingParams> first(new Morphel::Params::ThrottlingParams("light", 5));
    Ref<ConversionJobInfo> one = CreateJob("one", first.Get());
    Ref<ConversionJobInfo> two = CreateJob("two");
    auto job = Make<ConversionJobStub>(one->GetJob());

    auto invalid = ExpectFault<Dovra::Fault::InvalidName>([&] { job->Rename(""); });
    ASSERT_NE(invalid, nullptr);
    EXPECT_EQ(invalid->GetEntity()->GetId(), one->GetJob()->GetId());
    auto duplicate = ExpectFault<Dovra::Fault::DuplicateName>([&] { job->Rename("two"); });
    ASSERT_NE(duplicate, nullptr);
    EXPECT_EQ(duplicate->GetObject()->GetId(), two->GetJob()->GetId());
    EXPECT_EQ(job->Rename("one"), "one");  // its own name
    EXPECT_EQ(job->Rename("uno"), "uno");
    CreateJob("one");  // free again

    using Update = Morphel::Server::Job::Job::JobUpdateSpec;
    Ref<Update> update(new Update());
    Ref<Morphel::Server::Job::JobSpec> spec;
    auto apply = [&] { job->UpdateJobSpec(update.Get(), spec); };
    update->SetName(std::string("two"));
    ExpectFault<Dovra::Fault::DuplicateName>(apply);
    // The run started with the job: a new first run is refused, and nothing else of the update is kept.
    update->SetName(std::string("eins"));
    update->SetDoFirstRunNow(true);
    auto started = ExpectFault<Morphel::Fault::FirstRunAlreadyStartedFault>(apply);
    ASSERT_NE(started, nullptr);
    EXPECT_EQ(started->GetJob()->GetId(), one->GetJob()->GetId());
    update->UnsetDoFirstRunNow();
    update->SetFirstRun(Fundix::System::DateTime::Now());
    ExpectFault<Morphel::Fault::FirstRunAlreadyStartedFault>(apply);
    update->UnsetFirstRun();
    update->SetDescription(std::string("renamed twice"));
    apply();
    EXPECT_EQ(spec->GetName(), "eins");
    EXPECT_EQ(spec->GetDescription().GetValue(), "renamed twice");
    EXPECT_EQ(job->GetName(), "eins");
    Ref<Morphel::Server::Job::JobInfo> asJob;  // the job answers as a job too
    Make<Morphel::Server::Job::JobStub>(one->GetJob())->GetInfo(asJob);
    ASSERT_NE(asJob, nullptr);
    EXPECT_EQ(asJob->GetKey(), one->GetKey());

    // The extra information is replaced, the previous one returned.
    Ref<Kitra::Any> previous;
    Ref<Morphel::Params::ThrottlingParams> second(new Morphel::Params::ThrottlingParams("medium", 9));
    job->UpdateExtraInfo(second.Get(), previous);
    ASSERT_NE(previous, nullptr);
    EXPECT_TRUE(previous->_IsEqual(first.Get(), false));
    job->UpdateExtraInfo(nullptr, previous);
    EXPECT_TRUE(previous->_IsEqual(second.Get(), false));
    job->GetExtraInfo(previous);
    EXPECT_EQ(previous, nullptr);
}

TEST_F(OperationsTest, ConversionParamsChangeOnlyWithoutAnActiveTask) {
    Start(60s);
    Ref<ConversionJobInfo> created = CreateJob("params");
    auto job = Make<ConversionJobStub>(created->GetJob());
    Ref<Morphel::Server::Conversion::ConversionParamsUpdateSpec> update(
        new Morphel::Server::Conversion::ConversionParamsUpdateSpec());
    update->SetDoReconfig(true);
    Ref<Morphel::Params::ConversionParams> params;
    ExpectFault<Dovra::Fault::InvalidState>([&] { job->UpdateConversionParams(update.Get(), params); });
    Make<Morphel::Task::TaskStub>(created->GetActiveTask())->Cancel();

    Ref<Morphel::Params::ThrottlingParamsUpdateSpec> throttling(
        new Morphel::Params::ThrottlingParamsUpdateSpec());
    throttling->SetCpuThrottling(std::string("light"));
    throttling->SetNetworkBandwidthThrottlingInMB(10);
    update->SetThrottling(throttling.Get());
    Ref<Kitra::Array<std::string>> services(new Kitra::Array<std::string>());
    services->Append("backup");
    update->SetServicesToSuspend(services.Get());
    update->SetShutdownSource(true);
    job->UpdateConversionParams(update.Get(), params);
    EXPECT_TRUE(params->IsDoReconfig().GetValue());
    EXPECT_EQ(params->GetThrottlingParams()->GetCpuThrottling().GetValue(), "light");
    EXPECT_EQ(params->GetThrottlingParams()->GetNetworkBandwidthThrottlingInMB().GetValue(), 10);
    ASSERT_EQ(params->GetCloningParams()->GetServicesToSuspend()->GetLength(), 1u);
    EXPECT_EQ(params->GetCloningParams()->GetTarget()->GetName(), "copy");  // untouched
    Ref<Morphel::Server::Conversion::ConversionJobSpec> spec;
    job->GetSpec(spec);
    EXPECT_TRUE(spec->GetConversionParams()->_IsEqual(params.Get(), false));
    EXPECT_TRUE(spec->GetP2vSourceModificationSpec()->IsShutdownSource().GetValue());
    Ref<Morphel::Task::TaskSpec> taskSpec;
    tasks_->GetTaskSpec(created->GetActiveTask(), taskSpec);
    EXPECT_TRUE(taskSpec->IsShutdownSource().GetValue());

    // The switches clear what an unset field would keep.
    Ref<Morphel::Server::Conversion::ConversionParamsUpdateSpec> clear(
        new Morphel::Server::Conversion::ConversionParamsUpdateSpec());
    Ref<Morphel::Params::ThrottlingParamsUpdateSpec> off(new Morphel::Params::ThrottlingParamsUpdateSpec());
    off->SetDisableNetworkBandwidthThrottling(true);
    clear->SetThrottling(off.Get());
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
    Ref<Kitra::MoRef> unknown(new Kitra::MoRef("morphel.task.Task", "Task-999"));

    Ref<Morphel::Task::TaskSpec> spec;
    tasks_->GetTaskSpec(created->GetActiveTask(), spec);
    ASSERT_NE(spec, nullptr);
    EXPECT_TRUE(spec->GetTarget()->_IsEqual(created->GetTargetVm(), false));
    Ref<Morphel::Task::TaskSpec> property;  // the same through the task itself
    Make<Morphel::Task::TaskStub>(created->GetActiveTask())->GetSpec(property);
    EXPECT_TRUE(property != nullptr && property->_IsEqual(spec.Get(), false));
    ExpectFault<Dovra::Fault::NotFound>([&] { tasks_->GetTaskSpec(unknown.Get(), spec); });
    ExpectFault<Dovra::Fault::NotFound>([&] { TaskOf(unknown.Get()); });

    // An empty array travels as none.
    Ref<Kitra::DataArray<TaskInfo>> children;
    tasks_->GetChildTask(created->GetActiveTask(), children);
    EXPECT_TRUE(children == nullptr || children->GetLength() == 0);
    ExpectFault<Dovra::Fault::NotFound>([&] { tasks_->GetChildTask(unknown.Get(), children); });

    Ref<Morphel::Task::ConversionRuntimeEnvironmentInfo> env(
        new Morphel::Task::ConversionRuntimeEnvironmentInfo(100));
    EXPECT_EQ(tasks_->EstimateTimeToComplete(spec.Get(), env.Get()).GetValue(), 2);  // 1.1 s, rounded up

    // The overall status follows the run to its end; a successful task is no longer cancelable.
    auto job = Make<ConversionJobStub>(created->GetJob());
    EXPECT_EQ(job->GetOverallStatus(), Status::gray);
    EXPECT_FALSE(WaitFor(created->GetActiveTask(), [](const TaskInfo& i) {
                     return i.GetState() == TaskInfo::State::success;
                 })->IsCancelable());
    EXPECT_EQ(job->GetOverallStatus(), Status::green);
}

TEST_F(OperationsTest, ScheduledRunsStartAtTheirTimeSkipWhileTheJobIsBusyAndMoveOn) {
    Start(60s);  // runs that end only when cancelled
    Ref<ConversionJobInfo> created = CreateJob("nightly");
    auto job = Make<ConversionJobStub>(created->GetJob());
    Make<Morphel::Task::TaskStub>(created->GetActiveTask())->Cancel();
    Ref<Dovra::Scheduler::ScheduledTaskInfo> made;
    auto create = [&](Ref<Dovra::Scheduler::ScheduledTaskSpec> spec, Kitra::MoRef* on = nullptr) {
        Ref<Morphel::Task::ScheduledTaskSpec> wrapped(
            new Morphel::Task::ScheduledTaskSpec(spec.Get(), nullptr));
        scheduled_->Create(on != nullptr ? on : created->GetJob(), wrapped.Get(), made);
        return Ref<Kitra::MoRef>(new Kitra::MoRef("kodl.ManagedObject", made->GetKey()));
    };

    Ref<Kitra::MoRef> unknown(new Kitra::MoRef("kodl.ManagedObject", "ScheduledTask-999"));
    ExpectFault<Dovra::Fault::InvalidName>([&] { create(Schedule("", InMillis(0))); });
    auto noJob = ExpectFault<Kitra::Fault::InvalidArgument>(
        [&] { create(Schedule("x", InMillis(0)), unknown.Get()); });
    ASSERT_NE(noJob, nullptr);
    EXPECT_EQ(noJob->GetInvalidProperty().GetValue(), "obj");
    ExpectFault<Dovra::Fault::NotFound>([&] { Scheduled(unknown.Get()); });
    ExpectFault<Dovra::Fault::NotFound>(
        [&] { scheduled_->Reconfigure(unknown.Get(), Schedule("x", InMillis(0)).Get()); });

    // Due in a second, then every minute.
    Fundix::System::DateTime runAt = InMillis(1000);
    Ref<Kitra::MoRef> ref = create(Schedule("every minute", runAt, 1));
    EXPECT_EQ(made->GetState(), "scheduled");
    EXPECT_EQ(made->GetNextRunTime().GetValue(), runAt);
    EXPECT_EQ(JobInfo(job.Get())->GetNextRunStartTime().GetValue(), runAt);
    auto duplicate =
        ExpectFault<Dovra::Fault::DuplicateName>([&] { create(Schedule("every minute", runAt)); });
    ASSERT_NE(duplicate, nullptr);
    EXPECT_EQ(duplicate->GetObject()->GetId(), ref->GetId());
    Ref<ConversionJobInfo> fromScheduled;
    conversions_->GetJobInfoFromScheduledTask(ref.Get(), fromScheduled);
    EXPECT_EQ(fromScheduled->GetKey(), created->GetKey());
    ExpectFault<Dovra::Fault::NotFound>(
        [&] { conversions_->GetJobInfoFromScheduledTask(unknown.Get(), fromScheduled); });

    Ref<ConversionJobInfo> ran = WaitForRun(job.Get());
    Ref<Morphel::Task::ScheduledTaskInfo> got = Scheduled(ref.Get());
    const auto& info = *got->GetInfo();
    EXPECT_EQ(info.GetState(), "running");
    ASSERT_NE(info.GetActiveTask(), nullptr);
    EXPECT_EQ(info.GetActiveTask()->GetId(), ran->GetActiveTask()->GetId());
    EXPECT_NE(ran->GetActiveTask()->GetId(), created->GetActiveTask()->GetId());
    EXPECT_TRUE(info.GetPrevRunTime().IsSet());
    EXPECT_EQ(info.GetNextRunTime().GetValue().GetUtcMicros(), runAt.GetUtcMicros() + 60'000'000);
    EXPECT_EQ(ran->GetNextRunStartTime().GetValue(), info.GetNextRunTime().GetValue());
    EXPECT_EQ(TaskOf(ran->GetActiveTask())->GetDescriptionId(), "morphel.task.ScheduledTaskManager.create");
    ExpectFault<Dovra::Fault::InvalidState>(
        [&] { scheduled_->Reconfigure(ref.Get(), Schedule("later", runAt).Get()); });

    // Due at once while the job's run is active: skipped, and done.
    Ref<Kitra::MoRef> once = create(Schedule("once", InMillis(-1000)));
    EXPECT_TRUE(Eventually([&] {
        auto messages = MessagesOf(created->GetJob());
        return std::find(messages.begin(), messages.end(),
                         "Scheduled task 'once' skipped a run: the job's task " +
                             ran->GetActiveTask()->GetId() + " is still active") != messages.end();
    }));
    EXPECT_EQ(Scheduled(once.Get())->GetInfo()->GetState(), "completed");
    EXPECT_FALSE(Scheduled(once.Get())->GetInfo()->GetPrevRunTime().IsSet());

    // Once the run ends it may change: disabled, it starts nothing.
    Make<Morphel::Task::TaskStub>(ran->GetActiveTask())->Cancel();
    EXPECT_EQ(Scheduled(ref.Get())->GetInfo()->GetState(), "scheduled");
    ExpectFault<Dovra::Fault::DuplicateName>(
        [&] { scheduled_->Reconfigure(ref.Get(), Schedule("once", runAt).Get()); });
    Ref<Dovra::Scheduler::ScheduledTaskSpec> off = Schedule("every minute", InMillis(-1000), 1);
    off->SetEnabled(false);
    scheduled_->Reconfigure(ref.Get(), off.Get());
    EXPECT_EQ(Scheduled(ref.Get())->GetInfo()->GetState(), "disabled");
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
    ASSERT_NE(later->GetScheduledTask(), nullptr);
    auto laterJob = Make<ConversionJobStub>(later->GetJob());
    Ref<ConversionJobInfo> ran = WaitForRun(laterJob.Get());
    EXPECT_TRUE(ran->GetLastRunStartTime().IsSet());
    EXPECT_FALSE(ran->GetNextRunStartTime().IsSet());
    EXPECT_EQ(Scheduled(later->GetScheduledTask())->GetInfo()->GetState(), "running");
    EXPECT_EQ(TaskOf(ran->GetActiveTask())->GetDescriptionId(),
              "morphel.server.conversion.ConversionManager.createJob");

    // Moved to an hour from now, then asked to run now.
    Ref<ConversionJobInfo> moved =
        CreateJob("moved", nullptr, [&](auto& spec) { spec.SetFirstRun(InMillis(60'000)); });
    auto movedJob = Make<ConversionJobStub>(moved->GetJob());
    using Update = Morphel::Server::Job::Job::JobUpdateSpec;
    Ref<Update> update(new Update());
    update->SetFirstRun(InMillis(3600'000));
    Ref<Morphel::Server::Job::JobSpec> spec;
    movedJob->UpdateJobSpec(update.Get(), spec);
    EXPECT_EQ(JobInfo(movedJob.Get())->GetNextRunStartTime().GetValue(), update->GetFirstRun().GetValue());
    EXPECT_EQ(JobInfo(movedJob.Get())->GetActiveTask(), nullptr);
    Ref<Update> now(new Update());
    now->SetDoFirstRunNow(true);
    movedJob->UpdateJobSpec(now.Get(), spec);
    EXPECT_NE(JobInfo(movedJob.Get())->GetActiveTask(), nullptr);
    EXPECT_EQ(Scheduled(moved->GetScheduledTask())->GetInfo()->GetState(), "completed");

    // Created suspended: nothing runs until resume, even once its time has come.
    Ref<ConversionJobInfo> held =
        CreateJob("held", nullptr, [](auto& spec) { spec.SetStartSuspended(true); });
    EXPECT_EQ(held->GetState(), "suspended");
    EXPECT_EQ(held->GetActiveTask(), nullptr);
    auto heldJob = Make<ConversionJobStub>(held->GetJob());
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
    Ref<Kitra::DataArray<Kitra::MoRef>> recent;
    tasks_->GetRecentTask(recent);
    ASSERT_NE(recent, nullptr);
    EXPECT_EQ(recent->Get(recent->GetLength() - 1)->GetId(), ref->GetId());
    Ref<Morphel::Task::TaskSpec> kept;
    tasks_->GetTaskSpec(ref.Get(), kept);
    EXPECT_TRUE(kept->_IsEqual(spec.Get(), false));

    ExpectFault<Dovra::Fault::InvalidState>([&] { tasks_->DestroyTask(ref.Get()); });  // queued or running
    WaitFor(ref.Get(), [](const TaskInfo& i) { return i.GetState() == TaskInfo::State::success; });
    Ref<Kitra::DataArray<Morphel::Event::Event>> events;
    Make<Morphel::Task::TaskStub>(ref.Get())->GetEvent(events);
    ASSERT_NE(events, nullptr);
    EXPECT_EQ(events->Get(events->GetLength() - 1)->GetFullMessage(), "Task completed");

    // Gone from the state, the recent tasks and the server; its events stay.
    tasks_->DestroyTask(ref.Get());
    ExpectFault<Dovra::Fault::NotFound>([&] { TaskOf(ref.Get()); });
    ExpectFault<Dovra::Fault::NotFound>([&] { tasks_->DestroyTask(ref.Get()); });
    tasks_->GetRecentTask(recent);
    for (size_t i = 0; recent != nullptr && i < recent->GetLength(); ++i)
        EXPECT_NE(recent->Get(i)->GetId(), ref->GetId());
    ExpectFault<Kitra::Fault::ManagedObjectNotFound>(
        [&] { Make<Morphel::Task::TaskStub>(ref.Get())->GetEvent(events); });
    Ref<Morphel::Event::EventFilterSpec> chain(new Morphel::Event::EventFilterSpec());
    chain->SetEventChainId(created->GetEventChainId());
    EXPECT_EQ(client_->Events(chain.Get())->GetLength(), events->GetLength());
}

TEST_F(OperationsTest, LogBundlesAreZipArchivesReadInPagesKeptByKeyAndBounded) {
    Start(1h);
    Ref<ConversionJobInfo> created = CreateJob("bundled");
    Kitra::MoRef* task = created->GetActiveTask();
    Ref<Morphel::DiagnosticManagerStub> diagnostics = client_->diagnostics;
    Ref<Morphel::DiagnosticManager::TaskLogBundleInfo> info;
    diagnostics->GenerateTaskLogBundle(task, info);
    const std::string key = info->GetKey();
    EXPECT_EQ(info->GetFormat(), Morphel::DiagnosticManager::BundleFormat::zip);
    ASSERT_NE(TaskOf(task)->GetLogBundleInfo(), nullptr);  // the task names its latest bundle
    EXPECT_EQ(TaskOf(task)->GetLogBundleInfo()->GetKey(), key);

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
    Ref<Kitra::DataArray<Morphel::Event::Event>> events;
    Make<Morphel::Task::TaskStub>(task)->GetEvent(events);
    std::string zip = ReadZip(bytes);
    std::string expected = std::to_string(info->GetCrc()) + "\n" + task->GetId() + ".log\n";
    ASSERT_EQ(zip.substr(0, expected.size()), expected) << zip;
    EXPECT_EQ(size_t(std::count(zip.begin(), zip.end(), '\n')), 2 + events->GetLength()) << zip;

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
        diagnostics->GenerateTaskLogBundle(task, latest);
    ExpectFault<Dovra::Fault::NotFound>([&] { diagnostics->RetrieveTaskLogBundle(key, 0, 100); });
    EXPECT_FALSE(ReadBundle(*diagnostics, server->GetKey(), 1000).empty());
    EXPECT_EQ(TaskOf(task)->GetLogBundleInfo()->GetKey(), latest->GetKey());

    diagnostics->DeleteTaskLogBundle(latest->GetKey());
    ExpectFault<Dovra::Fault::NotFound>([&] { diagnostics->DeleteTaskLogBundle(latest->GetKey()); });
    EXPECT_EQ(TaskOf(task)->GetLogBundleInfo(), nullptr);
}

}  // namespace
