// Calls over HTTP and HTTPS on loopback, both ends in this process: a small call (retrieveContent) and a large
// one (validateParams with full conversion parameters) from 1, 4 and 64 client threads on kept connections;
// the small call again while 500 idle and 20 slow connections are open; 1,000 asynchronous calls started from
// one thread; the server's resident memory while a 512 MiB chunked body is sent. Prints one table.
//
//   http_bench [--seconds N] [--soak N]     N seconds per row (default 2); --soak adds 64 clients for N seconds
//   http_bench --small|--small-https [--seconds N]   only the small call, from 1 and 4 threads
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <kitra/Http.h>
#include <kitra/Kitra.h>
#include <morphel/params/types.h>
#include <morphel/types.h>

#include "Sample.h"

namespace {

using Fundix::Ref;
using Clock = std::chrono::steady_clock;

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

std::unique_ptr<Kitra::Http::Server> MakeServer(const Kitra::Http::Tls::Identity& tls) {
    Kitra::Http::ServerOptions options;
    options.versions = {kVersion};
    options.tls = tls;
    auto s = std::make_unique<Kitra::Http::Server>(options);
    Ref<Handlers> handlers(new Handlers());
    Kitra::Soap::Codec codec(kVersion);
    Ref<Kitra::Any> content(
        MorphelTypesTool::Sample(Kitra::GetType<Morphel::ServiceInstanceContent>()->AsDataObjectType(), codec).Get());
    handlers->byName["retrieveContent"] = [content](auto&) { return content; };
    handlers->byName["validateParams"] = [](auto&) { return Ref<Kitra::Any>(); };
    handlers->byName["login"] = [](Fundix::RefVector<Kitra::Any>& args) -> Ref<Kitra::Any> {
        std::string user = static_cast<Kitra::Primitive<std::string>*>(args[0].Get())->GetValue();
        Kitra::Http::Session* session = Kitra::Http::Call::Current()->OpenSession(user);
        return new Morphel::UserSession(session->GetKey(), user, "", {}, {}, "en", "en", {});
    };
    s->Register("ServiceInstance", new Morphel::ServiceInstanceStub("impl", handlers.Get(), nullptr));
    s->Register("SessionManager", new Morphel::SessionManagerStub("impl", handlers.Get(), nullptr));
    s->Register("QueryManager", new Morphel::QueryManagerStub("impl", handlers.Get(), nullptr));
    s->Start();
    return s;
}

// CPU time of the whole process (both ends), in microseconds.
double CpuMicros() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return (u.ru_utime.tv_sec + u.ru_stime.tv_sec) * 1e6 + u.ru_utime.tv_usec + u.ru_stime.tv_usec;
}

// Context switches of the whole process, voluntary (a thread waited) and not.
double Switches() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_nvcsw + u.ru_nivcsw);
}

struct Row {
    double callsPerSecond = 0, p50 = 0, p99 = 0, max = 0;
    double cpuPerCall = 0;  // µs of CPU, client and server together
    double switchesPerCall = 0;
    size_t calls = 0, failed = 0;
};

Ref<Kitra::Http::StubAdapter> Adapter(const Kitra::Http::Server& server) {
    Kitra::Http::ClientOptions options;
    options.thumbprint = server.GetThumbprint();
    return new Kitra::Http::StubAdapter(server.GetUrl(), kVersion, options);
}

