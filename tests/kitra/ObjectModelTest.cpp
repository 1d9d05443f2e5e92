// The object model on its own: comparison helpers, arrays, enumeration types and the field walk, checked
// without any generated type (the fault bases are walked for every generated fault in FaultTest).
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <fundix/Exception.h>
#include <fundix/Optional.h>
#include <fundix/System/DateTime.h>
#include <kitra/Field.h>
#include <kitra/Kitra.h>
#include <kitra/Module.h>

namespace {

enum class Shade : int32_t { light, dark, Dark };

}  // namespace

// A hand-made enumeration, created like the generated ones.
template <>
Kitra::Type* Kitra::GetType<Shade>() {
    static const char* const values[] = {"light", "dark", "Dark", nullptr};
    static const Kitra::TypeInfo info = {Kitra::kKindEnum, "objtest.Shade", "ObjtestShade", "objtest.version1"};
    static const Kitra::EnumTypeInfo record = {&info, values};
    static Kitra::Binding::TypeCache cache;
    return Kitra::Binding::GetTypeOnce(cache, &Kitra::Binding::CreateEnum<Shade>, &record);
}

namespace {

TEST(ValueHelpersTest, ComparisonAndDiffOfHeldValues) {
    Fundix::Ref<Kitra::Any> one(new Kitra::Primitive<int32_t>(1));
    Fundix::Ref<Kitra::Any> alsoOne(new Kitra::Primitive<int32_t>(1));
    Fundix::Ref<Kitra::Any> two(new Kitra::Primitive<int32_t>(2));
    Fundix::Ref<Kitra::Any> empty(new Kitra::Array<int32_t>());

    struct Case {
        const Kitra::Any* mine;
        const Kitra::Any* theirs;
        uint32_t flags;
        bool partial;
        bool equal;
    };
    const Case cases[] = {
        {nullptr, nullptr, 0, false, true},
        {one.Get(), alsoOne.Get(), 0, false, true},
        {one.Get(), two.Get(), 2, true, false},
        {one.Get(), nullptr, 0, true, false},       // required: never forgiven
        {one.Get(), nullptr, 2, false, false},
        {one.Get(), nullptr, 2, true, true},        // optional and partial: forgiven
        {nullptr, one.Get(), 2, true, false},       // but only on the other side
        {empty.Get(), nullptr, 1, false, true},     // an empty array is no array
        {nullptr, empty.Get(), 3, false, true},
        {empty.Get(), nullptr, 0, false, false},    // unless the property is not an array
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "flags " << c.flags << " partial " << c.partial);
        EXPECT_EQ(Kitra::AreEqualAnysInt(c.mine, c.theirs, c.flags, c.partial), c.equal);
        if (!c.partial) {
            Kitra::PropertyDiffSet diffs;
            Kitra::DiffAnyPropertiesInt(c.mine, c.theirs, ".p", c.flags, diffs);
            EXPECT_EQ(diffs.Contains(".p"), !c.equal);
        }
    }

    Kitra::PropertyDiffSet set;
    set.Add(".b");
    set.Add(".a");
    set.Add(".b");
    set.Add(std::string(".c"));
    set.Add(".a");
    EXPECT_EQ(set.Paths(), (std::vector<std::string>{".b", ".a", ".c"}));
    EXPECT_EQ(set.Size(), 3u);
    // It iterates like a standard container.
    EXPECT_EQ(std::vector<std::string>(set.begin(), set.end()), set.Paths());
    EXPECT_FALSE(set.empty());
    EXPECT_FALSE(set.Contains(".d"));
    set.Clear();
    EXPECT_TRUE(set.Empty());
    EXPECT_FALSE(set.Contains(".b"));
}

