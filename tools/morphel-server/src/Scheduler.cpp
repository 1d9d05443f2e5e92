// Scheduled runs of conversion jobs: the scheduled task manager, the scheduled task that holds a job's
// first run until its time, and the scheduler, one thread that sleeps until the earliest due time.
//
// A scheduled task is due at its next run time while it is enabled. When it comes due the scheduler starts
// a run of its job (StartRun, the same simulated conversion as a first run), or records why it skips it: the
// job is suspended or deactivated, or its previous run is still active. Then the next run moves on by the
// interval, past the present (runs missed while no server ran make one run, at the next start), or, without
// an interval, the scheduled task is done. The decision is made in one transaction that reads the due time
// again, so of several servers on one database one starts the run.
//
// A scheduled task's state: "running" while the run it started is queued or running, else "disabled" when
// it is not enabled, "scheduled" while a next run is to come, "completed" when none is.
#include <algorithm>
#include <chrono>

#include <dovra/fault/types.h>
#include <dovra/scheduler/types.h>
#include <dovra/types.h>
#include <morphel/event/types.h>
#include <morphel/server/conversion/types.h>
#include <morphel/task/types.h>

#include "Context.h"

namespace MorphelServer {

namespace {

using Dovra::Scheduler::ScheduledTaskInfo;
using Dovra::Scheduler::ScheduledTaskSpec;
using Fundix::Ref;
using Fundix::System::DateTime;
using Morphel::Server::Conversion::ConversionJobInfo;

constexpr const char* kRunning = "running";
constexpr const char* kDisabled = "disabled";
constexpr const char* kScheduled = "scheduled";
constexpr const char* kCompleted = "completed";

constexpr int64_t kMicrosPerMinute = 60'000'000;

// The record as a client sees it: its active task cleared once that run has ended (or the task is gone),
// its state from the rest.
void Refresh(StateTransaction& tx, ScheduledTaskInfo& info) {
    if (auto* active = info.GetActiveTask()) {
        auto task = tx.FindTask(active->GetId());
        if (!task || !IsActive(*task->info)) info.SetActiveTask(nullptr);
    }
    info.SetState(info.GetActiveTask() != nullptr ? kRunning
                  : !info.IsEnabled()             ? kDisabled
                  : info.GetNextRunTime().IsSet() ? kScheduled
                                                  : kCompleted);
}

// Raises dovra.fault.InvalidName for an empty name, dovra.fault.DuplicateName when a scheduled task other
// than `self` has it, and kodl.fault.InvalidArgument "intervalMinutes" for an interval below one minute.
void CheckSpec(StateTransaction& tx, const ScheduledTaskSpec& spec, const std::string& self) {
    if (spec.GetName().empty()) {
        Ref<Dovra::Fault::InvalidName> fault(new Dovra::Fault::InvalidName());
        fault->SetName(spec.GetName());
        if (!self.empty()) fault->SetEntity(ScheduledTaskRef(self).Get());
        Raise(fault.Get());
    }
    if (auto other = tx.FindScheduledTaskByName(spec.GetName()); other && other->id != self) {
        Ref<Dovra::Fault::DuplicateName> fault(new Dovra::Fault::DuplicateName());
        fault->SetName(spec.GetName());
        fault->SetObject(ScheduledTaskRef(other->id).Get());
        Raise(fault.Get());
    }
    if (spec.GetIntervalMinutes().IsSet() && spec.GetIntervalMinutes().GetValue() < 1)
        ThrowInvalidArgument("intervalMinutes");
}

// Takes `spec`'s settings, the next run at its runAt (now when it has none), modified by `user` now.
void Configure(ScheduledTaskInfo& info, const ScheduledTaskSpec& spec, const std::string& user) {
    DateTime now = DateTime::Now();
    info.SetName(spec.GetName());
    info.SetDescription(spec.GetDescription());
    info.SetEnabled(spec.IsEnabled());
    info.SetRunAt(spec.GetRunAt());
    info.SetIntervalMinutes(spec.GetIntervalMinutes());
    info.SetNotification(spec.GetNotification());
    info.SetNextRunTime(spec.GetRunAt().IsSet() ? spec.GetRunAt().GetValue() : now);
    info.SetLastModifiedTime(now);
    info.SetLastModifiedUser(user);
}

void LogJob(Context& context, StateTransaction& tx, const std::string& jobId, const std::string& user,
            const std::string& message,
            Morphel::Event::Event::Type type = Morphel::Event::Event::Type::info) {
    Ref<Morphel::Event::GeneralEvent> event(new Morphel::Event::GeneralEvent());
    event->SetMessage(message);
    context.Log(tx, event.Get(), 0, user, type, message, jobId);
}

std::string Named(const ScheduledTaskInfo& info) { return "Scheduled task '" + info.GetName() + "'"; }

// Starts the run of the scheduled task `id` if it is still due at `now`, or records why it skips it; then
// moves its next run on or ends it. The tasks started go to `started`.
void Fire(Context& context, StateTransaction& tx, const std::string& id, DateTime now,
          std::vector<std::string>& started) {
    auto scheduled = tx.FindScheduledTask(id);
    if (!scheduled) return;
    auto due = DueTime(*scheduled->info);
    if (!due || now < *due) return;  // another server came first, or it changed
    auto job = tx.FindJob(scheduled->jobId);
    if (!job) {
        tx.EraseScheduledTask(id);
        return;
    }
    const std::string user = scheduled->info->GetLastModifiedUser();
    const std::string& state = job->info->GetState();
    std::string why;
    if (state == ConversionJobInfo::STATE_SUSPENDED)
        why = "the job is suspended";
    else if (state == ConversionJobInfo::STATE_DEACTIVATED)
        why = "the job is deactivated";
    else if (auto* active = job->info->GetActiveTask())
        why = "the job's task " + active->GetId() + " is still active";
    if (why.empty()) {
        TaskRecord task = StartRun(
            context, tx, *job, user,
            Named(*scheduled->info) + " started a run of conversion job '" + job->spec->GetName() + "'");
        started.push_back(task.id);
        scheduled = tx.FindScheduledTask(id);  // the start of a first run ends the wait for it
        // The base API's task type: the id is the task's, served as a morphel.task.Task.
        scheduled->info->SetActiveTask(RefTo<Dovra::Task>(task.id).Get());
        scheduled->info->SetPrevRunTime(now);
    } else {
        LogJob(context, tx, job->id, user, Named(*scheduled->info) + " skipped a run: " + why,
               Morphel::Event::Event::Type::warning);
    }
    const auto& interval = scheduled->info->GetIntervalMinutes();
    if (interval.IsSet() && interval.GetValue() > 0) {
        int64_t step = int64_t(interval.GetValue()) * kMicrosPerMinute;
        int64_t from = due->GetUtcMicros();
        int64_t runs = (now.GetUtcMicros() - from) / step + 1;
        scheduled->info->SetNextRunTime(DateTime::FromUtcMicros(from + runs * step));
    } else {
        scheduled->info->UnsetNextRunTime();
    }
    tx.PutScheduledTask(*scheduled);
    SetNextRun(tx, *job);
    tx.PutJob(*job);
}

// The scheduler: fails the tasks of servers that ended while they ran them (on a shared database), starts
// what is due, then sleeps until the next due time, a change, the service's stop, or the state's next check.
void RunScheduler(Context& context) {
    uint64_t seen;
    std::chrono::milliseconds wait;
    do {
        seen = context.WakeCount();
        DateTime now = DateTime::Now();
        std::vector<std::string> started;
        std::optional<DateTime> next;
        try {
            context.state->Transact([&](StateTransaction& tx) {
                started.clear();
                for (const auto& id : tx.OrphanedTasks())
                    FailCutOffTask(context, tx, id, false);
                for (const auto& id : tx.DueScheduledTasks(now))
                    Fire(context, tx, id, now, started);
                next = tx.NextDueTime();
            });
        } catch (...) {
            // The store failed (a lost database server, a record it cannot read): try again shortly.
            next = DateTime::FromUtcMicros(now.GetUtcMicros() + 1'000'000);
        }
        for (const auto& id : started)
            LaunchRun(context, id, false);
        const auto longest = context.options.stateCheckInterval;
        wait = longest;
        if (next) {
            int64_t micros = next->GetUtcMicros() - DateTime::Now().GetUtcMicros();
            wait = std::clamp(std::chrono::milliseconds((std::max<int64_t>(micros, 0) + 999) / 1000),
                              std::chrono::milliseconds(0), longest);
        }
    } while (context.Nap(wait, seen));
}

class ScheduledTaskManagerImpl : public Morphel::Task::ScheduledTaskManagerBase {
public:
    explicit ScheduledTaskManagerImpl(Context& context) : context_(context) {}

