// Field storage of generated data objects and the generic operations over it.
//
// A generated class keeps its fields as ordinary members and publishes, beside its property records, the
// byte offset of each own field. Everything that loops over fields (get/set/test by index, equality,
// differences, size) is written once here and walks the records: the storage of a field follows from its
// record's type kind and flags alone.
#pragma once

#include <cstdint>
#include <string>

#include <fundix/Optional.h>
#include <fundix/System/DateTime.h>
#include <kitra/Any.h>
#include <kitra/TypeInfo.h>

namespace Kitra {

// A counted field: data object, array, managed-object reference or untyped value. Null when absent.
class RefSlot {
public:
    RefSlot() = default;
    ~RefSlot() {
        if (p_ != nullptr) p_->DecRef();
    }
    RefSlot& operator=(const RefSlot&) = delete;
    Any* Get() const { return p_; }
    // Takes a reference to `value`, exchanges it in and releases the previous value.
    void Store(Any* value);

protected:
    RefSlot(const RefSlot&) = delete;
    explicit RefSlot(Any* value) : p_(value) {
        if (p_ != nullptr) p_->IncRef();
    }
    Any* p_ = nullptr;
};

// A data object, managed-object reference or untyped value: a copy holds a clone, so that a cloned record
// shares nothing that its copy could change.
class ObjSlot : public RefSlot {
public:
    ObjSlot() = default;
    ObjSlot(const ObjSlot& other);
};

// An array: a copy holds a clone, so that copies never share an array; storing null empties the array
// in place and keeps it attached.
class ArraySlot : public RefSlot {
public:
    ArraySlot() = default;
    ArraySlot(const ArraySlot& other);
    void Store(Any* value);
};

// The storage class of a property, derived from its record.
enum class Storage : uint8_t {
    String, OptString, I32, OptI32, I64, OptI64, I16, OptI16, I8, OptI8,
    Bool, OptBool, F32, OptF32, F64, OptF64, Date, OptDate, Slot,
};
Storage StorageOf(const PropertyTypeInfo& property);

// One own field of a generated class: where it lies within the declaring class, and how it is stored
// (what StorageOf says of its property record, worked out once by the generator).
struct FieldDesc {
    uint32_t offset;
    Storage storage;
};

// A class's fields grouped by storage class: `runs[0]` runs follow, each a header (storage class in the top
// byte, field count below) and then per field its offset.
// Strings, optional strings and counted values come first, in that order: the fields that may hold memory
// beyond the object. Worked out at compile time from the field descriptions (Binding::FieldTable).
constexpr uint32_t RunHeader(Storage storage, uint32_t count) { return uint32_t(storage) << 24 | count; }
constexpr Storage RunStorage(uint32_t header) { return static_cast<Storage>(header >> 24); }
constexpr uint32_t RunCount(uint32_t header) { return header & 0xFFFFFFu; }
constexpr int kStorageCount = int(Storage::Slot) + 1;
// The order of the runs.
constexpr Storage kRunOrder[kStorageCount] = {
    Storage::String, Storage::OptString, Storage::Slot,  Storage::I32,    Storage::OptI32, Storage::I64,   Storage::OptI64,
    Storage::I16,    Storage::OptI16,    Storage::I8,    Storage::OptI8,  Storage::Bool,   Storage::OptBool, Storage::F32,
    Storage::OptF32, Storage::F64,       Storage::OptF64, Storage::Date,  Storage::OptDate,
};

// How a generated class describes its own fields to the generic operations.
struct FieldLayout {
    const PropertyTypeInfo* properties;
    const FieldDesc* fields;
    uint32_t count;
    const uint32_t* runs;
};

namespace Fields {

// The record's property functions, over the declaring class's subobject at `object`.
void Get(const FieldLayout& layout, const void* object, int index, void* out);
void Set(const FieldLayout& layout, void* object, int index, const void* in);
bool IsSet(const FieldLayout& layout, const void* object, int index);
void Init(const FieldLayout& layout, void* object, int index);

bool Equal(const FieldLayout& layout, const void* mine, const void* theirs, bool partial);
void Diff(const FieldLayout& layout, const void* mine, const void* theirs, const std::string& prefix,
          PropertyDiffSet& diffs);
// Memory held by the fields beyond the object itself.
unsigned ExtraSize(const FieldLayout& layout, const void* object, Sizer sizer);

// Shared property functions of types without properties (or without arrays, for Init).
void NoGet(DataObject*, int, void*);
void NoSet(DataObject*, int, const void*);
bool AlwaysSet(const DataObject*, int);
void NoInit(DataObject*, int);

}  // namespace Fields


}  // namespace Kitra
