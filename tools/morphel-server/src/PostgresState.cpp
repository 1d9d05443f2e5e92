// The state in a PostgreSQL database, which several server processes may share. Records are kept as in the
// SQLite store (StoreEncoding.h): their wire form beside the API version they were written in.
//
// Concurrency: each transaction first takes one transaction-scoped advisory lock, so the transactions of
// every process on the database run one after another, as they do in one process over SQLite; a `work`
// never runs twice and the counters (settings rows, read and raised under the lock) never hand out a
// number twice. The lock goes with the transaction's commit or rollback, and with its connection.
//
// Events never change once appended, so each process keeps them decoded in memory too: at the start of a
// transaction it reads the events appended since its last one and forgets those another process dropped.
#include <libpq-fe.h>

#include <chrono>
#include <cstddef>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <unordered_map>

#include <morphel-server/State.h>

#include "EventCache.h"
#include "StoreEncoding.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;
using Morphel::Event::Event;

// The same tables as the SQLite store's, in PostgreSQL's words; a later version appends its step.
const char* const kSchemaSteps[] = {
    // 1
    "CREATE TABLE settings (name TEXT PRIMARY KEY, value BIGINT NOT NULL);"
    "INSERT INTO settings VALUES ('nextId', 1), ('nextChainId', 1), ('nextEventKey', 1), ('maxTask', 100);"
    "CREATE TABLE jobs (id TEXT PRIMARY KEY, name TEXT NOT NULL, version TEXT NOT NULL, info TEXT NOT NULL,"
    " spec TEXT NOT NULL, extraInfo TEXT);"
    "CREATE INDEX jobsByName ON jobs (name);"
    "CREATE TABLE tasks (id TEXT PRIMARY KEY, jobId TEXT NOT NULL, version TEXT NOT NULL, info TEXT NOT NULL,"
    " disks BYTEA NOT NULL, vmName TEXT NOT NULL);"
    "CREATE TABLE recentTasks (position BIGINT GENERATED ALWAYS AS IDENTITY PRIMARY KEY, taskId TEXT NOT "
    "NULL);"
    "CREATE TABLE events (key INTEGER PRIMARY KEY, createdTime BIGINT NOT NULL, version TEXT NOT NULL,"
    " event TEXT NOT NULL);"
    "CREATE TABLE collectors (id TEXT PRIMARY KEY, owner TEXT NOT NULL, version TEXT NOT NULL,"
    " filter TEXT NOT NULL, after INTEGER NOT NULL, pageSize INTEGER NOT NULL);"
    "CREATE INDEX collectorsByOwner ON collectors (owner);"
    // The HTTP sessions of every server on the database; times in microseconds of the wall clock.
    "CREATE TABLE sessions (key TEXT PRIMARY KEY, userName TEXT NOT NULL, vals BYTEA NOT NULL,"
    " opened BIGINT NOT NULL, used BIGINT NOT NULL);"
    "CREATE INDEX sessionsByUser ON sessions (userName);",
    // 2: scheduled runs (due: the next run time in microseconds while enabled), tasks of their own
    "CREATE TABLE scheduledTasks (id TEXT PRIMARY KEY, jobId TEXT NOT NULL, name TEXT NOT NULL, due BIGINT,"
    " version TEXT NOT NULL, info TEXT NOT NULL);"
    "CREATE INDEX scheduledTasksByJob ON scheduledTasks (jobId);"
    "CREATE INDEX scheduledTasksByName ON scheduledTasks (name);"
    "CREATE INDEX scheduledTasksByDue ON scheduledTasks (due);"
    "ALTER TABLE tasks ADD COLUMN spec TEXT;",
    // 3: collectors of tasks and jobs beside those of events (placed by a task's or a job's number); log
    // bundles, oldest first.
    "ALTER TABLE collectors ADD COLUMN kind TEXT NOT NULL DEFAULT 'event';"
    "ALTER TABLE collectors ALTER COLUMN after TYPE BIGINT;"
    "CREATE TABLE logBundles (position BIGINT GENERATED ALWAYS AS IDENTITY PRIMARY KEY, key TEXT NOT NULL"
    " UNIQUE, taskId TEXT NOT NULL, failedLogins BOOLEAN NOT NULL, version TEXT NOT NULL, info TEXT NOT NULL,"
    " data BYTEA NOT NULL);",
    // 4: the process running a task while it is queued or running (a number from `runners`)
    "CREATE SEQUENCE runners;"
    "ALTER TABLE tasks ADD COLUMN runner BIGINT;"
    "CREATE INDEX tasksByRunner ON tasks (runner);",
};
constexpr int64_t kSchemaVersion = int64_t(std::size(kSchemaSteps));

