// The query manager: one source, the machine the service runs on, named as a live computer.
#include <morphel/fault/types.h>
#include <morphel/info/types.h>
#include <morphel/params/types.h>
#include <morphel/propertyInfo/types.h>
#include <morphel/types.h>

#include "Context.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;

Ref<Morphel::Info::PropertyInfo> Note(Morphel::Info::PropertyInfo* note, const std::string& property,
                                      const char* severity, const std::string& message) {
    note->SetProperty(property);
    note->SetSeverityLevel(severity);
    note->SetMessage(message);
    return note;
}

class QueryManagerImpl : public Morphel::QueryManagerBase {
public:
    explicit QueryManagerImpl(Context& context) : machine_(context.machine) {}

    void QueryComputerInfo(Morphel::ComputerSpec* source,
                           Ref<Morphel::Info::ComputerHardwareInfo>& result) override {
        CheckSource(source);
        result = DescribeHardware(machine_);
    }

    void ValidateParams(Morphel::ComputerSpec* source, Morphel::Info::BootConfigInfo_BootLoaderEntrySpec*,
                        Morphel::Params::ConversionParams* conversionParams) override {
        CheckSource(source);
        Validate(conversionParams);
    }

    void GetSupportedConversionSources(Ref<Morphel::Info::SupportedSources>& result) override {
        Ref<Morphel::Info::SupportedSources> s(new Morphel::Info::SupportedSources());
        Ref<Kitra::Array<std::string>> sources(new Kitra::Array<std::string>());
        sources->Append(Morphel::Info::SupportedSources::SOURCETYPE_LIVE);
        s->SetSupportedSources(sources.Get());
        Ref<Kitra::Array<std::string>> live(new Kitra::Array<std::string>());
        live->Append("linux");
        s->SetSupportedLiveSources(live.Get());
        result = s;
    }

    void GetSupportedTargets(Morphel::ComputerSpec* source,
                             Morphel::Info::BootConfigInfo_BootLoaderEntrySpec*,
                             Ref<Morphel::Info::SupportedTargets>& result) override {
        CheckSource(source);
        Ref<Morphel::Info::SupportedTargets> t(new Morphel::Info::SupportedTargets());
        Ref<Kitra::Array<std::string>> targets(new Kitra::Array<std::string>());
        targets->Append(Morphel::Info::SupportedTargets::PRODUCTTYPE_HOSTED);
        targets->Append(Morphel::Info::SupportedTargets::PRODUCTTYPE_OVF);
        t->SetSupportedTargets(targets.Get());
        Ref<Kitra::Array<std::string>> hosted(new Kitra::Array<std::string>());
        for (const char* v : {"tarnDesk3", "tarnHost3", "tarnViewer3"})
            hosted->Append(v);
        t->SetSupportedHostedTargets(hosted.Get());
        result = t;
    }

private:
    void CheckSource(Morphel::ComputerSpec* source) const { MorphelServer::CheckSource(machine_, source); }

    // What cannot work about `params` for this machine; raised as one PropertyInfoFault.
    void Validate(Morphel::Params::ConversionParams* params) const {
        using namespace Morphel::PropertyInfo;
        Ref<Kitra::DataArray<Morphel::Info::PropertyInfo>> notes(
            new Kitra::DataArray<Morphel::Info::PropertyInfo>());
        auto add = [&](Ref<Morphel::Info::PropertyInfo> note) { notes->Append(note.Get()); };
        if (params == nullptr) ThrowInvalidArgument("conversionParams");
        bool clone = !params->IsDoClone().IsSet() || params->IsDoClone().GetValue();
        Morphel::Params::CloningParams* cloning = params->GetCloningParams();
        if (clone && cloning == nullptr)
            add(Note(new Morphel::Info::PropertyInfo(), "cloningParams", "error",
                     "cloning requested without cloning parameters"));
        if (cloning != nullptr) {
            std::string targetName =
                cloning->GetTarget() != nullptr ? cloning->GetTarget()->GetName() : std::string();
            if (cloning->GetTarget() == nullptr)
                add(Note(new Morphel::Info::PropertyInfo(), "cloningParams.target", "error",
                         "no target machine"));
            auto* storage = cloning->GetStorageParams();
            auto* disks = storage != nullptr ? storage->GetTargetDiskParams() : nullptr;
            for (size_t i = 0; disks != nullptr && i < disks->GetLength(); ++i) {
                auto* disk = disks->Get(i);
                std::string path = "cloningParams.storageParams.targetDiskParams[" + std::to_string(i) + "]";
                const std::string* id =
                    disk->GetSourceDiskId().IsSet() ? &disk->GetSourceDiskId().GetValue() : nullptr;
                if (id != nullptr && machine_.FindDisk(*id) == nullptr)
                    add(Note(new Morphel::Info::PropertyInfo(), path + ".sourceDiskId", "error",
                             "the source has no disk '" + *id + "'"));
                auto* volumes = disk->GetVolumesToClone();
                for (size_t j = 0; volumes != nullptr && j < volumes->GetLength(); ++j) {
                    auto* v = volumes->Get(j);
                    std::string vpath = path + ".volumesToClone[" + std::to_string(j) + "]";
                    const MachineVolume* volume = machine_.FindVolume(v->GetSourceVolumeId());
                    if (volume == nullptr) {
                        add(Note(new Morphel::Info::PropertyInfo(), vpath + ".sourceVolumeId", "error",
                                 "the source has no volume '" + v->GetSourceVolumeId() + "'"));
                    } else if (v->GetNewCapacityInBytes().IsSet() &&
                               v->GetNewCapacityInBytes().GetValue() < volume->spaceUsedInBytes) {
                        Ref<InsufficientSpaceError> note(new InsufficientSpaceError());
                        note->SetTargetName(targetName);
                        add(Note(note.Get(), vpath + ".newCapacityInBytes", "error",
                                 "smaller than the " + std::to_string(volume->spaceUsedInBytes) +
                                     " bytes in use"));
                    }
                }
            }
            auto* hardware = cloning->GetBasicHardwareParams();
            if (hardware != nullptr && hardware->GetNumCPUs().IsSet() &&
                hardware->GetNumCPUs().GetValue() != machine_.numCpus) {
                Ref<NumCpuMismatch> note(new NumCpuMismatch());
                note->SetNumCPUInSource(machine_.numCpus);
                add(Note(note.Get(), "cloningParams.basicHardwareParams.numCPUs", "warning",
                         "the source has " + std::to_string(machine_.numCpus) + " processors"));
            }
        }
        if (params->IsDoCustomize().IsSet() && params->IsDoCustomize().GetValue())
            add(Note(new CustomizeNotSupported(), "doCustomize", "error",
                     "a live Linux source cannot be customized"));
        if (notes->GetLength() != 0) Morphel::Fault::PropertyInfoFault::Exception(notes.Get()).Throw();
    }

    const Machine& machine_;
};

}  // namespace

void CheckSource(const Machine& machine, Morphel::ComputerSpec* source) {
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

void AttachQueries(Context& context) {
    context.Register(kQueryManagerId, Ref<QueryManagerImpl>(new QueryManagerImpl(context)).Get());
}

}  // namespace MorphelServer
