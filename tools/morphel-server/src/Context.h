// What every manager of the service shares: the options, the machine it describes, the state store, the
// server its objects are registered with, and the threads of the simulated conversions. Private to the
// server library.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <dovra/types.h>
#include <fundix/Ref.h>
#include <kitra/Http.h>
#include <kitra/Kitra.h>
#include <morphel-server/Machine.h>
#include <morphel-server/Service.h>
#include <morphel-server/State.h>
#include <morphel/event/types.h>
#include <morphel/params/types.h>
#include <morphel/types.h>

namespace MorphelServer {

// A reference to the object `id` of the managed type `T`.
template <class T>
Fundix::Ref<Kitra::MoRef> RefTo(const std::string& id) {
    return new Kitra::MoRef(Kitra::GetType<T>()->GetName(), id);
}

// Descriptions of elements (a task's method, a state, an event type), each a key, a label and a summary.
Fundix::Ref<Kitra::DataArray<Dovra::ElementDescription>> Descriptions(
    const std::vector<std::array<std::string, 3>>& rows);

// Raises `fault` as its own exception class.
[[noreturn]] void Raise(Fundix::Ref<Kitra::MethodFault> fault);
[[noreturn]] void ThrowInvalidArgument(const std::string& property);  // kodl.fault.InvalidArgument
[[noreturn]] void ThrowNotFound();                                    // dovra.fault.NotFound
[[noreturn]] void ThrowInvalidState();                                // dovra.fault.InvalidState

// How many history collectors one session may hold at once, of every kind together. A session's collectors
// end with it (logout, expiry, terminate); those of sessions that ended with a previous run of the server are
// dropped at start.
inline constexpr int32_t kMaxCollectors = 32;

// Raises morphel.fault.NoHostConnection unless `source` names `machine` as a live computer (by its host
// name, localhost or a loopback address); kodl.fault.InvalidArgument "source" for none (Query.cpp).
void CheckSource(const Machine& machine, Morphel::ComputerSpec* source);

// The caller's session; dovra.fault.NotAuthenticated when it has none.
Kitra::Http::Session& CurrentSession();

// Copies of `events` from `begin` to `end` (backwards: from `end` down), as a page to hand out.
Fundix::Ref<Kitra::DataArray<Morphel::Event::Event>> Page(
    const std::vector<Fundix::Ref<Morphel::Event::Event>>& events, size_t begin, size_t end,
    bool backwards = false);

class Context {
public:
    explicit Context(ServiceOptions options);
    // Stops and joins the simulated conversions.
    ~Context();

    ServiceOptions options;  // with the default account and state filled in
    const Machine machine;
    const std::string instanceUuid;
    AccountBook accounts;
    std::shared_ptr<State> state;
    Kitra::Http::Server* server = nullptr;

    void Register(const std::string& id, Kitra::ManagedObject* implementation) {
        server->Register(id, implementation);
    }
    void Unregister(const std::string& id) { server->Unregister(id); }

    // Records `event` with the next key, the current time, `chainId` (a new chain for 0) and the job, and
    // drops the events past the limits of the options.
    void Log(StateTransaction& tx, Morphel::Event::Event* event, int32_t chainId, const std::string& userName,
             Morphel::Event::Event::Type type, const std::string& message, const std::string& jobId = "");
    void Log(Morphel::Event::Event* event, int32_t chainId, const std::string& userName,
             Morphel::Event::Event::Type type, const std::string& message);
    // A TaskEvent carrying a copy of the task's record.
    void LogTask(StateTransaction& tx, const TaskRecord& task, const std::string& message,
                 Morphel::Event::Event::Type type = Morphel::Event::Event::Type::info);

