// The state in one SQLite database file, written ahead to a log. Records are kept in their wire form (the
// SOAP codec's value messages) beside the API version they were written in, and read back in that
// version, so a newer server reads the files of an older one. One connection serves every transaction, one
// at a time; the file is locked to this process while it is open.
//
// Events never change once appended, and collectors read whole filtered histories, so the events are also
// kept decoded in memory: read from the file once at open, extended and trimmed as transactions commit.
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstddef>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

#include <fundix/Exception.h>
#include <kitra/Soap.h>
#include <kitra/fault/types.h>
#include <morphel-server/State.h>

#include "EventCache.h"
#include "StoreEncoding.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;
using Morphel::Event::Event;

// The schema, one step per version: a database of version n runs the steps after n, in order, in one
// transaction with the new version number. A later version appends its step.
const char* const kSchemaSteps[] = {
    // 1
    "CREATE TABLE settings (name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;"
    "INSERT INTO settings VALUES ('nextId', 1), ('nextChainId', 1), ('nextEventKey', 1), ('maxTask', 100);"
    "CREATE TABLE jobs (id TEXT PRIMARY KEY, name TEXT NOT NULL, version TEXT NOT NULL, info TEXT NOT NULL,"
    " spec TEXT NOT NULL, extraInfo TEXT);"
    "CREATE INDEX jobsByName ON jobs (name);"
    "CREATE TABLE tasks (id TEXT PRIMARY KEY, jobId TEXT NOT NULL, version TEXT NOT NULL, info TEXT NOT NULL,"
    " disks BLOB NOT NULL, vmName TEXT NOT NULL);"
    "CREATE TABLE recentTasks (position INTEGER PRIMARY KEY, taskId TEXT NOT NULL);"
    "CREATE TABLE events (key INTEGER PRIMARY KEY, createdTime INTEGER NOT NULL, version TEXT NOT NULL,"
    " event TEXT NOT NULL);"
    "CREATE TABLE collectors (id TEXT PRIMARY KEY, owner TEXT NOT NULL, version TEXT NOT NULL,"
    " filter TEXT NOT NULL, after INTEGER NOT NULL, pageSize INTEGER NOT NULL);"
    "CREATE INDEX collectorsByOwner ON collectors (owner);",
    // 2: scheduled runs (due: the next run time in microseconds while enabled), tasks of their own
    "CREATE TABLE scheduledTasks (id TEXT PRIMARY KEY, jobId TEXT NOT NULL, name TEXT NOT NULL, due INTEGER,"
    " version TEXT NOT NULL, info TEXT NOT NULL);"
    "CREATE INDEX scheduledTasksByJob ON scheduledTasks (jobId);"
    "CREATE INDEX scheduledTasksByName ON scheduledTasks (name);"
    "CREATE INDEX scheduledTasksByDue ON scheduledTasks (due);"
    "ALTER TABLE tasks ADD COLUMN spec TEXT;",
    // 3: collectors of tasks and jobs beside those of events; log bundles, oldest first.
    "ALTER TABLE collectors ADD COLUMN kind TEXT NOT NULL DEFAULT 'event';"
    "CREATE TABLE logBundles (position INTEGER PRIMARY KEY, key TEXT NOT NULL UNIQUE, taskId TEXT NOT NULL,"
    " failedLogins INTEGER NOT NULL, version TEXT NOT NULL, info TEXT NOT NULL, data BLOB NOT NULL);",
};
constexpr int64_t kSchemaVersion = int64_t(std::size(kSchemaSteps));

class SqliteState : public State, private StateTransaction {
public:
    SqliteState(const std::string& path, const SqliteOptions& options)
        : path_(path), codec_(path, options.version) {
        // A new file is private to the user, as its log will be: a job's parameters may carry credentials.
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd >= 0) ::close(fd);
        if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
            SQLITE_OK) {
            std::string message = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
            sqlite3_close(db_);
            throw std::runtime_error(path + ": cannot be opened: " + message);
        }
        try {
            // Locked to this process (no shared memory for the log either); every commit synced, or only
            // the checkpoints.
            Exec("PRAGMA locking_mode = EXCLUSIVE");
            {
                Query mode(*this, "PRAGMA journal_mode = WAL");
                if (!mode.Step() || mode.Text(0) != "wal")
                    throw std::runtime_error(path + ": cannot keep a write-ahead log");
            }
            Exec(options.syncEachCommit ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
            Migrate();
            Query events(*this, "SELECT key, version, event FROM events ORDER BY key");
            while (events.Step()) {
                std::string what = "event " + std::to_string(events.Int(0));
                events_.Committed().push_back(Decode<Event>(events.Text(1), events.Text(2), what));
            }
        } catch (...) {
            Close();
            throw;
        }
    }
    ~SqliteState() override { Close(); }

    void Transact(const std::function<void(StateTransaction&)>& work) override {
        std::lock_guard<std::mutex> lock(mutex_);
        Exec("BEGIN IMMEDIATE");
        try {
            work(*this);
            Exec("COMMIT");
        } catch (...) {
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);  // may have rolled back already
            events_.Rollback();
            throw;
        }
        events_.Commit();
    }

