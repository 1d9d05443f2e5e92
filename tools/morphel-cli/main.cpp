// morphel-cli: the typical request of a conversion client, end to end over HTTP or HTTPS: connect, log in, describe
// this machine as a live source, validate the conversion parameters, create the job, follow its task,
// list its events, log out. Without --url it hosts the reference service on a free loopback port.
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include <Tool.h>
#include <dovra/types.h>
#include <kitra/Http.h>
#include <kitra/Kitra.h>
#include <kitra/fault/types.h>
#include <morphel-server/Certificates.h>
#include <morphel-server/Service.h>
#include <morphel/event/types.h>
#include <morphel/fault/types.h>
#include <morphel/info/types.h>
#include <morphel/params/types.h>
#include <morphel/server/conversion/types.h>
#include <morphel/task/types.h>
#include <morphel/types.h>

namespace {

using Fundix::Ref;

const char kVersion[] = "morphel.version.version4";

void Usage(std::FILE* out) {
    std::fputs("usage: morphel-cli [--url URL] [--thumbprint XX:XX:..] [--user NAME:PASSWORD]\n"
               "  --url         the server (http://HOST:PORT/morphel or https://...); without it the reference\n"
               "                service runs in process\n"
               "  --thumbprint  HTTPS: the server certificate's SHA-1 or SHA-256 thumbprint (as morphel-server prints\n"
               "                it); without it the certificate must be trusted by the system and name the host\n"
               "  --user        the account to log in with (default demo:demo)\n",
               out);
}

std::string Bytes(int64_t n) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    double v = double(n);
    int u = 0;
    while (v >= 1024 && u < 4) v /= 1024, ++u;
    char text[32];
    std::snprintf(text, sizeof(text), u == 0 ? "%.0f %s" : "%.1f %s", v, units[u]);
    return text;
}

// Prints a fault with its type's wire name and its fields, as the wire codec reads them back.
void PrintFault(const Kitra::MethodFault* fault) {
    if (fault == nullptr) {
        std::cerr << "morphel-cli: fault kodl.MethodFault\n";
        return;
    }
    std::string message;
    std::ostringstream text;
    try {
        Kitra::Soap::Codec(kVersion).EncodeValue(fault, message);
        std::istringstream in(message);
        MorphelTypesTool::DecodeCommand(kVersion, in, text, text);
    } catch (...) {
        text.str(fault->_GetType()->GetName());
    }
    std::cerr << "morphel-cli: fault " << text.str();
    if (text.str().empty() || text.str().back() != '\n') std::cerr << '\n';
}

class Progress {
public:
    Progress() : terminal_(isatty(STDOUT_FILENO) == 1) {}
    void Show(int percent) {
        if (terminal_) {
            int cells = percent / 10;
            std::printf("\r[%s%s] %d%%", std::string(cells, '#').c_str(), std::string(10 - cells, ' ').c_str(), percent);
            std::fflush(stdout);
        } else {
            while (next_ <= percent) {
                std::printf("progress %d%%\n", next_);
                next_ += 25;
            }
        }
    }
    void Done() {
        if (terminal_) std::printf("\n");
    }

private:
    bool terminal_;
    int next_ = 0;
};

std::string LocalHostname() {
    char host[256] = {};
    if (gethostname(host, sizeof(host) - 1) != 0 || host[0] == '\0') return "localhost";
    return host;
}

