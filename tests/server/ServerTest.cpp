// The reference service over HTTP on loopback: the typical request of a conversion client, sessions and
// privileges, faults, and what it reads of the machine.
#include <fstream>
#include <set>

#include <dovra/types.h>
#include <morphel-server/Certificates.h>
#include <morphel-server/Machine.h>
#include <morphel/fault/types.h>
#include <morphel/info/types.h>
#include <morphel/propertyInfo/types.h>

#include "Support.h"

namespace {

using Fundix::Ref;
using MorphelServer::Service;

// The service with three accounts over a state the test can read, and its clients.
class ServerTest : public ::testing::Test {
protected:
    static MorphelServer::ServiceOptions Options(std::shared_ptr<MorphelServer::State> state) {
        MorphelServer::ServiceOptions options;
        // The lowest cost keeps logins quick; the default cost is the demo account's.
        options.accounts = {
            MorphelServer::MakeAccount("demo", "demo", std::vector<std::string>{"*"}, 1),
            MorphelServer::MakeAccount("ann", "a:b", std::nullopt, 1),
            MorphelServer::MakeAccount("eve", "e", std::vector<std::string>{"Task.Update"}, 1)};
        options.conversionTime = std::chrono::milliseconds(400);
        options.state = std::move(state);
        return options;
    }
    // Clones one disk: `diskId` with the volume `volumeId`, into a hosted machine.
    static Ref<Morphel::Params::ConversionParams> Params(const std::string& diskId,
                                                         const std::string& volumeId) {
        using namespace Morphel::Params;
        Ref<ConversionParams> params = JobSpecOfThisMachine("")->GetConversionParams();
        Ref<StorageParams::VolumeCloningParams> volume(
            new StorageParams::VolumeCloningParams(volumeId, {}, {}, {}));
        Ref<StorageParams::TargetDiskParams> disk(new StorageParams::TargetDiskParams());
        disk->SetSourceDiskId(diskId);
        disk->SetVolumesToClone(
            ArrayOf<Kitra::DataArray<StorageParams::VolumeCloningParams>>(volume.Get()).Get());
        Ref<StorageParams> storage(new StorageParams());
        storage->SetTargetDiskParams(
            ArrayOf<Kitra::DataArray<StorageParams::TargetDiskParams>>(disk.Get()).Get());
        params->GetCloningParams()->SetStorageParams(storage.Get());
        return params;
    }

