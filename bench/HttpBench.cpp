// Calls over HTTP on loopback with kept connections: a small call (retrieveContent) and a large one
// (validateParams with full conversion parameters), from one and from four client threads. Each thread
// reports its calls per second and its latency percentiles.
#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <vector>

#include <benchmark/benchmark.h>

#include <kitra/Http.h>
#include <kitra/Kitra.h>
#include <morphel/params/types.h>
#include <morphel/types.h>

#include "Sample.h"

namespace {

using Fundix::Ref;

const char kVersion[] = "morphel.version.version4";

// Serves a stub's operations from functions by method name.
class Handlers : public Kitra::StubAdapter {
public:
    std::map<std::string, std::function<Ref<Kitra::Any>(Fundix::RefVector<Kitra::Any>&)>> byName;
    void Invoke(const std::string&, Kitra::ManagedMethod* method, Fundix::RefVector<Kitra::Any>& args,
                Ref<Kitra::Any>& result, Kitra::RequestContext*) override {
        result = byName.at(method->GetName())(args);
    }
};

Kitra::Http::Server& TheServer() {
    static Kitra::Http::Server* server = [] {
        Kitra::Http::ServerOptions options;
        options.versions = {kVersion};
        options.threads = 4;
        auto* s = new Kitra::Http::Server(options);
        Ref<Handlers> handlers(new Handlers());
        Kitra::Soap::Codec codec(kVersion);
        Ref<Kitra::Any> content(MorphelTypesTool::Sample(
            Kitra::GetType<Morphel::ServiceInstanceContent>()->AsDataObjectType(), codec).Get());
        handlers->byName["retrieveContent"] = [content](auto&) { return content; };
        handlers->byName["validateParams"] = [](auto&) { return Ref<Kitra::Any>(); };
        handlers->byName["login"] = [](auto&) -> Ref<Kitra::Any> {
            Kitra::Http::Session* session = Kitra::Http::Call::Current()->OpenSession("bench");
            return new Morphel::UserSession(session->GetKey(), "bench", "", {}, {}, "en", "en", {});
        };
        s->Register("ServiceInstance", new Morphel::ServiceInstanceStub("impl", handlers.Get(), nullptr));
        s->Register("SessionManager", new Morphel::SessionManagerStub("impl", handlers.Get(), nullptr));
        s->Register("QueryManager", new Morphel::QueryManagerStub("impl", handlers.Get(), nullptr));
        s->Start();
        return s;
    }();
    return *server;
}

void Report(benchmark::State& state, std::vector<double>& micros) {
    if (micros.empty()) return;
    std::sort(micros.begin(), micros.end());
    auto at = [&](double q) { return micros[std::min(micros.size() - 1, static_cast<size_t>(q * micros.size()))]; };
    state.counters["p50_us"] = benchmark::Counter(at(0.50), benchmark::Counter::kAvgThreads);
    state.counters["p90_us"] = benchmark::Counter(at(0.90), benchmark::Counter::kAvgThreads);
    state.counters["p99_us"] = benchmark::Counter(at(0.99), benchmark::Counter::kAvgThreads);
    state.counters["calls_per_s"] =
        benchmark::Counter(static_cast<double>(micros.size()), benchmark::Counter::kIsRate);
}

template <class Call>
void Measure(benchmark::State& state, Call&& call) {
    std::vector<double> micros;
    micros.reserve(1 << 16);
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        call();
        micros.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    Report(state, micros);
}

void BM_RetrieveContent(benchmark::State& state) {
    Ref<Kitra::Http::StubAdapter> adapter(new Kitra::Http::StubAdapter(TheServer().GetUrl(), kVersion));
    Ref<Morphel::ServiceInstanceStub> root(new Morphel::ServiceInstanceStub("ServiceInstance", adapter.Get(), nullptr));
    Measure(state, [&] {
        Ref<Morphel::ServiceInstanceContent> content;
        root->RetrieveContent(content);
        benchmark::DoNotOptimize(content.Get());
    });
}
BENCHMARK(BM_RetrieveContent)->Threads(1)->Threads(4)->UseRealTime();

void BM_ValidateParams(benchmark::State& state) {
    Ref<Kitra::Http::StubAdapter> adapter(new Kitra::Http::StubAdapter(TheServer().GetUrl(), kVersion));
    Ref<Morphel::SessionManagerStub> sessions(new Morphel::SessionManagerStub("SessionManager", adapter.Get(), nullptr));
    Ref<Morphel::UserSession> session;
    sessions->Login("bench", "bench", {}, session);
    Ref<Morphel::QueryManagerStub> query(new Morphel::QueryManagerStub("QueryManager", adapter.Get(), nullptr));
    Kitra::Soap::Codec codec(kVersion);
    auto sample = [&](const char* wire) {
        return Ref<Kitra::DataObject>(
            MorphelTypesTool::Sample(Kitra::GetTypeMap()->GetType(wire)->AsDataObjectType(), codec).Get());
    };
    Ref<Kitra::DataObject> source = sample("morphel.ComputerSpec");
    Ref<Kitra::DataObject> params = sample("morphel.params.ConversionParams");
    std::string bytes;
    codec.EncodeValue(params.Get(), bytes);
    state.counters["params_bytes"] = benchmark::Counter(static_cast<double>(bytes.size()), benchmark::Counter::kAvgThreads);
    Measure(state, [&] {
        query->ValidateParams(static_cast<Morphel::ComputerSpec*>(source.Get()), nullptr,
                              static_cast<Morphel::Params::ConversionParams*>(params.Get()));
    });
}
BENCHMARK(BM_ValidateParams)->Threads(1)->Threads(4)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
