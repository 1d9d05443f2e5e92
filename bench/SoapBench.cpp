// Wire codec throughput on three messages a server really sends: the hardware inventory of a large
// source machine, a page of event history, and the description of a conversion job with every phase filled.
// Each is measured encoded and decoded, beside the limit of the same bytes: a plain copy into the
// caller's buffer for the writer, expat with handlers that do nothing for the reader.
#include <benchmark/benchmark.h>

#include <expat.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <kitra/Kitra.h>
#include <kitra/Soap.h>
#include <kitra/fault/types.h>
#include <morphel/event/types.h>
#include <morphel/fault/types.h>
#include <morphel/info/types.h>
#include <morphel/params/types.h>
#include <morphel/server/conversion/types.h>
#include <morphel/task/types.h>
#include <morphel/types.h>
#include <dovra/vm/customization/types.h>

#include "Limits.h"

namespace {

using Fundix::Ref;
using Fundix::System::DateTime;

const char* const kVersion = "morphel.version.version4";

template <class T>
Ref<Kitra::Array<T>> Values(std::initializer_list<T> items) {
    Ref<Kitra::Array<T>> array(new Kitra::Array<T>());
    for (const T& item : items) array->Append(item);
    return array;
}

std::string Hex(unsigned value, int width) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%0*x", width, value);
    return buf;
}

std::string Guid(unsigned a, unsigned b) {
    return Hex(a * 2654435761u, 8) + "-" + Hex(b & 0xffff, 4) + "-4" + Hex(a & 0xfff, 3) + "-a" + Hex(b & 0xfff, 3) +
           "-" + Hex(a * 40503u + b, 8) + Hex(b * 7u, 4);
}

// ---------------------------------------------------------------------------------------------
// The hardware inventory of a storage server: 16 disks, 64 volumes (four partitions per disk, the
// data disks in volume groups), two boot loaders, four network cards.
// ---------------------------------------------------------------------------------------------

