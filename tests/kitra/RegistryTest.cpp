// The process-wide maps, the once-only type creation and the registration of a module.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include <fundix/Exception.h>
#include <kitra/Registry.h>
#include <kitra/Module.h>

namespace {

const Kitra::TypeInfo kAlphaInfo = {Kitra::kKindData, "regtest.Alpha", "RegtestAlpha", "regtest.version.one"};
const Kitra::TypeInfo kBetaInfo = {Kitra::kKindData, "regtest.Beta", "RegtestBeta", "regtest.version.one"};

TEST(VersionMapTest, RepeatedAdditionsAndInclusion) {
    Kitra::VersionMap* map = Kitra::GetVersionMap();
    ASSERT_NE(map, nullptr);
    EXPECT_EQ(map, Kitra::GetVersionMap());

    const size_t before = map->GetVersions().size();
    map->AddVersion("regtest.v1", "regtest", "1.0", false, "dovra.Task", false, "regtest");
    map->AddVersion("regtest.v2", "regtest", "2.0", false, "dovra.Task", false, "regtest");
    ASSERT_EQ(map->GetVersions().size(), before + 2);
    EXPECT_EQ(map->GetVersions().back()->name, "regtest.v2");

    // The same values again: nothing changes.
    map->AddVersion("regtest.v1", "regtest", "1.0", false, "dovra.Task", false, "regtest");
    EXPECT_EQ(map->GetVersions().size(), before + 2);

    // Any other value for a known name is refused, and the first values stay.
    EXPECT_THROW(map->AddVersion("regtest.v1", "regtest", "1.1", false, "dovra.Task", false, "regtest"),
                 Fundix::InvalidArgumentException);
    EXPECT_THROW(map->AddVersion("regtest.v1", "regtest", "1.0", true, "dovra.Task", false, "regtest"),
                 Fundix::InvalidArgumentException);
    EXPECT_THROW(map->AddVersion("regtest.v1", "regtest", "1.0", false, "dovra.Task", false, "other"),
                 Fundix::InvalidArgumentException);
    const Kitra::Version* v1 = map->GetVersion("regtest.v1");
    ASSERT_NE(v1, nullptr);
    EXPECT_EQ(v1->versionString, "1.0");
    EXPECT_EQ(map->GetVersion("regtest.none"), nullptr);

    map->AddRelation("regtest.v2", "regtest.v1");
    map->AddRelation("regtest.v2", "regtest.v2");
    map->AddRelation("regtest.v2", "regtest.v1");
    const Kitra::Version* v2 = map->GetVersion("regtest.v2");
    ASSERT_NE(v2, nullptr);
    EXPECT_EQ(v2->includes, (std::vector<std::string>{"regtest.v1", "regtest.v2"}));
    EXPECT_TRUE(map->IsIncluded("regtest.v2", "regtest.v1"));
    EXPECT_FALSE(map->IsIncluded("regtest.v1", "regtest.v2"));  // inclusion is not symmetric
    EXPECT_FALSE(map->IsIncluded("regtest.none", "regtest.v1"));

    EXPECT_THROW(map->AddRelation("regtest.v1", "regtest.none"), Fundix::InvalidArgumentException);
    EXPECT_THROW(map->AddRelation("regtest.none", "regtest.v1"), Fundix::InvalidArgumentException);
}

TEST(TypeMapTest, AddingTypesAndModules) {
    Kitra::TypeMap* map = Kitra::GetTypeMap();
    ASSERT_NE(map, nullptr);
    Fundix::Ref<Kitra::Type> alpha(new Kitra::Type(&kAlphaInfo));
    Fundix::Ref<Kitra::Type> beta(new Kitra::Type(&kBetaInfo));

    const size_t modulesBefore = map->GetModules().size();
    map->BeginModule("regtest/types");
    map->AddType(alpha.Get());
    const size_t typesAfterFirst = map->GetTypes().size();
    map->AddType(alpha.Get());
    map->AddType(nullptr);
    EXPECT_EQ(map->GetTypes().size(), typesAfterFirst);
    EXPECT_EQ(map->GetType("regtest.Alpha"), alpha.Get());
    EXPECT_EQ(map->GetTypeByWsdlName("RegtestAlpha"), alpha.Get());
    EXPECT_EQ(map->GetType("regtest.Missing"), nullptr);
    // The map holds its own reference.
    EXPECT_EQ(alpha->GetRefCount(), 2);

    // Another type object under a name already taken is an error.
    Fundix::Ref<Kitra::Type> impostor(new Kitra::Type(&kAlphaInfo));
    EXPECT_THROW(map->AddType(impostor.Get()), Fundix::InvalidArgumentException);
    EXPECT_EQ(map->GetType("regtest.Alpha"), alpha.Get());

    // Reopening a module continues it instead of opening a second one.
    map->BeginModule("regtest/other");
    map->BeginModule("regtest/types");
    map->AddType(beta.Get());
    const auto modules = map->GetModules();
    EXPECT_EQ(modules.size(), modulesBefore + 2);
    const Kitra::Module* mine = nullptr;
    for (const Kitra::Module* m : modules)
        if (m->source == "regtest/types") mine = m;
    ASSERT_NE(mine, nullptr);
    EXPECT_EQ(mine->types, (std::vector<Kitra::Type*>{alpha.Get(), beta.Get()}));
}

int gCreateCalls = 0;
bool gCreateFails = false;

Kitra::Type* FlakyCreate(const void* record) {
    ++gCreateCalls;
    if (gCreateFails) throw Fundix::InvalidArgumentException("creation failed");
    return new Kitra::Type(static_cast<const Kitra::TypeInfo*>(record));
}

Kitra::Type* NullCreate(const void*) {
    ++gCreateCalls;
    return nullptr;
}

TEST(GetTypeOnceTest, RetryAfterThrowAndNullCachedForGood) {
    Kitra::Binding::TypeCache cache{};
    gCreateCalls = 0;
    gCreateFails = true;
    EXPECT_THROW(Kitra::Binding::GetTypeOnce(cache, &FlakyCreate, &kAlphaInfo), Fundix::InvalidArgumentException);
    EXPECT_THROW(Kitra::Binding::GetTypeOnce(cache, &FlakyCreate, &kAlphaInfo), Fundix::InvalidArgumentException);
    EXPECT_EQ(gCreateCalls, 2);
    EXPECT_EQ(cache.once & 1u, 0u);

    gCreateFails = false;
    Kitra::Type* created = Kitra::Binding::GetTypeOnce(cache, &FlakyCreate, &kAlphaInfo);
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(Kitra::Binding::GetTypeOnce(cache, &FlakyCreate, &kAlphaInfo), created);
    EXPECT_EQ(gCreateCalls, 3);
    EXPECT_EQ(created->GetRefCount(), 1);  // the cache's own reference
    EXPECT_STREQ(created->GetName(), "regtest.Alpha");
    created->DecRef();

    Kitra::Binding::TypeCache nullCache{};
    gCreateCalls = 0;
    EXPECT_EQ(Kitra::Binding::GetTypeOnce(nullCache, &NullCreate, &kAlphaInfo), nullptr);
    EXPECT_EQ(Kitra::Binding::GetTypeOnce(nullCache, &NullCreate, &kAlphaInfo), nullptr);
    EXPECT_EQ(gCreateCalls, 1);
}

// A module of its own: two versions, their relations and two types.
const Kitra::Binding::VersionEntry kModuleVersions[] = {
    {"regmod.version1", "regmod", "1.0", "regmod"},
    {"regmod.version2", "regmod", "2.0", "regmod"},
};
const Kitra::Binding::RelationEntry kModuleRelations[] = {
    {"regmod.version1", "regmod.version1"},
    {"regmod.version2", "regmod.version1"},
    {"regmod.version2", "regmod.version2"},
};
const Kitra::Binding::VersionTable kModuleTable = {kModuleVersions, 2, kModuleRelations, 3};
const Kitra::Binding::VersionEntry kConflictingVersions[] = {{"regmod.version1", "regmod", "9.9", "regmod"}};
const Kitra::Binding::VersionTable kConflictingTable = {kConflictingVersions, 1, nullptr, 0};

const Kitra::TypeInfo kGammaInfo = {Kitra::kKindData, "regmod.Gamma", "RegmodGamma", "regmod.version1"};
const Kitra::TypeInfo kDeltaInfo = {Kitra::kKindData, "regmod.Delta", "RegmodDelta", "regmod.version2"};

template <const Kitra::TypeInfo* kInfo>
Kitra::Type* Made() {
    static Kitra::Binding::TypeCache cache;
    return Kitra::Binding::GetTypeOnce(
        cache,
        [](const void* r) -> Kitra::Type* { return new Kitra::Type(static_cast<const Kitra::TypeInfo*>(r)); },
        kInfo);
}
Kitra::Type* (*const kModuleTypes[])() = {&Made<&kGammaInfo>, &Made<&kDeltaInfo>};

// Versions, their relations, types, modules, and the types of the module from `source`.
std::array<size_t, 5> Snapshot(const std::string& source) {
    std::array<size_t, 5> s{0, 0, Kitra::GetTypeMap()->GetTypes().size(), 0, 0};
    for (const Kitra::Version* v : Kitra::GetVersionMap()->GetVersions()) {
        ++s[0];
        s[1] += v->includes.size();
    }
    for (const Kitra::Module* m : Kitra::GetTypeMap()->GetModules()) {
        ++s[3];
        if (m->source == source) s[4] = m->types.size();
    }
    return s;
}

TEST(RegisterModuleTest, SecondRegistrationChangesNothing) {
    const Kitra::Binding::ModuleInfo module = {"regmod/types", 10, &kModuleTable, kModuleTypes, 2};
    const auto before = Snapshot("regmod/types");
    Kitra::Binding::RegisterModule(module);
    const auto first = Snapshot("regmod/types");
    EXPECT_EQ(first, (std::array<size_t, 5>{before[0] + 2, before[1] + 3, before[2] + 2, before[3] + 1, 2}));
    EXPECT_TRUE(Kitra::GetVersionMap()->IsIncluded("regmod.version2", "regmod.version1"));
    EXPECT_EQ(Kitra::GetTypeMap()->GetType("regmod.Delta"), Made<&kDeltaInfo>());

    Kitra::Binding::RegisterModule(module);
    EXPECT_EQ(Snapshot("regmod/types"), first);

    // A module whose version contradicts one already known is refused.
    const Kitra::Binding::ModuleInfo conflicting = {"regmod/conflict", 10, &kConflictingTable, kModuleTypes, 2};
    EXPECT_THROW(Kitra::Binding::RegisterModule(conflicting), Fundix::InvalidArgumentException);
}

}  // namespace
