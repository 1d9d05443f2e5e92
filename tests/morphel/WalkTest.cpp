// The generic walk over a record's fields as the records describe them: text compared in place at every
// length, references compared and shared by what the field's record says, arrays null, empty or full, sizes
// through the identity fast path and through any other sizer alike, paths only where values differ.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <kitra/Kitra.h>
#include <morphel/task/types.h>
#include <morphel/types.h>

namespace {

using Fundix::Ref;
using Morphel::DiagnosticManager;
using Morphel::Task::TaskInfo;

Ref<TaskInfo> MakeTask() {
    Ref<TaskInfo> t(new TaskInfo());
    t->SetKey("task-2026-11-23-000417");
    t->SetTask(new Kitra::MoRef("morphel.task.Task", "task-417"));
    t->SetName(std::string("Convert file server to managed virtual machine"));
    t->SetDescriptionId("morphel.task.conversion.convert");
    t->SetUserName(std::string("operator"));
    t->SetState(TaskInfo::State::running);
    t->SetProgress(42);
    Ref<DiagnosticManager::TaskLogBundleInfo> bundle(new DiagnosticManager::TaskLogBundleInfo());
    bundle->SetKey("bundle-417");
    bundle->SetCrc(7);
    Ref<Kitra::Array<DiagnosticManager::BundleContent>> content(new Kitra::Array<DiagnosticManager::BundleContent>());
    content->Append(DiagnosticManager::BundleContent::agentLogs);
    bundle->SetContent(content.Get());
    t->SetLogBundleInfo(bundle.Get());
    t->SetJob(new Kitra::MoRef("morphel.server.job.Job", "job-12"));
    return t;
}

std::vector<std::string> Diff(const Kitra::Any* a, const Kitra::Any* b, const std::string& prefix = "") {
    Kitra::PropertyDiffSet diffs;
    a->_DiffProperties(b, prefix, diffs);
    return diffs.Paths();
}

TEST(WalkTest, TextOfEveryLengthDiffersAtEveryPosition) {
    for (size_t n = 0; n <= 40; ++n) {
        Ref<TaskInfo> a = MakeTask();
        a->SetKey(std::string(n, 'k'));
        Ref<TaskInfo> b(a->_Clone());
        ASSERT_TRUE(a->_IsEqual(b.Get(), false)) << n;
        for (size_t i = 0; i < n; ++i) {
            std::string other(n, 'k');
            other[i] = 'x';
            b->SetKey(other);
            EXPECT_FALSE(a->_IsEqual(b.Get(), false)) << n << " at " << i;
            EXPECT_EQ(Diff(a.Get(), b.Get()), std::vector<std::string>{".key"}) << n << " at " << i;
        }
        b->SetKey(std::string(n + 1, 'k'));
        EXPECT_FALSE(a->_IsEqual(b.Get(), false)) << n;
    }
}

// One task and its copy: nested records and arrays, references, then differences of every storage class.
TEST(WalkTest, NestedRecordsArraysReferencesAndDifferencesInFieldOrder) {
    Ref<TaskInfo> a = MakeTask();
    Ref<TaskInfo> b(a->_Clone());
    b->GetLogBundleInfo()->SetCrc(8);
    b->SetProgress(43);
    EXPECT_FALSE(a->_IsEqual(b.Get(), false));
    EXPECT_EQ(Diff(a.Get(), b.Get()), (std::vector<std::string>{".progress", ".logBundleInfo.crc"}));
    b->GetLogBundleInfo()->SetCrc(7);
    b->SetProgress(42);

    // A null array and an empty one are alike; a null array and a full one are not.
    DiagnosticManager::TaskLogBundleInfo* mine = a->GetLogBundleInfo();
    DiagnosticManager::TaskLogBundleInfo* theirs = b->GetLogBundleInfo();
    Ref<DiagnosticManager::TaskLogBundleInfo> bare(new DiagnosticManager::TaskLogBundleInfo());
    bare->SetKey("bundle-417");
    bare->SetCrc(7);
    EXPECT_FALSE(mine->_IsEqual(bare.Get(), false));
    EXPECT_FALSE(bare->_IsEqual(mine, false));
    EXPECT_EQ(Diff(bare.Get(), mine), std::vector<std::string>{".content"});
    EXPECT_TRUE(mine->_IsEqual(bare.Get(), true));  // the array is optional: null in theirs is forgiven
    EXPECT_FALSE(bare->_IsEqual(mine, true));
    theirs->GetContent()->Clear();
    EXPECT_FALSE(mine->_IsEqual(theirs, true));  // an empty array is a value, not an absence
    EXPECT_TRUE(theirs->_IsEqual(bare.Get(), false));
    EXPECT_TRUE(bare->_IsEqual(theirs, false));
    EXPECT_TRUE(Diff(bare.Get(), theirs).empty());
    theirs->GetContent()->Append(DiagnosticManager::BundleContent::serverLogs);
    EXPECT_EQ(Diff(mine, theirs, "x"), std::vector<std::string>{"x.content"});

    b = a->_Clone();
    // A reference cannot change, so a copy shares it; records and arrays are copied.
    EXPECT_EQ(b->GetTask(), a->GetTask());
    EXPECT_NE(b->GetLogBundleInfo(), a->GetLogBundleInfo());
    EXPECT_NE(b->GetLogBundleInfo()->GetContent(), a->GetLogBundleInfo()->GetContent());

    b->SetTask(new Kitra::MoRef("morphel.task.Task", "task-418"));  // the identifier only
    EXPECT_FALSE(a->_IsEqual(b.Get(), false));
    EXPECT_EQ(Diff(a.Get(), b.Get()), std::vector<std::string>{".task"});
    b->SetTask(new Kitra::MoRef("morphel.task.Tusk", "task-417"));  // the type only, same length
    EXPECT_FALSE(a->_IsEqual(b.Get(), false));
    b->SetTask(new Kitra::MoRef("morphel.task.Task", "task-417"));  // another object, the same reference
    EXPECT_TRUE(a->_IsEqual(b.Get(), false));
    EXPECT_TRUE(Diff(a.Get(), b.Get()).empty());

    // In an untyped field, a reference equals only a reference: not a record that holds the same two texts
    // where a reference holds its type and identifier.
    a->SetResult(new Kitra::MoRef("morphel.task.Task", "task-417"));
    b->SetResult(new Kitra::MoRef("morphel.task.Task", "task-417"));
    EXPECT_TRUE(a->_IsEqual(b.Get(), false));
    Ref<Morphel::DovraConnectionSpec::LoginDovraCredentials> lookalike(
        new Morphel::DovraConnectionSpec::LoginDovraCredentials());
    lookalike->SetUsername("morphel.task.Task");
    lookalike->SetPassword("task-417");
    b->SetResult(lookalike.Get());
    EXPECT_FALSE(a->_IsEqual(b.Get(), false));
    EXPECT_FALSE(b->_IsEqual(a.Get(), false));
    EXPECT_EQ(Diff(a.Get(), b.Get()), std::vector<std::string>{".result"});
    b->SetResult(a->GetResult());

    // An optional reference that is null: unequal, forgiven only in `theirs` with `partial`.
    b->SetJob(nullptr);
    EXPECT_FALSE(a->_IsEqual(b.Get(), false));
    EXPECT_TRUE(a->_IsEqual(b.Get(), true));
    EXPECT_FALSE(b->_IsEqual(a.Get(), true));
    EXPECT_EQ(Diff(a.Get(), b.Get(), "t"), std::vector<std::string>{"t.job"});

    // Differences of every storage class, the first and the last field included, come in field order.
    b = a->_Clone();
    b->SetIncremental(true);                                            // last field, optional bool
    b->SetEventChainId(5);                                              // int
    b->SetRootTask(new Kitra::MoRef("morphel.task.Task", "task-1"));    // reference, null in a
    b->SetCancelled(true);                                              // bool
    b->SetUserName(std::string("operatoR"));                            // optional text
    b->SetKey("task-2026-11-23-000418");                                // first field, text
    b->SetQueueTime(Fundix::System::DateTime(2026, 11, 23, 4, 17, 0));  // date
    EXPECT_EQ(Diff(a.Get(), b.Get(), "t"),
              (std::vector<std::string>{"t.key", "t.userName", "t.cancelled", "t.queueTime", "t.eventChainId",
                                        "t.rootTask", "t.incremental"}));
    EXPECT_FALSE(a->_IsEqual(b.Get(), true));
}

unsigned gExtra = 0;
unsigned AddingSizer(unsigned size) { return size + gExtra; }

TEST(WalkTest, SizeThroughAnySizerAgreesWithTheIdentity) {
    Ref<TaskInfo> t = MakeTask();
    t->SetSource(std::string(100, 's'));
    t->SetTarget(std::string("short"));
    // A sizer that happens to be the identity takes the general path; the result is the same.
    gExtra = 0;
    const unsigned identity = t->_GetSize(&Kitra::IdentitySizer);
    EXPECT_EQ(t->_GetSize(&AddingSizer), identity);

    // Each string's heap buffer, optional or not, and each counted value counts where it is held.
    Ref<TaskInfo> bare(new TaskInfo());
    bare->SetKey(t->GetKey());
    bare->SetDescriptionId(t->GetDescriptionId());
    const unsigned keys = bare->_GetSize(&Kitra::IdentitySizer);
    EXPECT_EQ(keys, sizeof(TaskInfo) + t->GetKey().capacity() + t->GetDescriptionId().capacity());
    bare->SetTask(t->GetTask());
    const Kitra::MoRef* task = t->GetTask();
    EXPECT_EQ(bare->_GetSize(&Kitra::IdentitySizer) - keys,
              sizeof(Kitra::MoRef) + task->GetTypeName().capacity() + 0 /* the identifier is short */);
    EXPECT_EQ(bare->_GetSize(&AddingSizer), bare->_GetSize(&Kitra::IdentitySizer));
    bare->SetSource(std::string(100, 's'));
    EXPECT_EQ(bare->_GetSize(&Kitra::IdentitySizer) - keys - task->_GetSize(&Kitra::IdentitySizer),
              bare->GetSource().GetValue().capacity());
    // A reference counted in place agrees with its own size, a long identifier's buffer included.
    const unsigned before = bare->_GetSize(&Kitra::IdentitySizer);
    Ref<Kitra::MoRef> job(new Kitra::MoRef("morphel.server.job.Job", std::string(40, 'j')));
    bare->SetJob(job.Get());
    EXPECT_EQ(bare->_GetSize(&Kitra::IdentitySizer) - before, job->_GetSize(&Kitra::IdentitySizer));
}

}  // namespace
