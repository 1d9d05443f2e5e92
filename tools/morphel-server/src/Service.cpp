#include <morphel-server/Service.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>

#include <dovra/fault/types.h>
#include <dovra/types.h>
#include <kitra/Kitra.h>
#include <kitra/fault/types.h>
#include <morphel-server/Handlers.h>
#include <morphel-server/Machine.h>
#include <morphel/event/types.h>
#include <morphel/fault/types.h>
#include <morphel/frame/Frame.h>
#include <morphel/info/types.h>
#include <morphel/params/types.h>
#include <morphel/propertyInfo/types.h>
#include <morphel/server/conversion/types.h>
#include <morphel/server/job/types.h>
#include <morphel/task/types.h>
#include <morphel/types.h>

namespace MorphelServer {

using Fundix::Ref;
using Fundix::System::DateTime;
using Kitra::Any;
using Kitra::MoRef;

// ---- Accounts

bool ParseAccount(const std::string& text, Account& out) {
    size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0) return false;
    out.name = text.substr(0, colon);
    out.password = text.substr(colon + 1);
    return true;
}

std::vector<Account> ReadAccounts(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error(path + ": cannot be read");
    std::vector<Account> accounts;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        Account account;
        if (!ParseAccount(line, account))
            throw std::runtime_error(path + ":" + std::to_string(number) + ": expected name:password");
        accounts.push_back(account);
    }
    return accounts;
}

std::vector<std::string> Service::Versions() {
    return {"morphel.version.version4", "morphel.version.version3", "morphel.version.version2",
            "morphel.version.version1"};
}

bool Service::HasPrivilege(const std::string& userName, const std::string& privilege) {
    if (userName == "demo") return true;
    return privilege != "Sessions.TerminateSession" && privilege != "Task.Update";
}

// ---- The service