// Every transaction begins by taking an advisory lock (an arbitrary number of this store's own), in one
// round trip.
const char kBegin[] = "BEGIN; SELECT pg_advisory_xact_lock(7262733206)";
// Sessions are changed under a lock of their own.
const char kBeginSessions[] = "BEGIN; SELECT pg_advisory_xact_lock(7262733208)";
// Every process holds this one shared while it has the state open; it goes with its connection, so a
// process that ended, however, holds it no more.
const char kOpenLock[] = "SELECT pg_advisory_lock_shared(7262733207)";
const char kTryAlone[] = "SELECT pg_try_advisory_lock(7262733207)";
const char kUnlockAlone[] = "SELECT pg_advisory_unlock(7262733207)";
// Each process holds a lock of its own, keyed by its runner number, while it has the state open: another
// that takes it learns that the process ended, however it ended.
const char kRunnerLocks[] = "72627332";
const char kTryRunner[] = "SELECT pg_try_advisory_lock(72627332, $1::int)";
const char kUnlockRunner[] = "SELECT pg_advisory_unlock(72627332, $1::int)";

// The server a connection string names, for messages: never the password. Null for a string libpq cannot
// read (its message may quote any part of it).
std::optional<std::string> Describe(const std::string& conninfo) {
    char* error = nullptr;
    PQconninfoOption* options = PQconninfoParse(conninfo.c_str(), &error);
    PQfreemem(error);
    if (options == nullptr) return std::nullopt;
    std::string host = "localhost", port, db, user;
    for (PQconninfoOption* o = options; o->keyword != nullptr; ++o) {
        if (o->val == nullptr || *o->val == 0) continue;
        std::string keyword = o->keyword;
        if (keyword == "host" || (keyword == "hostaddr" && host == "localhost")) host = o->val;
        if (keyword == "port") port = o->val;
        if (keyword == "dbname") db = o->val;
        if (keyword == "user") user = o->val;
    }
    PQconninfoFree(options);
    return "PostgreSQL server " + host + (port.empty() ? "" : ":" + port) +
           (db.empty() ? "" : " database " + db) + (user.empty() ? "" : " as " + user);
}

// libpq's messages, on one line: they end with a line break and may go on on another.
std::string Trimmed(const char* message) {
    std::string text;
    for (const char* c = message != nullptr ? message : ""; *c != 0; ++c) {
        bool space = *c == '\n' || *c == '\t' || *c == ' ';
        if (!space)
            text += *c;
        else if (!text.empty() && text.back() != ' ')
            text += ' ';
    }
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return text;
}

// A connection to the server, one user at a time, with its statements' helpers.
class Connection {
public:
    // `setup` runs on each connection, the first and those after a loss.
    Connection(const std::string& conninfo, std::vector<std::string> setup)
        : connection_(Connect(conninfo), &PQfinish),
          conn_(connection_.get()),
          where_(*Describe(conninfo)),
          setup_(std::move(setup)) {
        if (conn_ == nullptr) throw std::runtime_error(where_ + ": cannot be reached: out of memory");
        if (PQstatus(conn_) != CONNECTION_OK)
            throw std::runtime_error(where_ + ": cannot be reached: " + Trimmed(PQerrorMessage(conn_)));
        for (const auto& sql : setup_)
            Exec(sql.c_str());
    }

protected:
    static PGconn* Connect(const std::string& conninfo) {
        if (!Describe(conninfo))
            throw std::runtime_error("PostgreSQL server: the connection string is malformed");
        return PQconnectdb(conninfo.c_str());
    }

    using Result = std::unique_ptr<PGresult, decltype(&PQclear)>;

    // Connects again once the connection is known lost (its settings and locks went with it); true when
    // it is back.
    bool Reconnect() {
        if (PQstatus(conn_) == CONNECTION_OK || reconnecting_) return false;
        reconnecting_ = true;
        PQreset(conn_);
        prepared_.clear();
        bool back = PQstatus(conn_) == CONNECTION_OK;
        try {
            for (const auto& sql : setup_)
                if (back) Exec(sql.c_str());
        } catch (...) {
            back = false;
        }
        reconnecting_ = false;
        return back;
    }
    // Sends a statement; one sent outside a transaction that meets a lost connection (a server restarted
    // since the last) is sent once more on a new one: the statements sent so are safe to repeat.
    template <class F>
    Result Send(const char* sql, F send) {
        bool idle = PQtransactionStatus(conn_) == PQTRANS_IDLE;
        Result r(send(), &PQclear);
        if (!Ok(r) && idle && PQstatus(conn_) == CONNECTION_BAD && Reconnect()) r = Result(send(), &PQclear);
        if (!Ok(r)) Fail(sql);
        return r;
    }
    static bool Ok(const Result& r) {
        auto status = PQresultStatus(r.get());
        return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
    }

