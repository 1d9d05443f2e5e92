// Bases of the generated data objects and faults.
#pragma once

#include <string>
#include <typeinfo>

#include <fundix/Exception.h>
#include <kitra/Any.h>
#include <kitra/Type.h>

namespace Kitra {

class DataObject : public Any {
public:
    DataObject* _Clone() const override = 0;
    virtual DataObjectType* _GetDataType() const;
    // True when `other` is of exactly this class and every field compares equal, level by level.
    bool _IsEqual(const Any* other, bool partial) const override;
    // Compares level by level; an object of another class (or none) differs at `prefix` itself.
    void _DiffProperties(const Any* other, const std::string& prefix, PropertyDiffSet& diffs) const override;
    unsigned _GetSize(Sizer sizer) const override;
    // For the generic walk: compares every level's fields with those of `other`, which the caller knows
    // to be of exactly this object's class.
    bool _EqualSameClass(const DataObject* other, bool partial) const { return _EqualFields(other, partial); }

protected:
    DataObject() = default;
    DataObject(const DataObject&) = default;
    // Each level compares its own fields after calling its base; `other` is of this exact class.
    virtual bool _EqualFields(const DataObject* other, bool partial) const;
    virtual void _DiffFields(const DataObject* other, const std::string& prefix, PropertyDiffSet& diffs) const;
};

class DynamicData : public DataObject {
public:
    DynamicData() = default;
    DynamicData* _Clone() const override;
    Type* _GetType() const override;

protected:
    DynamicData(const DynamicData&) = default;
};

class MethodFault : public DynamicData {
public:
    // The exception that carries a fault. Every generated fault class nests one, derived from its base
    // fault's, so handlers can catch at any level of the fault hierarchy.
    class Exception : public Fundix::Exception {
    public:
        // Wraps `fault` (null allowed) and takes a reference to it; the message is the fault type's
        // wire name, or "kodl.MethodFault" when there is no fault.
        explicit Exception(MethodFault* fault);
        Exception();
        Exception(const Exception& other);
        ~Exception() override;
        MethodFault* GetFault() const { return fault_; }
        Fundix::Exception* Clone() const override;
        [[noreturn]] void Throw() const override;

    private:
        MethodFault* fault_;
    };

    MethodFault() = default;
    MethodFault* _Clone() const override;
    Type* _GetType() const override;
    // Raises this fault as its own class's exception.
    [[noreturn]] virtual void Throw();
    // A new exception wrapping this fault, for code that hands a failure on instead of throwing it.
    virtual Exception* CreateException();

protected:
    MethodFault(const MethodFault&) = default;
};

class RuntimeFault : public MethodFault {
public:
    class Exception : public MethodFault::Exception {
    public:
        explicit Exception(RuntimeFault* fault);
        Exception();
        RuntimeFault* GetFault() const;
        Fundix::Exception* Clone() const override;
        [[noreturn]] void Throw() const override;
    };

    RuntimeFault() = default;
    RuntimeFault* _Clone() const override;
    Type* _GetType() const override;
    [[noreturn]] void Throw() override;
    Exception* CreateException() override;

protected:
    RuntimeFault(const RuntimeFault&) = default;
};

template <>
Type* GetType<DynamicData>();
template <>
Type* GetType<MethodFault>();
template <>
Type* GetType<RuntimeFault>();

// Checked downcast of a value: null stays null, another class raises Fundix::TypeMismatchException, which
// names the expected and the received type by their wire names.
[[noreturn]] void ThrowTypeMismatch(const char* expected, const Any* received);
[[noreturn]] void ThrowTypeMismatch(const std::type_info& expected, const Any* received);

// The wire name of the type whose values are of class `cls` ("morphel.ComputerSpec", "int",
// "ArrayOfString", "ManagedObjectReference"); the C++ name for a class that no registered type uses.
std::string WireNameOf(const std::type_info& cls);

template <class T, class S>
T* CheckedCast(S* object) {
    if (object == nullptr) return nullptr;
    // An object of exactly class T, the common case, needs no search of its class's bases. (Comparing
    // the class records' addresses can only miss, never confuse two classes; a miss takes the search.)
    if constexpr (requires { static_cast<T*>(object); }) {
        if (&typeid(*object) == &typeid(T)) return static_cast<T*>(object);
    }
    T* result = dynamic_cast<T*>(object);
    if (result == nullptr) ThrowTypeMismatch(typeid(T), object);
    return result;
}

}  // namespace Kitra