namespace {

const char* const kLocales[] = {"en", "de", "fr", "ja", "zh_CN"};

bool KnownLocale(const std::string& locale) {
    return std::find(std::begin(kLocales), std::end(kLocales), locale) != std::end(kLocales);
}

template <class T>
Ref<MoRef> RefTo(const std::string& id) {
    return new MoRef(Kitra::GetType<T>()->GetName(), id);
}

std::string NewUuid() {
    std::random_device device;
    std::mt19937_64 random(device());
    uint64_t a = random(), b = random();
    char text[40];
    snprintf(text, sizeof(text), "%08x-%04x-4%03x-%04x-%012llx", unsigned(a >> 32), unsigned(a >> 16) & 0xffff,
             unsigned(a) & 0xfff, (unsigned(b >> 48) & 0x3fff) | 0x8000,
             static_cast<unsigned long long>(b & 0xffffffffffffULL));
    return text;
}

uint32_t Crc32(const std::string& data) {
    uint32_t crc = 0xffffffffu;
    for (unsigned char c : data) {
        crc ^= c;
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

[[noreturn]] void ThrowNotFound() { Raise(new Dovra::Fault::NotFound()); }
[[noreturn]] void ThrowInvalidState() { Raise(new Dovra::Fault::InvalidState()); }

Kitra::Http::Session& CurrentSession() {
    Kitra::Http::Call* call = Kitra::Http::Call::Current();
    // The server lets no call that needs a session through without one.
    if (call == nullptr || call->GetSession() == nullptr)
        Raise(new Dovra::Fault::NotAuthenticated());
    return *call->GetSession();
}

Ref<Morphel::UserSession> Describe(const Kitra::Http::Session& s) {
    DateTime login = DateTime::FromUtcMicros(std::atoll(s.Get("loginTime").c_str()));
    std::string locale = s.Get("locale");
    return new Morphel::UserSession(s.GetKey(), s.GetUserName(), s.GetUserName(), login, DateTime::Now(), locale,
                                    locale,
                                    Fundix::Optional<bool>(Service::HasPrivilege(s.GetUserName(), "Sessions.TerminateSession")));
}

struct TaskState {
    std::string id;
    std::string jobId;
    Ref<Morphel::Task::TaskInfo> info;
    std::vector<std::string> disks;  // what the simulated conversion copies
    std::string vmName;
};

struct JobState {
    std::string id;
    Ref<Morphel::Server::Conversion::ConversionJobInfo> info;
    Ref<Morphel::Server::Conversion::ConversionJobSpec> spec;
    Ref<Any> extraInfo;
};

struct CollectorState {
    Ref<Morphel::Event::EventFilterSpec> filter;
    size_t position = 0;  // in the filtered history: the number of events before the view
    int32_t pageSize = 10;
};

}  // namespace

struct Service::Impl {
    ServiceOptions options;
    Machine machine;
    std::string instanceUuid = NewUuid();
    Kitra::Http::Server* server = nullptr;

    std::mutex mutex;
    std::condition_variable stopping;
    bool stop = false;
    // The threads of the simulated conversions; a finished one is joined when the next starts.
    struct Worker {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };
    std::vector<Worker> workers;
    int nextId = 1;
    int nextChain = 1;
    int32_t maxTask = 100;
    std::vector<Ref<Morphel::Event::Event>> events;
    std::map<std::string, TaskState> tasks;
    std::vector<std::string> recentTasks;
    std::map<std::string, JobState> jobs;
    std::map<std::string, CollectorState> collectors;
    static constexpr int32_t kMaxCollectors = 32;

    explicit Impl(ServiceOptions o) : options(std::move(o)), machine(ReadMachine()) {
        if (options.accounts.empty()) options.accounts.push_back({"demo", "demo"});
    }

    std::string NewId(const char* prefix) {
        std::lock_guard<std::mutex> lock(mutex);
        return std::string(prefix) + "-" + std::to_string(nextId++);
    }

    void Register(const std::string& id, const Kitra::Type* type, HandlerAdapter* adapter) {
        server->Register(id, MakeObject(type, adapter).Get());
    }

    // Records `event` with the next key and the current time; the caller holds the lock.
    void LogLocked(Morphel::Event::Event* event, int32_t chainId, const std::string& userName,
                   Morphel::Event::Event::Type type, const std::string& message, const std::string& jobId = "") {
        event->SetKey(int32_t(events.size()) + 1);
        event->SetChainId(chainId != 0 ? chainId : nextChain++);
        event->SetType(type);
        event->SetCreatedTime(DateTime::Now());
        event->SetUserName(userName);
        event->SetFullMessage(message);
        if (!jobId.empty()) event->SetJob(RefTo<Morphel::Server::Conversion::ConversionJob>(jobId).Get());
        events.emplace_back(event);
    }
    void Log(Morphel::Event::Event* event, int32_t chainId, const std::string& userName,
             Morphel::Event::Event::Type type, const std::string& message, const std::string& jobId = "") {
        std::lock_guard<std::mutex> lock(mutex);
        LogLocked(event, chainId, userName, type, message, jobId);
    }
    void LogTaskLocked(TaskState& task, const std::string& message) {
        Ref<Morphel::Event::TaskEvent> event(new Morphel::Event::TaskEvent());
        event->SetInfo(Ref<Morphel::Task::TaskInfo>(task.info->_Clone()).Get());
        LogLocked(event.Get(), task.info->GetEventChainId(), task.info->GetUserName().GetValue(),
                  Morphel::Event::Event::Type::info, message, task.jobId);
    }

    bool Matches(const Morphel::Event::EventFilterSpec* filter, const Morphel::Event::Event& e) const {
        if (filter == nullptr) return true;
        if (filter->GetEventChainId().IsSet() && filter->GetEventChainId().GetValue() != e.GetChainId()) return false;
        if (auto* types = filter->GetType(); types != nullptr && types->GetLength() != 0) {
            const auto& v = types->GetValues();
            if (std::find(v.begin(), v.end(), e.GetType()) == v.end()) return false;
        }
        if (auto* ids = filter->GetTypeId(); ids != nullptr && ids->GetLength() != 0) {
            bool any = false;
            for (const auto& name : ids->GetValues()) any = any || name == e._GetType()->GetName();
            if (!any) return false;
        }
        if (auto* time = filter->GetTimeRange(); time != nullptr) {
            int64_t t = e.GetCreatedTime().GetUtcMicros();
            if (time->GetBeginTime().IsSet() && t < time->GetBeginTime().GetValue().GetUtcMicros()) return false;
            if (time->GetEndTime().IsSet() && t > time->GetEndTime().GetValue().GetUtcMicros()) return false;
        }
        if (auto* users = filter->GetUserName(); users != nullptr && users->GetUserList() != nullptr &&
                                                 users->GetUserList()->GetLength() != 0) {
            const auto& v = users->GetUserList()->GetValues();
            if (std::find(v.begin(), v.end(), e.GetUserName()) == v.end()) return false;
        }
        if (auto* job = filter->GetJob(); job != nullptr && (e.GetJob() == nullptr || e.GetJob()->GetId() != job->GetId()))
            return false;
        return true;
    }
    // The events `filter` selects, oldest first; the caller holds the lock.
    std::vector<Ref<Morphel::Event::Event>> SelectLocked(const Morphel::Event::EventFilterSpec* filter) const {
        std::vector<Ref<Morphel::Event::Event>> out;
        for (const auto& e : events)
            if (Matches(filter, *e)) out.push_back(e);
        return out;
    }
    static Ref<Any> Page(const std::vector<Ref<Morphel::Event::Event>>& events, size_t begin, size_t end,
                         bool backwards = false) {
        Ref<Kitra::DataArray<Morphel::Event::Event>> page(new Kitra::DataArray<Morphel::Event::Event>());
        for (size_t i = begin; i < end; ++i) {
            size_t at = backwards ? end - 1 - (i - begin) : i;
            page->Append(Ref<Morphel::Event::Event>(events[at]->_Clone()).Get());
        }
        return page.Get();
    }

    // ---- Sources

    // The source must be this machine, named as a live computer.
    void CheckSource(Morphel::ComputerSpec* source) {
        if (source == nullptr) ThrowInvalidArgument("source");
        auto* live = dynamic_cast<Morphel::ComputerSpec::LiveComputerLocation*>(source->GetLocation());
        std::string host = live != nullptr ? live->GetHostname() : std::string();
        if (live == nullptr ||
            (host != machine.hostname && host != "localhost" && host != "127.0.0.1" && host != "::1")) {
            Ref<Morphel::Fault::NoHostConnection> fault(new Morphel::Fault::NoHostConnection());
            fault->SetHostName(live != nullptr ? host : std::string("(not a live computer)"));
            Raise(fault.Get());
        }
    }

    static Ref<Morphel::Info::PropertyInfo> Note(Morphel::Info::PropertyInfo* note, const std::string& property,
                                                 const char* severity, const std::string& message) {
        note->SetProperty(property);
        note->SetSeverityLevel(severity);
        note->SetMessage(message);
        return note;
    }

    // What cannot work about `params` for this machine; raised as one PropertyInfoFault.
    void Validate(Morphel::Params::ConversionParams* params) {
        using namespace Morphel::PropertyInfo;
        Ref<Kitra::DataArray<Morphel::Info::PropertyInfo>> notes(new Kitra::DataArray<Morphel::Info::PropertyInfo>());
        auto add = [&](Ref<Morphel::Info::PropertyInfo> note) { notes->Append(note.Get()); };
        if (params == nullptr) ThrowInvalidArgument("conversionParams");
        bool clone = !params->IsDoClone().IsSet() || params->IsDoClone().GetValue();
        Morphel::Params::CloningParams* cloning = params->GetCloningParams();
        if (clone && cloning == nullptr)
            add(Note(new Morphel::Info::PropertyInfo(), "cloningParams", "error", "cloning requested without cloning parameters"));
        if (cloning != nullptr) {
            std::string targetName = cloning->GetTarget() != nullptr ? cloning->GetTarget()->GetName() : std::string();
            if (cloning->GetTarget() == nullptr)
                add(Note(new Morphel::Info::PropertyInfo(), "cloningParams.target", "error", "no target machine"));
            auto* storage = cloning->GetStorageParams();
            auto* disks = storage != nullptr ? storage->GetTargetDiskParams() : nullptr;
            for (size_t i = 0; disks != nullptr && i < disks->GetLength(); ++i) {
                auto* disk = disks->Get(i);
                std::string path = "cloningParams.storageParams.targetDiskParams[" + std::to_string(i) + "]";
                const std::string* id = disk->GetSourceDiskId().IsSet() ? &disk->GetSourceDiskId().GetValue() : nullptr;
                if (id != nullptr && machine.FindDisk(*id) == nullptr)
                    add(Note(new Morphel::Info::PropertyInfo(), path + ".sourceDiskId", "error",
                             "the source has no disk '" + *id + "'"));
                auto* volumes = disk->GetVolumesToClone();
                for (size_t j = 0; volumes != nullptr && j < volumes->GetLength(); ++j) {
                    auto* v = volumes->Get(j);
                    std::string vpath = path + ".volumesToClone[" + std::to_string(j) + "]";
                    const MachineVolume* volume = machine.FindVolume(v->GetSourceVolumeId());
                    if (volume == nullptr) {
                        add(Note(new Morphel::Info::PropertyInfo(), vpath + ".sourceVolumeId", "error",
                                 "the source has no volume '" + v->GetSourceVolumeId() + "'"));
                    } else if (v->GetNewCapacityInBytes().IsSet() &&
                               v->GetNewCapacityInBytes().GetValue() < volume->spaceUsedInBytes) {
                        Ref<InsufficientSpaceError> note(new InsufficientSpaceError());
                        note->SetTargetName(targetName);
                        add(Note(note.Get(), vpath + ".newCapacityInBytes", "error",
                                 "smaller than the " + std::to_string(volume->spaceUsedInBytes) + " bytes in use"));
                    }
                }
            }
            auto* hardware = cloning->GetBasicHardwareParams();
            if (hardware != nullptr && hardware->GetNumCPUs().IsSet() && hardware->GetNumCPUs().GetValue() != machine.numCpus) {
                Ref<NumCpuMismatch> note(new NumCpuMismatch());
                note->SetNumCPUInSource(machine.numCpus);
                add(Note(note.Get(), "cloningParams.basicHardwareParams.numCPUs", "warning",
                         "the source has " + std::to_string(machine.numCpus) + " processors"));
            }
        }
        if (params->IsDoCustomize().IsSet() && params->IsDoCustomize().GetValue())
            add(Note(new CustomizeNotSupported(), "doCustomize", "error", "a live Linux source cannot be customized"));
        if (notes->GetLength() != 0) Morphel::Fault::PropertyInfoFault::Exception(notes.Get()).Throw();
    }

    // ---- Conversions

    void Run(std::string taskId) {
        using State = Morphel::Task::TaskInfo::State;
        auto wait = [&](std::chrono::milliseconds d) {
            std::unique_lock<std::mutex> lock(mutex);
            return !stopping.wait_for(lock, d, [&] { return stop; });
        };
        const auto step = options.conversionTime / 20;
        if (!wait(step)) return;
        std::vector<std::string> disks;
        std::string vmName;
        {
            std::lock_guard<std::mutex> lock(mutex);
            TaskState& t = tasks.at(taskId);
            t.info->SetState(State::running);
            t.info->SetStartTime(DateTime::Now());
            t.info->SetProgress(0);
            LogTaskLocked(t, "Task started");
            disks = t.disks;
            vmName = t.vmName;
        }
        for (int i = 1; i <= 20; ++i) {
            if (!wait(step)) return;
            std::lock_guard<std::mutex> lock(mutex);
            TaskState& t = tasks.at(taskId);
            int progress = i * 5;
            t.info->SetProgress(progress);
            t.info->SetEstimatedTimeRemaining(int32_t((20 - i) * step.count() / 1000));
            // The disks are copied one after the other over the run.
            size_t n = disks.size();
            for (size_t d = 0; d < n; ++d) {
                int begin = int(100 * d / n), end = int(100 * (d + 1) / n);
                if (progress - 5 <= begin && begin < progress) {
                    Ref<Morphel::Event::DiskCloningEvent> e(new Morphel::Event::DiskCloningEvent());
                    e->SetVmName(vmName);
                    e->SetSourceDisk(disks[d]);
                    LogLocked(e.Get(), t.info->GetEventChainId(), t.info->GetUserName().GetValue(),
                              Morphel::Event::Event::Type::info, "Cloning disk " + disks[d], t.jobId);
                }
                if (progress - 5 < end && end <= progress) {
                    Ref<Morphel::Event::DiskClonedEvent> e(new Morphel::Event::DiskClonedEvent());
                    e->SetVmName(vmName);
                    e->SetSourceDisk(disks[d]);
                    LogLocked(e.Get(), t.info->GetEventChainId(), t.info->GetUserName().GetValue(),
                              Morphel::Event::Event::Type::info, "Cloned disk " + disks[d], t.jobId);
                }
            }
        }
        std::lock_guard<std::mutex> lock(mutex);
        TaskState& t = tasks.at(taskId);
        DateTime now = DateTime::Now();
        t.info->SetState(State::success);
        t.info->SetCompleteTime(now);
        t.info->SetEstimatedTimeRemaining(0);
        LogTaskLocked(t, "Task completed");
        auto job = jobs.find(t.jobId);
        if (job != jobs.end()) {
            job->second.info->SetActiveTask(nullptr);
            job->second.info->SetLastRunCompleteTime(now);
            job->second.info->SetLastModifiedTime(now);
        }
    }

    Ref<Any> CreateJob(Args& args) {
        auto* spec = RecordArg<Morphel::Server::Conversion::ConversionJobSpec>(args, 0);
        if (spec == nullptr) ThrowInvalidArgument("spec");
        const std::string user = CurrentSession().GetUserName();
        if (spec->GetName().empty()) {
            Ref<Dovra::Fault::InvalidName> fault(new Dovra::Fault::InvalidName());
            fault->SetName(spec->GetName());
            Raise(fault.Get());
        }
        CheckSource(spec->GetSource());
        std::string jobId = NewId("ConversionJob"), taskId = NewId("Task");
        DateTime now = DateTime::Now();
        Ref<Morphel::Server::Conversion::ConversionJobSpec> keptSpec(spec->_Clone());

        TaskState task;
        task.id = taskId;
        task.jobId = jobId;
        task.vmName = spec->GetName();
        auto* cloning = spec->GetConversionParams() != nullptr ? spec->GetConversionParams()->GetCloningParams() : nullptr;
        if (cloning != nullptr && cloning->GetTarget() != nullptr) task.vmName = cloning->GetTarget()->GetName();
        auto* disks = cloning != nullptr && cloning->GetStorageParams() != nullptr
                          ? cloning->GetStorageParams()->GetTargetDiskParams() : nullptr;
        for (size_t i = 0; disks != nullptr && i < disks->GetLength(); ++i)
            if (disks->Get(i)->GetSourceDiskId().IsSet()) task.disks.push_back(disks->Get(i)->GetSourceDiskId().GetValue());
        if (task.disks.empty())
            for (const auto& d : machine.disks) task.disks.push_back(d.id);

        Ref<Morphel::Task::TaskInfo> info(new Morphel::Task::TaskInfo());
        info->SetKey(taskId);
        info->SetTask(RefTo<Morphel::Task::Task>(taskId).Get());
        info->SetName("convert");
        info->SetDescriptionId("morphel.server.conversion.ConversionManager.createJob");
        info->SetUserName(user);
        info->SetSource(machine.hostname);
        info->SetTarget(task.vmName);
        info->SetState(Morphel::Task::TaskInfo::State::queued);
        info->SetCancelled(false);
        info->SetCancelable(false);
        info->SetProgress(0);
        info->SetQueueTime(now);
        info->SetJob(RefTo<Morphel::Server::Conversion::ConversionJob>(jobId).Get());
        task.info = info;

        JobState job;
        job.id = jobId;
        job.spec = keptSpec;
        job.extraInfo = args.size() > 1 ? args[1] : nullptr;
        job.info = new Morphel::Server::Conversion::ConversionJobInfo();
        job.info->SetKey(jobId);
        job.info->SetOwner(user);
        job.info->SetState("active");
        job.info->SetActiveTask(RefTo<Morphel::Task::Task>(taskId).Get());
        job.info->SetCreationTime(now);
        job.info->SetLastModifiedTime(now);
        job.info->SetNumConsecutiveErrors(0);
        job.info->SetLastRunStartTime(now);
        job.info->SetJob(RefTo<Morphel::Server::Conversion::ConversionJob>(jobId).Get());
        job.info->SetTargetVm(TargetOf(*spec).Get());
        job.info->SetSource(machine.hostname);
        job.info->SetTarget(task.vmName);
        job.info->SetEditable(false);

        {
            std::lock_guard<std::mutex> lock(mutex);
            if (stop) ThrowInvalidState();
            for (const auto& [id, other] : jobs) {
                if (other.spec->GetName() == spec->GetName()) {
                    Ref<Dovra::Fault::DuplicateName> fault(new Dovra::Fault::DuplicateName());
                    fault->SetName(spec->GetName());
                    fault->SetObject(RefTo<Morphel::Server::Conversion::ConversionJob>(id).Get());
                    Raise(fault.Get());
                }
            }
            info->SetEventChainId(nextChain++);
            TaskState& t = tasks[taskId] = task;
            jobs[jobId] = job;
            recentTasks.push_back(taskId);
            if (recentTasks.size() > size_t(std::max(1, maxTask))) recentTasks.erase(recentTasks.begin());
            Ref<Morphel::Event::GeneralEvent> created(new Morphel::Event::GeneralEvent());
            created->SetMessage("Conversion job '" + spec->GetName() + "' created");
            LogLocked(created.Get(), info->GetEventChainId(), user, Morphel::Event::Event::Type::info,
                      "Conversion job '" + spec->GetName() + "' created", jobId);
            LogTaskLocked(t, "Task queued");
            for (auto it = workers.begin(); it != workers.end();) {
                if (it->done->load()) {
                    it->thread.join();  // past Run: it takes the lock no more
                    it = workers.erase(it);
                } else {
                    ++it;
                }
            }
            auto done = std::make_shared<std::atomic<bool>>(false);
            workers.push_back({std::thread([this, taskId, done] {
                                   Run(taskId);
                                   done->store(true);
                               }),
                               done});
        }
        RegisterJob(jobId);
        RegisterTask(taskId);
        return Ref<Any>(job.info->_Clone());
    }

    // The machine a job makes: a hosted virtual machine in the target's directory, or, for any other
    // target, the source's description.
    static Ref<Morphel::ComputerSpec> TargetOf(const Morphel::Server::Conversion::ConversionJobSpec& spec) {
        auto* cloning = spec.GetConversionParams() != nullptr ? spec.GetConversionParams()->GetCloningParams() : nullptr;
        auto* target = cloning != nullptr ? cloning->GetTarget() : nullptr;
        if (target != nullptr) {
            if (auto* hosted = dynamic_cast<Morphel::Params::TargetVmSpec::HostedVmLocation*>(target->GetLocation())) {
                Ref<Morphel::ComputerSpec::HostedVmLocation> location(new Morphel::ComputerSpec::HostedVmLocation());
                location->SetConfigFilePath(hosted->GetDirectory() + "/" + target->GetName());
                return new Morphel::ComputerSpec(location.Get());
            }
        }
        return spec.GetSource() != nullptr ? spec.GetSource()->_Clone() : new Morphel::ComputerSpec();
    }

    JobState& FindJob(Args& args, size_t index) {
        auto* ref = RecordArg<MoRef>(args, index);
        auto it = ref != nullptr ? jobs.find(ref->GetId()) : jobs.end();
        if (it == jobs.end()) ThrowNotFound();
        return it->second;
    }
    TaskState& FindTask(const std::string& id) {
        auto it = tasks.find(id);
        if (it == tasks.end()) ThrowNotFound();
        return it->second;
    }
    TaskState& FindTask(const MoRef* ref) {
        if (ref == nullptr) ThrowNotFound();
        return FindTask(ref->GetId());
    }

    void RegisterJob(const std::string& jobId) {
        Ref<HandlerAdapter> a(new HandlerAdapter());
        auto info = [this, jobId](Args&) -> Ref<Any> {
            std::lock_guard<std::mutex> lock(mutex);
            auto it = jobs.find(jobId);
            if (it == jobs.end()) ThrowNotFound();
            return Ref<Any>(it->second.info->_Clone());
        };
        a->On("info", info);
        a->On("spec", [this, jobId](Args&) -> Ref<Any> {
            std::lock_guard<std::mutex> lock(mutex);
            auto it = jobs.find(jobId);
            if (it == jobs.end()) ThrowNotFound();
            return Ref<Any>(it->second.spec->_Clone());
        });
        a->On("name", [this, jobId](Args&) -> Ref<Any> {
            std::lock_guard<std::mutex> lock(mutex);
            auto it = jobs.find(jobId);
            if (it == jobs.end()) ThrowNotFound();
            return Frame::BoxValue<std::string>(it->second.spec->GetName());
        });
        Register(jobId, Kitra::GetType<Morphel::Server::Conversion::ConversionJob>(), a.Get());
    }

    void RegisterTask(const std::string& taskId) {
        Ref<HandlerAdapter> a(new HandlerAdapter());
        a->On("info", [this, taskId](Args&) -> Ref<Any> {
            std::lock_guard<std::mutex> lock(mutex);
            return Ref<Any>(FindTask(taskId).info->_Clone());
        });
        a->On("event", [this, taskId](Args&) -> Ref<Any> {
            std::lock_guard<std::mutex> lock(mutex);
            Ref<Morphel::Event::EventFilterSpec> filter(new Morphel::Event::EventFilterSpec());
            filter->SetEventChainId(FindTask(taskId).info->GetEventChainId());
            auto selected = SelectLocked(filter.Get());
            return Page(selected, 0, selected.size());
        });
        Register(taskId, Kitra::GetType<Morphel::Task::Task>(), a.Get());
    }

    // ---- Collectors

    Ref<Any> CreateCollector(Args& args) {
        auto* filter = RecordArg<Morphel::Event::EventFilterSpec>(args, 0);
        std::string id;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (collectors.size() >= size_t(kMaxCollectors)) ThrowInvalidState();
            id = "EventHistoryCollector-" + std::to_string(nextId++);
            CollectorState& c = collectors[id];
            c.filter = filter != nullptr ? filter->_Clone() : new Morphel::Event::EventFilterSpec();
        }
        Ref<HandlerAdapter> a(new HandlerAdapter());
        // Each operation looks the collector up again: it may have been removed meanwhile.
        auto with = [this, id](auto&& body) {
            return [this, id, body](Args& args) -> Ref<Any> {
                std::lock_guard<std::mutex> lock(mutex);
                auto it = collectors.find(id);
                if (it == collectors.end()) Kitra::Fault::ManagedObjectNotFound::Exception(RefTo<Morphel::Event::EventHistoryCollector>(id).Get()).Throw();
                return body(it->second, args);
            };
        };
        a->On("readNext", with([this](CollectorState& c, Args& args) {
            int32_t max = IntArg(args, 0, "maxCount");
            if (max <= 0) ThrowInvalidArgument("maxCount");
            auto selected = SelectLocked(c.filter.Get());
            size_t begin = std::min(c.position, selected.size());
            size_t end = std::min(selected.size(), begin + size_t(max));
            c.position = end;
            return Page(selected, begin, end);
        }));
        a->On("readPrev", with([this](CollectorState& c, Args& args) {
            int32_t max = IntArg(args, 0, "maxCount");
            if (max <= 0) ThrowInvalidArgument("maxCount");
            auto selected = SelectLocked(c.filter.Get());
            size_t end = std::min(c.position, selected.size());
            size_t begin = end > size_t(max) ? end - size_t(max) : 0;
            c.position = begin;
            return Page(selected, begin, end, true);
        }));
        a->On("latestPage", with([this](CollectorState& c, Args&) {
            auto selected = SelectLocked(c.filter.Get());
            size_t n = std::min(selected.size(), size_t(c.pageSize));
            return Page(selected, selected.size() - n, selected.size());
        }));
        a->On("setLatestPageSize", with([](CollectorState& c, Args& args) {
            int32_t size = IntArg(args, 0, "maxCount");
            if (size <= 0) ThrowInvalidArgument("maxCount");
            c.pageSize = size;
            return Ref<Any>();
        }));
        a->On("rewind", with([](CollectorState& c, Args&) {
            c.position = 0;
            return Ref<Any>();
        }));
        a->On("reset", with([this](CollectorState& c, Args&) {
            size_t n = SelectLocked(c.filter.Get()).size();
            c.position = n > size_t(c.pageSize) ? n - size_t(c.pageSize) : 0;
            return Ref<Any>();
        }));
        a->On("filter", with([](CollectorState& c, Args&) { return Ref<Any>(c.filter->_Clone()); }));
        a->On("remove", [this, id](Args&) -> Ref<Any> {
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (collectors.erase(id) == 0) ThrowNotFound();
            }
            server->Unregister(id);
            return nullptr;
        });
        Register(id, Kitra::GetType<Morphel::Event::EventHistoryCollector>(), a.Get());
        return Ref<Any>(RefTo<Morphel::Event::EventHistoryCollector>(id).Get());
    }

