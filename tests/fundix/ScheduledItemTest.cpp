#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include "fundix/Ref.h"
#include "fundix/System/ScheduledItem.h"

using Fundix::Ref;
using Fundix::System::ScheduledItem;

namespace {

TEST(ScheduledItemTest, RunsOnAnotherThreadAndWakesWaiters) {
    int result = 0;
    Ref<ScheduledItem> item(new ScheduledItem([&result] { result = 42; }));
    EXPECT_EQ(item->GetState(), ScheduledItem::Pending);

    std::thread waiters[3];
    for (auto& waiter : waiters) {
        waiter = std::thread([item] { item->Wait(); });
    }
    std::thread worker([item] { item->Run(); });
    item->Wait();
    EXPECT_EQ(result, 42);  // Wait orders the worker's write before this read
    EXPECT_EQ(item->GetState(), ScheduledItem::Done);
    EXPECT_TRUE(item->WaitFor(std::chrono::milliseconds(0)));
    worker.join();
    for (auto& waiter : waiters) {
        waiter.join();
    }

    result = 0;
    item->Run();  // a finished item never runs again
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(item->Cancel());

    // Work that throws still ends its item.
    Ref<ScheduledItem> failing(new ScheduledItem([] { throw std::runtime_error("boom"); }));
    failing->Run();
    EXPECT_EQ(failing->GetState(), ScheduledItem::Done);
}

TEST(ScheduledItemTest, CancelledItemNeverRuns) {
    bool ran = false;
    auto captured = std::make_shared<int>(0);
    Ref<ScheduledItem> item(new ScheduledItem([&ran, captured] { ran = true; }));

    EXPECT_TRUE(item->Cancel());
    EXPECT_EQ(captured.use_count(), 1);  // the work and its captures are released on cancel
    EXPECT_FALSE(item->Cancel());
    EXPECT_EQ(item->GetState(), ScheduledItem::Cancelled);
    EXPECT_TRUE(item->IsDone());
    item->Wait();
    item->Run();
    EXPECT_FALSE(ran);
}

TEST(ScheduledItemTest, CannotCancelWhileRunning) {
    std::promise<void> started;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    Ref<ScheduledItem> item(new ScheduledItem([&started, released] {
        started.set_value();
        released.wait();
    }));

    std::thread worker([item] { item->Run(); });
    started.get_future().wait();
    EXPECT_EQ(item->GetState(), ScheduledItem::Running);
    EXPECT_FALSE(item->Cancel());
    EXPECT_FALSE(item->IsDone());

    release.set_value();
    item->Wait();
    EXPECT_EQ(item->GetState(), ScheduledItem::Done);
    worker.join();
}

}  // namespace
