// The data-object and fault bases, and the comparisons that generated code delegates to.
#include <cxxabi.h>

#include <cstdlib>
#include <new>
#include <typeinfo>
#include <unordered_map>

#include <fundix/Exception.h>
#include <kitra/Array.h>
#include <kitra/DataObject.h>
#include <kitra/MoRef.h>
#include <kitra/Primitive.h>
#include <kitra/Registry.h>

namespace Kitra {

// ---- PropertyDiffSet and helpers

void PropertyDiffSet::Add(const std::string& path) {
    if (!Contains(path)) Add(std::string(path));
}

void PropertyDiffSet::Add(std::string&& path) {
    if (!hasFirst_) {
        first_ = std::move(path);
        hasFirst_ = true;
    } else if (!Contains(path)) {
        rest_.push_back(std::move(path));
    }
}

bool PropertyDiffSet::Contains(const std::string& path) const {
    if (!hasFirst_) return false;
    if (first_ == path) return true;
    for (const auto& p : rest_)
        if (p == path) return true;
    return false;
}

unsigned IdentitySizer(unsigned size) { return size; }

unsigned GetExtraSize(const std::string& text, Sizer sizer) {
    // Short strings live inside the object; longer ones own a heap buffer of their capacity.
    return text.capacity() < 16 ? sizer(0) : sizer(static_cast<unsigned>(text.capacity()));
}

void ThrowTypeMismatch(const char* expected, const Any* received) {
    std::string got = "null";
    if (received != nullptr) {
        Type* t = received->_GetType();
        got = t != nullptr ? t->GetName() : WireNameOf(typeid(*received));
    }
    throw Fundix::TypeMismatchException(expected, got);
}

void ThrowTypeMismatch(const std::type_info& expected, const Any* received) {
    ThrowTypeMismatch(WireNameOf(expected).c_str(), received);
}

namespace {

// From the C++ class of values to the wire name of their type, made once, the first time a mismatch is
// reported: one value of every registered type (and one array of it) is made to learn its class.
class WireNames {
public:
    WireNames() {
        Add<Primitive<std::string>>(&gStringTypeInfo);
        Add<Primitive<int32_t>>(&gIntTypeInfo);
        Add<Primitive<int64_t>>(&gLongTypeInfo);
        Add<Primitive<int16_t>>(&gShortTypeInfo);
        Add<Primitive<bool>>(&gBoolTypeInfo);
        Add<Primitive<int8_t>>(&gByteTypeInfo);
        Add<Primitive<float>>(&gFloatTypeInfo);
        Add<Primitive<double>>(&gDoubleTypeInfo);
        Add<Primitive<Fundix::System::DateTime>>(&gDateTimeTypeInfo);
        Add<Primitive<TypeName>>(&gTypeNameTypeInfo);
        Add<Primitive<PropertyPath>>(&gPropertyPathTypeInfo);
        names_[typeid(MoRef).name()] = "ManagedObjectReference";
        names_[typeid(DataObject).name()] = "kodl.DataObject";
        names_[typeid(Any).name()] = "anyType";
        for (Type* type : GetTypeMap()->GetTypes()) {
            try {
                if (const DataObjectType* data = type->AsDataObjectType()) {
                    Fundix::Ref<DataObject> value = data->CreateInstance();
                    if (const DataObject* v = value.Get()) names_[typeid(*v).name()] = type->GetName();
                } else if (const EnumType* e = type->AsEnumType()) {
                    Fundix::Ref<Any> box = e->CreateBox(0);
                    if (const Any* b = box.Get()) names_[typeid(*b).name()] = type->GetName();
                } else {
                    continue;
                }
                AddArray(type);
            } catch (const std::exception&) {
                // A type that cannot make a value keeps its C++ name.
            }
        }
    }

    std::string Find(const std::type_info& cls) const {
        auto it = names_.find(cls.name());
        if (it != names_.end()) return it->second;
        int status = 0;
        char* plain = abi::__cxa_demangle(cls.name(), nullptr, nullptr, &status);
        std::string name = status == 0 && plain != nullptr ? plain : cls.name();
        std::free(plain);
        return name;
    }

private:
    template <class Box>
    void Add(const TypeInfo* record) {
        Type* type = GetPrimitiveType(record);
        if (type == nullptr) return;
        names_[typeid(Box).name()] = type->GetName();
        AddArray(type);
    }

    void AddArray(Type* type) {
        Fundix::Ref<ArrayBase> array(type->NewArray());
        Type* arrayType = type->GetArrayType();
        if (const ArrayBase* a = array.Get(); a != nullptr && arrayType != nullptr) names_[typeid(*a).name()] = arrayType->GetName();
    }

