// What the server suite's tests share: faults expected, waiting, a service hosted on loopback and its
// client, this machine as a source, a log bundle read back, and the program run as a child process.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <dovra/fault/types.h>
#include <fundix/Exception.h>
#include <fundix/Ref.h>
#include <kitra/Http.h>
#include <kitra/Kitra.h>
#include <kitra/fault/types.h>
#include <morphel-server/Service.h>
#include <morphel/event/types.h>
#include <morphel/params/types.h>
#include <morphel/server/conversion/types.h>
#include <morphel/server/job/types.h>
#include <morphel/task/types.h>
#include <morphel/types.h>

// The fault of class `Fault` that `f` raises, or a blank one (and a failure) when it raises another or none.
template <class Fault, class F>
Fundix::Ref<Fault> ExpectFault(F&& f) {
    try {
        f();
        ADD_FAILURE() << "no fault";
    } catch (const typename Fault::Exception& e) {
        return e.GetFault();
    } catch (const Fundix::Exception& e) {
        ADD_FAILURE() << "raised " << e.GetMessage();
    }
    return new Fault();
}

// What `f` leaves in the result it is handed: Out<TaskInfo>([&](auto& r) { tasks->GetTaskInfo(task, r); }).
template <class T, class F>
Fundix::Ref<T> Out(F&& f) {
    Fundix::Ref<T> result;
    f(result);
    return result;
}

// An array of `values`: ArrayOf<Kitra::Array<std::string>>("a", "b").
template <class Array, class... V>
Fundix::Ref<Array> ArrayOf(const V&... values) {
    Fundix::Ref<Array> array(new Array());
    (array->Append(values), ...);
    return array;
}

// The id `ref` names; empty for none.
inline std::string Id(const Kitra::MoRef* ref) { return ref != nullptr ? ref->GetId() : ""; }

// The message of the std::runtime_error that `f` throws, or empty (and a failure) when it throws none.
inline std::string Failure(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    ADD_FAILURE() << "no failure";
    return "";
}

// Expects `f` to throw a std::runtime_error whose message holds `what`.
inline void ExpectFailure(const std::function<void()>& f, const std::string& what) {
    std::string message = Failure(f);
    EXPECT_NE(message.find(what), std::string::npos) << message;
}

// The live machine `host` as a source; by default the machine the tests run on, which the service accepts.
inline Fundix::Ref<Morphel::ComputerSpec> ThisMachine(std::string host = "") {
    char name[256] = {};
    if (host.empty() && gethostname(name, sizeof(name) - 1) == 0) host = name;
    return new Morphel::ComputerSpec(
        Fundix::Ref<Morphel::ComputerSpec::LiveComputerLocation>(
            new Morphel::ComputerSpec::LiveComputerLocation(host, {}, {}, {}, "linux", {}, {}))
            .Get());
}

// The time `millis` ms from now.
inline Fundix::System::DateTime InMillis(int64_t millis) {
    return Fundix::System::DateTime::FromUtcMicros(Fundix::System::DateTime::Now().GetUtcMicros() +
                                                   millis * 1000);
}

// Whether `done` holds within ten seconds.
inline bool Eventually(const std::function<bool()>& done) {
    for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10); !done();) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// A folder of its own, removed with everything in it.
struct TempFolder {
    TempFolder() {
        char name[] = "/tmp/morphel-test-XXXXXX";
        path = mkdtemp(name);
    }
    ~TempFolder() { std::filesystem::remove_all(path); }
    std::string path;
};

// A job `name` converting this machine into a hosted machine "copy" with default parameters.
inline Fundix::Ref<Morphel::Server::Conversion::ConversionJobSpec> JobSpecOfThisMachine(
    const std::string& name) {
    using namespace Morphel::Params;
    Fundix::Ref<TargetVmSpec> target(new TargetVmSpec());
    target->SetName("copy");
    target->SetLocation(
        Fundix::Ref<TargetVmSpec::HostedVmLocation>(new TargetVmSpec::HostedVmLocation("/vms", {}, {}, {}))
            .Get());
    Fundix::Ref<CloningParams> cloning(new CloningParams());
    cloning->SetTarget(target.Get());
    Fundix::Ref<ConversionParams> params(new ConversionParams());
    params->SetCloningParams(cloning.Get());
    Fundix::Ref<Morphel::Server::Conversion::ConversionJobSpec> spec(
        new Morphel::Server::Conversion::ConversionJobSpec());
    spec->SetName(name);
    spec->SetSource(ThisMachine().Get());
    spec->SetConversionParams(params.Get());
    return spec;
}

// A service with `options`, served on loopback by a server with `serverOptions` and the service's versions.
struct Hosted {
    explicit Hosted(MorphelServer::ServiceOptions options = {}, Kitra::Http::ServerOptions serverOptions = {})
        : service(std::move(options)) {
        serverOptions.versions = MorphelServer::Service::Versions();
        server = std::make_unique<Kitra::Http::Server>(serverOptions);
        service.Attach(*server);
        server->Start();
    }
    ~Hosted() { server->Stop(); }
    std::string Url() const { return server->GetUrl(); }
    MorphelServer::Service service;
    std::unique_ptr<Kitra::Http::Server> server;
};