// `threads` clients, each with its own adapter, calling for `seconds`.
Row Run(const Kitra::Http::Server& server, bool large, int threads, double seconds) {
    std::vector<std::vector<double>> micros(threads);
    std::atomic<size_t> failed{0};
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    Clock::time_point until;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            Ref<Kitra::Http::StubAdapter> adapter = Adapter(server);
            Ref<Morphel::ServiceInstanceStub> root(new Morphel::ServiceInstanceStub("ServiceInstance", adapter.Get(), nullptr));
            Ref<Morphel::QueryManagerStub> query(new Morphel::QueryManagerStub("QueryManager", adapter.Get(), nullptr));
            Ref<Morphel::SessionManagerStub> sessions(new Morphel::SessionManagerStub("SessionManager", adapter.Get(), nullptr));
            Kitra::Soap::Codec codec(kVersion);
            auto sample = [&](const char* wire) {
                return Ref<Kitra::DataObject>(MorphelTypesTool::Sample(Kitra::GetTypeMap()->GetType(wire)->AsDataObjectType(), codec).Get());
            };
            Ref<Kitra::DataObject> source = sample("morphel.ComputerSpec");
            Ref<Kitra::DataObject> params = sample("morphel.params.ConversionParams");
            auto call = [&] {
                if (large)
                    query->ValidateParams(static_cast<Morphel::ComputerSpec*>(source.Get()), nullptr,
                                          static_cast<Morphel::Params::ConversionParams*>(params.Get()));
                else {
                    Ref<Morphel::ServiceInstanceContent> content;
                    root->RetrieveContent(content);
                }
            };
            Ref<Morphel::UserSession> session;
            sessions->Login("bench" + std::to_string(t), "bench", {}, session);
            call();  // the connection is open before timing starts
            ++ready;
            while (!go) std::this_thread::yield();
            auto& mine = micros[t];
            mine.reserve(1 << 16);
            while (Clock::now() < until) {
                auto start = Clock::now();
                try {
                    call();
                } catch (...) {
                    ++failed;
                    continue;
                }
                mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
            }
        });
    }
    while (ready < threads) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    auto start = Clock::now();
    double cpu = CpuMicros(), switches = Switches();
    until = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    go = true;
    for (auto& w : workers) w.join();
    double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    cpu = CpuMicros() - cpu;
    switches = Switches() - switches;
    std::vector<double> all;
    for (auto& m : micros) all.insert(all.end(), m.begin(), m.end());
    std::sort(all.begin(), all.end());
    Row row;
    row.calls = all.size();
    row.failed = failed;
    row.callsPerSecond = all.size() / elapsed;
    row.cpuPerCall = all.empty() ? 0 : cpu / all.size();
    row.switchesPerCall = all.empty() ? 0 : switches / all.size();
    if (!all.empty()) {
        row.p50 = all[all.size() / 2];
        row.p99 = all[std::min(all.size() - 1, all.size() * 99 / 100)];
        row.max = all.back();
    }
    return row;
}

int Dial(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// 500 connections that send nothing and 20 that send a request head one byte a second, reconnecting when cut.
class Loiterers {
public:
    explicit Loiterers(int port) : port_(port) {
        for (int i = 0; i < 500; ++i) idle_.push_back(Dial(port));
        for (int i = 0; i < 20; ++i) slow_.push_back(Dial(port));
        thread_ = std::thread([this] {
            const std::string head = "POST /morphel HTTP/1.1\r\nHost: x\r\nX-Slow: aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";
            size_t at = 0;
            while (!stop_) {
                for (int& fd : slow_)
                    if (::send(fd, head.data() + (at % head.size()), 1, MSG_NOSIGNAL) <= 0) {
                        ::close(fd);
                        fd = Dial(port_);
                    }
                ++at;
                for (int i = 0; i < 10 && !stop_; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
        });
    }
    ~Loiterers() {
        stop_ = true;
        thread_.join();
        for (int fd : idle_) ::close(fd);
        for (int fd : slow_) ::close(fd);
    }

private:
    int port_;
    std::vector<int> idle_, slow_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Starts `n` calls from this thread; the time until all completed.
double FanOut(const Kitra::Http::Server& server, int n, size_t& failed) {
    Ref<Kitra::Http::StubAdapter> adapter = Adapter(server);
    Ref<Morphel::ServiceInstanceStub> root(new Morphel::ServiceInstanceStub("ServiceInstance", adapter.Get(), nullptr));
    std::atomic<int> left{n};
    std::atomic<size_t> bad{0};
    std::promise<void> done;
    auto start = Clock::now();
    std::vector<Ref<Fundix::System::ScheduledItem>> items(n);
    for (int i = 0; i < n; ++i)
        root->RetrieveContent(Kitra::Completion([&](Fundix::System::ScheduledItem*, Fundix::Exception* e, Kitra::Any*) {
                                  if (e != nullptr) ++bad;
                                  if (--left == 0) done.set_value();
                              }),
                              items[i]);
    done.get_future().wait();
    failed = bad;
    return std::chrono::duration<double>(Clock::now() - start).count();
}

long StatusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.compare(0, std::strlen(field), field) == 0) return std::stol(line.substr(std::strlen(field) + 1));
    return -1;
}

// Sends a 512 MiB chunked body; the process's peak resident memory before and after (KiB) and the bytes the
// server took before it refused.
void ChunkedBody(const Kitra::Http::Server& server, long& before, long& peak, size_t& sent, std::string& answer) {
    std::ofstream("/proc/self/clear_refs") << "5";  // peak resident memory starts again from here
    before = StatusKiB("VmHWM:");
    int fd = Dial(server.GetPort());
    std::string head = "POST /morphel HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n";
    ::send(fd, head.data(), head.size(), MSG_NOSIGNAL);
    std::string chunk = "100000\r\n" + std::string(0x100000, '<') + "\r\n";
    sent = 0;
    for (int i = 0; i < 512; ++i) {
        if (::send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL) <= 0) break;
        sent += 0x100000;
    }
    char buffer[512];
    ssize_t n = ::recv(fd, buffer, sizeof buffer - 1, 0);
    answer = n > 0 ? std::string(buffer, static_cast<size_t>(n)).substr(0, 30) : "(closed)";
    answer = answer.substr(0, answer.find('\r'));
    ::close(fd);
    peak = StatusKiB("VmHWM:");
}

std::string Micros(double us) {
    char text[32];
    if (us >= 1000) std::snprintf(text, sizeof text, "%.2f ms", us / 1000);
    else std::snprintf(text, sizeof text, "%.0f µs", us);
    return text;
}

void Print(const char* call, const char* scheme, int threads, const char* load, const Row& r) {
    std::printf("| %s | %s | %d | %s | %.0f | %s | %s | %s | %zu | %.0f µs | %.1f |\n", call, scheme, threads, load,
                r.callsPerSecond, Micros(r.p50).c_str(), Micros(r.p99).c_str(), Micros(r.max).c_str(), r.failed, r.cpuPerCall,
                r.switchesPerCall);
    std::fflush(stdout);
}

}  // namespace

