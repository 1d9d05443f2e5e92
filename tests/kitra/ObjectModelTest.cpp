// The object model on its own: a small hand-made record exercises the generic field operations, and the
// arrays, fault bases and enumeration types are checked without any generated type.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <fundix/Exception.h>
#include <kitra/Kitra.h>
#include <morphel/frame/Frame.h>

#if defined(__GNUC__)
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
#endif

namespace {

// ---- A hand-made record: name (string), count (optional int), tags (optional string array),
// child (optional record of its own class).

extern const Kitra::TypeInfo kSampleInfo;

class Sample;
enum class Shade : int32_t { light, dark, Dark };

}  // namespace

template <>
Kitra::Type* Kitra::GetType<Sample>();
template <>
Kitra::Type* Kitra::GetType<Shade>();

namespace {

class Sample : public Kitra::DynamicData {
public:
    Sample() = default;
    Sample* _Clone() const override { return new Sample(*this); }
    Kitra::Type* _GetType() const override;
    unsigned _GetSize(Kitra::Sizer sizer) const override {
        return Frame::SizeOf(sizer, sizeof(Sample), sizeof(Kitra::DynamicData), DynamicData::_GetSize(sizer), kLayout,
                             this);
    }

    std::string name;
    Fundix::Optional<int32_t> count;
    Kitra::ArraySlot tags;
    Kitra::ObjSlot child;

    static const Kitra::FieldLayout kLayout;

protected:
    Sample(const Sample&) = default;
    bool _EqualFields(const Kitra::DataObject* other, bool partial) const override {
        return DynamicData::_EqualFields(other, partial) &&
               Kitra::Fields::Equal(kLayout, this, static_cast<const Sample*>(other), partial);
    }
    void _DiffFields(const Kitra::DataObject* other, const std::string& prefix,
                     Kitra::PropertyDiffSet& diffs) const override {
        DynamicData::_DiffFields(other, prefix, diffs);
        Kitra::Fields::Diff(kLayout, this, static_cast<const Sample*>(other), prefix, diffs);
    }
};

const Kitra::TypeInfo kSampleInfo = {Kitra::kKindData, "objtest.Sample", "ObjtestSample", "objtest.version1"};
const Kitra::PropertyTypeInfo kSampleProperties[] = {
    {"name", nullptr, nullptr, &Kitra::gStringTypeInfo, 0, "objtest.version1"},
    {"count", nullptr, nullptr, &Kitra::gIntTypeInfo, 2, "objtest.version1"},
    {"tags", nullptr, nullptr, &Kitra::gStringTypeInfo, 3, "objtest.version1"},
    {"child", nullptr, nullptr, &kSampleInfo, 2, "objtest.version1"},
    {nullptr, nullptr, nullptr, nullptr, Kitra::kFlagTerminator, nullptr},
};
const Kitra::FieldDesc kSampleFields[] = {
    {offsetof(Sample, name), Kitra::Storage::String},
    {offsetof(Sample, count), Kitra::Storage::OptI32},
    {offsetof(Sample, tags), Kitra::Storage::Slot},
    {offsetof(Sample, child), Kitra::Storage::Slot},
};
const Kitra::FieldLayout Sample::kLayout = {kSampleProperties, kSampleFields, 4};

const Kitra::DataTypeInfo kSampleData = {
    &kSampleInfo,
    &Kitra::gDynamicDataTypeInfo,
    kSampleProperties,
    [](Kitra::DataObject* o, int i, void* out) { Kitra::Fields::Get(Sample::kLayout, Kitra::CheckedCast<Sample>(o), i, out); },
    [](Kitra::DataObject* o, int i, const void* in) { Kitra::Fields::Set(Sample::kLayout, Kitra::CheckedCast<Sample>(o), i, in); },
    [](const Kitra::DataObject* o, int i) { return Kitra::Fields::IsSet(Sample::kLayout, Kitra::CheckedCast<const Sample>(o), i); },
    [](Kitra::DataObject* o, int i) { Kitra::Fields::Init(Sample::kLayout, Kitra::CheckedCast<Sample>(o), i); },
    []() -> Kitra::DataObject* { return new Sample(); },
    []() -> Kitra::Any* { return new Kitra::DataArray<Sample>(); },
};

}  // namespace

template <>
Kitra::Type* Kitra::GetType<Shade>() {
    static const char* const values[] = {"light", "dark", "Dark", nullptr};
    static const Kitra::TypeInfo info = {Kitra::kKindEnum, "objtest.Shade", "ObjtestShade", "objtest.version1"};
    static const Kitra::EnumTypeInfo record = {&info, values};
    static Frame::TypeCache cache;
    return Frame::GetTypeOnce(cache, &Frame::CreateEnum<Shade>, &record);
}