// A client of the service at `url` with a stub of each manager, logged in unless `user` is empty.
struct Client {
    explicit Client(const std::string& url, const std::string& user = "demo",
                    const std::string& password = "demo", const char* version = "morphel.version.version4")
        : adapter(new Kitra::Http::StubAdapter(url, version)) {
        sessions = Make<Morphel::SessionManagerStub>("SessionManager");
        queries = Make<Morphel::QueryManagerStub>("QueryManager");
        conversions = Make<Morphel::Server::Conversion::ConversionManagerStub>("ConversionManager");
        tasks = Make<Morphel::Task::TaskManagerStub>("TaskManager");
        events = Make<Morphel::Event::EventManagerStub>("EventManager");
        diagnostics = Make<Morphel::DiagnosticManagerStub>("DiagnosticManager");
        scheduled = Make<Morphel::Task::ScheduledTaskManagerStub>("ScheduledTaskManager");
        if (!user.empty()) Login(user, password);
    }
    template <class Stub>
    Fundix::Ref<Stub> Make(const std::string& id) const {
        return new Stub(id, adapter.Get(), nullptr);
    }
    template <class Stub>
    Fundix::Ref<Stub> Make(const Kitra::MoRef* ref) const {
        return Make<Stub>(ref->GetId());
    }
    Fundix::Ref<Morphel::UserSession> Login(const std::string& user, const std::string& password) {
        sessions->Login(user, password, Fundix::Optional<std::string>(), session);
        return session;
    }
    // A job converting this machine, with `extraInfo`, its settings as `adjust` leaves them.
    Fundix::Ref<Morphel::Server::Conversion::ConversionJobInfo> CreateJob(
        const std::string& name, Kitra::Any* extraInfo = nullptr,
        const std::function<void(Morphel::Server::Conversion::ConversionJobSpec&)>& adjust = {}) {
        auto spec = JobSpecOfThisMachine(name);
        if (adjust) adjust(*spec);
        return Out<Morphel::Server::Conversion::ConversionJobInfo>(
            [&](auto& r) { conversions->CreateJob(spec.Get(), extraInfo, r); });
    }
    Fundix::Ref<Morphel::Server::Conversion::ConversionJobInfo> JobInfo(Kitra::MoRef* job) {
        return Out<Morphel::Server::Conversion::ConversionJobInfo>(
            [&](auto& r) { conversions->GetJobInfo(job, r); });
    }
    Fundix::Ref<Morphel::Task::TaskInfo> TaskInfo(Kitra::MoRef* task) {
        return Out<Morphel::Task::TaskInfo>([&](auto& r) { tasks->GetTaskInfo(task, r); });
    }
    // A collector of every event (kind 0), task (1) or job (2).
    Fundix::Ref<Kitra::MoRef> NewCollector(int kind = 0) {
        Fundix::Ref<Morphel::Event::EventFilterSpec> e(new Morphel::Event::EventFilterSpec());
        Fundix::Ref<Morphel::Task::TaskFilterSpec> t(new Morphel::Task::TaskFilterSpec());
        Fundix::Ref<Morphel::Server::Job::JobFilterSpec> j(new Morphel::Server::Job::JobFilterSpec());
        Fundix::Ref<Kitra::MoRef> ref;
        if (kind == 0) events->CreateCollector(e.Get(), ref);
        if (kind == 1) tasks->CreateCollector(t.Get(), ref);
        if (kind == 2) conversions->CreateCollector(j.Get(), ref);
        return ref;
    }
    // The events `filter` selects (all when null).
    Fundix::Ref<Kitra::DataArray<Morphel::Event::Event>> Events(
        Morphel::Event::EventFilterSpec* filter = nullptr) {
        Fundix::Ref<Morphel::Event::EventFilterSpec> all(new Morphel::Event::EventFilterSpec());
        return Out<Kitra::DataArray<Morphel::Event::Event>>(
            [&](auto& r) { events->QueryEvent(filter != nullptr ? filter : all.Get(), r); });
    }
    Fundix::Ref<Kitra::Http::StubAdapter> adapter;
    Fundix::Ref<Morphel::UserSession> session;
    Fundix::Ref<Morphel::SessionManagerStub> sessions;
    Fundix::Ref<Morphel::QueryManagerStub> queries;
    Fundix::Ref<Morphel::Server::Conversion::ConversionManagerStub> conversions;
    Fundix::Ref<Morphel::Task::TaskManagerStub> tasks;
    Fundix::Ref<Morphel::Event::EventManagerStub> events;
    Fundix::Ref<Morphel::DiagnosticManagerStub> diagnostics;
    Fundix::Ref<Morphel::Task::ScheduledTaskManagerStub> scheduled;
};