    // Runs `body` in a transaction `begin` begins (under its lock); rolls back when it throws.
    template <class F>
    void InTransaction(F&& body, const char* begin = kBegin) {
        try {
            Exec(begin);
            body();
            Exec("COMMIT");
        } catch (...) {
            Result(PQexec(conn_, "ROLLBACK"), &PQclear);
            throw;
        }
    }

    [[noreturn]] void Fail(const std::string& what) {
        throw std::runtime_error(where_ + ": " + Trimmed(PQerrorMessage(conn_)) + " (" + what + ")");
    }
    void Exec(const char* sql) {
        Send(sql, [&] { return PQexec(conn_, sql); });
    }
    // A statement with text parameters ($1, ...); a parameter in `binary` goes as bytes (a bytea).
    Result Query(const char* sql, const std::vector<std::optional<std::string>>& params, int binary = -1) {
        std::vector<const char*> values;
        std::vector<int> lengths, formats;
        for (size_t i = 0; i < params.size(); ++i) {
            values.push_back(params[i] ? params[i]->c_str() : nullptr);
            lengths.push_back(params[i] ? int(params[i]->size()) : 0);
            formats.push_back(int(i) == binary ? 1 : 0);
        }
        // Each statement is prepared once a connection, and planned no more each time.
        return Send(sql, [&]() -> PGresult* {
            auto it = prepared_.find(sql);
            if (it == prepared_.end()) {
                std::string name = "s" + std::to_string(prepared_.size());
                Result prepared(PQprepare(conn_, name.c_str(), sql, int(params.size()), nullptr), &PQclear);
                if (!Ok(prepared)) return prepared.release();
                it = prepared_.emplace(sql, name).first;
            }
            return PQexecPrepared(conn_, it->second.c_str(), int(params.size()), values.data(),
                                  lengths.data(), formats.data(), 0);
        });
    }
    static std::string Text(const Result& r, int row, int column) {
        return std::string(PQgetvalue(r.get(), row, column), size_t(PQgetlength(r.get(), row, column)));
    }
    static int64_t Int(const Result& r, int row, int column) { return std::stoll(Text(r, row, column)); }
    static bool IsNull(const Result& r, int row, int column) {
        return PQgetisnull(r.get(), row, column) != 0;
    }
    static std::string Bytes(const Result& r, int row, int column) {
        size_t length = 0;
        unsigned char* bytes = PQunescapeBytea(
            reinterpret_cast<const unsigned char*>(PQgetvalue(r.get(), row, column)), &length);
        if (bytes == nullptr) throw std::runtime_error("malformed bytes");
        std::string out(reinterpret_cast<const char*>(bytes), length);
        PQfreemem(bytes);
        return out;
    }
    static bool Changed(const Result& r) { return std::string(PQcmdTuples(r.get())) != "0"; }

    std::unique_ptr<PGconn, decltype(&PQfinish)> connection_;
    PGconn* const conn_;
    const std::string where_;
    std::vector<std::string> setup_;
    bool reconnecting_ = false;
    std::unordered_map<const char*, std::string> prepared_;  // names, by the address of the statement's text
};

class PostgresState : public State, private Connection, private StateTransaction {
public:
    PostgresState(const std::string& conninfo, const PostgresOptions& options)
        : Connection(conninfo, {"SET client_min_messages = warning", kOpenLock}),
          codec_(where_, options.version) {
        InTransaction([&] {
            Exec("CREATE TABLE IF NOT EXISTS schemaVersion (version BIGINT NOT NULL)");
            Result read = Query("SELECT version FROM schemaVersion", {});
            int64_t version = PQntuples(read.get()) != 0 ? Int(read, 0, 0) : 0;
            MigrateSchema(where_, version, kSchemaSteps, [&](const char* sql) { Exec(sql); });
            if (PQntuples(read.get()) == 0) Exec("INSERT INTO schemaVersion VALUES (0)");
            Query("UPDATE schemaVersion SET version = $1", {std::to_string(kSchemaVersion)});
        });
        runner_ = Int(Query("SELECT nextval('runners')", {}), 0, 0);
        setup_.push_back("SELECT pg_advisory_lock(" + std::string(kRunnerLocks) + ", " +
                         std::to_string(runner_) + ")");
        Exec(setup_.back().c_str());
    }

