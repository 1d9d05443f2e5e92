// The service as a whole: accounts, versions and privileges, the context its managers share, and the
// attachment of the managers to a server. The managers live in one file each.
#include <morphel-server/Service.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <stdexcept>

#include <dovra/fault/types.h>
#include <kitra/fault/types.h>
#include <morphel/fault/types.h>
#include <morphel/task/types.h>

#include "Context.h"

namespace MorphelServer {

using Fundix::Ref;
using Fundix::System::DateTime;

std::vector<std::string> Service::Versions() {
    return {"morphel.version.version4", "morphel.version.version3", "morphel.version.version2",
            "morphel.version.version1"};
}

// ---- What the managers share

Ref<Kitra::DataArray<Dovra::ElementDescription>> Descriptions(
    const std::vector<std::array<std::string, 3>>& rows) {
    Ref<Kitra::DataArray<Dovra::ElementDescription>> list(new Kitra::DataArray<Dovra::ElementDescription>());
    for (const auto& [key, label, summary] : rows)
        list->Append(
            Ref<Dovra::ElementDescription>(new Dovra::ElementDescription(label, summary, key)).Get());
    return list;
}

void Raise(Ref<Kitra::MethodFault> fault) {
    fault->Throw();
    std::abort();  // not reached: Throw always throws
}

void ThrowInvalidArgument(const std::string& property) { Raise(new Kitra::Fault::InvalidArgument(property)); }
void ThrowNotFound() { Raise(new Dovra::Fault::NotFound()); }
void ThrowInvalidState() { Raise(new Dovra::Fault::InvalidState()); }

Kitra::Http::Session& CurrentSession() {
    Kitra::Http::Call* call = Kitra::Http::Call::Current();
    // The server lets no call that needs a session through without one.
    if (call == nullptr || call->GetSession() == nullptr) Raise(new Dovra::Fault::NotAuthenticated());
    return *call->GetSession();
}

Ref<Kitra::DataArray<Morphel::Event::Event>> Page(const std::vector<Ref<Morphel::Event::Event>>& events,
                                                  size_t begin, size_t end, bool backwards) {
    Ref<Kitra::DataArray<Morphel::Event::Event>> page(new Kitra::DataArray<Morphel::Event::Event>());
    for (size_t i = begin; i < end; ++i) {
        size_t at = backwards ? end - 1 - (i - begin) : i;
        page->Append(Ref<Morphel::Event::Event>(events[at]->_Clone()).Get());
    }
    return page;
}

namespace {

std::string NewUuid() {
    std::random_device device;
    std::mt19937_64 random(device());
    uint64_t a = random(), b = random();
    char text[40];
    snprintf(text, sizeof(text), "%08x-%04x-4%03x-%04x-%012llx", unsigned(a >> 32),
             unsigned(a >> 16) & 0xffff, unsigned(a) & 0xfff, (unsigned(b >> 48) & 0x3fff) | 0x8000,
             static_cast<unsigned long long>(b & 0xffffffffffffULL));
    return text;
}

ServiceOptions WithDefaults(ServiceOptions options) {
    // The demo account's password is "demo", hashed once with crypt's default cost.
    if (options.accounts.empty())
        options.accounts.push_back(
            {"demo", "$y$j9T$2GO.T7RuBCwHbenOpPGhB.$1KHJPzR7bw1Kkg/AQYFLtiSstDXUFEteS7Pu8Js44p2",
             std::vector<std::string>{"*"}});
    if (options.state == nullptr) options.state = NewMemoryState();
    return options;
}

}  // namespace

Context::Context(ServiceOptions o)
    : options(WithDefaults(std::move(o))),
      machine(ReadMachine()),
      instanceUuid(NewUuid()),
      accounts(options.accounts),
      state(options.state) {}

Context::~Context() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    stopping_.notify_all();
    for (auto& w : workers_)
        w.thread.join();
}

void Context::Log(StateTransaction& tx, Morphel::Event::Event* event, int32_t chainId,
                  const std::string& userName, Morphel::Event::Event::Type type, const std::string& message,
                  const std::string& jobId) {
    event->SetChainId(chainId != 0 ? chainId : tx.NextChainId());
    event->SetType(type);
    event->SetCreatedTime(DateTime::Now());
    event->SetUserName(userName);
    event->SetFullMessage(message);
    if (!jobId.empty()) event->SetJob(RefTo<Morphel::Server::Conversion::ConversionJob>(jobId).Get());
    tx.AppendEvent(event);
    int64_t age = std::chrono::duration_cast<std::chrono::microseconds>(options.maxEventAge).count();
    tx.DropEvents(
        options.maxEvents != 0 ? options.maxEvents : SIZE_MAX,
        DateTime::FromUtcMicros(age != 0 ? event->GetCreatedTime().GetUtcMicros() - age : INT64_MIN));
}

