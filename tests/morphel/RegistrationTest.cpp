// What the library leaves in the process-wide maps once it is loaded; the enumerations' registered value
// texts, and conversion between texts and values.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
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

#include "../soap/Wire.h"

namespace {

const std::string kSourcePrefix = "sysimage/kodl/morphel/";

std::map<std::string, const Kitra::Module*> MorphelModules() {
    std::map<std::string, const Kitra::Module*> modules;
    for (const Kitra::Module* m : Kitra::GetTypeMap()->GetModules())
        if (m->source.rfind(kSourcePrefix, 0) == 0) modules[m->source.substr(kSourcePrefix.size())] = m;
    return modules;
}

TEST(RegistrationTest, ModulesHoldTheirTypesInCatalogueOrder) {
    struct Row {
        const char* path;  // between the common prefix and "/types"; empty for the root module
        size_t types;
    };
    const Row rows[] = {
        {"", 32},           {"agent", 7},          {"agent/helper", 9},     {"agent/params", 6},
        {"agent/task", 1},  {"agent/internal", 76}, {"agent/internal/fault", 26},
        {"event", 185},     {"internal", 3},       {"fault", 142},          {"info", 56},
        {"ovf", 10},        {"params", 39},        {"propertyInfo", 31},    {"server", 7},
        {"server/conversion", 8}, {"server/job", 11}, {"server/protection", 15},
        {"tallow", 7},      {"worker", 4},         {"task", 17},
    };
    const auto modules = MorphelModules();
    EXPECT_EQ(modules.size(), 21u);

    size_t managed = 0;
    std::set<const Kitra::Type*> seen;
    for (const Row& row : rows) {
        const std::string path = std::string(row.path);
        const std::string source = path.empty() ? "types" : path + "/types";
        SCOPED_TRACE(source);
        auto it = modules.find(source);
        ASSERT_NE(it, modules.end());
        const auto& types = it->second->types;
        EXPECT_EQ(types.size(), row.types);

        // Managed types first, enumerations last, data objects and faults between them.
        auto rank = [](const Kitra::Type* t) {
            return t->GetKind() == Kitra::kKindManaged ? 0 : t->GetKind() == Kitra::kKindEnum ? 2 : 1;
        };
        EXPECT_TRUE(std::is_sorted(types.begin(), types.end(),
                                   [&](const Kitra::Type* a, const Kitra::Type* b) { return rank(a) < rank(b); }));

        std::string wirePrefix = "morphel.";
        for (char c : path) wirePrefix += c == '/' ? '.' : c;
        if (!path.empty()) wirePrefix += '.';
        for (const Kitra::Type* t : types) {
            EXPECT_TRUE(seen.insert(t).second) << t->GetName() << " registered in two modules";
            EXPECT_EQ(std::string(t->GetName()).rfind(wirePrefix, 0), 0u) << t->GetName();
            EXPECT_EQ(Kitra::GetTypeMap()->GetType(t->GetName()), t);
            EXPECT_EQ(Kitra::GetTypeMap()->GetTypeByWsdlName(t->GetWsdlName()), t) << t->GetWsdlName();
            if (t->GetKind() == Kitra::kKindManaged) ++managed;
            if (path.ends_with("fault")) {
                EXPECT_EQ(t->GetKind(), Kitra::kKindFault) << t->GetName();
            }
        }
    }
    EXPECT_EQ(managed, 31u);  // the enumerations have their own table below
}

TEST(RegistrationTest, VersionsAndTheirInclusions) {
    const Kitra::VersionMap* map = Kitra::GetVersionMap();
    const auto versions = map->GetVersions();
    EXPECT_EQ(versions.size(), 28u);
    for (const Kitra::Version* v : versions) {
        EXPECT_FALSE(v->flag1) << v->name;
        EXPECT_FALSE(v->flag2) << v->name;
        EXPECT_EQ(v->taskType, "dovra.Task") << v->name;
        EXPECT_TRUE(map->IsIncluded(v->name, v->name)) << v->name << " does not include itself";
    }

    struct Row {
        const char* name;
        const char* wireNamespace;
        const char* versionString;
        const char* serviceNamespace;
    };
    const Row rows[] = {
        {"kodl.query.version.version1", "", "", "dovra25"}, {"kodl.query.version.version4", "", "", "dovra25"},
        {"kodl.version.version0", "", "", "dovra25"},       {"kodl.version.version2", "", "", "dovra25"},
        {"dovra.version.version1", "dovra2", "2.0", "dovra25"},
        {"dovra.version.version3", "dovra25", "2.5u2", "dovra25"},
        {"dovra.version.version4", "dovra25", "2.5u2server", "dovra25"},
        {"dovra.version.version8", "dovra25", "5.1", "dovra25"},
        {"kodl.reflect.version.version1", "reflect", "1.0", "reflect"},
        {"morphel.version.version1", "morphel", "1.0", "morphel"},
        {"morphel.version.version2", "morphel", "2.0", "morphel"},
        {"morphel.version.version3", "morphel", "3.0", "morphel"},
        {"morphel.version.version4", "morphel", "4.0", "morphel"},
    };
    for (const Row& row : rows) {
        const Kitra::Version* v = map->GetVersion(row.name);
        ASSERT_NE(v, nullptr) << row.name;
        EXPECT_EQ(v->wireNamespace, row.wireNamespace) << row.name;
        EXPECT_EQ(v->versionString, row.versionString) << row.name;
        EXPECT_EQ(v->serviceNamespace, row.serviceNamespace) << row.name;
    }

    // The eight named feature versions of the base interface.
    size_t features = 0;
    for (const Kitra::Version* v : versions) {
        if (v->name.rfind("dovra.version.", 0) != 0 || v->name.rfind("dovra.version.version", 0) == 0) continue;
        ++features;
        EXPECT_EQ(v->wireNamespace, "dovra25") << v->name;
        EXPECT_TRUE(map->IsIncluded(v->name, "dovra.version.version5")) << v->name;
    }
    EXPECT_EQ(features, 8u);

    const std::string q = "kodl.query.version.version", k = "kodl.version.version", d = "dovra.version.version",
                      r1 = "kodl.reflect.version.version1", m = "morphel.version.version";
    const std::map<std::string, std::vector<std::string>> includes = {
        {m + "1", {q + "1", q + "2", k + "0", k + "1", d + "1", d + "2", d + "3", m + "1"}},
        {m + "2", {q + "1", q + "2", q + "3", k + "0", k + "1", d + "1", d + "2", d + "3", d + "4", d + "5", d + "6",
                   m + "1", m + "2"}},
        {m + "3", {q + "1", q + "2", q + "3", q + "4", k + "0", k + "1", k + "2", d + "1", d + "2", d + "3", d + "4",
                   d + "5", d + "6", d + "7", r1, m + "1", m + "2", m + "3"}},
        {m + "4", {q + "1", q + "2", q + "3", q + "4", k + "0", k + "1", k + "2", d + "1", d + "2", d + "3", d + "4",
                   d + "5", d + "6", d + "7", d + "8", r1, m + "1", m + "2", m + "3", m + "4"}},
        {r1, {k + "0", k + "1", k + "2", r1}},
        {d + "5", {q + "1", q + "2", k + "0", k + "1", d + "1", d + "2", d + "3", d + "4", d + "5"}},
        {q + "3", {q + "1", q + "2", q + "3", k + "0", k + "1"}},
    };
    for (const auto& [name, expected] : includes) {
        const Kitra::Version* v = map->GetVersion(name);
        ASSERT_NE(v, nullptr) << name;
        EXPECT_EQ(std::multiset<std::string>(v->includes.begin(), v->includes.end()),
                  std::multiset<std::string>(expected.begin(), expected.end()))
            << name;
        if (name.rfind(m, 0) == 0) {
            EXPECT_EQ(v->includes, expected) << name << ": order of addition";
        }
    }
    EXPECT_TRUE(map->IsIncluded(m + "1", d + "3"));
    EXPECT_FALSE(map->IsIncluded(m + "3", d + "8"));
}

// Every record's instances name their type (RecordTest); here a type reached by its class and by its name.
TEST(RegistrationTest, TypeLookupByClassAndByName) {
    EXPECT_EQ(Kitra::GetTypeMap()->GetType("morphel.ComputerSpec.LiveComputerLocation"),
              Kitra::GetType<Morphel::ComputerSpec::LiveComputerLocation>());
    EXPECT_STREQ(Kitra::GetType<Morphel::Task::TaskInfo::State>()->GetWsdlName(), "MorphelTaskInfoState");
}

using State = Morphel::Task::TaskInfo::State;

// The message of the InvalidArgumentException `f` raised.
template <class F>
std::string InvalidArgumentMessage(F&& f) {
    return WireTest::Raised<Fundix::InvalidArgumentException>(f).value().what();
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
        const char* values;  // in declaration order; null where the texts are the implementer's (nine)
    };
    const Row rows[] = {
        {"morphel.ComputerSpec.HostedVmLocation.VmType", 1,
         "tarnVM microsoftVirtualPCVM parallelsVM tarnQuillBackup livestateBackup shadowProtectBackup acronisBackup"},
        {"morphel.DiagnosticManager.BundleContent", 1,
         "agentLogs agentDeploymentLogs sysinfoLogs serverLogs clientLogs helperVMLogs workerLogs"},
        {"morphel.DiagnosticManager.BundleFormat", 1, "zip"},
        {"morphel.QueryManager.AgentAvailabilityResult", 1, "available rebootRequired hyperVNotSupported"},
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
         "TOTAL_COMPATIBILITY_ERROR_VALUES"},
        {"morphel.agent.internal.DiskAttachPoint.BusType", 1, "IDE SCSI"},
        {"morphel.agent.internal.DiskAttachPoint.Origin", 1,
         "FROM_CONFIG_INFO EXPLICITLY_REQUESTED ALLOCATED_AS_FIRST_FREE CHANGED_BUS_TYPE CHANGED_INVALID_BUS_OR_UNIT "
         "CHANGED_TO_AVOID_DUPLICATE SHIFTED_TO_MAINTAIN_BOOT_ORDER"},
        {"morphel.agent.internal.OsInfo.OsFamily", 1,
         "NO_OS WINDOWS WIN9X_DOS LINUX NETWARE SOLARIS FREEBSD OS2 DARWIN OTHER"},
        {"morphel.event.Event.Type", 1, "info warning error"},
        {"morphel.info.BootConfigInfo.BootLoaderType", 1, "bootIni bcd grub"},
        {"morphel.info.ComputerOsInfo.OsType", 1, "otherOs windowsOs linuxOs solarisOs"},
        {"morphel.info.ComputerOsInfo.OsVersion.OsDistribution", 1,
         "otherDistro redHatDistro redHatEnterpriseLinuxDistro openSuseDistro suseLinuxEnterpriseDistro ubuntuDistro"},
        {"morphel.info.DiskAttachPoint.ControllerType", 1, "ide scsi"},
        {"morphel.info.HyperVInventoryInfo.HyperVInventoryVirtualMachineItem.PowerState", 1,
         "poweredOn poweredOff suspended busy unknown"},
        {"morphel.info.NetworkInfo.HostedNicInfo.ConnectionType", 1, "bridged nat hostonly"},
        {"morphel.info.PropertyInfo.SeverityLevel", 1, "info warning error"},
        {"morphel.info.ReconfigPrerequisites.HotfixType", 1, "hotfixOrServicePack plainFile"},
        {"morphel.info.ServiceInfo.ServiceState", 1,
         "stopped startPending stopPending running continuePending pausePending paused"},
        {"morphel.info.ServiceStartType", 1, "autoStart bootStart systemStart manual disabled"},
        {"morphel.info.SnapshotInfo.BackupType", 1, "fullP2V incrementalP2V"},
        {"morphel.info.SnapshotInfo.SnapshotType", 1, "backupSnapshot bootableSnapshot regular"},
        {"morphel.info.SupportedSources.SourceType", 1, "local live managed hosted ovf hyperv"},
        {"morphel.info.SupportedTargets.ProductType", 1, "hosted managed ovf"},
        {"morphel.params.StorageParams.CloningMode", 1,
         "diskBasedCloning volumeBasedCloning linkedClone writeToSourceDisk"},
        {"morphel.params.StorageParams.DiskControllerType", 1,
         "keepSource ide scsiBusLogic scsiLsiLogic scsiLsiLogicSAS"},
        {"morphel.params.StorageParams.DiskCreateType", 1,
         "monolithicFlat monolithicSparse twoGbFlat twoGbSparse kelfsMonolithicFlat kelfsMonolithicFlatThinProvisioned "
         "kelfsTwoGbFlat kelfsTwoGbFlatThinProvisioned compressedQDSK"},
        {"morphel.params.TargetVmSpec.ProductVersion", 1, nullptr},
        {"morphel.params.ThrottlingParams.CpuThrottling", 2, "none light medium"},
        {"morphel.server.AgentManager.DeploymentStatus", 1, "completed rebootRequired rebootInitiated"},
        {"morphel.server.ManagedEntity.Status", 2, "green yellow red gray"},
        {"morphel.server.job.Job.ActiveTaskHandling", 2, "failIfActiveTask cancelActiveTask"},
        {"morphel.server.job.JobFilterSpec.TimeOption", 1, "createdTime lastRunStartedTime lastRunCompletedTime"},
        {"morphel.server.job.JobInfo.State", 2, "active suspended deactivated"},
        {"morphel.server.protection.ProtectionJob.RunSpec.BackupType", 2, "Full Incremental"},
        {"morphel.server.protection.TargetStatistics.BandwidthUsageStatus", 1, "green yellow red"},
        {"morphel.tallow.VmProtectionInfo.ReplicationMechanism", 2, "none sanReplication lumaReplication"},
        {"morphel.task.TaskFilterSpec.TimeOption", 1, "queuedTime startedTime completedTime"},
        {"morphel.task.TaskInfo.State", 1, "queued running success error"},
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
        EXPECT_EQ(e->GetValues().size(), row.values != nullptr ? e->GetValues().size() : 9u);
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
