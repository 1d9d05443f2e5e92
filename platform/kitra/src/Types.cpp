// Type objects: created from the records, cached for the life of the process.
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>

#include <fundix/Exception.h>
#include <fundix/MessageFormatter.h>
#include <kitra/Array.h>
#include <kitra/DataObject.h>
#include <kitra/Field.h>
#include <kitra/ManagedObject.h>
#include <kitra/MoRef.h>
#include <kitra/Primitive.h>
#include <kitra/Registry.h>
#include <kitra/Type.h>

namespace Kitra {

// ---- Type

Type* Type::GetArrayType() const {
    std::call_once(arrayTypeOnce_, [this] { arrayType_ = new ArrayType(this); });
    return arrayType_.Get();
}

bool Type::IsA(const Type* other) const {
    for (const Type* t = this; t != nullptr; t = t->GetBaseType())
        if (t == other) return true;
    return false;
}

Fundix::Ref<ArrayBase> Type::CreateArray() const { return NewArray(); }

ArrayBase* Type::NewArray() const {
    switch (GetKind()) {
    case kKindString: return new (std::nothrow) Array<std::string>();
    case kKindInt: return new (std::nothrow) Array<int32_t>();
    case kKindLong: return new (std::nothrow) Array<int64_t>();
    case kKindShort: return new (std::nothrow) Array<int16_t>();
    case kKindBool: return new (std::nothrow) Array<bool>();
    case kKindByte: return new (std::nothrow) Array<int8_t>();
    case kKindFloat: return new (std::nothrow) Array<float>();
    case kKindDouble: return new (std::nothrow) Array<double>();
    case kKindDateTime: return new (std::nothrow) Array<Fundix::System::DateTime>();
    case kKindTypeName: return new (std::nothrow) Array<TypeName>();
    case kKindPropertyPath: return new (std::nothrow) Array<PropertyPath>();
    case kKindAnyType: return new (std::nothrow) DataArray<Any>();
    case kKindManaged: return new (std::nothrow) DataArray<MoRef>();
    default: return nullptr;
    }
}

ArrayType::ArrayType(const Type* element) : ArrayType(element, new TypeInfo{kKindArray, nullptr, nullptr, nullptr}) {}

ArrayType::ArrayType(const Type* element, TypeInfo* info)
    : Type(info), element_(element), ownInfo_(info), name_(std::string(element->GetName()) + "[]") {
    std::string wsdl = element->GetWsdlName();
    if (!wsdl.empty()) wsdl[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(wsdl[0])));
    wsdlName_ = "ArrayOf" + wsdl;
    ownInfo_->name = name_.c_str();
    ownInfo_->wsdlName = wsdlName_.c_str();
    ownInfo_->version = element->GetVersion();
}

ArrayType::~ArrayType() { delete ownInfo_; }

Type* GetPrimitiveType(const TypeInfo* info) {
    // The object model's own primitive records, one per kind, are looked up without a lock: the reader
    // asks for them at every field.
    static Type* const* const own = [] {
        static Type* types[kKindPropertyPath + 1] = {};
        for (const TypeInfo* record : {&gStringTypeInfo, &gIntTypeInfo, &gLongTypeInfo, &gShortTypeInfo, &gBoolTypeInfo,
                                       &gByteTypeInfo, &gFloatTypeInfo, &gDoubleTypeInfo, &gDateTimeTypeInfo,
                                       &gAnyTypeInfo, &gTypeNameTypeInfo, &gPropertyPathTypeInfo}) {
            types[record->kind] = new Type(record);
            types[record->kind]->IncRef();  // held for the life of the process
        }
        return types;
    }();
    if (info != nullptr && info->kind <= kKindPropertyPath && own[info->kind] != nullptr &&
        own[info->kind]->GetTypeInfo() == info)
        return own[info->kind];
    static std::mutex mutex;
    static auto* types = new std::map<const TypeInfo*, Fundix::Ref<Type>>();
    std::lock_guard<std::mutex> lock(mutex);
    auto& slot = (*types)[info];
    if (!slot) slot = new Type(info);
    return slot.Get();
}

