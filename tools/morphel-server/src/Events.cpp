// The event manager and its history collectors: views over the events a filter selects.
#include <algorithm>
#include <set>

#include <kitra/fault/types.h>
#include <morphel/event/types.h>

#include "Context.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;
using Morphel::Event::Event;
using Morphel::Event::EventFilterSpec;
using EventPage = Kitra::DataArray<Event>;

// How many of `selected` (oldest first) a collector has passed: those with keys up to `after`.
size_t Passed(const std::vector<Ref<Event>>& selected, int32_t after) {
    return size_t(std::partition_point(selected.begin(), selected.end(),
                                       [after](const Ref<Event>& e) { return e->GetKey() <= after; }) -
                  selected.begin());
}

// A collector stands before the oldest event it selects: readNext pages forwards, readPrev back (nearest
// first), rewind returns to the start and reset to just before the latest page. Each operation finds its
// state again: the collector may have been removed meanwhile.
class EventHistoryCollectorImpl : public Morphel::Event::EventHistoryCollectorBase {
private:
    // Runs `body` on the collector's state and keeps what it changed.
    // Another session's collector is as unknown to the caller as one that does not exist.
    template <class F>
    auto With(F&& body) {
        const std::string caller = CurrentSession().GetKey();
        return context_.state->Run([&](StateTransaction& tx) {
            auto collector = tx.FindCollector(id_);
            if (!collector || collector->owner != caller)
                Kitra::Fault::ManagedObjectNotFound::Exception(
                    RefTo<Morphel::Event::EventHistoryCollector>(id_).Get())
                    .Throw();
            auto result = body(tx, *collector);
            tx.PutCollector(id_, *collector);
            return result;
        });
    }

public:
    EventHistoryCollectorImpl(Context& context, std::string id) : context_(context), id_(std::move(id)) {}

    // What the collector selects that its session may read.
    std::vector<Ref<Event>> Select(StateTransaction& tx, const CollectorRecord& c) {
        return ReadableEvents(tx, c.filter.Get(), ReadsFailedLogins(context_));
    }

    void ReadNext(int32_t maxCount, Ref<EventPage>& result) override {
        result = With([&](StateTransaction& tx, CollectorRecord& c) {
            if (maxCount <= 0) ThrowInvalidArgument("maxCount");
            auto selected = Select(tx, c);
            size_t begin = Passed(selected, c.after);
            size_t end = std::min(selected.size(), begin + size_t(maxCount));
            if (end > begin) c.after = selected[end - 1]->GetKey();
            return Page(selected, begin, end);
        });
    }
    void ReadPrev(int32_t maxCount, Ref<EventPage>& result) override {
        result = With([&](StateTransaction& tx, CollectorRecord& c) {
            if (maxCount <= 0) ThrowInvalidArgument("maxCount");
            auto selected = Select(tx, c);
            size_t end = Passed(selected, c.after);
            size_t begin = end > size_t(maxCount) ? end - size_t(maxCount) : 0;
            if (end > begin) c.after = selected[begin]->GetKey() - 1;
            return Page(selected, begin, end, true);
        });
    }
    void GetLatestPage(Ref<EventPage>& result) override {
        result = With([&](StateTransaction& tx, CollectorRecord& c) {
            auto selected = Select(tx, c);
            size_t n = std::min(selected.size(), size_t(c.pageSize));
            return Page(selected, selected.size() - n, selected.size());
        });
    }
    void SetLatestPageSize(int32_t maxCount) override {
        With([&](StateTransaction&, CollectorRecord& c) {
            if (maxCount <= 0) ThrowInvalidArgument("maxCount");
            c.pageSize = maxCount;
            return 0;
        });
    }
    void Rewind() override {
        With([](StateTransaction&, CollectorRecord& c) { return c.after = 0; });
    }
    void Reset() override {
        With([&](StateTransaction& tx, CollectorRecord& c) {
            auto selected = Select(tx, c);
            size_t n = selected.size();
            return c.after = n > size_t(c.pageSize) ? selected[n - size_t(c.pageSize)]->GetKey() - 1 : 0;
        });
    }
    void GetFilter(Ref<Kitra::Any>& result) override {
        result = With([](StateTransaction&, CollectorRecord& c) { return Ref<Kitra::Any>(c.filter); });
    }
    void Remove() override {
        const std::string caller = CurrentSession().GetKey();
        bool removed = context_.state->Run([&](StateTransaction& tx) {
            auto c = tx.FindCollector(id_);
            return c && c->owner == caller && tx.EraseCollector(id_);
        });
        if (!removed) ThrowNotFound();
        context_.Unregister(id_);
    }

private:
    Context& context_;
    const std::string id_;
};

