// Values of the type a field, parameter or result record names (the codec tests' own), for tests that walk
// every record; and the exception a call raised.
#pragma once

#include <kitra/Kitra.h>

#include "../soap/Wire.h"

namespace Values {

using WireTest::Raised;

inline Kitra::Type* ElementType(const Kitra::TypeInfo* t) {
    return Kitra::IsPrimitiveKind(t->kind) ? Kitra::GetPrimitiveType(t) : Kitra::GetTypeMap()->GetType(t->name);
}

// A value for a record of type `t` with `flags` (two of them in an array where the record says so), different
// from the type's default one.
inline Fundix::Ref<Kitra::Any> Sample(const Kitra::TypeInfo* t, uint32_t flags) {
    static const Kitra::Soap::Codec codec(WireTest::V(4));
    return t == nullptr ? nullptr : WireTest::Argument(t, flags, codec);
}

}  // namespace Values