void Context::Log(Morphel::Event::Event* event, int32_t chainId, const std::string& userName,
                  Morphel::Event::Event::Type type, const std::string& message) {
    state->Transact([&](StateTransaction& tx) { Log(tx, event, chainId, userName, type, message); });
}

void Context::LogTask(StateTransaction& tx, const TaskRecord& task, const std::string& message,
                      Morphel::Event::Event::Type type) {
    Ref<Morphel::Event::TaskEvent> event(new Morphel::Event::TaskEvent());
    event->SetInfo(Ref<Morphel::Task::TaskInfo>(task.info->_Clone()).Get());
    Log(tx, event.Get(), task.info->GetEventChainId(), task.info->GetUserName().GetValue(), type, message,
        task.jobId);
}

bool Context::Spawn(std::function<void()> work) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stop_) return false;
    for (auto it = workers_.begin(); it != workers_.end();) {
        if (it->done->load()) {
            it->thread.join();  // past its work: it takes the lock no more
            it = workers_.erase(it);
        } else {
            ++it;
        }
    }
    auto done = std::make_shared<std::atomic<bool>>(false);
    workers_.push_back({std::thread([work = std::move(work), done] {
                            work();
                            done->store(true);
                        }),
                        done});
    return true;
}

bool Context::Sleep(std::chrono::milliseconds duration) {
    std::unique_lock<std::mutex> lock(mutex_);
    return !stopping_.wait_for(lock, duration, [&] { return stop_; });
}

bool Context::Nap(std::chrono::milliseconds duration, uint64_t seen) {
    std::unique_lock<std::mutex> lock(mutex_);
    stopping_.wait_for(lock, duration, [&] { return stop_ || wakes_ != seen; });
    return !stop_;
}

uint64_t Context::WakeCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return wakes_;
}

void Context::Wake() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++wakes_;
    }
    stopping_.notify_all();
}

bool Context::Stopping() {
    std::lock_guard<std::mutex> lock(mutex_);
    return stop_;
}

// ---- The service

struct Service::Impl {
    explicit Impl(ServiceOptions options) : context(std::move(options)) {}
    Context context;
};

Service::Service(ServiceOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {
    Context& context = impl_->context;
    bool alone = !context.state->OpenElsewhere();
    context.state->Transact([&](StateTransaction& tx) {
        context.Log(tx,
                    Ref<Morphel::Event::ServerStartedEvent>(new Morphel::Event::ServerStartedEvent()).Get(),
                    0, "", Morphel::Event::Event::Type::info, "Server started");
        if (alone)
            for (const auto& id : tx.TaskIds())
                FailCutOffTask(context, tx, id, true);
    });
}

Service::~Service() = default;

void Service::Attach(Kitra::Http::Server& server) {
    Context& context = impl_->context;
    if (context.server != nullptr) throw std::logic_error("the service already serves a server");
    context.server = &server;
    AttachRoot(context);
    AttachSessions(context);
    AttachQueries(context);
    AttachConversions(context);
    AttachTasks(context);
    AttachEvents(context);
    AttachDiagnostics(context);
    AttachScheduler(context);
    server.SetSessionEndHandler(
        [&context](const Kitra::Http::Session& session) { EndCollectorsOf(context, session.GetKey()); });
    // A job, task or collector another server on the same state created: served once it is asked for.
    server.SetResolver([&context](const std::string& id) -> Ref<Kitra::ManagedObject> {
        auto starts = [&](const char* prefix) { return id.rfind(prefix, 0) == 0; };
        if (starts("ConversionJob-")) {
            if (context.state->Run([&](StateTransaction& tx) { return tx.FindJob(id).has_value(); }))
                return RegisterJob(context, id);
        } else if (starts("Task-")) {
            if (context.state->Run([&](StateTransaction& tx) { return tx.FindTask(id).has_value(); }))
                return RegisterTask(context, id);
        } else if (id.find("HistoryCollector-") != std::string::npos) {
            if (auto c = context.state->Run([&](StateTransaction& tx) { return tx.FindCollector(id); }))
                return RegisterCollector(context, id, c->kind);
        }
        return nullptr;
    });
    server.SetPrivilegeCheck([&context](const Kitra::Http::Session& session, const std::string& privilege) {
        return context.accounts.Holds(session.GetUserName(), privilege);
    });
    server.SetFaults(
        [](const Kitra::ManagedMethod&) {
            return Ref<Kitra::MethodFault>(new Dovra::Fault::NotAuthenticated());
        },
        [](const Kitra::ManagedMethod&, const std::string& privilege) {
            Ref<Dovra::Fault::NoPermission> fault(new Dovra::Fault::NoPermission());
            fault->SetPrivilegeId(privilege);
            return Ref<Kitra::MethodFault>(fault.Get());
        });
}

}  // namespace MorphelServer