Ref<Morphel::Info::ComputerHardwareInfo> HardwareInfo() {
    using namespace Morphel::Info;
    Ref<StorageInfo> storage(new StorageInfo());
    Ref<Kitra::DataArray<StorageInfo::DiskInfo>> disks(new Kitra::DataArray<StorageInfo::DiskInfo>());
    Ref<Kitra::DataArray<StorageInfo::VolumeInfo>> volumes(new Kitra::DataArray<StorageInfo::VolumeInfo>());
    for (int d = 0; d < 16; ++d) {
        Ref<StorageInfo::DiskInfo> disk(new StorageInfo::DiskInfo());
        const std::string diskId = "disk-" + std::to_string(d);
        const int64_t capacity = (d == 0 ? 480LL : 3840LL) << 30;
        disk->SetDiskId(diskId);
        disk->SetCapacityInBytes(capacity);
        disk->SetDiskUsageInBytes(capacity / 100 * (35 + d * 3));
        disk->SetBiosNumber(0x80 + d);
        disk->SetLvg(d >= 8);
        if (d >= 8) disk->SetLvgName(std::string("vg_data") + std::to_string(d / 4));
        disk->SetGpt(true);
        disk->SetSignature(static_cast<int32_t>(0x1f2e3d00u + d));
        disk->SetDiskGuid(Guid(d, 0x51));
        disks->Append(disk.Get());
        for (int p = 0; p < 4; ++p) {
            Ref<StorageInfo::VolumeInfo> volume(new StorageInfo::VolumeInfo());
            const int n = d * 4 + p;
            volume->SetVolumeId("vol-" + std::to_string(d) + "-" + std::to_string(p + 1));
            volume->SetDiskId(Values<std::string>({diskId}).Get());
            volume->SetPartitionNumber(p + 1);
            volume->SetPrimary(p < 3);
            volume->SetActive(d == 0 && p == 1);
            volume->SetPartitionType(static_cast<int8_t>(p == 0 ? 0xef : 0x83));
            volume->SetPartitionGuid(Guid(n, 0x77));
            volume->SetPartitionUuid(Guid(n, 0x99));
            volume->SetFileSystem(std::string(p == 0 ? "vfat" : (p == 3 ? "xfs" : "ext4")));
            volume->SetClusterSizeInBytes(4096);
            volume->SetFirstClusterOffsetInBytes(1048576LL * (p + 1));
            volume->SetLabel(p == 0 ? std::string("EFI") : "data" + std::to_string(n));
            volume->SetCapacityInBytes(capacity / 4);
            volume->SetSpaceUsedInBytes(capacity / 4 / 100 * (20 + n % 70));
            if (p == 1 || p == 2) {
                Ref<StorageInfo::VolumeInfo::ExtfsFeatures> ext(new StorageInfo::VolumeInfo::ExtfsFeatures());
                ext->SetDirIndex(true);
                ext->SetFiletype(true);
                ext->SetHasJournal(true);
                ext->SetResizeInode(true);
                ext->SetSparseSuper(true);
                ext->SetExtent(true);
                ext->SetFlexBg(true);
                ext->SetUninitBg(p == 2);
                volume->SetExtfsFeatures(ext.Get());
            }
            if (d >= 8) volume->SetLvName("lv_" + std::to_string(n));
            volumes->Append(volume.Get());
        }
    }
    storage->SetDisk(disks.Get());
    storage->SetVolume(volumes.Get());

    Ref<BootConfigInfo> boot(new BootConfigInfo());
    Ref<Kitra::DataArray<BootConfigInfo::BootLoaderInfo>> loaders(new Kitra::DataArray<BootConfigInfo::BootLoaderInfo>());
    Ref<BootConfigInfo::BootLoaderInfo> grub(new BootConfigInfo::BootLoaderInfo());
    Ref<BootConfigInfo::BootLoaderLocationInfo> where(new BootConfigInfo::BootLoaderLocationInfo());
    where->SetType("grub");
    where->SetBootDiskId("disk-0");
    where->SetActiveVolumeId(std::string("vol-0-2"));
    grub->SetBootLoaderLocation(where.Get());
    Ref<Kitra::DataArray<BootConfigInfo::BootLoaderEntryInfo>> entries(
        new Kitra::DataArray<BootConfigInfo::BootLoaderEntryInfo>());
    for (int e = 0; e < 3; ++e) {
        Ref<BootConfigInfo::GrubEntryInfo> entry(new BootConfigInfo::GrubEntryInfo());
        entry->SetEntryNumber(e);
        entry->SetDefaultEntry(e == 0);
        entry->SetTitle("Linux 6.1.0-" + std::to_string(27 - e) + "-amd64");
        entry->SetRootDisk("/dev/sda2");
        entry->SetKernel("/boot/vmlinuz-6.1.0-" + std::to_string(27 - e) + "-amd64");
        entry->SetInitrd("/boot/initrd.img-6.1.0-" + std::to_string(27 - e) + "-amd64");
        entries->Append(entry.Get());
    }
    grub->SetEntry(entries.Get());
    loaders->Append(grub.Get());
    boot->SetBootLoader(loaders.Get());
    storage->SetBootConfig(boot.Get());

    Ref<NetworkInfo> network(new NetworkInfo());
    Ref<Kitra::DataArray<NetworkInfo::NicInfo>> nics(new Kitra::DataArray<NetworkInfo::NicInfo>());
    for (int n = 0; n < 4; ++n) {
        Ref<NetworkInfo::LiveNicInfo> nic(new NetworkInfo::LiveNicInfo());
        nic->SetNicId("00:50:56:a1:3c:" + Hex(0x10 + n, 2));
        nic->SetConnected(n < 3);
        nic->SetLabel("eno" + std::to_string(n + 1));
        nic->SetIpAddress(Values<std::string>({"10.20." + std::to_string(n) + ".17", "fe80::250:56ff:fea1:3c" + Hex(n, 2)}).Get());
        nics->Append(nic.Get());
    }
    network->SetNic(nics.Get());

    Ref<BasicHardwareInfo> basic(new BasicHardwareInfo());
    basic->SetNumCPUs(32);
    basic->SetNumCoresPerSocket(16);
    basic->SetMemoryMB(262144);

    Ref<ComputerHardwareInfo> info(new ComputerHardwareInfo());
    info->SetStorage(storage.Get());
    info->SetNetwork(network.Get());
    info->SetBasicHardware(basic.Get());
    info->SetCurrentEfiBootEntry(std::string("Boot0003"));
    return info;
}

