// Registration of generated modules and the once-only creation of their types.
#include <kitra/Module.h>

#include <atomic>

#include <fundix/PanicAssert.h>

namespace Kitra::Binding {

Kitra::Type* GetTypeOnce(TypeCache& cache, CreateFn create, const void* record) {
    if (cache.once & 1u) return cache.type;
    cache.once |= 1u;
    Kitra::Type* type = nullptr;
    try {
        type = create(record);
    } catch (...) {
        cache.once &= ~1u;
        throw;
    }
    // The cache holds its reference for the life of the process.
    if (type != nullptr) type->IncRef();
    cache.type = type;
    return type;
}

Kitra::Type* CreateData(const void* record) {
    return Kitra::CreateDataObjectType(static_cast<const Kitra::DataTypeInfo*>(record));
}

Kitra::Type* CreateManaged(const void* record) {
    return Kitra::CreateManagedObjectType(static_cast<const Kitra::ManagedTypeInfo*>(record));
}

// Threads may ask at once: each finds the same type, and the cache is read and written whole.
Kitra::DataObjectType* DataTypeOnce(Kitra::DataObjectType*& cache, Kitra::Type* type) {
    std::atomic_ref<Kitra::DataObjectType*> slot(cache);
    Kitra::DataObjectType* found = slot.load(std::memory_order_acquire);
    if (found == nullptr && type != nullptr) {
        found = type->AsDataObjectType();
        slot.store(found, std::memory_order_release);
    }
    return found;
}

void RegisterModule(const ModuleInfo& module) {
    Kitra::VersionMap* versionMap = Kitra::GetVersionMap();
    if (versionMap == nullptr) Fundix::PanicAssert("versionMap != 0", module.sourcePath, module.assertLine);
    const VersionTable& table = *module.versions;
    for (size_t i = 0; i < table.versionCount; ++i) {
        const VersionEntry& v = table.versions[i];
        versionMap->AddVersion(v.name, v.wireNamespace, v.versionString, false, "dovra.Task", false,
                               v.serviceNamespace);
    }
    for (size_t i = 0; i < table.relationCount; ++i)
        versionMap->AddRelation(table.relations[i].version, table.relations[i].included);

    Kitra::TypeMap* typeMap = Kitra::GetTypeMap();
    if (typeMap == nullptr) Fundix::PanicAssert("typeMap != 0", module.sourcePath, module.assertLine + 282);
    typeMap->BeginModule(module.sourcePath);
    for (size_t i = 0; i < module.typeCount; ++i)
        typeMap->AddType(module.types[i]());
}

}  // namespace Kitra::Binding
