// The state in memory: maps under one mutex, held for the length of a transaction.
#include <algorithm>
#include <deque>
#include <map>
#include <mutex>

#include <morphel-server/State.h>

#include "EventFilter.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;

// Records go in and come out as copies, as they would through a store outside the process: a change
// reaches the state only through a put.
template <class T>
Ref<T> Copy(const Ref<T>& record) {
    return record != nullptr ? Ref<T>(record->_Clone()) : nullptr;
}
TaskRecord Copy(const TaskRecord& task) {
    TaskRecord copy = task;
    copy.info = Copy(task.info);
    copy.spec = Copy(task.spec);
    return copy;
}
ScheduledTaskRecord Copy(const ScheduledTaskRecord& task) {
    ScheduledTaskRecord copy = task;
    copy.info = Copy(task.info);
    return copy;
}
JobRecord Copy(const JobRecord& job) {
    JobRecord copy = job;
    copy.info = Copy(job.info);
    copy.spec = Copy(job.spec);
    return copy;
}
CollectorRecord Copy(const CollectorRecord& collector) {
    CollectorRecord copy = collector;
    copy.filter = Copy(collector.filter);
    return copy;
}

template <class Map>
auto Find(const Map& map, const std::string& key) -> std::optional<typename Map::mapped_type> {
    auto it = map.find(key);
    if (it == map.end()) return std::nullopt;
    return Copy(it->second);
}

template <class Map>
std::vector<std::string> Keys(const Map& map) {
    std::vector<std::string> keys;
    for (const auto& entry : map)
        keys.push_back(entry.first);
    return keys;
}

class MemoryState : public State, private StateTransaction {
public:
    void Transact(const std::function<void(StateTransaction&)>& work) override {
        std::lock_guard<std::mutex> lock(mutex_);
        work(*this);
    }

private:
    int64_t NextId() override { return nextId_++; }
    int32_t NextChainId() override { return nextChain_++; }
    int32_t GetMaxTask() override { return maxTask_; }
    void SetMaxTask(int32_t maxTask) override { maxTask_ = maxTask; }

    int32_t AppendEvent(Morphel::Event::Event* event) override {
        int32_t key = nextEventKey_++;
        event->SetKey(key);
        events_.emplace_back(event);
        return key;
    }
    size_t DropEvents(size_t keep, Fundix::System::DateTime before) override {
        size_t dropped = 0;
        while (!events_.empty() && (events_.size() > keep || events_.front()->GetCreatedTime() < before)) {
            events_.pop_front();
            ++dropped;
        }
        return dropped;
    }
    std::vector<Ref<Morphel::Event::Event>> SelectEvents(
        const Morphel::Event::EventFilterSpec* filter) override {
        std::vector<Ref<Morphel::Event::Event>> out;
        for (const auto& e : events_)
            if (Matches(filter, *e)) out.push_back(e);
        return out;
    }

    std::vector<std::string> JobIds() override { return Keys(jobs_); }
    std::vector<std::string> TaskIds() override { return Keys(tasks_); }
    std::vector<std::string> CollectorIds() override { return Keys(collectors_); }

    std::optional<JobRecord> FindJob(const std::string& id) override { return Find(jobs_, id); }
    std::optional<JobRecord> FindJobByName(const std::string& name) override {
        for (const auto& [id, job] : jobs_)
            if (job.spec->GetName() == name) return Copy(job);
        return std::nullopt;
    }
    void PutJob(const JobRecord& job) override { jobs_[job.id] = Copy(job); }
    bool EraseJob(const std::string& id) override { return jobs_.erase(id) != 0; }

    std::optional<TaskRecord> FindTask(const std::string& id) override { return Find(tasks_, id); }
    void PutTask(const TaskRecord& task) override { tasks_[task.id] = Copy(task); }
    std::vector<std::string> RecentTasks() override { return recentTasks_; }
    void AddRecentTask(const std::string& id, size_t keep) override {
        recentTasks_.push_back(id);
        if (recentTasks_.size() > keep)
            recentTasks_.erase(recentTasks_.begin(), recentTasks_.end() - std::ptrdiff_t(keep));
    }

