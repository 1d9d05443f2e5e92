#include <morphel/MorphelTypesUtil.h>

namespace Morphel::MorphelTypesUtil {

namespace {

// The first element of `array` whose identifier (read by `id`) equals `wanted`, or null.
template <class T, class Id>
T* FindFirst(Kitra::DataArray<T>* array, const std::string& wanted, Id id) {
    if (array == nullptr) return nullptr;
    // The length is read again after each element, as the array's own owner might.
    for (size_t i = 0; i < array->GetLength(); ++i) {
        T* element = array->Get(i);
        if (element != nullptr && id(*element) == wanted) return element;
    }
    return nullptr;
}

Info::StorageInfo* StorageOf(const Info::ComputerHardwareInfo* hardware) {
    return hardware != nullptr ? hardware->GetStorage() : nullptr;
}

}  // namespace

Info::StorageInfo::VolumeInfo* FindVolumeInfoById(Info::ComputerHardwareInfo* hardware, const std::string& volumeId) {
    Info::StorageInfo* storage = StorageOf(hardware);
    if (storage == nullptr) return nullptr;
    return FindFirst(storage->GetVolume(), volumeId,
                     [](const Info::StorageInfo::VolumeInfo& v) -> const std::string& { return v.GetVolumeId(); });
}

Info::StorageInfo::DiskInfo* FindDiskInfoById(Info::ComputerHardwareInfo* hardware, const std::string& diskId) {
    Info::StorageInfo* storage = StorageOf(hardware);
    if (storage == nullptr) return nullptr;
    return FindFirst(storage->GetDisk(), diskId,
                     [](const Info::StorageInfo::DiskInfo& d) -> const std::string& { return d.GetDiskId(); });
}

Params::StorageParams::VolumeCloningParams* FindVolumeCloningParamsById(Params::ConversionParams* params,
                                                                       const std::string& volumeId) {
    Params::CloningParams* cloning = params != nullptr ? params->GetCloningParams() : nullptr;
    Params::StorageParams* storage = cloning != nullptr ? cloning->GetStorageParams() : nullptr;
    auto* disks = storage != nullptr ? storage->GetTargetDiskParams() : nullptr;
    if (disks == nullptr) return nullptr;
    size_t diskCount = disks->GetLength();
    for (size_t d = 0; d < diskCount; ++d) {
        Params::StorageParams::TargetDiskParams* disk = disks->Get(d);
        auto* volumes = disk != nullptr ? disk->GetVolumesToClone() : nullptr;
        if (volumes == nullptr) continue;
        size_t volumeCount = volumes->GetLength();
        for (size_t v = 0; v < volumeCount; ++v) {
            Params::StorageParams::VolumeCloningParams* volume = volumes->Get(v);
            if (volume != nullptr && volume->GetSourceVolumeId() == volumeId) return volume;
        }
    }
    return nullptr;
}

Agent::Params::StorageMapping::VolumeMapping* FindVolumeMappingById(Agent::Params::AgentCloningParams* params,
                                                                    const std::string& volumeId) {
    Agent::Params::StorageMapping* mapping = params != nullptr ? params->GetStorageMapping() : nullptr;
    if (mapping == nullptr) return nullptr;
    return FindFirst(mapping->GetVolumeMapping(), volumeId,
                     [](const Agent::Params::StorageMapping::VolumeMapping& m) -> const std::string& {
                         return m.GetSourceVolumeId();
                     });
}

bool HasGptDisk(const Info::ComputerHardwareInfo* hardware) {
    constexpr uint8_t kGptProtective = 0xEE;
    Info::StorageInfo* storage = StorageOf(hardware);
    auto* volumes = storage != nullptr ? storage->GetVolume() : nullptr;
    if (volumes == nullptr) return false;
    for (size_t i = 0; i < volumes->GetLength(); ++i) {
        Info::StorageInfo::VolumeInfo* volume = volumes->Get(i);
        if (volume == nullptr || !volume->GetPartitionType().IsSet()) continue;
        // The partition type is a signed byte; compare its bit pattern.
        if (static_cast<uint8_t>(volume->GetPartitionType().GetValue()) == kGptProtective) return true;
    }
    return false;
}

}  // namespace Morphel::MorphelTypesUtil
