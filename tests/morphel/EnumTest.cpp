// The enumerations: their registered value texts, and conversion between texts and values.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include <fundix/Exception.h>
#include <kitra/Kitra.h>
#include <morphel/agent/internal/types.h>
#include <morphel/info/types.h>
#include <morphel/server/job/types.h>
#include <morphel/server/protection/types.h>
#include <morphel/task/types.h>
#include <morphel/types.h>

#include "Values.h"

namespace {

using State = Morphel::Task::TaskInfo::State;

// The message of the InvalidArgumentException `f` raised.
template <class F>
std::string InvalidArgumentMessage(F&& f) {
    return Values::Raised<Fundix::InvalidArgumentException>(f).value().what();
}

// Conversion both ways and the refusals are checked for every enumeration below, and the typed helpers on a
// hand-made one in the object model's tests; here the exported constants and a box of another enumeration.
TEST(EnumTest, ConstantsAndForeignBoxesOfTaskState) {
    const char* const constants[] = {Morphel::Task::TaskInfo::STATE_QUEUED, Morphel::Task::TaskInfo::STATE_RUNNING,
                                     Morphel::Task::TaskInfo::STATE_SUCCESS, Morphel::Task::TaskInfo::STATE_ERROR};
    EXPECT_EQ(Kitra::GetType<State>()->AsEnumType()->GetValues(),
              std::vector<std::string>(constants, constants + 4));
    Fundix::Ref<Kitra::Any> foreign(new Kitra::Primitive<Morphel::Server::Job::JobInfo::State>(
        Morphel::Server::Job::JobInfo::State::active));
    EXPECT_THROW(Kitra::GetType<State>()->AsEnumType()->BoxedValueToText(foreign.Get()), Fundix::TypeMismatchException);
}

TEST(EnumTest, EveryEnumerationAsRegistered) {
    struct Row {
        const char* wireName;
        int version;
        const char* values;  // in declaration order; null where the texts are the implementer's
        size_t count;
    };
    const Row rows[] = {
        {"morphel.ComputerSpec.HostedVmLocation.VmType", 1,
         "tarnVM microsoftVirtualPCVM parallelsVM tarnQuillBackup livestateBackup shadowProtectBackup acronisBackup", 7},
        {"morphel.DiagnosticManager.BundleContent", 1,
         "agentLogs agentDeploymentLogs sysinfoLogs serverLogs clientLogs helperVMLogs workerLogs", 7},
        {"morphel.DiagnosticManager.BundleFormat", 1, "zip", 1},
        {"morphel.QueryManager.AgentAvailabilityResult", 1, "available rebootRequired hyperVNotSupported", 3},
        {"morphel.agent.internal.CompatibilityError", 1,
         "IMPORT_SLAVE_INCOMPATIBLE IMPORT_SOURCE_MANAGED_HOST_NOT_FOUND IMPORT_SOURCE_MANAGED_HOST_BAD_CREDENTIALS "
         "IMPORT_SOURCE_MANAGED_HOST_NO_PERMISSION IMPORT_SOURCE_HOST_NOT_CONNECTED IMPORT_SOURCE_V2I_NO_IMPORT "
         "IMPORT_SOURCE_VPC_CONFIG_FILE_PARSE_ERROR IMPORT_DEST_MANAGED_HOST_NOT_FOUND "
         "IMPORT_DEST_MANAGED_HOST_BAD_CREDENTIALS IMPORT_DEST_MANAGED_HOST_NO_PERMISSION IMPORT_DEST_ALREADY_EXISTS "
         "IMPORT_DEST_NO_PERMISSION IMPORT_DEST_NOT_FOUND IMPORT_DEST_INCOMPATIBLE_DISK_TYPE "
         "IMPORT_DEST_DOWN_HW_LEVEL_LINK IMPORT_DEST_UP_HW_LEVEL_LINK IMPORT_DEST_HOST_NOT_FOUND "
         "IMPORT_DEST_HOST_NOT_UNIQUE IMPORT_DEST_RESOURCE_POOL_NOT_FOUND IMPORT_DEST_DATASTORE_NOT_FOUND "
         "IMPORT_DEST_FOLDER_NOT_FOUND IMPORT_DEST_HOST_MAINTENANCE_MODE IMPORT_DEST_HOST_NOT_CONNECTED "
         "IMPORT_DEST_NO_FOREIGN_FORMAT_LINK IMPORT_DEST_VHD_DISK_AND_VOLUME_SELECTION "
         "CUSTOMIZATION_SYSPREP_FILES_INCOMPATIBLE IMPORT_DEST_DATASTORE_READONLY_FOR_HOST IMPORT_INCOMPATIBLE "
         "TOTAL_COMPATIBILITY_ERROR_VALUES",
         29},
        {"morphel.agent.internal.DiskAttachPoint.BusType", 1, "IDE SCSI", 2},
        {"morphel.agent.internal.DiskAttachPoint.Origin", 1,
         "FROM_CONFIG_INFO EXPLICITLY_REQUESTED ALLOCATED_AS_FIRST_FREE CHANGED_BUS_TYPE CHANGED_INVALID_BUS_OR_UNIT "
         "CHANGED_TO_AVOID_DUPLICATE SHIFTED_TO_MAINTAIN_BOOT_ORDER",
         7},
        {"morphel.agent.internal.OsInfo.OsFamily", 1,
         "NO_OS WINDOWS WIN9X_DOS LINUX NETWARE SOLARIS FREEBSD OS2 DARWIN OTHER", 10},
        {"morphel.event.Event.Type", 1, "info warning error", 3},
        {"morphel.info.BootConfigInfo.BootLoaderType", 1, "bootIni bcd grub", 3},
        {"morphel.info.ComputerOsInfo.OsType", 1, "otherOs windowsOs linuxOs solarisOs", 4},
        {"morphel.info.ComputerOsInfo.OsVersion.OsDistribution", 1,
         "otherDistro redHatDistro redHatEnterpriseLinuxDistro openSuseDistro suseLinuxEnterpriseDistro ubuntuDistro",
         6},
        {"morphel.info.DiskAttachPoint.ControllerType", 1, "ide scsi", 2},
        {"morphel.info.HyperVInventoryInfo.HyperVInventoryVirtualMachineItem.PowerState", 1,
         "poweredOn poweredOff suspended busy unknown", 5},
        {"morphel.info.NetworkInfo.HostedNicInfo.ConnectionType", 1, "bridged nat hostonly", 3},
        {"morphel.info.PropertyInfo.SeverityLevel", 1, "info warning error", 3},
        {"morphel.info.ReconfigPrerequisites.HotfixType", 1, "hotfixOrServicePack plainFile", 2},
        {"morphel.info.ServiceInfo.ServiceState", 1,
         "stopped startPending stopPending running continuePending pausePending paused", 7},
        {"morphel.info.ServiceStartType", 1, "autoStart bootStart systemStart manual disabled", 5},
        {"morphel.info.SnapshotInfo.BackupType", 1, "fullP2V incrementalP2V", 2},
        {"morphel.info.SnapshotInfo.SnapshotType", 1, "backupSnapshot bootableSnapshot regular", 3},
        {"morphel.info.SupportedSources.SourceType", 1, "local live managed hosted ovf hyperv", 6},
        {"morphel.info.SupportedTargets.ProductType", 1, "hosted managed ovf", 3},
        {"morphel.params.StorageParams.CloningMode", 1,
         "diskBasedCloning volumeBasedCloning linkedClone writeToSourceDisk", 4},
        {"morphel.params.StorageParams.DiskControllerType", 1,
         "keepSource ide scsiBusLogic scsiLsiLogic scsiLsiLogicSAS", 5},
        {"morphel.params.StorageParams.DiskCreateType", 1,
         "monolithicFlat monolithicSparse twoGbFlat twoGbSparse kelfsMonolithicFlat kelfsMonolithicFlatThinProvisioned "
         "kelfsTwoGbFlat kelfsTwoGbFlatThinProvisioned compressedQDSK",
         9},
        {"morphel.params.TargetVmSpec.ProductVersion", 1, nullptr, 9},
        {"morphel.params.ThrottlingParams.CpuThrottling", 2, "none light medium", 3},
        {"morphel.server.AgentManager.DeploymentStatus", 1, "completed rebootRequired rebootInitiated", 3},
        {"morphel.server.ManagedEntity.Status", 2, "green yellow red gray", 4},
        {"morphel.server.job.Job.ActiveTaskHandling", 2, "failIfActiveTask cancelActiveTask", 2},
        {"morphel.server.job.JobFilterSpec.TimeOption", 1, "createdTime lastRunStartedTime lastRunCompletedTime", 3},
        {"morphel.server.job.JobInfo.State", 2, "active suspended deactivated", 3},
        {"morphel.server.protection.ProtectionJob.RunSpec.BackupType", 2, "Full Incremental", 2},
        {"morphel.server.protection.TargetStatistics.BandwidthUsageStatus", 1, "green yellow red", 3},
        {"morphel.tallow.VmProtectionInfo.ReplicationMechanism", 2, "none sanReplication lumaReplication", 3},
        {"morphel.task.TaskFilterSpec.TimeOption", 1, "queuedTime startedTime completedTime", 3},
        {"morphel.task.TaskInfo.State", 1, "queued running success error", 4},
    };

    std::set<std::string> expectedNames;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.wireName);
        expectedNames.insert(row.wireName);
        Kitra::Type* type = Kitra::GetTypeMap()->GetType(row.wireName);
        ASSERT_NE(type, nullptr);
        ASSERT_EQ(type->GetKind(), Kitra::kKindEnum);
        EXPECT_EQ(type->GetVersion(), "morphel.version.version" + std::to_string(row.version));
        Kitra::EnumType* e = type->AsEnumType();
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->GetValues().size(), row.count);
        std::string joined;
        for (const std::string& v : e->GetValues())
            joined += (joined.empty() ? "" : " ") + v;
        EXPECT_EQ(joined, row.values != nullptr ? std::string(row.values) : joined);
    }

    // Every registered enumeration is one of these, and each converts both ways for all its values.
    std::set<std::string> registered;
    for (Kitra::Type* type : Kitra::GetTypeMap()->GetTypes()) {
        if (type->GetKind() != Kitra::kKindEnum || std::string(type->GetName()).rfind("morphel.", 0) != 0) continue;
        SCOPED_TRACE(type->GetName());
        registered.insert(type->GetName());
        Kitra::EnumType* e = type->AsEnumType();
        ASSERT_NE(e, nullptr);
        EXPECT_FALSE(e->IsValidText(""));
        EXPECT_EQ(InvalidArgumentMessage([&] { e->TextToValue(""); }), "");
        const auto& values = e->GetValues();
        EXPECT_EQ(std::set<std::string>(values.begin(), values.end()).size(), values.size()) << "repeated text";
        for (size_t i = 0; i < values.size(); ++i) {
            EXPECT_EQ(e->TextToValue(values[i]), static_cast<int32_t>(i));
            EXPECT_EQ(e->ValueToText(static_cast<int32_t>(i)), values[i]);
            Fundix::Ref<Kitra::Any> box = e->CreateBox(static_cast<int32_t>(i));
            EXPECT_EQ(box->_GetType(), type);
            EXPECT_EQ(e->BoxedValueToText(box.Get()), values[i]);
        }
        const int32_t past = static_cast<int32_t>(values.size());
        EXPECT_EQ(InvalidArgumentMessage([&] { e->ValueToText(past); }), std::to_string(past));
        Fundix::Ref<Kitra::ArrayBase> array = e->CreateArray();
        ASSERT_TRUE(array);
        EXPECT_EQ(array->GetElementType(), type);
    }
    EXPECT_EQ(registered, expectedNames);
}

}  // namespace