    std::shared_ptr<MorphelServer::State> state_ = MorphelServer::NewMemoryState();
    Hosted hosted_{Options(state_)};
};

TEST_F(ServerTest, TypicalRequest) {
    Client c(hosted_.Url(), "");
    Ref<Morphel::Info::ComputerHardwareInfo> hardware;
    ExpectFault<Dovra::Fault::NotAuthenticated>(
        [&] { c.queries->QueryComputerInfo(ThisMachine().Get(), hardware); });
    EXPECT_EQ(c.Login("demo", "demo")->GetUserName(), "demo");

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
        if (ids != nullptr && ids->GetLength() > 0 && ids->Get(0) == diskId)
            volumeId = volumes->Get(i)->GetVolumeId();
    }
    // Parameters that cannot work: each arrives as a note at its property.
    auto validate = [&](Morphel::Params::ConversionParams* params) {
        auto fault = ExpectFault<Morphel::Fault::PropertyInfoFault>(
            [&] { c.queries->ValidateParams(ThisMachine().Get(), nullptr, params); });
        return Ref<std::remove_pointer_t<decltype(fault->GetInfo())>>(fault->GetInfo());
    };
    Ref<Morphel::Params::ConversionParams> bad = Params("no-such-disk", "/no/such/volume");
    Ref<Morphel::Params::BasicHardwareParams> cpus(new Morphel::Params::BasicHardwareParams());
    cpus->SetNumCPUs(hardware->GetBasicHardware()->GetNumCPUs().GetValue() + 1);
    bad->GetCloningParams()->SetBasicHardwareParams(cpus.Get());
    auto notes = validate(bad.Get());
    ASSERT_TRUE(notes != nullptr && notes->GetLength() == 3u);
    EXPECT_EQ(std::string(notes->Get(0)->GetProperty()),
              "cloningParams.storageParams.targetDiskParams[0].sourceDiskId");
    EXPECT_EQ(notes->Get(0)->GetSeverityLevel(), "error");
    EXPECT_EQ(std::string(notes->Get(1)->GetProperty()),
              "cloningParams.storageParams.targetDiskParams[0].volumesToClone[0].sourceVolumeId");
    auto* mismatch = dynamic_cast<Morphel::PropertyInfo::NumCpuMismatch*>(notes->Get(2));
    ASSERT_NE(mismatch, nullptr);
    EXPECT_EQ(mismatch->GetNumCPUInSource(), hardware->GetBasicHardware()->GetNumCPUs().GetValue());
    auto none =
        validate(Ref<Morphel::Params::ConversionParams>(new Morphel::Params::ConversionParams()).Get());
    EXPECT_EQ(none != nullptr ? std::string(none->Get(0)->GetProperty()) : "", "cloningParams");
    if (volumeId != "none") {
        Ref<Morphel::Params::ConversionParams> good = Params(diskId, volumeId);
        c.queries->ValidateParams(ThisMachine().Get(), nullptr, good.Get());
        auto* disk = good->GetCloningParams()->GetStorageParams()->GetTargetDiskParams()->Get(0);
        disk->GetVolumesToClone()->Get(0)->SetNewCapacityInBytes(0);
        auto space = validate(good.Get());
        EXPECT_TRUE(space && dynamic_cast<Morphel::PropertyInfo::InsufficientSpaceError*>(space->Get(0)));
    }
    // The job and its task, followed to the end, its progress never going back.
    auto job = c.CreateJob("first", nullptr,
                           [&](auto& spec) { spec.SetConversionParams(Params(diskId, volumeId).Get()); });
    EXPECT_EQ(job->GetOwner(), "demo");
    ASSERT_NE(job->GetActiveTask(), nullptr);
    auto task = c.Make<Morphel::Task::TaskStub>(job->GetActiveTask());
    Ref<Morphel::Task::TaskInfo> info;
    int lastProgress = -1;
    EXPECT_TRUE(Eventually([&] {
        task->GetInfo(info);
        EXPECT_GE(info->GetProgress().GetValue(),
                  std::exchange(lastProgress, info->GetProgress().GetValue()));
        return info->GetState() == Morphel::Task::TaskInfo::State::success;
    }));
    EXPECT_EQ(info->GetProgress().GetValue(), 100);
    EXPECT_TRUE(info->GetCompleteTime().IsSet());
    EXPECT_EQ(c.JobInfo(job->GetJob())->GetActiveTask(), nullptr);
    // The task's events through a collector of its chain.
    Ref<Morphel::Event::EventFilterSpec> filter(new Morphel::Event::EventFilterSpec());
    filter->SetEventChainId(info->GetEventChainId());
    Ref<Kitra::MoRef> ref;
    c.events->CreateCollector(filter.Get(), ref);
    auto collector = c.Make<Morphel::Event::EventHistoryCollectorStub>(ref.Get());
    EXPECT_TRUE(Out<Kitra::Any>([&](auto& r) { collector->GetFilter(r); })->_IsEqual(filter.Get(), false));
    Ref<Kitra::DataArray<Morphel::Event::Event>> page;
    collector->ReadNext(100, page);
    ASSERT_TRUE(page != nullptr && page->GetLength() >= 4u);
    EXPECT_STREQ(page->Get(0)->_GetType()->GetName(), "morphel.event.GeneralEvent");
    EXPECT_STREQ(page->Get(page->GetLength() - 1)->_GetType()->GetName(), "morphel.event.TaskEvent");
    for (size_t i = 0; i < page->GetLength(); ++i)
        EXPECT_EQ(page->Get(i)->GetChainId(), info->GetEventChainId());
    collector->Remove();
    ExpectFault<Kitra::Fault::ManagedObjectNotFound>([&] { collector->Reset(); });

    ExpectFault<Dovra::Fault::DuplicateName>([&] { c.CreateJob("first"); });
    // A session's collectors end with it.
    c.events->CreateCollector(filter.Get(), ref);
    c.sessions->Logout();
    ExpectFault<Dovra::Fault::NotAuthenticated>([&] { c.sessions->Logout(); });
    state_->Transact([&](MorphelServer::StateTransaction& tx) { EXPECT_TRUE(tx.CollectorIds().empty()); });
}