// ---------------------------------------------------------------------------------------------
// A page of 1,000 events of a running conversion, twelve classes, as a history collector returns it.
// ---------------------------------------------------------------------------------------------

Ref<Morphel::Task::TaskInfo> TaskRecord(int n) {
    using Morphel::Task::TaskInfo;
    Ref<TaskInfo> t(new TaskInfo());
    t->SetKey("task-" + std::to_string(4000 + n));
    t->SetTask(new Kitra::MoRef("morphel.task.Task", "task-" + std::to_string(4000 + n)));
    t->SetName(std::string("Convert machine"));
    t->SetDescriptionId("morphel.task.conversion.convert");
    t->SetUserName(std::string("CORP\\operator"));
    t->SetSource(std::string("fileserver-03.example.internal"));
    t->SetTarget(std::string("cluster-a/datastore-7/fileserver-03"));
    t->SetState(TaskInfo::State::running);
    t->SetCancelable(true);
    t->SetProgress(n % 100);
    t->SetQueueTime(DateTime(2026, 11, 23, 9, 0, 0));
    t->SetStartTime(DateTime(2026, 11, 23, 9, 1, 30));
    t->SetEventChainId(9001);
    t->SetJob(new Kitra::MoRef("morphel.server.job.Job", "job-12"));
    return t;
}

Ref<Kitra::DataArray<Morphel::Event::Event>> EventPage() {
    using namespace Morphel::Event;
    Ref<Kitra::DataArray<Event>> page(new Kitra::DataArray<Event>());
    for (int i = 0; i < 1000; ++i) {
        const std::string vm = "fileserver-" + std::to_string(i % 7);
        const std::string volume = "/dev/mapper/vg_data" + std::to_string(i % 3) + "-lv_" + std::to_string(i % 11);
        Ref<Event> e;
        switch (i % 12) {
        case 0: {
            Ref<UserLoginEvent> x(new UserLoginEvent());
            x->SetIpAddress("10.20.0." + std::to_string(i % 250));
            x->SetLocale("en_US");
            e = x.Get();
            break;
        }
        case 1: {
            Ref<HostConnectedEvent> x(new HostConnectedEvent());
            x->SetHostName("esx-" + std::to_string(i % 5) + ".example.internal");
            e = x.Get();
            break;
        }
        case 2: {
            Ref<TaskEvent> x(new TaskEvent());
            x->SetInfo(TaskRecord(i).Get());
            e = x.Get();
            break;
        }
        case 3: {
            Ref<DiskCloningEvent> x(new DiskCloningEvent());
            x->SetVmName(vm);
            x->SetSourceDisk("disk-" + std::to_string(i % 16));
            e = x.Get();
            break;
        }
        case 4: {
            Ref<DiskClonedEvent> x(new DiskClonedEvent());
            x->SetVmName(vm);
            x->SetSourceDisk("disk-" + std::to_string(i % 16));
            e = x.Get();
            break;
        }
        case 5: {
            Ref<VolumeBlockLevelCloningStartedEvent> x(new VolumeBlockLevelCloningStartedEvent());
            x->SetVolumePath(volume);
            e = x.Get();
            break;
        }
        case 6: {
            Ref<VolumeBlockLevelCloningBadBlockEvent> x(new VolumeBlockLevelCloningBadBlockEvent());
            x->SetVolumePath(volume);
            x->SetOffset(4096LL * (1234567 + i));
            e = x.Get();
            break;
        }
        case 7: {
            Ref<VolumeFileLevelCloningSkippedFileLockedEvent> x(new VolumeFileLevelCloningSkippedFileLockedEvent());
            x->SetVolumePath(volume);
            x->SetFileName("/var/lib/postgresql/15/main/pg_wal/0000000100000A" + Hex(i, 10));
            e = x.Get();
            break;
        }
        case 8: {
            Ref<PowerOnFailedEvent> x(new PowerOnFailedEvent());
            x->SetVmName(vm);
            x->SetReason(new Morphel::Fault::HelperVmInternalFault("the helper machine did not answer within 300 s"));
            e = x.Get();
            break;
        }
        case 9: {
            Ref<UnixP2VUserScriptCompletedEvent> x(new UnixP2VUserScriptCompletedEvent());
            x->SetReturnCode(i % 3);
            e = x.Get();
            break;
        }
        case 10: {
            Ref<CustomizationSetDefaultWorkgroupEvent> x(new CustomizationSetDefaultWorkgroupEvent());
            x->SetWorkgroup("WORKGROUP");
            e = x.Get();
            break;
        }
        default: {
            Ref<GeneralEvent> x(new GeneralEvent());
            x->SetMessage("Copied " + std::to_string(i * 37) + " MB of " + std::to_string(480 * 1024) + " MB");
            e = x.Get();
            break;
        }
        }
        e->SetKey(100000 + i);
        e->SetChainId(9001 + i / 50);
        e->SetType(i % 12 == 8 ? Event::Type::error : (i % 12 == 6 ? Event::Type::warning : Event::Type::info));
        e->SetCreatedTime(DateTime(2026, 11, 23, 9, i / 60 % 60, i % 60, (i * 7919) % 1000000));
        e->SetUserName("CORP\\operator");
        e->SetFullMessage("Event " + std::to_string(i) + " of the conversion of " + vm + " <job-12>");
        e->SetJob(new Kitra::MoRef("morphel.server.job.Job", "job-12"));
        page->Append(e.Get());
    }
    return page;
}