// The parameters of a conversion of `hardware` into a hosted virtual machine: every disk with its volumes.
Ref<Morphel::Params::ConversionParams> MakeParams(const std::string& vmName, Morphel::Info::ComputerHardwareInfo* hardware) {
    using namespace Morphel::Params;
    Ref<TargetVmSpec> target(new TargetVmSpec());
    target->SetName(vmName);
    target->SetLocation(Ref<TargetVmSpec::HostedVmLocation>(new TargetVmSpec::HostedVmLocation("/var/lib/morphel/vms", {}, {}, {})).Get());
    target->SetProductVersion("tarnDesk3");

    Ref<Kitra::DataArray<StorageParams::TargetDiskParams>> disks(new Kitra::DataArray<StorageParams::TargetDiskParams>());
    auto* storage = hardware != nullptr ? hardware->GetStorage() : nullptr;
    for (size_t i = 0; storage != nullptr && storage->GetDisk() != nullptr && i < storage->GetDisk()->GetLength(); ++i) {
        const std::string& diskId = storage->GetDisk()->Get(i)->GetDiskId();
        Ref<StorageParams::TargetDiskParams> disk(new StorageParams::TargetDiskParams());
        disk->SetSourceDiskId(diskId);
        Ref<Kitra::DataArray<StorageParams::VolumeCloningParams>> volumes(new Kitra::DataArray<StorageParams::VolumeCloningParams>());
        for (size_t j = 0; storage->GetVolume() != nullptr && j < storage->GetVolume()->GetLength(); ++j) {
            auto* v = storage->GetVolume()->Get(j);
            bool onDisk = false;
            for (size_t k = 0; v->GetDiskId() != nullptr && k < v->GetDiskId()->GetLength(); ++k)
                onDisk = onDisk || v->GetDiskId()->Get(k) == diskId;
            if (!onDisk) continue;
            Ref<StorageParams::VolumeCloningParams> volume(new StorageParams::VolumeCloningParams());
            volume->SetSourceVolumeId(v->GetVolumeId());
            volumes->Append(volume.Get());
        }
        disk->SetVolumesToClone(volumes.Get());
        disks->Append(disk.Get());
    }
    Ref<StorageParams> storageParams(new StorageParams());
    storageParams->SetTargetDiskParams(disks.Get());

    Ref<CloningParams> cloning(new CloningParams());
    cloning->SetTarget(target.Get());
    cloning->SetStorageParams(storageParams.Get());
    Ref<ConversionParams> params(new ConversionParams());
    params->SetDoClone(true);
    params->SetCloningParams(cloning.Get());
    params->SetDoReconfig(false);
    params->SetPowerOnTargetVM(false);
    return params;
}