TEST_F(ServerTest, SessionsPrivilegesAndLocales) {
    Client demo(hosted_.Url()),
        ann(hosted_.Url(), "ann", "a:b", "morphel.version.version1");  // passwords may hold colons
    // An older client: no conversion manager in its content.
    EXPECT_EQ(Out<Morphel::ServiceInstanceContent>([&](auto& r) {
                  ann.Make<Morphel::ServiceInstanceStub>("ServiceInstance")->RetrieveContent(r);
              })->GetConversionManager(),
              nullptr);

    auto keys = ArrayOf<Kitra::Array<std::string>>(ann.session->GetKey());
    auto denied = ExpectFault<Dovra::Fault::NoPermission>([&] { ann.sessions->Terminate(keys.Get()); });
    EXPECT_EQ(denied->GetPrivilegeId(), "Sessions.TerminateSession");

    ExpectFault<Dovra::Fault::InvalidLocale>([&] { ann.sessions->SetLocale("xx"); });
    ann.sessions->SetLocale("de");
    Ref<Morphel::UserSession> current;
    EXPECT_EQ(Out<Morphel::UserSession>([&](auto& r) { ann.sessions->GetCurrentSession(r); })->GetLocale(),
              "de");
    // Every kind of event recorded so far travels, to the older client too.
    ExpectFault<Dovra::Fault::InvalidLogin>([&] { demo.Login("ann", "wrong"); });
    auto kinds = [](Client& c) {
        std::vector<std::string> kinds;
        for (auto history = c.Events(); kinds.size() < history->GetLength();)
            kinds.push_back(history->Get(kinds.size())->_GetType()->GetName());
        return kinds;
    };
    const std::string started = "morphel.event.ServerStartedEvent", login = "morphel.event.UserLoginEvent",
                      failed = "morphel.event.UserFailedAuthenticationEvent";
    EXPECT_EQ(kinds(ann), (std::vector<std::string>{started, login, login}));
    // Failed logins only for an account that may end others' sessions.
    EXPECT_EQ(kinds(demo), (std::vector<std::string>{started, login, login, failed}));
    // So in log bundles; a bundle that holds them is unknown to the others.
    Ref<Morphel::DiagnosticManager::TaskLogBundleInfo> annBundle, demoBundle;
    ann.diagnostics->GenerateTaskLogBundle(nullptr, annBundle);
    demo.diagnostics->GenerateTaskLogBundle(nullptr, demoBundle);
    EXPECT_EQ(ReadZip(ReadBundle(*ann.diagnostics, annBundle->GetKey(), 1 << 20)).find("Cannot log in ann"),
              std::string::npos);
    EXPECT_NE(ReadZip(ReadBundle(*demo.diagnostics, demoBundle->GetKey(), 1 << 20)).find("Cannot log in ann"),
              std::string::npos);
    ExpectFault<Dovra::Fault::NotFound>(
        [&] { ann.diagnostics->RetrieveTaskLogBundle(demoBundle->GetKey(), 0, 10); });
    ExpectFault<Dovra::Fault::NotFound>([&] { ann.diagnostics->DeleteTaskLogBundle(demoBundle->GetKey()); });
    // Privileges come from each account: eve holds Task.Update alone, ann the default set without it.
    Client eve(hosted_.Url(), "eve", "e");
    eve.tasks->SetMaxTask(9);
    ExpectFault<Dovra::Fault::NoPermission>([&] { ann.tasks->SetMaxTask(9); });
    ExpectFault<Dovra::Fault::NoPermission>([&] { eve.sessions->Terminate(keys.Get()); });
    // A stranger's long name is kept cut, on a character boundary.
    std::string longName =
        std::string(255, 'x') + "\xC3\xA9" + std::string((4 << 20) - 300, 'y');  // near the codec's limit
    ExpectFault<Dovra::Fault::InvalidLogin>([&] { demo.Login(longName, "pw"); });
    auto history = demo.Events();
    const Morphel::Event::Event* last = history->Get(history->GetLength() - 1);
    ASSERT_EQ(last->_GetType()->GetName(), failed);
    EXPECT_EQ(last->GetUserName(), std::string(255, 'x') + "...");

    demo.sessions->Terminate(keys.Get());
    ExpectFault<Dovra::Fault::NotAuthenticated>([&] { ann.sessions->GetCurrentSession(current); });
    ExpectFault<Dovra::Fault::NotFound>([&] { demo.sessions->Terminate(keys.Get()); });
}