// ---------------------------------------------------------------------------------------------
// A conversion job: a live Linux source into a managed cluster, four target disks of four volumes,
// two network cards, reconfiguration with prerequisites, customisation, a static helper network,
// throttling.
// ---------------------------------------------------------------------------------------------

Ref<Morphel::Server::Conversion::ConversionJobSpec> JobSpec() {
    using namespace Morphel::Params;
    Ref<Morphel::ComputerSpec::LiveComputerLocation> live(new Morphel::ComputerSpec::LiveComputerLocation());
    live->SetHostname("fileserver-03.example.internal");
    live->SetPort(22);
    live->SetUsername(std::string("root"));
    live->SetPassword(std::string("s3cret & <safe>"));
    live->SetOsType("linuxOs");
    live->SetVerifyPeer(true);
    live->SetSslThumbprint(std::string("5E:2A:91:0C:7B:D4:33:8F:A1:6E:09:C2:47:BB:10:FE:82:3D:59:70"));
    Ref<Morphel::ComputerSpec> source(new Morphel::ComputerSpec());
    source->SetLocation(live.Get());

    Ref<Morphel::DovraConnectionSpec::LoginDovraCredentials> login(new Morphel::DovraConnectionSpec::LoginDovraCredentials());
    login->SetUsername("administrator@example.internal");
    login->SetPassword("another s3cret");
    Ref<Morphel::DovraConnectionSpec> connect(new Morphel::DovraConnectionSpec());
    connect->SetHostname("vcenter.example.internal");
    connect->SetPort(443);
    connect->SetCredentials(login.Get());
    connect->SetVerifyPeer(true);
    connect->SetSslThumbprint(std::string("A4:19:E0:3B:6C:52:8D:F1:07:9A:C3:2E:B5:64:D8:1F:70:4B:A9:2C"));
    Ref<TargetVmSpec::ManagedVmLocation> location(new TargetVmSpec::ManagedVmLocation());
    location->SetDovraConnect(connect.Get());
    location->SetVmFolder(new Kitra::MoRef("kodl.ManagedObject", "group-v22"));
    location->SetHost(new Kitra::MoRef("kodl.ManagedObject", "host-41"));
    location->SetResourcePool(new Kitra::MoRef("kodl.ManagedObject", "resgroup-8"));
    location->SetComputeResource(new Kitra::MoRef("kodl.ManagedObject", "domain-c7"));
    location->SetVmFolderName(std::string("Migrated"));
    location->SetHostName(std::string("esx-2.example.internal"));
    location->SetResourcePoolName(std::string("Resources"));
    location->SetComputeResourceName(std::string("cluster-a"));
    Ref<TargetVmSpec> target(new TargetVmSpec());
    target->SetName("fileserver-03");
    target->SetLocation(location.Get());
    target->SetHardwareVersion(std::string("vmx-19"));

    Ref<StorageParams> storage(new StorageParams());
    storage->SetCloningMode(std::string("volumeBasedCloning"));
    storage->SetDiskControllerType(std::string("scsiLsiLogicSAS"));
    Ref<Kitra::DataArray<StorageParams::TargetDiskParams>> disks(new Kitra::DataArray<StorageParams::TargetDiskParams>());
    for (int d = 0; d < 4; ++d) {
        Ref<StorageParams::ManagedTargetDiskParams> disk(new StorageParams::ManagedTargetDiskParams());
        disk->SetSourceDiskId("disk-" + std::to_string(d));
        disk->SetDiskType(std::string(d == 0 ? "monolithicFlat" : "kelfsMonolithicFlatThinProvisioned"));
        disk->SetLvg(d >= 2);
        disk->SetGpt(true);
        disk->SetDatastoreName("datastore-" + std::to_string(7 + d % 2));
        Ref<Kitra::DataArray<StorageParams::VolumeCloningParams>> volumes(
            new Kitra::DataArray<StorageParams::VolumeCloningParams>());
        for (int v = 0; v < 4; ++v) {
            Ref<StorageParams::VolumeCloningParams> volume(new StorageParams::VolumeCloningParams());
            volume->SetSourceVolumeId("vol-" + std::to_string(d) + "-" + std::to_string(v + 1));
            volume->SetResize(v == 3);
            if (v == 3) volume->SetNewCapacityInBytes(int64_t(512) << 30);
            volume->SetNewClusterSizeInBytes(4096);
            volumes->Append(volume.Get());
        }
        disk->SetVolumesToClone(volumes.Get());
        disks->Append(disk.Get());
    }
    storage->SetTargetDiskParams(disks.Get());
    storage->SetSkipUnwantedFiles(true);
    storage->SetUseBitmapDriver(false);
    storage->SetIntermediateImage(false);
    storage->SetModifiedClustersOnly(false);
    storage->SetResizeRatio(100);
    storage->SetMinVolumeSize(int64_t(1) << 30);
    storage->SetOptimizedPartitionAlignment(true);

    Ref<NetworkParams> network(new NetworkParams());
    network->SetPreserveNicCount(false);
    network->SetPreserveNicMapping(true);
    Ref<Kitra::DataArray<NetworkParams::NicParams>> nics(new Kitra::DataArray<NetworkParams::NicParams>());
    for (const char* name : {"VM Network", "Backup Network"}) {
        Ref<NetworkParams::ManagedNicParams> nic(new NetworkParams::ManagedNicParams());
        nic->SetConnected(true);
        nic->SetNetworkName(std::string(name));
        nics->Append(nic.Get());
    }
    network->SetNic(nics.Get());

    Ref<BasicHardwareParams> hardware(new BasicHardwareParams());
    hardware->SetNumCPUs(8);
    hardware->SetNumCoresPerSocket(4);
    hardware->SetMemoryMB(32768);

    Ref<CloningParams> cloning(new CloningParams());
    cloning->SetTarget(target.Get());
    cloning->SetStorageParams(storage.Get());
    cloning->SetNetworkParams(network.Get());
    cloning->SetBasicHardwareParams(hardware.Get());
    cloning->SetNextBitmapId(std::string("bitmap-0002"));
    cloning->SetSnapshotSource(true);
    cloning->SetPreserveDeviceBacking(false);
    cloning->SetPreserveIdentity(false);
    cloning->SetDoSynchronize(true);
    cloning->SetDoFinalize(false);
    cloning->SetServicesToSuspend(Values<std::string>({"postgresql", "smbd", "nfs-server", "cron"}).Get());
    cloning->SetRetainLimit(2);

    Ref<Morphel::Info::ReconfigPrerequisites> prerequisites(new Morphel::Info::ReconfigPrerequisites());
    Ref<Kitra::DataArray<Morphel::Info::ReconfigPrerequisites::FileToUpdateInfo>> files(
        new Kitra::DataArray<Morphel::Info::ReconfigPrerequisites::FileToUpdateInfo>());
    for (const char* path : {"/etc/fstab", "/etc/default/grub", "/etc/network/interfaces"}) {
        Ref<Morphel::Info::ReconfigPrerequisites::FileToUpdateInfo> file(
            new Morphel::Info::ReconfigPrerequisites::FileToUpdateInfo());
        file->SetPathName(path);
        file->SetVersion(std::string("1"));
        files->Append(file.Get());
    }
    prerequisites->SetFile(files.Get());
    Ref<ReconfigParams> reconfig(new ReconfigParams());
    reconfig->SetPrerequisites(prerequisites.Get());
    Ref<Kitra::DataArray<ServiceChangeRequest>> changes(new Kitra::DataArray<ServiceChangeRequest>());
    for (const char* service : {"smbd", "nfs-server", "backup-agent"}) {
        Ref<ServiceChangeRequest> change(new ServiceChangeRequest());
        change->SetServiceName(service);
        change->SetStartType(service[0] == 'b' ? Morphel::Info::ServiceStartType::disabled
                                               : Morphel::Info::ServiceStartType::manual);
        changes->Append(change.Get());
    }
    reconfig->SetServiceChanges(changes.Get());

    Ref<Dovra::Vm::Customization::Specification> identity(new Dovra::Vm::Customization::Specification());
    identity->SetComputerName("fileserver-03v");
    identity->SetDomain(std::string("example.internal"));
    identity->SetTimeZone(110);
    identity->SetDnsServerList(Values<std::string>({"10.20.0.2", "10.20.0.3"}).Get());
    Ref<CustomizationParams> customization(new CustomizationParams());
    customization->SetSpecification(identity.Get());

    Ref<HelperVmNetworkParams::StaticNetworkParams> helperStatic(new HelperVmNetworkParams::StaticNetworkParams());
    helperStatic->SetHostname("conversion-helper-12");
    helperStatic->SetSubnetMask("255.255.255.0");
    helperStatic->SetGateway(std::string("10.20.0.1"));
    helperStatic->SetDnsServers(Values<std::string>({"10.20.0.2", "10.20.0.3"}).Get());
    helperStatic->SetDnsSuffixes(Values<std::string>({"example.internal"}).Get());
    Ref<HelperVmNetworkParams> helper(new HelperVmNetworkParams());
    helper->SetUseDhcp(false);
    helper->SetStaticNetworkParams(helperStatic.Get());

    Ref<ThrottlingParams> throttling(new ThrottlingParams());
    throttling->SetCpuThrottling(std::string("light"));
    throttling->SetNetworkBandwidthThrottlingInMB(80);

    Ref<Morphel::Info::BootConfigInfo::BootLoaderLocationInfo> bootWhere(
        new Morphel::Info::BootConfigInfo::BootLoaderLocationInfo());
    bootWhere->SetType("grub");
    bootWhere->SetBootDiskId("disk-0");
    bootWhere->SetActiveVolumeId(std::string("vol-0-2"));
    Ref<Morphel::Info::BootConfigInfo::BootLoaderEntrySpec> bootEntry(new Morphel::Info::BootConfigInfo::BootLoaderEntrySpec());
    bootEntry->SetBootLoaderLocation(bootWhere.Get());
    bootEntry->SetEntryNumber(0);

    Ref<ConversionParams> params(new ConversionParams());
    params->SetOsInstanceBootLoaderEntry(bootEntry.Get());
    params->SetDoClone(true);
    params->SetCloningParams(cloning.Get());
    params->SetDoReconfig(true);
    params->SetReconfigParams(reconfig.Get());
    params->SetDoSynchronize(true);
    params->SetDoInstallTools(true);
    params->SetDoCustomize(true);
    params->SetCustomizationParams(customization.Get());
    params->SetDoUninstallAgent(true);
    params->SetPowerOnTargetVM(false);
    params->SetRemoveRestoreCheckpoints(true);
    params->SetHelperVmNetworkParams(helper.Get());
    params->SetThrottlingParams(throttling.Get());

    Ref<Morphel::Server::Conversion::P2VSourceModificationSpec> modification(
        new Morphel::Server::Conversion::P2VSourceModificationSpec());
    modification->SetUninstallAgent(true);
    modification->SetShutdownSource(false);

    Ref<Morphel::Server::Conversion::ConversionJobSpec> spec(new Morphel::Server::Conversion::ConversionJobSpec());
    spec->SetName("Convert fileserver-03");
    spec->SetDescription(std::string("Nightly synchronised conversion of the file server, cut over on Saturday"));
    spec->SetFirstRun(DateTime(2026, 11, 28, 22, 0, 0));
    spec->SetStartSuspended(false);
    spec->SetSource(source.Get());
    spec->SetConversionParams(params.Get());
    spec->SetP2vSourceModificationSpec(modification.Get());
    spec->SetParentFolder(new Kitra::MoRef("morphel.server.conversion.ConversionFolder", "folder-3"));
    spec->SetSynchronizeImmediately(false);
    spec->SetSynchronizationStartTime(DateTime(2026, 11, 29, 2, 30, 0));
    return spec;
}

