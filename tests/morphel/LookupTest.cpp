// The lookup utilities over hardware descriptions, conversion parameters and agent cloning parameters.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include <morphel/MorphelTypesUtil.h>

namespace {

using Fundix::Ref;
using Morphel::Info::ComputerHardwareInfo;
using Morphel::Info::StorageInfo;
using Morphel::Params::StorageParams;
namespace Util = Morphel::MorphelTypesUtil;

// An array of records of class T, one per identifier, each given its identifier through `set`.
template <class T>
Ref<Kitra::DataArray<T>> Items(std::initializer_list<const char*> ids, void (T::*set)(const std::string&)) {
    Ref<Kitra::DataArray<T>> array(new Kitra::DataArray<T>());
    for (const char* id : ids) {
        Ref<T> item(new T());
        (item.Get()->*set)(id);
        array->Append(item.Get());
    }
    return array;
}

// Hardware whose storage has volumes with these ids (and partition types, where given).
Ref<ComputerHardwareInfo> Hardware(std::initializer_list<std::pair<std::string, int>> volumes, bool withArray = true) {
    Ref<StorageInfo> storage(new StorageInfo());
    if (withArray) {
        auto array = Items<StorageInfo::VolumeInfo>({}, &StorageInfo::VolumeInfo::SetVolumeId);
        for (const auto& [id, type] : volumes) {
            Ref<StorageInfo::VolumeInfo> v(new StorageInfo::VolumeInfo());
            v->SetVolumeId(id);
            if (type >= 0) v->SetPartitionType(static_cast<int8_t>(type));
            array->Append(v.Get());
        }
        storage->SetVolume(array.Get());
        storage->SetDisk(Items({"disk-0", "disk-1", "disk-1"}, &StorageInfo::DiskInfo::SetDiskId).Get());
    }
    Ref<ComputerHardwareInfo> hardware(new ComputerHardwareInfo());
    hardware->SetStorage(storage.Get());
    return hardware;
}

TEST(Lookup, VolumesAndDisksOfHardware) {
    Ref<ComputerHardwareInfo> hw = Hardware({{"C:", -1}, {"D:", -1}, {"C:", -1}});
    auto* volumes = hw->GetStorage()->GetVolume();
    EXPECT_EQ(Util::FindVolumeInfoById(hw.Get(), "D:"), volumes->Get(1));
    EXPECT_EQ(Util::FindVolumeInfoById(hw.Get(), "C:"), volumes->Get(0));  // the lower index wins
    EXPECT_EQ(Util::FindVolumeInfoById(hw.Get(), "c:"), nullptr);          // case matters
    EXPECT_EQ(Util::FindDiskInfoById(hw.Get(), "disk-1"), hw->GetStorage()->GetDisk()->Get(1));
    EXPECT_EQ(Util::FindDiskInfoById(hw.Get(), "disk-2"), nullptr);

    // Nothing to search: no root, no storage, an absent array, an empty one.
    Ref<ComputerHardwareInfo> bare(new ComputerHardwareInfo());
    EXPECT_EQ(Util::FindDiskInfoById(bare.Get(), "disk-0"), nullptr);
    for (const Ref<ComputerHardwareInfo>& none :
         {Ref<ComputerHardwareInfo>(), bare, Hardware({}, false), Hardware({})}) {
        EXPECT_EQ(Util::FindVolumeInfoById(none.Get(), "C:"), nullptr);
        EXPECT_FALSE(Util::HasGptDisk(none.Get()));
    }
}

TEST(Lookup, GptIsRecognisedFromVolumesOnly) {
    EXPECT_TRUE(Util::HasGptDisk(Hardware({{"C:", 0x07}, {"EFI", 0xEE}}).Get()));  // 0xEE held as a signed byte
    EXPECT_FALSE(
        Util::HasGptDisk(Hardware({{"C:", 0x07}, {"D:", -1}}).Get()));  // unset types are passed over

    // A disk flagged as GPT but without volumes still answers false.
    Ref<ComputerHardwareInfo> hw = Hardware({});
    hw->GetStorage()->GetDisk()->Get(0)->SetGpt(true);
    EXPECT_FALSE(Util::HasGptDisk(hw.Get()));
}

Ref<StorageParams::TargetDiskParams> TargetDisk(std::initializer_list<const char*> sourceVolumes, bool withArray) {
    Ref<StorageParams::TargetDiskParams> disk(new StorageParams::TargetDiskParams());
    if (withArray)
        disk->SetVolumesToClone(
            Items(sourceVolumes, &StorageParams::VolumeCloningParams::SetSourceVolumeId).Get());
    return disk;
}

TEST(Lookup, VolumesToCloneAcrossTargetDisks) {
    Ref<Kitra::DataArray<StorageParams::TargetDiskParams>> disks(new Kitra::DataArray<StorageParams::TargetDiskParams>());
    disks->Append(TargetDisk({}, false).Get());  // no volumes to clone: passed over, not the end
    disks->Append(TargetDisk({}, true).Get());   // an empty list likewise
    disks->Append(TargetDisk({"C:", "D:"}, true).Get());
    disks->Append(TargetDisk({"D:"}, true).Get());
    Ref<StorageParams> storage(new StorageParams());
    storage->SetTargetDiskParams(disks.Get());
    Ref<Morphel::Params::CloningParams> cloning(new Morphel::Params::CloningParams());
    cloning->SetStorageParams(storage.Get());
    Ref<Morphel::Params::ConversionParams> params(new Morphel::Params::ConversionParams());
    params->SetCloningParams(cloning.Get());

    EXPECT_EQ(Util::FindVolumeCloningParamsById(params.Get(), "C:"), disks->Get(2)->GetVolumesToClone()->Get(0));
    EXPECT_EQ(Util::FindVolumeCloningParamsById(params.Get(), "D:"), disks->Get(2)->GetVolumesToClone()->Get(1));
    EXPECT_EQ(Util::FindVolumeCloningParamsById(params.Get(), "E:"), nullptr);

    Ref<Morphel::Params::ConversionParams> empty(new Morphel::Params::ConversionParams());
    EXPECT_EQ(Util::FindVolumeCloningParamsById(empty.Get(), "C:"), nullptr);
    EXPECT_EQ(Util::FindVolumeCloningParamsById(nullptr, "C:"), nullptr);
}

TEST(Lookup, VolumeMappingsOfAgentCloningParams) {
    using Morphel::Agent::Params::StorageMapping;
    auto mappings = Items({"vol-a", "vol-b", "vol-a"}, &StorageMapping::VolumeMapping::SetSourceVolumeId);
    Ref<StorageMapping> mapping(new StorageMapping());
    mapping->SetVolumeMapping(mappings.Get());
    Ref<Morphel::Agent::Params::AgentCloningParams> params(new Morphel::Agent::Params::AgentCloningParams());
    EXPECT_EQ(Util::FindVolumeMappingById(params.Get(), "vol-a"), nullptr);  // no storage mapping yet
    params->SetStorageMapping(mapping.Get());
    EXPECT_EQ(Util::FindVolumeMappingById(params.Get(), "vol-a"), mappings->Get(0));
    EXPECT_EQ(Util::FindVolumeMappingById(params.Get(), "vol-b"), mappings->Get(1));
    EXPECT_EQ(Util::FindVolumeMappingById(params.Get(), "vol-c"), nullptr);
}

}  // namespace