// ---- DataObjectType

DataObjectType::DataObjectType(const DataTypeInfo* info) : Type(info->type), dataInfo_(info) {}

Type* DataObjectType::GetBaseType() const { return GetBaseDataType(); }

DataObjectType* DataObjectType::GetBaseDataType() const {
    DataObjectType* base = base_.load(std::memory_order_acquire);
    if (base == nullptr && dataInfo_->base != nullptr) {
        if (Type* t = GetTypeMap()->GetType(dataInfo_->base->name)) {
            base = t->AsDataObjectType();
            base_.store(base, std::memory_order_release);
        }
    }
    return base;
}

const std::vector<PropertyDesc>& DataObjectType::GetProperties() const {
    if (propertiesResolved_.load(std::memory_order_acquire)) return properties_;
    std::lock_guard<std::mutex> lock(resolveMutex_);
    if (!propertiesResolved_.load(std::memory_order_relaxed)) {
        std::vector<PropertyDesc> all;
        DataObjectType* base = GetBaseDataType();
        if (base != nullptr) all = base->GetProperties();
        if (const PropertyTypeInfo* p = dataInfo_->properties) {
            for (int i = 0; p[i].name != nullptr; ++i) all.push_back({&p[i], dataInfo_, i});
        }
        // Unresolved (the base is not registered), the list is made again on each call: it is replaced only
        // when it changed, which it does only when the base appears, so what callers hold stays valid.
        if (all.size() != properties_.size()) properties_ = std::move(all);
        propertiesResolved_.store(dataInfo_->base == nullptr || base != nullptr, std::memory_order_release);
    }
    return properties_;
}

int DataObjectType::FindProperty(std::string_view name) const {
    const auto& all = GetProperties();
    for (size_t i = 0; i < all.size(); ++i)
        if (name == all[i].info->name) return static_cast<int>(i);
    return -1;
}

