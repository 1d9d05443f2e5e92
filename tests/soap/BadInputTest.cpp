// The reader's refusals: each bad message gets InvalidRequest with a reason and, where there is one, the
// property path; never a value.
#include "Wire.h"

namespace {

using namespace WireTest;

std::string Reject(const std::string& message, int version = 4, Kitra::Soap::Limits limits = {}) {
    return Rejection([&] { Kitra::Soap::Codec(V(version), limits).Decode(message); });
}

const std::string kLocation =
    "<hostname>h</hostname><username>u</username><osType>linux</osType>";

TEST(BadInput, MalformedOrNotAnEnvelope) {
    EXPECT_EQ(Reject(Body("<value xmlns=\"urn:morphel\" xsi:type=\"xsd:int\">1</valu>")).substr(0, 30),
              "mismatched tag at line 1, colu");
    EXPECT_EQ(Reject(""), "no element found at line 1, column 0 @ ");
    EXPECT_EQ(Reject("<Envelope/>"), "not a SOAP 1.1 envelope @ ");
    EXPECT_EQ(Reject(Body("")), "the body holds no message @ ");
    EXPECT_EQ(Reject(Body("<value xmlns=\"urn:morphel\" xsi:type=\"xsd:int\">1</value><value/>")),
              "the body holds more than one element @ ");
    EXPECT_EQ(Reject(Body("<nothing xmlns=\"urn:morphel\"/>")), "unknown operation nothing @ ");
    EXPECT_EQ(Reject(Body("<value xmlns=\"urn:other\"/>")), "element value in unknown namespace urn:other @ ");
}

TEST(BadInput, VersionsMustAgree) {
    std::string v3 = Encode(Sample("morphel.info.StorageInfo.DiskInfo").Get(), 3);
    EXPECT_EQ(Reject(v3, 4), "the message speaks urn:morphel/3.0, not urn:morphel/4.0 @ ");
    // Without a header, a version-4 field is foreign to a version-3 reader.
    EXPECT_EQ(Reject(Value("MorphelStorageInfoDiskInfo", "<gpt>true</gpt>"), 3),
              "property is not part of morphel.version.version3 @ gpt");
    EXPECT_EQ(Reject(Value("MorphelStorageInfoDiskInfo", "<lvgName>x</lvgName><gpt>true</gpt>"), 3),
              "property is not part of morphel.version.version3 @ gpt");
    EXPECT_EQ(Reject(Value("MorphelThrottlingParams", ""), 1),
              "type morphel.params.ThrottlingParams is not part of morphel.version.version1 @ ");
}

TEST(BadInput, StructureOfRecords) {
    const std::string spec = "<location xsi:type=\"MorphelComputerSpecLiveComputerLocation\">";
    EXPECT_EQ(Reject(Value("MorphelComputerSpec", spec + kLocation + "<colour>red</colour></location>")),
              "unknown property colour of MorphelComputerSpecLiveComputerLocation @ location.colour");
    EXPECT_EQ(Reject(Value("MorphelComputerSpec", spec + kLocation + "<port>1</port><port>2</port></location>")),
              "property given twice @ location.port");
    EXPECT_EQ(Reject(Value("MorphelComputerSpec", spec + "<hostname>h</hostname></location>")),
              "required property missing @ location.osType");
    EXPECT_EQ(Reject(Value("MorphelComputerSpec", "")), "required property missing @ location");
    EXPECT_EQ(Reject(Value("MorphelComputerSpec", "<location xsi:type=\"MorphelNoSuchType\"/>")),
              "unknown type MorphelNoSuchType @ ");
    EXPECT_EQ(Reject(Value("MorphelComputerSpec", "<location xsi:type=\"MorphelDovraConnectionSpec\"/>")),
              "type MorphelDovraConnectionSpec is not a MorphelComputerSpecComputerLocation @ location");
    // Items of an array of records, in a field and in a value of its own.
    EXPECT_EQ(Reject(Value("MorphelBootConfigInfoBootLoaderInfo",
                           "<entry xsi:type=\"MorphelDovraConnectionSpec\"/>")),
              "type MorphelDovraConnectionSpec is not a MorphelBootConfigInfoBootLoaderEntryInfo @ entry");
    EXPECT_EQ(Reject(Body("<value xmlns=\"urn:morphel\" xsi:type=\"ArrayOfMorphelEvent\"><MorphelEvent "
                          "xsi:type=\"MorphelDovraConnectionSpec\"/></value>")),
              "type MorphelDovraConnectionSpec is not a MorphelEvent @ ");
    EXPECT_EQ(Reject(Value("MorphelComputerSpec", "<location xsi:type=\"nope:X\"/>")),
              "unknown namespace prefix in xsi:type nope:X @ ");
    EXPECT_EQ(Reject(Value("MorphelComputerSpec", "stray text")), "unexpected text @ ");
    EXPECT_EQ(Reject(Value("MorphelComputerSpec", spec + "<hostname>h<b>old</b></hostname></location>")),
              "unexpected element b inside a value @ location.hostname");
    EXPECT_EQ(Reject(Body("<value xmlns=\"urn:morphel\">1</value>")), "a value of type anyType needs xsi:type @ ");
    // Nil stands for absent: fine for an optional field, missing for a required one.
    Fundix::Ref<Kitra::Any> nil = Decode(Value("MorphelComputerSpec", spec + kLocation + "<port xsi:nil=\"true\"/></location>"));
    EXPECT_NE(nil, nullptr);
    EXPECT_EQ(Reject(Value("MorphelComputerSpec", spec + "<hostname>h</hostname><osType xsi:nil=\"true\"/></location>")),
              "required property missing @ location.osType");
    EXPECT_EQ(Reject(Value("MorphelComputerSpec", "<location xsi:nil=\"true\"/>")), "required property missing @ location");
}

TEST(BadInput, LexicalForms) {
    auto field = [](const std::string& name, const std::string& text) {
        return Reject(Value("MorphelStorageInfoDiskInfo", "<" + name + ">" + text + "</" + name + ">"));
    };
    EXPECT_EQ(field("biosNumber", ""), "not an int: \"\" @ biosNumber");
    EXPECT_EQ(field("lvg", "yes"), "not a boolean: \"yes\" @ lvg");
    EXPECT_EQ(Reject(Value("MorphelTaskInfo", "<key>k</key><state>Running</state>")),
              "unknown value \"Running\" of MorphelTaskInfoState @ state");
    EXPECT_EQ(Reject(Value("MorphelSSLCertificateData", "<data>AB$=</data>")), "not base64: \"AB$=\" @ data");
    EXPECT_EQ(Reject(Value("MorphelSSLCertificateData", "<data>QUJD</data><data>QUJD</data>")),
              "property given twice @ data");
    EXPECT_EQ(Reject(Body("<value xmlns=\"urn:morphel\" xsi:type=\"xsd:double\">nan</value>")), "not a double: \"nan\" @ ");
    EXPECT_EQ(Reject(Body("<value xmlns=\"urn:morphel\" xsi:type=\"xsd:float\">infinity</value>")),
              "not a float: \"infinity\" @ ");
    EXPECT_EQ(Reject(Body("<value xmlns=\"urn:morphel\" xsi:type=\"xsd:byte\">128</value>")),
              "not in range for a byte: \"128\" @ ");
}

TEST(BadInput, DeclarationsAndEntitiesAreRefused) {
    const std::string laughs =
        "<?xml version=\"1.0\"?><!DOCTYPE lol [<!ENTITY lol \"lol\"><!ENTITY lol2 \"&lol;&lol;&lol;&lol;\">]>";
    EXPECT_EQ(Reject(laughs + Value("MorphelSSLCertificateData", "<data>&lol2;</data>")),
              "document type declarations are not accepted @ ");
    EXPECT_EQ(Reject("<!DOCTYPE x SYSTEM \"file:///etc/passwd\">" + Value("xsd:string", "&x;")),
              "document type declarations are not accepted @ ");
    EXPECT_EQ(Reject(Body("<value xmlns=\"urn:morphel\" xsi:type=\"xsd:string\">&undefined;</value>")).substr(0, 16),
              "undefined entity");
    // The predefined entities and character references are plain text.
    Fundix::Ref<Kitra::Any> text =
        Decode(Body("<value xmlns=\"urn:morphel\" xsi:type=\"xsd:string\">&lt;&amp;&#x41;&#66;</value>"));
    EXPECT_EQ(static_cast<Kitra::Primitive<std::string>*>(text.Get())->GetValue(), "<&AB");
}

TEST(BadInput, Limits) {
    Kitra::Soap::Limits limits;
    limits.maxDepth = 6;
    std::string nested = Encode(Sample("morphel.params.ConversionParams").Get());
    EXPECT_EQ(Reject(nested, 4, limits).substr(0, 30), "nesting deeper than 6 elements");

    limits = {};
    limits.maxTextBytes = 10;
    EXPECT_EQ(Reject(Value("MorphelStorageInfoDiskInfo", "<diskId>0123456789A</diskId>"), 4, limits),
              "text longer than 10 bytes @ diskId");

    limits = {};
    limits.maxArrayLength = 2;
    std::string three = "<diskId>a</diskId><diskId>b</diskId><diskId>c</diskId>";
    EXPECT_EQ(Reject(Value("MorphelStorageInfoVolumeInfo", three), 4, limits), "array longer than 2 items @ diskId");
    EXPECT_EQ(Reject(Value("MorphelSSLCertificateData", "<data>QUJD</data>"), 4, limits),
              "array longer than 2 items @ data");
    // An array parameter of a request, too.
    Fundix::Ref<Kitra::Array<std::string>> keys(new Kitra::Array<std::string>());
    for (const char* key : {"a", "b", "c"})
        keys->Append(key);
    EXPECT_EQ(Reject(Request("morphel.SessionManager", "terminate", {keys.Get()}), 4, limits),
              "array longer than 2 items @ sessionId");

    limits = {};
    limits.maxMessageBytes = 100;
    EXPECT_EQ(Reject(nested, 4, limits), "message of " + std::to_string(nested.size()) +
                                             " bytes exceeds the limit of 100 @ ");
}

}  // namespace