TEST(ArrayTest, CloneComparisonAndElementChecks) {
    using Fault = Kitra::RuntimeFault;
    Fundix::Ref<Kitra::DataArray<Fault>> array(new Kitra::DataArray<Fault>());
    Fundix::Ref<Fault> element(new Fault());
    array->Append(element.Get());
    EXPECT_EQ(array->GetElementType(), Kitra::GetType<Fault>());

    Fundix::Ref<Kitra::DataArray<Fault>> copy(array->_Clone());
    ASSERT_EQ(copy->GetLength(), 1u);
    EXPECT_NE(copy->Get(0), element.Get());  // elements are cloned, not shared
    EXPECT_EQ(element->GetRefCount(), 2);
    EXPECT_TRUE(array->_IsEqual(copy.Get(), false));
    copy->Append(new Fault());
    EXPECT_FALSE(array->_IsEqual(copy.Get(), false));

    // Elements must be of the element type or derive from it.
    Fundix::Ref<Kitra::Any> number(new Kitra::Primitive<int32_t>(4));
    Fundix::Ref<Kitra::Any> base(new Kitra::MethodFault());
    EXPECT_THROW(array->AppendBoxed(number.Get()), Fundix::TypeMismatchException);
    EXPECT_THROW(array->AppendBoxed(base.Get()), Fundix::TypeMismatchException);
    EXPECT_THROW(array->AppendBoxed(nullptr), Fundix::TypeMismatchException);
    Fundix::Ref<Kitra::DataArray<Kitra::MethodFault>> faults(new Kitra::DataArray<Kitra::MethodFault>());
    faults->AppendBoxed(element.Get());
    EXPECT_EQ(faults->GetLength(), 1u);

    Fundix::Ref<Kitra::Array<int32_t>> numbers(new Kitra::Array<int32_t>());
    numbers->Append(4);
    numbers->AppendBoxed(number.Get());
    EXPECT_THROW(numbers->AppendBoxed(element.Get()), Fundix::TypeMismatchException);
    Fundix::Ref<Kitra::Array<int32_t>> numbersCopy(numbers->_Clone());
    EXPECT_TRUE(numbers->_IsEqual(numbersCopy.Get(), false));
    numbersCopy->Set(0, 5);
    EXPECT_EQ(numbers->Get(0), 4);
    EXPECT_FALSE(numbers->_IsEqual(numbersCopy.Get(), false));

    Kitra::Type* arrayType = Kitra::GetType<Fault>()->GetArrayType();
    EXPECT_EQ(arrayType, Kitra::GetType<Fault>()->GetArrayType());
    EXPECT_STREQ(arrayType->GetName(), "kodl.RuntimeFault[]");
    EXPECT_EQ(array->_GetType(), arrayType);
}

// The object model's own runtime fault keeps its class through a copy of its exception (the generated faults
// are walked in FaultTest).
TEST(FaultBaseTest, RuntimeFaultExceptionClonesKeepTheirClass) {
    Fundix::Ref<Kitra::MethodFault> fault(new Kitra::RuntimeFault());
    std::unique_ptr<Kitra::MethodFault::Exception> created(fault->CreateException());
    std::unique_ptr<Fundix::Exception> clone(created->Clone());
    EXPECT_THROW(clone->Throw(), Kitra::RuntimeFault::Exception);
}

template <class F>
std::string MessageOf(F&& f) {
    try {
        f();
    } catch (const Fundix::InvalidArgumentException& e) {
        return e.what();
    }
    return "<no exception>";
}