// ---------------------------------------------------------------------------------------------

// Data objects in a value, nested ones and those inside arrays included.
int64_t CountObjects(const Kitra::Any* value) {
    if (value == nullptr) return 0;
    if (auto* data = dynamic_cast<const Kitra::DataObject*>(value)) {
        int64_t n = 1;
        const Kitra::DataObjectType* type = data->_GetDataType();
        for (size_t i = 0; i < type->GetProperties().size(); ++i) {
            if (!type->IsPropertySet(data, static_cast<int>(i))) continue;
            n += CountObjects(type->GetPropertyValue(data, static_cast<int>(i)).Get());
        }
        return n;
    }
    if (auto* array = dynamic_cast<const Kitra::ArrayBase*>(value)) {
        int64_t n = 0;
        for (size_t i = 0; i < array->GetLength(); ++i) n += CountObjects(array->GetBoxed(i).Get());
        return n;
    }
    return 0;
}

struct Case {
    std::string name;
    Ref<Kitra::Any> value;
    std::string message;
    int64_t objects = 0;
};

const Kitra::Soap::Codec& TheCodec() {
    static const Kitra::Soap::Codec codec(kVersion);
    return codec;
}

void Report(benchmark::State& state, const Case& c) {
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(c.message.size()));
    state.SetItemsProcessed(int64_t(state.iterations()) * c.objects);
    state.counters["bytes"] = double(c.message.size());
}

