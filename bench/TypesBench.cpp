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

#include "Limits.h"

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

// The operations, each once over fixed values, for the timed and the counted runs alike.
struct Values {
    Ref<TaskInfo> task = MakeTask(), same = MakeTask(), differs = MakeTask();
    PlainTask plain = MakePlainTask(), plainSame = MakePlainTask(), plainDiffers = MakePlainTask();
    Values() {
        differs->SetProgress(43);
        plainDiffers.progress = 43;
    }
};

Values& TheValues() {
    static Values values;
    return values;
}

void Clone(Values& v) {
    Ref<TaskInfo> copy(v.task->_Clone());
    benchmark::DoNotOptimize(copy.Get());
}
void PlainCopy(Values& v) {
    PlainTask copy = v.plain;
    benchmark::DoNotOptimize(copy);
}
void IsEqual(Values& v) { benchmark::DoNotOptimize(v.task->_IsEqual(v.same.Get(), false)); }
void PlainEq(Values& v) {
    benchmark::DoNotOptimize(v.plain);
    benchmark::DoNotOptimize(v.plain == v.plainSame);
}
// One field differs: the differences walk every field, `==` stops at the first difference.
void DiffProperties(Values& v) {
    Kitra::PropertyDiffSet diffs;
    v.task->_DiffProperties(v.differs.Get(), "", diffs);
    benchmark::DoNotOptimize(diffs.Size());
}
void PlainEqDiffers(Values& v) {
    benchmark::DoNotOptimize(v.plain);
    benchmark::DoNotOptimize(v.plain == v.plainDiffers);
}
void GetSize(Values& v) { benchmark::DoNotOptimize(v.task->_GetSize(&Kitra::IdentitySizer)); }
void PlainGetSize(Values& v) {
    benchmark::DoNotOptimize(v.plain);
    benchmark::DoNotOptimize(PlainSize(v.plain));
}

template <void (*Op)(Values&)>
void Timed(benchmark::State& state) {
    Values& v = TheValues();
    for (auto _ : state) Op(v);
}

void BM_Clone(benchmark::State& state) { Timed<Clone>(state); }
void BM_Clone_PlainCopy(benchmark::State& state) { Timed<PlainCopy>(state); }
void BM_IsEqual(benchmark::State& state) { Timed<IsEqual>(state); }
void BM_IsEqual_PlainEq(benchmark::State& state) { Timed<PlainEq>(state); }
void BM_DiffProperties(benchmark::State& state) { Timed<DiffProperties>(state); }
void BM_DiffProperties_PlainEq(benchmark::State& state) { Timed<PlainEqDiffers>(state); }
void BM_GetSize(benchmark::State& state) { Timed<GetSize>(state); }
void BM_GetSize_PlainSize(benchmark::State& state) { Timed<PlainGetSize>(state); }

// What a library load costs beyond the loader: for every module, its versions and relations (a no-op
// after the first module) and the creation of each type object from its record.
void RegisterCatalogue() {
    static const std::vector<Kitra::Type*> types = Kitra::GetTypeMap()->GetTypes();
    static const size_t modules = Kitra::GetTypeMap()->GetModules().size();
    {
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
}

void BM_RegisterCatalogue(benchmark::State& state) {
    for (auto _ : state) RegisterCatalogue();
    state.counters["types"] = static_cast<double>(Kitra::GetTypeMap()->GetTypes().size());
    state.counters["modules"] = static_cast<double>(Kitra::GetTypeMap()->GetModules().size());
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

int main(int argc, char** argv) {
    auto op = [](void (*f)(Values&)) { return [f] { f(TheValues()); }; };
    return Limits::Main(argc, argv,
                        {{"BM_Clone", "BM_Clone_PlainCopy", 1.5},
                         {"BM_IsEqual", "BM_IsEqual_PlainEq", 2},
                         {"BM_DiffProperties", "BM_DiffProperties_PlainEq", 4},
                         {"BM_GetSize", "BM_GetSize_PlainSize", 3}},
                        {{"Clone", 1000, op(Clone)},
                         {"Clone_PlainCopy", 1000, op(PlainCopy)},
                         {"IsEqual", 1000, op(IsEqual)},
                         {"IsEqual_PlainEq", 1000, op(PlainEq)},
                         {"DiffProperties", 1000, op(DiffProperties)},
                         {"DiffProperties_PlainEq", 1000, op(PlainEqDiffers)},
                         {"GetSize", 1000, op(GetSize)},
                         {"GetSize_PlainSize", 1000, op(PlainGetSize)},
                         {"RegisterCatalogue", 3, &RegisterCatalogue}});
}