TEST(EnumTypeTest, TextsAndValuesOfAFullAndAnEmptyEnumeration) {
    Kitra::EnumType* type = Kitra::GetType<Shade>()->AsEnumType();
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(type->GetValues(), (std::vector<std::string>{"light", "dark", "Dark"}));
    EXPECT_EQ(Kitra::FromText<Shade>("dark"), Shade::dark);
    EXPECT_EQ(Kitra::FromText<Shade>("Dark"), Shade::Dark);
    EXPECT_EQ(Kitra::ToText(Shade::Dark), "Dark");
    EXPECT_FALSE(type->IsValidText("LIGHT"));
    EXPECT_FALSE(type->IsValidText("light "));

    EXPECT_EQ(MessageOf([] { Kitra::FromText<Shade>("Light"); }), "Light");
    EXPECT_EQ(MessageOf([] { Kitra::ToText(static_cast<Shade>(-1)); }), "-1");

    Fundix::Ref<Kitra::Any> box = type->CreateBox(1);
    EXPECT_EQ(type->BoxedValueToText(box.Get()), "dark");
    Fundix::Ref<Kitra::Any> number(new Kitra::Primitive<int32_t>(1));
    EXPECT_THROW(type->BoxedValueToText(number.Get()), Fundix::TypeMismatchException);

    // Arrays of the enumeration hold its values and accept only its boxes.
    Fundix::Ref<Kitra::ArrayBase> array = type->CreateArray();
    ASSERT_TRUE(array);
    array->AppendBoxed(box.Get());
    EXPECT_THROW(array->AppendBoxed(number.Get()), Fundix::TypeMismatchException);

    // Texts sharing a hash chain are walked for every generated enumeration (EnumTest); here one without any.
    const Kitra::TypeInfo info = {Kitra::kKindEnum, "objtest.None", "ObjtestNone", "objtest.version1"};
    const char* const none[] = {nullptr};
    const Kitra::EnumTypeInfo emptyRecord = {&info, none};
    Fundix::Ref<Kitra::EnumTypeImpl<Shade>> empty(new Kitra::EnumTypeImpl<Shade>(&emptyRecord));
    EXPECT_FALSE(empty->IsValidText(""));
    EXPECT_THROW(empty->ValueToText(0), Fundix::InvalidArgumentException);
}

// One field of every storage class, walked through a layout made like the generated ones.
struct Every {
    std::string text;
    Fundix::Optional<std::string> optText;
    int32_t i32 = 0;
    Fundix::Optional<int32_t> optI32;
    int64_t i64 = 0;
    Fundix::Optional<int64_t> optI64;
    int16_t i16 = 0;
    Fundix::Optional<int16_t> optI16;
    int8_t i8 = 0;
    Fundix::Optional<int8_t> optI8;
    bool flag = false;
    Fundix::Optional<bool> optFlag;
    float f32 = 0;
    Fundix::Optional<float> optF32;
    double f64 = 0;
    Fundix::Optional<double> optF64;
    Fundix::System::DateTime date;
    Fundix::Optional<Fundix::System::DateTime> optDate;
    Kitra::ObjSlot slot;
};