    // `obj` names the conversion job to run: kodl.fault.InvalidArgument "obj" for none or an unknown one,
    // or for a job that has kMaxScheduledTasksPerJob already.
    void Create(Kitra::MoRef* obj, Morphel::Task::ScheduledTaskSpec* spec,
                Ref<ScheduledTaskInfo>& result) override {
        if (spec == nullptr || spec->GetSpec() == nullptr) ThrowInvalidArgument("spec");
        const std::string user = CurrentSession().GetUserName();
        context_.state->Transact([&](StateTransaction& tx) {
            auto job = obj != nullptr ? tx.FindJob(obj->GetId()) : std::nullopt;
            if (!job || tx.ScheduledTaskIdsOf(job->id).size() >= kMaxScheduledTasksPerJob)
                ThrowInvalidArgument("obj");
            CheckSpec(tx, *spec->GetSpec(), "");
            ScheduledTaskRecord scheduled;
            scheduled.id = "ScheduledTask-" + std::to_string(tx.NextId());
            scheduled.jobId = job->id;
            scheduled.info = new ScheduledTaskInfo();
            scheduled.info->SetKey(scheduled.id);
            Configure(*scheduled.info, *spec->GetSpec(), user);
            Refresh(tx, *scheduled.info);
            tx.PutScheduledTask(scheduled);
            SetNextRun(tx, *job);
            tx.PutJob(*job);
            LogJob(context_, tx, job->id, user, Named(*scheduled.info) + " created");
            result = scheduled.info;  // the state keeps a copy
        });
        context_.Wake();
    }