    void Transact(const std::function<void(StateTransaction&)>& work) override {
        std::lock_guard<std::mutex> lock(mutex_);
        try {
            InTransaction([&] {
                ReadNewEvents();
                work(*this);
            });
        } catch (...) {
            events_.Rollback();
            throw;
        }
        events_.Commit();
        if (!events_.Committed().empty()) lastKey_ = events_.Committed().back()->GetKey();
    }

    int64_t Runner() override { return runner_; }

    bool OpenElsewhere() override {
        std::lock_guard<std::mutex> lock(mutex_);
        Result r = Query(kTryAlone, {});
        if (Text(r, 0, 0) != "t") return true;
        Exec(kUnlockAlone);
        return false;
    }

private:
    // Brings the cache to what the database holds: forgets the events dropped since, reads those appended.
    void ReadNewEvents() {
        // One row at least: the oldest key (null when none), and the new events if any.
        Result r = Query(
            "SELECT oldest.key, e.key, e.version, e.event FROM (SELECT min(key) AS key FROM events) oldest"
            " LEFT JOIN events e ON e.key > $1 ORDER BY e.key",
            {std::to_string(lastKey_)});
        int64_t first = IsNull(r, 0, 0) ? INT64_MAX : Int(r, 0, 0);
        while (!events_.Committed().empty() && events_.Committed().front()->GetKey() < first)
            events_.Committed().pop_front();
        for (int row = 0; row < PQntuples(r.get()); ++row)
            if (!IsNull(r, row, 1))
                events_.Committed().push_back(
                    codec_.Decode<Event>(Text(r, row, 2), Text(r, row, 3), "event " + Text(r, row, 1)));
        if (!events_.Committed().empty()) lastKey_ = events_.Committed().back()->GetKey();
    }

    int64_t Count(const char* name) {
        Result r = Query("UPDATE settings SET value = value + 1 WHERE name = $1 RETURNING value - 1", {name});
        if (PQntuples(r.get()) == 0)
            throw std::runtime_error(where_ + ": the counter " + name + " is missing");
        return Int(r, 0, 0);
    }

    // ---- StateTransaction

    int64_t NextId() override { return Count("nextId"); }
    int32_t NextChainId() override { return int32_t(Count("nextChainId")); }
    int32_t GetMaxTask() override {
        Result r = Query("SELECT value FROM settings WHERE name = 'maxTask'", {});
        return PQntuples(r.get()) != 0 ? int32_t(Int(r, 0, 0)) : 100;
    }
    void SetMaxTask(int32_t maxTask) override {
        Query("UPDATE settings SET value = $1 WHERE name = 'maxTask'", {std::to_string(maxTask)});
    }

    int32_t AppendEvent(Event* event) override {
        int32_t key = int32_t(Count("nextEventKey"));
        event->SetKey(key);
        Query("INSERT INTO events (key, createdTime, version, event) VALUES ($1, $2, $3, $4)",
              {std::to_string(key), std::to_string(event->GetCreatedTime().GetUtcMicros()), codec_.Version(),
               codec_.Encode(event)});
        events_.Append(event);
        return key;
    }
    std::vector<Ref<Event>> SelectEvents(const Morphel::Event::EventFilterSpec* filter) override {
        return events_.Select(filter);
    }
    size_t DropEvents(size_t keep, Fundix::System::DateTime before) override {
        int32_t last = 0;
        size_t dropped = events_.Drop(keep, before, last);
        if (dropped != 0) Query("DELETE FROM events WHERE key <= $1", {std::to_string(last)});
        return dropped;
    }

    std::vector<std::string> Ids(const char* sql,
                                 const std::vector<std::optional<std::string>>& params = {}) {
        Result r = Query(sql, params);
        std::vector<std::string> ids;
        for (int row = 0; row < PQntuples(r.get()); ++row)
            ids.push_back(Text(r, row, 0));
        return ids;
    }
    std::vector<std::string> JobIds() override { return Ids("SELECT id FROM jobs ORDER BY id"); }
    std::vector<std::string> TaskIds() override { return Ids("SELECT id FROM tasks ORDER BY id"); }
    std::vector<std::string> CollectorIds() override { return Ids("SELECT id FROM collectors ORDER BY id"); }
    std::vector<std::string> CollectorIdsOf(const std::string& owner) override {
        return Ids("SELECT id FROM collectors WHERE owner = $1 ORDER BY id", {owner});
    }

