// The in-memory state: keys, recent tasks, lookups and removal, as any other store must keep them.
#include <gtest/gtest.h>

#include <morphel-server/State.h>

namespace {

using Fundix::Ref;
using MorphelServer::StateTransaction;

TEST(MemoryState, KeepsWhatIsPutAndNumbersWhatIsAppended) {
    auto state = MorphelServer::NewMemoryState();
    state->Transact([](StateTransaction& tx) {
        EXPECT_EQ(tx.NextId(), 1);
        EXPECT_EQ(tx.NextId(), 2);
        EXPECT_EQ(tx.NextChainId(), 1);
        EXPECT_EQ(tx.GetMaxTask(), 100);

        Ref<Morphel::Event::Event> a(new Morphel::Event::GeneralEvent()), b(new Morphel::Event::Event());
        a->SetChainId(4);
        b->SetChainId(5);
        EXPECT_EQ(tx.AppendEvent(a.Get()), 1);
        EXPECT_EQ(tx.AppendEvent(b.Get()), 2);
        EXPECT_EQ(b->GetKey(), 2);
        Ref<Morphel::Event::EventFilterSpec> chain(new Morphel::Event::EventFilterSpec());
        chain->SetEventChainId(5);
        auto selected = tx.SelectEvents(chain.Get());
        ASSERT_EQ(selected.size(), 1u);
        EXPECT_EQ(selected[0]->GetKey(), 2);
        EXPECT_EQ(tx.SelectEvents(nullptr).size(), 2u);

        for (const char* id : {"t1", "t2", "t3", "t4"})
            tx.AddRecentTask(id, 3);
        EXPECT_EQ(tx.RecentTasks(), (std::vector<std::string>{"t2", "t3", "t4"}));
        tx.AddRecentTask("t5", 1);
        EXPECT_EQ(tx.RecentTasks(), std::vector<std::string>{"t5"});

        MorphelServer::JobRecord job;
        job.id = "ConversionJob-1";
        job.spec = new Morphel::Server::Conversion::ConversionJobSpec();
        job.spec->SetName("one");
        tx.PutJob(job);
        job.spec->SetName("changed after the put");
        EXPECT_EQ(tx.FindJob("ConversionJob-1")->spec->GetName(),
                  "one");  // records go in and come out as copies
        tx.FindJob("ConversionJob-1")->spec->SetName("changed without a put");
        EXPECT_EQ(tx.FindJobByName("one")->id, "ConversionJob-1");
        EXPECT_FALSE(tx.FindJobByName("two").has_value());
        EXPECT_TRUE(tx.EraseJob("ConversionJob-1"));
        EXPECT_FALSE(tx.EraseJob("ConversionJob-1"));
        EXPECT_FALSE(tx.FindJob("ConversionJob-1").has_value());

        MorphelServer::CollectorRecord collector;
        collector.filter = new Morphel::Event::EventFilterSpec();
        tx.PutCollector("c", collector);
        collector.position = 7;
        EXPECT_EQ(tx.FindCollector("c")->position, 0u);  // a copy: only a put changes the state
        tx.PutCollector("c", collector);
        EXPECT_EQ(tx.FindCollector("c")->position, 7u);
        EXPECT_EQ(tx.CountCollectors(), 1u);
        EXPECT_TRUE(tx.EraseCollector("c"));
        EXPECT_EQ(tx.CountCollectors(), 0u);
    });
    // Values come out of Run as the transaction returned them.
    EXPECT_EQ(state->Run([](StateTransaction& tx) { return tx.NextId(); }), 3);
}

}  // namespace
