// The task manager and the tasks of conversion jobs.
#include <morphel/event/types.h>
#include <morphel/task/types.h>

#include "Context.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;
using Morphel::Task::TaskInfo;

TaskRecord FindTask(StateTransaction& tx, const std::string& id) {
    auto task = tx.FindTask(id);
    if (!task) ThrowNotFound();
    return *task;
}

class TaskManagerImpl : public Morphel::Task::TaskManagerBase {
public:
    explicit TaskManagerImpl(Context& context) : context_(context) {}

    void GetTaskInfo(Kitra::MoRef* task, Ref<TaskInfo>& result) override {
        if (task == nullptr) ThrowNotFound();
        result = context_.state->Run([&](StateTransaction& tx) { return FindTask(tx, task->GetId()).info; });
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

private:
    Context& context_;
};

class TaskImpl : public Morphel::Task::TaskBase {
public:
    TaskImpl(Context& context, std::string id) : context_(context), id_(std::move(id)) {}

    void GetInfo(Ref<TaskInfo>& result) override {
        result = context_.state->Run([&](StateTransaction& tx) { return FindTask(tx, id_).info; });
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

void RegisterTask(Context& context, const std::string& id) {
    context.Register(id, Ref<TaskImpl>(new TaskImpl(context, id)).Get());
}

}  // namespace MorphelServer