template <>
Kitra::Type* Kitra::GetType<Sample>() {
    static Frame::TypeCache cache;
    Kitra::Type* type = Frame::GetTypeOnce(cache, &Frame::CreateData, &kSampleData);
    // Record-typed fields are checked against the type map, so the type must be found there.
    static const bool registered = (Kitra::GetTypeMap()->AddType(type), true);
    (void)registered;
    return type;
}

namespace {

Kitra::Type* Sample::_GetType() const { return Kitra::GetType<Sample>(); }

Kitra::DataObjectType* SampleType() { return Kitra::GetType<Sample>()->AsDataObjectType(); }

Fundix::Ref<Sample> MakeSample(const std::string& name, std::vector<std::string> tags = {}) {
    Fundix::Ref<Sample> s(new Sample());
    s->name = name;
    if (!tags.empty()) {
        auto* array = new Kitra::Array<std::string>();
        for (const auto& t : tags) array->Append(t);
        s->tags.Store(array);
    }
    return s;
}

Kitra::Array<std::string>* Tags(const Sample* s) { return static_cast<Kitra::Array<std::string>*>(s->tags.Get()); }

TEST(FieldsTest, PropertyFunctionsByIndex) {
    Kitra::DataObjectType* type = SampleType();
    ASSERT_NE(type, nullptr);
    ASSERT_EQ(type->GetProperties().size(), 4u);
    EXPECT_EQ(type->FindProperty("child"), 3);
    EXPECT_EQ(type->FindProperty("missing"), -1);
    EXPECT_EQ(type->GetBaseType(), Kitra::GetType<Kitra::DynamicData>());

    Fundix::Ref<Kitra::DataObject> object = type->CreateInstance();
    ASSERT_TRUE(object);
    auto* sample = dynamic_cast<Sample*>(object.Get());
    ASSERT_NE(sample, nullptr);

    // Required: always set. Optional and array: not set until given a value.
    EXPECT_TRUE(type->IsPropertySet(sample, 0));
    EXPECT_FALSE(type->IsPropertySet(sample, 1));
    EXPECT_FALSE(type->IsPropertySet(sample, 2));
    EXPECT_FALSE(type->IsPropertySet(sample, 3));
    EXPECT_FALSE(type->GetPropertyValue(sample, 1));

    Fundix::Ref<Kitra::Any> name(new Kitra::Primitive<std::string>("disk0"));
    type->SetPropertyValue(sample, 0, name.Get());
    EXPECT_EQ(sample->name, "disk0");
    auto boxed = type->GetPropertyValue(sample, 0);
    auto* text = dynamic_cast<Kitra::Primitive<std::string>*>(boxed.Get());
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text->GetValue(), "disk0");

    Fundix::Ref<Kitra::Any> seven(new Kitra::Primitive<int32_t>(7));
    type->SetPropertyValue(sample, 1, seven.Get());
    EXPECT_EQ(sample->count, 7);
    EXPECT_TRUE(type->IsPropertySet(sample, 1));
    type->SetPropertyValue(sample, 1, nullptr);
    EXPECT_FALSE(sample->count.IsSet());

    // An array made by the init function is empty, so the property is still not set.
    kSampleData.initProperty(sample, 2);
    ASSERT_NE(Tags(sample), nullptr);
    EXPECT_FALSE(type->IsPropertySet(sample, 2));
    Tags(sample)->Append("boot");
    EXPECT_TRUE(type->IsPropertySet(sample, 2));
    kSampleData.initProperty(sample, 0);  // not an array: nothing happens
    EXPECT_EQ(sample->name, "disk0");

    Fundix::Ref<Sample> child = MakeSample("child");
    type->SetPropertyValue(sample, 3, child.Get());
    EXPECT_EQ(sample->child.Get(), child.Get());
    EXPECT_EQ(child->GetRefCount(), 2);
    EXPECT_EQ(type->GetPropertyValue(sample, 3).Get(), child.Get());

