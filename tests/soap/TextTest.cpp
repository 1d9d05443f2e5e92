// Single values to text and back in one call, versions by their short names, and the lexical forms that
// are easiest to get wrong: byte arrays of every length against known answers, offsets with minutes west
// of UTC, microseconds with leading zeros.
#include <string>
#include <vector>

#include <dovra/fault/types.h>
#include <morphel/types.h>

#include "Wire.h"

namespace {

using namespace WireTest;
using Fundix::Ref;
using Fundix::System::DateTime;

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
    try {
        shortName.FromText<Morphel::SSLCertificateData>(text);
        ADD_FAILURE() << "no mismatch";
    } catch (const Fundix::TypeMismatchException& e) {
        EXPECT_EQ(e.GetExpected(), "morphel.SSLCertificateData");
        EXPECT_EQ(e.GetReceived(), "morphel.ComputerSpec");
    }
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

TEST(Text, OffsetsWestOfUtcWithMinutes) {
    // The reader converts dates on its own (DateTimeTest has the general parser): the same instant comes out.
    auto read = [](const std::string& text) {
        Ref<Kitra::Any> v = Decode(Value("xsd:dateTime", text));
        return static_cast<Kitra::Primitive<DateTime>*>(v.Get())->GetValue();
    };
    EXPECT_EQ(read("2026-11-23T00:00:00-03:30"), DateTime(2026, 11, 23, 3, 30));
    EXPECT_EQ(read("2026-11-23T00:00:00-00:45"), DateTime(2026, 11, 23, 0, 45));
    EXPECT_EQ(read("2026-11-23T00:00:00+00:45"), DateTime(2026, 11, 22, 23, 15));
    // Microseconds with leading zeros keep them, both ways.
    EXPECT_EQ(read("2026-11-23T00:00:00.000005Z").GetMicrosecond(), 5);
    EXPECT_EQ(read("2026-11-23T00:00:00.0405Z").GetMicrosecond(), 40500);
    Ref<Kitra::Primitive<DateTime>> early(new Kitra::Primitive<DateTime>(DateTime(2026, 11, 23, 0, 0, 0, 5)));
    EXPECT_NE(Encode(early.Get()).find("2026-11-23T00:00:00.000005Z"), std::string::npos);
    EXPECT_EQ(static_cast<Kitra::Primitive<DateTime>*>(RoundTrip(early.Get()).Get())->GetValue().GetMicrosecond(), 5);
}

}  // namespace
