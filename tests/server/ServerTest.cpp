// The reference service over HTTP on loopback: the typical request of a conversion client, sessions and
// privileges, faults, and what it reads of the machine.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

#include <set>

#include <gtest/gtest.h>

#include <dovra/fault/types.h>
#include <dovra/types.h>
#include <kitra/Http.h>
#include <kitra/Kitra.h>
#include <kitra/fault/types.h>
#include <morphel-server/Machine.h>
#include <morphel-server/Certificates.h>
#include <morphel-server/Service.h>
#include <morphel/event/types.h>
#include <morphel/fault/types.h>
#include <morphel/info/types.h>
#include <morphel/params/types.h>
#include <morphel/propertyInfo/types.h>
#include <morphel/server/conversion/types.h>
#include <morphel/task/types.h>
#include <morphel/types.h>

#include "Support.h"

namespace {

using Fundix::Ref;
using MorphelServer::Service;

class ServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        MorphelServer::ServiceOptions options;
        // The lowest cost keeps logins quick; the default cost is the demo account's.
        options.accounts = {MorphelServer::MakeAccount("demo", "demo", std::vector<std::string>{"*"}, 1),
                            MorphelServer::MakeAccount("ann", "a:b", std::nullopt, 1),
                            MorphelServer::MakeAccount("eve", "e", std::vector<std::string>{"Task.Update"}, 1)};
        options.conversionTime = std::chrono::milliseconds(400);
        options.state = state_ = MorphelServer::NewMemoryState();
        service_ = std::make_unique<Service>(options);
        Kitra::Http::ServerOptions serverOptions;
        serverOptions.versions = Service::Versions();
        server_ = std::make_unique<Kitra::Http::Server>(serverOptions);
        service_->Attach(*server_);
        server_->Start();
    }
    void TearDown() override {
        server_->Stop();
        server_.reset();
        service_.reset();
    }

    struct Client {
        Ref<Kitra::Http::StubAdapter> adapter;
        Ref<Morphel::SessionManagerStub> sessions;
        Ref<Morphel::QueryManagerStub> queries;
        Ref<Morphel::Server::Conversion::ConversionManagerStub> conversions;
        Ref<Morphel::Event::EventManagerStub> events;
        template <class Stub>
        Ref<Stub> Make(const Kitra::MoRef* ref) const {
            return new Stub(ref->GetId(), adapter.Get(), nullptr);
        }
    };

    Client Connect(const char* version = "morphel.version.version4") {
        Client c;
        c.adapter = new Kitra::Http::StubAdapter(server_->GetUrl(), version);
        Ref<Morphel::ServiceInstanceStub> root(new Morphel::ServiceInstanceStub("ServiceInstance", c.adapter.Get(), nullptr));
        Ref<Morphel::ServiceInstanceContent> content;
        root->RetrieveContent(content);
        c.sessions = c.Make<Morphel::SessionManagerStub>(content->GetSessionManager());
        c.queries = c.Make<Morphel::QueryManagerStub>(content->GetQueryManager());
        c.events = c.Make<Morphel::Event::EventManagerStub>(content->GetEventManager());
        if (content->GetConversionManager() != nullptr)
            c.conversions = c.Make<Morphel::Server::Conversion::ConversionManagerStub>(content->GetConversionManager());
        return c;
    }
    static Ref<Morphel::UserSession> Login(Client& c, const std::string& user, const std::string& password) {
        Ref<Morphel::UserSession> s;
        c.sessions->Login(user, password, Fundix::Optional<std::string>(), s);
        return s;
    }

    // Clones one disk: `diskId` with the volume `volumeId`, into a hosted machine.
    static Ref<Morphel::Params::ConversionParams> Params(const std::string& diskId, const std::string& volumeId) {
        using namespace Morphel::Params;
        Ref<TargetVmSpec> target(new TargetVmSpec());
        target->SetName("copy");
        target->SetLocation(Ref<TargetVmSpec::HostedVmLocation>(new TargetVmSpec::HostedVmLocation("/vms", {}, {}, {})).Get());
        Ref<StorageParams::VolumeCloningParams> volume(new StorageParams::VolumeCloningParams());
        volume->SetSourceVolumeId(volumeId);
        Ref<Kitra::DataArray<StorageParams::VolumeCloningParams>> volumes(new Kitra::DataArray<StorageParams::VolumeCloningParams>());
        volumes->Append(volume.Get());
        Ref<StorageParams::TargetDiskParams> disk(new StorageParams::TargetDiskParams());
        disk->SetSourceDiskId(diskId);
        disk->SetVolumesToClone(volumes.Get());
        Ref<Kitra::DataArray<StorageParams::TargetDiskParams>> disks(new Kitra::DataArray<StorageParams::TargetDiskParams>());
        disks->Append(disk.Get());
        Ref<StorageParams> storage(new StorageParams());
        storage->SetTargetDiskParams(disks.Get());
        Ref<CloningParams> cloning(new CloningParams());
        cloning->SetTarget(target.Get());
        cloning->SetStorageParams(storage.Get());
        Ref<ConversionParams> params(new ConversionParams());
        params->SetCloningParams(cloning.Get());
        return params;
    }

    Ref<Morphel::Server::Conversion::ConversionJobSpec> JobSpec(const std::string& name, Morphel::Params::ConversionParams* params) {
        Ref<Morphel::Server::Conversion::ConversionJobSpec> spec(new Morphel::Server::Conversion::ConversionJobSpec());
        spec->SetName(name);
        spec->SetSource(ThisMachine().Get());
        spec->SetConversionParams(params);
        return spec;
    }

    std::shared_ptr<MorphelServer::State> state_;
    std::unique_ptr<Service> service_;
    std::unique_ptr<Kitra::Http::Server> server_;
};

