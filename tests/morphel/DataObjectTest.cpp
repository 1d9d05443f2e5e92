// The generated data-object classes: construction, copies, comparison, differences, size, the property
// functions reached through the type, and who holds which reference; the containers and casts as a C++
// programmer expects them: indexes past the end raise the library's exception, arrays of records take only
// records of their element type, and a mismatch names both types by their wire names.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include <fundix/Exception.h>
#include <kitra/Kitra.h>
#include <morphel/info/types.h>
#include <morphel/params/types.h>
#include <morphel/task/types.h>
#include <morphel/types.h>

#include "../soap/Wire.h"

namespace {

using Bundle = Morphel::DiagnosticManager::TaskLogBundleInfo;
using Content = Morphel::DiagnosticManager::BundleContent;
using Live = Morphel::ComputerSpec::LiveComputerLocation;
using ContentArray = Kitra::Array<Content>;

Fundix::Ref<ContentArray> MakeContent(std::initializer_list<Content> values) {
    Fundix::Ref<ContentArray> array(new ContentArray());
    for (Content c : values) array->Append(c);
    return array;
}

Fundix::Ref<Bundle> MakeBundle() {
    auto content = MakeContent({Content::agentLogs, Content::serverLogs, Content::workerLogs});
    return Fundix::Ref<Bundle>(new Bundle("bundle-1", Fundix::System::DateTime(2011, 5, 4, 3, 2, 1),
                                          Morphel::DiagnosticManager::BundleFormat::zip, content.Get(), 1LL << 33, -7));
}

Fundix::Ref<Live> MakeLive(const std::string& host, Fundix::Optional<int32_t> port = {}) {
    return Fundix::Ref<Live>(new Live(host, port, Fundix::Optional<std::string>("admin"), {}, "windowsOs", true, {}));
}

TEST(DataObjectTest, ConstructionCopyAndArraySetter) {
    Fundix::Ref<Bundle> empty(new Bundle()),
        zeros(new Bundle("", {}, Morphel::DiagnosticManager::BundleFormat::zip, {}, 0, 0));
    EXPECT_TRUE(empty->_IsEqual(zeros.Get(), false));
    EXPECT_EQ(empty->GetContent(), nullptr);

    Fundix::Ref<Bundle> bundle = MakeBundle();
    EXPECT_EQ(bundle->GetKey(), "bundle-1");
    EXPECT_EQ(bundle->GetSize(), 1LL << 33);
    EXPECT_EQ(bundle->GetCrc(), -7);
    ContentArray* content = bundle->GetContent();
    ASSERT_NE(content, nullptr);
    EXPECT_EQ(content->GetRefCount(), 1);  // the record's reference only
    EXPECT_EQ(content->GetValues(), (std::vector<Content>{Content::agentLogs, Content::serverLogs, Content::workerLogs}));

    // Null empties the held array in place; the property then counts as not set.
    Kitra::DataObjectType* type = bundle->_GetDataType();
    const int contentIndex = type->FindProperty("content");
    ASSERT_EQ(contentIndex, 3);
    EXPECT_TRUE(type->IsPropertySet(bundle.Get(), contentIndex));
    bundle->SetContent(nullptr);
    EXPECT_EQ(bundle->GetContent(), content);
    EXPECT_TRUE(content->IsEmpty());
    EXPECT_FALSE(type->IsPropertySet(bundle.Get(), contentIndex));

    // A new array replaces the old one and releases it.
    Fundix::Ref<ContentArray> old(content);
    auto fresh = MakeContent({Content::sysinfoLogs});
    bundle->SetContent(fresh.Get());
    EXPECT_EQ(old->GetRefCount(), 1);
    EXPECT_EQ(fresh->GetRefCount(), 2);
    bundle.Reset();
    EXPECT_EQ(fresh->GetRefCount(), 1);
}

// Field by field, each storage class compares by its own rule (FieldWalkTest, RecordTest); a record compares
// its class first, and a difference descends only into a field whose record keeps its class.
TEST(DataObjectTest, ClassComesFirstInEqualityAndDifferences) {
    // Same fields, other class: never equal, in either direction.
    Fundix::Ref<Morphel::ComputerSpec::HostedVmLocation> hosted(
        new Morphel::ComputerSpec::HostedVmLocation("/vm/a.cfg", {}, {}, {}, {}));
    Fundix::Ref<Morphel::ComputerSpec::TarnHostedVmLocation> tarn(
        new Morphel::ComputerSpec::TarnHostedVmLocation("/vm/a.cfg", {}, {}, {}, {}));
    EXPECT_FALSE(hosted->_IsEqual(tarn.Get(), false));
    EXPECT_FALSE(tarn->_IsEqual(hosted.Get(), true));
    EXPECT_FALSE(hosted->_IsEqual(nullptr, true));

    Fundix::Ref<Morphel::ComputerSpec> a(new Morphel::ComputerSpec(MakeLive("src", 902).Get()));
    Fundix::Ref<Morphel::ComputerSpec> b(new Morphel::ComputerSpec(MakeLive("dst").Get()));
    Kitra::PropertyDiffSet diffs;
    a->_DiffProperties(b.Get(), "", diffs);
    EXPECT_EQ(diffs.Paths(), (std::vector<std::string>{".location.hostname", ".location.port"}));
    b->SetLocation(hosted.Get());
    diffs.Clear();
    a->_DiffProperties(b.Get(), "", diffs);
    EXPECT_EQ(diffs.Paths(), std::vector<std::string>{".location"});
}

std::vector<unsigned> gRequested;
unsigned CountingSizer(unsigned size) {
    gRequested.push_back(size);
    return size + 8;
}

TEST(DataObjectTest, SizeCountsStringBuffersAndHeldObjects) {
    using Login = Morphel::DovraConnectionSpec::LoginDovraCredentials;
    const unsigned own = sizeof(Login) + 8;
    auto zeros = [] { return std::count(gRequested.begin(), gRequested.end(), 0u); };

    Fundix::Ref<Login> login(new Login(std::string(15, 'u'), "pw"));
    gRequested.clear();
    EXPECT_EQ(login->_GetSize(&CountingSizer), own + 8 + 8);  // both strings inside the object
    EXPECT_EQ(zeros(), 2);

    login->SetUsername(std::string(16, 'u'));
    const unsigned capacity = static_cast<unsigned>(login->GetUsername().capacity());
    gRequested.clear();
    EXPECT_EQ(login->_GetSize(&CountingSizer), own + (capacity + 8) + 8);
    EXPECT_EQ(zeros(), 1);

    auto live = MakeLive("src", 902);
    Fundix::Ref<Morphel::ComputerSpec> computer(new Morphel::ComputerSpec(live.Get()));
    EXPECT_EQ(computer->_GetSize(&CountingSizer), sizeof(Morphel::ComputerSpec) + 8 + live->_GetSize(&CountingSizer));
    // A base class's fields count once, through the base's own size.
    Fundix::Ref<Morphel::ComputerSpec::OvfVmLocation> ovf(new Morphel::ComputerSpec::OvfVmLocation());
    ovf->SetConfigFilePath(std::string(40, 'p'));
    const unsigned pathCapacity = static_cast<unsigned>(ovf->GetConfigFilePath().capacity());
    EXPECT_EQ(ovf->_GetSize(&CountingSizer), sizeof(Morphel::ComputerSpec::OvfVmLocation) + 8 + pathCapacity + 8);
}

TEST(DataObjectTest, PropertyFunctionsThroughTheType) {
    Kitra::DataObjectType* type = Kitra::GetType<Live>()->AsDataObjectType();
    ASSERT_NE(type, nullptr);
    auto live = MakeLive("src");
    const int port = type->FindProperty("port");
    EXPECT_FALSE(type->IsPropertySet(live.Get(), port));
    EXPECT_FALSE(type->GetPropertyValue(live.Get(), port));
    Fundix::Ref<Kitra::Any> p902(new Kitra::Primitive<int32_t>(902));
    type->SetPropertyValue(live.Get(), port, p902.Get());
    EXPECT_EQ(live->GetPort(), 902);
    type->SetPropertyValue(live.Get(), port, nullptr);
    EXPECT_FALSE(live->GetPort().IsSet());

    // Another class, or a value of another type, is refused.
    Fundix::Ref<Morphel::UserSession> session(new Morphel::UserSession());
    Fundix::Ref<Kitra::Any> text(new Kitra::Primitive<std::string>("x"));
    EXPECT_THROW(type->GetPropertyValue(session.Get(), 0), Fundix::TypeMismatchException);
    EXPECT_THROW(type->SetPropertyValue(session.Get(), 0, text.Get()), Fundix::TypeMismatchException);
    EXPECT_THROW(type->IsPropertySet(session.Get(), port), Fundix::TypeMismatchException);
    EXPECT_THROW(type->SetPropertyValue(live.Get(), port, text.Get()), Fundix::TypeMismatchException);
    EXPECT_THROW(type->SetPropertyValue(live.Get(), 0, nullptr), Fundix::InvalidArgumentException);
    // The record's own function ignores an index past its last property.
    std::string untouched = "same";
    type->GetDataTypeInfo()->getProperty(live.Get(), 7, &untouched);
    EXPECT_EQ(untouched, "same");

    // Inherited properties come first.
    Kitra::DataObjectType* ovf = Kitra::GetType<Morphel::ComputerSpec::OvfVmLocation>()->AsDataObjectType();
    EXPECT_EQ(ovf->FindProperty("configFilePath"), 0);
    EXPECT_EQ(ovf->FindProperty("propertyMapping"), 6);
    EXPECT_EQ(ovf->GetProperties().size(), 7u);

    // Enumerations travel as boxes of their own type (read back for every property in RecordTest): a box of
    // another enumeration is refused, and so is an array of another element type.
    auto bundle = MakeBundle();
    Kitra::DataObjectType* bundleType = bundle->_GetDataType();
    Fundix::Ref<Kitra::Any> contentBox(new Kitra::Primitive<Content>(Content::agentLogs));
    EXPECT_THROW(
        bundleType->SetPropertyValue(bundle.Get(), bundleType->FindProperty("format"), contentBox.Get()),
        Fundix::TypeMismatchException);
    Fundix::Ref<Kitra::Array<std::string>> texts(new Kitra::Array<std::string>());
    texts->Append("agentLogs");
    EXPECT_THROW(bundleType->SetPropertyValue(bundle.Get(), bundleType->FindProperty("content"), texts.Get()),
                 Fundix::TypeMismatchException);
    EXPECT_EQ(bundle->GetContent()->GetLength(), 3u);

    // An optional enumeration (set from a box for every property in RecordTest) is unset by null.
    using Nic = Morphel::Params::NetworkParams::HostedNicParams;
    using Connection = Morphel::Info::NetworkInfo::HostedNicInfo::ConnectionType;
    Fundix::Ref<Nic> nic(new Nic());
    nic->SetConnectionType(Connection::nat);
    nic->_GetDataType()->SetPropertyValue(nic.Get(), nic->_GetDataType()->FindProperty("connectionType"), nullptr);
    EXPECT_FALSE(nic->GetConnectionType().IsSet());

    // A record field takes any subclass of its type, and nothing else.
    Fundix::Ref<Morphel::ComputerSpec> computer(new Morphel::ComputerSpec());
    Kitra::DataObjectType* computerType = computer->_GetDataType();
    computerType->SetPropertyValue(computer.Get(), 0, live.Get());
    EXPECT_EQ(computer->GetLocation(), live.Get());
    EXPECT_THROW(computerType->SetPropertyValue(computer.Get(), 0, session.Get()), Fundix::TypeMismatchException);
}

TEST(DataObjectTest, ReferencesTakenAndReleased) {
    auto first = MakeLive("a");
    auto second = MakeLive("b");
    {
        Fundix::Ref<Morphel::ComputerSpec> computer(new Morphel::ComputerSpec(first.Get()));
        EXPECT_EQ(first->GetRefCount(), 2);
        computer->SetLocation(second.Get());
        EXPECT_EQ(first->GetRefCount(), 1);
        EXPECT_EQ(second->GetRefCount(), 2);
        computer->SetLocation(second.Get());  // the same value again
        EXPECT_EQ(second->GetRefCount(), 2);
    }
    EXPECT_EQ(second->GetRefCount(), 1);

    Fundix::Ref<Morphel::DovraConnectionSpec> connection(
        new Morphel::DovraConnectionSpec("vc", 443, new Morphel::DovraConnectionSpec::LoginDovraCredentials("u", "p"),
                                         {}, {}));
    Fundix::Ref<Kitra::MoRef> vm(new Kitra::MoRef("dovra.VirtualMachine", "vm-12"));
    {
        Fundix::Ref<Morphel::ComputerSpec::ManagedVmLocation> one(
            new Morphel::ComputerSpec::ManagedVmLocation(connection.Get(), vm.Get(), {}, {}));
        EXPECT_EQ(connection->GetRefCount(), 2);
        EXPECT_EQ(vm->GetRefCount(), 2);  // a reference field holds its own
        one->UnsetVm();
        EXPECT_EQ(one->GetVm(), nullptr);
        EXPECT_EQ(vm->GetRefCount(), 1);
    }
    EXPECT_EQ(connection->GetRefCount(), 1);
}

TEST(ApiTest, IndexesPastTheEndRaiseTheLibrarysException) {
    Fundix::Ref<Kitra::Array<int32_t>> numbers(new Kitra::Array<int32_t>());
    numbers->Append(1);
    EXPECT_EQ(numbers->Get(0), 1);
    EXPECT_THROW(numbers->Get(1), Fundix::InvalidArgumentException);
    EXPECT_THROW(numbers->Set(1, 2), Fundix::InvalidArgumentException);
    EXPECT_THROW(numbers->GetBoxed(5), Fundix::InvalidArgumentException);
    Fundix::Ref<Kitra::Array<bool>> flags(new Kitra::Array<bool>());
    flags->Append(true);
    EXPECT_TRUE(flags->Get(0));
    EXPECT_THROW(flags->Get(1), Fundix::InvalidArgumentException);
    Fundix::Ref<Kitra::DataArray<Bundle>> bundles(new Kitra::DataArray<Bundle>());
    EXPECT_THROW(bundles->Get(0), Fundix::InvalidArgumentException);
    EXPECT_THROW(bundles->GetAny(0), Fundix::InvalidArgumentException);
    EXPECT_EQ(
        WireTest::Raised<Fundix::InvalidArgumentException>([&] { numbers->Get(4); }).value().GetMessage(),
        "index 4 out of range: the array holds 1");
}

// Arrays of records take their element type or a class derived from it (the object model's ArrayTest);
// references and records do not mix either way.
TEST(ApiTest, ArraysOfRecordsTakeOnlyTheirElementType) {
    Fundix::Ref<Kitra::DataArray<Morphel::ComputerSpec::ComputerLocation>> locations(
        new Kitra::DataArray<Morphel::ComputerSpec::ComputerLocation>());
    Fundix::Ref<Bundle> bundle(new Bundle());
    Fundix::Ref<Kitra::MoRef> ref(new Kitra::MoRef("morphel.task.Task", "t"));
    EXPECT_THROW(locations->AppendAny(ref.Get()), Fundix::TypeMismatchException);
    Fundix::Ref<Kitra::DataArray<Kitra::MoRef>> refs(new Kitra::DataArray<Kitra::MoRef>());
    refs->AppendAny(ref.Get());
    EXPECT_THROW(refs->AppendAny(bundle.Get()), Fundix::TypeMismatchException);
}

TEST(ApiTest, MismatchesNameBothTypesByWireName) {
    // Records by their wire names, both of them, as the codec's text helpers show; here the other kinds.
    Fundix::Ref<Bundle> bundle(new Bundle());
    Kitra::Any* any = bundle.Get();
    auto expected = [](auto call) {
        return WireTest::Raised<Fundix::TypeMismatchException>(call).value().GetExpected();
    };
    EXPECT_EQ(expected([&] { Kitra::CheckedCast<Kitra::Primitive<int32_t>>(any); }), "int");
    EXPECT_EQ(expected([&] { Kitra::CheckedCast<Kitra::MoRef>(any); }), "ManagedObjectReference");
    EXPECT_EQ(expected([&] { Kitra::CheckedCast<Kitra::DataArray<Bundle>>(any); }),
              Kitra::GetType<Bundle>()->GetArrayType()->GetName());
    EXPECT_EQ(expected([&] { Kitra::CheckedCast<Kitra::Primitive<Morphel::Task::TaskInfo::State>>(any); }),
              "morphel.task.TaskInfo.State");
}

}  // namespace
