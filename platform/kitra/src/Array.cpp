// Arrays of counted elements, and managed-object references.
#include <new>
#include <string>
#include <typeinfo>

#include <kitra/Array.h>
#include <kitra/DataObject.h>
#include <kitra/MoRef.h>
#include <kitra/Registry.h>

namespace Kitra {

void ThrowArrayElementMismatch(const Type* element, const Any* value) {
    ThrowTypeMismatch(element != nullptr ? element->GetName() : "?", value);
}

template <>
const TypeInfo* ElementRecord<MoRef>() {
    return &gManagedObjectTypeInfo;
}

template <>
const TypeInfo* ElementRecord<Any>() {
    return &gAnyTypeInfo;
}

Type* DataArrayBase::GetElementType() const {
    if (IsPrimitiveKind(elementInfo_->kind)) return GetPrimitiveType(elementInfo_);
    return GetTypeMap()->GetType(elementInfo_->name);
}

void ArrayBase::ThrowIndexOutOfRange(size_t index, size_t length) {
    throw Fundix::InvalidArgumentException("index " + std::to_string(index) + " out of range: the array holds " +
                                           std::to_string(length));
}

void DataArrayBase::AppendBoxed(const Any* value) {
    bool ok = value != nullptr;
    if (ok && elementInfo_->kind == kKindManaged) {
        ok = &typeid(*value) == &typeid(MoRef);
    } else if (ok && elementInfo_->kind != kKindAnyType) {
        // The value's type or one of its bases has the element's record; only data objects have types
        // with data records, so that also says the value is one.
        const Type* type = value->_GetType();
        while (type != nullptr && type->GetTypeInfo() != elementInfo_) type = type->GetBaseType();
        ok = type != nullptr;
    }
    if (!ok) ThrowArrayElementMismatch(GetElementType(), value);
    items_.emplace_back(const_cast<Any*>(value));
}

DataArrayBase* DataArrayBase::_Clone() const {
    Type* element = GetElementType();
    auto* copy = static_cast<DataArrayBase*>(element != nullptr ? element->NewArray() : nullptr);
    if (copy == nullptr) return nullptr;
    copy->items_.reserve(items_.size());
    // The element record says what the items are: data objects (cloned), references (immutable, so
    // shared); only untyped arrays ask each item.
    const uint32_t kind = elementInfo_->kind;
    const bool data = kind == kKindData || kind == kKindFault;
    for (const auto& item : items_) {
        if (item && (data || (kind == kKindAnyType && dynamic_cast<const DataObject*>(item.Get()) != nullptr)))
            copy->items_.emplace_back(item->_Clone());
        else copy->items_.push_back(item);
    }
    return copy;
}

bool DataArrayBase::_IsEqual(const Any* other, bool partial) const {
    if (other == nullptr) return false;
    // Both arrays of a field are of one class; only arrays of different classes need the cast.
    auto* o = typeid(*other) == typeid(*this) ? static_cast<const DataArrayBase*>(other)
                                              : dynamic_cast<const DataArrayBase*>(other);
    if (o == nullptr || o->items_.size() != items_.size()) return false;
    for (size_t i = 0; i < items_.size(); ++i)
        if (!AreEqualAnysInt(items_[i].Get(), o->items_[i].Get(), 0, partial)) return false;
    return true;
}

unsigned DataArrayBase::_GetSize(Sizer sizer) const {
    unsigned size = sizer(sizeof(*this)) + sizer(static_cast<unsigned>(items_.capacity() * sizeof(items_[0])));
    for (const auto& item : items_)
        if (item) size += item->_GetSize(sizer);
    return size;
}

Type* MoRef::_GetType() const {
    Type* t = GetTypeMap()->GetType(type_);
    return t != nullptr ? t : GetType<ManagedObject>();
}

bool MoRef::_IsEqual(const Any* other, bool) const {
    if (other == nullptr || typeid(*other) != typeid(MoRef)) return false;
    auto* o = static_cast<const MoRef*>(other);
    return o->id_ == id_ && o->type_ == type_;
}

unsigned MoRef::_GetSize(Sizer sizer) const {
    return sizer(sizeof(*this)) + GetExtraSize(type_, sizer) + GetExtraSize(id_, sizer);
}

}  // namespace Kitra