    // Columns: id, version, info, spec, extraInfo.
    std::optional<JobRecord> ReadJob(const Result& r) {
        if (PQntuples(r.get()) == 0) return std::nullopt;
        JobRecord job;
        job.id = Text(r, 0, 0);
        std::string version = Text(r, 0, 1), what = "job " + job.id;
        job.info =
            codec_.Decode<Morphel::Server::Conversion::ConversionJobInfo>(version, Text(r, 0, 2), what);
        job.spec =
            codec_.Decode<Morphel::Server::Conversion::ConversionJobSpec>(version, Text(r, 0, 3), what);
        if (!IsNull(r, 0, 4)) job.extraInfo = codec_.Decode<Kitra::Any>(version, Text(r, 0, 4), what);
        return job;
    }
    std::optional<JobRecord> FindJob(const std::string& id) override {
        return ReadJob(Query("SELECT id, version, info, spec, extraInfo FROM jobs WHERE id = $1", {id}));
    }
    std::optional<JobRecord> FindJobByName(const std::string& name) override {
        return ReadJob(
            Query("SELECT id, version, info, spec, extraInfo FROM jobs WHERE name = $1 ORDER BY id LIMIT 1",
                  {name}));
    }
    void PutJob(const JobRecord& job) override {
        std::optional<std::string> extra;
        if (job.extraInfo != nullptr) extra = codec_.Encode(job.extraInfo.Get());
        Query(
            "INSERT INTO jobs (id, name, version, info, spec, extraInfo) VALUES ($1, $2, $3, $4, $5, $6)"
            " ON CONFLICT (id) DO UPDATE SET name = EXCLUDED.name, version = EXCLUDED.version,"
            " info = EXCLUDED.info, spec = EXCLUDED.spec, extraInfo = EXCLUDED.extraInfo",
            {job.id, job.spec->GetName(), codec_.Version(), codec_.Encode(job.info.Get()),
             codec_.Encode(job.spec.Get()), extra});
    }
    bool EraseJob(const std::string& id) override {
        return Changed(Query("DELETE FROM jobs WHERE id = $1", {id}));
    }

    std::optional<TaskRecord> FindTask(const std::string& id) override {
        Result r =
            Query("SELECT jobId, version, info, disks, vmName, spec, runner FROM tasks WHERE id = $1", {id});
        if (PQntuples(r.get()) == 0) return std::nullopt;
        TaskRecord task;
        task.id = id;
        task.jobId = Text(r, 0, 0);
        std::string what = "task " + id;
        task.info = codec_.Decode<Morphel::Task::TaskInfo>(Text(r, 0, 1), Text(r, 0, 2), what);
        std::string disks;
        try {
            disks = Bytes(r, 0, 3);
        } catch (const std::exception&) {
            disks = "?";  // malformed either way
        }
        task.disks = codec_.DecodeList(disks, what);
        task.vmName = Text(r, 0, 4);
        if (!IsNull(r, 0, 5))
            task.spec = codec_.Decode<Morphel::Task::TaskSpec>(Text(r, 0, 1), Text(r, 0, 5), what);
        if (!IsNull(r, 0, 6)) task.runner = Int(r, 0, 6);
        return task;
    }
    void PutTask(const TaskRecord& task) override {
        std::optional<std::string> spec;
        if (task.spec != nullptr) spec = codec_.Encode(task.spec.Get());
        using TaskState = Morphel::Task::TaskInfo::State;
        std::optional<std::string> runner;
        if (task.runner != 0 &&
            (task.info->GetState() == TaskState::queued || task.info->GetState() == TaskState::running))
            runner = std::to_string(task.runner);
        Query(
            "INSERT INTO tasks (id, jobId, version, info, disks, vmName, spec, runner)"
            " VALUES ($1, $2, $3, $4, $5, $6, $7, $8)"
            " ON CONFLICT (id) DO UPDATE SET jobId = EXCLUDED.jobId, version = EXCLUDED.version,"
            " info = EXCLUDED.info, disks = EXCLUDED.disks, vmName = EXCLUDED.vmName, spec = EXCLUDED.spec,"
            " runner = EXCLUDED.runner",
            {task.id, task.jobId, codec_.Version(), codec_.Encode(task.info.Get()), Join(task.disks),
             task.vmName, spec, runner},
            4);
    }
    std::vector<std::string> RecentTasks() override {
        return Ids("SELECT taskId FROM recentTasks ORDER BY position");
    }
    void AddRecentTask(const std::string& id, size_t keep) override {
        Query("INSERT INTO recentTasks (taskId) VALUES ($1)", {id});
        Query("DELETE FROM recentTasks WHERE position <= (SELECT max(position) FROM recentTasks) - $1",
              {std::to_string(keep)});
    }

