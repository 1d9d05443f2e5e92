// Managed objects: the interface base of every managed type, and the method objects of the type tables.
#pragma once

#include <string>

#include <fundix/Object.h>
#include <kitra/Type.h>
#include <kitra/TypeInfo.h>

namespace Kitra {

class ManagedObject : public virtual Fundix::Object {
public:
    ~ManagedObject() override = default;
};

template <>
Type* GetType<ManagedObject>();

// A method or property of a managed type, made from its record when the type is created. Properties are
// addressed like methods without parameters whose result is the property's value.
class ManagedMethod : public Fundix::ObjectImpl {
public:
    ManagedMethod(ManagedObjectType* owner, int index, const MethodTypeInfo* method);
    ManagedMethod(ManagedObjectType* owner, int index, const PropertyTypeInfo* property);

    bool IsProperty() const { return method_ == nullptr; }
    const char* GetName() const { return method_ ? method_->name : property_->name; }
    // "<type wire name>.<name>"
    const std::string& GetWireName() const { return wireName_; }
    const char* GetWsdlName() const { return method_ ? method_->wsdlName : property_->name; }
    const char* GetPrivilege() const { return method_ ? method_->privilege : property_->privilege; }
    const char* GetVersion() const { return method_ ? method_->version : property_->version; }
    const MethodTypeInfo* GetMethodInfo() const { return method_; }
    const PropertyTypeInfo* GetPropertyInfo() const { return property_; }
    ManagedObjectType* GetOwner() const { return owner_; }
    int GetIndex() const { return index_; }

private:
    ManagedObjectType* owner_;
    int index_;
    const MethodTypeInfo* method_ = nullptr;
    const PropertyTypeInfo* property_ = nullptr;
    std::string wireName_;
};

}  // namespace Kitra
