// History collectors of every kind (events, tasks, conversion jobs): views over the items a filter selects,
// ordered by a key that only grows. Private to the server library.
#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <kitra/fault/types.h>

#include "Context.h"

namespace MorphelServer {

// An item a collector pages over, with its key.
template <class Item>
struct Keyed {
    int64_t key;
    Fundix::Ref<Item> item;
};

// A collector stands before the oldest item it selects: readNext pages forwards, readPrev back (nearest
// first), rewind returns to the start and reset to just before the latest page. It keeps its place as the
// key of the last item before it, so dropping old items moves no collector. Each operation finds its state
// again: the collector may have been removed meanwhile. `Managed` is the collector's managed type, `Base`
// its generated implementation base, `Item` what its pages hold.
template <class Managed, class Base, class Item>
class HistoryCollectorImpl : public Base {
public:
    using Items = std::vector<Keyed<Item>>;
    using PageRef = Fundix::Ref<Kitra::DataArray<Item>>;
    // What a collector selects that its session may read, oldest (lowest key) first.
    using Selector = std::function<Items(StateTransaction& tx, const CollectorRecord& c)>;

    HistoryCollectorImpl(Context& context, std::string id, Selector select)
        : context_(context), id_(std::move(id)), select_(std::move(select)) {}

    void ReadNext(int32_t maxCount, PageRef& result) override {
        result = With([&](StateTransaction& tx, CollectorRecord& c) {
            if (maxCount <= 0) ThrowInvalidArgument("maxCount");
            auto selected = select_(tx, c);
            size_t begin = Passed(selected, c.after);
            size_t end = std::min(selected.size(), begin + size_t(maxCount));
            if (end > begin) c.after = selected[end - 1].key;
            return Page(selected, begin, end, false);
        });
    }
    void ReadPrev(int32_t maxCount, PageRef& result) override {
        result = With([&](StateTransaction& tx, CollectorRecord& c) {
            if (maxCount <= 0) ThrowInvalidArgument("maxCount");
            auto selected = select_(tx, c);
            size_t end = Passed(selected, c.after);
            size_t begin = end > size_t(maxCount) ? end - size_t(maxCount) : 0;
            if (end > begin) c.after = selected[begin].key - 1;
            return Page(selected, begin, end, true);
        });
    }
    void GetLatestPage(PageRef& result) override {
        result = With([&](StateTransaction& tx, CollectorRecord& c) {
            auto selected = select_(tx, c);
            size_t n = std::min(selected.size(), size_t(c.pageSize));
            return Page(selected, selected.size() - n, selected.size(), false);
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
            auto selected = select_(tx, c);
            size_t n = selected.size();
            return c.after = n > size_t(c.pageSize) ? selected[n - size_t(c.pageSize)].key - 1 : 0;
        });
    }
    void GetFilter(Fundix::Ref<Kitra::Any>& result) override {
        result = With([](StateTransaction&, CollectorRecord& c) { return c.filter; });
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
    // How many of `selected` a collector has passed: those with keys up to `after`.
    static size_t Passed(const Items& selected, int64_t after) {
        return size_t(std::partition_point(selected.begin(), selected.end(),
                                           [after](const Keyed<Item>& k) { return k.key <= after; }) -
                      selected.begin());
    }
    // Copies of `selected` from `begin` to `end` (backwards: from `end` down), as a page to hand out.
    static PageRef Page(const Items& selected, size_t begin, size_t end, bool backwards) {
        PageRef page(new Kitra::DataArray<Item>());
        for (size_t i = begin; i < end; ++i)
            page->Append(
                Fundix::Ref<Item>(selected[backwards ? end - 1 - (i - begin) : i].item->_Clone()).Get());
        return page;
    }

    // Runs `body` on the collector's state and keeps what it changed. Another session's collector is as
    // unknown to the caller as one that does not exist.
    template <class F>
    auto With(F&& body) {
        const std::string caller = CurrentSession().GetKey();
        return context_.state->Run([&](StateTransaction& tx) {
            auto collector = tx.FindCollector(id_);
            if (!collector || collector->owner != caller)
                Kitra::Fault::ManagedObjectNotFound::Exception(RefTo<Managed>(id_).Get()).Throw();
            auto result = body(tx, *collector);
            tx.PutCollector(id_, *collector);
            return result;
        });
    }

    Context& context_;
    const std::string id_;
    const Selector select_;
};

// The collector of events `id` (Events.cpp), not yet registered.
Fundix::Ref<Kitra::ManagedObject> NewEventCollector(Context& context, const std::string& id);

}  // namespace MorphelServer
