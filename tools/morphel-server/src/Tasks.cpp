// The task manager and the tasks: those of conversion jobs, and tasks of their own (createTask). A task has
// no child tasks.
#include <morphel/event/types.h>
#include <morphel/server/conversion/types.h>
#include <morphel/task/types.h>

#include "Context.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;
using Morphel::Task::TaskInfo;
using Morphel::Task::TaskSpec;

TaskRecord FindTask(StateTransaction& tx, const std::string& id) {
    auto task = tx.FindTask(id);
    if (!task) ThrowNotFound();
    return *task;
}
TaskRecord FindTask(StateTransaction& tx, const Kitra::MoRef* ref) {
    if (ref == nullptr) ThrowNotFound();
    return FindTask(tx, ref->GetId());
}

// What the task converts: for a task of its own, the record it was created with; for a job's task, taken from
// the job's settings as they stand (the source, the machine made, the parameters and what is done to the
// source); null once the job is gone.
Ref<TaskSpec> SpecOf(StateTransaction& tx, const std::string& id) {
    TaskRecord task = FindTask(tx, id);
    if (task.spec != nullptr) return task.spec;
    auto job = tx.FindJob(task.jobId);
    if (!job) return nullptr;
    Ref<TaskSpec> spec(new TaskSpec());
    spec->SetSource(job->spec->GetSource());
    spec->SetTarget(job->info->GetTargetVm());
    spec->SetConversionParams(job->spec->GetConversionParams());
    if (auto* source = job->spec->GetP2vSourceModificationSpec()) {
        spec->SetShutdownSource(source->IsShutdownSource());
        spec->SetUninstallAgent(source->IsUninstallAgent());
    }
    return spec;
}

Ref<Kitra::DataArray<TaskInfo>> NoChildren() { return new Kitra::DataArray<TaskInfo>(); }

class TaskManagerImpl : public Morphel::Task::TaskManagerBase {
public:
    explicit TaskManagerImpl(Context& context) : context_(context) {}

    void GetTaskInfo(Kitra::MoRef* task, Ref<TaskInfo>& result) override {
        result = context_.state->Run([&](StateTransaction& tx) { return FindTask(tx, task).info; });
    }
    void GetTaskSpec(Kitra::MoRef* task, Ref<TaskSpec>& result) override {
        result = context_.state->Run([&](StateTransaction& tx) { return SpecOf(tx, FindTask(tx, task).id); });
    }
    void GetChildTask(Kitra::MoRef* task, Ref<Kitra::DataArray<TaskInfo>>& result) override {
        context_.state->Transact([&](StateTransaction& tx) { FindTask(tx, task); });
        result = NoChildren();
    }
    // The simulated conversion takes the configured time, whatever it converts: in whole seconds, rounded up.
    Fundix::Optional<int32_t> EstimateTimeToComplete(TaskSpec* taskSpec,
                                                     Morphel::Task::RuntimeEnvironmentInfo*) override {
        if (taskSpec == nullptr) ThrowInvalidArgument("taskSpec");
        return int32_t((context_.options.conversionTime.count() + 999) / 1000);
    }
    void GetRecentTask(Ref<Kitra::DataArray<Kitra::MoRef>>& result) override {
        Ref<Kitra::DataArray<Kitra::MoRef>> list(new Kitra::DataArray<Kitra::MoRef>());
        for (const auto& id : context_.state->Run([](StateTransaction& tx) { return tx.RecentTasks(); }))
            list->Append(RefTo<Morphel::Task::Task>(id).Get());
        result = list;
    }
    int32_t GetMaxTask() override {
        return context_.state->Run([](StateTransaction& tx) { return tx.GetMaxTask(); });
    }
    void SetMaxTask(int32_t maxTask) override {
        if (maxTask <= 0) ThrowInvalidArgument("maxTask");
        context_.state->Transact([&](StateTransaction& tx) { tx.SetMaxTask(maxTask); });
    }
    int32_t GetMaxCollector() override { return kMaxCollectors; }
    // The operations that start tasks here (a task's descriptionId) and the states of a task.
    void GetDescription(Ref<Morphel::Task::TaskDescription>& result) override {
        result = new Morphel::Task::TaskDescription(
            Descriptions({{"morphel.server.conversion.ConversionManager.createJob", "Convert",
                           "The first run of a conversion job"},
                          {"morphel.task.ScheduledTaskManager.create", "Scheduled conversion",
                           "A run of a conversion job that a scheduled task started"},
                          {"morphel.task.TaskManager.createTask", "Convert a machine",
                           "A conversion of a task of its own, without a job"}})
                .Get(),
            Descriptions({{"queued", "Queued", "The task waits to run"},
                          {"running", "Running", "The task runs"},
                          {"success", "Completed", "The task ended as it should"},
                          {"error", "Failed", "The task ended with an error or was cancelled"}})
                .Get());
    }
    void CreateCollector(Morphel::Task::TaskFilterSpec* filter, Ref<Kitra::MoRef>& result) override {
        result = CreateTaskCollector(context_, filter);
    }

