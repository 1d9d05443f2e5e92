// Run-time type objects, created once per type from its metadata record and cached.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <fundix/Object.h>
#include <fundix/Ref.h>
#include <kitra/TypeInfo.h>

namespace Kitra {

class Any;
class DataObject;
class DataObjectType;
class ManagedObjectType;
class EnumType;
class ArrayBase;

class Type : public Fundix::ObjectImpl {
public:
    explicit Type(const TypeInfo* info) : info_(info) {}

    const char* GetName() const { return info_->name; }
    const char* GetWsdlName() const { return info_->wsdlName; }
    const char* GetVersion() const { return info_->version; }
    uint32_t GetKind() const { return info_->kind; }
    const TypeInfo* GetTypeInfo() const { return info_; }
    virtual bool IsVisible() const { return true; }
    // The base type, or null. Resolved through the type map on first use, so a base may be registered
    // after the types derived from it.
    virtual Type* GetBaseType() const { return nullptr; }
    // The type of arrays of this type, created on first use.
    Type* GetArrayType() const;
    virtual std::string ToString() const { return info_->name; }

    virtual DataObjectType* AsDataObjectType() { return nullptr; }
    virtual ManagedObjectType* AsManagedObjectType() { return nullptr; }
    virtual EnumType* AsEnumType() { return nullptr; }
    const DataObjectType* AsDataObjectType() const { return const_cast<Type*>(this)->AsDataObjectType(); }
    const EnumType* AsEnumType() const { return const_cast<Type*>(this)->AsEnumType(); }

    // True when this type is `other` or derives from it.
    bool IsA(const Type* other) const;

    // Creates an empty array whose elements are of this type.
    Fundix::Ref<ArrayBase> CreateArray() const;
    // The same as a new object that nobody holds yet (null when allocation fails).
    virtual ArrayBase* NewArray() const;

private:
    const TypeInfo* info_;
    mutable std::once_flag arrayTypeOnce_;
    mutable Fundix::Ref<Type> arrayType_;
};

// The type object of a primitive (string, int, ...), found by its record.
Type* GetPrimitiveType(const TypeInfo* info);

// The type of arrays of some element type.
class ArrayType : public Type {
public:
    explicit ArrayType(const Type* element);
    ~ArrayType() override;
    const Type* GetElementType() const { return element_; }

private:
    ArrayType(const Type* element, TypeInfo* info);

    const Type* element_;
    TypeInfo* ownInfo_;
    std::string name_;
    std::string wsdlName_;
};

// One property of a data object or managed type as seen through all levels of its hierarchy.
struct PropertyDesc {
    const PropertyTypeInfo* info;
    const DataTypeInfo* owner;  // the level that declares it (data objects only)
    int localIndex;             // index in the owner's own property array
};

class DataObjectType : public Type {
public:
    explicit DataObjectType(const DataTypeInfo* info);
    DataObjectType* AsDataObjectType() override { return this; }
    Type* GetBaseType() const override;
    DataObjectType* GetBaseDataType() const;
    const DataTypeInfo* GetDataTypeInfo() const { return dataInfo_; }
    bool IsFault() const { return GetKind() == kKindFault; }

    // All properties, inherited ones first, in declaration order.
    const std::vector<PropertyDesc>& GetProperties() const;
    // Index into GetProperties(), or -1.
    int FindProperty(std::string_view name) const;
    // The value of property `index` boxed as an Any (null when absent or, for optionals, unset).
    Fundix::Ref<Any> GetPropertyValue(const DataObject* object, int index) const;
    // Sets property `index` from a boxed value (null unsets an optional or empties an array).
    void SetPropertyValue(DataObject* object, int index, const Any* value) const;
    bool IsPropertySet(const DataObject* object, int index) const;

    Fundix::Ref<DataObject> CreateInstance() const;
    ArrayBase* NewArray() const override;

private:
    const DataTypeInfo* dataInfo_;
    // Resolved on first use, which may come from several threads at once; a base not yet registered
    // leaves both to be resolved again.
    mutable std::mutex resolveMutex_;
    mutable std::atomic<DataObjectType*> base_{nullptr};
    mutable std::atomic<bool> propertiesResolved_{false};
    mutable std::vector<PropertyDesc> properties_;
};

class ManagedMethod;

class ManagedObjectType : public Type {
public:
    explicit ManagedObjectType(const ManagedTypeInfo* info);
    ~ManagedObjectType() override;
    ManagedObjectType* AsManagedObjectType() override { return this; }
    Type* GetBaseType() const override;
    const ManagedTypeInfo* GetManagedTypeInfo() const { return managedInfo_; }
    // Own methods then own properties, in method-table order.
    const std::vector<ManagedMethod*>& GetMethods() const { return methods_; }
    // Finds an own or inherited method or property by wire name.
    ManagedMethod* FindMethod(std::string_view name) const;

private:
    const ManagedTypeInfo* managedInfo_;
    std::vector<ManagedMethod*> methods_;
};

// Operations on an enumeration's values by their integer; EnumTypeImpl<E> adds the typed ones.
class EnumType : public Type {
public:
    explicit EnumType(const EnumTypeInfo* info);
    EnumType* AsEnumType() override { return this; }
    const std::vector<std::string>& GetValues() const { return values_; }
    // Throws Fundix::InvalidArgumentException (message: the text) for an unknown text.
    int32_t TextToValue(std::string_view text) const;
    bool IsValidText(std::string_view text) const;
    // Throws Fundix::InvalidArgumentException (message: the number) for a value out of range.
    const std::string& ValueToText(int32_t value) const;
    // The text of a boxed value of this enumeration; Fundix::TypeMismatchException for another box.
    const std::string& BoxedValueToText(const Any* box) const;
    // A new box holding `value`.
    virtual Fundix::Ref<Any> CreateBox(int32_t value) const = 0;

private:
    int32_t Find(std::string_view text) const;

    std::vector<std::string> values_;
    // Chained hash table from text to value: heads_[hash % size] starts a chain through next_.
    std::vector<int32_t> heads_;
    std::vector<int32_t> next_;
};

template <class E>
class EnumTypeImpl;

// The cached type of T; specialised for every generated type.
template <class T>
Type* GetType();

DataObjectType* CreateDataObjectType(const DataTypeInfo* info);
ManagedObjectType* CreateManagedObjectType(const ManagedTypeInfo* info);

}  // namespace Kitra
