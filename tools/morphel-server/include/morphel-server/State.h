// What the reference service keeps between calls - conversion jobs, their tasks and scheduled tasks, the
// event history, the history collectors' positions, the log bundles and a few counters and settings -
// behind one small interface, so that where it lives (memory, a database file, a database server) can
// change without touching the managers.
//
// Every read and write happens inside a transaction (State::Transact). Records go in and come out as
// copies, as they would through a store outside the process: a manager that changes one writes it back
// with its Put before the transaction ends, and may hand out what it read. Events are the exception: an
// appended event is the store's (its caller changes it no more) and SelectEvents hands out the stored
// ones to read, not to change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <dovra/scheduler/types.h>
#include <fundix/Ref.h>
#include <fundix/System/DateTime.h>
#include <kitra/Any.h>
#include <kitra/Http.h>
#include <morphel/event/types.h>
#include <morphel/server/conversion/types.h>
#include <morphel/task/types.h>

namespace MorphelServer {

// A task of a conversion job, or a task of its own (createTask), with what its simulated run needs.
struct TaskRecord {
    std::string id;
    std::string jobId;  // empty for a task of its own
    Fundix::Ref<Morphel::Task::TaskInfo> info;
    std::vector<std::string> disks;             // the source disks the run copies, in order
    std::string vmName;                         // the machine the run makes
    Fundix::Ref<Morphel::Task::TaskSpec> spec;  // what a task of its own converts; null for a job's
    int64_t runner = 0;  // the process that runs it (State::Runner); kept while it is queued or running
};

struct JobRecord {
    std::string id;
    Fundix::Ref<Morphel::Server::Conversion::ConversionJobInfo> info;
    Fundix::Ref<Morphel::Server::Conversion::ConversionJobSpec> spec;
    Fundix::Ref<Kitra::Any> extraInfo;  // null when the client gave none
};

// What a history collector pages over: events, tasks or conversion jobs.
enum class CollectorKind { event, task, job };

// Where a history collector stands. Its view lies between the items it has passed (keys up to `after`)
// and those it has not; keys only grow (an event's key, the number of a task's or a job's id), so the
// position holds when old items are dropped, and a collector whose unread items were dropped goes on from
// the oldest item kept.
struct CollectorRecord {
    CollectorKind kind = CollectorKind::event;
    // The filter the collector was created with, of the kind's filter type (EventFilterSpec,
    // TaskFilterSpec, JobFilterSpec); never null.
    Fundix::Ref<Kitra::Any> filter;
    int64_t after = 0;  // the key of the last item before the view; 0: before every item
    int32_t pageSize = 10;
    std::string owner;  // the key of the session that created it
};

// A scheduled run of a conversion job: when it runs next and what it last started.
struct ScheduledTaskRecord {
    std::string id;  // ScheduledTask-<n>
    std::string jobId;
    Fundix::Ref<Dovra::Scheduler::ScheduledTaskInfo> info;  // never null
};

// When `info` is due: its next run time while it is enabled; none otherwise.
inline std::optional<Fundix::System::DateTime> DueTime(const Dovra::Scheduler::ScheduledTaskInfo& info) {
    if (!info.IsEnabled() || !info.GetNextRunTime().IsSet()) return std::nullopt;
    return info.GetNextRunTime().GetValue();
}
// ---- Log bundles
// A log bundle as the diagnostic manager made it: the zip's bytes and what describes them.
struct LogBundleRecord {
    std::string key;
    Fundix::Ref<Kitra::Any> info;  // a morphel.DiagnosticManager.TaskLogBundleInfo; never null
    std::string data;              // the zip's bytes
    std::string taskId;            // the task it was made for; empty for the server's log
    bool failedLogins = false;     // whether it holds failed logins (read only by accounts that read them)
};
// ---- End of log bundles

// One transaction's view of the state.
class StateTransaction {
public:
    virtual ~StateTransaction() = default;

    // One sequence numbers jobs, tasks, collectors and log bundles; another the event chains.
    virtual int64_t NextId() = 0;
    virtual int32_t NextChainId() = 0;

    // The task manager's setting: how many tasks recentTask lists.
    virtual int32_t GetMaxTask() = 0;
    virtual void SetMaxTask(int32_t maxTask) = 0;

    // Appends `event` to the history with the next key (1, 2, ...), which it sets and returns.
    virtual int32_t AppendEvent(Morphel::Event::Event* event) = 0;
    // The events that `filter` selects (all for null), oldest first.
    virtual std::vector<Fundix::Ref<Morphel::Event::Event>> SelectEvents(
        const Morphel::Event::EventFilterSpec* filter) = 0;
    // Drops the oldest events (by key) while more than `keep` are kept or the oldest was created before
    // `before`; returns how many went.
    virtual size_t DropEvents(size_t keep, Fundix::System::DateTime before) = 0;

    // What the state holds, by identifier: a service attached to a state that already holds jobs, tasks
    // and collectors (a restart) serves them again.
    virtual std::vector<std::string> JobIds() = 0;
    virtual std::vector<std::string> TaskIds() = 0;
    virtual std::vector<std::string> CollectorIds() = 0;

    virtual std::optional<JobRecord> FindJob(const std::string& id) = 0;
    virtual std::optional<JobRecord> FindJobByName(const std::string& name) = 0;
    virtual void PutJob(const JobRecord& job) = 0;  // adds or replaces by id
    virtual bool EraseJob(const std::string& id) = 0;

