// Values of the type a field, parameter or result record names, for tests that walk every record; and the
// exception a call raised.
#pragma once

#include <optional>

#include <kitra/Kitra.h>

namespace Values {

// A copy of what `f` raised as E; nothing when it raised nothing (anything else passes through).
template <class E, class F>
std::optional<E> Raised(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e;
    }
    return std::nullopt;
}

inline Kitra::Type* ElementType(const Kitra::TypeInfo* t) {
    return Kitra::IsPrimitiveKind(t->kind) ? Kitra::GetPrimitiveType(t) : Kitra::GetTypeMap()->GetType(t->name);
}

// A value of type `t` that differs from the type's default one.
inline Fundix::Ref<Kitra::Any> ScalarSample(const Kitra::TypeInfo* t) {
    switch (t->kind) {
    case Kitra::kKindString: return new Kitra::Primitive<std::string>("a text long enough for the heap");
    case Kitra::kKindTypeName: return new Kitra::Primitive<Kitra::TypeName>("morphel.task.TaskInfo");
    case Kitra::kKindPropertyPath: return new Kitra::Primitive<Kitra::PropertyPath>("source.location.hostname");
    case Kitra::kKindInt: return new Kitra::Primitive<int32_t>(0x12345678);
    case Kitra::kKindLong: return new Kitra::Primitive<int64_t>((int64_t{1} << 40) + 5);
    case Kitra::kKindShort: return new Kitra::Primitive<int16_t>(-300);
    case Kitra::kKindByte: return new Kitra::Primitive<int8_t>(static_cast<int8_t>(0xEE));
    case Kitra::kKindBool: return new Kitra::Primitive<bool>(true);
    case Kitra::kKindFloat: return new Kitra::Primitive<float>(1.5f);
    case Kitra::kKindDouble: return new Kitra::Primitive<double>(2.25);
    case Kitra::kKindDateTime: return new Kitra::Primitive<Fundix::System::DateTime>(Fundix::System::DateTime(2021, 3, 4));
    case Kitra::kKindAnyType: return new Kitra::Primitive<int32_t>(7);
    case Kitra::kKindManaged: return new Kitra::MoRef(t->name, "object-1");
    case Kitra::kKindEnum: {
        Kitra::EnumType* e = ElementType(t)->AsEnumType();
        return e->CreateBox(static_cast<int32_t>(e->GetValues().size()) - 1);
    }
    default: {
        Kitra::Type* type = ElementType(t);
        return type != nullptr && type->AsDataObjectType() ? type->AsDataObjectType()->CreateInstance() : nullptr;
    }
    }
}

// A value for a record of type `t` with `flags`: two of them in an array where the record says so.
inline Fundix::Ref<Kitra::Any> Sample(const Kitra::TypeInfo* t, uint32_t flags) {
    if (t == nullptr) return nullptr;
    if ((flags & Kitra::kFlagArray) == 0) return ScalarSample(t);
    Kitra::Type* element = ElementType(t);
    if (element == nullptr) return nullptr;
    Fundix::Ref<Kitra::ArrayBase> array = element->CreateArray();
    if (!array) return nullptr;
    Fundix::Ref<Kitra::Any> item = ScalarSample(t);
    array->AppendBoxed(item.Get());
    array->AppendBoxed(item.Get());
    return Fundix::Ref<Kitra::Any>(array.Get());
}

}  // namespace Values
