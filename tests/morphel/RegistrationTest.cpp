// What the library leaves in the process-wide maps once it is loaded.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <kitra/Kitra.h>
#include <morphel/task/types.h>
#include <morphel/types.h>

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
    EXPECT_EQ(managed, 31u);  // the enumerations are EnumTest's
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

}  // namespace
