// The containers and casts as a C++ programmer expects them: indexes past the end raise the library's
// exception, arrays of records take only records of their element type, and a mismatch names both types by
// their wire names.
#include <gtest/gtest.h>

#include <string>

#include <fundix/Exception.h>
#include <kitra/Kitra.h>
#include <morphel/task/types.h>
#include <morphel/types.h>

#include "Values.h"

namespace {

using Fundix::Ref;
using Bundle = Morphel::DiagnosticManager::TaskLogBundleInfo;

TEST(ApiTest, IndexesPastTheEndRaiseTheLibrarysException) {
    Ref<Kitra::Array<int32_t>> numbers(new Kitra::Array<int32_t>());
    numbers->Append(1);
    EXPECT_EQ(numbers->Get(0), 1);
    EXPECT_THROW(numbers->Get(1), Fundix::InvalidArgumentException);
    EXPECT_THROW(numbers->Set(1, 2), Fundix::InvalidArgumentException);
    EXPECT_THROW(numbers->GetBoxed(5), Fundix::InvalidArgumentException);
    Ref<Kitra::Array<bool>> flags(new Kitra::Array<bool>());
    flags->Append(true);
    EXPECT_TRUE(flags->Get(0));
    EXPECT_THROW(flags->Get(1), Fundix::InvalidArgumentException);
    Ref<Kitra::DataArray<Bundle>> bundles(new Kitra::DataArray<Bundle>());
    EXPECT_THROW(bundles->Get(0), Fundix::InvalidArgumentException);
    EXPECT_THROW(bundles->GetAny(0), Fundix::InvalidArgumentException);
    EXPECT_EQ(Values::Raised<Fundix::InvalidArgumentException>([&] { numbers->Get(4); }).value().GetMessage(),
              "index 4 out of range: the array holds 1");
}

// Arrays of records take their element type or a class derived from it (the object model's ArrayTest);
// references and records do not mix either way.
TEST(ApiTest, ArraysOfRecordsTakeOnlyTheirElementType) {
    Ref<Kitra::DataArray<Morphel::ComputerSpec::ComputerLocation>> locations(
        new Kitra::DataArray<Morphel::ComputerSpec::ComputerLocation>());
    Ref<Bundle> bundle(new Bundle());
    Ref<Kitra::MoRef> ref(new Kitra::MoRef("morphel.task.Task", "t"));
    EXPECT_THROW(locations->AppendAny(ref.Get()), Fundix::TypeMismatchException);
    Ref<Kitra::DataArray<Kitra::MoRef>> refs(new Kitra::DataArray<Kitra::MoRef>());
    refs->AppendAny(ref.Get());
    EXPECT_THROW(refs->AppendAny(bundle.Get()), Fundix::TypeMismatchException);
}

TEST(ApiTest, MismatchesNameBothTypesByWireName) {
    // Records by their wire names, both of them, as the codec's text helpers show; here the other kinds.
    Ref<Bundle> bundle(new Bundle());
    Kitra::Any* any = bundle.Get();
    auto expected = [](auto call) {
        return Values::Raised<Fundix::TypeMismatchException>(call).value().GetExpected();
    };
    EXPECT_EQ(expected([&] { Kitra::CheckedCast<Kitra::Primitive<int32_t>>(any); }), "int");
    EXPECT_EQ(expected([&] { Kitra::CheckedCast<Kitra::MoRef>(any); }), "ManagedObjectReference");
    EXPECT_EQ(expected([&] { Kitra::CheckedCast<Kitra::DataArray<Bundle>>(any); }),
              Kitra::GetType<Bundle>()->GetArrayType()->GetName());
    EXPECT_EQ(expected([&] { Kitra::CheckedCast<Kitra::Primitive<Morphel::Task::TaskInfo::State>>(any); }),
              "morphel.task.TaskInfo.State");
}

}  // namespace
