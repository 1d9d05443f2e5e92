// The conversion manager and its jobs. Each run of a job is a new task, whose conversion is simulated on a
// thread of its own: queued, running with progress 0 to 100 (an event as each disk starts and ends),
// success; or cancelled on the way (error).
//
// A job is "active" from its creation (or "suspended" when created with startSuspended), "suspended" by
// suspend until resume, and "deactivated" by stop for good. Its first run starts with it, or at its
// firstRun (a scheduled task waits for it: the job has no task until then), or at resume for a job
// created suspended; later runs come from scheduled tasks (Scheduler.cpp).
#include <dovra/fault/types.h>
#include <morphel/agent/internal/fault/types.h>
#include <morphel/fault/types.h>
#include <morphel/params/types.h>
#include <morphel/server/conversion/types.h>
#include <morphel/server/job/types.h>
#include <morphel/task/types.h>

#include "Context.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;
using Fundix::System::DateTime;
using Morphel::Server::Conversion::ConversionJobInfo;
using Morphel::Server::Conversion::ConversionJobSpec;

// The job `id` (or that `ref` names); dovra.fault.NotFound for none or an unknown one.
JobRecord FindJob(StateTransaction& tx, const std::string& id) {
    auto job = tx.FindJob(id);
    if (!job) ThrowNotFound();
    return *job;
}
JobRecord FindJob(StateTransaction& tx, const Kitra::MoRef* ref) {
    if (ref == nullptr) ThrowNotFound();
    return FindJob(tx, ref->GetId());
}

// The machine a job makes: a hosted virtual machine in the target's directory, or, for any other target,
// the source's description.
Ref<Morphel::ComputerSpec> TargetOf(const ConversionJobSpec& spec) {
    auto* cloning =
        spec.GetConversionParams() != nullptr ? spec.GetConversionParams()->GetCloningParams() : nullptr;
    auto* target = cloning != nullptr ? cloning->GetTarget() : nullptr;
    if (target != nullptr) {
        if (auto* hosted =
                dynamic_cast<Morphel::Params::TargetVmSpec::HostedVmLocation*>(target->GetLocation())) {
            Ref<Morphel::ComputerSpec::HostedVmLocation> location(
                new Morphel::ComputerSpec::HostedVmLocation());
            location->SetConfigFilePath(hosted->GetDirectory() + "/" + target->GetName());
            return new Morphel::ComputerSpec(location.Get());
        }
    }
    return spec.GetSource() != nullptr ? spec.GetSource()->_Clone() : new Morphel::ComputerSpec();
}

using JobRef = Morphel::Server::Conversion::ConversionJob;

Ref<Kitra::MoRef> JobRefTo(const std::string& id) { return RefTo<JobRef>(id); }

bool True(const Fundix::Optional<bool>& value) { return value.IsSet() && value.GetValue(); }

// The name of the machine a job makes: its target's, else the job's.
std::string TargetName(const ConversionJobSpec& spec) {
    auto* cloning =
        spec.GetConversionParams() != nullptr ? spec.GetConversionParams()->GetCloningParams() : nullptr;
    if (cloning != nullptr && cloning->GetTarget() != nullptr) return cloning->GetTarget()->GetName();
    return spec.GetName();
}

// Whether the job's first run starts at `now`: it is active, has not run, and its first run is due.
bool FirstRunDue(const JobRecord& job, DateTime now) {
    if (job.info->GetState() != ConversionJobInfo::STATE_ACTIVE || job.info->GetLastRunStartTime().IsSet())
        return false;
    return !job.spec->GetFirstRun().IsSet() || !(now < job.spec->GetFirstRun().GetValue());
}

// Raises dovra.fault.InvalidName for an empty `name` and dovra.fault.DuplicateName when a job other than
// `self` has it.
void CheckJobName(StateTransaction& tx, const std::string& name, const std::string& self) {
    if (name.empty()) {
        Ref<Dovra::Fault::InvalidName> fault(new Dovra::Fault::InvalidName());
        fault->SetName(name);
        if (!self.empty()) fault->SetEntity(JobRefTo(self).Get());
        Raise(fault.Get());
    }
    if (auto other = tx.FindJobByName(name); other && other->id != self) {
        Ref<Dovra::Fault::DuplicateName> fault(new Dovra::Fault::DuplicateName());
        fault->SetName(name);
        fault->SetObject(JobRefTo(other->id).Get());
        Raise(fault.Get());
    }
}

