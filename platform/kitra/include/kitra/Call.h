// Calls: boxing arguments and results into Kitra::Any and back, for the generated stubs and dispatch.
#pragma once

#include <kitra/Kitra.h>

namespace Kitra::Binding {

[[noreturn]] void ThrowMissingValue(const char* name);

inline Fundix::Ref<Kitra::Any> BoxRef(Kitra::Any* value) { return value; }
template <class T>
Fundix::Ref<Kitra::Any> BoxValue(const T& value) {
    return new Kitra::Primitive<T>(value);
}
template <class T>
Fundix::Ref<Kitra::Any> BoxOptional(const Fundix::Optional<T>& value) {
    if (!value.IsSet()) return nullptr;
    return new Kitra::Primitive<T>(value.GetValue());
}

// A counted value of class T, or null; another class raises Fundix::TypeMismatchException.
template <class T>
T* UnboxRef(Kitra::Any* value) {
    return Kitra::CheckedCast<T>(value);
}
// The value inside a box; a missing box raises Kitra::Fault::InvalidArgument naming `name`.
template <class T>
T UnboxValue(Kitra::Any* value, const char* name) {
    if (value == nullptr) ThrowMissingValue(name);
    return Kitra::CheckedCast<Kitra::Primitive<T>>(value)->GetValue();
}
template <class T>
Fundix::Optional<T> UnboxOptional(Kitra::Any* value) {
    if (value == nullptr) return Fundix::Optional<T>();
    return Kitra::CheckedCast<Kitra::Primitive<T>>(value)->GetValue();
}

// Argument `index` of a call; a shorter argument vector raises Kitra::Fault::InvalidArgument.
inline Kitra::Any* Arg(Fundix::RefVector<Kitra::Any>& arguments, size_t index, const char* name) {
    if (index >= arguments.size()) ThrowMissingValue(name);
    return arguments[index].Get();
}

// The implementation object of a dispatched call, as the managed type's interface.
template <class T>
[[gnu::visibility("hidden")]] T* Target(Kitra::ManagedObject* object) {
    T* target = dynamic_cast<T*>(object);
    if (target == nullptr) ThrowNotImplementing(GetType<T>(), object);
    return target;
}

[[noreturn]] void ThrowNoMethod(const char* type, int index);

}  // namespace Kitra::Binding
