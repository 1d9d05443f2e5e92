// Every data object and fault travels through the codec in every API version that knows it; single values to
// text and back in one call, versions by their short names, and byte arrays of every length against known
// answers.
#include <string>
#include <vector>

#include <dovra/fault/types.h>
#include <morphel/types.h>

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

using Fundix::Ref;

Ref<Morphel::SSLCertificateData> Certificate(const std::vector<int8_t>& bytes) {
    Ref<Kitra::Array<int8_t>> data(new Kitra::Array<int8_t>());
    for (int8_t b : bytes) data->Append(b);
    return new Morphel::SSLCertificateData(data.Get());
}

std::string DataText(const std::string& message) {
    size_t open = message.find("<data>");
    if (open == std::string::npos) return "(none)";
    open += 6;
    return message.substr(open, message.find("</data>", open) - open);
}

TEST(Text, ShortVersionNamesAndOneCallHelpers) {
    Kitra::Soap::Codec shortName("version2");
    Kitra::Soap::Codec fullName("morphel.version.version2");
    EXPECT_EQ(&shortName.GetVersion(), &fullName.GetVersion());
    EXPECT_EQ(Kitra::Soap::Codec("version4").GetVersionUri(), "urn:morphel/4.0");
    EXPECT_THROW(Kitra::Soap::Codec("version9"), Fundix::InvalidArgumentException);
    EXPECT_THROW(Kitra::Soap::Codec(""), Fundix::InvalidArgumentException);

    Ref<Morphel::ComputerSpec> spec(new Morphel::ComputerSpec(
        new Morphel::ComputerSpec::LiveComputerLocation("src", 902, Fundix::Optional<std::string>("admin"), {},
                                                        "windowsOs", true, {})));
    std::string text = Kitra::Soap::ToText(spec.Get(), "version2");
    EXPECT_EQ(text, Encode(spec.Get(), 2));
    EXPECT_EQ(shortName.ToText(spec.Get()), text);
    Ref<Morphel::ComputerSpec> back = Kitra::Soap::FromText<Morphel::ComputerSpec>(text, "version2");
    ASSERT_NE(back, nullptr);
    EXPECT_TRUE(spec->_IsEqual(back.Get(), false));
    // Text of another class: a mismatch naming both types by wire name.
    auto mismatch =
        Raised<Fundix::TypeMismatchException>([&] { shortName.FromText<Morphel::SSLCertificateData>(text); });
    ASSERT_TRUE(mismatch);
    EXPECT_EQ(mismatch->GetExpected(), "morphel.SSLCertificateData");
    EXPECT_EQ(mismatch->GetReceived(), "morphel.ComputerSpec");
    EXPECT_NE(FaultOf<Kitra::Fault::InvalidRequest>([&] { shortName.FromText<Morphel::ComputerSpec>("<x/>"); }), nullptr);
}

TEST(Text, ByteArraysOfEveryLength) {
    // Known answers, one per length modulo three, and the padding of each.
    EXPECT_EQ(DataText(Encode(Certificate({'M', 'a', 'n'}).Get())), "TWFu");
    EXPECT_EQ(DataText(Encode(Certificate({'M', 'a'}).Get())), "TWE=");
    EXPECT_EQ(DataText(Encode(Certificate({'M'}).Get())), "TQ==");
    EXPECT_EQ(DataText(Encode(Certificate({'M', 'a', 'n', 'M'}).Get())), "TWFuTQ==");
    EXPECT_EQ(DataText(Encode(Certificate({-1, -2, -3}).Get())), "//79");
    auto data = [](const Kitra::Any* v) { return static_cast<const Morphel::SSLCertificateData*>(v)->GetData(); };
    Ref<Kitra::Any> man = Decode(Value("MorphelSSLCertificateData", "<data>TWFu</data>"));
    ASSERT_NE(data(man.Get()), nullptr);
    EXPECT_EQ(data(man.Get())->GetValues(), (std::vector<int8_t>{'M', 'a', 'n'}));

    for (size_t n = 0; n <= 7; ++n) {
        std::vector<int8_t> bytes;
        for (size_t i = 0; i < n; ++i) bytes.push_back(static_cast<int8_t>(0xF0 - 37 * i));  // high bits set too
        Ref<Morphel::SSLCertificateData> value = Certificate(bytes);
        Ref<Kitra::Any> back = RoundTrip(value.Get());
        const Kitra::Array<int8_t>* read = data(back.Get());
        std::vector<int8_t> got = read != nullptr ? read->GetValues() : std::vector<int8_t>();
        EXPECT_EQ(got, bytes) << n << " bytes";
        // An empty array is not written at all.
        std::string text = DataText(Encode(value.Get()));
        if (n == 0) EXPECT_EQ(text, "(none)");
        else EXPECT_EQ(text.size(), (n + 2) / 3 * 4) << n << " bytes";
    }
}

}  // namespace