// Whether an activeTaskHandling argument asks to cancel the active task (else to fail);
// kodl.fault.InvalidArgument "activeTaskHandling" for another text.
bool CancelsActiveTask(const std::string& handling) {
    using Job = Morphel::Server::Job::Job;
    if (handling == Job::ACTIVETASKHANDLING_CANCELACTIVETASK) return true;
    if (handling != Job::ACTIVETASKHANDLING_FAILIFACTIVETASK) ThrowInvalidArgument("activeTaskHandling");
    return false;
}

void LogJob(Context& context, StateTransaction& tx, const JobRecord& job, const std::string& user,
            const std::string& what) {
    std::string message = "Conversion job '" + job.spec->GetName() + "' " + what;
    Ref<Morphel::Event::GeneralEvent> event(new Morphel::Event::GeneralEvent());
    event->SetMessage(message);
    context.Log(tx, event.Get(), 0, user, Morphel::Event::Event::Type::info, message, job.id);
}

using Status = Morphel::Server::ManagedEntity::Status;

// A job's from its last run: gray while none has ended, green when it succeeded, yellow when it was
// cancelled, red when it failed.
Status StatusOf(const ConversionJobInfo& info) {
    if (info.GetActiveTask() != nullptr || !info.GetLastRunCompleteTime().IsSet()) return Status::gray;
    if (info.GetNumConsecutiveErrors() == 0) return Status::green;
    return dynamic_cast<Morphel::Agent::Internal::Fault::Cancel*>(info.GetMostRecentError()) != nullptr
               ? Status::yellow
               : Status::red;
}

// The folder of every conversion job, the conversion manager's root folder. It keeps its name: renaming
// it raises dovra.fault.InvalidName naming it. Its status is the worst of its jobs' (red, yellow, green;
// gray when none has a run that ended).
class ConversionFolderImpl : public Morphel::Server::Conversion::ConversionFolderBase {
public:
    explicit ConversionFolderImpl(Context& context) : context_(context) {}

    void GetJob(Ref<Kitra::DataArray<Kitra::MoRef>>& result) override {
        Ref<Kitra::DataArray<Kitra::MoRef>> jobs(new Kitra::DataArray<Kitra::MoRef>());
        for (const auto& id : context_.state->Run([](StateTransaction& tx) { return tx.JobIds(); }))
            jobs->Append(JobRefTo(id).Get());
        result = jobs;
    }
    std::string GetName() override { return kConversionFolderName; }
    std::string Rename(const std::string& newName) override {
        Ref<Dovra::Fault::InvalidName> fault(new Dovra::Fault::InvalidName());
        fault->SetName(newName);
        fault->SetEntity(RefTo<Morphel::Server::Conversion::ConversionFolder>(kConversionFolderId).Get());
        Raise(fault.Get());
    }
    Status GetOverallStatus() override {
        Status worst = Status::gray;
        auto rank = [](Status s) {
            return s == Status::red ? 3 : s == Status::yellow ? 2 : s == Status::green ? 1 : 0;
        };
        context_.state->Transact([&](StateTransaction& tx) {
            for (const auto& id : tx.JobIds())
                if (auto job = tx.FindJob(id); job && rank(StatusOf(*job->info)) > rank(worst))
                    worst = StatusOf(*job->info);
        });
        return worst;
    }

private:
    Context& context_;
};

// A conversion job, served as the job and as the managed entity it is.
class ConversionJobImpl : public Morphel::Server::Conversion::ConversionJobBase {
public:
    ConversionJobImpl(Context& context, std::string id) : context_(context), id_(std::move(id)) {}

    void GetInfo(Ref<ConversionJobInfo>& result) override { result = Info(); }
    void GetInfo(Ref<Morphel::Server::Job::JobInfo>& result) override { result = Info(); }
    void GetSpec(Ref<ConversionJobSpec>& result) override { result = Spec(); }
    void GetSpec(Ref<Morphel::Server::Job::JobSpec>& result) override { result = Spec(); }
    void GetExtraInfo(Ref<Kitra::Any>& result) override {
        result = context_.state->Run([&](StateTransaction& tx) { return FindJob(tx, id_).extraInfo; });
    }
    std::string GetName() override {
        return context_.state->Run([&](StateTransaction& tx) { return FindJob(tx, id_).spec->GetName(); });
    }