const char kHead[] = "| call | scheme | client threads | open besides | calls/s | p50 | p99 | max | failed | CPU per call | switches per call |\n";

int main(int argc, char** argv) {
    double seconds = 2, soak = 0;
    for (int i = 1; i + 1 < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--seconds") seconds = std::stod(argv[i + 1]);
        else if (arg == "--soak") soak = std::stod(argv[i + 1]);
    }
    // Only the small call (over HTTP, or HTTPS), for quick comparisons.
    if (argc > 1 && (std::string(argv[1]) == "--small" || std::string(argv[1]) == "--small-https")) {
        bool tls = std::string(argv[1]) == "--small-https";
        auto server = MakeServer(tls ? Kitra::Http::Tls::CreateSelfSigned("bench", {"127.0.0.1"}) : Kitra::Http::Tls::Identity());
        std::fputs(kHead, stdout);
        for (int threads : {1, 4}) Print("retrieveContent", tls ? "HTTPS" : "HTTP", threads, "-", Run(*server, false, threads, seconds));
        server->Stop();
        return 0;
    }
    Kitra::Http::Tls::Identity identity = Kitra::Http::Tls::CreateSelfSigned("bench", {"127.0.0.1"});
    auto http = MakeServer({});
    auto https = MakeServer(identity);

    long before = 0, peak = 0;
    size_t sent = 0;
    std::string answer;
    ChunkedBody(*http, before, peak, sent, answer);
    std::printf("512 MiB chunked body: answer \"%s\" after %zu MiB sent; peak resident memory +%ld MiB (limit %zu MiB)\n\n",
                answer.c_str(), sent >> 20, (peak - before) / 1024, Kitra::Soap::Limits().maxMessageBytes >> 20);

    std::fputs(kHead, stdout);
    std::printf("|---|---|---|---|---|---|---|---|---|---|---|\n");
    for (const auto* server : {http.get(), https.get()}) {
        const char* scheme = server->IsTls() ? "HTTPS" : "HTTP";
        for (int threads : {1, 4, 64}) Print("retrieveContent", scheme, threads, "-", Run(*server, false, threads, seconds));
        for (int threads : {1, 4, 64}) Print("validateParams", scheme, threads, "-", Run(*server, true, threads, seconds));
    }
    for (const auto* server : {http.get(), https.get()}) {
        Loiterers loiterers(server->GetPort());
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const char* scheme = server->IsTls() ? "HTTPS" : "HTTP";
        for (int threads : {4, 64}) Print("retrieveContent", scheme, threads, "500 idle, 20 slow", Run(*server, false, threads, seconds));
    }
    for (const auto* server : {http.get(), https.get()}) {
        size_t failed = 0;
        FanOut(*server, 1000, failed);  // warm: the pool's connections are open
        double t = FanOut(*server, 1000, failed);
        std::printf("\nasynchronous fan-out, %s: 1,000 calls started from one thread, all completed in %.1f ms (%.0f calls/s), %zu failed",
                    server->IsTls() ? "HTTPS" : "HTTP", t * 1000, 1000 / t, failed);
    }
    std::printf("\n");
    if (soak > 0) {
        Loiterers loiterers(http->GetPort());
        Row r = Run(*http, false, 64, soak);
        std::printf("\nsoak: 64 clients for %.0f s with 500 idle and 20 slow connections open: %zu calls, %zu failed, p99 %s, max %s\n",
                    soak, r.calls, r.failed, Micros(r.p99).c_str(), Micros(r.max).c_str());
    }
    https->Stop();
    http->Stop();
    return 0;
}