// The keys of the events on `page`, or in `events`.
inline std::vector<int32_t> Keys(Kitra::DataArray<Morphel::Event::Event>* page) {
    std::vector<int32_t> out;
    for (size_t i = 0; page != nullptr && i < page->GetLength(); ++i)
        out.push_back(page->Get(i)->GetKey());
    return out;
}
inline std::vector<int32_t> Keys(const std::vector<Fundix::Ref<Morphel::Event::Event>>& events) {
    std::vector<int32_t> out;
    for (const auto& e : events)
        out.push_back(e->GetKey());
    return out;
}

// The bytes of base64 `text`.
inline std::string FromBase64(const std::string& text) {
    std::string out;
    uint32_t bits = 0;
    int count = 0;
    for (char c : text) {
        const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        const char* at = c != 0 ? std::strchr(digits, c) : nullptr;
        if (at == nullptr) continue;  // padding
        bits = bits << 6 | uint32_t(at - digits);
        if ((count += 6) >= 8) out += char((bits >> (count -= 8)) & 0xff);
    }
    return out;
}

// The whole log bundle `key`, read in pages of `pageSize` bytes.
inline std::string ReadBundle(Morphel::DiagnosticManagerStub& diagnostics, const std::string& key,
                              int64_t pageSize) {
    std::string bytes;
    for (std::string page;
         !(page = FromBase64(diagnostics.RetrieveTaskLogBundle(key, int64_t(bytes.size()), pageSize)))
              .empty();)
        bytes += page;
    return bytes;
}

// What Python's zipfile reads in the zip archive `bytes`: the CRC-32 of the whole archive (as a signed
// 32-bit number), then each file's name and text; "unread: ..." when it fails the archive's test or its
// sizes do not add up.
inline std::string ReadZip(const std::string& bytes) {
    TempFolder folder;
    const std::string path = folder.path + "/bundle.zip";
    std::ofstream(path, std::ios::binary) << bytes;
    std::string command =
        std::string(
            "python3 -c \"import sys, zipfile, zlib\n"
            "data = open(sys.argv[1], 'rb').read()\n"
            "z = zipfile.ZipFile(sys.argv[1])\n"
            "bad = z.testzip()\n"
            "s = z.infolist()\n"  // stored files: each size as its bytes take, headers and all
            "bad = bad or (sum(76 + 2 * len(i.filename) + i.compress_size for i in s) + 22 != len(data) or\n"
            "  any(i.compress_size != i.file_size for i in s)) and 'sizes'\n"
            "print('unread: ' + bad if bad else zlib.crc32(data) - (zlib.crc32(data) >> 31 << 32))\n"
            "for name in z.namelist(): print(name); print(z.read(name).decode(), end='')\" ") +
        path + " 2>&1";
    std::string out;
    if (FILE* p = popen(command.c_str(), "r")) {
        char buffer[4096];
        for (size_t n; (n = fread(buffer, 1, sizeof buffer, p)) > 0;)
            out.append(buffer, n);
        pclose(p);
    }
    return out;
}

// The program, started with `args`, and the URL it serves; stopped with SIGKILL when still running. What it
// writes to its standard error goes to a file of its own (a file never blocks it), read line by line.
class Program {
public:
    explicit Program(std::vector<std::string> args) : log_(folder_.path + "/stderr") {
        pid_ = fork();
        if (pid_ == 0) {
            dup2(open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
            std::vector<char*> argv{const_cast<char*>("morphel-server")};
            for (auto& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(MORPHEL_SERVER_PATH, argv.data());
            _exit(127);
        }
        // The line "morphel-server: serving URL", within 20 s.
        for (std::string line; url_.empty() && !(line = NextLine()).empty();)
            if (size_t at = line.find("serving "); at != std::string::npos) url_ = line.substr(at + 8);
    }
    ~Program() {
        if (pid_ > 0) Kill(SIGKILL);
    }
    const std::string& Url() const { return url_; }
    pid_t Pid() const { return pid_; }
    // The next whole line the program writes to its standard error (without its end) within `seconds`;
    // empty when none comes.
    std::string NextLine(int seconds = 20) {
        for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
             std::chrono::steady_clock::now() < deadline;
             std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
            std::ifstream in(log_);
            std::string line;
            if (in.seekg(read_) && std::getline(in, line) && !in.eof()) {
                read_ += line.size() + 1;
                return line;
            }
        }
        return "";
    }
    // Sends `signal` and waits (up to ten seconds, then kills) for the end; the wait status, or -1.
    int Kill(int signal) {
        kill(pid_, signal);
        int status = -1;
        if (!Eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            status = -1;
        }
        pid_ = -1;
        return status;
    }

private:
    TempFolder folder_;
    std::string log_;
    std::streamoff read_ = 0;  // what NextLine took
    pid_t pid_ = -1;
    std::string url_;
};
