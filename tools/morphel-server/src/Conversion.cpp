// The conversion manager and its jobs. Creating a job creates its one task, whose conversion is simulated
// on a thread of its own: queued, running with progress 0 to 100 (an event as each disk starts and ends),
// success.
#include <dovra/fault/types.h>
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

// A conversion job, served as the job and as the managed entity it is.
class ConversionJobImpl : public Morphel::Server::Conversion::ConversionJobBase {
public:
    ConversionJobImpl(Context& context, std::string id) : context_(context), id_(std::move(id)) {}

    void GetInfo(Ref<ConversionJobInfo>& result) override { result = Info(); }
    void GetInfo(Ref<Morphel::Server::Job::JobInfo>& result) override { result = Info(); }
    void GetSpec(Ref<ConversionJobSpec>& result) override { result = Spec(); }
    void GetSpec(Ref<Morphel::Server::Job::JobSpec>& result) override { result = Spec(); }
    std::string GetName() override {
        return context_.state->Run([&](StateTransaction& tx) { return FindJob(tx, id_).spec->GetName(); });
    }

private:
    Ref<ConversionJobInfo> Info() {
        return context_.state->Run([&](StateTransaction& tx) { return FindJob(tx, id_).info; });
    }
    Ref<ConversionJobSpec> Spec() {
        return context_.state->Run([&](StateTransaction& tx) { return FindJob(tx, id_).spec; });
    }

    Context& context_;
    const std::string id_;
};

class ConversionManagerImpl : public Morphel::Server::Conversion::ConversionManagerBase {
public:
    explicit ConversionManagerImpl(Context& context) : context_(context) {}

    void CreateJob(ConversionJobSpec* spec, Kitra::Any* extraInfo, Ref<ConversionJobInfo>& result) override;

    void DestroyJob(Kitra::MoRef* job, const Fundix::Optional<std::string>&) override {
        std::string id = context_.state->Run([&](StateTransaction& tx) {
            JobRecord found = FindJob(tx, job);
            if (found.info->GetActiveTask() != nullptr) ThrowInvalidState();
            tx.EraseJob(found.id);
            return found.id;
        });
        context_.Unregister(id);
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

private:
    Context& context_;
};

void RunConversion(Context& context, const std::string& taskId);

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
    const Machine& machine = context_.machine;
    if (context_.Stopping()) ThrowInvalidState();
    // One transaction (one commit to wait for) checks the name, numbers, keeps and records the job.
    std::string jobId, taskId;
    context_.state->Transact([&](StateTransaction& tx) {
        if (auto other = tx.FindJobByName(spec->GetName())) {
            Ref<Dovra::Fault::DuplicateName> fault(new Dovra::Fault::DuplicateName());
            fault->SetName(spec->GetName());
            fault->SetObject(RefTo<Morphel::Server::Conversion::ConversionJob>(other->id).Get());
            Raise(fault.Get());
        }
        jobId = "ConversionJob-" + std::to_string(tx.NextId());
        taskId = "Task-" + std::to_string(tx.NextId());
        DateTime now = DateTime::Now();

        TaskRecord task;
        task.id = taskId;
        task.jobId = jobId;
        task.vmName = spec->GetName();
        auto* cloning = spec->GetConversionParams() != nullptr
                            ? spec->GetConversionParams()->GetCloningParams()
                            : nullptr;
        if (cloning != nullptr && cloning->GetTarget() != nullptr)
            task.vmName = cloning->GetTarget()->GetName();
        auto* disks = cloning != nullptr && cloning->GetStorageParams() != nullptr
                          ? cloning->GetStorageParams()->GetTargetDiskParams()
                          : nullptr;
        for (size_t i = 0; disks != nullptr && i < disks->GetLength(); ++i)
            if (disks->Get(i)->GetSourceDiskId().IsSet())
                task.disks.push_back(disks->Get(i)->GetSourceDiskId().GetValue());
        if (task.disks.empty())
            for (const auto& d : machine.disks)
                task.disks.push_back(d.id);

        Ref<Morphel::Task::TaskInfo> info(new Morphel::Task::TaskInfo());
        info->SetKey(taskId);
        info->SetTask(RefTo<Morphel::Task::Task>(taskId).Get());
        info->SetName("convert");
        info->SetDescriptionId("morphel.server.conversion.ConversionManager.createJob");
        info->SetUserName(user);
        info->SetSource(machine.hostname);
        info->SetTarget(task.vmName);
        info->SetState(Morphel::Task::TaskInfo::State::queued);
        info->SetCancelled(false);
        info->SetCancelable(false);
        info->SetProgress(0);
        info->SetQueueTime(now);
        info->SetJob(RefTo<Morphel::Server::Conversion::ConversionJob>(jobId).Get());
        task.info = info;

        JobRecord job;
        job.id = jobId;
        job.spec = spec;  // the state keeps a copy
        job.extraInfo = extraInfo;
        job.info = new ConversionJobInfo();
        job.info->SetKey(jobId);
        job.info->SetOwner(user);
        job.info->SetState("active");
        job.info->SetActiveTask(RefTo<Morphel::Task::Task>(taskId).Get());
        job.info->SetCreationTime(now);
        job.info->SetLastModifiedTime(now);
        job.info->SetNumConsecutiveErrors(0);
        job.info->SetLastRunStartTime(now);
        job.info->SetJob(RefTo<Morphel::Server::Conversion::ConversionJob>(jobId).Get());
        job.info->SetTargetVm(TargetOf(*spec).Get());
        job.info->SetSource(machine.hostname);
        job.info->SetTarget(task.vmName);
        job.info->SetEditable(false);

        info->SetEventChainId(tx.NextChainId());
        tx.PutTask(task);
        tx.PutJob(job);
        tx.AddRecentTask(taskId, size_t(std::max(1, tx.GetMaxTask())));
        std::string message = "Conversion job '" + spec->GetName() + "' created";
        Ref<Morphel::Event::GeneralEvent> created(new Morphel::Event::GeneralEvent());
        created->SetMessage(message);
        context_.Log(tx, created.Get(), info->GetEventChainId(), user, Morphel::Event::Event::Type::info,
                     message, jobId);
        context_.LogTask(tx, task, "Task queued");
        result = job.info;  // the state keeps a copy
    });
    // The run outlives no context (its destructor joins it), and may outlive this manager.
    context_.Spawn([&context = context_, taskId] { RunConversion(context, taskId); });
    RegisterJob(context_, jobId);
    RegisterTask(context_, taskId);
}

