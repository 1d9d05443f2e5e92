// The records of the object model's primitives and base types, and the registration of the base types.
#include <new>

#include <kitra/DataObject.h>
#include <kitra/Field.h>
#include <kitra/ManagedObject.h>
#include <kitra/Module.h>

namespace Kitra {

const TypeInfo gStringTypeInfo = {kKindString, "string", "string", "kodl.version.version0"};
const TypeInfo gIntTypeInfo = {kKindInt, "int", "int", "kodl.version.version0"};
const TypeInfo gLongTypeInfo = {kKindLong, "long", "long", "kodl.version.version0"};
const TypeInfo gShortTypeInfo = {kKindShort, "short", "short", "kodl.version.version0"};
const TypeInfo gBoolTypeInfo = {kKindBool, "boolean", "boolean", "kodl.version.version0"};
const TypeInfo gByteTypeInfo = {kKindByte, "byte", "byte", "kodl.version.version0"};
const TypeInfo gFloatTypeInfo = {kKindFloat, "float", "float", "kodl.version.version0"};
const TypeInfo gDoubleTypeInfo = {kKindDouble, "double", "double", "kodl.version.version0"};
const TypeInfo gDateTimeTypeInfo = {kKindDateTime, "dateTime", "dateTime", "kodl.version.version0"};
const TypeInfo gAnyTypeInfo = {kKindAnyType, "anyType", "anyType", "kodl.version.version0"};
const TypeInfo gTypeNameTypeInfo = {kKindTypeName, "typeName", "typeName", "kodl.version.version0"};
const TypeInfo gPropertyPathTypeInfo = {kKindPropertyPath, "propertyPath", "propertyPath", "kodl.version.version0"};

const TypeInfo gDynamicDataTypeInfo = {kKindData, "kodl.DynamicData", "DynamicData", "kodl.version.version0"};
const TypeInfo gMethodFaultTypeInfo = {kKindFault, "kodl.MethodFault", "MethodFault", "kodl.version.version0"};
const TypeInfo gRuntimeFaultTypeInfo = {kKindFault, "kodl.RuntimeFault", "RuntimeFault", "kodl.version.version0"};
const TypeInfo gManagedObjectTypeInfo = {kKindManaged, "kodl.ManagedObject", "ManagedObject",
                                         "kodl.version.version0"};

ParamTypeInfo WireResult(const MethodTypeInfo& method) {
    if (!(method.methodFlags & kMethodTask)) return method.result;
    return {method.result.name, nullptr, &gManagedObjectTypeInfo, 0, method.version};
}

namespace {

DataObject* NewDynamicData() { return new (std::nothrow) DynamicData(); }
DataObject* NewMethodFault() { return new (std::nothrow) MethodFault(); }
DataObject* NewRuntimeFault() { return new (std::nothrow) RuntimeFault(); }
Any* NewDynamicDataArray() { return new (std::nothrow) DataArray<DynamicData>(); }
Any* NewMethodFaultArray() { return new (std::nothrow) DataArray<MethodFault>(); }
Any* NewRuntimeFaultArray() { return new (std::nothrow) DataArray<RuntimeFault>(); }

const DataTypeInfo kDynamicData = {&gDynamicDataTypeInfo, nullptr, nullptr, &Fields::NoGet, &Fields::NoSet,
                                   &Fields::AlwaysSet, &Fields::NoInit, &NewDynamicData, &NewDynamicDataArray, nullptr};
const DataTypeInfo kMethodFault = {&gMethodFaultTypeInfo, &gDynamicDataTypeInfo, nullptr, &Fields::NoGet,
                                   &Fields::NoSet, &Fields::AlwaysSet, &Fields::NoInit, &NewMethodFault,
                                   &NewMethodFaultArray, nullptr};
const DataTypeInfo kRuntimeFault = {&gRuntimeFaultTypeInfo, &gMethodFaultTypeInfo, nullptr, &Fields::NoGet,
                                    &Fields::NoSet, &Fields::AlwaysSet, &Fields::NoInit, &NewRuntimeFault,
                                    &NewRuntimeFaultArray, nullptr};
ManagedMethod* gManagedObjectMethodObjects[1];
const ManagedTypeInfo kManagedObject = {&gManagedObjectTypeInfo, nullptr, nullptr, nullptr, nullptr, nullptr,
                                        gManagedObjectMethodObjects};

}  // namespace

template <>
Type* GetType<DynamicData>() {
    static Kitra::Binding::TypeCache cache;
    return Kitra::Binding::GetTypeOnce(cache, &Kitra::Binding::CreateData, &kDynamicData);
}

template <>
Type* GetType<MethodFault>() {
    static Kitra::Binding::TypeCache cache;
    return Kitra::Binding::GetTypeOnce(cache, &Kitra::Binding::CreateData, &kMethodFault);
}

template <>
Type* GetType<RuntimeFault>() {
    static Kitra::Binding::TypeCache cache;
    return Kitra::Binding::GetTypeOnce(cache, &Kitra::Binding::CreateData, &kRuntimeFault);
}

template <>
Type* GetType<ManagedObject>() {
    static Kitra::Binding::TypeCache cache;
    return Kitra::Binding::GetTypeOnce(cache, &Kitra::Binding::CreateManaged, &kManagedObject);
}

}  // namespace Kitra

namespace Kitra::Binding {
extern const VersionTable gKitraVersions;
}

namespace {

Kitra::Type* (*const kBaseTypes[])() = {
    &Kitra::GetType<Kitra::ManagedObject>,
    &Kitra::GetType<Kitra::DynamicData>,
    &Kitra::GetType<Kitra::MethodFault>,
    &Kitra::GetType<Kitra::RuntimeFault>,
};

struct Registrar {
    Registrar() {
        Kitra::Binding::RegisterModule({"sysimage/kodl/kodl/types", 1, &Kitra::Binding::gKitraVersions, kBaseTypes, 4});
    }
};
const Registrar gRegistrar;

}  // namespace