    // ---- The fixed objects

    Ref<Morphel::ServiceInstanceContent> Content() {
        std::string apiVersion = "4.0";
        if (Kitra::Http::Call* call = Kitra::Http::Call::Current()) {
            const std::string& uri = call->GetCodec().GetVersionUri();
            apiVersion = uri.substr(uri.rfind('/') + 1);
        }
        Ref<Dovra::AboutInfo> about(new Dovra::AboutInfo(
            "Morphel Server", "Morphel Reference Server 0.1.0", "morphelTypes", "0.1.0", "1", "linux-x64",
            "ConversionServer", apiVersion, instanceUuid, Fundix::Optional<std::string>(), Fundix::Optional<std::string>()));
        bool tls = server != nullptr && server->IsTls();
        Ref<Morphel::ServiceInstanceContent> content(tls ? new Morphel::ServerInstanceContent() : new Morphel::ServiceInstanceContent());
        content->SetPropertyCollector(Ref<MoRef>(new MoRef(Kitra::GetType<Kitra::ManagedObject>()->GetName(), "PropertyCollector")).Get());
        content->SetSessionManager(RefTo<Morphel::SessionManager>(kSessionManagerId).Get());
        content->SetEventManager(RefTo<Morphel::Event::EventManager>(kEventManagerId).Get());
        content->SetTaskManager(RefTo<Morphel::Task::TaskManager>(kTaskManagerId).Get());
        content->SetQueryManager(RefTo<Morphel::QueryManager>(kQueryManagerId).Get());
        content->SetDiagnosticManager(RefTo<Morphel::DiagnosticManager>(kDiagnosticManagerId).Get());
        content->SetAbout(about.Get());
        content->SetConversionManager(RefTo<Morphel::Server::Conversion::ConversionManager>(kConversionManagerId).Get());
        // Over HTTPS the content names the server's certificate, for clients to pin.
        if (tls)
            static_cast<Morphel::ServerInstanceContent*>(content.Get())
                ->SetPelorServerInfo(Ref<Morphel::ServerInstanceContent::PelorServerInfo>(
                    new Morphel::ServerInstanceContent::PelorServerInfo(server->GetUrl(), server->GetThumbprint())).Get());
        return content;
    }

