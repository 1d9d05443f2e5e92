// Every data object and fault travels through the codec in every API version that knows it.
#include "Wire.h"

namespace {

using Kitra::Soap::Codec;
using namespace WireTest;

TEST(RoundTrip, EveryTypeInEveryVersionThatKnowsIt) {
    size_t trips = 0;
    Codec latest(V(4));
    for (const char* version : kVersions) {
        Codec codec(version);
        for (Kitra::Type* t : Kitra::GetTypeMap()->GetTypes()) {
            const Kitra::DataObjectType* type = t->AsDataObjectType();
            if (type == nullptr || !codec.Knows(type)) continue;
            SCOPED_TRACE(std::string(type->GetName()) + " in " + version);
            // Filled for the latest version, written in this one: the later fields stay behind (an older
            // reader refuses them, BadInput.VersionsMustAgree).
            Fundix::Ref<Kitra::DataObject> full = MorphelTypesTool::Sample(type, latest);
            Fundix::Ref<Kitra::DataObject> expected = MorphelTypesTool::Sample(type, codec);
            std::string message;
            try {
                codec.EncodeValue(full.Get(), message);
                Kitra::Soap::Message back = codec.Decode(message);
                ASSERT_EQ(back.kind, Kitra::Soap::MessageKind::Value);
                ASSERT_NE(back.value, nullptr);
                EXPECT_EQ(back.value->_GetType(), type);
                EXPECT_TRUE(expected->_IsEqual(back.value.Get(), false)) << message;
                ++trips;
            } catch (const Fundix::Exception& e) {
                ADD_FAILURE() << e.GetMessage() << "\n" << message;
            }
        }
    }
    EXPECT_GT(trips, 2000u);
}

TEST(RoundTrip, TypesAPeerDoesNotKnowAreRefused) {
    for (const auto& [type, version] :
         {std::pair{"morphel.params.IncrementalP2VCloningParams", 2},
          std::pair{"morphel.params.ThrottlingParams", 1}, std::pair{"morphel.server.job.JobInfo", 1}}) {
        std::string out = "kept";
        auto fault = FaultOf<Kitra::Fault::NotInVersion>([&] {
            Kitra::Soap::Codec(V(version)).EncodeValue(Sample(type).Get(), out);
        });
        ASSERT_NE(fault, nullptr);
        EXPECT_EQ(fault->GetName(), type);
        EXPECT_EQ(fault->GetVersion(), V(version));
        EXPECT_EQ(out, "kept");  // nothing half-written
    }
    // Nested in a place the version has, the refusal names the place.
    Fundix::Ref<Kitra::DataObject> task = Sample("morphel.task.TaskInfo", 1);
    Set(task.Get(), "result", Sample("morphel.params.ThrottlingParams").Get());
    auto fault = FaultOf<Kitra::Fault::NotInVersion>([&] { Encode(task.Get(), 1); });
    ASSERT_NE(fault, nullptr);
    EXPECT_EQ(fault->GetInvalidProperty().GetValue(), "result");
}

}  // namespace