// The wire name of the method that `call` reports as not implemented, or empty (and a failure).
template <class F>
std::string NotImplemented(F&& call) {
    auto fault = ExpectFault<Kitra::Fault::NotImplemented>(call);
    return fault != nullptr ? fault->GetMethod() : std::string();
}

TEST_F(ServerTest, TypicalRequest) {
    Client c = Connect();
    Ref<Morphel::Info::ComputerHardwareInfo> hardware;
    ExpectFault<Dovra::Fault::NotAuthenticated>([&] { c.queries->QueryComputerInfo(ThisMachine().Get(), hardware); });
    ExpectFault<Dovra::Fault::InvalidLogin>([&] { Login(c, "demo", "wrong"); });
    EXPECT_EQ(Login(c, "demo", "demo")->GetUserName(), "demo");

    c.queries->QueryComputerInfo(ThisMachine().Get(), hardware);
    ASSERT_NE(hardware->GetBasicHardware(), nullptr);
    EXPECT_GE(hardware->GetBasicHardware()->GetNumCPUs().GetValue(), 1);
    ASSERT_NE(hardware->GetStorage(), nullptr);
    auto* volumes = hardware->GetStorage()->GetVolume();
    auto* disks = hardware->GetStorage()->GetDisk();
    // A disk and a volume on it when the machine has them (a container may mount no block device).
    std::string diskId = disks != nullptr && disks->GetLength() > 0 ? disks->Get(0)->GetDiskId() : "none";
    std::string volumeId = "none";
    for (size_t i = 0; volumes != nullptr && i < volumes->GetLength(); ++i) {
        auto* ids = volumes->Get(i)->GetDiskId();
        if (ids != nullptr && ids->GetLength() > 0 && ids->Get(0) == diskId) volumeId = volumes->Get(i)->GetVolumeId();
    }

    // Parameters that cannot work: each arrives as a note at its property.
    Ref<Morphel::Params::ConversionParams> bad = Params("no-such-disk", "/no/such/volume");
    Ref<Morphel::Params::BasicHardwareParams> cpus(new Morphel::Params::BasicHardwareParams());
    cpus->SetNumCPUs(hardware->GetBasicHardware()->GetNumCPUs().GetValue() + 1);
    bad->GetCloningParams()->SetBasicHardwareParams(cpus.Get());
    auto fault = ExpectFault<Morphel::Fault::PropertyInfoFault>(
        [&] { c.queries->ValidateParams(ThisMachine().Get(), nullptr, bad.Get()); });
    ASSERT_NE(fault, nullptr);
    auto* notes = fault->GetInfo();
    ASSERT_EQ(notes->GetLength(), 3u);
    EXPECT_EQ(std::string(notes->Get(0)->GetProperty()), "cloningParams.storageParams.targetDiskParams[0].sourceDiskId");
    EXPECT_EQ(notes->Get(0)->GetSeverityLevel(), "error");
    EXPECT_EQ(std::string(notes->Get(1)->GetProperty()),
              "cloningParams.storageParams.targetDiskParams[0].volumesToClone[0].sourceVolumeId");
    auto* mismatch = dynamic_cast<Morphel::PropertyInfo::NumCpuMismatch*>(notes->Get(2));
    ASSERT_NE(mismatch, nullptr);
    EXPECT_EQ(mismatch->GetNumCPUInSource(), hardware->GetBasicHardware()->GetNumCPUs().GetValue());
    Ref<Morphel::Params::ConversionParams> none(new Morphel::Params::ConversionParams());
    fault = ExpectFault<Morphel::Fault::PropertyInfoFault>(
        [&] { c.queries->ValidateParams(ThisMachine().Get(), nullptr, none.Get()); });
    ASSERT_EQ(fault->GetInfo()->GetLength(), 1u);
    EXPECT_EQ(std::string(fault->GetInfo()->Get(0)->GetProperty()), "cloningParams");
    if (volumeId != "none") {
        Ref<Morphel::Params::ConversionParams> good = Params(diskId, volumeId);
        c.queries->ValidateParams(ThisMachine().Get(), nullptr, good.Get());
        good->GetCloningParams()->GetStorageParams()->GetTargetDiskParams()->Get(0)->GetVolumesToClone()->Get(0)->SetNewCapacityInBytes(0);
        fault = ExpectFault<Morphel::Fault::PropertyInfoFault>(
            [&] { c.queries->ValidateParams(ThisMachine().Get(), nullptr, good.Get()); });
        EXPECT_NE(dynamic_cast<Morphel::PropertyInfo::InsufficientSpaceError*>(fault->GetInfo()->Get(0)), nullptr);
    }

    // The job and its task, followed to the end.
    Ref<Morphel::Server::Conversion::ConversionJobInfo> job;
    c.conversions->CreateJob(JobSpec("first", Params(diskId, volumeId).Get()).Get(), nullptr, job);
    EXPECT_EQ(job->GetOwner(), "demo");
    ASSERT_NE(job->GetActiveTask(), nullptr);
    auto task = c.Make<Morphel::Task::TaskStub>(job->GetActiveTask());
    Ref<Morphel::Task::TaskInfo> info;
    int lastProgress = -1;
    for (int i = 0; i < 300; ++i) {
        task->GetInfo(info);
        EXPECT_GE(info->GetProgress().GetValue(), lastProgress);
        lastProgress = info->GetProgress().GetValue();
        if (info->GetState() == Morphel::Task::TaskInfo::State::success) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_EQ(info->GetState(), Morphel::Task::TaskInfo::State::success);
    EXPECT_EQ(info->GetProgress().GetValue(), 100);
    EXPECT_TRUE(info->GetCompleteTime().IsSet());
    auto jobStub = c.Make<Morphel::Server::Conversion::ConversionJobStub>(job->GetJob());
    Ref<Morphel::Server::Conversion::ConversionJobInfo> after;
    jobStub->GetInfo(after);
    EXPECT_EQ(after->GetActiveTask(), nullptr);

    // The task's events, paged through a collector: forwards in twos, then back.
    Ref<Morphel::Event::EventFilterSpec> filter(new Morphel::Event::EventFilterSpec());
    filter->SetEventChainId(info->GetEventChainId());
    Ref<Kitra::MoRef> ref;
    c.events->CreateCollector(filter.Get(), ref);
    auto collector = c.Make<Morphel::Event::EventHistoryCollectorStub>(ref.Get());
    std::vector<std::string> seen;
    std::vector<int32_t> keys;
    for (int pages = 0; pages < 100; ++pages) {  // a collector that never advances ends here too
        Ref<Kitra::DataArray<Morphel::Event::Event>> page;
        collector->ReadNext(2, page);
        if (page == nullptr || page->GetLength() == 0) break;
        EXPECT_LE(page->GetLength(), 2u);
        for (size_t i = 0; i < page->GetLength(); ++i) {
            EXPECT_EQ(page->Get(i)->GetChainId(), info->GetEventChainId());
            seen.push_back(page->Get(i)->_GetType()->GetName());
            keys.push_back(page->Get(i)->GetKey());
        }
    }
    ASSERT_GE(seen.size(), 4u);
    EXPECT_EQ(seen.front(), "morphel.event.GeneralEvent");
    EXPECT_EQ(seen.back(), "morphel.event.TaskEvent");
    EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
    Ref<Kitra::DataArray<Morphel::Event::Event>> back;
    collector->ReadPrev(2, back);
    ASSERT_EQ(back->GetLength(), 2u);
    EXPECT_EQ(back->Get(0)->GetKey(), keys.back());  // nearest first
    collector->Reset();
    collector->Remove();
    ExpectFault<Kitra::Fault::ManagedObjectNotFound>([&] { collector->Reset(); });

    ExpectFault<Dovra::Fault::DuplicateName>(
        [&] { c.conversions->CreateJob(JobSpec("first", Params(diskId, volumeId).Get()).Get(), nullptr, job); });
    c.sessions->Logout();
    ExpectFault<Dovra::Fault::NotAuthenticated>([&] { c.sessions->Logout(); });
}

TEST_F(ServerTest, SessionsPrivilegesAndLocales) {
    Client demo = Connect();
    Client ann = Connect("morphel.version.version1");  // an older client: no conversion manager in its content
    EXPECT_EQ(ann.conversions, nullptr);
    Login(demo, "demo", "demo");
    Ref<Morphel::UserSession> annSession = Login(ann, "ann", "a:b");  // passwords may hold colons

    Ref<Kitra::Array<std::string>> keys(new Kitra::Array<std::string>());
    keys->Append(annSession->GetKey());
    auto denied = ExpectFault<Dovra::Fault::NoPermission>([&] { ann.sessions->Terminate(keys.Get()); });
    ASSERT_NE(denied, nullptr);
    EXPECT_EQ(denied->GetPrivilegeId(), "Sessions.TerminateSession");

    ExpectFault<Dovra::Fault::InvalidLocale>([&] { ann.sessions->SetLocale("xx"); });
    ann.sessions->SetLocale("de");
    Ref<Morphel::UserSession> current;
    ann.sessions->GetCurrentSession(current);
    EXPECT_EQ(current->GetLocale(), "de");

    // Every kind of event recorded so far travels, to the older client too.
    ExpectFault<Dovra::Fault::InvalidLogin>([&] { Login(demo, "ann", "wrong"); });
    Ref<Morphel::Event::EventFilterSpec> all(new Morphel::Event::EventFilterSpec());
    Ref<Kitra::DataArray<Morphel::Event::Event>> history;
    ann.events->QueryEvent(all.Get(), history);
    std::vector<std::string> kinds;
    for (size_t i = 0; i < history->GetLength(); ++i) kinds.push_back(history->Get(i)->_GetType()->GetName());
    EXPECT_EQ(kinds, (std::vector<std::string>{"morphel.event.ServerStartedEvent", "morphel.event.UserLoginEvent",
                                               "morphel.event.UserLoginEvent"}));
    // Failed logins only for an account that may end others' sessions.
    demo.events->QueryEvent(all.Get(), history);
    ASSERT_EQ(history->GetLength(), 4u);
    EXPECT_STREQ(history->Get(3)->_GetType()->GetName(), "morphel.event.UserFailedAuthenticationEvent");
    // So in log bundles; a bundle that holds them is unknown to the others.
    Ref<Morphel::DiagnosticManagerStub> annBundles(
        new Morphel::DiagnosticManagerStub("DiagnosticManager", ann.adapter.Get(), nullptr));
    Ref<Morphel::DiagnosticManagerStub> demoBundles(
        new Morphel::DiagnosticManagerStub("DiagnosticManager", demo.adapter.Get(), nullptr));
    Ref<Morphel::DiagnosticManager::TaskLogBundleInfo> annBundle, demoBundle;
    annBundles->GenerateTaskLogBundle(nullptr, annBundle);
    demoBundles->GenerateTaskLogBundle(nullptr, demoBundle);
    EXPECT_EQ(ReadZip(ReadBundle(*annBundles, annBundle->GetKey(), 1 << 20)).find("Cannot log in ann"),
              std::string::npos);
    EXPECT_NE(ReadZip(ReadBundle(*demoBundles, demoBundle->GetKey(), 1 << 20)).find("Cannot log in ann"),
              std::string::npos);
    ExpectFault<Dovra::Fault::NotFound>(
        [&] { annBundles->RetrieveTaskLogBundle(demoBundle->GetKey(), 0, 10); });
    ExpectFault<Dovra::Fault::NotFound>([&] { annBundles->DeleteTaskLogBundle(demoBundle->GetKey()); });

    // Privileges come from each account: eve holds Task.Update alone, ann the default set without it.
    Client eve = Connect();
    Login(eve, "eve", "e");
    Ref<Morphel::Task::TaskManagerStub> eveTasks(new Morphel::Task::TaskManagerStub("TaskManager", eve.adapter.Get(), nullptr));
    Ref<Morphel::Task::TaskManagerStub> annTasks(new Morphel::Task::TaskManagerStub("TaskManager", ann.adapter.Get(), nullptr));
    eveTasks->SetMaxTask(9);
    ExpectFault<Dovra::Fault::NoPermission>([&] { annTasks->SetMaxTask(9); });
    ExpectFault<Dovra::Fault::NoPermission>([&] { eve.sessions->Terminate(keys.Get()); });

    // A stranger's long name is kept cut, on a character boundary.
    std::string longName = std::string(255, 'x') + "\xC3\xA9" + std::string((4 << 20) - 300, 'y');  // near the codec's limit
    ExpectFault<Dovra::Fault::InvalidLogin>([&] { Login(demo, longName, "pw"); });
    demo.events->QueryEvent(all.Get(), history);
    const Morphel::Event::Event* last = history->Get(history->GetLength() - 1);
    ASSERT_EQ(std::string(last->_GetType()->GetName()), "morphel.event.UserFailedAuthenticationEvent");
    EXPECT_EQ(last->GetUserName(), std::string(255, 'x') + "...");

    demo.sessions->Terminate(keys.Get());
    ExpectFault<Dovra::Fault::NotAuthenticated>([&] { ann.sessions->GetCurrentSession(current); });
    ExpectFault<Dovra::Fault::NotFound>([&] { demo.sessions->Terminate(keys.Get()); });
}

TEST_F(ServerTest, FaultsForWhatTheServiceCannotDo) {
    Client c = Connect();
    Login(c, "demo", "demo");
    // An operation the service does not implement names itself.
    Ref<Morphel::Info::ComputerOsInfo> os;
    auto missing = ExpectFault<Kitra::Fault::NotImplemented>([&] { c.queries->QueryOsInfo(ThisMachine().Get(), nullptr, os); });
    ASSERT_NE(missing, nullptr);
    EXPECT_EQ(missing->GetMethod(), "morphel.QueryManager.queryOsInfo");
    // Another machine cannot be described.
    Ref<Morphel::ComputerSpec> other(new Morphel::ComputerSpec(Ref<Morphel::ComputerSpec::LiveComputerLocation>(
        new Morphel::ComputerSpec::LiveComputerLocation("elsewhere.invalid", {}, {}, {}, "linux", {}, {})).Get()));
    Ref<Morphel::Info::ComputerHardwareInfo> hardware;
    auto fault = ExpectFault<Morphel::Fault::NoHostConnection>([&] { c.queries->QueryComputerInfo(other.Get(), hardware); });
    EXPECT_EQ(fault->GetHostName(), "elsewhere.invalid");
    Ref<Morphel::Server::Conversion::ConversionJobInfo> job;
    ExpectFault<Dovra::Fault::InvalidName>(
        [&] { c.conversions->CreateJob(JobSpec("", Params("a", "b").Get()).Get(), nullptr, job); });

    Ref<Morphel::Info::SupportedTargets> targets;
    c.queries->GetSupportedTargets(ThisMachine().Get(), nullptr, targets);
    EXPECT_GE(targets->GetSupportedTargets()->GetLength(), 1u);
}

TEST_F(ServerTest, JobsAndTasksServedThroughTheirInterfacesAndTheState) {
    Client c = Connect();
    Login(c, "demo", "demo");
    Ref<Morphel::Server::Conversion::ConversionJobInfo> created;
    c.conversions->CreateJob(JobSpec("second", Params("a", "b").Get()).Get(), nullptr, created);
    const std::string jobId = created->GetJob()->GetId(), taskId = created->GetActiveTask()->GetId();

    // What the managers keep is in the state they were given.
    state_->Transact([&](MorphelServer::StateTransaction& tx) {
        auto job = tx.FindJob(jobId);
        ASSERT_TRUE(job.has_value());
        EXPECT_EQ(job->spec->GetName(), "second");
        EXPECT_EQ(tx.FindJobByName("second")->id, jobId);
        EXPECT_EQ(tx.FindTask(taskId)->jobId, jobId);
        EXPECT_EQ(tx.RecentTasks(), std::vector<std::string>{taskId});
        Ref<Morphel::Event::EventFilterSpec> byJob(new Morphel::Event::EventFilterSpec());
        byJob->SetJob(created->GetJob());
        auto events = tx.SelectEvents(byJob.Get());
        ASSERT_EQ(events.size(), 2u);  // created, queued
        EXPECT_EQ(events[0]->_GetType()->GetName(), std::string("morphel.event.GeneralEvent"));
    });

    // The job answers as a conversion job, as a job and as a managed entity.
    auto conversionJob = c.Make<Morphel::Server::Conversion::ConversionJobStub>(created->GetJob());
    auto job = c.Make<Morphel::Server::Job::JobStub>(created->GetJob());
    Ref<Morphel::Server::Job::JobInfo> asJob;
    job->GetInfo(asJob);
    EXPECT_EQ(asJob->GetKey(), jobId);
    EXPECT_NE(dynamic_cast<Morphel::Server::Conversion::ConversionJobInfo*>(asJob.Get()), nullptr);
    Ref<Morphel::Server::Job::JobSpec> spec;
    job->GetSpec(spec);
    EXPECT_EQ(spec->GetName(), "second");
    EXPECT_EQ(conversionJob->GetName(), "second");
    ExpectFault<Dovra::Fault::InvalidState>([&] { c.conversions->DestroyJob(created->GetJob(), {}); });

    // The managers describe what starts tasks, task states and event kinds; the root folder holds every job.
    auto task = c.Make<Morphel::Task::TaskStub>(created->GetActiveTask());
    Ref<Morphel::Task::TaskManagerStub> tasks(new Morphel::Task::TaskManagerStub("TaskManager", c.adapter.Get(), nullptr));
    Ref<Morphel::Task::TaskDescription> description;
    tasks->GetDescription(description);
    EXPECT_EQ(description->GetState()->GetLength(), 4u);
    Ref<Morphel::Task::TaskInfo> running;
    task->GetInfo(running);
    EXPECT_EQ(description->GetMethodInfo()->Get(0)->GetKey(), running->GetDescriptionId());
    Ref<Morphel::Event::EventDescription> kinds;
    c.events->GetDescription(kinds);
    std::set<std::string> keys;
    for (size_t i = 0; i < kinds->GetEventInfo()->GetLength(); ++i)
        keys.insert(kinds->GetEventInfo()->Get(i)->GetKey());
    EXPECT_EQ(keys.count("morphel.event.Event") + keys.count("morphel.event.DiskClonedEvent") +
                  keys.count("morphel.event.TaskEvent"),
              3u);
    EXPECT_EQ(keys.count("morphel.task.TaskInfo"), 0u);
    EXPECT_EQ(kinds->GetType()->GetLength(), 3u);
    Ref<Kitra::MoRef> root;
    c.conversions->GetRootFolder(root);
    auto folder = c.Make<Morphel::Server::Conversion::ConversionFolderStub>(root.Get());
    Ref<Kitra::DataArray<Kitra::MoRef>> jobs;
    folder->GetJob(jobs);
    ASSERT_EQ(jobs->GetLength(), 1u);
    EXPECT_EQ(jobs->Get(0)->GetId(), jobId);
    EXPECT_EQ(folder->GetName(), MorphelServer::kConversionFolderName);
    EXPECT_EQ(folder->GetOverallStatus(), Morphel::Server::ManagedEntity::Status::gray);  // its run goes on
    ExpectFault<Dovra::Fault::InvalidName>([&] { folder->Rename("elsewhere"); });

    // The task manager's setting, checked and kept.
    ExpectFault<Kitra::Fault::InvalidArgument>([&] { tasks->SetMaxTask(0); });
    tasks->SetMaxTask(7);
    EXPECT_EQ(tasks->GetMaxTask(), 7);
    EXPECT_EQ(tasks->GetMaxCollector(), 32);
    Ref<Morphel::Task::TaskInfo> info;
    Ref<Kitra::MoRef> unknown(new Kitra::MoRef("morphel.task.Task", "Task-999"));
    ExpectFault<Dovra::Fault::NotFound>([&] { tasks->GetTaskInfo(unknown.Get(), info); });

    // Finished, the job can go; its object goes with it.
    for (int i = 0; i < 300; ++i) {
        tasks->GetTaskInfo(created->GetActiveTask(), info);
        if (info->GetState() == Morphel::Task::TaskInfo::State::success) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_EQ(info->GetState(), Morphel::Task::TaskInfo::State::success);
    c.conversions->DestroyJob(created->GetJob(), {});
    ExpectFault<Kitra::Fault::ManagedObjectNotFound>([&] { job->GetInfo(asJob); });
    Ref<Morphel::Server::Conversion::ConversionJobInfo> gone;
    ExpectFault<Dovra::Fault::NotFound>([&] { c.conversions->GetJobInfo(created->GetJob(), gone); });
    ExpectFault<Dovra::Fault::NotFound>([&] { c.conversions->DestroyJob(created->GetJob(), {}); });

    // A conversion still running when the server and the service go is stopped with them.
    c.conversions->CreateJob(JobSpec("left running", Params("a", "b").Get()).Get(), nullptr, created);
}

TEST_F(ServerTest, CollectorsAreCountedAndKeepTheirFilter) {
    Client c = Connect();
    Login(c, "demo", "demo");
    EXPECT_EQ(c.events->GetMaxCollector(), 32);
    Ref<Morphel::Event::EventFilterSpec> filter(new Morphel::Event::EventFilterSpec());
    filter->SetEventChainId(1);
    std::vector<Ref<Kitra::MoRef>> refs;
    for (int i = 0; i < 32; ++i) {
        Ref<Kitra::MoRef> ref;
        c.events->CreateCollector(filter.Get(), ref);
        refs.push_back(ref);
    }
    Ref<Kitra::MoRef> extra;
    ExpectFault<Dovra::Fault::InvalidState>([&] { c.events->CreateCollector(filter.Get(), extra); });
    auto first = c.Make<Morphel::Event::EventHistoryCollectorStub>(refs.front().Get());
    Ref<Kitra::Any> kept;
    first->GetFilter(kept);
    auto* keptFilter = dynamic_cast<Morphel::Event::EventFilterSpec*>(kept.Get());
    ASSERT_NE(keptFilter, nullptr);
    EXPECT_EQ(keptFilter->GetEventChainId().GetValue(), 1);
    Ref<Kitra::DataArray<Morphel::Event::Event>> page;
    first->ReadNext(10, page);
    ASSERT_EQ(page->GetLength(), 1u);  // the server's start
    ExpectFault<Kitra::Fault::InvalidArgument>([&] { first->SetLatestPageSize(0); });
    first->Remove();
    c.events->CreateCollector(filter.Get(), extra);  // a place is free again
    ExpectFault<Kitra::Fault::ManagedObjectNotFound>([&] { first->ReadNext(1, page); });

    // The places are each session's: another session has its own, and cannot reach these.
    Client other = Connect();
    Login(other, "demo", "demo");
    Ref<Kitra::MoRef> own;
    other.events->CreateCollector(filter.Get(), own);
    auto stranger = other.Make<Morphel::Event::EventHistoryCollectorStub>(refs.back().Get());
    ExpectFault<Kitra::Fault::ManagedObjectNotFound>([&] { stranger->ReadNext(1, page); });
    ExpectFault<Dovra::Fault::NotFound>([&] { stranger->Remove(); });
    // A session's collectors end with it.
    c.sessions->Logout();
    Login(c, "demo", "demo");
    auto last = c.Make<Morphel::Event::EventHistoryCollectorStub>(refs.back().Get());
    ExpectFault<Kitra::Fault::ManagedObjectNotFound>([&] { last->ReadNext(1, page); });
    state_->Transact([&](MorphelServer::StateTransaction& tx) { EXPECT_EQ(tx.CollectorIds().size(), 1u); });
}

TEST_F(ServerTest, CollectorViewsOverTheWholeHistory) {
    Client c = Connect();
    for (int i = 0; i < 3; ++i) {
        Login(c, "demo", "demo");
        c.sessions->Logout();
    }
    Login(c, "demo", "demo");  // 1 start + 3 x (login, logout) + 1 login = 8 events
    Ref<Kitra::MoRef> ref;
    c.events->CreateCollector(Ref<Morphel::Event::EventFilterSpec>(new Morphel::Event::EventFilterSpec()).Get(), ref);
    auto collector = c.Make<Morphel::Event::EventHistoryCollectorStub>(ref.Get());
    auto keys = [](Kitra::DataArray<Morphel::Event::Event>* page) {
        std::vector<int32_t> out;
        for (size_t i = 0; page != nullptr && i < page->GetLength(); ++i) out.push_back(page->Get(i)->GetKey());
        return out;
    };
    Ref<Kitra::DataArray<Morphel::Event::Event>> page;
    collector->SetLatestPageSize(3);
    collector->GetLatestPage(page);
    EXPECT_EQ(keys(page.Get()), (std::vector<int32_t>{6, 7, 8}));
    collector->ReadPrev(5, page);  // nothing before the start
    EXPECT_TRUE(keys(page.Get()).empty());
    collector->Reset();  // just before the latest page
    collector->ReadNext(10, page);
    EXPECT_EQ(keys(page.Get()), (std::vector<int32_t>{6, 7, 8}));
    collector->ReadPrev(4, page);
    EXPECT_EQ(keys(page.Get()), (std::vector<int32_t>{8, 7, 6, 5}));
    collector->Rewind();
    collector->ReadNext(2, page);
    EXPECT_EQ(keys(page.Get()), (std::vector<int32_t>{1, 2}));
    ExpectFault<Kitra::Fault::InvalidArgument>([&] { collector->ReadNext(0, page); });
}

// The program: serves until SIGTERM, then stops cleanly.
TEST(ServerProgram, ServesUntilTerminated) {
    Program program({"--listen", "127.0.0.1:0", "--user", "ann:pw", "--memory"});
    ASSERT_FALSE(program.Url().empty());
    {
        Ref<Kitra::Http::StubAdapter> adapter(new Kitra::Http::StubAdapter(program.Url(), "morphel.version.version3"));
        Ref<Morphel::SessionManagerStub> sessions(new Morphel::SessionManagerStub("SessionManager", adapter.Get(), nullptr));
        Ref<Morphel::UserSession> s;
        sessions->Login("ann", "pw", Fundix::Optional<std::string>(), s);
        ExpectFault<Dovra::Fault::InvalidLogin>([&] { sessions->Login("demo", "demo", Fundix::Optional<std::string>(), s); });
    }
    std::string line = program.NextLine();  // the request's log line
    EXPECT_NE(line.find("morphel.SessionManager.login 200"), std::string::npos) << line;
    int status = program.Kill(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(ServerAccounts, ParsedFromFilesWithHashesAndPrivileges) {
    MorphelServer::Credentials given;
    EXPECT_TRUE(MorphelServer::ParseCredentials("bob:p:q", given));
    EXPECT_EQ(given.password, "p:q");
    EXPECT_FALSE(MorphelServer::ParseCredentials(":pw", given));
    EXPECT_FALSE(MorphelServer::ParseCredentials("nocolon", given));

    std::string hash = MorphelServer::HashPassword("one", 1);
    EXPECT_EQ(hash.rfind("$y$", 0), 0u) << hash;
    EXPECT_NE(hash, MorphelServer::HashPassword("one", 1));  // salted
    EXPECT_TRUE(MorphelServer::CheckPassword("one", hash));
    EXPECT_FALSE(MorphelServer::CheckPassword("one ", hash));
    EXPECT_FALSE(MorphelServer::CheckPassword("one", "not a hash"));

    std::string path = testing::TempDir() + "morphel-accounts.txt";
    std::ofstream(path) << "# accounts\n\nann:" << hash << "\r\nbob:" << hash
                        << ":Task.Update,Global.CancelTask\nroot:" << hash << ":*\n";
    auto accounts = MorphelServer::ReadAccounts(path);
    ASSERT_EQ(accounts.size(), 3u);
    EXPECT_EQ(accounts[0].passwordHash, hash);
    EXPECT_TRUE(accounts[0].Holds("Global.CancelTask"));
    EXPECT_FALSE(accounts[0].Holds("Task.Update"));
    EXPECT_TRUE(accounts[1].Holds("Task.Update"));
    EXPECT_FALSE(accounts[1].Holds("ScheduledTask.Create"));
    EXPECT_TRUE(accounts[2].Holds("Sessions.TerminateSession"));

    // Each error names the file and line, and a password in plain text says how to hash it.
    auto error = [&](const std::string& text) {
        std::ofstream(path) << "ann:" << hash << "\n" << text << "\n";
        try {
            MorphelServer::ReadAccounts(path);
        } catch (const std::runtime_error& e) {
            EXPECT_NE(std::string(e.what()).find(path + ":2: "), std::string::npos) << e.what();
            return std::string(e.what());
        }
        ADD_FAILURE() << text;
        return std::string();
    };
    EXPECT_NE(error("bob:secret").find("morphel-server --hash-password bob"), std::string::npos);
    EXPECT_NE(error("bob:$1$abc$def").find("not a password hash"), std::string::npos);
    EXPECT_NE(error("broken").find("expected name:hash"), std::string::npos);
    EXPECT_NE(error("bob:" + hash + ":Task.Updat").find("unknown privilege \"Task.Updat\""), std::string::npos);
    EXPECT_NE(error("bob:" + hash + ":*,Task.Update").find("stands alone"), std::string::npos);
    std::remove(path.c_str());
    EXPECT_THROW(MorphelServer::ReadAccounts(path), std::runtime_error);
}

TEST(ServerAccounts, AuthenticateByHash) {
    MorphelServer::AccountBook book({MorphelServer::MakeAccount("ann", "right", std::nullopt, 1),
                                     MorphelServer::MakeAccount("bob", "other", std::nullopt, 1)});
    EXPECT_EQ(book.Authenticate("ann", "wrong"), nullptr);
    EXPECT_EQ(book.Authenticate("nobody", "right"), nullptr);
    EXPECT_EQ(book.Authenticate("bob", "right"), nullptr);
    for (int i = 0; i < 2; ++i) {  // the second time from what the first remembered
        const MorphelServer::Account* ann = book.Authenticate("ann", "right");
        ASSERT_NE(ann, nullptr);
        EXPECT_EQ(ann->name, "ann");
    }
    EXPECT_EQ(book.Authenticate("ann", "righ"), nullptr);
    EXPECT_EQ(book.Authenticate("bob", "right"), nullptr);
    EXPECT_FALSE(book.Holds("nobody", "Global.CancelTask"));
    EXPECT_TRUE(book.Holds("ann", "Global.CancelTask"));
}

TEST(ServerMachine, VolumesLieOnListedDisks) {
    MorphelServer::Machine m = MorphelServer::ReadMachine();
    EXPECT_FALSE(m.hostname.empty());
    EXPECT_GE(m.numCpus, m.coresPerSocket);
    EXPECT_GT(m.memoryBytes, 0);
    for (const auto& v : m.volumes) {
        EXPECT_LE(v.spaceUsedInBytes, v.capacityInBytes) << v.id;
        for (const auto& d : v.diskIds) EXPECT_NE(m.FindDisk(d), nullptr) << v.id << " on " << d;
    }
}

// Over HTTPS the content names the certificate for clients to pin; a client that expects another one gets
// the interface's own fault with what was presented.
TEST(ServerTls, ContentCarriesTheThumbprintAndARejectionMapsToTheInterfacesFault) {
    Service service;
    Kitra::Http::ServerOptions options;
    options.versions = Service::Versions();
    options.tls = Kitra::Http::Tls::CreateSelfSigned("morphel test", {"127.0.0.1"});
    Kitra::Http::Server server(options);
    service.Attach(server);
    server.Start();
    Kitra::Http::ClientOptions pinned;
    pinned.thumbprint = server.GetThumbprint(Kitra::Http::Tls::Digest::Sha256);
    Ref<Kitra::Http::StubAdapter> adapter(new Kitra::Http::StubAdapter(server.GetUrl(), "morphel.version.version4", pinned));
    Ref<Morphel::ServiceInstanceStub> root(new Morphel::ServiceInstanceStub("ServiceInstance", adapter.Get(), nullptr));
    Ref<Morphel::ServiceInstanceContent> content;
    root->RetrieveContent(content);
    auto* serverContent = dynamic_cast<Morphel::ServerInstanceContent*>(content.Get());
    ASSERT_NE(serverContent, nullptr);
    ASSERT_NE(serverContent->GetScheduledTaskManager(), nullptr);
    EXPECT_EQ(serverContent->GetScheduledTaskManager()->GetId(), MorphelServer::kScheduledTaskManagerId);
    ASSERT_NE(serverContent->GetPelorServerInfo(), nullptr);
    EXPECT_EQ(serverContent->GetPelorServerInfo()->GetServerThumbprint().GetValue(), server.GetThumbprint());
    EXPECT_EQ(serverContent->GetPelorServerInfo()->GetUrl(), server.GetUrl());

    Kitra::Http::ClientOptions other;
    other.thumbprint = Kitra::Http::Tls::Thumbprint(Kitra::Http::Tls::CreateSelfSigned("other", {}).certificatePem);
    Ref<Kitra::Http::StubAdapter> wrong(new Kitra::Http::StubAdapter(server.GetUrl(), "morphel.version.version4", other));
    root = new Morphel::ServiceInstanceStub("ServiceInstance", wrong.Get(), nullptr);
    try {
        root->RetrieveContent(content);
        ADD_FAILURE() << "accepted";
    } catch (const Kitra::Fault::CertificateRejected::Exception& e) {
        Ref<Morphel::Fault::SSLVerificationFault> fault =
            MorphelServer::ToVerificationFault(*static_cast<Kitra::Fault::CertificateRejected*>(e.GetFault()));
        EXPECT_EQ(fault->GetThumbprint(), server.GetThumbprint());
        EXPECT_TRUE(fault->IsSelfSigned());
        ASSERT_EQ(fault->GetCertificateChain()->GetLength(), 1u);
        std::vector<uint8_t> der = Kitra::Http::Tls::ToDer(options.tls.certificatePem);
        EXPECT_EQ(fault->GetCertificateChain()->Get(0)->GetData()->GetLength(), der.size());
        EXPECT_NE(fault->GetMsg().find("is not the expected"), std::string::npos) << fault->GetMsg();
    }
    server.Stop();
}

}  // namespace