namespace {

template <class T>
Fundix::Ref<Any> BoxRequired(const PropertyDesc& d, const DataObject* object) {
    T value{};
    d.owner->getProperty(const_cast<DataObject*>(object), d.localIndex, &value);
    return new Primitive<T>(value);
}

template <class T>
Fundix::Ref<Any> BoxOptional(const PropertyDesc& d, const DataObject* object) {
    Fundix::Optional<T> value;
    d.owner->getProperty(const_cast<DataObject*>(object), d.localIndex, &value);
    if (!value.IsSet()) return nullptr;
    return new Primitive<T>(value.GetValue());
}

template <class S>
Fundix::Ref<Any> BoxString(const PropertyDesc& d, const DataObject* object, bool optional) {
    if (optional) {
        Fundix::Optional<std::string> value;
        d.owner->getProperty(const_cast<DataObject*>(object), d.localIndex, &value);
        if (!value.IsSet()) return nullptr;
        return new Primitive<S>(S(value.GetValue()));
    }
    std::string value;
    d.owner->getProperty(const_cast<DataObject*>(object), d.localIndex, &value);
    return new Primitive<S>(S(value));
}

EnumType* EnumTypeOf(const PropertyDesc& d) {
    Type* t = GetTypeMap()->GetType(d.info->type->name);
    EnumType* e = t ? t->AsEnumType() : nullptr;
    if (e == nullptr) throw Fundix::InvalidArgumentException(std::string("unknown enumeration ") + d.info->type->name);
    return e;
}

template <class T>
const T& Unbox(const Any* value, const char* expected) {
    auto* box = dynamic_cast<const Primitive<T>*>(value);
    if (box == nullptr) ThrowTypeMismatch(expected, value);
    return box->GetValue();
}

template <class T>
void SetScalar(const PropertyDesc& d, DataObject* object, const Any* value, bool optional) {
    if (optional) {
        Fundix::Optional<T> v;
        if (value != nullptr) v = Unbox<T>(value, d.info->type->name);
        d.owner->setProperty(object, d.localIndex, &v);
        return;
    }
    if (value == nullptr)
        throw Fundix::InvalidArgumentException(std::string("property ") + d.info->name + " requires a value");
    T v = Unbox<T>(value, d.info->type->name);
    d.owner->setProperty(object, d.localIndex, &v);
}

void SetString(const PropertyDesc& d, DataObject* object, const Any* value, bool optional) {
    const std::string* text = nullptr;
    if (value != nullptr) {
        if (auto* s = dynamic_cast<const Primitive<std::string>*>(value)) text = &s->GetValue();
        else if (auto* n = dynamic_cast<const Primitive<TypeName>*>(value)) text = &n->GetValue();
        else if (auto* p = dynamic_cast<const Primitive<PropertyPath>*>(value)) text = &p->GetValue();
        else ThrowTypeMismatch(d.info->type->name, value);
    }
    if (optional) {
        Fundix::Optional<std::string> v;
        if (text != nullptr) v = *text;
        d.owner->setProperty(object, d.localIndex, &v);
        return;
    }
    if (text == nullptr)
        throw Fundix::InvalidArgumentException(std::string("property ") + d.info->name + " requires a value");
    d.owner->setProperty(object, d.localIndex, text);
}

void SetEnum(const PropertyDesc& d, DataObject* object, const Any* value, bool optional) {
    EnumType* type = EnumTypeOf(d);
    Fundix::Optional<int32_t> v;
    if (value != nullptr) {
        auto* box = dynamic_cast<const EnumBox*>(value);
        if (box == nullptr || box->_GetType() != type) ThrowTypeMismatch(type->GetName(), value);
        v = box->GetIntValue();
    }
    if (optional) {
        d.owner->setProperty(object, d.localIndex, &v);
        return;
    }
    if (!v.IsSet())
        throw Fundix::InvalidArgumentException(std::string("property ") + d.info->name + " requires a value");
    int32_t raw = v.GetValue();
    d.owner->setProperty(object, d.localIndex, &raw);
}

}  // namespace

Fundix::Ref<Any> DataObjectType::GetPropertyValue(const DataObject* object, int index) const {
    const PropertyDesc& d = GetProperties().at(static_cast<size_t>(index));
    uint32_t kind = d.info->type->kind;
    switch (StorageOf(*d.info)) {
    case Storage::String:
    case Storage::OptString: {
        bool optional = StorageOf(*d.info) == Storage::OptString;
        if (kind == kKindTypeName) return BoxString<TypeName>(d, object, optional);
        if (kind == kKindPropertyPath) return BoxString<PropertyPath>(d, object, optional);
        return BoxString<std::string>(d, object, optional);
    }
    case Storage::I32:
        if (kind == kKindEnum) {
            int32_t v = 0;
            d.owner->getProperty(const_cast<DataObject*>(object), d.localIndex, &v);
            return EnumTypeOf(d)->CreateBox(v);
        }
        return BoxRequired<int32_t>(d, object);
    case Storage::OptI32:
        if (kind == kKindEnum) {
            Fundix::Optional<int32_t> v;
            d.owner->getProperty(const_cast<DataObject*>(object), d.localIndex, &v);
            return v.IsSet() ? EnumTypeOf(d)->CreateBox(v.GetValue()) : nullptr;
        }
        return BoxOptional<int32_t>(d, object);
    case Storage::I64: return BoxRequired<int64_t>(d, object);
    case Storage::OptI64: return BoxOptional<int64_t>(d, object);
    case Storage::I16: return BoxRequired<int16_t>(d, object);
    case Storage::OptI16: return BoxOptional<int16_t>(d, object);
    case Storage::I8: return BoxRequired<int8_t>(d, object);
    case Storage::OptI8: return BoxOptional<int8_t>(d, object);
    case Storage::Bool: return BoxRequired<bool>(d, object);
    case Storage::OptBool: return BoxOptional<bool>(d, object);
    case Storage::F32: return BoxRequired<float>(d, object);
    case Storage::OptF32: return BoxOptional<float>(d, object);
    case Storage::F64: return BoxRequired<double>(d, object);
    case Storage::OptF64: return BoxOptional<double>(d, object);
    case Storage::Date: return BoxRequired<Fundix::System::DateTime>(d, object);
    case Storage::OptDate: return BoxOptional<Fundix::System::DateTime>(d, object);
    case Storage::Slot: {
        Fundix::Ref<Any> value;
        d.owner->getProperty(const_cast<DataObject*>(object), d.localIndex, &value);
        return value;
    }
    }
    return nullptr;
}