    std::unordered_map<std::string, std::string> names_;
};

}  // namespace

std::string WireNameOf(const std::type_info& cls) {
    static const WireNames names;
    return names.Find(cls);
}

namespace {

bool IsEmptyArray(const Any* value) {
    auto* a = dynamic_cast<const ArrayBase*>(value);
    return a != nullptr && a->IsEmpty();
}

}  // namespace

bool AreEqualAnysInt(const Any* mine, const Any* theirs, uint32_t flags, bool partial) {
    if (mine == theirs) return true;
    if ((flags & kFlagArray) && (mine == nullptr || IsEmptyArray(mine)) && (theirs == nullptr || IsEmptyArray(theirs)))
        return true;
    if (theirs == nullptr) return partial && (flags & kFlagOptional);
    if (mine == nullptr) return false;
    return mine->_IsEqual(theirs, partial);
}

void DiffAnyPropertiesInt(const Any* mine, const Any* theirs, const std::string& path, uint32_t flags,
                          PropertyDiffSet& diffs) {
    if (mine == theirs) return;
    if ((flags & kFlagArray) && (mine == nullptr || IsEmptyArray(mine)) && (theirs == nullptr || IsEmptyArray(theirs)))
        return;
    if (mine == nullptr || theirs == nullptr) {
        diffs.Add(path);
        return;
    }
    mine->_DiffProperties(theirs, path, diffs);
}

void Any::_DiffProperties(const Any* other, const std::string& prefix, PropertyDiffSet& diffs) const {
    if (!_IsEqual(other, false)) diffs.Add(prefix);
}

bool EnumBox::_IsEqual(const Any* other, bool) const {
    auto* o = dynamic_cast<const EnumBox*>(other);
    return o != nullptr && o->type_ == type_ && o->value_ == value_;
}

// ---- DataObject

DataObjectType* DataObject::_GetDataType() const {
    Type* t = _GetType();
    return t != nullptr ? t->AsDataObjectType() : nullptr;
}

// An object of exactly this class is a data object: its class, not a cast, says so.
bool DataObject::_IsEqual(const Any* other, bool partial) const {
    if (other == nullptr || typeid(*this) != typeid(*other)) return false;
    return _EqualFields(static_cast<const DataObject*>(other), partial);
}

void DataObject::_DiffProperties(const Any* other, const std::string& prefix, PropertyDiffSet& diffs) const {
    if (other == nullptr || typeid(*this) != typeid(*other)) {
        diffs.Add(prefix);
        return;
    }
    _DiffFields(static_cast<const DataObject*>(other), prefix, diffs);
}

unsigned DataObject::_GetSize(Sizer sizer) const { return sizer(sizeof(DataObject)); }

bool DataObject::_EqualFields(const DataObject*, bool) const { return true; }

void DataObject::_DiffFields(const DataObject*, const std::string&, PropertyDiffSet&) const {}

DynamicData* DynamicData::_Clone() const { return new DynamicData(*this); }
Type* DynamicData::_GetType() const { return GetType<DynamicData>(); }

// ---- Faults

MethodFault::Exception::Exception(MethodFault* fault)
    : Fundix::Exception(fault != nullptr && fault->_GetType() != nullptr ? fault->_GetType()->GetName()
                                                                         : "kodl.MethodFault"),
      fault_(fault) {
    if (fault_ != nullptr) fault_->IncRef();
}

MethodFault::Exception::Exception() : Exception(new (std::nothrow) MethodFault()) {}

MethodFault::Exception::Exception(const Exception& other) : Fundix::Exception(other), fault_(other.fault_) {
    if (fault_ != nullptr) fault_->IncRef();
}

MethodFault::Exception::~Exception() {
    if (fault_ != nullptr) fault_->DecRef();
}

Fundix::Exception* MethodFault::Exception::Clone() const { return new (std::nothrow) Exception(*this); }
void MethodFault::Exception::Throw() const { throw Exception(*this); }

MethodFault* MethodFault::_Clone() const { return new MethodFault(*this); }
Type* MethodFault::_GetType() const { return GetType<MethodFault>(); }
void MethodFault::Throw() { throw Exception(this); }
MethodFault::Exception* MethodFault::CreateException() { return new (std::nothrow) Exception(this); }

RuntimeFault::Exception::Exception(RuntimeFault* fault) : MethodFault::Exception(fault) {}
RuntimeFault::Exception::Exception() : Exception(new (std::nothrow) RuntimeFault()) {}
RuntimeFault* RuntimeFault::Exception::GetFault() const {
    return CheckedCast<RuntimeFault>(MethodFault::Exception::GetFault());
}
Fundix::Exception* RuntimeFault::Exception::Clone() const { return new (std::nothrow) Exception(*this); }
void RuntimeFault::Exception::Throw() const { throw Exception(*this); }

RuntimeFault* RuntimeFault::_Clone() const { return new RuntimeFault(*this); }
Type* RuntimeFault::_GetType() const { return GetType<RuntimeFault>(); }
void RuntimeFault::Throw() { throw Exception(this); }
RuntimeFault::Exception* RuntimeFault::CreateException() { return new (std::nothrow) Exception(this); }

}  // namespace Kitra