// The operations, each once over a case, for the timed and the counted runs alike.
void EncodeOnce(const Case& c, std::string& out) {
    out.clear();
    TheCodec().EncodeValue(c.value.Get(), out);
    benchmark::DoNotOptimize(out.data());
}
void CopyOnce(const Case& c, std::string& out) {
    out.clear();
    out.append(c.message);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
}
void DecodeOnce(const Case& c) {
    Kitra::Soap::Message m = TheCodec().Decode(c.message);
    benchmark::DoNotOptimize(m.value.Get());
}

void XMLCALL NoStart(void*, const XML_Char*, const XML_Char**) {}
void XMLCALL NoEnd(void*, const XML_Char*) {}
void XMLCALL NoText(void*, const XML_Char*, int) {}

// The reader's limit: expat parsing the same message, with namespaces, into handlers that do nothing.
bool ExpatOnce(const Case& c) {
    XML_Parser parser = XML_ParserCreateNS("UTF-8", '|');
    XML_SetElementHandler(parser, &NoStart, &NoEnd);
    XML_SetCharacterDataHandler(parser, &NoText);
    XML_Status status = XML_Parse(parser, c.message.data(), static_cast<int>(c.message.size()), XML_TRUE);
    XML_ParserFree(parser);
    return status == XML_STATUS_OK;
}