int Run(const std::string& url, const std::string& thumbprint, const MorphelServer::Credentials& account) {
    Kitra::Http::ClientOptions options;
    options.thumbprint = thumbprint;
    Ref<Kitra::Http::StubAdapter> adapter(new Kitra::Http::StubAdapter(url, kVersion, options));
    Ref<Morphel::ServiceInstanceStub> root(new Morphel::ServiceInstanceStub(MorphelServer::kServiceInstanceId, adapter.Get(), nullptr));
    Ref<Morphel::ServiceInstanceContent> content;
    root->RetrieveContent(content);
    std::printf("Connected to %s (%s, API %s) at %s\n", content->GetAbout()->GetFullName().c_str(),
                content->GetAbout()->GetVersion().c_str(), content->GetAbout()->GetApiVersion().c_str(), url.c_str());
    if (content->GetConversionManager() == nullptr) {
        std::fprintf(stderr, "morphel-cli: the server offers no conversion manager\n");
        return 1;
    }

    Ref<Morphel::SessionManagerStub> sessions(new Morphel::SessionManagerStub(content->GetSessionManager()->GetId(), adapter.Get(), nullptr));
    Ref<Morphel::QueryManagerStub> queries(new Morphel::QueryManagerStub(content->GetQueryManager()->GetId(), adapter.Get(), nullptr));
    Ref<Morphel::Server::Conversion::ConversionManagerStub> conversions(
        new Morphel::Server::Conversion::ConversionManagerStub(content->GetConversionManager()->GetId(), adapter.Get(), nullptr));
    Ref<Morphel::Event::EventManagerStub> events(new Morphel::Event::EventManagerStub(content->GetEventManager()->GetId(), adapter.Get(), nullptr));

    Ref<Morphel::UserSession> session;
    sessions->Login(account.name, account.password, Fundix::Optional<std::string>("en"), session);
    std::printf("Logged in as %s\n", session->GetUserName().c_str());
    struct LogoutAtEnd {
        Morphel::SessionManagerStub* sessions;
        ~LogoutAtEnd() {
            try {
                sessions->Logout();
                std::printf("Logged out\n");
            } catch (...) {
            }
        }
    } logout{sessions.Get()};

    // The source: this machine, as a live computer.
    std::string host = LocalHostname();
    Ref<Morphel::ComputerSpec> source(new Morphel::ComputerSpec(
        Ref<Morphel::ComputerSpec::LiveComputerLocation>(
            new Morphel::ComputerSpec::LiveComputerLocation(host, {}, {}, {}, "linux", {}, {}))
            .Get()));
    Ref<Morphel::Info::ComputerHardwareInfo> hardware;
    queries->QueryComputerInfo(source.Get(), hardware);
    if (auto* basic = hardware->GetBasicHardware())
        std::printf("Source %s: %d processors, %s memory\n", host.c_str(), basic->GetNumCPUs().GetValue(),
                    Bytes(basic->GetMemoryMB().GetValue() * 1024 * 1024).c_str());
    if (auto* storage = hardware->GetStorage()) {
        for (size_t i = 0; storage->GetDisk() != nullptr && i < storage->GetDisk()->GetLength(); ++i)
            std::printf("  disk %s  %s\n", storage->GetDisk()->Get(i)->GetDiskId().c_str(),
                        Bytes(storage->GetDisk()->Get(i)->GetCapacityInBytes()).c_str());
        for (size_t i = 0; storage->GetVolume() != nullptr && i < storage->GetVolume()->GetLength(); ++i) {
            auto* v = storage->GetVolume()->Get(i);
            std::printf("  volume %s  %s  %s of %s used\n", v->GetVolumeId().c_str(),
                        v->GetFileSystem().IsSet() ? v->GetFileSystem().GetValue().c_str() : "-",
                        Bytes(v->GetSpaceUsedInBytes()).c_str(), Bytes(v->GetCapacityInBytes()).c_str());
        }
    }

    std::string vmName = host + "-copy";
    Ref<Morphel::Params::ConversionParams> params = MakeParams(vmName, hardware.Get());
    try {
        queries->ValidateParams(source.Get(), nullptr, params.Get());
        std::printf("Parameters valid\n");
    } catch (const Morphel::Fault::PropertyInfoFault::Exception& e) {
        bool errors = false;
        auto* notes = e.GetFault()->GetInfo();
        for (size_t i = 0; notes != nullptr && i < notes->GetLength(); ++i) {
            auto* note = notes->Get(i);
            errors = errors || note->GetSeverityLevel() == "error";
            std::printf("  %-7s %s: %s (%s)\n", note->GetSeverityLevel().c_str(), std::string(note->GetProperty()).c_str(),
                        note->GetMessage().IsSet() ? note->GetMessage().GetValue().c_str() : "",
                        note->_GetType()->GetName());
        }
        if (errors) {
            std::fprintf(stderr, "morphel-cli: the parameters cannot work\n");
            return 3;
        }
    }

    Ref<Morphel::Server::Conversion::ConversionJobSpec> spec(new Morphel::Server::Conversion::ConversionJobSpec());
    spec->SetName("convert " + host + " " + Fundix::System::DateTime::Now().ToIso8601());
    spec->SetSource(source.Get());
    spec->SetConversionParams(params.Get());
    Ref<Morphel::Server::Conversion::ConversionJobInfo> job;
    conversions->CreateJob(spec.Get(), nullptr, job);
    if (job->GetActiveTask() == nullptr) {
        std::fprintf(stderr, "morphel-cli: the job %s has no task\n", job->GetKey().c_str());
        return 1;
    }
    std::printf("Job %s created, task %s\n", job->GetKey().c_str(), job->GetActiveTask()->GetId().c_str());

    Ref<Morphel::Task::TaskStub> task(new Morphel::Task::TaskStub(job->GetActiveTask()->GetId(), adapter.Get(), nullptr));
    Ref<Morphel::Task::TaskInfo> info;
    Progress progress;
    using State = Morphel::Task::TaskInfo::State;
    for (;;) {
        task->GetInfo(info);
        progress.Show(info->GetProgress().IsSet() ? info->GetProgress().GetValue() : 0);
        if (info->GetState() == State::success || info->GetState() == State::error) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    progress.Done();
    std::printf("Task %s: %s\n", info->GetKey().c_str(), Kitra::ToText(info->GetState()).c_str());

    Ref<Morphel::Event::EventFilterSpec> filter(new Morphel::Event::EventFilterSpec());
    filter->SetEventChainId(info->GetEventChainId());
    Ref<Kitra::MoRef> collectorRef;
    events->CreateCollector(filter.Get(), collectorRef);
    Ref<Morphel::Event::EventHistoryCollectorStub> collector(
        new Morphel::Event::EventHistoryCollectorStub(collectorRef->GetId(), adapter.Get(), nullptr));
    std::printf("Events:\n");
    for (;;) {
        Ref<Kitra::DataArray<Morphel::Event::Event>> page;
        collector->ReadNext(5, page);
        if (page == nullptr || page->GetLength() == 0) break;
        for (size_t i = 0; i < page->GetLength(); ++i) {
            auto* e = page->Get(i);
            std::printf("  %s  %-7s %-36s %s\n", e->GetCreatedTime().ToIso8601().c_str(), Kitra::ToText(e->GetType()).c_str(),
                        e->_GetType()->GetName(), e->GetFullMessage().IsSet() ? e->GetFullMessage().GetValue().c_str() : "");
        }
    }
    collector->Remove();

    if (info->GetState() != State::success) {
        PrintFault(info->GetError());
        return 4;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string url, thumbprint;
    MorphelServer::Credentials account{"demo", "demo"};
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if ((arg == "--url" || arg == "--user" || arg == "--thumbprint") && i + 1 < argc) {
            std::string value = argv[++i];
            if (arg == "--url") url = value;
            else if (arg == "--thumbprint") thumbprint = value;
            else if (!MorphelServer::ParseCredentials(value, account)) {
                std::fprintf(stderr, "morphel-cli: --user expects NAME:PASSWORD\n");
                return 2;
            }
        } else if (arg == "-h" || arg == "--help") {
            Usage(stdout);
            return 0;
        } else {
            std::fprintf(stderr, "morphel-cli: unknown argument %s\n", arg.c_str());
            Usage(stderr);
            return 2;
        }
    }

    // Without a server named, the reference service runs here, on a free loopback port. The server goes
    // before the service: its objects call into the service.
    std::unique_ptr<MorphelServer::Service> service;
    std::unique_ptr<Kitra::Http::Server> server;
    try {
        if (url.empty()) {
            service = std::make_unique<MorphelServer::Service>();
            Kitra::Http::ServerOptions options;
            options.versions = MorphelServer::Service::Versions();
            server = std::make_unique<Kitra::Http::Server>(options);
            service->Attach(*server);
            server->Start();
            url = server->GetUrl();
        }
        int status = Run(url, thumbprint, account);
        if (server) server->Stop();
        return status;
    } catch (const Kitra::Fault::CertificateRejected::Exception& e) {
        // The interface's own fault, with what a person needs to decide whether to pin the certificate.
        const auto* rejected = static_cast<const Kitra::Fault::CertificateRejected*>(e.GetFault());
        if (rejected == nullptr) {
            PrintFault(e.GetFault());
        } else {
            Ref<Morphel::Fault::SSLVerificationFault> fault = MorphelServer::ToVerificationFault(*rejected);
            std::fprintf(stderr, "morphel-cli: fault %s\n  msg: %s\n  thumbprint: %s\n  selfSigned: %s\n  certificateChain: %zu certificate(s)\n",
                         fault->_GetType()->GetName(), fault->GetMsg().c_str(), fault->GetThumbprint().c_str(),
                         fault->IsSelfSigned() ? "true" : "false", fault->GetCertificateChain()->GetLength());
            std::fprintf(stderr, "morphel-cli: if this is the server's certificate, pin it with --thumbprint %s\n",
                         fault->GetThumbprint().c_str());
        }
    } catch (const Kitra::MethodFault::Exception& e) {
        PrintFault(e.GetFault());
    } catch (const Fundix::Exception& e) {
        std::fprintf(stderr, "morphel-cli: %s\n", e.GetMessage().c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "morphel-cli: %s\n", e.what());
    }
    if (server) server->Stop();
    return 1;
}