// The managers describe what starts tasks, task states and event kinds; the root folder holds every job; what
// the service cannot do raises its faults.
TEST_F(ServerTest, DescriptionsTheRootFolderAndFaults) {
    Client c(hosted_.Url());
    auto created = c.CreateJob("described");
    Ref<Morphel::Task::TaskDescription> description;
    c.tasks->GetDescription(description);
    EXPECT_EQ(description->GetState()->GetLength(), 4u);
    auto running = Out<Morphel::Task::TaskInfo>(
        [&](auto& r) { c.Make<Morphel::Task::TaskStub>(created->GetActiveTask())->GetInfo(r); });
    EXPECT_EQ(description->GetMethodInfo()->Get(0)->GetKey(), running->GetDescriptionId());
    Ref<Morphel::Event::EventDescription> kinds;
    c.events->GetDescription(kinds);
    std::set<std::string> keys;
    for (size_t i = 0; i < kinds->GetEventInfo()->GetLength(); ++i)
        keys.insert(kinds->GetEventInfo()->Get(i)->GetKey());
    EXPECT_EQ(keys.count("morphel.event.Event") + keys.count("morphel.event.DiskClonedEvent"), 2u);
    EXPECT_EQ(keys.count("morphel.task.TaskInfo"), 0u);
    EXPECT_EQ(kinds->GetType()->GetLength(), 3u);

    auto folder = c.Make<Morphel::Server::Conversion::ConversionFolderStub>(
        Out<Kitra::MoRef>([&](auto& r) { c.conversions->GetRootFolder(r); }).Get());
    auto jobs = Out<Kitra::DataArray<Kitra::MoRef>>([&](auto& r) { folder->GetJob(r); });
    ASSERT_TRUE(jobs != nullptr && jobs->GetLength() == 1u);
    EXPECT_EQ(jobs->Get(0)->GetId(), created->GetJob()->GetId());
    EXPECT_EQ(folder->GetName(), MorphelServer::kConversionFolderName);
    EXPECT_EQ(folder->GetOverallStatus(), Morphel::Server::ManagedEntity::Status::gray);  // its run goes on
    ExpectFault<Dovra::Fault::InvalidName>([&] { folder->Rename("elsewhere"); });
    // An operation the service does not implement names itself, under the type that declares it.
    Ref<Morphel::Info::ComputerOsInfo> os;
    auto missing = ExpectFault<Kitra::Fault::NotImplemented>(
        [&] { c.queries->QueryOsInfo(ThisMachine().Get(), nullptr, os); });
    EXPECT_EQ(missing->GetMethod(), "morphel.QueryManager.queryOsInfo");
    Ref<Morphel::ComputerSpec> other = ThisMachine("elsewhere.invalid");
    Ref<Morphel::Info::ComputerHardwareInfo> hardware;
    auto fault = ExpectFault<Morphel::Fault::NoHostConnection>(
        [&] { c.queries->QueryComputerInfo(other.Get(), hardware); });
    EXPECT_EQ(fault->GetHostName(), "elsewhere.invalid");
    ExpectFault<Dovra::Fault::InvalidName>([&] { c.CreateJob(""); });
    ExpectFault<Kitra::Fault::InvalidArgument>([&] { c.tasks->SetMaxTask(0); });
    c.tasks->SetMaxTask(7);
    EXPECT_EQ(c.tasks->GetMaxTask(), 7);
    auto targets = Out<Morphel::Info::SupportedTargets>(
        [&](auto& r) { c.queries->GetSupportedTargets(ThisMachine().Get(), nullptr, r); });
    EXPECT_GE(targets->GetSupportedTargets()->GetLength(), 1u);
}

TEST(ServerAccounts, ReadFromFilesWithPrivilegesAndAuthenticatedByTheirHashes) {
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
    std::ofstream(path) << "# accounts\n\nann:" << hash << "\r\nbob:" << MorphelServer::HashPassword("two", 1)
                        << ":Task.Update,Global.CancelTask\nroot:" << hash << ":*\n";
    auto accounts = MorphelServer::ReadAccounts(path);
    ASSERT_EQ(accounts.size(), 3u);
    EXPECT_EQ(accounts[0].passwordHash, hash);
    EXPECT_TRUE(accounts[0].Holds("Global.CancelTask"));
    EXPECT_FALSE(accounts[0].Holds("Task.Update"));
    EXPECT_TRUE(accounts[1].Holds("Task.Update"));
    EXPECT_FALSE(accounts[1].Holds("ScheduledTask.Create"));
    EXPECT_TRUE(accounts[2].Holds("Sessions.TerminateSession"));
    MorphelServer::AccountBook book(accounts);
    for (int i = 0; i < 2; ++i) {  // the second time from what the first remembered
        const MorphelServer::Account* ann = book.Authenticate("ann", "one");
        EXPECT_EQ(ann != nullptr ? ann->name : "", "ann");
        EXPECT_EQ(book.Authenticate("ann", "on"), nullptr);
        EXPECT_EQ(book.Authenticate("nobody", "one"), nullptr);
    }
    EXPECT_TRUE(book.Holds("bob", "Task.Update"));
    EXPECT_FALSE(book.Holds("nobody", "Global.CancelTask"));
    // Each error names the file and line, and a password in plain text says how to hash it.
    auto error = [&](const std::string& text) {
        std::ofstream(path) << "ann:" << hash << "\n" << text << "\n";
        std::string message = Failure([&] { MorphelServer::ReadAccounts(path); });
        EXPECT_NE(message.find(path + ":2: "), std::string::npos) << text << ": " << message;
        return message;
    };
    EXPECT_NE(error("bob:secret").find("morphel-server --hash-password bob"), std::string::npos);
    EXPECT_NE(error("bob:$1$abc$def").find("not a password hash"), std::string::npos);
    EXPECT_NE(error("broken").find("expected name:hash"), std::string::npos);
    EXPECT_NE(error("bob:" + hash + ":Task.Updat").find("unknown privilege \"Task.Updat\""),
              std::string::npos);
    EXPECT_NE(error("bob:" + hash + ":*,Task.Update").find("stands alone"), std::string::npos);
    std::remove(path.c_str());
    EXPECT_THROW(MorphelServer::ReadAccounts(path), std::runtime_error);
}

