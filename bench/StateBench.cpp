// The reference service over each state store: createJob and getTaskInfo through the whole service path
// (request decoded, session and privilege checked, dispatched, state read or written, answer encoded) with
// the network left out, and a restart over a database file that holds 10,000 events. PostgreSQL is measured
// when MORPHEL_BENCH_POSTGRES names a database (one of its own: the runs add to it).
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include <benchmark/benchmark.h>

#include <kitra/Http.h>
#include <kitra/Kitra.h>
#include <kitra/Soap.h>
#include <morphel-server/Service.h>
#include <morphel/event/types.h>
#include <morphel/params/types.h>
#include <morphel/server/conversion/types.h>
#include <morphel/task/types.h>
#include <morphel/types.h>

namespace {

using Fundix::Ref;

// Carries calls to a server's Handle in process, with the session cookie it hands out.
class HandleAdapter : public Kitra::StubAdapter {
public:
    explicit HandleAdapter(Kitra::Http::Server& server)
        : server_(server), codec_("morphel.version.version4") {}
    void Invoke(const std::string& id, Kitra::ManagedMethod* method, Fundix::RefVector<Kitra::Any>& arguments,
                Ref<Kitra::Any>& result, Kitra::RequestContext*) override {
        std::string body;
        codec_.EncodeRequest(Kitra::MoRef(method->GetOwner()->GetName(), id), method, arguments, body);
        auto reply = server_.Handle(body, "\"" + codec_.GetVersionUri() + "\"",
                                    session_.empty() ? "" : "kodl_session=" + session_, "127.0.0.1");
        if (!reply.setSession.empty()) session_ = reply.setSession;
        result = codec_.DecodeResponse(method, reply.body);
    }

private:
    Kitra::Http::Server& server_;
    Kitra::Soap::Codec codec_;
    std::string session_;
};

struct Folder {
    Folder() {
        char name[] = "/tmp/morphel-state-bench-XXXXXX";
        path = mkdtemp(name);
    }
    ~Folder() { std::filesystem::remove_all(path); }
    std::string path;
};

// The PostgreSQL database MORPHEL_BENCH_POSTGRES names, or empty.
std::string PostgresDatabase() {
    const char* conninfo = std::getenv("MORPHEL_BENCH_POSTGRES");
    return conninfo != nullptr ? conninfo : "";
}

// 0: memory; 1: a database file, each commit synced; 2: a database file synced at checkpoints; 3: a
// PostgreSQL database, sessions kept there too.
std::shared_ptr<MorphelServer::State> Store(int kind, const std::string& folder) {
    if (kind == 0) return MorphelServer::NewMemoryState();
    if (kind == 3) return MorphelServer::NewPostgresState(PostgresDatabase());
    MorphelServer::SqliteOptions options;
    options.syncEachCommit = kind == 1;
    return MorphelServer::NewSqliteState(folder + "/state.db", options);
}
const char* kStoreNames[] = {"memory", "sqlite (synchronous FULL)", "sqlite (synchronous NORMAL)",
                             "postgresql (state and sessions)"};

// The service over a store, attached to a server that is never started, and a client logged in to it.
struct Hosted {
    explicit Hosted(std::shared_ptr<MorphelServer::State> state, bool postgresSessions = false)
        : service(Options(std::move(state))), server(ServerOptions()) {
        if (postgresSessions)
            server.SetSessionStore(MorphelServer::NewPostgresSessionStore(PostgresDatabase(), {}));
        service.Attach(server);
        adapter = new HandleAdapter(server);
        Ref<Morphel::SessionManagerStub> sessions(
            new Morphel::SessionManagerStub("SessionManager", adapter.Get(), nullptr));
        Ref<Morphel::UserSession> session;
        sessions->Login("demo", "demo", Fundix::Optional<std::string>(), session);
        conversions = new Morphel::Server::Conversion::ConversionManagerStub("ConversionManager",
                                                                             adapter.Get(), nullptr);
        tasks = new Morphel::Task::TaskManagerStub("TaskManager", adapter.Get(), nullptr);
    }
    static MorphelServer::ServiceOptions Options(std::shared_ptr<MorphelServer::State> state) {
        MorphelServer::ServiceOptions options;
        options.state = std::move(state);
        options.conversionTime = std::chrono::hours(1);  // the simulated runs wait and write nothing
        return options;
    }
    static Kitra::Http::ServerOptions ServerOptions() {
        Kitra::Http::ServerOptions options;
        options.versions = MorphelServer::Service::Versions();
        return options;
    }
    Ref<Morphel::Server::Conversion::ConversionJobInfo> CreateJob(const std::string& name) {
        char host[256] = {};
        gethostname(host, sizeof(host) - 1);
        Ref<Morphel::Server::Conversion::ConversionJobSpec> spec(
            new Morphel::Server::Conversion::ConversionJobSpec());
        spec->SetName(name);
        spec->SetSource(Ref<Morphel::ComputerSpec>(
                            new Morphel::ComputerSpec(Ref<Morphel::ComputerSpec::LiveComputerLocation>(
                                                          new Morphel::ComputerSpec::LiveComputerLocation(
                                                              host, {}, {}, {}, "linux", {}, {}))
                                                          .Get()))
                            .Get());
        spec->SetConversionParams(
            Ref<Morphel::Params::ConversionParams>(new Morphel::Params::ConversionParams()).Get());
        Ref<Morphel::Server::Conversion::ConversionJobInfo> created;
        conversions->CreateJob(spec.Get(), nullptr, created);
        return created;
    }
    MorphelServer::Service service;
    Kitra::Http::Server server;
    Ref<HandleAdapter> adapter;
    Ref<Morphel::Server::Conversion::ConversionManagerStub> conversions;
    Ref<Morphel::Task::TaskManagerStub> tasks;
};

// Each job starts a simulated run on a thread of its own: the count is bounded.
void CreateJob(benchmark::State& bench) {
    if (bench.range(0) == 3 && PostgresDatabase().empty()) {
        bench.SkipWithError("set MORPHEL_BENCH_POSTGRES to a PostgreSQL database to measure it");
        return;
    }
    Folder folder;
    Hosted hosted(Store(int(bench.range(0)), folder.path), bench.range(0) == 3);
    int n = 0;
    for (auto _ : bench)
        benchmark::DoNotOptimize(
            hosted.CreateJob("job " + std::to_string(getpid()) + "-" + std::to_string(++n)));
    bench.SetLabel(kStoreNames[bench.range(0)]);
    bench.SetItemsProcessed(bench.iterations());
}
BENCHMARK(CreateJob)->Arg(0)->Arg(1)->Arg(2)->Arg(3)->Iterations(400)->UseRealTime()->Unit(
    benchmark::kMicrosecond);

void GetTaskInfo(benchmark::State& bench) {
    if (bench.range(0) == 3 && PostgresDatabase().empty()) {
        bench.SkipWithError("set MORPHEL_BENCH_POSTGRES to a PostgreSQL database to measure it");
        return;
    }
    Folder folder;
    Hosted hosted(Store(int(bench.range(0)), folder.path), bench.range(0) == 3);
    static int runs = 0;  // a database outlives a run: each names its job anew
    Ref<Kitra::MoRef> task =
        hosted.CreateJob("one " + std::to_string(getpid()) + "-" + std::to_string(++runs))->GetActiveTask();
    for (auto _ : bench) {
        Ref<Morphel::Task::TaskInfo> info;
        hosted.tasks->GetTaskInfo(task.Get(), info);
        benchmark::DoNotOptimize(info);
    }
    bench.SetLabel(kStoreNames[bench.range(0)]);
    bench.SetItemsProcessed(bench.iterations());
}
BENCHMARK(GetTaskInfo)->Arg(0)->Arg(1)->Arg(3)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Opening the file, reading its 10,000 events, starting the service over it and attaching it; the
// events are those of conversions: task events with their task's record, disk events, job creations.
void RestartWith10000Events(benchmark::State& bench) {
    Folder folder;
    const std::string path = folder.path + "/state.db";
    {
        auto state = MorphelServer::NewSqliteState(path);
        state->Transact([](MorphelServer::StateTransaction& tx) {
            Ref<Morphel::Task::TaskInfo> info(new Morphel::Task::TaskInfo());
            info->SetKey("Task-2");
            info->SetTask(Ref<Kitra::MoRef>(new Kitra::MoRef("morphel.task.Task", "Task-2")).Get());
            info->SetName("convert");
            info->SetDescriptionId("morphel.server.conversion.ConversionManager.createJob");
            info->SetUserName("demo");
            info->SetState(Morphel::Task::TaskInfo::State::running);
            info->SetProgress(40);
            info->SetQueueTime(Fundix::System::DateTime::Now());
            for (int i = 0; i < 10000; ++i) {
                Ref<Morphel::Event::Event> e;
                if (i % 3 == 0) {
                    Ref<Morphel::Event::TaskEvent> task(new Morphel::Event::TaskEvent());
                    task->SetInfo(info.Get());
                    e = task.Get();
                } else if (i % 3 == 1) {
                    Ref<Morphel::Event::DiskCloningEvent> disk(new Morphel::Event::DiskCloningEvent());
                    disk->SetVmName("copy");
                    disk->SetSourceDisk("disk-0");
                    e = disk.Get();
                } else {
                    Ref<Morphel::Event::GeneralEvent> general(new Morphel::Event::GeneralEvent());
                    general->SetMessage("Conversion job 'copy' created");
                    e = general.Get();
                }
                e->SetChainId(i / 3 + 1);
                e->SetCreatedTime(Fundix::System::DateTime::Now());
                e->SetUserName("demo");
                e->SetFullMessage("Cloning disk disk-0");
                e->SetJob(Ref<Kitra::MoRef>(
                              new Kitra::MoRef("morphel.server.conversion.ConversionJob", "ConversionJob-1"))
                              .Get());
                tx.AppendEvent(e.Get());
            }
        });
    }
    for (auto _ : bench) {
        MorphelServer::ServiceOptions options;
        options.state = MorphelServer::NewSqliteState(path);
        MorphelServer::Service service(options);
        Kitra::Http::Server server(Hosted::ServerOptions());
        service.Attach(server);
    }
}
BENCHMARK(RestartWith10000Events)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