    void AttachRoot() {
        Ref<HandlerAdapter> a(new HandlerAdapter());
        a->On("retrieveContent", [this](Args&) { return Ref<Any>(Content().Get()); });
        a->On("content", [this](Args&) { return Ref<Any>(Content().Get()); });
        a->On("currentTime", [](Args&) { return Frame::BoxValue<DateTime>(DateTime::Now()); });
        Register(kServiceInstanceId, Kitra::GetType<Morphel::ServiceInstance>(), a.Get());
    }

    void AttachSessions() {
        Ref<HandlerAdapter> a(new HandlerAdapter());
        a->On("login", [this](Args& args) -> Ref<Any> {
            std::string user = TextArg(args, 0, "userName"), password = TextArg(args, 1, "password");
            std::string locale = OptionalTextArg(args, 2).IsSet() ? OptionalTextArg(args, 2).GetValue() : "en";
            Kitra::Http::Call* call = Kitra::Http::Call::Current();
            bool known = std::any_of(options.accounts.begin(), options.accounts.end(),
                                     [&](const Account& a) { return a.name == user && a.password == password; });
            if (!known || call == nullptr) {
                Ref<Morphel::Event::UserFailedAuthenticationEvent> e(new Morphel::Event::UserFailedAuthenticationEvent());
                if (call != nullptr) e->SetIpAddress(call->GetPeer());
                Log(e.Get(), 0, user, Morphel::Event::Event::Type::warning, "Cannot log in " + user);
                Raise(new Dovra::Fault::InvalidLogin());
            }
            if (!KnownLocale(locale)) Raise(new Dovra::Fault::InvalidLocale());
            Kitra::Http::Session* session = call->OpenSession(user);
            session->Set("locale", locale);
            session->Set("loginTime", std::to_string(DateTime::Now().GetUtcMicros()));
            Ref<Morphel::Event::UserLoginEvent> e(new Morphel::Event::UserLoginEvent());
            e->SetIpAddress(call->GetPeer());
            e->SetLocale(locale);
            Log(e.Get(), 0, user, Morphel::Event::Event::Type::info, "User " + user + " logged in");
            return Ref<Any>(Describe(*session).Get());
        });
        a->On("logout", [this](Args&) -> Ref<Any> {
            std::string user = CurrentSession().GetUserName();
            Ref<Morphel::Event::UserLogoutEvent> e(new Morphel::Event::UserLogoutEvent());
            Log(e.Get(), 0, user, Morphel::Event::Event::Type::info, "User " + user + " logged out");
            Kitra::Http::Call::Current()->CloseSession();
            return nullptr;
        });
        a->On("terminate", [](Args& args) -> Ref<Any> {
            auto* keys = RecordArg<Kitra::Array<std::string>>(args, 0);
            bool all = true;
            for (size_t i = 0; keys != nullptr && i < keys->GetLength(); ++i)
                all = Kitra::Http::Call::Current()->CloseSession(keys->Get(i)) && all;
            if (!all) ThrowNotFound();
            return nullptr;
        });
        a->On("currentSession", [](Args&) { return Ref<Any>(Describe(CurrentSession()).Get()); });
        a->On("sessionList", [](Args&) -> Ref<Any> {
            Ref<Kitra::DataArray<Morphel::UserSession>> list(new Kitra::DataArray<Morphel::UserSession>());
            for (const auto& s : Kitra::Http::Call::Current()->GetSessions()) list->Append(Describe(*s).Get());
            return list.Get();
        });
        a->On("setLocale", [](Args& args) -> Ref<Any> {
            std::string locale = TextArg(args, 0, "locale");
            if (!KnownLocale(locale)) Raise(new Dovra::Fault::InvalidLocale());
            CurrentSession().Set("locale", locale);
            return nullptr;
        });
        auto locales = [](Args&) -> Ref<Any> {
            Ref<Kitra::Array<std::string>> list(new Kitra::Array<std::string>());
            for (const char* l : kLocales) list->Append(l);
            return list.Get();
        };
        a->On("supportedLocaleList", locales);
        a->On("messageLocaleList", locales);
        a->On("defaultLocale", [](Args&) { return Frame::BoxValue<std::string>("en"); });
        Register(kSessionManagerId, Kitra::GetType<Morphel::SessionManager>(), a.Get());
    }

