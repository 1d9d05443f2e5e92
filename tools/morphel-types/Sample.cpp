#include "Sample.h"

#include <kitra/Kitra.h>
#include <kitra/Soap.h>

namespace MorphelTypesTool {

namespace {

using Fundix::Ref;
using Kitra::Any;

constexpr int kFullDepth = 3;  // records below this depth get only their required fields
constexpr int kMaxDepth = 12;
constexpr int kMicroseconds[] = {0, 250000, 5, 40500, 999999, 1200};

class Filler {
public:
    explicit Filler(const Kitra::Soap::Codec& codec) : codec_(codec) {}

    Ref<Kitra::DataObject> Fill(const Kitra::DataObjectType* type, int depth) {
        Ref<Kitra::DataObject> object = type->CreateInstance();
        const auto& props = type->GetProperties();
        for (size_t i = 0; i < props.size(); ++i) {
            const Kitra::PropertyTypeInfo& p = *props[i].info;
            if (!codec_.Includes(p.version)) continue;
            bool optional = (p.flags & (Kitra::kFlagOptional | Kitra::kFlagArray)) != 0;
            if (optional && depth >= kFullDepth && !IsPrimitive(p.type)) continue;
            Ref<Any> value = Value(p, static_cast<int>(i), depth);
            if (value != nullptr) type->SetPropertyValue(object.Get(), static_cast<int>(i), value.Get());
        }
        return object;
    }

private:
    static bool IsPrimitive(const Kitra::TypeInfo* t) {
        return Kitra::IsPrimitiveKind(t->kind) || t->kind == Kitra::kKindEnum;
    }

    Ref<Any> Value(const Kitra::PropertyTypeInfo& p, int index, int depth) {
        Kitra::Type* type = Kitra::Soap::TypeOf(p.type);
        if (type == nullptr || !codec_.Knows(type)) return nullptr;
        if (p.flags & Kitra::kFlagArray) {
            Ref<Kitra::ArrayBase> array = type->CreateArray();
            // Byte arrays of every length from 0 to 7 across the fields, so that each padding of the text form
            // travels somewhere.
            int items = type->GetKind() == Kitra::kKindByte ? index % 8 : 2;
            for (int i = 0; i < items; ++i) {
                Ref<Any> item = One(type, index + i, depth);
                if (item == nullptr) return nullptr;
                array->AppendBoxed(item.Get());
            }
            return array;
        }
        return One(type, index, depth);
    }

    Ref<Any> One(Kitra::Type* type, int seed, int depth) {
        switch (type->GetKind()) {
        case Kitra::kKindString: return new Kitra::Primitive<std::string>("text " + std::to_string(seed) + " <&> \"é\"");
        case Kitra::kKindTypeName: return new Kitra::Primitive<Kitra::TypeName>("morphel.task.TaskInfo");
        case Kitra::kKindPropertyPath: return new Kitra::Primitive<Kitra::PropertyPath>("params.cloningParams");
        case Kitra::kKindInt: return new Kitra::Primitive<int32_t>(seed % 2 ? -2147483647 - 1 : 42 + seed);
        case Kitra::kKindLong: return new Kitra::Primitive<int64_t>(seed % 2 ? INT64_MAX : (int64_t(1) << 40) + seed);
        case Kitra::kKindShort: return new Kitra::Primitive<int16_t>(static_cast<int16_t>(-300 - seed));
        case Kitra::kKindByte: return new Kitra::Primitive<int8_t>(static_cast<int8_t>(seed % 2 ? -128 : 127 - seed));
        case Kitra::kKindBool: return new Kitra::Primitive<bool>(seed % 2 == 0);
        case Kitra::kKindFloat: return new Kitra::Primitive<float>(1.1f + static_cast<float>(seed));
        case Kitra::kKindDouble: return new Kitra::Primitive<double>(0.1 + seed);
        case Kitra::kKindDateTime:
            // Microseconds with and without leading zeros, and none.
            return new Kitra::Primitive<Fundix::System::DateTime>(
                Fundix::System::DateTime(2026, 11, 23, 10, 15, seed % 60, kMicroseconds[seed % 6]));
        case Kitra::kKindAnyType: return new Kitra::Primitive<int32_t>(7 + seed);
        case Kitra::kKindEnum: {
            const Kitra::EnumType* e = type->AsEnumType();
            int32_t n = static_cast<int32_t>(e->GetValues().size());
            return e->CreateBox((seed + n - 1) % n);
        }
        case Kitra::kKindManaged: return new Kitra::MoRef(type->GetName(), "obj-" + std::to_string(seed));
        default: break;
        }
        const Kitra::DataObjectType* data = type->AsDataObjectType();
        if (data == nullptr || depth >= kMaxDepth) return nullptr;
        return Ref<Any>(Fill(data, depth + 1).Get());
    }

    const Kitra::Soap::Codec& codec_;
};

}  // namespace

Fundix::Ref<Kitra::DataObject> Sample(const Kitra::DataObjectType* type, const Kitra::Soap::Codec& codec) {
    return Filler(codec).Fill(type, 0);
}

}  // namespace MorphelTypesTool
