#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <utility>

#include "fundix/Object.h"
#include "fundix/Ref.h"

using Fundix::ObjectImpl;
using Fundix::Ref;
using Fundix::RefVector;

namespace {

// Counts its destructions in a counter owned by the test.
class Tracked : public ObjectImpl {
public:
    explicit Tracked(std::atomic<int>* deaths, int initial = 0) : value(initial), deaths_(deaths) {}
    Tracked(const Tracked&) = default;
    Tracked& operator=(const Tracked&) = default;
    ~Tracked() override { ++*deaths_; }

    int value;

private:
    std::atomic<int>* deaths_;
};

class DerivedTracked : public Tracked {
public:
    using Tracked::Tracked;
};

TEST(RefTest, OwnershipFollowsCopiesAndMoves) {
    std::atomic<int> deaths{0};
    Tracked* raw = new Tracked(&deaths);
    EXPECT_EQ(raw->GetRefCount(), 0);
    {
        Ref<Tracked> a(raw);
        Ref<Tracked> b = a;
        Ref<Tracked> c = std::move(b);
        EXPECT_EQ(raw->GetRefCount(), 2);
        EXPECT_FALSE(b);
        EXPECT_EQ(c, a);

        Ref<Tracked> d = c;
        Ref<Tracked>& self = d;  // an alias keeps the compiler from flagging the self-assignment
        d = self;
        d = std::move(self);
        EXPECT_EQ(raw->GetRefCount(), 3);
        EXPECT_EQ(d, raw);
        d = std::move(c);
        EXPECT_EQ(raw->GetRefCount(), 2);
    }
    EXPECT_EQ(deaths, 1);
}

TEST(RefTest, ResetDetachAndSwap) {
    std::atomic<int> deaths{0};
    Ref<Tracked> a(new Tracked(&deaths, 1));
    Ref<Tracked> b(new Tracked(&deaths, 2));
    a.Swap(b);
    EXPECT_EQ(a->value, 2);
    EXPECT_EQ((*b).value, 1);

    a.Reset(a.Get());  // resetting to the held object must not delete it first
    EXPECT_EQ(a->GetRefCount(), 1);
    a.Reset();
    EXPECT_EQ(deaths, 1);
    EXPECT_EQ(a, nullptr);

    Tracked* raw = b.Detach();
    EXPECT_EQ(raw->GetRefCount(), 1);
    raw->DecRef();
    EXPECT_EQ(deaths, 2);
}

TEST(RefTest, ConvertsToBaseAndConst) {
    std::atomic<int> deaths{0};
    Ref<DerivedTracked> derived(new DerivedTracked(&deaths, 7));
    Ref<Tracked> base = derived;
    Ref<const Tracked> constBase = derived;
    EXPECT_EQ(constBase->value, 7);
    EXPECT_EQ(constBase, base.Get());

    Ref<Fundix::Object> object = std::move(base);
    EXPECT_FALSE(base);
    EXPECT_EQ(derived->GetRefCount(), 3);

    derived.Reset();
    constBase.Reset();
    EXPECT_EQ(deaths, 0);
    object.Reset();
    EXPECT_EQ(deaths, 1);
}

TEST(RefTest, RefVectorHoldsReferences) {
    std::atomic<int> deaths{0};
    {
        RefVector<Tracked> slots(3);
        ASSERT_EQ(slots.size(), 3u);
        EXPECT_EQ(slots[1], nullptr);

        Ref<Tracked> item(new Tracked(&deaths));
        slots[0] = item;
        slots.push_back(item);
        RefVector<Tracked> copy = slots;
        EXPECT_EQ(item->GetRefCount(), 5);
    }
    EXPECT_EQ(deaths, 1);
}

TEST(ObjectImplTest, CopyStartsWithItsOwnCount) {
    std::atomic<int> deaths{0};
    Ref<Tracked> original(new Tracked(&deaths, 5));
    Ref<Tracked> second = original;

    Ref<Tracked> copy(new Tracked(*original));
    EXPECT_EQ(copy->value, 5);
    EXPECT_EQ(copy->GetRefCount(), 1);

    Ref<Tracked> target(new Tracked(&deaths, 9));
    *target = *original;
    EXPECT_EQ(target->value, 5);
    EXPECT_EQ(target->GetRefCount(), 1);
}

TEST(ObjectImplTest, ConcurrentReferencesDeleteExactlyOnce) {
    std::atomic<int> deaths{0};
    for (int round = 0; round < 200; ++round) {
        Ref<Tracked> first(new Tracked(&deaths));
        Ref<Tracked> second = first;
        // Each thread churns copies and then drops its reference; whichever finishes last deletes.
        const auto churn = [](Ref<Tracked> mine) {
            for (int i = 0; i < 1000; ++i) {
                Ref<Tracked> copy = mine;
            }
        };
        std::thread a(churn, std::move(first));
        std::thread b(churn, std::move(second));
        a.join();
        b.join();
        ASSERT_EQ(deaths, round + 1);
    }
}

}  // namespace