void DataObjectType::SetPropertyValue(DataObject* object, int index, const Any* value) const {
    const PropertyDesc& d = GetProperties().at(static_cast<size_t>(index));
    Storage s = StorageOf(*d.info);
    bool optional = (d.info->flags & kFlagOptional) != 0;
    if (d.info->type->kind == kKindEnum && (s == Storage::I32 || s == Storage::OptI32)) {
        SetEnum(d, object, value, optional);
        return;
    }
    switch (s) {
    case Storage::String:
    case Storage::OptString: SetString(d, object, value, optional); return;
    case Storage::I32:
    case Storage::OptI32: SetScalar<int32_t>(d, object, value, optional); return;
    case Storage::I64:
    case Storage::OptI64: SetScalar<int64_t>(d, object, value, optional); return;
    case Storage::I16:
    case Storage::OptI16: SetScalar<int16_t>(d, object, value, optional); return;
    case Storage::I8:
    case Storage::OptI8: SetScalar<int8_t>(d, object, value, optional); return;
    case Storage::Bool:
    case Storage::OptBool: SetScalar<bool>(d, object, value, optional); return;
    case Storage::F32:
    case Storage::OptF32: SetScalar<float>(d, object, value, optional); return;
    case Storage::F64:
    case Storage::OptF64: SetScalar<double>(d, object, value, optional); return;
    case Storage::Date:
    case Storage::OptDate: SetScalar<Fundix::System::DateTime>(d, object, value, optional); return;
    case Storage::Slot: {
        if (value != nullptr) {
            const TypeInfo* ti = d.info->type;
            bool ok;
            if (d.info->flags & kFlagArray) {
                // The typed getter casts the stored array to the array class of the property's element
                // type, so only an array of exactly that element type may be stored; references of any
                // managed type travel in arrays of the generic reference.
                auto* array = dynamic_cast<const ArrayBase*>(value);
                Type* element = array != nullptr ? array->GetElementType() : nullptr;
                if (ti->kind == kKindManaged) {
                    ok = element != nullptr && element->GetKind() == kKindManaged;
                } else {
                    Type* expected =
                        IsPrimitiveKind(ti->kind) ? GetPrimitiveType(ti) : GetTypeMap()->GetType(ti->name);
                    ok = element != nullptr && element == expected;
                }
            }             else if (ti->kind == kKindManaged) ok = dynamic_cast<const MoRef*>(value) != nullptr;
            else if (ti->kind == kKindAnyType) ok = true;
            else {
                Type* expected = GetTypeMap()->GetType(ti->name);
                ok = dynamic_cast<const DataObject*>(value) != nullptr && expected != nullptr &&
                     value->_GetType()->IsA(expected);
            }
            if (!ok) ThrowTypeMismatch(ti->name, value);
        }
        Fundix::Ref<Any> v(const_cast<Any*>(value));
        d.owner->setProperty(object, d.localIndex, &v);
        return;
    }
    }
}

bool DataObjectType::IsPropertySet(const DataObject* object, int index) const {
    const PropertyDesc& d = GetProperties().at(static_cast<size_t>(index));
    return d.owner->isPropertySet(object, d.localIndex);
}

Fundix::Ref<DataObject> DataObjectType::CreateInstance() const { return dataInfo_->createInstance(); }

ArrayBase* DataObjectType::NewArray() const { return static_cast<ArrayBase*>(dataInfo_->createArray()); }