    // Values of the wrong kind, a missing required value, an object of another class.
    EXPECT_THROW(type->SetPropertyValue(sample, 1, name.Get()), Fundix::TypeMismatchException);
    EXPECT_THROW(type->SetPropertyValue(sample, 0, seven.Get()), Fundix::TypeMismatchException);
    EXPECT_THROW(type->SetPropertyValue(sample, 3, seven.Get()), Fundix::TypeMismatchException);
    EXPECT_THROW(type->SetPropertyValue(sample, 0, nullptr), Fundix::InvalidArgumentException);
    Fundix::Ref<Kitra::DynamicData> stranger(new Kitra::DynamicData());
    EXPECT_THROW(type->GetPropertyValue(stranger.Get(), 0), Fundix::TypeMismatchException);
    EXPECT_THROW(type->SetPropertyValue(stranger.Get(), 0, name.Get()), Fundix::TypeMismatchException);
    EXPECT_THROW(type->IsPropertySet(stranger.Get(), 1), Fundix::TypeMismatchException);

    // The raw functions ignore an index beyond the last property.
    std::string untouched = "same";
    kSampleData.getProperty(sample, 4, &untouched);
    EXPECT_EQ(untouched, "same");
    EXPECT_FALSE(kSampleData.isPropertySet(sample, 4));
}

TEST(FieldsTest, SettingArraysAndRecords) {
    Fundix::Ref<Sample> sample = MakeSample("s", {"a", "b", "c"});
    Kitra::Array<std::string>* tags = Tags(sample.Get());
    ASSERT_EQ(tags->GetLength(), 3u);

    // Null empties the array in place and keeps it attached.
    sample->tags.Store(nullptr);
    EXPECT_EQ(Tags(sample.Get()), tags);
    EXPECT_TRUE(tags->IsEmpty());
    EXPECT_FALSE(SampleType()->IsPropertySet(sample.Get(), 2));

    // A new array replaces the old one, which loses the field's reference.
    Fundix::Ref<Kitra::Array<std::string>> old(tags);
    EXPECT_EQ(old->GetRefCount(), 2);
    Fundix::Ref<Kitra::Array<std::string>> replacement(new Kitra::Array<std::string>());
    sample->tags.Store(replacement.Get());
    EXPECT_EQ(old->GetRefCount(), 1);
    EXPECT_EQ(replacement->GetRefCount(), 2);

    Fundix::Ref<Sample> first = MakeSample("first");
    Fundix::Ref<Sample> second = MakeSample("second");
    sample->child.Store(first.Get());
    sample->child.Store(second.Get());
    EXPECT_EQ(first->GetRefCount(), 1);
    EXPECT_EQ(second->GetRefCount(), 2);
    sample->child.Store(nullptr);  // a record field does become null
    EXPECT_EQ(sample->child.Get(), nullptr);
    EXPECT_EQ(second->GetRefCount(), 1);
}

TEST(FieldsTest, CloneEqualityAndDifferences) {
    Fundix::Ref<Sample> child = MakeSample("child");
    Fundix::Ref<Sample> original = MakeSample("s", {"x", "y"});
    original->count = 3;
    original->child.Store(child.Get());

    Fundix::Ref<Sample> copy(original->_Clone());
    // The array is cloned, the record is shared.
    ASSERT_NE(Tags(copy.Get()), nullptr);
    EXPECT_NE(Tags(copy.Get()), Tags(original.Get()));
    EXPECT_EQ(Tags(copy.Get())->GetValues(), Tags(original.Get())->GetValues());
    EXPECT_EQ(copy->child.Get(), child.Get());
    EXPECT_EQ(child->GetRefCount(), 3);
    EXPECT_TRUE(original->_IsEqual(copy.Get(), false));
    Tags(copy.Get())->Append("z");
    EXPECT_EQ(Tags(original.Get())->GetLength(), 2u);
    EXPECT_FALSE(original->_IsEqual(copy.Get(), false));

    // Partial comparison forgives an optional value missing on the other side only.
    Fundix::Ref<Sample> bare = MakeSample("s", {"x", "y"});
    EXPECT_FALSE(original->_IsEqual(bare.Get(), false));
    EXPECT_TRUE(original->_IsEqual(bare.Get(), true));
    EXPECT_FALSE(bare->_IsEqual(original.Get(), true));
    // A missing array equals an empty one.
    Fundix::Ref<Sample> noTags = MakeSample("n");
    Fundix::Ref<Sample> emptyTags = MakeSample("n");
    emptyTags->tags.Store(new Kitra::Array<std::string>());
    EXPECT_TRUE(noTags->_IsEqual(emptyTags.Get(), false));
    EXPECT_TRUE(emptyTags->_IsEqual(noTags.Get(), false));
    EXPECT_FALSE(noTags->_IsEqual(nullptr, false));
    Fundix::Ref<Kitra::DynamicData> plain(new Kitra::DynamicData());
    EXPECT_FALSE(noTags->_IsEqual(plain.Get(), false));

    Kitra::PropertyDiffSet diffs;
    original->_DiffProperties(original.Get(), "", diffs);
    EXPECT_TRUE(diffs.Empty());

    // Paths are prefix + "." + name, in field order; records of one class are descended into.
    Fundix::Ref<Sample> other(original->_Clone());
    other->name = "t";
    other->count.Unset();
    other->child.Store(MakeSample("kid").Get());
    original->_DiffProperties(other.Get(), "", diffs);
    EXPECT_EQ(diffs.Paths(), (std::vector<std::string>{".name", ".count", ".child.name"}));

    diffs.Clear();
    other->child.Store(plain.Get());
    original->_DiffProperties(other.Get(), "spec", diffs);
    EXPECT_TRUE(diffs.Contains("spec.child"));
    EXPECT_FALSE(diffs.Contains("spec.child.name"));

    diffs.Clear();
    original->_DiffProperties(plain.Get(), "root", diffs);
    EXPECT_EQ(diffs.Paths(), std::vector<std::string>{"root"});
}

