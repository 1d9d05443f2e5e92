// What every generated module of a library stands on: the once-only type creation, the registration of a
// module at load, and small helpers that keep the generated overrides to one line each. Generated code
// reaches these through `Kitra::Binding`; programs need them only to register modules of their own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>

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
[[gnu::visibility("hidden")]] Kitra::Type* CreateEnum(const void* record) {
    return new Kitra::EnumTypeImpl<E>(static_cast<const Kitra::EnumTypeInfo*>(record));
}

Kitra::DataObjectType* DataTypeOnce(Kitra::DataObjectType*& cache, Kitra::Type* type);

// The memory of an object whose class adds `layout`'s fields to its base: its own mapped size, the base's
// total without the base's own mapped size, and what the fields hold on the heap.
unsigned SizeOf(Kitra::Sizer sizer, unsigned ownSize, unsigned baseSize, unsigned baseTotal,
                const Kitra::FieldLayout& layout, const void* object);
// The same for the first level with fields, whose bases add nothing to a bare data object.
unsigned SizeOf(Kitra::Sizer sizer, unsigned ownSize, const Kitra::FieldLayout& layout, const void* object);

// ---- The records of a data type, written where the type is defined.

// One own field of a generated class: its property record and where and how the class stores it.
struct FieldRow {
    PropertyTypeInfo property;
    FieldDesc field;

    constexpr FieldRow(const char* name, const char* extra, const TypeInfo* type, uint32_t flags,
                       const char* version, size_t offset, Storage storage)
        : property{name, nullptr, extra, type, flags, version}, field{static_cast<uint32_t>(offset), storage} {}
};

// The property records (null-terminated, as the type's record expects them), the field descriptions and
// the fields grouped by storage class (FieldLayout::runs) of a class with `N` own fields, made at compile
// time from one row per field.
template <size_t N>
struct FieldTable {
    static_assert(N < 0x1000000);
    PropertyTypeInfo properties[N + 1];
    FieldDesc fields[N];
    uint32_t runs[1 + N + (N < kStorageCount ? N : kStorageCount)];

    constexpr explicit FieldTable(const FieldRow (&rows)[N]) : properties{}, fields{}, runs{} {
        for (size_t i = 0; i < N; ++i) {
            properties[i] = rows[i].property;
            fields[i] = rows[i].field;
        }
        properties[N] = {nullptr, nullptr, nullptr, nullptr, kFlagTerminator, nullptr};
        uint32_t* at = runs + 1;
        for (Storage storage : kRunOrder) {
            uint32_t* header = at;
            for (size_t i = 0; i < N; ++i)
                if (fields[i].storage == storage) *++at = fields[i].offset;
            if (at == header) continue;
            *header = RunHeader(storage, static_cast<uint32_t>(at - header));
            ++at;
            ++runs[0];
        }
    }
};

// The property functions and factories of the data-type record of class `T`. Those by index work on
// `T::_kLayout` and check the object's class first. Each library keeps its own instances (hidden): they
// are reached only through the records.
template <class T>
[[gnu::visibility("hidden")]] void GetField(DataObject* object, int index, void* out) {
    Fields::Get(T::_kLayout, CheckedCast<T>(object), index, out);
}
template <class T>
[[gnu::visibility("hidden")]] void SetField(DataObject* object, int index, const void* in) {
    Fields::Set(T::_kLayout, CheckedCast<T>(object), index, in);
}
template <class T>
[[gnu::visibility("hidden")]] bool IsFieldSet(const DataObject* object, int index) {
    return Fields::IsSet(T::_kLayout, CheckedCast<const T>(object), index);
}
template <class T>
[[gnu::visibility("hidden")]] void InitField(DataObject* object, int index) {
    Fields::Init(T::_kLayout, CheckedCast<T>(object), index);
}
template <class T>
[[gnu::visibility("hidden")]] DataObject* NewObject() {
    return new (std::nothrow) T();
}
template <class T>
[[gnu::visibility("hidden")]] Any* NewObjectArray() {
    return new (std::nothrow) DataArray<T>();
}

// The record of data type `T` (`type`, derived from `base`) without fields of its own.
template <class T>
constexpr DataTypeInfo DataRecord(const TypeInfo* type, const TypeInfo* base) {
    return {type, base, nullptr, &Fields::NoGet, &Fields::NoSet, &Fields::AlwaysSet, &Fields::NoInit,
            &NewObject<T>, &NewObjectArray<T>, nullptr};
}
// The record of data type `T` whose own fields `fields` describes; `arrays` when one of them is an array
// (whose initialisation then makes an empty array of the element type). The record points at `T`'s layout:
// generated classes derive from one base each, so `T`'s part of any object of a class derived from it
// starts at the object's own address.
template <class T, bool arrays, size_t N>
constexpr DataTypeInfo DataRecord(const TypeInfo* type, const TypeInfo* base, const FieldTable<N>& fields) {
    static_assert(std::is_base_of_v<DataObject, T> && std::is_polymorphic_v<T>);
    InitPropertyFn init = &Fields::NoInit;
    if constexpr (arrays) init = &InitField<T>;
    return {type, base, fields.properties, &GetField<T>, &SetField<T>, &IsFieldSet<T>, init, &NewObject<T>,
            &NewObjectArray<T>, &T::_kLayout};
}

// ---- Registration

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