    // Runs `work` on a thread of its own unless the service is stopping (then false). The work waits with
    // Sleep, which answers false once the service stops.
    bool Spawn(std::function<void()> work);
    bool Sleep(std::chrono::milliseconds duration);
    bool Stopping();
    // The scheduler's wait: like Sleep, but it also ends (true) once Wake has been called (as a schedule
    // changes) since WakeCount answered `seen`.
    bool Nap(std::chrono::milliseconds duration, uint64_t seen);
    uint64_t WakeCount();
    void Wake();

private:
    std::mutex mutex_;
    std::condition_variable stopping_;
    bool stop_ = false;
    uint64_t wakes_ = 0;
    // A finished thread is joined when the next starts.
    struct Worker {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };
    std::vector<Worker> workers_;
};

// Each attaches one manager to `context.server`, with the objects of the state it serves (jobs, tasks,
// collectors already in the state) and those it creates later.
void AttachRoot(Context& context);
void AttachSessions(Context& context);
void AttachQueries(Context& context);
void AttachConversions(Context& context);
void AttachTasks(Context& context);
void AttachEvents(Context& context);
void AttachDiagnostics(Context& context);
// The scheduled task manager, and the scheduler's thread (Scheduler.cpp).
void AttachScheduler(Context& context);

// Ends the simulated conversion of the task `taskId` as cancelled when it is queued or running (false
// otherwise): the task in the error state, cancelled, with a morphel.agent.internal.fault.Cancel; its job
// without an active task, the cancel as its most recent error. The run's thread stops at its next step
// (Conversion.cpp).
bool CancelConversion(Context& context, StateTransaction& tx, const std::string& taskId);

// Fails the task `id` if it is queued or running, cut off by the end of the process that ran it: state
// error, a morphel.fault.CloneFault (kInterruptedTask when this server `restarted`, else kOrphanedTask),
// its job's active task cleared and the failure counted and recorded (Conversion.cpp).
void FailCutOffTask(Context& context, StateTransaction& tx, const std::string& id, bool restarted);

// ---- Runs of jobs (Conversion.cpp) and scheduled runs (Scheduler.cpp)

// A new task converting with `params` into a machine named after the target (else `name`), queued by
// `user` in an event chain of its own; neither kept nor started (QueueTask does both).
TaskRecord NewTask(Context& context, StateTransaction& tx, const std::string& jobId,
                   const Morphel::Params::ConversionParams* params, const std::string& name,
                   const std::string& user, const std::string& descriptionId);
// Keeps `task`, lists it among the recent tasks and records it queued. Its run starts with LaunchRun once
// the transaction has committed.
void QueueTask(Context& context, StateTransaction& tx, const TaskRecord& task);
// Starts a run of `job` for `user`: a new task queued as its active task, its last run started now. A
// job's first run is described as its createJob, later ones as scheduled. `announce`, when not empty, is
// recorded against the job in the task's chain before the task is queued. The caller puts the job.
TaskRecord StartRun(Context& context, StateTransaction& tx, JobRecord& job, const std::string& user,
                    const std::string& announce = "");
// Starts the simulated conversion of a task that QueueTask kept, on a thread of its own, and registers the
// task unless the caller may outlive the server (the scheduler: the server's resolver serves it then).
void LaunchRun(Context& context, const std::string& taskId, bool registerTask = true);
// Whether a task is queued or running.
bool IsActive(const Morphel::Task::TaskInfo& info);

// A reference to the scheduled task `id` (it has no managed type of its own).
Fundix::Ref<Kitra::MoRef> ScheduledTaskRef(const std::string& id);
// The scheduled task that `ref` names; dovra.fault.NotFound for none or an unknown one.
ScheduledTaskRecord FindScheduledTask(StateTransaction& tx, const Kitra::MoRef* ref);
// Makes the job's first run wait for `at` (its scheduled task made, or moved when it has one), or, for
// none, ends that wait. Sets the job's scheduledTask and next run; the caller puts the job.
void ScheduleFirstRun(Context& context, StateTransaction& tx, JobRecord& job,
                      std::optional<Fundix::System::DateTime> at, const std::string& user);
// Sets the job's nextRunStartTime: the earliest due time of its scheduled tasks (none without).
void SetNextRun(StateTransaction& tx, JobRecord& job);

// Register the object of a job (Conversion.cpp), a task (Tasks.cpp) or a history collector of `kind`
// (History.cpp) that the state holds.
// Each returns the object it registered.
Fundix::Ref<Kitra::ManagedObject> RegisterJob(Context& context, const std::string& id);
Fundix::Ref<Kitra::ManagedObject> RegisterTask(Context& context, const std::string& id);
Fundix::Ref<Kitra::ManagedObject> RegisterCollector(Context& context, const std::string& id,
                                                    CollectorKind kind);

// History collectors (History.cpp), each the caller's session's: at most kMaxCollectors for each session,
// of every kind together (dovra.fault.InvalidState past them). `filter` is the kind's filter type, never
// null.
Fundix::Ref<Kitra::MoRef> CreateCollector(Context& context, CollectorKind kind,
                                          Fundix::Ref<Kitra::Any> filter);
// Tasks by creation, as `filter` selects them (all for null); kodl.fault.InvalidArgument for a filter that
// cannot select.
Fundix::Ref<Kitra::MoRef> CreateTaskCollector(Context& context, Morphel::Task::TaskFilterSpec* filter);
// Conversion jobs by creation, as `filter` selects them (all for null); kodl.fault.InvalidArgument
// "filter.timeRange.timeType" for a time no job has.
Fundix::Ref<Kitra::MoRef> CreateJobCollector(Context& context, Morphel::Server::Job::JobFilterSpec* filter);

// The events `filter` selects (all for null), oldest first, without failed logins unless `failedLogins`
// (Events.cpp). Failed logins name what strangers tried: only accounts that may end others' sessions
// (Sessions.TerminateSession) read them.
std::vector<Fundix::Ref<Morphel::Event::Event>> ReadableEvents(StateTransaction& tx,
                                                               const Morphel::Event::EventFilterSpec* filter,
                                                               bool failedLogins);
// Whether the caller's account reads failed logins.
bool ReadsFailedLogins(Context& context);
// Ends the collectors of the session `key` (Events.cpp).
void EndCollectorsOf(Context& context, const std::string& key);

}  // namespace MorphelServer