TEST(FieldWalkTest, EveryStorageClassComparedByItsOwnRule) {
    using Kitra::Storage;
    using Row = Kitra::Binding::FieldRow;
    static const Kitra::TypeInfo thing = {Kitra::kKindManaged, "objtest.Thing", "ObjtestThing",
                                          "objtest.version1"};
    const uint32_t opt = Kitra::kFlagOptional;
#define ROW(member, type, flags, storage) \
    Row(#member, nullptr, &Kitra::type, flags, "objtest.version1", offsetof(Every, member), Storage::storage)
    static const Row rows[] = {
        ROW(text, gStringTypeInfo, 0, String),
        ROW(optText, gStringTypeInfo, opt, OptString),
        ROW(i32, gIntTypeInfo, 0, I32),
        ROW(optI32, gIntTypeInfo, opt, OptI32),
        ROW(i64, gLongTypeInfo, 0, I64),
        ROW(optI64, gLongTypeInfo, opt, OptI64),
        ROW(i16, gShortTypeInfo, 0, I16),
        ROW(optI16, gShortTypeInfo, opt, OptI16),
        ROW(i8, gByteTypeInfo, 0, I8),
        ROW(optI8, gByteTypeInfo, opt, OptI8),
        ROW(flag, gBoolTypeInfo, 0, Bool),
        ROW(optFlag, gBoolTypeInfo, opt, OptBool),
        ROW(f32, gFloatTypeInfo, 0, F32),
        ROW(optF32, gFloatTypeInfo, opt, OptF32),
        ROW(f64, gDoubleTypeInfo, 0, F64),
        ROW(optF64, gDoubleTypeInfo, opt, OptF64),
        ROW(date, gDateTimeTypeInfo, 0, Date),
        ROW(optDate, gDateTimeTypeInfo, opt, OptDate),
        Row("slot", nullptr, &thing, opt, "objtest.version1", offsetof(Every, slot), Storage::Slot),
    };
#undef ROW
    static const Kitra::Binding::FieldTable<std::size(rows)> table(rows);
    const Kitra::FieldLayout layout = {table.properties, table.fields, std::size(rows), table.runs};
    const Fundix::System::DateTime noon(2026, 11, 23, 12);
    // Per field, in row order: a change that makes it differ, and one that must not.
    const std::vector<std::pair<std::function<void(Every&)>, std::function<void(Every&)>>> changes = {
        {[](Every& e) { e.text = "x"; }, nullptr},
        {[](Every& e) { e.optText = std::string(); }, nullptr},
        {[](Every& e) { e.i32 = -1; }, nullptr},
        {[](Every& e) { e.optI32 = 0; }, nullptr},
        {[](Every& e) { e.i64 = int64_t{1} << 40; }, nullptr},
        {[](Every& e) { e.optI64 = 0; }, nullptr},
        {[](Every& e) { e.i16 = -300; }, nullptr},
        {[](Every& e) { e.optI16 = int16_t{0}; }, nullptr},
        {[](Every& e) { e.i8 = 1; }, nullptr},
        {[](Every& e) { e.optI8 = int8_t{0}; }, nullptr},
        {[](Every& e) { e.flag = true; }, nullptr},
        {[](Every& e) { e.optFlag = false; }, nullptr},
        {[](Every& e) { e.f32 = 1.5f; }, [](Every& e) { e.f32 = -0.0f; }},  // numbers, not bytes
        {[](Every& e) { e.optF32 = 0.0f; }, nullptr},
        {[](Every& e) { e.f64 = 2.25; }, [](Every& e) { e.f64 = -0.0; }},
        {[](Every& e) { e.optF64 = 0.0; }, nullptr},
        {[&](Every& e) { e.date = noon; },
         [](Every& e) {
             e.date = Fundix::System::DateTime::FromUtcMicros(0, 60);
         }},  // the same instant elsewhere
        {[](Every& e) { e.optDate = Fundix::System::DateTime(); }, nullptr},
        {[](Every& e) { e.slot.Store(new Kitra::MoRef("objtest.Thing", "thing-1")); }, nullptr},
    };
    ASSERT_EQ(changes.size(), std::size(rows));
    for (size_t i = 0; i < changes.size(); ++i) {
        SCOPED_TRACE(rows[i].property.name);
        Every a, b;
        EXPECT_TRUE(Kitra::Fields::Equal(layout, &a, &b, false));
        changes[i].first(b);
        EXPECT_FALSE(Kitra::Fields::Equal(layout, &a, &b, false));
        EXPECT_FALSE(Kitra::Fields::Equal(layout, &b, &a, false));
        // With `partial`, an optional field left unset in theirs is forgiven.
        EXPECT_EQ(Kitra::Fields::Equal(layout, &b, &a, true), (rows[i].property.flags & opt) != 0);
        Kitra::PropertyDiffSet diffs;
        Kitra::Fields::Diff(layout, &a, &b, "e", diffs);
        EXPECT_EQ(diffs.Paths(), std::vector<std::string>{std::string("e.") + rows[i].property.name});
        if (changes[i].second) {
            Every c;
            changes[i].second(c);
            EXPECT_TRUE(Kitra::Fields::Equal(layout, &a, &c, false));
        }
    }
}

}  // namespace
