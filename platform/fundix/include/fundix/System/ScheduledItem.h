#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "fundix/Functor.h"
#include "fundix/Object.h"

namespace Fundix::System {

// One unit of work handed from one thread to another. The producer keeps a Ref to wait for or cancel the
// item; the consumer calls Run. Each item runs at most once, and a cancelled item never runs.
class ScheduledItem : public ObjectImpl {
public:
    enum State { Pending, Running, Done, Cancelled };

    explicit ScheduledItem(Functor<void()> work);

    // Runs the work if the item is still pending. An exception escaping the work is swallowed so that the
    // worker thread calling Run survives; work that needs to report failure must do so itself.
    void Run();

    // Succeeds only while the item is pending; once it has started it runs to completion.
    bool Cancel();

    State GetState() const;
    // True once the item is Done or Cancelled.
    bool IsDone() const;
    void Wait() const;
    // Returns IsDone() at the time the wait ends.
    bool WaitFor(std::chrono::milliseconds timeout) const;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable finished_;
    State state_ = Pending;
    Functor<void()> work_;
};

}  // namespace Fundix::System