DataObjectType* CreateDataObjectType(const DataTypeInfo* info) { return new DataObjectType(info); }

// ---- ManagedObjectType

ManagedObjectType::ManagedObjectType(const ManagedTypeInfo* info) : Type(info->type), managedInfo_(info) {
    int index = 0;
    if (const MethodTypeInfo* m = info->methods)
        for (; m->name != nullptr; ++m) methods_.push_back(new ManagedMethod(this, index++, m));
    if (const PropertyTypeInfo* p = info->properties)
        for (; p->name != nullptr; ++p) methods_.push_back(new ManagedMethod(this, index++, p));
    for (size_t i = 0; i < methods_.size(); ++i) {
        methods_[i]->IncRef();
        if (info->methodObjects != nullptr) info->methodObjects[i] = methods_[i];
    }
}

ManagedObjectType::~ManagedObjectType() {
    for (ManagedMethod* m : methods_) m->DecRef();
}

Type* ManagedObjectType::GetBaseType() const {
    if (managedInfo_->base == nullptr) return nullptr;
    return GetTypeMap()->GetType(managedInfo_->base->name);
}

ManagedMethod* ManagedObjectType::FindMethod(std::string_view name) const {
    for (ManagedMethod* m : methods_)
        if (name == m->GetName()) return m;
    if (Type* base = GetBaseType())
        if (ManagedObjectType* b = base->AsManagedObjectType()) return b->FindMethod(name);
    return nullptr;
}

ManagedObjectType* CreateManagedObjectType(const ManagedTypeInfo* info) { return new ManagedObjectType(info); }

ManagedMethod::ManagedMethod(ManagedObjectType* owner, int index, const MethodTypeInfo* method)
    : owner_(owner), index_(index), method_(method),
      wireName_(std::string(owner->GetName()) + "." + method->name) {}

ManagedMethod::ManagedMethod(ManagedObjectType* owner, int index, const PropertyTypeInfo* property)
    : owner_(owner), index_(index), property_(property),
      wireName_(std::string(owner->GetName()) + "." + property->name) {}

// ---- EnumType

EnumType::EnumType(const EnumTypeInfo* info) : Type(info->type) {
    for (const char* const* v = info->values; v != nullptr && *v != nullptr; ++v) values_.emplace_back(*v);
    heads_.assign(values_.size() * 2 + 1, -1);
    next_.assign(values_.size(), -1);
    for (size_t i = 0; i < values_.size(); ++i) {
        size_t bucket = std::hash<std::string_view>()(values_[i]) % heads_.size();
        next_[i] = heads_[bucket];
        heads_[bucket] = static_cast<int32_t>(i);
    }
}

int32_t EnumType::Find(std::string_view text) const {
    size_t bucket = std::hash<std::string_view>()(text) % heads_.size();
    for (int32_t i = heads_[bucket]; i >= 0; i = next_[static_cast<size_t>(i)])
        if (values_[static_cast<size_t>(i)] == text) return i;
    return -1;
}

int32_t EnumType::TextToValue(std::string_view text) const {
    int32_t v = Find(text);
    if (v < 0) throw Fundix::InvalidArgumentException(std::string(text));
    return v;
}

bool EnumType::IsValidText(std::string_view text) const { return Find(text) >= 0; }

const std::string& EnumType::ValueToText(int32_t value) const {
    if (value < 0 || static_cast<size_t>(value) >= values_.size())
        throw Fundix::InvalidArgumentException(Fundix::MessageFormatter::Format("%1", {std::to_string(value)}));
    return values_[static_cast<size_t>(value)];
}

const std::string& EnumType::BoxedValueToText(const Any* box) const {
    auto* e = dynamic_cast<const EnumBox*>(box);
    if (box != nullptr && (e == nullptr || e->_GetType() != this)) ThrowTypeMismatch(GetName(), box);
    if (e == nullptr) throw Fundix::InvalidArgumentException("no value");
    return ValueToText(e->GetIntValue());
}

}  // namespace Kitra
