// The generic field operations: one implementation per storage class, chosen from the property record.
#include <new>

#include <fundix/Exception.h>
#include <kitra/Array.h>
#include <kitra/DataObject.h>
#include <kitra/Field.h>
#include <kitra/Registry.h>

namespace Kitra {

// ---- Slots

void RefSlot::Store(Any* value) {
    if (value != nullptr) value->IncRef();
    Any* old = __atomic_exchange_n(&p_, value, __ATOMIC_ACQ_REL);
    if (old != nullptr) old->DecRef();
}

ObjSlot::ObjSlot(const ObjSlot& other) : RefSlot() {
    if (other.p_ != nullptr) {
        p_ = other.p_->_Clone();
        if (p_ != nullptr) p_->IncRef();
    }
}

ArraySlot::ArraySlot(const ArraySlot& other) : RefSlot() {
    if (other.p_ != nullptr) {
        p_ = other.p_->_Clone();
        if (p_ != nullptr) p_->IncRef();
    }
}

void ArraySlot::Store(Any* value) {
    if (value == nullptr) {
        // Setting an array to null empties it in place: the field keeps its array, now empty.
        if (auto* array = dynamic_cast<ArrayBase*>(p_)) array->Clear();
        return;
    }
    RefSlot::Store(value);
}

Storage StorageOf(const PropertyTypeInfo& p) {
    if (p.flags & kFlagArray) return Storage::Slot;
    bool optional = (p.flags & kFlagOptional) != 0;
    if (p.type == nullptr) throw Fundix::InvalidArgumentException(std::string("property ") + p.name + " has no type");
    switch (p.type->kind) {
    case kKindString:
    case kKindTypeName:
    case kKindPropertyPath: return optional ? Storage::OptString : Storage::String;
    case kKindInt:
    case kKindEnum: return optional ? Storage::OptI32 : Storage::I32;
    case kKindLong: return optional ? Storage::OptI64 : Storage::I64;
    case kKindShort: return optional ? Storage::OptI16 : Storage::I16;
    case kKindByte: return optional ? Storage::OptI8 : Storage::I8;
    case kKindBool: return optional ? Storage::OptBool : Storage::Bool;
    case kKindFloat: return optional ? Storage::OptF32 : Storage::F32;
    case kKindDouble: return optional ? Storage::OptF64 : Storage::F64;
    case kKindDateTime: return optional ? Storage::OptDate : Storage::Date;
    default: return Storage::Slot;
    }
}

namespace Fields {

namespace {

using Fundix::Optional;
using Fundix::System::DateTime;

template <class T>
T& At(void* object, const FieldLayout& layout, int index) {
    return *reinterpret_cast<T*>(static_cast<char*>(object) + layout.fields[index].offset);
}

template <class T>
const T& At(const void* object, const FieldLayout& layout, int index) {
    return *reinterpret_cast<const T*>(static_cast<const char*>(object) + layout.fields[index].offset);
}

bool InRange(const FieldLayout& layout, const void* object, int index) {
    return object != nullptr && index >= 0 && static_cast<uint32_t>(index) < layout.count;
}

// Calls `f` with the field's storage type as a template argument.
template <class F>
auto Dispatch(Storage s, F&& f) {
    switch (s) {
    case Storage::String: return f(static_cast<std::string*>(nullptr));
    case Storage::OptString: return f(static_cast<Optional<std::string>*>(nullptr));
    case Storage::I32: return f(static_cast<int32_t*>(nullptr));
    case Storage::OptI32: return f(static_cast<Optional<int32_t>*>(nullptr));
    case Storage::I64: return f(static_cast<int64_t*>(nullptr));
    case Storage::OptI64: return f(static_cast<Optional<int64_t>*>(nullptr));
    case Storage::I16: return f(static_cast<int16_t*>(nullptr));
    case Storage::OptI16: return f(static_cast<Optional<int16_t>*>(nullptr));
    case Storage::I8: return f(static_cast<int8_t*>(nullptr));
    case Storage::OptI8: return f(static_cast<Optional<int8_t>*>(nullptr));
    case Storage::Bool: return f(static_cast<bool*>(nullptr));
    case Storage::OptBool: return f(static_cast<Optional<bool>*>(nullptr));
    case Storage::F32: return f(static_cast<float*>(nullptr));
    case Storage::OptF32: return f(static_cast<Optional<float>*>(nullptr));
    case Storage::F64: return f(static_cast<double*>(nullptr));
    case Storage::OptF64: return f(static_cast<Optional<double>*>(nullptr));
    case Storage::Date: return f(static_cast<DateTime*>(nullptr));
    case Storage::OptDate: return f(static_cast<Optional<DateTime>*>(nullptr));
    case Storage::Slot: break;
    }
    return f(static_cast<RefSlot*>(nullptr));
}

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<Optional<T>> : std::true_type {};

}  // namespace

void Get(const FieldLayout& layout, const void* object, int index, void* out) {
    if (!InRange(layout, object, index) || out == nullptr) return;
    Dispatch(layout.fields[index].storage, [&](auto* tag) {
        using T = std::remove_pointer_t<decltype(tag)>;
        if constexpr (std::is_same_v<T, RefSlot>) {
            *static_cast<Fundix::Ref<Any>*>(out) = At<RefSlot>(object, layout, index).Get();
        } else {
            *static_cast<T*>(out) = At<T>(object, layout, index);
        }
    });
}

void Set(const FieldLayout& layout, void* object, int index, const void* in) {
    if (!InRange(layout, object, index) || in == nullptr) return;
    const PropertyTypeInfo& p = layout.properties[index];
    Dispatch(layout.fields[index].storage, [&](auto* tag) {
        using T = std::remove_pointer_t<decltype(tag)>;
        if constexpr (std::is_same_v<T, RefSlot>) {
            Any* value = static_cast<const Fundix::Ref<Any>*>(in)->Get();
            if (p.flags & kFlagArray) At<ArraySlot>(object, layout, index).Store(value);
            else At<ObjSlot>(object, layout, index).Store(value);
        } else {
            At<T>(object, layout, index) = *static_cast<const T*>(in);
        }
    });
}

bool IsSet(const FieldLayout& layout, const void* object, int index) {
    if (!InRange(layout, object, index)) return false;
    const PropertyTypeInfo& p = layout.properties[index];
    if (p.flags & kFlagArray) {
        auto* array = dynamic_cast<const ArrayBase*>(At<RefSlot>(object, layout, index).Get());
        return array != nullptr && !array->IsEmpty();
    }
    if (!(p.flags & kFlagOptional)) return true;
    return Dispatch(layout.fields[index].storage, [&](auto* tag) -> bool {
        using T = std::remove_pointer_t<decltype(tag)>;
        if constexpr (std::is_same_v<T, RefSlot>) {
            return At<RefSlot>(object, layout, index).Get() != nullptr;
        } else if constexpr (IsOptional<T>::value) {
            return At<T>(object, layout, index).IsSet();
        } else {
            return true;
        }
    });
}

void Init(const FieldLayout& layout, void* object, int index) {
    if (!InRange(layout, object, index)) return;
    const PropertyTypeInfo& p = layout.properties[index];
    if (!(p.flags & kFlagArray)) return;
    Type* element = IsPrimitiveKind(p.type->kind) ? GetPrimitiveType(p.type) : GetTypeMap()->GetType(p.type->name);
    if (element == nullptr) return;
    At<ArraySlot>(object, layout, index).Store(element->NewArray());
}

bool Equal(const FieldLayout& layout, const void* mine, const void* theirs, bool partial) {
    for (uint32_t i = 0; i < layout.count; ++i) {
        const PropertyTypeInfo& p = layout.properties[i];
        int index = static_cast<int>(i);
        bool same = Dispatch(layout.fields[i].storage, [&](auto* tag) -> bool {
            using T = std::remove_pointer_t<decltype(tag)>;
            if constexpr (std::is_same_v<T, RefSlot>) {
                return AreEqualAnysInt(At<RefSlot>(mine, layout, index).Get(), At<RefSlot>(theirs, layout, index).Get(),
                                       p.flags, partial);
            } else if constexpr (IsOptional<T>::value) {
                const T& a = At<T>(mine, layout, index);
                const T& b = At<T>(theirs, layout, index);
                if (!b.IsSet()) return !a.IsSet() || partial;
                return a == b;
            } else {
                return At<T>(mine, layout, index) == At<T>(theirs, layout, index);
            }
        });
        if (!same) return false;
    }
    return true;
}

void Diff(const FieldLayout& layout, const void* mine, const void* theirs, const std::string& prefix,
          PropertyDiffSet& diffs) {
    for (uint32_t i = 0; i < layout.count; ++i) {
        const PropertyTypeInfo& p = layout.properties[i];
        int index = static_cast<int>(i);
        // The path is built only where it is needed: at a difference, or to descend into a value.
        Dispatch(layout.fields[i].storage, [&](auto* tag) {
            using T = std::remove_pointer_t<decltype(tag)>;
            if constexpr (std::is_same_v<T, RefSlot>) {
                const Any* a = At<RefSlot>(mine, layout, index).Get();
                const Any* b = At<RefSlot>(theirs, layout, index).Get();
                if (a != b) DiffAnyPropertiesInt(a, b, prefix + "." + p.name, p.flags, diffs);
            } else {
                if (!(At<T>(mine, layout, index) == At<T>(theirs, layout, index))) diffs.Add(prefix + "." + p.name);
            }
        });
    }
}

unsigned ExtraSize(const FieldLayout& layout, const void* object, Sizer sizer) {
    unsigned size = 0;
    for (uint32_t i = 0; i < layout.count; ++i) {
        int index = static_cast<int>(i);
        switch (layout.fields[i].storage) {
        case Storage::String: size += GetExtraSize(At<std::string>(object, layout, index), sizer); break;
        case Storage::OptString: {
            const auto& o = At<Optional<std::string>>(object, layout, index);
            if (o.IsSet()) size += sizer(sizeof(std::string)) + GetExtraSize(o.GetValue(), sizer);
            break;
        }
        case Storage::Slot:
            if (Any* value = At<RefSlot>(object, layout, index).Get()) size += value->_GetSize(sizer);
            break;
        default: break;
        }
    }
    return size;
}

void NoGet(DataObject*, int, void*) {}
void NoSet(DataObject*, int, const void*) {}
bool AlwaysSet(const DataObject*, int) { return true; }
void NoInit(DataObject*, int) {}

}  // namespace Fields

}  // namespace Kitra