private:
    // A prepared statement of the connection's cache, reset when done.
    class Query {
    public:
        Query(SqliteState& state, const char* sql) : state_(state), stmt_(state.Prepare(sql)) {}
        ~Query() {
            sqlite3_reset(stmt_);
            sqlite3_clear_bindings(stmt_);
        }
        Query(const Query&) = delete;
        Query& operator=(const Query&) = delete;

        Query& Bind(int64_t value) { return Check(sqlite3_bind_int64(stmt_, ++bound_, value)); }
        Query& Bind(const std::string& text) {
            return Check(sqlite3_bind_text(stmt_, ++bound_, text.data(), int(text.size()), SQLITE_TRANSIENT));
        }
        Query& BindBlob(const std::string& bytes) {
            return Check(
                sqlite3_bind_blob(stmt_, ++bound_, bytes.data(), int(bytes.size()), SQLITE_TRANSIENT));
        }
        Query& BindNull() { return Check(sqlite3_bind_null(stmt_, ++bound_)); }
        // True for a row, false when done.
        bool Step() {
            int rc = sqlite3_step(stmt_);
            if (rc == SQLITE_ROW) return true;
            if (rc == SQLITE_DONE) return false;
            state_.Fail(rc, sqlite3_sql(stmt_));
        }
        void Run() {
            while (Step()) {
            }
        }
        int64_t Int(int column) { return sqlite3_column_int64(stmt_, column); }
        bool IsNull(int column) { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }
        std::string Text(int column) {
            const void* bytes = sqlite3_column_blob(stmt_, column);
            return bytes != nullptr ? std::string(static_cast<const char*>(bytes),
                                                  size_t(sqlite3_column_bytes(stmt_, column)))
                                    : std::string();
        }

    private:
        Query& Check(int rc) {
            if (rc != SQLITE_OK) state_.Fail(rc, sqlite3_sql(stmt_));
            return *this;
        }
        SqliteState& state_;
        sqlite3_stmt* stmt_;
        int bound_ = 0;
    };

    [[noreturn]] void Fail(int rc, const std::string& what) {
        std::string message = sqlite3_errmsg(db_);
        if ((rc & 0xff) == SQLITE_BUSY || (rc & 0xff) == SQLITE_LOCKED)
            message += " (another process holds it)";
        throw std::runtime_error(path_ + ": " + message + " (" + what + ")");
    }
    void Exec(const char* sql) {
        int rc = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
        if (rc != SQLITE_OK) Fail(rc, sql);
    }
    sqlite3_stmt* Prepare(const char* sql) {
        auto& stmt = statements_[sql];
        if (stmt == nullptr) {
            int rc = sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
            if (rc != SQLITE_OK) Fail(rc, sql);
        }
        return stmt;
    }
    void Close() {
        for (auto& [sql, stmt] : statements_)
            sqlite3_finalize(stmt);
        statements_.clear();
        sqlite3_close(db_);
        db_ = nullptr;
    }

    void Migrate() {
        Exec("BEGIN IMMEDIATE");
        try {
            Exec("CREATE TABLE IF NOT EXISTS schemaVersion (version INTEGER NOT NULL)");
            int64_t version = 0;
            {
                Query read(*this, "SELECT version FROM schemaVersion");
                if (read.Step()) version = read.Int(0);
            }
            MigrateSchema(path_, version, kSchemaSteps, [&](const char* sql) { Exec(sql); });
            if (version == 0) Query(*this, "INSERT INTO schemaVersion VALUES (0)").Run();
            Query(*this, "UPDATE schemaVersion SET version = ?").Bind(kSchemaVersion).Run();
            Exec("COMMIT");
        } catch (...) {
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
            throw;
        }
    }

    // ---- Values in their wire form

    std::string Encode(const Kitra::Any* value) { return codec_.Encode(value); }
    template <class T>
    Ref<T> Decode(const std::string& version, const std::string& text, const std::string& what) {
        return codec_.template Decode<T>(version, text, what);
    }

    int64_t Count(const char* name) {
        Query q(*this, "UPDATE settings SET value = value + 1 WHERE name = ? RETURNING value - 1");
        q.Bind(std::string(name));
        if (!q.Step()) throw std::runtime_error(path_ + ": the counter " + name + " is missing");
        return q.Int(0);
    }

    // ---- StateTransaction

    int64_t NextId() override { return Count("nextId"); }
    int32_t NextChainId() override { return int32_t(Count("nextChainId")); }
    int32_t GetMaxTask() override {
        Query q(*this, "SELECT value FROM settings WHERE name = 'maxTask'");
        return q.Step() ? int32_t(q.Int(0)) : 100;
    }
    void SetMaxTask(int32_t maxTask) override {
        Query(*this, "UPDATE settings SET value = ? WHERE name = 'maxTask'").Bind(maxTask).Run();
    }

    int32_t AppendEvent(Event* event) override {
        int32_t key = int32_t(Count("nextEventKey"));
        event->SetKey(key);
        Query(*this, "INSERT INTO events (key, createdTime, version, event) VALUES (?, ?, ?, ?)")
            .Bind(key)
            .Bind(event->GetCreatedTime().GetUtcMicros())
            .Bind(codec_.Version())
            .Bind(Encode(event))
            .Run();
        events_.Append(event);
        return key;
    }
    std::vector<Ref<Event>> SelectEvents(const Morphel::Event::EventFilterSpec* filter) override {
        return events_.Select(filter);
    }
    size_t DropEvents(size_t keep, Fundix::System::DateTime before) override {
        int32_t last = 0;
        size_t dropped = events_.Drop(keep, before, last);
        if (dropped != 0) Query(*this, "DELETE FROM events WHERE key <= ?").Bind(last).Run();
        return dropped;
    }

    std::vector<std::string> Ids(const char* sql, const std::string* owner = nullptr) {
        Query q(*this, sql);
        if (owner != nullptr) q.Bind(*owner);
        std::vector<std::string> ids;
        while (q.Step())
            ids.push_back(q.Text(0));
        return ids;
    }
    std::vector<std::string> JobIds() override { return Ids("SELECT id FROM jobs ORDER BY id"); }
    std::vector<std::string> TaskIds() override { return Ids("SELECT id FROM tasks ORDER BY id"); }
    std::vector<std::string> CollectorIds() override { return Ids("SELECT id FROM collectors ORDER BY id"); }
    std::vector<std::string> CollectorIdsOf(const std::string& owner) override {
        return Ids("SELECT id FROM collectors WHERE owner = ? ORDER BY id", &owner);
    }

    // Columns: id, version, info, spec, extraInfo.
    JobRecord ReadJob(Query& q) {
        JobRecord job;
        job.id = q.Text(0);
        std::string version = q.Text(1), what = "job " + job.id;
        job.info = Decode<Morphel::Server::Conversion::ConversionJobInfo>(version, q.Text(2), what);
        job.spec = Decode<Morphel::Server::Conversion::ConversionJobSpec>(version, q.Text(3), what);
        if (!q.IsNull(4)) job.extraInfo = Decode<Kitra::Any>(version, q.Text(4), what);
        return job;
    }
    std::optional<JobRecord> FindJob(const std::string& id) override {
        Query q(*this, "SELECT id, version, info, spec, extraInfo FROM jobs WHERE id = ?");
        q.Bind(id);
        if (!q.Step()) return std::nullopt;
        return ReadJob(q);
    }
    std::optional<JobRecord> FindJobByName(const std::string& name) override {
        Query q(*this,
                "SELECT id, version, info, spec, extraInfo FROM jobs WHERE name = ? ORDER BY id LIMIT 1");
        q.Bind(name);
        if (!q.Step()) return std::nullopt;
        return ReadJob(q);
    }
    void PutJob(const JobRecord& job) override {
        Query q(*this,
                "INSERT OR REPLACE INTO jobs (id, name, version, info, spec, extraInfo) VALUES (?, ?, ?, ?, "
                "?, ?)");
        q.Bind(job.id)
            .Bind(job.spec->GetName())
            .Bind(codec_.Version())
            .Bind(Encode(job.info.Get()))
            .Bind(Encode(job.spec.Get()));
        if (job.extraInfo != nullptr)
            q.Bind(Encode(job.extraInfo.Get()));
        else
            q.BindNull();
        q.Run();
    }
    bool Erase(const char* sql, const std::string& id) {
        Query(*this, sql).Bind(id).Run();
        return sqlite3_changes(db_) != 0;
    }
    bool EraseJob(const std::string& id) override { return Erase("DELETE FROM jobs WHERE id = ?", id); }

    std::optional<TaskRecord> FindTask(const std::string& id) override {
        Query q(*this, "SELECT jobId, version, info, disks, vmName, spec FROM tasks WHERE id = ?");
        q.Bind(id);
        if (!q.Step()) return std::nullopt;
        TaskRecord task;
        task.id = id;
        task.jobId = q.Text(0);
        std::string what = "task " + id;
        task.info = Decode<Morphel::Task::TaskInfo>(q.Text(1), q.Text(2), what);
        task.disks = codec_.DecodeList(q.Text(3), what);
        task.vmName = q.Text(4);
        if (!q.IsNull(5)) task.spec = Decode<Morphel::Task::TaskSpec>(q.Text(1), q.Text(5), what);
        return task;
    }
    void PutTask(const TaskRecord& task) override {
        Query q(*this,
                "INSERT OR REPLACE INTO tasks (id, jobId, version, info, disks, vmName, spec)"
                " VALUES (?, ?, ?, ?, ?, ?, ?)");
        q.Bind(task.id)
            .Bind(task.jobId)
            .Bind(codec_.Version())
            .Bind(Encode(task.info.Get()))
            .BindBlob(Join(task.disks))
            .Bind(task.vmName);
        if (task.spec != nullptr)
            q.Bind(Encode(task.spec.Get()));
        else
            q.BindNull();
        q.Run();
    }
    std::vector<std::string> RecentTasks() override {
        return Ids("SELECT taskId FROM recentTasks ORDER BY position");
    }
    void AddRecentTask(const std::string& id, size_t keep) override {
        Query(*this, "INSERT INTO recentTasks (taskId) VALUES (?)").Bind(id).Run();
        Query(*this, "DELETE FROM recentTasks WHERE position <= (SELECT max(position) FROM recentTasks) - ?")
            .Bind(int64_t(keep))
            .Run();
    }

    std::optional<CollectorRecord> FindCollector(const std::string& id) override {
        Query q(*this, "SELECT version, filter, after, pageSize, owner, kind FROM collectors WHERE id = ?");
        q.Bind(id);
        if (!q.Step()) return std::nullopt;
        CollectorRecord c;
        std::string what = "collector " + id;
        c.kind = KindNamed(q.Text(5), path_, what);
        c.filter = Decode<Kitra::Any>(q.Text(0), q.Text(1), what);
        c.after = q.Int(2);
        c.pageSize = int32_t(q.Int(3));
        c.owner = q.Text(4);
        return c;
    }
    size_t CountCollectors() override {
        Query q(*this, "SELECT count(*) FROM collectors");
        return q.Step() ? size_t(q.Int(0)) : 0;
    }
    void PutCollector(const std::string& id, const CollectorRecord& c) override {
        Query(*this,
              "INSERT OR REPLACE INTO collectors (id, owner, version, filter, after, pageSize, kind) VALUES "
              "(?, "
              "?, ?, ?, ?, ?, ?)")
            .Bind(id)
            .Bind(c.owner)
            .Bind(codec_.Version())
            .Bind(Encode(c.filter.Get()))
            .Bind(c.after)
            .Bind(c.pageSize)
            .Bind(std::string(KindName(c.kind)))
            .Run();
    }
    bool EraseCollector(const std::string& id) override {
        return Erase("DELETE FROM collectors WHERE id = ?", id);
    }

    std::vector<std::string> ScheduledTaskIds() override {
        return Ids("SELECT id FROM scheduledTasks ORDER BY id");
    }
    std::vector<std::string> ScheduledTaskIdsOf(const std::string& jobId) override {
        return Ids("SELECT id FROM scheduledTasks WHERE jobId = ? ORDER BY id", &jobId);
    }
    // Columns: id, jobId, version, info.
    std::optional<ScheduledTaskRecord> ReadScheduledTask(Query& q) {
        if (!q.Step()) return std::nullopt;
        ScheduledTaskRecord task;
        task.id = q.Text(0);
        task.jobId = q.Text(1);
        task.info =
            Decode<Dovra::Scheduler::ScheduledTaskInfo>(q.Text(2), q.Text(3), "scheduled task " + task.id);
        return task;
    }
    std::optional<ScheduledTaskRecord> FindScheduledTask(const std::string& id) override {
        Query q(*this, "SELECT id, jobId, version, info FROM scheduledTasks WHERE id = ?");
        q.Bind(id);
        return ReadScheduledTask(q);
    }
    std::optional<ScheduledTaskRecord> FindScheduledTaskByName(const std::string& name) override {
        Query q(*this,
                "SELECT id, jobId, version, info FROM scheduledTasks WHERE name = ? ORDER BY id LIMIT 1");
        q.Bind(name);
        return ReadScheduledTask(q);
    }
    void PutScheduledTask(const ScheduledTaskRecord& task) override {
        Query q(*this,
                "INSERT OR REPLACE INTO scheduledTasks (id, jobId, name, due, version, info)"
                " VALUES (?, ?, ?, ?, ?, ?)");
        q.Bind(task.id).Bind(task.jobId).Bind(task.info->GetName());
        if (auto due = DueTime(*task.info))
            q.Bind(due->GetUtcMicros());
        else
            q.BindNull();
        q.Bind(codec_.Version()).Bind(Encode(task.info.Get())).Run();
    }
    bool EraseScheduledTask(const std::string& id) override {
        return Erase("DELETE FROM scheduledTasks WHERE id = ?", id);
    }
    std::vector<std::string> DueScheduledTasks(Fundix::System::DateTime time) override {
        Query q(*this, "SELECT id FROM scheduledTasks WHERE due <= ? ORDER BY due, id");
        q.Bind(time.GetUtcMicros());
        std::vector<std::string> ids;
        while (q.Step())
            ids.push_back(q.Text(0));
        return ids;
    }
    std::optional<Fundix::System::DateTime> NextDueTime() override {
        Query q(*this, "SELECT min(due) FROM scheduledTasks");
        if (!q.Step() || q.IsNull(0)) return std::nullopt;
        return Fundix::System::DateTime::FromUtcMicros(q.Int(0));
    }
    bool EraseTask(const std::string& id) override {
        Query(*this, "DELETE FROM recentTasks WHERE taskId = ?").Bind(id).Run();
        return Erase("DELETE FROM tasks WHERE id = ?", id);
    }
    // ---- Log bundles
    void PutLogBundle(const LogBundleRecord& b) override {
        Query(*this,
              "INSERT INTO logBundles (key, taskId, failedLogins, version, info, data) VALUES (?, ?, ?, ?, "
              "?, ?)")
            .Bind(b.key)
            .Bind(b.taskId)
            .Bind(int64_t(b.failedLogins))
            .Bind(codec_.Version())
            .Bind(Encode(b.info.Get()))
            .BindBlob(b.data)
            .Run();
    }
    std::optional<LogBundleRecord> FindLogBundle(const std::string& key) override {
        Query q(*this, "SELECT taskId, failedLogins, version, info, data FROM logBundles WHERE key = ?");
        q.Bind(key);
        if (!q.Step()) return std::nullopt;
        LogBundleRecord b;
        b.key = key;
        b.taskId = q.Text(0);
        b.failedLogins = q.Int(1) != 0;
        b.info = Decode<Kitra::Any>(q.Text(2), q.Text(3), "log bundle " + key);
        b.data = q.Text(4);
        return b;
    }
    std::vector<std::string> LogBundleKeys() override {
        return Ids("SELECT key FROM logBundles ORDER BY position");
    }
    bool EraseLogBundle(const std::string& key) override {
        return Erase("DELETE FROM logBundles WHERE key = ?", key);
    }
    // ---- End of log bundles

    const std::string path_;
    sqlite3* db_ = nullptr;
    std::unordered_map<const char*, sqlite3_stmt*> statements_;  // by the address of their text
    RecordCodec codec_;
    std::mutex mutex_;
    EventCache events_;
};

}  // namespace

std::unique_ptr<State> NewSqliteState(const std::string& path, const SqliteOptions& options) {
    return std::make_unique<SqliteState>(path, options);
}

}  // namespace MorphelServer