    Morphel::Server::ManagedEntity::Status GetOverallStatus() override {
        return StatusOf(*context_.state->Run([&](StateTransaction& tx) { return FindJob(tx, id_).info; }));
    }

    std::string Rename(const std::string& newName) override {
        Change([&](StateTransaction& tx, JobRecord& job) {
            CheckJobName(tx, newName, id_);
            job.spec->SetName(newName);
            return "renamed";
        });
        return newName;
    }

    void Suspend(const std::string& activeTaskHandling) override {
        bool cancel = CancelsActiveTask(activeTaskHandling);
        Change([&](StateTransaction& tx, JobRecord& job) {
            if (job.info->GetState() != ConversionJobInfo::STATE_ACTIVE) ThrowInvalidState();
            EndActiveTask(tx, job, cancel);
            job.info->SetState(ConversionJobInfo::STATE_SUSPENDED);
            return "suspended";
        });
    }
    // Starts the first run when it has not happened and its time has come.
    void Resume() override {
        const std::string user = CurrentSession().GetUserName();
        std::string taskId;
        Change([&](StateTransaction& tx, JobRecord& job) {
            if (job.info->GetState() != ConversionJobInfo::STATE_SUSPENDED) ThrowInvalidState();
            job.info->SetState(ConversionJobInfo::STATE_ACTIVE);
            if (FirstRunDue(job, DateTime::Now())) taskId = StartRun(context_, tx, job, user).id;
            return "resumed";
        });
        if (!taskId.empty()) LaunchRun(context_, taskId);
    }
    // Stopping a deactivated job changes nothing (it stays deactivated: reading that apart is safe).
    void Stop(const std::string& activeTaskHandling) override {
        bool cancel = CancelsActiveTask(activeTaskHandling);
        if (Info()->GetState() == ConversionJobInfo::STATE_DEACTIVATED) return;
        Change([&](StateTransaction& tx, JobRecord& job) {
            EndActiveTask(tx, job, cancel);
            job.info->SetState(ConversionJobInfo::STATE_DEACTIVATED);
            return "stopped";
        });
    }

    // Until the first run starts it may move (firstRun) or start at once (doFirstRunNow; for a suspended
    // job, at resume); once it has, a new first run is refused.
    void UpdateJobSpec(Morphel::Server::Job::Job::JobUpdateSpec* update,
                       Ref<Morphel::Server::Job::JobSpec>& result) override {
        if (update == nullptr) ThrowInvalidArgument("updateParams");
        const std::string user = CurrentSession().GetUserName();
        std::string taskId;
        Change([&](StateTransaction& tx, JobRecord& job) {
            if (update->GetName().IsSet()) CheckJobName(tx, update->GetName().GetValue(), id_);
            bool newFirstRun = update->GetFirstRun().IsSet() || True(update->IsDoFirstRunNow());
            if (newFirstRun && job.info->GetLastRunStartTime().IsSet())
                Raise(new Morphel::Fault::FirstRunAlreadyStartedFault(JobRefTo(id_).Get()));
            if (update->GetName().IsSet()) job.spec->SetName(update->GetName().GetValue());
            if (update->GetDescription().IsSet()) job.spec->SetDescription(update->GetDescription());
            if (newFirstRun) {
                DateTime now = DateTime::Now();
                DateTime at = True(update->IsDoFirstRunNow()) ? now : update->GetFirstRun().GetValue();
                job.spec->SetFirstRun(at);
                ScheduleFirstRun(context_, tx, job, now < at ? std::optional<DateTime>(at) : std::nullopt,
                                 user);
                if (FirstRunDue(job, now)) taskId = StartRun(context_, tx, job, user).id;
            }
            result = job.spec;  // the state keeps a copy
            return "updated";
        });
        if (!taskId.empty()) LaunchRun(context_, taskId);
    }

    void UpdateExtraInfo(Kitra::Any* replacementInfo, Ref<Kitra::Any>& result) override {
        Change([&](StateTransaction&, JobRecord& job) {
            result = job.extraInfo;
            job.extraInfo = replacementInfo;
            return "extra information replaced";
        });
    }

    void UpdateConversionParams(Morphel::Server::Conversion::ConversionParamsUpdateSpec* update,
                                Ref<Morphel::Params::ConversionParams>& result) override;

private:
    Ref<ConversionJobInfo> Info() {
        return context_.state->Run([&](StateTransaction& tx) { return FindJob(tx, id_).info; });
    }
    Ref<ConversionJobSpec> Spec() {
        return context_.state->Run([&](StateTransaction& tx) { return FindJob(tx, id_).spec; });
    }

