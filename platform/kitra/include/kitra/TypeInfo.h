// The static metadata records through which generated code describes its types to the object model.
// Their layouts are a binary contract: word for word, in this order, 32-bit words on a 32-bit target.
// Every record is constant and complete in the image: a word that names a record of another library is
// filled in by the loader.
#pragma once

#include <cstdint>
#include <string>

#include <fundix/Ref.h>

namespace Kitra {

class Any;
class DataObject;
class ManagedObject;
class ManagedMethod;
class StubAdapter;
struct FieldLayout;
class RequestContext;

// Kinds of type records. The object model's own primitive records use kinds below kKindEnum, one per
// primitive, so that generic code can tell the storage of a field from its record alone.
enum : uint32_t {
    kKindString = 0x01,
    kKindInt = 0x02,
    kKindLong = 0x03,
    kKindShort = 0x04,
    kKindBool = 0x05,
    kKindByte = 0x06,
    kKindFloat = 0x07,
    kKindDouble = 0x08,
    kKindDateTime = 0x09,
    kKindAnyType = 0x0A,
    kKindTypeName = 0x0B,
    kKindPropertyPath = 0x0C,
    kKindEnum = 0x0F,
    kKindData = 0x10,
    kKindFault = 0x11,
    kKindManaged = 0x12,
    kKindArray = 0x20,  // the object model's own array types, made on demand
};

// Property and parameter flag bits.
enum : uint32_t {
    kFlagArray = 0x1,
    kFlagOptional = 0x2,
    kFlagExtra = 0x4,
    kFlagTerminator = 0xFFFFFFFFu,
};

// Method flag bits.
enum : uint32_t {
    kMethodTask = 0x1,
    kMethodFlag100 = 0x100,
};

struct TypeInfo {
    uint32_t kind;
    const char* name;      // wire name
    const char* wsdlName;  // interface-description name
    const char* version;   // version in which the type appeared
};

struct PropertyTypeInfo {
    const char* name;
    const char* privilege;
    const char* extra;
    const TypeInfo* type;  // element type for arrays
    uint32_t flags;
    const char* version;
};

struct ParamTypeInfo {
    const char* name;
    const char* privilege;
    const TypeInfo* type;
    uint32_t flags;
    const char* version;
};

struct MethodTypeInfo {
    const char* name;
    const char* wsdlName;
    const char* privilege;
    uint32_t reserved;
    ParamTypeInfo result;
    const ParamTypeInfo* params;
    const TypeInfo* const* faults;
    uint32_t methodFlags;
    const char* version;
};

using GetPropertyFn = void (*)(DataObject* object, int index, void* out);
using SetPropertyFn = void (*)(DataObject* object, int index, const void* in);
using IsPropertySetFn = bool (*)(const DataObject* object, int index);
using InitPropertyFn = void (*)(DataObject* object, int index);
using CreateInstanceFn = DataObject* (*)();
using CreateArrayFn = Any* (*)();

struct DataTypeInfo {
    const TypeInfo* type;
    const TypeInfo* base;
    const PropertyTypeInfo* properties;
    GetPropertyFn getProperty;
    SetPropertyFn setProperty;
    IsPropertySetFn isPropertySet;
    InitPropertyFn initProperty;
    CreateInstanceFn createInstance;
    CreateArrayFn createArray;
    // The declaring class's field layout, over an object of that class or a class derived from it; null
    // for a class without fields of its own.
    const FieldLayout* layout;
};

// Server-side dispatch: calls method `index` of the type's method table on an implementation object.
using InvokeFn = void (*)(ManagedObject* object, int index, Fundix::RefVector<Any>& arguments,
                          Fundix::Ref<Any>& result);
// Creates a client stub for the object `id`, reached through `adapter`.
using CreateStubFn = ManagedObject* (*)(const std::string& id, StubAdapter* adapter, RequestContext* context);

struct ManagedTypeInfo {
    const TypeInfo* type;
    const TypeInfo* base;
    const PropertyTypeInfo* properties;
    const MethodTypeInfo* methods;
    InvokeFn invoke;
    CreateStubFn createStub;
    ManagedMethod** methodObjects;
};

struct EnumTypeInfo {
    const TypeInfo* type;
    const char* const* values;  // value texts in declaration order, null-terminated
};

// One word is 4 bytes on a 32-bit target; these hold there and, with padding, on 64-bit targets too.
static_assert(sizeof(TypeInfo) == 4 * sizeof(void*));
static_assert(sizeof(PropertyTypeInfo) == 6 * sizeof(void*));
static_assert(sizeof(ParamTypeInfo) == 5 * sizeof(void*));
static_assert(sizeof(MethodTypeInfo) == 13 * sizeof(void*));
static_assert(sizeof(DataTypeInfo) == 10 * sizeof(void*));
static_assert(sizeof(ManagedTypeInfo) == 7 * sizeof(void*));
static_assert(sizeof(EnumTypeInfo) == 2 * sizeof(void*));
static_assert(sizeof(void*) != 4 || (sizeof(TypeInfo) == 16 && sizeof(PropertyTypeInfo) == 24 &&
                                     sizeof(ParamTypeInfo) == 20 && sizeof(MethodTypeInfo) == 52 &&
                                     sizeof(DataTypeInfo) == 40 && sizeof(ManagedTypeInfo) == 28 &&
                                     sizeof(EnumTypeInfo) == 8));

// The primitive records.
extern const TypeInfo gStringTypeInfo;
extern const TypeInfo gIntTypeInfo;
extern const TypeInfo gLongTypeInfo;
extern const TypeInfo gShortTypeInfo;
extern const TypeInfo gBoolTypeInfo;
extern const TypeInfo gByteTypeInfo;
extern const TypeInfo gFloatTypeInfo;
extern const TypeInfo gDoubleTypeInfo;
extern const TypeInfo gDateTimeTypeInfo;
extern const TypeInfo gAnyTypeInfo;
extern const TypeInfo gTypeNameTypeInfo;
extern const TypeInfo gPropertyPathTypeInfo;

// The object model's base records.
extern const TypeInfo gDynamicDataTypeInfo;
extern const TypeInfo gMethodFaultTypeInfo;
extern const TypeInfo gRuntimeFaultTypeInfo;
extern const TypeInfo gManagedObjectTypeInfo;

// What a method answers on the wire: its result record, except for a method that starts a task
// (kMethodTask), which answers with the started task's reference while its record's result names what
// the task delivers (or nothing).
ParamTypeInfo WireResult(const MethodTypeInfo& method);

inline bool IsPrimitiveKind(uint32_t kind) { return kind >= kKindString && kind <= kKindPropertyPath; }

}  // namespace Kitra
