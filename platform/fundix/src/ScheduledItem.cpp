#include "fundix/System/ScheduledItem.h"

#include <utility>

namespace Fundix::System {

ScheduledItem::ScheduledItem(Functor<void()> work) : work_(std::move(work)) {}

void ScheduledItem::Run() {
    Functor<void()> work;
    {
        std::lock_guard lock(mutex_);
        if (state_ != Pending) {
            return;
        }
        state_ = Running;
        // Taking the work out means whatever it captured is released when it finishes, not when the last
        // reference to the item goes away.
        work = std::move(work_);
        work_ = {};
    }
    try {
        work();
    } catch (...) {
        // Deliberately ignored; see the declaration.
    }
    work = {};
    // Notifying under the lock matters: a waiter may drop the last reference as soon as it sees Done, and
    // it cannot see Done before the lock is released, after which this item is not touched again.
    std::lock_guard lock(mutex_);
    state_ = Done;
    finished_.notify_all();
}

bool ScheduledItem::Cancel() {
    Functor<void()> work;
    {
        std::lock_guard lock(mutex_);
        if (state_ != Pending) {
            return false;
        }
        state_ = Cancelled;
        work = std::move(work_);
        work_ = {};
        finished_.notify_all();
    }
    // `work` is destroyed here, outside the lock, in case its captures' destructors touch this item.
    return true;
}

ScheduledItem::State ScheduledItem::GetState() const {
    std::lock_guard lock(mutex_);
    return state_;
}

bool ScheduledItem::IsDone() const {
    std::lock_guard lock(mutex_);
    return state_ == Done || state_ == Cancelled;
}

void ScheduledItem::Wait() const {
    std::unique_lock lock(mutex_);
    finished_.wait(lock, [this] { return state_ == Done || state_ == Cancelled; });
}

bool ScheduledItem::WaitFor(std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return finished_.wait_for(lock, timeout, [this] { return state_ == Done || state_ == Cancelled; });
}

}  // namespace Fundix::System