    void AttachQueries() {
        Ref<HandlerAdapter> a(new HandlerAdapter());
        a->On("queryComputerInfo", [this](Args& args) {
            CheckSource(RecordArg<Morphel::ComputerSpec>(args, 0));
            return Ref<Any>(DescribeHardware(machine).Get());
        });
        a->On("validateParams", [this](Args& args) -> Ref<Any> {
            CheckSource(RecordArg<Morphel::ComputerSpec>(args, 0));
            Validate(RecordArg<Morphel::Params::ConversionParams>(args, 2));
            return nullptr;
        });
        a->On("getSupportedConversionSources", [](Args&) -> Ref<Any> {
            Ref<Morphel::Info::SupportedSources> s(new Morphel::Info::SupportedSources());
            Ref<Kitra::Array<std::string>> sources(new Kitra::Array<std::string>());
            sources->Append(Morphel::Info::SupportedSources::SOURCETYPE_LIVE);
            s->SetSupportedSources(sources.Get());
            Ref<Kitra::Array<std::string>> live(new Kitra::Array<std::string>());
            live->Append("linux");
            s->SetSupportedLiveSources(live.Get());
            return s.Get();
        });
        a->On("getSupportedTargets", [this](Args& args) -> Ref<Any> {
            CheckSource(RecordArg<Morphel::ComputerSpec>(args, 0));
            Ref<Morphel::Info::SupportedTargets> t(new Morphel::Info::SupportedTargets());
            Ref<Kitra::Array<std::string>> targets(new Kitra::Array<std::string>());
            targets->Append(Morphel::Info::SupportedTargets::PRODUCTTYPE_HOSTED);
            targets->Append(Morphel::Info::SupportedTargets::PRODUCTTYPE_OVF);
            t->SetSupportedTargets(targets.Get());
            Ref<Kitra::Array<std::string>> hosted(new Kitra::Array<std::string>());
            for (const char* v : {"tarnDesk3", "tarnHost3", "tarnViewer3"}) hosted->Append(v);
            t->SetSupportedHostedTargets(hosted.Get());
            return t.Get();
        });
        Register(kQueryManagerId, Kitra::GetType<Morphel::QueryManager>(), a.Get());
    }

