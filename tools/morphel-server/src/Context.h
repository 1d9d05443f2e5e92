// What every manager of the service shares: the options, the machine it describes, the state store, the
// server its objects are registered with, and the threads of the simulated conversions. Private to the
// server library.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fundix/Ref.h>
#include <kitra/Http.h>
#include <kitra/Kitra.h>
#include <morphel-server/Machine.h>
#include <morphel-server/Service.h>
#include <morphel-server/State.h>
#include <morphel/event/types.h>
#include <morphel/types.h>

namespace MorphelServer {

// A reference to the object `id` of the managed type `T`.
template <class T>
Fundix::Ref<Kitra::MoRef> RefTo(const std::string& id) {
    return new Kitra::MoRef(Kitra::GetType<T>()->GetName(), id);
}

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

private:
    std::mutex mutex_;
    std::condition_variable stopping_;
    bool stop_ = false;
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

// Ends the simulated conversion of the task `taskId` as cancelled when it is queued or running (false
// otherwise): the task in the error state, cancelled, with a morphel.agent.internal.fault.Cancel; its job
// without an active task, the cancel as its most recent error. The run's thread stops at its next step
// (Conversion.cpp).
bool CancelConversion(Context& context, StateTransaction& tx, const std::string& taskId);

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
