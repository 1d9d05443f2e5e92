// The events of a store kept outside the process, decoded in memory: those committed, and what the
// transaction in progress appended and dropped, which join the committed ones when it commits and are
// forgotten when it rolls back. Private to the server library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include <fundix/Ref.h>
#include <fundix/System/DateTime.h>
#include <morphel/event/types.h>

#include "EventFilter.h"

namespace MorphelServer {

class EventCache {
public:
    using EventRef = Fundix::Ref<Morphel::Event::Event>;

    // The committed events, oldest first, for a store to fill and trim to what its database holds.
    std::deque<EventRef>& Committed() { return committed_; }

    void Append(Morphel::Event::Event* event) { appended_.emplace_back(event); }

    // What the transaction sees that `filter` selects (all for null), oldest first.
    std::vector<EventRef> Select(const Morphel::Event::EventFilterSpec* filter) const {
        std::vector<EventRef> out;
        auto add = [&](const auto& events, size_t from) {
            for (size_t i = from; i < events.size(); ++i)
                if (Matches(filter, *events[i])) out.push_back(events[i]);
        };
        add(committed_, committedDropped_);
        add(appended_, appendedDropped_);
        return out;
    }

    // Drops the oldest events while more than `keep` are kept or the oldest was created before `before`;
    // how many went, and in `last` the key of the newest of them (the store deletes up to it).
    size_t Drop(size_t keep, Fundix::System::DateTime before, int32_t& last) {
        size_t dropped = 0, kept = committed_.size() - committedDropped_ + appended_.size() - appendedDropped_;
        auto drop = [&](const auto& events, size_t& start) {
            while (start < events.size() && (kept > keep || events[start]->GetCreatedTime() < before)) {
                last = events[start]->GetKey();
                ++start, ++dropped, --kept;
            }
            return start == events.size();
        };
        if (drop(committed_, committedDropped_)) drop(appended_, appendedDropped_);
        return dropped;
    }

    void Commit() {
        committed_.erase(committed_.begin(), committed_.begin() + std::ptrdiff_t(committedDropped_));
        committed_.insert(committed_.end(), appended_.begin() + std::ptrdiff_t(appendedDropped_), appended_.end());
        Rollback();
    }
    void Rollback() {
        appended_.clear();
        committedDropped_ = appendedDropped_ = 0;
    }

private:
    std::deque<EventRef> committed_;
    std::vector<EventRef> appended_;
    size_t committedDropped_ = 0, appendedDropped_ = 0;
};

}  // namespace MorphelServer