std::vector<unsigned> gSizerCalls;
unsigned CountingSizer(unsigned size) {
    gSizerCalls.push_back(size);
    return size + 8;
}

TEST(FieldsTest, SizeCountsHeapBuffersOnly) {
    Fundix::Ref<Sample> sample(new Sample());
    const unsigned own = sizeof(Sample) + 8;
    gSizerCalls.clear();
    // Object, base (taken out again) and the empty string's inline buffer.
    EXPECT_EQ(sample->_GetSize(&CountingSizer), own + 8);

    sample->name = std::string(15, 'a');
    EXPECT_EQ(sample->_GetSize(&CountingSizer), own + 8);
    sample->name = std::string(16, 'a');
    const unsigned capacity = static_cast<unsigned>(sample->name.capacity());
    gSizerCalls.clear();
    EXPECT_EQ(sample->_GetSize(&CountingSizer), own + capacity + 8);
    EXPECT_NE(std::find(gSizerCalls.begin(), gSizerCalls.end(), capacity), gSizerCalls.end());

    // Held arrays and records add their own size.
    sample->name.clear();
    sample->name.shrink_to_fit();
    Fundix::Ref<Sample> child(new Sample());
    sample->child.Store(child.Get());
    EXPECT_EQ(sample->_GetSize(&CountingSizer), own + 8 + child->_GetSize(&CountingSizer));
}

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
    Fundix::Ref<Kitra::DataArray<Sample>> array(new Kitra::DataArray<Sample>());
    Fundix::Ref<Sample> element = MakeSample("e", {"t"});
    array->Append(element.Get());
    EXPECT_EQ(array->GetElementType(), Kitra::GetType<Sample>());

    Fundix::Ref<Kitra::DataArray<Sample>> copy(array->_Clone());
    ASSERT_EQ(copy->GetLength(), 1u);
    EXPECT_NE(copy->Get(0), element.Get());  // elements are cloned, not shared
    EXPECT_TRUE(copy->Get(0)->_IsEqual(element.Get(), false));
    EXPECT_TRUE(array->_IsEqual(copy.Get(), false));
    copy->Get(0)->name = "changed";
    EXPECT_FALSE(array->_IsEqual(copy.Get(), false));
    EXPECT_EQ(element->name, "e");

    Fundix::Ref<Kitra::Any> number(new Kitra::Primitive<int32_t>(4));
    EXPECT_THROW(array->AppendBoxed(number.Get()), Fundix::TypeMismatchException);
    EXPECT_THROW(array->AppendBoxed(nullptr), Fundix::TypeMismatchException);
    array->AppendBoxed(element.Get());
    EXPECT_EQ(array->GetLength(), 2u);

    Fundix::Ref<Kitra::Array<int32_t>> numbers(new Kitra::Array<int32_t>());
    numbers->Append(4);
    numbers->AppendBoxed(number.Get());
    EXPECT_THROW(numbers->AppendBoxed(element.Get()), Fundix::TypeMismatchException);
    Fundix::Ref<Kitra::Array<int32_t>> numbersCopy(numbers->_Clone());
    numbersCopy->Set(0, 5);
    EXPECT_EQ(numbers->Get(0), 4);
    EXPECT_FALSE(numbers->_IsEqual(numbersCopy.Get(), false));

    Kitra::Type* arrayType = Kitra::GetType<Sample>()->GetArrayType();
    EXPECT_EQ(arrayType, Kitra::GetType<Sample>()->GetArrayType());
    EXPECT_STREQ(arrayType->GetName(), "objtest.Sample[]");
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
