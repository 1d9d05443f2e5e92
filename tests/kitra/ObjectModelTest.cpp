// The object model on its own: comparison helpers, arrays, the fault bases and enumeration types, checked
// without any generated type.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <fundix/Exception.h>
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
    EXPECT_EQ(set.Paths(), (std::vector<std::string>{".b", ".a"}));
    EXPECT_EQ(set.Size(), 2u);
    EXPECT_FALSE(set.Contains(".c"));
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

TEST(FaultBaseTest, ExceptionsCarryTheirFault) {
    Fundix::Ref<Kitra::MethodFault> fault(new Kitra::RuntimeFault());
    try {
        fault->Throw();
    } catch (Kitra::RuntimeFault::Exception& e) {
        EXPECT_EQ(e.GetFault(), fault.Get());
        EXPECT_EQ(fault->GetRefCount(), 2);
        EXPECT_STREQ(e.what(), "kodl.RuntimeFault");
        std::unique_ptr<Fundix::Exception> clone(e.Clone());
        EXPECT_EQ(fault->GetRefCount(), 3);
        EXPECT_THROW(clone->Throw(), Kitra::RuntimeFault::Exception);
    }
    EXPECT_EQ(fault->GetRefCount(), 1);

    std::unique_ptr<Kitra::MethodFault::Exception> created(fault->CreateException());
    ASSERT_NE(created, nullptr);
    EXPECT_NE(dynamic_cast<Kitra::RuntimeFault::Exception*>(created.get()), nullptr);
    created.reset();
    EXPECT_EQ(fault->GetRefCount(), 1);

    Kitra::MethodFault::Exception none(nullptr);
    EXPECT_EQ(none.GetFault(), nullptr);
    EXPECT_STREQ(none.what(), "kodl.MethodFault");

    // A plain method fault is no runtime fault.
    Fundix::Ref<Kitra::MethodFault> plain(new Kitra::MethodFault());
    bool caughtAsRuntime = false;
    try {
        try {
            plain->Throw();
        } catch (Kitra::RuntimeFault::Exception&) {
            caughtAsRuntime = true;
        }
    } catch (Kitra::MethodFault::Exception& e) {
        EXPECT_EQ(e.GetFault(), plain.Get());
    }
    EXPECT_FALSE(caughtAsRuntime);
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

TEST(EnumTypeTest, TextsAndValues) {
    Kitra::EnumType* type = Kitra::GetType<Shade>()->AsEnumType();
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(type->GetValues(), (std::vector<std::string>{"light", "dark", "Dark"}));
    EXPECT_EQ(Kitra::FromText<Shade>("dark"), Shade::dark);
    EXPECT_EQ(Kitra::FromText<Shade>("Dark"), Shade::Dark);
    EXPECT_EQ(Kitra::ToText(Shade::Dark), "Dark");
    EXPECT_FALSE(type->IsValidText(""));
    EXPECT_FALSE(type->IsValidText("LIGHT"));
    EXPECT_FALSE(type->IsValidText("light "));

    EXPECT_EQ(MessageOf([] { Kitra::FromText<Shade>("Light"); }), "Light");
    EXPECT_EQ(MessageOf([] { Kitra::FromText<Shade>(""); }), "");
    EXPECT_EQ(MessageOf([] { Kitra::ToText(static_cast<Shade>(3)); }), "3");
    EXPECT_EQ(MessageOf([] { Kitra::ToText(static_cast<Shade>(-1)); }), "-1");
    EXPECT_EQ(MessageOf([] { Kitra::ToText(static_cast<Shade>(10)); }), "10");

    Fundix::Ref<Kitra::Any> box = type->CreateBox(1);
    EXPECT_EQ(type->BoxedValueToText(box.Get()), "dark");
    Fundix::Ref<Kitra::Any> number(new Kitra::Primitive<int32_t>(1));
    EXPECT_THROW(type->BoxedValueToText(number.Get()), Fundix::TypeMismatchException);

    // Arrays of the enumeration hold its values and accept only its boxes.
    Fundix::Ref<Kitra::ArrayBase> array = type->CreateArray();
    ASSERT_TRUE(array);
    array->AppendBoxed(box.Get());
    EXPECT_EQ(array->GetElementType(), type);
    EXPECT_THROW(array->AppendBoxed(number.Get()), Fundix::TypeMismatchException);
}

TEST(EnumTypeTest, ManyValuesShareBuckets) {
    // Enough texts that several chains hold more than one entry.
    std::vector<std::string> texts;
    for (int i = 0; i < 200; ++i) texts.push_back("value" + std::to_string(i));
    std::vector<const char*> pointers;
    for (const auto& t : texts) pointers.push_back(t.c_str());
    pointers.push_back(nullptr);
    const Kitra::TypeInfo info = {Kitra::kKindEnum, "objtest.Many", "ObjtestMany", "objtest.version1"};
    const Kitra::EnumTypeInfo record = {&info, pointers.data()};
    Fundix::Ref<Kitra::EnumTypeImpl<Shade>> type(new Kitra::EnumTypeImpl<Shade>(&record));
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(type->TextToValue(texts[static_cast<size_t>(i)]), i);
        EXPECT_EQ(type->ValueToText(i), texts[static_cast<size_t>(i)]);
    }
    EXPECT_FALSE(type->IsValidText("value200"));
    EXPECT_FALSE(type->IsValidText("value"));

    const char* const none[] = {nullptr};
    const Kitra::EnumTypeInfo emptyRecord = {&info, none};
    Fundix::Ref<Kitra::EnumTypeImpl<Shade>> empty(new Kitra::EnumTypeImpl<Shade>(&emptyRecord));
    EXPECT_FALSE(empty->IsValidText(""));
    EXPECT_THROW(empty->ValueToText(0), Fundix::InvalidArgumentException);
}

}  // namespace