    // Applies `change` to the job in one transaction and records it modified, with an event naming what
    // `change` returns. `change` raises its faults before it changes the state.
    template <class F>
    void Change(F&& change) {
        const std::string user = CurrentSession().GetUserName();
        context_.state->Transact([&](StateTransaction& tx) {
            JobRecord job = FindJob(tx, id_);
            std::string what = change(tx, job);
            job.info->SetLastModifiedTime(DateTime::Now());
            tx.PutJob(job);
            LogJob(context_, tx, job, user, what);
        });
    }

    // Cancels the job's active task when `cancel`, else raises morphel.fault.JobHasActiveTaskFault for it.
    void EndActiveTask(StateTransaction& tx, JobRecord& job, bool cancel) {
        auto* active = job.info->GetActiveTask();
        if (active == nullptr) return;
        if (!cancel) Raise(new Morphel::Fault::JobHasActiveTaskFault(JobRefTo(id_).Get(), active));
        CancelConversion(context_, tx, active->GetId());
        job = FindJob(tx, id_);  // as the cancel left it
    }

    Context& context_;
    const std::string id_;
};

// Applies the fields of `update` that are set; a switch (unsetAgentSslThumbprint, clearServicesToSuspend,
// disableNetworkBandwidthThrottling) clears its value.
void ConversionJobImpl::UpdateConversionParams(
    Morphel::Server::Conversion::ConversionParamsUpdateSpec* update,
    Ref<Morphel::Params::ConversionParams>& result) {
    using namespace Morphel::Params;
    if (update == nullptr) ThrowInvalidArgument("newParams");
    Change([&](StateTransaction&, JobRecord& job) {
        if (job.info->GetActiveTask() != nullptr) ThrowInvalidState();
        ConversionJobSpec& spec = *job.spec;
        if (spec.GetConversionParams() == nullptr)
            spec.SetConversionParams(Ref<ConversionParams>(new ConversionParams()).Get());
        ConversionParams& params = *spec.GetConversionParams();
        if (update->GetReconfigParams() != nullptr) params.SetReconfigParams(update->GetReconfigParams());
        if (update->IsDoReconfig().IsSet()) params.SetDoReconfig(update->IsDoReconfig());
        if (update->IsDoCustomize().IsSet()) params.SetDoCustomize(update->IsDoCustomize());
        if (update->GetCustomizationParams() != nullptr)
            params.SetCustomizationParams(update->GetCustomizationParams());
        if (update->IsDoInstallTools().IsSet()) params.SetDoInstallTools(update->IsDoInstallTools());
        if (update->IsRemoveRestoreCheckpoints().IsSet())
            params.SetRemoveRestoreCheckpoints(update->IsRemoveRestoreCheckpoints());
        if (update->IsPowerOnTargetVM().IsSet()) params.SetPowerOnTargetVM(update->IsPowerOnTargetVM());
        if (auto* throttling = update->GetThrottling()) {
            if (params.GetThrottlingParams() == nullptr)
                params.SetThrottlingParams(Ref<ThrottlingParams>(new ThrottlingParams()).Get());
            ThrottlingParams& kept = *params.GetThrottlingParams();
            if (throttling->GetCpuThrottling().IsSet()) kept.SetCpuThrottling(throttling->GetCpuThrottling());
            if (throttling->GetNetworkBandwidthThrottlingInMB().IsSet())
                kept.SetNetworkBandwidthThrottlingInMB(throttling->GetNetworkBandwidthThrottlingInMB());
            if (True(throttling->IsDisableNetworkBandwidthThrottling()))
                kept.UnsetNetworkBandwidthThrottlingInMB();
        }
        bool services =
            True(update->IsClearServicesToSuspend()) ||
            (update->GetServicesToSuspend() != nullptr && update->GetServicesToSuspend()->GetLength() != 0);
        if (update->IsDoFinalize().IsSet() || services) {
            if (params.GetCloningParams() == nullptr)
                params.SetCloningParams(Ref<CloningParams>(new CloningParams()).Get());
            CloningParams& cloning = *params.GetCloningParams();
            if (update->IsDoFinalize().IsSet()) cloning.SetDoFinalize(update->IsDoFinalize());
            if (True(update->IsClearServicesToSuspend())) cloning.SetServicesToSuspend(nullptr);
            if (update->GetServicesToSuspend() != nullptr && update->GetServicesToSuspend()->GetLength() != 0)
                cloning.SetServicesToSuspend(update->GetServicesToSuspend());
        }
        if (update->GetSynchronizationStartTime().IsSet())
            spec.SetSynchronizationStartTime(update->GetSynchronizationStartTime());
        if (update->IsShutdownSource().IsSet()) {
            if (spec.GetP2vSourceModificationSpec() == nullptr)
                spec.SetP2vSourceModificationSpec(
                    Ref<Morphel::Server::Conversion::P2VSourceModificationSpec>(
                        new Morphel::Server::Conversion::P2VSourceModificationSpec())
                        .Get());
            spec.GetP2vSourceModificationSpec()->SetShutdownSource(update->IsShutdownSource());
        }
        auto* live =
            spec.GetSource() != nullptr
                ? dynamic_cast<Morphel::ComputerSpec::LiveComputerLocation*>(spec.GetSource()->GetLocation())
                : nullptr;
        if (live != nullptr && update->GetAgentSslThumbprint().IsSet())
            live->SetSslThumbprint(update->GetAgentSslThumbprint());
        if (live != nullptr && True(update->IsUnsetAgentSslThumbprint())) live->UnsetSslThumbprint();
        result = Ref<ConversionParams>(params._Clone());
        return "conversion parameters updated";
    });
}