// The simulated conversion of one task, in 20 steps over the configured time.
void RunConversion(Context& context, const std::string& taskId) {
    using State = Morphel::Task::TaskInfo::State;
    const auto step = context.options.conversionTime / 20;
    // Applies `change` to the task while it is queued or running (a service attached to the same state
    // since may have failed it).
    auto update = [&](auto&& change) {
        context.state->Transact([&](StateTransaction& tx) {
            auto task = tx.FindTask(taskId);
            if (task &&
                (task->info->GetState() == State::queued || task->info->GetState() == State::running)) {
                change(tx, *task);
                tx.PutTask(*task);
            }
        });
    };
    if (!context.Sleep(step)) return;
    std::vector<std::string> disks;
    std::string vmName;
    update([&](StateTransaction& tx, TaskRecord& t) {
        t.info->SetState(State::running);
        t.info->SetStartTime(DateTime::Now());
        t.info->SetProgress(0);
        context.LogTask(tx, t, "Task started");
        disks = t.disks;
        vmName = t.vmName;
    });
    for (int i = 1; i <= 20; ++i) {
        if (!context.Sleep(step)) return;
        update([&](StateTransaction& tx, TaskRecord& t) {
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
    update([&](StateTransaction& tx, TaskRecord& t) {
        DateTime now = DateTime::Now();
        t.info->SetState(State::success);
        t.info->SetCompleteTime(now);
        t.info->SetEstimatedTimeRemaining(0);
        context.LogTask(tx, t, "Task completed");
        if (auto job = tx.FindJob(t.jobId)) {
            job->info->SetActiveTask(nullptr);
            job->info->SetLastRunCompleteTime(now);
            job->info->SetLastModifiedTime(now);
            tx.PutJob(*job);
        }
    });
}

}  // namespace

void RegisterJob(Context& context, const std::string& id) {
    context.Register(id, Ref<ConversionJobImpl>(new ConversionJobImpl(context, id)).Get());
}

void AttachConversions(Context& context) {
    context.Register(kConversionManagerId,
                     Ref<ConversionManagerImpl>(new ConversionManagerImpl(context)).Get());
    for (const auto& id : context.state->Run([](StateTransaction& tx) { return tx.JobIds(); }))
        RegisterJob(context, id);
}

}  // namespace MorphelServer
