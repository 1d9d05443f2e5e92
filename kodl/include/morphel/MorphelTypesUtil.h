// Lookups over conversion records: find an entry of a record tree by its identifier.
//
// Every function takes the root by pointer, changes nothing and returns a borrowed pointer into the tree
// (no reference is added: keep the root alive while using the result). A null root, a null record on the
// way or an absent or empty array means "not found". Entries are visited in array order and the first
// whose identifier equals the argument exactly (case-sensitive) wins.
#pragma once

#include <string>

#include <morphel/agent/params/types.h>
#include <morphel/info/types.h>
#include <morphel/params/types.h>

namespace Morphel::MorphelTypesUtil {

// The volume of the hardware's storage whose "volumeId" is `volumeId`.
Morphel::Info::StorageInfo::VolumeInfo* FindVolumeInfoById(Morphel::Info::ComputerHardwareInfo* hardware,
                                                           const std::string& volumeId);

// The disk of the hardware's storage whose "diskId" is `diskId`.
Morphel::Info::StorageInfo::DiskInfo* FindDiskInfoById(Morphel::Info::ComputerHardwareInfo* hardware,
                                                       const std::string& diskId);

// The volume to clone whose "sourceVolumeId" is `volumeId`, searching target disk by target disk; a disk
// without volumes to clone is passed over.
Morphel::Params::StorageParams::VolumeCloningParams* FindVolumeCloningParamsById(
    Morphel::Params::ConversionParams* params, const std::string& volumeId);

// The volume mapping of the cloning parameters' storage mapping whose "sourceVolumeId" is `volumeId`.
Morphel::Agent::Params::StorageMapping::VolumeMapping* FindVolumeMappingById(
    Morphel::Agent::Params::AgentCloningParams* params, const std::string& volumeId);

// True when some volume of the hardware's storage has the partition type of a GPT protective partition
// (0xEE). Only volumes are looked at: a GPT disk without volumes answers false.
bool HasGptDisk(const Morphel::Info::ComputerHardwareInfo* hardware);

}  // namespace Morphel::MorphelTypesUtil