    void AttachConversions() {
        Ref<HandlerAdapter> a(new HandlerAdapter());
        a->On("createJob", [this](Args& args) { return CreateJob(args); });
        a->On("getJobInfo", [this](Args& args) {
            std::lock_guard<std::mutex> lock(mutex);
            return Ref<Any>(FindJob(args, 0).info->_Clone());
        });
        a->On("getJobSpec", [this](Args& args) {
            std::lock_guard<std::mutex> lock(mutex);
            return Ref<Any>(FindJob(args, 0).spec->_Clone());
        });
        a->On("getJobExtraInfo", [this](Args& args) {
            std::lock_guard<std::mutex> lock(mutex);
            return FindJob(args, 0).extraInfo;
        });
        a->On("destroyJob", [this](Args& args) -> Ref<Any> {
            std::string id;
            {
                std::lock_guard<std::mutex> lock(mutex);
                JobState& job = FindJob(args, 0);
                if (job.info->GetActiveTask() != nullptr) ThrowInvalidState();
                id = job.id;
                jobs.erase(id);
            }
            server->Unregister(id);
            return nullptr;
        });
        a->On("maxCollector", [](Args&) { return Frame::BoxValue<int32_t>(kMaxCollectors); });
        Register(kConversionManagerId, Kitra::GetType<Morphel::Server::Conversion::ConversionManager>(), a.Get());
    }

