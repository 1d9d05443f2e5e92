// A stub call through the in-process adapter beside a direct virtual call on the implementation (the
// limit), for a small argument (an int) and a large one (conversion parameters with nested records).
#include <benchmark/benchmark.h>

#include <kitra/Kitra.h>
#include <morphel/morphelTypes.h>

namespace {

using Fundix::Ref;

// Answers the two calls measured; everything else is never called here.
class QueryImpl : public Morphel::QueryManagerStub {
public:
    QueryImpl() : Kitra::StubImpl("impl", nullptr, nullptr), QueryManagerStub("impl", nullptr, nullptr) {}
    void GetTargetStorageInfo(Morphel::ComputerSpec*, Morphel::Params::ConversionParams* params,
                              Ref<Morphel::Info::TargetStorageInfo>& result) override {
        benchmark::DoNotOptimize(params);
        result = info;
    }
    Ref<Morphel::Info::TargetStorageInfo> info{new Morphel::Info::TargetStorageInfo()};
};

class TasksImpl : public Morphel::Task::TaskManagerStub {
public:
    TasksImpl() : Kitra::StubImpl("impl", nullptr, nullptr), TaskManagerStub("impl", nullptr, nullptr) {}
    void SetMaxTask(int32_t value) override { max = value; }
    int32_t max = 0;
};

Ref<Morphel::Params::ConversionParams> LargeParams() {
    Ref<Morphel::Params::ConversionParams> params(new Morphel::Params::ConversionParams());
    Ref<Morphel::Params::CloningParams> cloning(new Morphel::Params::CloningParams());
    Ref<Morphel::Params::StorageParams> storage(new Morphel::Params::StorageParams());
    Ref<Kitra::DataArray<Morphel::Params::StorageParams::TargetDiskParams>> disks(
        new Kitra::DataArray<Morphel::Params::StorageParams::TargetDiskParams>());
    for (int d = 0; d < 4; ++d) {
        Ref<Morphel::Params::StorageParams::TargetDiskParams> disk(new Morphel::Params::StorageParams::TargetDiskParams());
        Ref<Kitra::DataArray<Morphel::Params::StorageParams::VolumeCloningParams>> volumes(
            new Kitra::DataArray<Morphel::Params::StorageParams::VolumeCloningParams>());
        for (int v = 0; v < 4; ++v) {
            Ref<Morphel::Params::StorageParams::VolumeCloningParams> volume(
                new Morphel::Params::StorageParams::VolumeCloningParams());
            volume->SetSourceVolumeId("volume-" + std::to_string(d) + "-" + std::to_string(v));
            volumes->Append(volume.Get());
        }
        disk->SetVolumesToClone(volumes.Get());
        disks->Append(disk.Get());
    }
    storage->SetTargetDiskParams(disks.Get());
    cloning->SetStorageParams(storage.Get());
    params->SetCloningParams(cloning.Get());
    return params;
}

void BM_StubCall_SmallArgument(benchmark::State& state) {
    Ref<Kitra::LocalStubAdapter> local(new Kitra::LocalStubAdapter());
    Ref<TasksImpl> impl(new TasksImpl());
    local->Register("tasks", impl.Get());
    Ref<Morphel::Task::TaskManagerStub> stub(new Morphel::Task::TaskManagerStub("tasks", local.Get(), nullptr));
    int32_t i = 0;
    for (auto _ : state) stub->SetMaxTask(++i);
}
void BM_DirectCall_SmallArgument(benchmark::State& state) {
    Ref<TasksImpl> impl(new TasksImpl());
    Morphel::Task::TaskManager* target = impl.Get();
    int32_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(target);
        target->SetMaxTask(++i);
    }
}

void BM_StubCall_LargeArgument(benchmark::State& state) {
    Ref<Kitra::LocalStubAdapter> local(new Kitra::LocalStubAdapter());
    Ref<QueryImpl> impl(new QueryImpl());
    local->Register("query", impl.Get());
    Ref<Morphel::QueryManagerStub> stub(new Morphel::QueryManagerStub("query", local.Get(), nullptr));
    Ref<Morphel::ComputerSpec> source(new Morphel::ComputerSpec());
    Ref<Morphel::Params::ConversionParams> params = LargeParams();
    for (auto _ : state) {
        Ref<Morphel::Info::TargetStorageInfo> result;
        stub->GetTargetStorageInfo(source.Get(), params.Get(), result);
        benchmark::DoNotOptimize(result.Get());
    }
}
void BM_DirectCall_LargeArgument(benchmark::State& state) {
    Ref<QueryImpl> impl(new QueryImpl());
    Morphel::QueryManager* target = impl.Get();
    Ref<Morphel::ComputerSpec> source(new Morphel::ComputerSpec());
    Ref<Morphel::Params::ConversionParams> params = LargeParams();
    for (auto _ : state) {
        Ref<Morphel::Info::TargetStorageInfo> result;
        benchmark::DoNotOptimize(target);
        target->GetTargetStorageInfo(source.Get(), params.Get(), result);
        benchmark::DoNotOptimize(result.Get());
    }
}

}  // namespace

BENCHMARK(BM_StubCall_SmallArgument);
BENCHMARK(BM_DirectCall_SmallArgument);
BENCHMARK(BM_StubCall_LargeArgument);
BENCHMARK(BM_DirectCall_LargeArgument);
BENCHMARK_MAIN();
