// History collectors of tasks and conversion jobs (the paging is Collector.h's, shared with the events'),
// and what every kind of collector shares: creation under the session's cap and registration.
#include <algorithm>
#include <cstdlib>

#include <morphel/server/conversion/types.h>
#include <morphel/server/job/types.h>
#include <morphel/task/types.h>

#include "Collector.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;
using Fundix::System::DateTime;
using Morphel::Server::Conversion::ConversionJobInfo;
using Morphel::Server::Job::JobFilterSpec;
using Morphel::Task::TaskFilterSpec;
using Morphel::Task::TaskInfo;

// The number NextId gave an id made of a prefix and that number ("Task-12": 12), which orders ids by
// creation where their text does not.
int64_t IdNumber(const std::string& id) {
    size_t dash = id.rfind('-');
    return dash == std::string::npos ? 0 : std::atoll(id.c_str() + dash + 1);
}

// Whether `time` lies in [begin, end] (either bound may be absent); an absent time lies in no range.
bool InRange(const Fundix::Optional<DateTime>& time, const Fundix::Optional<DateTime>& begin,
             const Fundix::Optional<DateTime>& end) {
    if (!time.IsSet()) return false;
    int64_t t = time.GetValue().GetUtcMicros();
    return !(begin.IsSet() && t < begin.GetValue().GetUtcMicros()) &&
           !(end.IsSet() && t > end.GetValue().GetUtcMicros());
}

// Whether `value` is in `list`; an empty or absent list holds every value.
template <class T, class List>
bool Listed(const List* list, const T& value) {
    if (list == nullptr || list->GetLength() == 0) return true;
    const auto& v = list->GetValues();
    return std::find(v.begin(), v.end(), value) != v.end();
}

// A task has no parent here: each is a root task, its own root. So rootTaskOnly selects every task, a
// parentTask list none, a rootTask list the tasks it names. A task without a user name is the system's,
// selected by systemUser besides the names listed.
bool Matches(const TaskFilterSpec& f, const TaskInfo& t) {
    if (auto* time = f.GetTimeRange()) {
        using Option = Morphel::Task::TaskFilterSpec_TimeOption;
        Fundix::Optional<DateTime> at = time->GetTimeType() == Option::queuedTime    ? t.GetQueueTime()
                                        : time->GetTimeType() == Option::startedTime ? t.GetStartTime()
                                                                                     : t.GetCompleteTime();
        if (!InRange(at, time->GetBeginTime(), time->GetEndTime())) return false;
    }
    if (auto* users = f.GetUserName()) {
        auto* list = users->GetUserList();
        bool named = list != nullptr && list->GetLength() != 0;
        bool system = !t.GetUserName().IsSet() || t.GetUserName().GetValue().empty();
        if ((named || users->IsSystemUser()) &&
            !(system ? users->IsSystemUser() : named && Listed(list, t.GetUserName().GetValue())))
            return false;
    }
    if (!Listed(f.GetState(), t.GetState()) || !Listed(f.GetDescriptionId(), t.GetDescriptionId()))
        return false;
    if (auto* job = f.GetJob();
        job != nullptr && (t.GetJob() == nullptr || t.GetJob()->GetId() != job->GetId()))
        return false;
    if (auto* parents = f.GetParentTask(); parents != nullptr && parents->GetLength() != 0) return false;
    if (auto* roots = f.GetRootTask(); roots != nullptr && roots->GetLength() != 0) {
        bool any = false;
        for (size_t i = 0; i < roots->GetLength(); ++i)
            any = any || (t.GetTask() != nullptr && roots->Get(i)->GetId() == t.GetTask()->GetId());
        if (!any) return false;
    }
    return true;
}

const char* const kJobTimes[] = {"createdTime", "lastRunStartedTime", "lastRunCompletedTime"};

bool Matches(const JobFilterSpec& f, const ConversionJobInfo& j) {
    if (auto* time = f.GetTimeRange()) {
        const std::string& type = time->GetTimeType();
        Fundix::Optional<DateTime> at = type == kJobTimes[0] ? Fundix::Optional<DateTime>(j.GetCreationTime())
                                        : type == kJobTimes[1] ? j.GetLastRunStartTime()
                                                               : j.GetLastRunCompleteTime();
        if (!InRange(at, time->GetBeginTime(), time->GetEndTime())) return false;
    }
    if (f.GetOwner().IsSet() && f.GetOwner().GetValue() != j.GetOwner()) return false;
    return Listed(f.GetState(), j.GetState());
}

