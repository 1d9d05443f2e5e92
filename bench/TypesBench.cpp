// The cost of the generated data objects beside plain C++ structs of the same shape, and the cost of
// registering the whole catalogue.
#include <benchmark/benchmark.h>

#include <optional>
#include <string>
#include <vector>

#include <kitra/Kitra.h>
#include <kitra/Module.h>
#include <morphel/task/types.h>
#include <morphel/types.h>

namespace {

using Fundix::Ref;
using Morphel::DiagnosticManager;
using Morphel::Task::TaskInfo;

// A task record as a server reports it: most fields set, two references, a nested log-bundle record with
// an array.
Ref<TaskInfo> MakeTask() {
    Ref<TaskInfo> t(new TaskInfo());
    t->SetKey("task-2026-11-23-000417");
    t->SetTask(new Kitra::MoRef("morphel.task.Task", "task-417"));
    t->SetName(std::string("Convert file server to managed virtual machine"));
    t->SetDescriptionId("morphel.task.conversion.convert");
    t->SetUserName(std::string("operator"));
    t->SetSource(std::string("fileserver-03.example.internal"));
    t->SetTarget(std::string("cluster-a/datastore-7/fileserver-03"));
    t->SetState(TaskInfo::State::running);
    t->SetCancelable(true);
    t->SetProgress(42);
    t->SetEstimatedTimeRemaining(1800);
    t->SetTransferRate(950);
    t->SetQueueTime(Fundix::System::DateTime(2026, 11, 23, 9, 0, 0));
    t->SetStartTime(Fundix::System::DateTime(2026, 11, 23, 9, 1, 30));
    t->SetEventChainId(9001);
    Ref<DiagnosticManager::TaskLogBundleInfo> bundle(new DiagnosticManager::TaskLogBundleInfo());
    bundle->SetKey("bundle-417");
    bundle->SetTimeCreated(Fundix::System::DateTime(2026, 11, 23, 9, 5, 0));
    bundle->SetFormat(DiagnosticManager::BundleFormat::zip);
    Ref<Kitra::Array<DiagnosticManager::BundleContent>> content(new Kitra::Array<DiagnosticManager::BundleContent>());
    content->Append(DiagnosticManager::BundleContent::agentLogs);
    content->Append(DiagnosticManager::BundleContent::serverLogs);
    content->Append(DiagnosticManager::BundleContent::workerLogs);
    bundle->SetContent(content.Get());
    bundle->SetSize(1 << 20);
    bundle->SetCrc(0x1234567);
    t->SetLogBundleInfo(bundle.Get());
    t->SetJob(new Kitra::MoRef("morphel.server.job.Job", "job-12"));
    t->SetHasChildren(false);
    return t;
}

struct PlainRef {
    std::string type, id;
    bool operator==(const PlainRef&) const = default;
};
struct PlainBundle {
    std::string key;
    int64_t timeCreated = 0;
    int32_t format = 0;
    std::vector<int32_t> content;
    int64_t size = 0;
    int32_t crc = 0;
    bool operator==(const PlainBundle&) const = default;
};
struct PlainTask {
    std::string key;
    PlainRef task;
    std::optional<std::string> name;
    std::string descriptionId;
    std::optional<std::string> userName, source, target;
    int32_t state = 0;
    bool cancelled = false, cancelable = false;
    std::optional<int32_t> progress, estimatedTimeRemaining, transferRate;
    int64_t queueTime = 0;
    std::optional<int64_t> startTime, completeTime;
    int32_t eventChainId = 0;
    std::optional<PlainRef> pelorTask;
    std::optional<PlainBundle> logBundleInfo;
    std::optional<PlainRef> job;
    std::optional<bool> hasChildren;
    std::optional<PlainRef> parentTask, rootTask;
    std::optional<bool> incremental;
    bool operator==(const PlainTask&) const = default;
};

PlainTask MakePlainTask() {
    PlainTask t;
    t.key = "task-2026-11-23-000417";
    t.task = {"morphel.task.Task", "task-417"};
    t.name = "Convert file server to managed virtual machine";
    t.descriptionId = "morphel.task.conversion.convert";
    t.userName = "operator";
    t.source = "fileserver-03.example.internal";
    t.target = "cluster-a/datastore-7/fileserver-03";
    t.state = 1;
    t.cancelable = true;
    t.progress = 42;
    t.estimatedTimeRemaining = 1800;
    t.transferRate = 950;
    t.queueTime = 1;
    t.startTime = 2;
    t.eventChainId = 9001;
    t.logBundleInfo = PlainBundle{"bundle-417", 3, 0, {0, 3, 6}, 1 << 20, 0x1234567};
    t.job = PlainRef{"morphel.server.job.Job", "job-12"};
    t.hasChildren = false;
    return t;
}

unsigned PlainSize(const PlainTask& t) {
    auto text = [](const std::string& s) { return s.capacity() < 16 ? 0u : static_cast<unsigned>(s.capacity()); };
    unsigned size = sizeof(PlainTask) + text(t.key) + text(t.task.type) + text(t.task.id) + text(t.descriptionId);
    for (const auto* o : {&t.name, &t.userName, &t.source, &t.target})
        if (*o) size += text(**o);
    if (t.logBundleInfo) size += text(t.logBundleInfo->key) + static_cast<unsigned>(t.logBundleInfo->content.capacity() * 4);
    if (t.job) size += text(t.job->type) + text(t.job->id);
    return size;
}

void BM_Clone(benchmark::State& state) {
    Ref<TaskInfo> t = MakeTask();
    for (auto _ : state) {
        Ref<TaskInfo> copy(t->_Clone());
        benchmark::DoNotOptimize(copy.Get());
    }
}
void BM_Clone_PlainCopy(benchmark::State& state) {
    PlainTask t = MakePlainTask();
    for (auto _ : state) {
        PlainTask copy = t;
        benchmark::DoNotOptimize(copy);
    }
}

void BM_IsEqual(benchmark::State& state) {
    Ref<TaskInfo> a = MakeTask(), b = MakeTask();
    for (auto _ : state) benchmark::DoNotOptimize(a->_IsEqual(b.Get(), false));
}
void BM_IsEqual_PlainEq(benchmark::State& state) {
    PlainTask a = MakePlainTask(), b = MakePlainTask();
    for (auto _ : state) {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(a == b);
    }
}

void BM_DiffProperties(benchmark::State& state) {
    Ref<TaskInfo> a = MakeTask(), b = MakeTask();
    b->SetProgress(43);
    for (auto _ : state) {
        Kitra::PropertyDiffSet diffs;
        a->_DiffProperties(b.Get(), "", diffs);
        benchmark::DoNotOptimize(diffs.Size());
    }
}
void BM_DiffProperties_PlainEq(benchmark::State& state) {
    PlainTask a = MakePlainTask(), b = MakePlainTask();
    b.progress = 43;
    for (auto _ : state) {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(a == b);
    }
}

void BM_GetSize(benchmark::State& state) {
    Ref<TaskInfo> t = MakeTask();
    for (auto _ : state) benchmark::DoNotOptimize(t->_GetSize(&Kitra::IdentitySizer));
}
void BM_GetSize_PlainSize(benchmark::State& state) {
    PlainTask t = MakePlainTask();
    for (auto _ : state) {
        benchmark::DoNotOptimize(t);
        benchmark::DoNotOptimize(PlainSize(t));
    }
}

// What a library load costs beyond the loader: for every module, its versions and relations (a no-op
// after the first module) and the creation of each type object from its record.
void BM_RegisterCatalogue(benchmark::State& state) {
    std::vector<Kitra::Type*> types = Kitra::GetTypeMap()->GetTypes();
    size_t modules = Kitra::GetTypeMap()->GetModules().size();
    for (auto _ : state) {
        Kitra::VersionMap* versions = Kitra::GetVersionMap();
        for (size_t m = 0; m < modules; ++m) {
            for (const auto* v : versions->GetVersions()) {
                versions->AddVersion(v->name, v->wireNamespace, v->versionString, false, v->taskType, false,
                                     v->serviceNamespace);
                for (const auto& inc : v->includes) versions->AddRelation(v->name, inc);
            }
        }
        for (Kitra::Type* t : types) {
            Ref<Kitra::Type> fresh;
            if (auto* d = t->AsDataObjectType()) fresh = Kitra::CreateDataObjectType(d->GetDataTypeInfo());
            else if (auto* mt = t->AsManagedObjectType()) {
                // A managed type writes its method objects into the table; give the copy a table of its own.
                Kitra::ManagedTypeInfo info = *mt->GetManagedTypeInfo();
                std::vector<Kitra::ManagedMethod*> slots(mt->GetMethods().size() + 1);
                info.methodObjects = slots.data();
                fresh = Kitra::CreateManagedObjectType(&info);
            }
            benchmark::DoNotOptimize(fresh.Get());
        }
    }
    state.counters["types"] = static_cast<double>(types.size());
    state.counters["modules"] = static_cast<double>(modules);
}

}  // namespace

BENCHMARK(BM_Clone);
BENCHMARK(BM_Clone_PlainCopy);
BENCHMARK(BM_IsEqual);
BENCHMARK(BM_IsEqual_PlainEq);
BENCHMARK(BM_DiffProperties);
BENCHMARK(BM_DiffProperties_PlainEq);
BENCHMARK(BM_GetSize);
BENCHMARK(BM_GetSize_PlainSize);
BENCHMARK(BM_RegisterCatalogue)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
