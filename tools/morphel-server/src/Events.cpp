// The event manager and its history collectors: views over the events a filter selects.
#include <algorithm>

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
    template <class F>
    auto With(F&& body) {
        return context_.state->Run([&](StateTransaction& tx) {
            auto collector = tx.FindCollector(id_);
            if (!collector)
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

    void ReadNext(int32_t maxCount, Ref<EventPage>& result) override {
        result = With([&](StateTransaction& tx, CollectorRecord& c) {
            if (maxCount <= 0) ThrowInvalidArgument("maxCount");
            auto selected = tx.SelectEvents(c.filter.Get());
            size_t begin = Passed(selected, c.after);
            size_t end = std::min(selected.size(), begin + size_t(maxCount));
            if (end > begin) c.after = selected[end - 1]->GetKey();
            return Page(selected, begin, end);
        });
    }
    void ReadPrev(int32_t maxCount, Ref<EventPage>& result) override {
        result = With([&](StateTransaction& tx, CollectorRecord& c) {
            if (maxCount <= 0) ThrowInvalidArgument("maxCount");
            auto selected = tx.SelectEvents(c.filter.Get());
            size_t end = Passed(selected, c.after);
            size_t begin = end > size_t(maxCount) ? end - size_t(maxCount) : 0;
            if (end > begin) c.after = selected[begin]->GetKey() - 1;
            return Page(selected, begin, end, true);
        });
    }
    void GetLatestPage(Ref<EventPage>& result) override {
        result = With([&](StateTransaction& tx, CollectorRecord& c) {
            auto selected = tx.SelectEvents(c.filter.Get());
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
        With([](StateTransaction& tx, CollectorRecord& c) {
            auto selected = tx.SelectEvents(c.filter.Get());
            size_t n = selected.size();
            return c.after = n > size_t(c.pageSize) ? selected[n - size_t(c.pageSize)]->GetKey() - 1 : 0;
        });
    }
    void GetFilter(Ref<Kitra::Any>& result) override {
        result = With([](StateTransaction&, CollectorRecord& c) { return Ref<Kitra::Any>(c.filter); });
    }
    void Remove() override {
        bool removed = context_.state->Run([&](StateTransaction& tx) { return tx.EraseCollector(id_); });
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

    // At most kMaxCollectors at once: dovra.fault.InvalidState past them.
    void CreateCollector(EventFilterSpec* filter, Ref<Kitra::MoRef>& result) override {
        std::string id = context_.state->Run([&](StateTransaction& tx) {
            if (tx.CountCollectors() >= size_t(kMaxCollectors)) ThrowInvalidState();
            std::string id = "EventHistoryCollector-" + std::to_string(tx.NextId());
            CollectorRecord c;
            c.filter = filter != nullptr ? filter->_Clone() : new EventFilterSpec();
            c.owner = CurrentSession().GetKey();
            tx.PutCollector(id, c);
            return id;
        });
        RegisterCollector(context_, id);
        result = RefTo<Morphel::Event::EventHistoryCollector>(id);
    }
    void QueryEvent(EventFilterSpec* filter, Ref<EventPage>& result) override {
        result = context_.state->Run([&](StateTransaction& tx) {
            auto selected = tx.SelectEvents(filter);
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

void AttachEvents(Context& context) {
    context.Register(kEventManagerId, Ref<EventManagerImpl>(new EventManagerImpl(context)).Get());
    for (const auto& id : context.state->Run([](StateTransaction& tx) { return tx.CollectorIds(); }))
        RegisterCollector(context, id);
}

}  // namespace MorphelServer