    void AttachTasks() {
        Ref<HandlerAdapter> a(new HandlerAdapter());
        a->On("getTaskInfo", [this](Args& args) {
            std::lock_guard<std::mutex> lock(mutex);
            return Ref<Any>(FindTask(RecordArg<MoRef>(args, 0)).info->_Clone());
        });
        a->On("recentTask", [this](Args&) -> Ref<Any> {
            std::lock_guard<std::mutex> lock(mutex);
            Ref<Kitra::DataArray<MoRef>> list(new Kitra::DataArray<MoRef>());
            for (const auto& id : recentTasks) list->Append(RefTo<Morphel::Task::Task>(id).Get());
            return list.Get();
        });
        a->On("maxTask", [this](Args&) {
            std::lock_guard<std::mutex> lock(mutex);
            return Frame::BoxValue<int32_t>(maxTask);
        });
        a->On("setMaxTask", [this](Args& args) -> Ref<Any> {
            int32_t n = IntArg(args, 0, "maxTask");
            if (n <= 0) ThrowInvalidArgument("maxTask");
            std::lock_guard<std::mutex> lock(mutex);
            maxTask = n;
            return nullptr;
        });
        a->On("maxCollector", [](Args&) { return Frame::BoxValue<int32_t>(kMaxCollectors); });
        Register(kTaskManagerId, Kitra::GetType<Morphel::Task::TaskManager>(), a.Get());
    }

