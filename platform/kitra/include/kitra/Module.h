// What every generated module of a library stands on: the once-only type creation, the registration of a
// module at load, and small helpers that keep the generated overrides to one line each. Generated code
// reaches these through `Kitra::Binding`; programs need them only to register modules of their own.
#pragma once

#include <cstddef>
#include <cstdint>

#include <kitra/Kitra.h>

namespace Kitra::Binding {

// Per type: a once-flag word (bit 0) and the cached type. Plain words: they are filled while the library
// loads, in the loader's single thread, and only read afterwards.
struct TypeCache {
    uint32_t once;
    Kitra::Type* type;
};

using CreateFn = Kitra::Type* (*)(const void* record);

// Returns the cached type, creating it on first use. A creation that throws leaves the type to be created
// again by the next call; a creation that returns null is cached as null for good.
Kitra::Type* GetTypeOnce(TypeCache& cache, CreateFn create, const void* record);

Kitra::Type* CreateData(const void* record);
Kitra::Type* CreateManaged(const void* record);
template <class E>
Kitra::Type* CreateEnum(const void* record) {
    return new Kitra::EnumTypeImpl<E>(static_cast<const Kitra::EnumTypeInfo*>(record));
}

Kitra::DataObjectType* DataTypeOnce(Kitra::DataObjectType*& cache, Kitra::Type* type);

// The memory of an object whose class adds `layout`'s fields to its base: its own mapped size, the base's
// total without the base's own mapped size, and what the fields hold on the heap.
unsigned SizeOf(Kitra::Sizer sizer, unsigned ownSize, unsigned baseSize, unsigned baseTotal,
                const Kitra::FieldLayout& layout, const void* object);

struct VersionEntry {
    const char* name;
    const char* wireNamespace;
    const char* versionString;
    const char* serviceNamespace;
};

struct RelationEntry {
    const char* version;
    const char* included;
};

struct VersionTable {
    const VersionEntry* versions;
    size_t versionCount;
    const RelationEntry* relations;
    size_t relationCount;
};

struct ModuleInfo {
    const char* sourcePath;
    int assertLine;  // the line that the module's assertions report; the type map's is 282 lines later
    const VersionTable* versions;
    Kitra::Type* (*const* types)();
    size_t typeCount;
};

// Enters the versions and their relations into the version map, then each type of the module, in order,
// into the type map. Registering a module again changes nothing.
void RegisterModule(const ModuleInfo& module);

}  // namespace Kitra::Binding