    void Get(Kitra::MoRef* task, Ref<Morphel::Task::ScheduledTaskInfo>& result) override {
        result = context_.state->Run([&](StateTransaction& tx) {
            ScheduledTaskRecord scheduled = FindScheduledTask(tx, task);
            Refresh(tx, *scheduled.info);
            return Ref<Morphel::Task::ScheduledTaskInfo>(new Morphel::Task::ScheduledTaskInfo(
                scheduled.info.Get(),
                RefTo<Morphel::Server::Conversion::ConversionJob>(scheduled.jobId).Get()));
        });
    }

    // Refused (dovra.fault.InvalidState) while the run it started is active.
    void Reconfigure(Kitra::MoRef* task, ScheduledTaskSpec* spec) override {
        const std::string user = CurrentSession().GetUserName();
        context_.state->Transact([&](StateTransaction& tx) {
            ScheduledTaskRecord scheduled = FindScheduledTask(tx, task);
            if (spec == nullptr) ThrowInvalidArgument("spec");
            Refresh(tx, *scheduled.info);
            if (scheduled.info->GetActiveTask() != nullptr) ThrowInvalidState();
            CheckSpec(tx, *spec, scheduled.id);
            Configure(*scheduled.info, *spec, user);
            Refresh(tx, *scheduled.info);
            tx.PutScheduledTask(scheduled);
            if (auto job = tx.FindJob(scheduled.jobId)) {
                SetNextRun(tx, *job);
                tx.PutJob(*job);
            }
            LogJob(context_, tx, scheduled.jobId, user, Named(*scheduled.info) + " reconfigured");
        });
        context_.Wake();
    }

private:
    Context& context_;
};

}  // namespace

Ref<Kitra::MoRef> ScheduledTaskRef(const std::string& id) {
    return new Kitra::MoRef(Kitra::GetType<Kitra::ManagedObject>()->GetName(), id);
}

ScheduledTaskRecord FindScheduledTask(StateTransaction& tx, const Kitra::MoRef* ref) {
    auto scheduled = ref != nullptr ? tx.FindScheduledTask(ref->GetId()) : std::nullopt;
    if (!scheduled) ThrowNotFound();
    return *scheduled;
}

void SetNextRun(StateTransaction& tx, JobRecord& job) {
    std::optional<DateTime> next;
    for (const auto& id : tx.ScheduledTaskIdsOf(job.id))
        if (auto scheduled = tx.FindScheduledTask(id))
            if (auto due = DueTime(*scheduled->info); due && (!next || *due < *next)) next = due;
    if (next)
        job.info->SetNextRunStartTime(*next);
    else
        job.info->UnsetNextRunStartTime();
}

void ScheduleFirstRun(Context& context, StateTransaction& tx, JobRecord& job, std::optional<DateTime> at,
                      const std::string& user) {
    auto* ref = job.info->GetScheduledTask();
    auto scheduled = ref != nullptr ? tx.FindScheduledTask(ref->GetId()) : std::nullopt;
    if (!at) {
        if (scheduled && scheduled->info->GetNextRunTime().IsSet()) {
            scheduled->info->UnsetNextRunTime();
            tx.PutScheduledTask(*scheduled);
        }
        SetNextRun(tx, job);
        return;
    }
    if (!scheduled) {
        scheduled.emplace();
        scheduled->id = "ScheduledTask-" + std::to_string(tx.NextId());
        scheduled->jobId = job.id;
        scheduled->info = new ScheduledTaskInfo();
        scheduled->info->SetKey(scheduled->id);
        std::string name = "First run of conversion job '" + job.spec->GetName() + "'";
        if (tx.FindScheduledTaskByName(name)) name += " (" + scheduled->id + ")";
        scheduled->info->SetName(name);
        job.info->SetScheduledTask(ScheduledTaskRef(scheduled->id).Get());
    }
    DateTime now = DateTime::Now();
    scheduled->info->SetEnabled(true);
    scheduled->info->SetRunAt(*at);
    scheduled->info->SetNextRunTime(*at);
    scheduled->info->SetLastModifiedTime(now);
    scheduled->info->SetLastModifiedUser(user);
    tx.PutScheduledTask(*scheduled);
    SetNextRun(tx, job);
    context.Wake();
}

void AttachScheduler(Context& context) {
    context.Register(kScheduledTaskManagerId,
                     Ref<ScheduledTaskManagerImpl>(new ScheduledTaskManagerImpl(context)).Get());
    context.Spawn([&context] { RunScheduler(context); });
}

}  // namespace MorphelServer