    void AttachEvents() {
        Ref<HandlerAdapter> a(new HandlerAdapter());
        a->On("createCollector", [this](Args& args) { return CreateCollector(args); });
        a->On("queryEvent", [this](Args& args) {
            std::lock_guard<std::mutex> lock(mutex);
            auto selected = SelectLocked(RecordArg<Morphel::Event::EventFilterSpec>(args, 0));
            return Page(selected, 0, selected.size());
        });
        a->On("maxCollector", [](Args&) { return Frame::BoxValue<int32_t>(kMaxCollectors); });
        Register(kEventManagerId, Kitra::GetType<Morphel::Event::EventManager>(), a.Get());
    }

    void AttachDiagnostics() {
        Ref<HandlerAdapter> a(new HandlerAdapter());
        // The bundle is the text of the task's events (all events without a task); nothing is written.
        a->On("generateTaskLogBundle", [this](Args& args) -> Ref<Any> {
            auto* ref = RecordArg<MoRef>(args, 0);
            std::string text;
            std::lock_guard<std::mutex> lock(mutex);
            Ref<Morphel::Event::EventFilterSpec> filter(new Morphel::Event::EventFilterSpec());
            if (ref != nullptr) filter->SetEventChainId(FindTask(ref).info->GetEventChainId());
            for (const auto& e : SelectLocked(filter.Get()))
                text += e->GetCreatedTime().ToIso8601() + " " + e->GetFullMessage().GetValue() + "\n";
            return new Morphel::DiagnosticManager::TaskLogBundleInfo(
                "bundle-" + std::to_string(nextId++), DateTime::Now(), Morphel::DiagnosticManager::BundleFormat::zip,
                nullptr, int64_t(text.size()), int32_t(Crc32(text)));
        });
        Register(kDiagnosticManagerId, Kitra::GetType<Morphel::DiagnosticManager>(), a.Get());
    }
};

Service::Service(ServiceOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {
    impl_->Log(Ref<Morphel::Event::ServerStartedEvent>(new Morphel::Event::ServerStartedEvent()).Get(), 0, "",
               Morphel::Event::Event::Type::info, "Server started");
}

Service::~Service() {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->stop = true;
    }
    impl_->stopping.notify_all();
    for (auto& w : impl_->workers) w.thread.join();
}

void Service::Attach(Kitra::Http::Server& server) {
    if (impl_->server != nullptr) throw std::logic_error("the service already serves a server");
    impl_->server = &server;
    impl_->AttachRoot();
    impl_->AttachSessions();
    impl_->AttachQueries();
    impl_->AttachConversions();
    impl_->AttachTasks();
    impl_->AttachEvents();
    impl_->AttachDiagnostics();
    server.SetPrivilegeCheck([](const Kitra::Http::Session& session, const std::string& privilege) {
        return HasPrivilege(session.GetUserName(), privilege);
    });
    server.SetFaults(
        [](const Kitra::ManagedMethod&) { return Ref<Kitra::MethodFault>(new Dovra::Fault::NotAuthenticated()); },
        [](const Kitra::ManagedMethod&, const std::string& privilege) {
            Ref<Dovra::Fault::NoPermission> fault(new Dovra::Fault::NoPermission());
            fault->SetPrivilegeId(privilege);
            return Ref<Kitra::MethodFault>(fault.Get());
        });
}

}  // namespace MorphelServer