const char* Prefix(CollectorKind kind) {
    switch (kind) {
        case CollectorKind::task:
            return "TaskHistoryCollector-";
        case CollectorKind::job:
            return "ConversionJobHistoryCollector-";
        default:
            return "EventHistoryCollector-";
    }
}

Ref<Kitra::MoRef> RefOf(CollectorKind kind, const std::string& id) {
    switch (kind) {
        case CollectorKind::task:
            return RefTo<Morphel::Task::TaskHistoryCollector>(id);
        case CollectorKind::job:
            return RefTo<Morphel::Server::Conversion::ConversionJobHistoryCollector>(id);
        default:
            return RefTo<Morphel::Event::EventHistoryCollector>(id);
    }
}

Ref<Kitra::ManagedObject> NewTaskCollector(Context& context, const std::string& id) {
    return new HistoryCollectorImpl<Morphel::Task::TaskHistoryCollector,
                                    Morphel::Task::TaskHistoryCollectorBase, TaskInfo>(
        context, id, [](StateTransaction& tx, const CollectorRecord& c) {
            auto* filter = dynamic_cast<const TaskFilterSpec*>(c.filter.Get());
            std::vector<Keyed<TaskInfo>> tasks;
            for (const auto& taskId : tx.TaskIds())
                if (auto task = tx.FindTask(taskId);
                    task && (filter == nullptr || Matches(*filter, *task->info)))
                    tasks.push_back({IdNumber(taskId), task->info});
            std::sort(tasks.begin(), tasks.end(), [](const auto& a, const auto& b) { return a.key < b.key; });
            return tasks;
        });
}

Ref<Kitra::ManagedObject> NewJobCollector(Context& context, const std::string& id) {
    using Morphel::Server::Conversion::ConversionJobHistoryCollector;
    using Morphel::Server::Conversion::ConversionJobHistoryCollectorBase;
    return new HistoryCollectorImpl<ConversionJobHistoryCollector, ConversionJobHistoryCollectorBase,
                                    ConversionJobInfo>(
        context, id, [](StateTransaction& tx, const CollectorRecord& c) {
            auto* filter = dynamic_cast<const JobFilterSpec*>(c.filter.Get());
            std::vector<Keyed<ConversionJobInfo>> jobs;
            for (const auto& jobId : tx.JobIds())
                if (auto job = tx.FindJob(jobId); job && (filter == nullptr || Matches(*filter, *job->info)))
                    jobs.push_back({IdNumber(jobId), job->info});
            std::sort(jobs.begin(), jobs.end(), [](const auto& a, const auto& b) { return a.key < b.key; });
            return jobs;
        });
}

}  // namespace

Ref<Kitra::ManagedObject> RegisterCollector(Context& context, const std::string& id, CollectorKind kind) {
    Ref<Kitra::ManagedObject> collector = kind == CollectorKind::task  ? NewTaskCollector(context, id)
                                          : kind == CollectorKind::job ? NewJobCollector(context, id)
                                                                       : NewEventCollector(context, id);
    context.Register(id, collector.Get());
    return collector;
}

Ref<Kitra::MoRef> CreateCollector(Context& context, CollectorKind kind, Ref<Kitra::Any> filter) {
    const std::string owner = CurrentSession().GetKey();
    std::string id = context.state->Run([&](StateTransaction& tx) {
        if (tx.CollectorIdsOf(owner).size() >= size_t(kMaxCollectors)) ThrowInvalidState();
        std::string id = Prefix(kind) + std::to_string(tx.NextId());
        CollectorRecord c;
        c.kind = kind;
        c.filter = std::move(filter);
        c.owner = owner;
        tx.PutCollector(id, c);
        return id;
    });
    RegisterCollector(context, id, kind);
    return RefOf(kind, id);
}

Ref<Kitra::MoRef> CreateTaskCollector(Context& context, TaskFilterSpec* filter) {
    return CreateCollector(context, CollectorKind::task,
                           filter != nullptr ? Ref<Kitra::Any>(filter->_Clone()) : new TaskFilterSpec());
}

Ref<Kitra::MoRef> CreateJobCollector(Context& context, JobFilterSpec* filter) {
    if (filter != nullptr && filter->GetTimeRange() != nullptr &&
        std::find(std::begin(kJobTimes), std::end(kJobTimes), filter->GetTimeRange()->GetTimeType()) ==
            std::end(kJobTimes))
        ThrowInvalidArgument("filter.timeRange.timeType");
    return CreateCollector(context, CollectorKind::job,
                           filter != nullptr ? Ref<Kitra::Any>(filter->_Clone()) : new JobFilterSpec());
}

}  // namespace MorphelServer
