// Counted arrays: Array<T> of primitive or enumeration values, DataArray<T> of data objects (or of any
// other counted values, such as managed-object references).
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include <fundix/Ref.h>
#include <kitra/Any.h>
#include <kitra/Primitive.h>
#include <kitra/Type.h>

namespace Kitra {

class ArrayBase : public Any {
public:
    // Every indexed access is checked: an index past the end raises Fundix::InvalidArgumentException
    // naming the index and the length.
    static void CheckIndex(size_t index, size_t length) {
        if (index >= length) [[unlikely]]
            ThrowIndexOutOfRange(index, length);
    }
    [[noreturn]] static void ThrowIndexOutOfRange(size_t index, size_t length);

    virtual size_t GetLength() const = 0;
    bool IsEmpty() const { return GetLength() == 0; }
    virtual void Clear() = 0;
    // The element type's type object.
    virtual Type* GetElementType() const = 0;
    // Element `index` boxed (data elements as themselves).
    virtual Fundix::Ref<Any> GetBoxed(size_t index) const = 0;
    // Appends a boxed element; Fundix::TypeMismatchException when it is not of the element type.
    virtual void AppendBoxed(const Any* value) = 0;
    ArrayBase* _Clone() const override = 0;
    Type* _GetType() const override { return GetElementType()->GetArrayType(); }
};

// Values of a primitive type, or of an enumeration (stored as the enumeration itself).
template <class T>
class Array : public ArrayBase {
public:
    Array() = default;
    size_t GetLength() const override { return values_.size(); }
    // (A value for bool, whose vector keeps no bool objects to refer to.)
    using ConstReference = typename std::vector<T>::const_reference;
    ConstReference Get(size_t index) const {
        CheckIndex(index, values_.size());
        return values_[index];
    }
    ConstReference operator[](size_t index) const { return values_[index]; }
    void Set(size_t index, const T& value) {
        CheckIndex(index, values_.size());
        values_[index] = value;
    }
    void Append(const T& value) { values_.push_back(value); }
    void Clear() override { values_.clear(); }
    const std::vector<T>& GetValues() const { return values_; }
    std::vector<T>& GetValues() { return values_; }

    Type* GetElementType() const override {
        if constexpr (std::is_enum_v<T>) {
            return GetType<T>();
        } else {
            return GetPrimitiveType(PrimitiveRecord<T>::Get());
        }
    }
    Fundix::Ref<Any> GetBoxed(size_t index) const override { return new Primitive<T>(Get(index)); }
    void AppendBoxed(const Any* value) override {
        if (auto* box = dynamic_cast<const Primitive<T>*>(value)) {
            values_.push_back(box->GetValue());
        } else if constexpr (std::is_enum_v<T>) {
            auto* e = dynamic_cast<const EnumBox*>(value);
            if (e == nullptr || e->_GetType() != GetElementType()) ThrowTypeMismatchElement(value);
            values_.push_back(static_cast<T>(e->GetIntValue()));
        } else {
            ThrowTypeMismatchElement(value);
        }
    }
    Array* _Clone() const override { return new Array(*this); }
    bool _IsEqual(const Any* other, bool) const override {
        if (other == nullptr || typeid(*other) != typeid(*this)) return false;
        return static_cast<const Array*>(other)->values_ == values_;
    }
    unsigned _GetSize(Sizer sizer) const override {
        unsigned size = sizer(sizeof(*this)) + sizer(static_cast<unsigned>(values_.capacity() * sizeof(T)));
        if constexpr (std::is_base_of_v<std::string, T>) {
            for (const T& v : values_) size += GetExtraSize(v, sizer);
        }
        return size;
    }

private:
    void ThrowTypeMismatchElement(const Any* value) const;
    Array(const Array& other) : ArrayBase(other), values_(other.values_) {}

    std::vector<T> values_;
};

void ThrowArrayElementMismatch(const Type* element, const Any* value);

template <class T>
void Array<T>::ThrowTypeMismatchElement(const Any* value) const {
    ThrowArrayElementMismatch(GetElementType(), value);
}

// Counted elements of one element type. Elements are held as Any; DataArray<T> gives typed access.
class DataArrayBase : public ArrayBase {
public:
    explicit DataArrayBase(const TypeInfo* elementInfo) : elementInfo_(elementInfo) {}
    size_t GetLength() const override { return items_.size(); }
    void Clear() override { items_.clear(); }
    Type* GetElementType() const override;
    const TypeInfo* GetElementTypeInfo() const { return elementInfo_; }
    Any* GetAny(size_t index) const {
        CheckIndex(index, items_.size());
        return items_[index].Get();
    }
    Fundix::Ref<Any> GetBoxed(size_t index) const override { return GetAny(index); }
    // Both append after checking that `value` is of the element type (or derives from it), which
    // DataArray<T>::Get relies on; Fundix::TypeMismatchException otherwise.
    void AppendBoxed(const Any* value) override;
    void AppendAny(Any* value) { AppendBoxed(value); }
    // A new array of the same class; elements that are data objects are cloned, others shared.
    DataArrayBase* _Clone() const override;
    bool _IsEqual(const Any* other, bool partial) const override;
    unsigned _GetSize(Sizer sizer) const override;

protected:
    DataArrayBase(const DataArrayBase&) = delete;
    // For DataArray<T>, whose element's class the compiler has checked, and for the wire reader, which
    // has checked each record's type against the element type before it made the record.
    void AppendUnchecked(Any* value) { items_.emplace_back(value); }
    friend struct ReaderAccess;

private:
    const TypeInfo* elementInfo_;
    std::vector<Fundix::Ref<Any>> items_;
};

template <class T>
class DataArray : public DataArrayBase {
public:
    DataArray();
    T* Get(size_t index) const { return static_cast<T*>(GetAny(index)); }
    T* operator[](size_t index) const { return Get(index); }
    void Append(T* value) { AppendUnchecked(value); }
    DataArray* _Clone() const override { return static_cast<DataArray*>(DataArrayBase::_Clone()); }
};

// The element record of DataArray<T>; specialised where T is not a generated type.
template <class T>
const TypeInfo* ElementRecord() {
    return GetType<T>()->GetTypeInfo();
}
class MoRef;
template <>
const TypeInfo* ElementRecord<MoRef>();
template <>
const TypeInfo* ElementRecord<Any>();

template <class T>
DataArray<T>::DataArray() : DataArrayBase(ElementRecord<T>()) {}

}  // namespace Kitra