class ConversionManagerImpl : public Morphel::Server::Conversion::ConversionManagerBase {
public:
    explicit ConversionManagerImpl(Context& context) : context_(context) {}

    void CreateJob(ConversionJobSpec* spec, Kitra::Any* extraInfo, Ref<ConversionJobInfo>& result) override;

    // A job with an active task goes only with "cancelActiveTask", which cancels the task first;
    // dovra.fault.InvalidState otherwise.
    void DestroyJob(Kitra::MoRef* job, const Fundix::Optional<std::string>& activeTaskHandling) override {
        bool cancel = activeTaskHandling.IsSet() && CancelsActiveTask(activeTaskHandling.GetValue());
        std::string id = context_.state->Run([&](StateTransaction& tx) {
            JobRecord found = FindJob(tx, job);
            if (auto* active = found.info->GetActiveTask()) {
                if (!cancel) ThrowInvalidState();
                CancelConversion(context_, tx, active->GetId());
            }
            for (const auto& scheduled : tx.ScheduledTaskIdsOf(found.id))
                tx.EraseScheduledTask(scheduled);
            tx.EraseJob(found.id);
            return found.id;
        });
        context_.Unregister(id);
        context_.Wake();
    }

    void GetJobInfo(Kitra::MoRef* conversionJob, Ref<ConversionJobInfo>& result) override {
        result = context_.state->Run([&](StateTransaction& tx) { return FindJob(tx, conversionJob).info; });
    }
    void GetJobSpec(Kitra::MoRef* conversionJob, Ref<ConversionJobSpec>& result) override {
        result = context_.state->Run([&](StateTransaction& tx) { return FindJob(tx, conversionJob).spec; });
    }
    void GetJobExtraInfo(Kitra::MoRef* conversionJob, Ref<Kitra::Any>& result) override {
        result =
            context_.state->Run([&](StateTransaction& tx) { return FindJob(tx, conversionJob).extraInfo; });
    }
    Fundix::Optional<int32_t> GetMaxCollector() override { return kMaxCollectors; }
    void GetRootFolder(Ref<Kitra::MoRef>& result) override {
        result = RefTo<Morphel::Server::Conversion::ConversionFolder>(kConversionFolderId);
    }
    void CreateCollector(Morphel::Server::Job::JobFilterSpec* filter, Ref<Kitra::MoRef>& result) override {
        result = CreateJobCollector(context_, filter);
    }

    // The job of a scheduled task.
    void GetJobInfoFromScheduledTask(Kitra::MoRef* task, Ref<ConversionJobInfo>& result) override {
        result = JobOf(task).info;
    }
    void GetJobSpecFromScheduledTask(Kitra::MoRef* task, Ref<ConversionJobSpec>& result) override {
        result = JobOf(task).spec;
    }
    void GetJobExtraInfoFromScheduledTask(Kitra::MoRef* task, Ref<Kitra::Any>& result) override {
        result = JobOf(task).extraInfo;
    }

private:
    JobRecord JobOf(Kitra::MoRef* scheduled) {
        return context_.state->Run(
            [&](StateTransaction& tx) { return FindJob(tx, FindScheduledTask(tx, scheduled).jobId); });
    }

