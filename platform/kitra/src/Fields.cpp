// The generic field operations: one implementation per storage class, chosen from the property record.
#include <algorithm>
#include <cstring>
#include <typeinfo>
#include <vector>

#include <fundix/Exception.h>
#include <kitra/Array.h>
#include <kitra/DataObject.h>
#include <kitra/Field.h>
#include <kitra/MoRef.h>
#include <kitra/Module.h>
#include <kitra/Registry.h>

namespace Kitra {

// ---- Slots

void RefSlot::Store(Any* value) {
    if (value != nullptr) value->IncRef();
    Any* old = __atomic_exchange_n(&p_, value, __ATOMIC_ACQ_REL);
    if (old != nullptr) old->DecRef();
}

ObjSlot::ObjSlot(const ObjSlot& other) : RefSlot() {
    if (other.p_ == nullptr) return;
    // A reference cannot change once made, so a copy shares it, as arrays of references do.
    // (MoRef's class record is made once, in this library, so its address identifies the class.)
    p_ = &typeid(*other.p_) == &typeid(MoRef) ? other.p_ : other.p_->_Clone();
    if (p_ != nullptr) p_->IncRef();
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

namespace {

// The heap buffer of a string, as the identity sizer counts it.
inline unsigned TextHeap(const std::string& text) {
    return text.capacity() < 16 ? 0u : static_cast<unsigned>(text.capacity());
}

inline uint64_t Word(const char* p) {
    uint64_t w;
    std::memcpy(&w, p, sizeof w);
    return w;
}

inline uint32_t HalfWord(const char* p) {
    uint32_t w;
    std::memcpy(&w, p, sizeof w);
    return w;
}

// Strings compare by length first; equal lengths compare their bytes, the short ones (most names and
// identifiers) a word at a time in place.
inline bool SameText(const std::string& a, const std::string& b) {
    const size_t n = a.size();
    if (n != b.size()) return false;
    const char* x = a.data();
    const char* y = b.data();
    if (n >= 8 && n <= 32) {
        // Whole words, then the last word again, overlapping what was compared already.
        for (size_t i = 0; i + 8 < n; i += 8)
            if (Word(x + i) != Word(y + i)) return false;
        return Word(x + n - 8) == Word(y + n - 8);
    }
    if (n >= 4 && n < 8) return HalfWord(x) == HalfWord(y) && HalfWord(x + n - 4) == HalfWord(y + n - 4);
    return n == 0 || std::memcmp(x, y, n) == 0;
}

inline bool SameRef(const MoRef* a, const MoRef* b) {
    return SameText(a->GetId(), b->GetId()) && SameText(a->GetTypeName(), b->GetTypeName());
}

// MoRef's class record is made once, in this library, so its address identifies the class.
inline bool IsRef(const Any* value) { return &typeid(*value) == &typeid(MoRef); }

inline bool IsEmptyArray(const Any* value) { return static_cast<const ArrayBase*>(value)->IsEmpty(); }

// Two values of a counted field, compared by what the field's record says it holds: an array of the
// field's element type, a reference, a data object of the field's type or a class derived from it, or (for
// untyped fields) any value. Two nulls are equal; a null array equals an empty one; with `partial`, a null
// `b` in an optional field is forgiven.
[[gnu::always_inline]] inline bool SlotEqual(const PropertyTypeInfo& p, const Any* a, const Any* b,
                                             bool partial) {
    if (a == b) return true;
    if (p.flags & kFlagArray) {
        if (a == nullptr) return IsEmptyArray(b);
        if (b == nullptr) return IsEmptyArray(a) || (partial && (p.flags & kFlagOptional));
        return a->_IsEqual(b, partial);
    }
    if (b == nullptr) return partial && (p.flags & kFlagOptional);
    if (a == nullptr) return false;
    switch (p.type->kind) {
    case kKindManaged: return SameRef(static_cast<const MoRef*>(a), static_cast<const MoRef*>(b));
    case kKindData:
    case kKindFault:
        return typeid(*a) == typeid(*b) &&
               static_cast<const DataObject*>(a)->_EqualSameClass(static_cast<const DataObject*>(b), partial);
    default: return a->_IsEqual(b, partial);
    }
}

template <class T>
inline bool SameOptional(const Optional<T>& a, const Optional<T>& b, bool partial) {
    return a == b || (partial && !b.IsSet());
}

inline bool SameOptionalText(const Optional<std::string>& a, const Optional<std::string>& b, bool partial) {
    const std::string* x = a.GetPtr();
    const std::string* y = b.GetPtr();
    if (y == nullptr) return x == nullptr || partial;
    return x != nullptr && SameText(*x, *y);
}

// Two values of the counted field `f`. Two references, whatever the field's record says it holds, compare
// as references: what their own comparison does, without looking up the record.
[[gnu::always_inline]] inline bool SameSlot(const FieldLayout& layout, const FieldDesc* f, const Any* x,
                                            const Any* y, bool partial) {
    if (x == y) return true;
    if (x != nullptr && y != nullptr && IsRef(x) && IsRef(y))
        return SameRef(static_cast<const MoRef*>(x), static_cast<const MoRef*>(y));
    return SlotEqual(layout.properties[f - layout.fields], x, y, partial);
}

// Where the differences of a walk go.
struct Differences {
    const void* mine;
    const void* theirs;
    const std::string& prefix;
    PropertyDiffSet& diffs;
};

[[gnu::noinline]] void AddDifference(const FieldLayout& layout, uint32_t i, const void* mine,
                                     const void* theirs, const std::string& prefix, PropertyDiffSet& diffs) {
    const PropertyTypeInfo& p = layout.properties[i];
    const size_t name = std::strlen(p.name);
    // Made at its full length at once, then written: no check of the room left per part.
    std::string path(prefix.size() + 1 + name, '.');
    if (!prefix.empty()) std::memcpy(path.data(), prefix.data(), prefix.size());
    std::memcpy(path.data() + prefix.size() + 1, p.name, name);
    if (layout.fields[i].storage == Storage::Slot) {
        DiffAnyPropertiesInt(At<RefSlot>(mine, layout, static_cast<int>(i)).Get(),
                             At<RefSlot>(theirs, layout, static_cast<int>(i)).Get(), path, p.flags, diffs);
    } else {
        diffs.Add(std::move(path));
    }
}

// The first field from `f` on at which the two objects differ (`partial` as for Equal), or the end of the
// layout's fields; with `collect`, every field at which they differ goes to `out` and the walk goes on to
// the end. Each storage class has a label that compares its field and jumps straight to the label of
// the next field's storage class: one indirect jump per field, where a loop around a switch adds a bounds
// check and a jump back.
template <bool collect>
[[gnu::noinline]] const FieldDesc* FirstDifference(const FieldLayout& layout, const FieldDesc* f,
                                                   const char* mine, const char* theirs, bool partial,
                                                   const Differences* out) {
    // In the order of the enumeration.
    static_assert(kStorageCount == 19 && Storage::OptDate == Storage(17) && Storage::F32 == Storage(12));
    static const void* const kCompare[kStorageCount] = {
        &&text, &&optText, &&i32, &&optI32, &&i64, &&optI64, &&i16,  &&optI16,  &&i8,   &&optI8,
        &&flag, &&optFlag, &&f32, &&optF32, &&f64, &&optF64, &&date, &&optDate, &&slot,
    };
    const FieldDesc* const end = layout.fields + layout.count;
    uint32_t at;
#define KITRA_AT(T, x) (*reinterpret_cast<const T*>((x) + at))
#define KITRA_GO    \
    at = f->offset; \
    goto* kCompare[static_cast<uint8_t>(f->storage)]
#define KITRA_NEXT(same)                                                                                     \
    if (!(same)) {                                                                                           \
        if constexpr (!collect) return f;                                                                    \
        AddDifference(layout, static_cast<uint32_t>(f - layout.fields), out->mine, out->theirs, out->prefix, \
                      out->diffs);                                                                           \
    }                                                                                                        \
    if (++f == end) return end;                                                                              \
    KITRA_GO
#define KITRA_SAME(T) KITRA_NEXT(KITRA_AT(T, mine) == KITRA_AT(T, theirs))
#define KITRA_SAME_OPT(T) \
    KITRA_NEXT(SameOptional(KITRA_AT(Optional<T>, mine), KITRA_AT(Optional<T>, theirs), partial))
    if (f == end) return end;
    KITRA_GO;
text:
    KITRA_NEXT(SameText(KITRA_AT(std::string, mine), KITRA_AT(std::string, theirs)));
optText:
    KITRA_NEXT(SameOptionalText(KITRA_AT(Optional<std::string>, mine),
                                KITRA_AT(Optional<std::string>, theirs), partial));
i32:
    KITRA_SAME(int32_t);
optI32:
    KITRA_SAME_OPT(int32_t);
i64:
    KITRA_SAME(int64_t);
optI64:
    KITRA_SAME_OPT(int64_t);
i16:
    KITRA_SAME(int16_t);
optI16:
    KITRA_SAME_OPT(int16_t);
i8:
    KITRA_SAME(int8_t);
optI8:
    KITRA_SAME_OPT(int8_t);
flag:
    KITRA_SAME(bool);
optFlag:
    KITRA_SAME_OPT(bool);
f32:
    KITRA_SAME(float);
optF32:
    KITRA_SAME_OPT(float);
f64:
    KITRA_SAME(double);
optF64:
    KITRA_SAME_OPT(double);
date:
    KITRA_SAME(DateTime);
optDate:
    KITRA_SAME_OPT(DateTime);
slot:
    KITRA_NEXT(SameSlot(layout, f, KITRA_AT(RefSlot, mine).Get(), KITRA_AT(RefSlot, theirs).Get(), partial));
#undef KITRA_AT
#undef KITRA_GO
#undef KITRA_NEXT
#undef KITRA_SAME
#undef KITRA_SAME_OPT
}

// Steps over the header of the run at `at`; the end of its entries.
inline const uint32_t* OpenRun(const uint32_t*& at) {
    const uint32_t count = RunCount(*at++);
    return at + count;
}

// What the fields of one object hold beyond it, `identity` when `sizer` is the identity sizer: the first
// runs of the layout, those of strings, optional strings and counted values, in that order.
template <bool identity>
[[gnu::always_inline]] inline unsigned HeldSize(const FieldLayout& layout, const char* object, Sizer sizer) {
    unsigned size = 0;
    const uint32_t* at = layout.runs;
    uint32_t runs = *at++;
    if (runs != 0 && RunStorage(*at) == Storage::String) {
        for (const uint32_t* end = OpenRun(at); at != end; ++at) {
            const auto& text = *reinterpret_cast<const std::string*>(object + *at);
            size += identity ? TextHeap(text) : GetExtraSize(text, sizer);
        }
        --runs;
    }
    if (runs != 0 && RunStorage(*at) == Storage::OptString) {
        for (const uint32_t* end = OpenRun(at); at != end; ++at)
            if (const std::string* text =
                    reinterpret_cast<const Optional<std::string>*>(object + *at)->GetPtr())
                size += identity ? TextHeap(*text) : GetExtraSize(*text, sizer);
        --runs;
    }
    if (runs != 0 && RunStorage(*at) == Storage::Slot) {
        for (const uint32_t* end = OpenRun(at); at != end; ++at) {
            const Any* value = reinterpret_cast<const RefSlot*>(object + *at)->Get();
            if (value == nullptr) continue;
            if (identity && &typeid(*value) == &typeid(MoRef)) {
                // MoRef's class record is made once, in this library, so its address identifies the class.
                const auto* ref = static_cast<const MoRef*>(value);
                size += static_cast<unsigned>(sizeof(MoRef)) + TextHeap(ref->GetTypeName()) +
                        TextHeap(ref->GetId());
            } else {
                size += value->_GetSize(sizer);
            }
        }
    }
    return size;  // the runs that hold memory come first; the others are in the class's own size
}

}  // namespace

bool Equal(const FieldLayout& layout, const void* mine, const void* theirs, bool partial) {
    const FieldDesc* end = layout.fields + layout.count;
    return FirstDifference<false>(layout, layout.fields, static_cast<const char*>(mine),
                                  static_cast<const char*>(theirs), partial, nullptr) == end;
}

void Diff(const FieldLayout& layout, const void* mine, const void* theirs, const std::string& prefix,
          PropertyDiffSet& diffs) {
    auto* a = static_cast<const char*>(mine);
    auto* b = static_cast<const char*>(theirs);
    // Equal fields, the common case, cost a comparison and no path: the path is built only where a
    // difference is found, and only then does the walk descend into a value to name deeper paths.
    const Differences out{mine, theirs, prefix, diffs};
    FirstDifference<true>(layout, layout.fields, a, b, false, &out);
}

unsigned ExtraSize(const FieldLayout& layout, const void* object, Sizer sizer) {
    // Only strings and counted values hold memory beyond the object; everything else is in the class's
    // own size, which the caller counts once.
    auto* at = static_cast<const char*>(object);
    return sizer == &IdentitySizer ? HeldSize<true>(layout, at, sizer) : HeldSize<false>(layout, at, sizer);
}

void NoGet(DataObject*, int, void*) {}
void NoSet(DataObject*, int, const void*) {}
bool AlwaysSet(const DataObject*, int) { return true; }
void NoInit(DataObject*, int) {}

}  // namespace Fields

namespace Binding {

unsigned SizeOf(Sizer sizer, unsigned ownSize, unsigned baseSize, unsigned baseTotal,
                const FieldLayout& layout, const void* object) {
    auto* at = static_cast<const char*>(object);
    if (sizer == &IdentitySizer)
        return ownSize + (baseTotal - baseSize) + Fields::HeldSize<true>(layout, at, sizer);
    return sizer(ownSize) + (baseTotal - sizer(baseSize)) + Fields::HeldSize<false>(layout, at, sizer);
}

unsigned SizeOf(Sizer sizer, unsigned ownSize, const FieldLayout& layout, const void* object) {
    auto* at = static_cast<const char*>(object);
    if (sizer == &IdentitySizer) return ownSize + Fields::HeldSize<true>(layout, at, sizer);
    return sizer(ownSize) + Fields::HeldSize<false>(layout, at, sizer);
}

}  // namespace Binding

}  // namespace Kitra