    std::optional<CollectorRecord> FindCollector(const std::string& id) override {
        Result r =
            Query("SELECT version, filter, after, pageSize, owner, kind FROM collectors WHERE id = $1", {id});
        if (PQntuples(r.get()) == 0) return std::nullopt;
        CollectorRecord c;
        std::string what = "collector " + id;
        c.kind = KindNamed(Text(r, 0, 5), where_, what);
        c.filter = codec_.Decode<Kitra::Any>(Text(r, 0, 0), Text(r, 0, 1), what);
        c.after = Int(r, 0, 2);
        c.pageSize = int32_t(Int(r, 0, 3));
        c.owner = Text(r, 0, 4);
        return c;
    }
    size_t CountCollectors() override {
        Result r = Query("SELECT count(*) FROM collectors", {});
        return size_t(Int(r, 0, 0));
    }
    void PutCollector(const std::string& id, const CollectorRecord& c) override {
        Query(
            "INSERT INTO collectors (id, owner, version, filter, after, pageSize, kind) VALUES ($1, $2, $3, "
            "$4, "
            "$5, $6, $7)"
            " ON CONFLICT (id) DO UPDATE SET owner = EXCLUDED.owner, version = EXCLUDED.version,"
            " filter = EXCLUDED.filter, after = EXCLUDED.after, pageSize = EXCLUDED.pageSize,"
            " kind = EXCLUDED.kind",
            {id, c.owner, codec_.Version(), codec_.Encode(c.filter.Get()), std::to_string(c.after),
             std::to_string(c.pageSize), std::string(KindName(c.kind))});
    }
    bool EraseCollector(const std::string& id) override {
        return Changed(Query("DELETE FROM collectors WHERE id = $1", {id}));
    }

