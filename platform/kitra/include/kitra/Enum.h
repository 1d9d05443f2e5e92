// Enumeration types: one EnumTypeImpl<E> per enumeration, and typed conversions between values and texts.
#pragma once

#include <new>
#include <string>
#include <string_view>

#include <kitra/Array.h>
#include <kitra/Primitive.h>
#include <kitra/Type.h>

namespace Kitra {

template <class E>
class EnumTypeImpl : public EnumType {
public:
    explicit EnumTypeImpl(const EnumTypeInfo* info) : EnumType(info) {}
    E TextToEnum(std::string_view text) const { return static_cast<E>(TextToValue(text)); }
    const std::string& EnumToText(E value) const { return ValueToText(static_cast<int32_t>(value)); }
    Fundix::Ref<Any> CreateBox(int32_t value) const override { return new Primitive<E>(static_cast<E>(value)); }
    ArrayBase* NewArray() const override { return new (std::nothrow) Array<E>(); }
};

// The text of `value`; Fundix::InvalidArgumentException for a value outside the enumeration.
template <class E>
const std::string& ToText(E value) {
    return static_cast<EnumType*>(GetType<E>())->ValueToText(static_cast<int32_t>(value));
}

// The value named by `text`; Fundix::InvalidArgumentException (message: the text) for an unknown one.
template <class E>
E FromText(std::string_view text) {
    return static_cast<E>(static_cast<EnumType*>(GetType<E>())->TextToValue(text));
}

}  // namespace Kitra