    // A task of its own, run as a job's run is: `taskSpec` names this machine as its source (else
    // morphel.fault.NoHostConnection; kodl.fault.InvalidArgument "source" for no source, "taskSpec" for
    // none).
    void CreateTask(TaskSpec* taskSpec, Ref<TaskInfo>& result) override {
        if (taskSpec == nullptr) ThrowInvalidArgument("taskSpec");
        const std::string user = CurrentSession().GetUserName();
        CheckSource(context_.machine, taskSpec->GetSource());
        std::string id;
        context_.state->Transact([&](StateTransaction& tx) {
            TaskRecord task = NewTask(context_, tx, "", taskSpec->GetConversionParams(),
                                      context_.machine.hostname, user, "morphel.task.TaskManager.createTask");
            task.spec = taskSpec;  // the state keeps a copy
            QueueTask(context_, tx, task);
            id = task.id;
            result = task.info;
        });
        LaunchRun(context_, id);
    }

    // An ended task goes from the state and the recent tasks; its events stay.
    void DestroyTask(Kitra::MoRef* task) override {
        std::string id = context_.state->Run([&](StateTransaction& tx) {
            TaskRecord found = FindTask(tx, task);
            if (IsActive(*found.info)) ThrowInvalidState();
            tx.EraseTask(found.id);
            return found.id;
        });
        context_.Unregister(id);
    }

private:
    Context& context_;
};

class TaskImpl : public Morphel::Task::TaskBase {
public:
    TaskImpl(Context& context, std::string id) : context_(context), id_(std::move(id)) {}

    void GetInfo(Ref<TaskInfo>& result) override {
        result = context_.state->Run([&](StateTransaction& tx) { return FindTask(tx, id_).info; });
    }
    void GetSpec(Ref<TaskSpec>& result) override {
        result = context_.state->Run([&](StateTransaction& tx) { return SpecOf(tx, id_); });
    }
    void GetChild(Ref<Kitra::DataArray<TaskInfo>>& result) override {
        context_.state->Transact([&](StateTransaction& tx) { FindTask(tx, id_); });
        result = NoChildren();
    }
    // A queued or running task stops at its next step; cancelling a task that has ended changes nothing
    // (the call declares no fault to refuse it with, and its info says it is no longer cancelable).
    void Cancel() override {
        context_.state->Transact([&](StateTransaction& tx) {
            FindTask(tx, id_);
            CancelConversion(context_, tx, id_);
        });
    }
    // The events of the task's chain, oldest first.
    void GetEvent(Ref<Kitra::DataArray<Morphel::Event::Event>>& result) override {
        result = context_.state->Run([&](StateTransaction& tx) {
            Ref<Morphel::Event::EventFilterSpec> filter(new Morphel::Event::EventFilterSpec());
            filter->SetEventChainId(FindTask(tx, id_).info->GetEventChainId());
            auto selected = tx.SelectEvents(filter.Get());
            return Page(selected, 0, selected.size());
        });
    }

private:
    Context& context_;
    const std::string id_;
};

}  // namespace

void AttachTasks(Context& context) {
    context.Register(kTaskManagerId, Ref<TaskManagerImpl>(new TaskManagerImpl(context)).Get());
    for (const auto& id : context.state->Run([](StateTransaction& tx) { return tx.TaskIds(); }))
        RegisterTask(context, id);
}

Ref<Kitra::ManagedObject> RegisterTask(Context& context, const std::string& id) {
    Ref<Kitra::ManagedObject> task(new TaskImpl(context, id));
    context.Register(id, task.Get());
    return task;
}

}  // namespace MorphelServer