    std::vector<std::string> ScheduledTaskIds() override {
        return Ids("SELECT id FROM scheduledTasks ORDER BY id");
    }
    std::vector<std::string> ScheduledTaskIdsOf(const std::string& jobId) override {
        return Ids("SELECT id FROM scheduledTasks WHERE jobId = $1 ORDER BY id", {jobId});
    }
    // Columns: id, jobId, version, info.
    std::optional<ScheduledTaskRecord> ReadScheduledTask(const Result& r) {
        if (PQntuples(r.get()) == 0) return std::nullopt;
        ScheduledTaskRecord task;
        task.id = Text(r, 0, 0);
        task.jobId = Text(r, 0, 1);
        task.info = codec_.Decode<Dovra::Scheduler::ScheduledTaskInfo>(Text(r, 0, 2), Text(r, 0, 3),
                                                                       "scheduled task " + task.id);
        return task;
    }
    std::optional<ScheduledTaskRecord> FindScheduledTask(const std::string& id) override {
        return ReadScheduledTask(
            Query("SELECT id, jobId, version, info FROM scheduledTasks WHERE id = $1", {id}));
    }
    std::optional<ScheduledTaskRecord> FindScheduledTaskByName(const std::string& name) override {
        return ReadScheduledTask(
            Query("SELECT id, jobId, version, info FROM scheduledTasks WHERE name = $1 ORDER BY id LIMIT 1",
                  {name}));
    }
    void PutScheduledTask(const ScheduledTaskRecord& task) override {
        std::optional<std::string> due;
        if (auto at = DueTime(*task.info)) due = std::to_string(at->GetUtcMicros());
        Query(
            "INSERT INTO scheduledTasks (id, jobId, name, due, version, info) VALUES ($1, $2, $3, $4, $5, $6)"
            " ON CONFLICT (id) DO UPDATE SET jobId = EXCLUDED.jobId, name = EXCLUDED.name,"
            " due = EXCLUDED.due, version = EXCLUDED.version, info = EXCLUDED.info",
            {task.id, task.jobId, task.info->GetName(), due, codec_.Version(),
             codec_.Encode(task.info.Get())});
    }
    bool EraseScheduledTask(const std::string& id) override {
        return Changed(Query("DELETE FROM scheduledTasks WHERE id = $1", {id}));
    }
    std::vector<std::string> DueScheduledTasks(Fundix::System::DateTime time) override {
        return Ids("SELECT id FROM scheduledTasks WHERE due <= $1 ORDER BY due, id",
                   {std::to_string(time.GetUtcMicros())});
    }
    std::optional<Fundix::System::DateTime> NextDueTime() override {
        Result r = Query("SELECT min(due) FROM scheduledTasks", {});
        if (IsNull(r, 0, 0)) return std::nullopt;
        return Fundix::System::DateTime::FromUtcMicros(Int(r, 0, 0));
    }
    bool EraseTask(const std::string& id) override {
        Query("DELETE FROM recentTasks WHERE taskId = $1", {id});
        return Changed(Query("DELETE FROM tasks WHERE id = $1", {id}));
    }
    std::vector<std::string> OrphanedTasks() override {
        std::vector<std::string> ids;
        for (const auto& runner :
             Ids("SELECT DISTINCT runner FROM tasks WHERE runner IS NOT NULL AND runner <> $1 ORDER BY 1",
                 {std::to_string(runner_)})) {
            if (Text(Query(kTryRunner, {runner}), 0, 0) != "t") continue;  // it runs them still
            Query(kUnlockRunner, {runner});
            for (auto& id : Ids("SELECT id FROM tasks WHERE runner = $1 ORDER BY id", {runner}))
                ids.push_back(std::move(id));
        }
        return ids;
    }
    // ---- Log bundles
    void PutLogBundle(const LogBundleRecord& b) override {
        Query(
            "INSERT INTO logBundles (key, taskId, failedLogins, version, info, data) VALUES ($1, $2, $3, $4,"
            " $5, $6)",
            {b.key, b.taskId, std::string(b.failedLogins ? "true" : "false"), codec_.Version(),
             codec_.Encode(b.info.Get()), b.data},
            5);
    }
    std::optional<LogBundleRecord> FindLogBundle(const std::string& key) override {
        Result r =
            Query("SELECT taskId, failedLogins, version, info, data FROM logBundles WHERE key = $1", {key});
        if (PQntuples(r.get()) == 0) return std::nullopt;
        LogBundleRecord b;
        b.key = key;
        b.taskId = Text(r, 0, 0);
        b.failedLogins = Text(r, 0, 1) == "t";
        b.info = codec_.Decode<Kitra::Any>(Text(r, 0, 2), Text(r, 0, 3), "log bundle " + key);
        try {
            b.data = Bytes(r, 0, 4);
        } catch (const std::exception&) {
            throw std::runtime_error(where_ + ": log bundle " + key +
                                     " cannot be read: its bytes are malformed");
        }
        return b;
    }
    std::vector<std::string> LogBundleKeys() override {
        return Ids("SELECT key FROM logBundles ORDER BY position");
    }
    bool EraseLogBundle(const std::string& key) override {
        return Changed(Query("DELETE FROM logBundles WHERE key = $1", {key}));
    }
    // ---- End of log bundles

    RecordCodec codec_;
    int64_t runner_ = 0;
    std::mutex mutex_;
    // The key of the newest event read into the cache.
    int64_t lastKey_ = 0;
    EventCache events_;
};

// The sessions in the table `sessions`, read at each request, so that a login through one server is known
// to every other on the database; an ended session is told to the server that noticed it.
class PostgresSessions : public Kitra::Http::SessionStore, private Connection {
public:
    using SessionRef = Fundix::Ref<Kitra::Http::Session>;
    using Ended = std::vector<SessionRef>;

    PostgresSessions(const std::string& conninfo, const Kitra::Http::SessionLimits& limits)
        : Connection(conninfo, {"SET client_min_messages = warning"}), limits_(limits) {}