void Encode(benchmark::State& state, const Case* c) {
    std::string out;
    out.reserve(c->message.size());
    for (auto _ : state) EncodeOnce(*c, out);
    Report(state, *c);
}

// The writer's limit: the same bytes appended to a cleared, reserved buffer.
void Copy(benchmark::State& state, const Case* c) {
    std::string out;
    out.reserve(c->message.size());
    for (auto _ : state) CopyOnce(*c, out);
    Report(state, *c);
}

void Decode(benchmark::State& state, const Case* c) {
    for (auto _ : state) DecodeOnce(*c);
    Report(state, *c);
}

void ExpatOnly(benchmark::State& state, const Case* c) {
    for (auto _ : state) {
        if (!ExpatOnce(*c)) {
            state.SkipWithError("expat refused the message");
            break;
        }
    }
    Report(state, *c);
}

std::vector<Case>& Cases() {
    static std::vector<Case> cases;
    return cases;
}

void AddCase(const std::string& name, Ref<Kitra::Any> value) {
    Case c;
    c.name = name;
    c.value = value;
    TheCodec().EncodeValue(value.Get(), c.message);
    // Counted on what the reader builds, so that only what the message carries is counted.
    Kitra::Soap::Message back = TheCodec().Decode(c.message);
    if (!back.value->_IsEqual(value.Get(), false)) throw std::runtime_error(name + " does not read back equal");
    c.objects = CountObjects(back.value.Get());
    Cases().push_back(std::move(c));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        AddCase("HardwareInfo", Ref<Kitra::Any>(HardwareInfo().Get()));
        AddCase("EventPage", Ref<Kitra::Any>(EventPage().Get()));
        AddCase("ConversionJobSpec", Ref<Kitra::Any>(JobSpec().Get()));
    } catch (const Kitra::Fault::InvalidRequest::Exception& e) {
        Kitra::Fault::InvalidRequest* fault = e.GetFault();
        std::fprintf(stderr, "soap_bench: the reader refused a message: %s @ %s\n", fault->GetReason().c_str(),
                     fault->GetInvalidProperty().IsSet() ? fault->GetInvalidProperty().GetValue().c_str() : "");
        return 1;
    } catch (const Fundix::Exception& e) {
        std::fprintf(stderr, "soap_bench: %s\n", e.GetMessage().c_str());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "soap_bench: %s\n", e.what());
        return 1;
    }
    std::vector<Limits::Pair> pairs;
    std::vector<Limits::Counted> counted;
    static std::string out;
    for (const Case& c : Cases()) {
        std::fprintf(stderr, "%s: %zu bytes, %lld data objects\n", c.name.c_str(), c.message.size(),
                     static_cast<long long>(c.objects));
        benchmark::RegisterBenchmark(("Encode/" + c.name).c_str(), Encode, &c);
        benchmark::RegisterBenchmark(("Copy/" + c.name).c_str(), Copy, &c);
        benchmark::RegisterBenchmark(("Decode/" + c.name).c_str(), Decode, &c);
        benchmark::RegisterBenchmark(("ExpatOnly/" + c.name).c_str(), ExpatOnly, &c);
        pairs.push_back({"Decode/" + c.name, "ExpatOnly/" + c.name, 1.25});
        pairs.push_back({"Encode/" + c.name, "Copy/" + c.name, 0});
        counted.push_back({"Encode/" + c.name, 10, [&c] { EncodeOnce(c, out); }});
        counted.push_back({"Decode/" + c.name, 10, [&c] { DecodeOnce(c); }});
        counted.push_back({"ExpatOnly/" + c.name, 10, [&c] { ExpatOnce(c); }});
    }
    return Limits::Main(argc, argv, pairs, counted);
}