class EventManagerImpl : public Morphel::Event::EventManagerBase {
public:
    explicit EventManagerImpl(Context& context) : context_(context) {}

    // At most kMaxCollectors for each session: dovra.fault.InvalidState past them.
    void CreateCollector(EventFilterSpec* filter, Ref<Kitra::MoRef>& result) override {
        const std::string owner = CurrentSession().GetKey();
        std::string id = context_.state->Run([&](StateTransaction& tx) {
            if (tx.CollectorIdsOf(owner).size() >= size_t(kMaxCollectors)) ThrowInvalidState();
            std::string id = "EventHistoryCollector-" + std::to_string(tx.NextId());
            CollectorRecord c;
            c.filter = filter != nullptr ? filter->_Clone() : new EventFilterSpec();
            c.owner = owner;
            tx.PutCollector(id, c);
            return id;
        });
        RegisterCollector(context_, id);
        result = RefTo<Morphel::Event::EventHistoryCollector>(id);
    }
    void QueryEvent(EventFilterSpec* filter, Ref<EventPage>& result) override {
        const bool failedLogins = ReadsFailedLogins(context_);
        result = context_.state->Run([&](StateTransaction& tx) {
            auto selected = ReadableEvents(tx, filter, failedLogins);
            return Page(selected, 0, selected.size());
        });
    }
    int32_t GetMaxCollector() override { return kMaxCollectors; }

private:
    Context& context_;
};

}  // namespace

Ref<Kitra::ManagedObject> RegisterCollector(Context& context, const std::string& id) {
    Ref<Kitra::ManagedObject> collector(new EventHistoryCollectorImpl(context, id));
    context.Register(id, collector.Get());
    return collector;
}

std::vector<Ref<Event>> ReadableEvents(StateTransaction& tx, const EventFilterSpec* filter, bool failedLogins) {
    auto selected = tx.SelectEvents(filter);
    if (!failedLogins)
        selected.erase(std::remove_if(selected.begin(), selected.end(),
                                      [](const Ref<Event>& e) {
                                          return dynamic_cast<const Morphel::Event::UserFailedAuthenticationEvent*>(
                                                     e.Get()) != nullptr;
                                      }),
                       selected.end());
    return selected;
}

bool ReadsFailedLogins(Context& context) {
    return context.accounts.Holds(CurrentSession().GetUserName(), "Sessions.TerminateSession");
}

void EndCollectorsOf(Context& context, const std::string& key) {
    auto ended = context.state->Run([&](StateTransaction& tx) {
        auto ids = tx.CollectorIdsOf(key);
        for (const auto& id : ids)
            tx.EraseCollector(id);
        return ids;
    });
    for (const auto& id : ended)
        context.Unregister(id);
}

void AttachEvents(Context& context) {
    context.Register(kEventManagerId, Ref<EventManagerImpl>(new EventManagerImpl(context)).Get());
    // Collectors whose session ended with an earlier run of the server go; the others are served again.
    const std::set<std::string> live = context.server->GetSessionKeys();
    auto kept = context.state->Run([&](StateTransaction& tx) {
        std::vector<std::string> ids;
        for (const auto& id : tx.CollectorIds()) {
            auto c = tx.FindCollector(id);
            if (c && live.count(c->owner) != 0) ids.push_back(id);
            else tx.EraseCollector(id);
        }
        return ids;
    });
    for (const auto& id : kept)
        RegisterCollector(context, id);
}

}  // namespace MorphelServer