    Context& context_;
};

void ConversionManagerImpl::CreateJob(ConversionJobSpec* spec, Kitra::Any* extraInfo,
                                      Ref<ConversionJobInfo>& result) {
    if (spec == nullptr) ThrowInvalidArgument("spec");
    const std::string user = CurrentSession().GetUserName();
    if (spec->GetName().empty()) {
        Ref<Dovra::Fault::InvalidName> fault(new Dovra::Fault::InvalidName());
        fault->SetName(spec->GetName());
        Raise(fault.Get());
    }
    CheckSource(context_.machine, spec->GetSource());
    if (context_.Stopping()) ThrowInvalidState();
    // One transaction (one commit to wait for) checks the name, numbers, keeps and records the job.
    std::string jobId, taskId;
    context_.state->Transact([&](StateTransaction& tx) {
        CheckJobName(tx, spec->GetName(), "");
        jobId = "ConversionJob-" + std::to_string(tx.NextId());
        taskId.clear();
        DateTime now = DateTime::Now();

        JobRecord job;
        job.id = jobId;
        job.spec = spec;  // the state keeps a copy
        job.extraInfo = extraInfo;
        job.info = new ConversionJobInfo();
        job.info->SetKey(jobId);
        job.info->SetOwner(user);
        job.info->SetState(True(spec->IsStartSuspended()) ? ConversionJobInfo::STATE_SUSPENDED
                                                          : ConversionJobInfo::STATE_ACTIVE);
        job.info->SetCreationTime(now);
        job.info->SetLastModifiedTime(now);
        job.info->SetNumConsecutiveErrors(0);
        job.info->SetJob(JobRefTo(jobId).Get());
        job.info->SetTargetVm(TargetOf(*spec).Get());
        job.info->SetSource(context_.machine.hostname);
        job.info->SetTarget(TargetName(*spec));
        job.info->SetEditable(false);

        std::string created = "Conversion job '" + spec->GetName() + "' created";
        if (FirstRunDue(job, now)) {
            taskId = StartRun(context_, tx, job, user, created).id;
        } else {
            // The first run waits for its time, or for resume.
            Ref<Morphel::Event::GeneralEvent> event(new Morphel::Event::GeneralEvent());
            event->SetMessage(created);
            context_.Log(tx, event.Get(), 0, user, Morphel::Event::Event::Type::info, created, jobId);
            if (spec->GetFirstRun().IsSet() && now < spec->GetFirstRun().GetValue())
                ScheduleFirstRun(context_, tx, job, spec->GetFirstRun().GetValue(), user);
        }
        tx.PutJob(job);
        result = job.info;  // the state keeps a copy
    });
    RegisterJob(context_, jobId);
    if (!taskId.empty()) LaunchRun(context_, taskId);
}