TEST(ServerMachine, VolumesLieOnListedDisks) {
    MorphelServer::Machine m = MorphelServer::ReadMachine();
    EXPECT_FALSE(m.hostname.empty());
    EXPECT_GE(m.numCpus, m.coresPerSocket);
    EXPECT_GT(m.memoryBytes, 0);
    for (const auto& v : m.volumes) {
        EXPECT_LE(v.spaceUsedInBytes, v.capacityInBytes) << v.id;
        for (const auto& d : v.diskIds)
            EXPECT_NE(m.FindDisk(d), nullptr) << v.id << " on " << d;
    }
}

// Over HTTPS the content names the certificate for clients to pin; a client that expects another one gets
// the interface's own fault with what was presented.
TEST(ServerTls, ContentCarriesTheThumbprintAndARejectionMapsToTheInterfacesFault) {
    Kitra::Http::ServerOptions options;
    options.tls = Kitra::Http::Tls::CreateSelfSigned("morphel test", {"127.0.0.1"});
    Hosted hosted({}, options);
    const Kitra::Http::Server& server = *hosted.server;
    // The content, read by a client that expects the certificate `thumbprint`.
    Ref<Morphel::ServiceInstanceContent> content;
    auto retrieve = [&](const std::string& thumbprint) {
        Kitra::Http::ClientOptions pinned;
        pinned.thumbprint = thumbprint;
        Ref<Kitra::Http::StubAdapter> adapter(
            new Kitra::Http::StubAdapter(server.GetUrl(), "morphel.version.version4", pinned));
        Morphel::ServiceInstanceStub("ServiceInstance", adapter.Get(), nullptr).RetrieveContent(content);
    };
    retrieve(server.GetThumbprint(Kitra::Http::Tls::Digest::Sha256));
    auto* serverContent = dynamic_cast<Morphel::ServerInstanceContent*>(content.Get());
    ASSERT_NE(serverContent, nullptr);
    EXPECT_NE(serverContent->GetScheduledTaskManager(), nullptr);
    ASSERT_NE(serverContent->GetPelorServerInfo(), nullptr);
    EXPECT_EQ(serverContent->GetPelorServerInfo()->GetServerThumbprint().GetValue(), server.GetThumbprint());
    EXPECT_EQ(serverContent->GetPelorServerInfo()->GetUrl(), server.GetUrl());

    auto other = Kitra::Http::Tls::Thumbprint(Kitra::Http::Tls::CreateSelfSigned("other", {}).certificatePem);
    auto rejected = ExpectFault<Kitra::Fault::CertificateRejected>([&] { retrieve(other); });
    Ref<Morphel::Fault::SSLVerificationFault> fault = MorphelServer::ToVerificationFault(*rejected);
    EXPECT_EQ(fault->GetThumbprint(), server.GetThumbprint());
    EXPECT_TRUE(fault->IsSelfSigned());
    ASSERT_EQ(fault->GetCertificateChain()->GetLength(), 1u);
    std::vector<uint8_t> der = Kitra::Http::Tls::ToDer(options.tls.certificatePem);
    EXPECT_EQ(fault->GetCertificateChain()->Get(0)->GetData()->GetLength(), der.size());
    EXPECT_NE(fault->GetMsg().find("is not the expected"), std::string::npos) << fault->GetMsg();
}

}  // namespace
