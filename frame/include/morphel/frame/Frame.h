// What every generated module shares: the once-only type creation, the registration of a module at load,
// and small helpers that keep the generated overrides to one line each.
#pragma once

#include <cstddef>
#include <cstdint>

#include <kitra/Kitra.h>

namespace Frame {

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

}  // namespace Frame

// ---- Calls: boxing arguments and results into Kitra::Any and back, for stubs and dispatch.

#include <kitra/Stub.h>


namespace Frame {

[[noreturn]] void ThrowMissingValue(const char* name);

inline Fundix::Ref<Kitra::Any> BoxRef(Kitra::Any* value) { return value; }
template <class T>
Fundix::Ref<Kitra::Any> BoxValue(const T& value) {
    return new Kitra::Primitive<T>(value);
}
template <class T>
Fundix::Ref<Kitra::Any> BoxOptional(const Fundix::Optional<T>& value) {
    if (!value.IsSet()) return nullptr;
    return new Kitra::Primitive<T>(value.GetValue());
}

// A counted value of class T, or null; another class raises Fundix::TypeMismatchException.
template <class T>
T* UnboxRef(Kitra::Any* value) {
    return Kitra::CheckedCast<T>(value);
}
// The value inside a box; a missing box raises Kitra::Fault::InvalidArgument naming `name`.
template <class T>
T UnboxValue(Kitra::Any* value, const char* name) {
    if (value == nullptr) ThrowMissingValue(name);
    return Kitra::CheckedCast<Kitra::Primitive<T>>(value)->GetValue();
}
template <class T>
Fundix::Optional<T> UnboxOptional(Kitra::Any* value) {
    if (value == nullptr) return Fundix::Optional<T>();
    return Kitra::CheckedCast<Kitra::Primitive<T>>(value)->GetValue();
}

// Argument `index` of a call; a shorter argument vector raises Kitra::Fault::InvalidArgument.
inline Kitra::Any* Arg(Fundix::RefVector<Kitra::Any>& arguments, size_t index, const char* name) {
    if (index >= arguments.size()) ThrowMissingValue(name);
    return arguments[index].Get();
}

// The implementation object of a dispatched call, as the managed type's interface.
template <class T>
T* Target(Kitra::ManagedObject* object) {
    T* target = dynamic_cast<T*>(object);
    if (target == nullptr) throw Fundix::TypeMismatchException(typeid(T).name(), "another managed object");
    return target;
}

[[noreturn]] void ThrowNoMethod(const char* type, int index);

}  // namespace Frame