// The simulated conversion of one task, in 20 steps over the configured time. It ends early when the task
// has ended otherwise (cancelled) or is gone.
void RunConversion(Context& context, const std::string& taskId) {
    using State = Morphel::Task::TaskInfo::State;
    const auto step = context.options.conversionTime / 20;
    // Applies `change` to the task while it is queued or running (else false: it ended, was cancelled,
    // or a service attached to the same state since failed it).
    auto update = [&](auto&& change) {
        bool active = false;
        context.state->Transact([&](StateTransaction& tx) {
            auto task = tx.FindTask(taskId);
            active = task && IsActive(*task->info);
            if (!active) return;
            change(tx, *task);
            tx.PutTask(*task);
        });
        return active;
    };
    if (!context.Sleep(step)) return;
    std::vector<std::string> disks;
    std::string vmName;
    bool active = update([&](StateTransaction& tx, TaskRecord& t) {
        t.info->SetState(State::running);
        t.info->SetStartTime(DateTime::Now());
        t.info->SetProgress(0);
        context.LogTask(tx, t, "Task started");
        disks = t.disks;
        vmName = t.vmName;
    });
    for (int i = 1; active && i <= 20; ++i) {
        if (!context.Sleep(step)) return;
        active = update([&](StateTransaction& tx, TaskRecord& t) {
            int progress = i * 5;
            t.info->SetProgress(progress);
            t.info->SetEstimatedTimeRemaining(int32_t((20 - i) * step.count() / 1000));
            // The disks are copied one after the other over the run.
            size_t n = disks.size();
            for (size_t d = 0; d < n; ++d) {
                int begin = int(100 * d / n), end = int(100 * (d + 1) / n);
                if (progress - 5 <= begin && begin < progress) {
                    Ref<Morphel::Event::DiskCloningEvent> e(new Morphel::Event::DiskCloningEvent());
                    e->SetVmName(vmName);
                    e->SetSourceDisk(disks[d]);
                    context.Log(tx, e.Get(), t.info->GetEventChainId(), t.info->GetUserName().GetValue(),
                                Morphel::Event::Event::Type::info, "Cloning disk " + disks[d], t.jobId);
                }
                if (progress - 5 < end && end <= progress) {
                    Ref<Morphel::Event::DiskClonedEvent> e(new Morphel::Event::DiskClonedEvent());
                    e->SetVmName(vmName);
                    e->SetSourceDisk(disks[d]);
                    context.Log(tx, e.Get(), t.info->GetEventChainId(), t.info->GetUserName().GetValue(),
                                Morphel::Event::Event::Type::info, "Cloned disk " + disks[d], t.jobId);
                }
            }
        });
    }
    if (!active) return;
    update([&](StateTransaction& tx, TaskRecord& t) {
        DateTime now = DateTime::Now();
        t.info->SetState(State::success);
        t.info->SetCancelable(false);
        t.info->SetCompleteTime(now);
        t.info->SetEstimatedTimeRemaining(0);
        context.LogTask(tx, t, "Task completed");
        if (auto job = tx.FindJob(t.jobId)) {
            job->info->SetActiveTask(nullptr);
            job->info->SetLastRunCompleteTime(now);
            job->info->SetLastModifiedTime(now);
            job->info->SetNumConsecutiveErrors(0);
            tx.PutJob(*job);
        }
    });
}

}  // namespace

bool IsActive(const Morphel::Task::TaskInfo& info) {
    return info.GetState() == Morphel::Task::TaskInfo::State::queued ||
           info.GetState() == Morphel::Task::TaskInfo::State::running;
}

TaskRecord NewTask(Context& context, StateTransaction& tx, const std::string& jobId,
                   const Morphel::Params::ConversionParams* params, const std::string& name,
                   const std::string& user, const std::string& descriptionId) {
    TaskRecord task;
    task.id = "Task-" + std::to_string(tx.NextId());
    task.jobId = jobId;
    task.runner = context.state->Runner();
    task.vmName = name;
    auto* cloning = params != nullptr ? params->GetCloningParams() : nullptr;
    if (cloning != nullptr && cloning->GetTarget() != nullptr) task.vmName = cloning->GetTarget()->GetName();
    auto* disks = cloning != nullptr && cloning->GetStorageParams() != nullptr
                      ? cloning->GetStorageParams()->GetTargetDiskParams()
                      : nullptr;
    for (size_t i = 0; disks != nullptr && i < disks->GetLength(); ++i)
        if (disks->Get(i)->GetSourceDiskId().IsSet())
            task.disks.push_back(disks->Get(i)->GetSourceDiskId().GetValue());
    if (task.disks.empty())
        for (const auto& d : context.machine.disks)
            task.disks.push_back(d.id);

    Ref<Morphel::Task::TaskInfo> info(new Morphel::Task::TaskInfo());
    info->SetKey(task.id);
    info->SetTask(RefTo<Morphel::Task::Task>(task.id).Get());
    info->SetName("convert");
    info->SetDescriptionId(descriptionId);
    info->SetUserName(user);
    info->SetSource(context.machine.hostname);
    info->SetTarget(task.vmName);
    info->SetState(Morphel::Task::TaskInfo::State::queued);
    info->SetCancelled(false);
    info->SetCancelable(true);
    info->SetProgress(0);
    info->SetQueueTime(DateTime::Now());
    if (!jobId.empty()) info->SetJob(JobRefTo(jobId).Get());
    info->SetEventChainId(tx.NextChainId());
    task.info = info;
    return task;
}

void QueueTask(Context& context, StateTransaction& tx, const TaskRecord& task) {
    tx.PutTask(task);
    tx.AddRecentTask(task.id, size_t(std::max(1, tx.GetMaxTask())));
    context.LogTask(tx, task, "Task queued");
}

