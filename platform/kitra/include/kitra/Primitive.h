// Boxes that carry a primitive or enumeration value as an Any.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>

#include <fundix/System/DateTime.h>
#include <kitra/Any.h>
#include <kitra/Type.h>

namespace Kitra {

// String-like primitives of the object model.
class TypeName : public std::string {
public:
    using std::string::string;
    TypeName(const std::string& text) : std::string(text) {}
};
class PropertyPath : public std::string {
public:
    using std::string::string;
    PropertyPath(const std::string& text) : std::string(text) {}
};

template <class T>
struct PrimitiveRecord;
template <> struct PrimitiveRecord<std::string> { static const TypeInfo* Get() { return &gStringTypeInfo; } };
template <> struct PrimitiveRecord<int32_t> { static const TypeInfo* Get() { return &gIntTypeInfo; } };
template <> struct PrimitiveRecord<int64_t> { static const TypeInfo* Get() { return &gLongTypeInfo; } };
template <> struct PrimitiveRecord<int16_t> { static const TypeInfo* Get() { return &gShortTypeInfo; } };
template <> struct PrimitiveRecord<bool> { static const TypeInfo* Get() { return &gBoolTypeInfo; } };
template <> struct PrimitiveRecord<int8_t> { static const TypeInfo* Get() { return &gByteTypeInfo; } };
template <> struct PrimitiveRecord<float> { static const TypeInfo* Get() { return &gFloatTypeInfo; } };
template <> struct PrimitiveRecord<double> { static const TypeInfo* Get() { return &gDoubleTypeInfo; } };
template <> struct PrimitiveRecord<Fundix::System::DateTime> {
    static const TypeInfo* Get() { return &gDateTimeTypeInfo; }
};
template <> struct PrimitiveRecord<TypeName> { static const TypeInfo* Get() { return &gTypeNameTypeInfo; } };
template <> struct PrimitiveRecord<PropertyPath> {
    static const TypeInfo* Get() { return &gPropertyPathTypeInfo; }
};

// The common base of enumeration boxes, so that generic code reads any of them as an integer.
class EnumBox : public Any {
public:
    EnumBox(Type* type, int32_t value) : type_(type), value_(value) {}
    int32_t GetIntValue() const { return value_; }
    Type* _GetType() const override { return type_; }
    EnumBox* _Clone() const override { return new EnumBox(type_, value_); }
    bool _IsEqual(const Any* other, bool partial) const override;
    unsigned _GetSize(Sizer sizer) const override { return sizer(sizeof(*this)); }

protected:
    Type* type_;
    int32_t value_;
};

template <class T, bool IsEnum = std::is_enum_v<T>>
class Primitive;

template <class T>
class Primitive<T, false> : public Any {
public:
    explicit Primitive(const T& value) : value_(value) {}
    const T& GetValue() const { return value_; }
    Type* _GetType() const override {
        static Type* const type = GetPrimitiveType(PrimitiveRecord<T>::Get());
        return type;
    }
    Primitive* _Clone() const override { return new Primitive(value_); }
    bool _IsEqual(const Any* other, bool) const override {
        auto* o = dynamic_cast<const Primitive*>(other);
        return o != nullptr && o->value_ == value_;
    }
    unsigned _GetSize(Sizer sizer) const override {
        if constexpr (std::is_base_of_v<std::string, T>) {
            return sizer(sizeof(*this)) + GetExtraSize(value_, sizer);
        } else {
            return sizer(sizeof(*this));
        }
    }

private:
    T value_;
};

template <class E>
class Primitive<E, true> : public EnumBox {
public:
    explicit Primitive(E value) : EnumBox(GetType<E>(), static_cast<int32_t>(value)) {}
    E GetValue() const { return static_cast<E>(value_); }
    Primitive* _Clone() const override { return new Primitive(GetValue()); }
};

}  // namespace Kitra