    SessionRef Find(const std::string& key, Ended& ended) override {
        std::lock_guard<std::mutex> lock(mutex_);
        int64_t now = Now();
        if (now - lastSweep_ >= 1000000) Sweep(now, ended);
        Result r = Query(
            "UPDATE sessions SET used = $2 WHERE key = $1 AND used > $3 AND opened > $4"
            " RETURNING key, userName, vals",
            {key, std::to_string(now), std::to_string(now - Micros(limits_.idle)),
             std::to_string(now - Micros(limits_.lifetime))});
        if (PQntuples(r.get()) != 0) return Read(r, 0);
        // Expired (or none): gone for every server.
        Result gone = Query("DELETE FROM sessions WHERE key = $1 RETURNING key, userName, vals", {key});
        for (int row = 0; row < PQntuples(gone.get()); ++row)
            ended.push_back(Read(gone, row));
        return nullptr;
    }
    void Add(const SessionRef& session, Ended& ended) override {
        std::lock_guard<std::mutex> lock(mutex_);
        int64_t now = Now();
        InTransaction(
            [&] {
                Sweep(now, ended);
                // An account at its cap gives up its least recently used sessions.
                Result own =
                    Query("SELECT count(*) FROM sessions WHERE userName = $1", {session->GetUserName()});
                int64_t over = Int(own, 0, 0) - int64_t(limits_.perUser) + 1;
                if (over > 0) {
                    Result dropped = Query(
                        "DELETE FROM sessions WHERE key IN (SELECT key FROM sessions WHERE userName = $1"
                        " ORDER BY used LIMIT $2) RETURNING key, userName, vals",
                        {session->GetUserName(), std::to_string(over)});
                    for (int row = 0; row < PQntuples(dropped.get()); ++row)
                        ended.push_back(Read(dropped, row));
                }
                Query("INSERT INTO sessions (key, userName, vals, opened, used) VALUES ($1, $2, $3, $4, $4)",
                      {session->GetKey(), session->GetUserName(), Values(*session), std::to_string(now)}, 2);
            },
            kBeginSessions);
        Adopt(*session, session->GetValues());
    }
    bool Remove(const std::string& key, Ended& ended) override {
        std::lock_guard<std::mutex> lock(mutex_);
        Result gone = Query("DELETE FROM sessions WHERE key = $1 RETURNING key, userName, vals", {key});
        for (int row = 0; row < PQntuples(gone.get()); ++row)
            ended.push_back(Read(gone, row));
        return PQntuples(gone.get()) != 0;
    }
    std::vector<SessionRef> List(Ended& ended) override {
        std::lock_guard<std::mutex> lock(mutex_);
        Sweep(Now(), ended);
        Result r = Query("SELECT key, userName, vals FROM sessions ORDER BY key", {});
        std::vector<SessionRef> all;
        for (int row = 0; row < PQntuples(r.get()); ++row)
            all.push_back(Read(r, row));
        return all;
    }
    void ValuesChanged(const Kitra::Http::Session& session) override {
        std::lock_guard<std::mutex> lock(mutex_);
        Query("UPDATE sessions SET vals = $2 WHERE key = $1", {session.GetKey(), Values(session)}, 1);
    }

private:
    static int64_t Now() {
        return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    }
    static int64_t Micros(std::chrono::milliseconds d) { return int64_t(d.count()) * 1000; }
    static std::string Values(const Kitra::Http::Session& session) {
        std::vector<std::string> items;
        for (const auto& [name, value] : session.GetValues()) {
            items.push_back(name);
            items.push_back(value);
        }
        return Join(items);
    }
    // Columns: key, userName, vals.
    SessionRef Read(const Result& r, int row) {
        SessionRef session(new Kitra::Http::Session(Text(r, row, 0), Text(r, row, 1)));
        std::map<std::string, std::string> values;
        try {
            auto items = Split(Bytes(r, row, 2));
            for (size_t i = 0; i + 1 < items.size(); i += 2)
                values[items[i]] = items[i + 1];
        } catch (const std::exception&) {
            throw std::runtime_error(where_ + ": session values cannot be read");
        }
        Adopt(*session, std::move(values));
        return session;
    }
    void Sweep(int64_t now, Ended& ended) {
        lastSweep_ = now;
        Result gone = Query(
            "DELETE FROM sessions WHERE used <= $1 OR opened <= $2 RETURNING key, userName, vals",
            {std::to_string(now - Micros(limits_.idle)), std::to_string(now - Micros(limits_.lifetime))});
        for (int row = 0; row < PQntuples(gone.get()); ++row)
            ended.push_back(Read(gone, row));
    }

    const Kitra::Http::SessionLimits limits_;
    std::mutex mutex_;
    int64_t lastSweep_ = 0;
};

}  // namespace

std::shared_ptr<Kitra::Http::SessionStore> NewPostgresSessionStore(const std::string& conninfo,
                                                                   const Kitra::Http::SessionLimits& limits) {
    return std::make_shared<PostgresSessions>(conninfo, limits);
}

std::string DescribePostgres(const std::string& conninfo) {
    return Describe(conninfo).value_or("PostgreSQL server (a malformed connection string)");
}

bool IsPostgresUri(const std::string& database) {
    return database.rfind("postgresql://", 0) == 0 || database.rfind("postgres://", 0) == 0;
}

std::unique_ptr<State> NewPostgresState(const std::string& conninfo, const PostgresOptions& options) {
    return std::make_unique<PostgresState>(conninfo, options);
}

}  // namespace MorphelServer