TaskRecord StartRun(Context& context, StateTransaction& tx, JobRecord& job, const std::string& user,
                    const std::string& announce) {
    bool first = !job.info->GetLastRunStartTime().IsSet();
    TaskRecord task = NewTask(context, tx, job.id, job.spec->GetConversionParams(), job.spec->GetName(), user,
                              first ? "morphel.server.conversion.ConversionManager.createJob"
                                    : "morphel.task.ScheduledTaskManager.create");
    if (!announce.empty()) {
        Ref<Morphel::Event::GeneralEvent> event(new Morphel::Event::GeneralEvent());
        event->SetMessage(announce);
        context.Log(tx, event.Get(), task.info->GetEventChainId(), user, Morphel::Event::Event::Type::info,
                    announce, job.id);
    }
    QueueTask(context, tx, task);
    if (first) ScheduleFirstRun(context, tx, job, std::nullopt, user);
    DateTime now = DateTime::Now();
    job.info->SetActiveTask(RefTo<Morphel::Task::Task>(task.id).Get());
    job.info->SetLastRunStartTime(now);
    job.info->SetLastModifiedTime(now);
    return task;
}

void LaunchRun(Context& context, const std::string& taskId, bool registerTask) {
    // The run outlives no context (its destructor joins it), and may outlive the manager that started it.
    context.Spawn([&context, taskId] { RunConversion(context, taskId); });
    if (registerTask) RegisterTask(context, taskId);
}

namespace {

// Ends the task `taskId` in the error state with `fault` when it is queued or running (false otherwise),
// `cancelled` or not, recording `message`; its job, when this is its active task, is left without one and
// counts the fault as its most recent error.
bool EndInError(Context& context, StateTransaction& tx, const std::string& taskId,
                Ref<Kitra::MethodFault> fault, bool cancelled, const std::string& message,
                Morphel::Event::Event::Type type) {
    auto task = tx.FindTask(taskId);
    if (!task || !IsActive(*task->info)) return false;
    DateTime now = DateTime::Now();
    task->info->SetState(Morphel::Task::TaskInfo::State::error);
    if (cancelled) task->info->SetCancelled(true);
    task->info->SetCancelable(false);
    task->info->SetError(fault.Get());
    task->info->SetCompleteTime(now);
    task->info->UnsetEstimatedTimeRemaining();
    tx.PutTask(*task);
    context.LogTask(tx, *task, message, type);
    auto job = tx.FindJob(task->jobId);
    if (job && job->info->GetActiveTask() != nullptr && job->info->GetActiveTask()->GetId() == taskId) {
        job->info->SetActiveTask(nullptr);
        job->info->SetLastRunCompleteTime(now);
        job->info->SetLastModifiedTime(now);
        job->info->SetMostRecentError(fault.Get());
        job->info->SetNumConsecutiveErrors(job->info->GetNumConsecutiveErrors() + 1);
        tx.PutJob(*job);
    }
    return true;
}

}  // namespace

bool CancelConversion(Context& context, StateTransaction& tx, const std::string& taskId) {
    return EndInError(context, tx, taskId, new Morphel::Agent::Internal::Fault::Cancel(), true,
                      "Task cancelled", Morphel::Event::Event::Type::info);
}

void FailCutOffTask(Context& context, StateTransaction& tx, const std::string& id, bool restarted) {
    Ref<Morphel::Fault::CloneFault> fault(new Morphel::Fault::CloneFault());
    fault->SetDescription(restarted ? kInterruptedTask : kOrphanedTask);
    EndInError(context, tx, id, fault.Get(), false,
               restarted ? "Task failed: the server restarted while it ran"
                         : "Task failed: the server that ran it ended while it ran",
               Morphel::Event::Event::Type::error);
}

Ref<Kitra::ManagedObject> RegisterJob(Context& context, const std::string& id) {
    Ref<Kitra::ManagedObject> job(new ConversionJobImpl(context, id));
    context.Register(id, job.Get());
    return job;
}

void AttachConversions(Context& context) {
    context.Register(kConversionManagerId,
                     Ref<ConversionManagerImpl>(new ConversionManagerImpl(context)).Get());
    context.Register(kConversionFolderId, Ref<ConversionFolderImpl>(new ConversionFolderImpl(context)).Get());
    for (const auto& id : context.state->Run([](StateTransaction& tx) { return tx.JobIds(); }))
        RegisterJob(context, id);
}

}  // namespace MorphelServer