    virtual std::optional<TaskRecord> FindTask(const std::string& id) = 0;
    virtual void PutTask(const TaskRecord& task) = 0;
    // The most recent tasks, oldest first; AddRecentTask keeps the latest `keep` of them.
    virtual std::vector<std::string> RecentTasks() = 0;
    virtual void AddRecentTask(const std::string& id, size_t keep) = 0;

    virtual std::optional<CollectorRecord> FindCollector(const std::string& id) = 0;
    virtual size_t CountCollectors() = 0;
    // The collectors the session with the key `owner` created.
    virtual std::vector<std::string> CollectorIdsOf(const std::string& owner) = 0;
    virtual void PutCollector(const std::string& id, const CollectorRecord& collector) = 0;
    virtual bool EraseCollector(const std::string& id) = 0;

    // ---- Scheduled runs, and tasks that go
    virtual std::vector<std::string> ScheduledTaskIds() = 0;
    virtual std::vector<std::string> ScheduledTaskIdsOf(const std::string& jobId) = 0;
    virtual std::optional<ScheduledTaskRecord> FindScheduledTask(const std::string& id) = 0;
    virtual std::optional<ScheduledTaskRecord> FindScheduledTaskByName(const std::string& name) = 0;
    virtual void PutScheduledTask(const ScheduledTaskRecord& task) = 0;  // adds or replaces by id
    virtual bool EraseScheduledTask(const std::string& id) = 0;
    // The scheduled tasks due (DueTime) at `time` or before, earliest first; the earliest due time of all.
    virtual std::vector<std::string> DueScheduledTasks(Fundix::System::DateTime time) = 0;
    virtual std::optional<Fundix::System::DateTime> NextDueTime() = 0;
    // Erases the task and drops it from the recent tasks; its events stay.
    virtual bool EraseTask(const std::string& id) = 0;
    // The tasks queued or running in a process that has the state open no more (it ended while they ran),
    // where several processes share the state; none where the state has one process.
    virtual std::vector<std::string> OrphanedTasks() { return {}; }
    // ---- Log bundles: kept by key, oldest first.
    virtual void PutLogBundle(const LogBundleRecord& bundle) = 0;  // adds one with a new key
    virtual std::optional<LogBundleRecord> FindLogBundle(const std::string& key) = 0;
    virtual std::vector<std::string> LogBundleKeys() = 0;  // oldest first
    virtual bool EraseLogBundle(const std::string& key) = 0;
    // ---- End of log bundles
};

class State {
public:
    virtual ~State() = default;

    // Runs `work` with the state to itself: no other transaction sees its changes half made. A store kept
    // outside the process commits when `work` returns and keeps nothing of a `work` that throws; the
    // in-memory store applies each change as it is made, so `work` raises its faults before it changes
    // anything.
    virtual void Transact(const std::function<void(StateTransaction&)>& work) = 0;

    // Whether another process has this state open now (a database several servers share); a server that
    // starts fails the tasks left queued or running only when none has: they may still be running there.
    virtual bool OpenElsewhere() { return false; }
    // This process among those that share the state (a number none had before); 0 where the state has one
    // process. A task records the process that runs it, so that others can tell when it ended.
    virtual int64_t Runner() { return 0; }

    // Transact for a `work` that returns a value.
    template <class F>
    auto Run(F&& work) -> std::invoke_result_t<F&, StateTransaction&> {
        using R = std::invoke_result_t<F&, StateTransaction&>;
        if constexpr (std::is_void_v<R>) {
            Transact(work);
        } else {
            std::optional<R> result;
            Transact([&](StateTransaction& tx) { result.emplace(work(tx)); });
            return std::move(*result);
        }
    }
};

// The state in memory, lost when the process ends.
std::unique_ptr<State> NewMemoryState();

struct SqliteOptions {
    // The API version records are written in; each is read back in the version it was written in.
    std::string version = "morphel.version.version4";
    // Each commit reaches the disk before Transact returns (synchronous FULL): what was acknowledged
    // survives a crash of the process and of the machine. False syncs at checkpoints only (NORMAL): a
    // crash of the process loses nothing, a power loss may lose the last commits.
    bool syncEachCommit = true;
};

// The state in the SQLite database `path` (created when missing), written ahead to a log. Throws
// std::runtime_error naming the file when it cannot be opened, is no state database, was written by a
// newer server, or is held by another process.
std::unique_ptr<State> NewSqliteState(const std::string& path, const SqliteOptions& options = {});

struct PostgresOptions {
    // The API version records are written in; each is read back in the version it was written in.
    std::string version = "morphel.version.version4";
};

// The state in the PostgreSQL database `conninfo` names (a postgresql:// URI or key=value pairs), with the
// same tables and record encoding as the SQLite store; the tables are created when missing. Several
// processes may use one database at once: their transactions run one after another. Throws
// std::runtime_error naming the server (host, port, database, user; never the password) when it cannot
// be reached, holds no state database or was written by a newer server.
std::unique_ptr<State> NewPostgresState(const std::string& conninfo, const PostgresOptions& options = {});

// The HTTP sessions in the database of NewPostgresState (which creates their table), so that a client
// logged in through one server is known to every other server on it. Throws like NewPostgresState.
std::shared_ptr<Kitra::Http::SessionStore> NewPostgresSessionStore(const std::string& conninfo,
                                                                   const Kitra::Http::SessionLimits& limits);

// Whether `database` names a PostgreSQL database (postgresql:// or postgres://) rather than a file.
bool IsPostgresUri(const std::string& database);
// The server, port, database and user `conninfo` names, for messages: never its password.
std::string DescribePostgres(const std::string& conninfo);

}  // namespace MorphelServer