    std::optional<CollectorRecord> FindCollector(const std::string& id) override {
        return Find(collectors_, id);
    }
    size_t CountCollectors() override { return collectors_.size(); }
    std::vector<std::string> CollectorIdsOf(const std::string& owner) override {
        std::vector<std::string> ids;
        for (const auto& [id, collector] : collectors_)
            if (collector.owner == owner) ids.push_back(id);
        return ids;
    }
    void PutCollector(const std::string& id, const CollectorRecord& collector) override {
        collectors_[id] = Copy(collector);
    }
    bool EraseCollector(const std::string& id) override { return collectors_.erase(id) != 0; }

    std::vector<std::string> ScheduledTaskIds() override { return Keys(scheduled_); }
    std::vector<std::string> ScheduledTaskIdsOf(const std::string& jobId) override {
        std::vector<std::string> ids;
        for (const auto& [id, task] : scheduled_)
            if (task.jobId == jobId) ids.push_back(id);
        return ids;
    }
    std::optional<ScheduledTaskRecord> FindScheduledTask(const std::string& id) override {
        return Find(scheduled_, id);
    }
    std::optional<ScheduledTaskRecord> FindScheduledTaskByName(const std::string& name) override {
        for (const auto& [id, task] : scheduled_)
            if (task.info->GetName() == name) return Copy(task);
        return std::nullopt;
    }
    void PutScheduledTask(const ScheduledTaskRecord& task) override { scheduled_[task.id] = Copy(task); }
    bool EraseScheduledTask(const std::string& id) override { return scheduled_.erase(id) != 0; }
    std::vector<std::string> DueScheduledTasks(Fundix::System::DateTime time) override {
        std::vector<std::pair<int64_t, std::string>> due;
        for (const auto& [id, task] : scheduled_)
            if (auto at = DueTime(*task.info); at && *at <= time) due.emplace_back(at->GetUtcMicros(), id);
        std::sort(due.begin(), due.end());
        std::vector<std::string> ids;
        for (auto& [at, id] : due)
            ids.push_back(std::move(id));
        return ids;
    }
    std::optional<Fundix::System::DateTime> NextDueTime() override {
        std::optional<Fundix::System::DateTime> next;
        for (const auto& [id, task] : scheduled_)
            if (auto at = DueTime(*task.info); at && (!next || *at < *next)) next = at;
        return next;
    }
    bool EraseTask(const std::string& id) override {
        recentTasks_.erase(std::remove(recentTasks_.begin(), recentTasks_.end(), id), recentTasks_.end());
        return tasks_.erase(id) != 0;
    }
    // ---- Log bundles
    void PutLogBundle(const LogBundleRecord& bundle) override {
        LogBundleRecord copy = bundle;
        copy.info = Copy(bundle.info);
        bundles_.push_back(std::move(copy));
    }
    std::optional<LogBundleRecord> FindLogBundle(const std::string& key) override {
        for (const auto& b : bundles_)
            if (b.key == key) {
                LogBundleRecord copy = b;
                copy.info = Copy(b.info);
                return copy;
            }
        return std::nullopt;
    }
    std::vector<std::string> LogBundleKeys() override {
        std::vector<std::string> keys;
        for (const auto& b : bundles_)
            keys.push_back(b.key);
        return keys;
    }
    bool EraseLogBundle(const std::string& key) override {
        auto it = std::find_if(bundles_.begin(), bundles_.end(), [&](const auto& b) { return b.key == key; });
        if (it == bundles_.end()) return false;
        bundles_.erase(it);
        return true;
    }
    // ---- End of log bundles

    std::mutex mutex_;
    int64_t nextId_ = 1;
    int32_t nextChain_ = 1;
    int32_t nextEventKey_ = 1;
    int32_t maxTask_ = 100;
    std::deque<Ref<Morphel::Event::Event>> events_;
    std::map<std::string, JobRecord> jobs_;
    std::map<std::string, TaskRecord> tasks_;
    std::vector<std::string> recentTasks_;
    std::map<std::string, CollectorRecord> collectors_;
    std::map<std::string, ScheduledTaskRecord> scheduled_;
    std::vector<LogBundleRecord> bundles_;  // oldest first
};

}  // namespace

std::unique_ptr<State> NewMemoryState() { return std::make_unique<MemoryState>(); }

}  // namespace MorphelServer
