// The reader's refusals: each bad message gets InvalidRequest with a reason and, where there is one, the
// property path; never a value. The reader's shortcuts for the forms the writer sends (the next field in
// declaration order, text read where expat holds it, numbers, dates and enumeration values read without the
// general parsers, names and values remembered per message) against every way a message may leave them.
#include <algorithm>
#include <string>

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

// The sample of `type` as the writer sends it (or `type` itself, when it is a message), the element `tag`
// holding `text` instead.
std::string WithText(const std::string& type, const std::string& tag, const std::string& text) {
    const std::string message = type[0] == '<' ? type : Encode(Sample(type).Get());
    return Replaced(message, tag, "<" + tag + ">" + text + "</" + tag + ">");
}

// The sample of `type` with `fields` as the only content of its value element.
std::string WithFields(const std::string& type, const std::string& fields) {
    std::string message = Encode(Sample(type).Get());
    const size_t open = message.find('>', message.find("<value ")) + 1;
    return message.replace(open, message.find("</value>") - open, fields);
}

// A property (a dotted path) of what `message` decodes to, as text: numbers and dates as the writer gives
// them, enumeration values by name, string arrays joined by commas; or the rejection.
std::string Read(const std::string& message, const std::string& path) {
    std::string refused = "";
    Fundix::Ref<Kitra::Any> value;
    try {
        value = Kitra::Soap::Codec(V(4)).Decode(message).value;
    } catch (const Kitra::MethodFault::Exception&) {
        return "refused: " + Rejection([&] { Kitra::Soap::Codec(V(4)).Decode(message); });
    }
    for (size_t from = 0; value != nullptr && from <= path.size();) {
        const size_t dot = std::min(path.find('.', from), path.size());
        value = Get(value.Get(), path.substr(from, dot - from));
        from = dot + 1;
    }
    if (value == nullptr) return "(unset)";
    if (auto* s = dynamic_cast<Kitra::Primitive<std::string>*>(value.Get())) return s->GetValue();
    if (auto* i = dynamic_cast<Kitra::Primitive<int32_t>*>(value.Get())) return std::to_string(i->GetValue());
    if (auto* l = dynamic_cast<Kitra::Primitive<int64_t>*>(value.Get())) return std::to_string(l->GetValue());
    if (auto* b = dynamic_cast<Kitra::Primitive<int8_t>*>(value.Get())) return std::to_string(b->GetValue());
    if (auto* d = dynamic_cast<Kitra::Primitive<Fundix::System::DateTime>*>(value.Get()))
        return d->GetValue().ToIso8601();
    if (auto* a = dynamic_cast<Kitra::Array<std::string>*>(value.Get())) {
        std::string joined;
        for (const std::string& item : a->GetValues())
            joined += (joined.empty() ? "" : ",") + item;
        return joined;
    }
    if (const Kitra::EnumType* e = value->_GetType()->AsEnumType()) return e->BoxedValueToText(value.Get());
    return "(other)";
}

TEST(Read, ShortcutsAgreeWithTheGeneralPaths) {
    const char* const disk = "morphel.info.StorageInfo.DiskInfo";
    const char* const volume = "morphel.info.StorageInfo.VolumeInfo";
    const char* const task = "morphel.task.TaskInfo";
    const std::string diskFields =  // every required field, in no particular order
        "<gpt>true</gpt><lvg>false</lvg><diskId>d</diskId><capacityInBytes>1</capacityInBytes>"
        "<diskUsageInBytes>2</diskUsageInBytes><signature>3</signature><biosNumber>4</biosNumber>";
    struct Case {
        std::string message;
        std::string path;
        std::string expected;
    };
    // A volume's disks apart, its identifier between them.
    const std::string apart =
        Replaced(Replaced(Replaced(Encode(Sample(volume).Get()), "volumeId", ""), "diskId", ""), "diskId",
                 "<diskId>a</diskId><volumeId>v</volumeId><diskId>b</diskId>");
    const Case cases[] = {
        // (The writer's own forms in one piece travel in every round trip.)
        // Numbers: split by a character reference, with spaces, signs, at and past the limits.
        {WithText(disk, "biosNumber", "1&#50;3"), "biosNumber", "123"},
        {WithText(disk, "biosNumber", " 42\n"), "biosNumber", "42"},
        {WithText(disk, "biosNumber", "+7"), "biosNumber", "7"},
        {WithText(disk, "biosNumber", "-2147483648"), "biosNumber", "-2147483648"},
        {WithText(disk, "biosNumber", "2147483648"), "biosNumber",
         "refused: not in range for an int: \"2147483648\" @ biosNumber"},
        {WithText(disk, "biosNumber", "-"), "biosNumber", "refused: not an int: \"-\" @ biosNumber"},
        {WithText(disk, "biosNumber", "1 2"), "biosNumber", "refused: not an int: \"1 2\" @ biosNumber"},
        {WithText(volume, "partitionType", "-128"), "partitionType", "-128"},
        {WithText(volume, "partitionType", "128"), "partitionType",
         "refused: not in range for a byte: \"128\" @ partitionType"},
        {WithText(volume, "partitionType", "-129"), "partitionType",
         "refused: not in range for a byte: \"-129\" @ partitionType"},
        {WithText(disk, "capacityInBytes", "123456789012345678"), "capacityInBytes", "123456789012345678"},
        {WithText(disk, "capacityInBytes", "-9223372036854775808"), "capacityInBytes",
         "-9223372036854775808"},
        {WithText(disk, "capacityInBytes", "9223372036854775808"), "capacityInBytes",
         "refused: not in range for a long: \"9223372036854775808\" @ capacityInBytes"},
        // Dates: the writer's form with a fraction, every other form, days that do not exist, and
        // a date on another day than the one before it in the message.
        {WithText(task, "queueTime", "2026-11-23T10:15:16.5Z"), "queueTime", "2026-11-23T10:15:16.5Z"},
        {WithText(task, "queueTime", "2026-11-23T10:15:16.123456789Z"), "queueTime",
         "2026-11-23T10:15:16.123456Z"},
        {WithText(task, "queueTime", "2026-11-23T10:15:16.1234567890Z"), "queueTime",
         "refused: not a dateTime: \"2026-11-23T10:15:16.1234567890Z\" @ queueTime"},
        {WithText(task, "queueTime", "2026-11-23T10:15:16.Z"), "queueTime",
         "refused: not a dateTime: \"2026-11-23T10:15:16.Z\" @ queueTime"},
        {WithText(task, "queueTime", "2026-11-23T24:00:00Z"), "queueTime",
         "refused: not a dateTime: \"2026-11-23T24:00:00Z\" @ queueTime"},
        {WithText(task, "queueTime", "2026-02-29T00:00:00Z"), "queueTime",
         "refused: not a dateTime: \"2026-02-29T00:00:00Z\" @ queueTime"},
        {WithText(task, "queueTime", "2024-02-29T23:59:59Z"), "queueTime", "2024-02-29T23:59:59Z"},
        {WithText(task, "queueTime", "2026-11-23T10:15:16"), "queueTime", "2026-11-23T10:15:16Z"},
        {WithText(task, "queueTime", "2026-11-23T10:15:16+01:00"), "queueTime", "2026-11-23T09:15:16Z"},
        {WithText(task, "queueTime", "2026-11-23T00:00:00-00:45"), "queueTime", "2026-11-23T00:45:00Z"},
        {WithText(task, "queueTime", "2026-11-23T00:00:00+00:45"), "queueTime", "2026-11-22T23:15:00Z"},
        {WithText(task, "queueTime", "2026-11-23T00:00:00.000005Z"), "queueTime",
         "2026-11-23T00:00:00.000005Z"},
        {WithText(task, "queueTime", "2026-11-23T00:00:00.0405Z"), "queueTime", "2026-11-23T00:00:00.0405Z"},
        {WithText(task, "queueTime", "2026-11-23T10:15:16&#x5A;"), "queueTime", "2026-11-23T10:15:16Z"},
        {WithText(task, "startTime", "2026-11-24T00:00:01Z"), "startTime", "2026-11-24T00:00:01Z"},
        // Enumeration values: trimmed, and the same text in two enumerations of one message.
        {WithText(task, "state", " running "), "state", "running"},
        {WithText(WithText("morphel.event.TaskEvent", "type", "error"), "state", "error"), "info.state",
         "error"},
        {WithText(WithText("morphel.event.TaskEvent", "type", "error"), "state", "error"), "type", "error"},
        // Strings: in pieces, beginning with a reference, with a line end made plain.
        {WithText(disk, "diskId", "a&lt;b&gt;c"), "diskId", "a<b>c"},
        {WithText(disk, "diskId", "&amp;first"), "diskId", "&first"},
        {WithText(disk, "lvgName", "x\r\ny"), "lvgName", "x\ny"},
        {WithText(disk, "lvgName", ""), "lvgName", ""},
        // Fields out of declaration order, an array's items apart, repeated fields (unknown ones: BadInput).
        {apart, "diskId", "a,b"},
        {apart, "volumeId", "v"},
        {WithFields(disk, diskFields), "biosNumber", "4"},
        {WithFields(disk, "<gpt>true</gpt><lvg>false</lvg><gpt>true</gpt>"), "gpt",
         "refused: property given twice @ gpt"},
        // Namespaces: a field in another one, in the same one declared again, after fields of the codec's.
        {WithFields(disk, "<diskId>d</diskId><o:gpt xmlns:o=\"urn:other\">true</o:gpt>"), "gpt",
         "refused: element gpt in unknown namespace urn:other @ "},
        {WithFields(disk, "<diskId>d</diskId><gpt xmlns=\"urn:other\">true</gpt>"), "gpt",
         "refused: element gpt in unknown namespace urn:other @ "},
        // (expat gives the second declaration the first one's buffer, where the first field's name lay)
        {WithFields(disk, "<diskId xmlns=\"urn:morphel\">d</diskId><gpt xmlns=\"urn:other\">true</gpt>"),
         "gpt", "refused: element gpt in unknown namespace urn:other @ "},
        {WithFields(disk, diskFields + "<lvgName xmlns=\"urn:morphel\">n</lvgName>"), "lvgName", "n"},
        // Type names: one text meaning two types in two scopes; a reference of a type its place does not
        // take.
        {WithFields(task,
                    "<key>k</key><data xmlns:p=\"http://www.w3.org/2001/XMLSchema\" xsi:type=\"p:string\">x"
                    "</data><result xmlns:p=\"urn:morphel\" xsi:type=\"p:string\">y</result>"),
         "data", "refused: unknown type p:string @ "},
        {WithFields(task,
                    "<key>k</key><task type=\"MorphelTask\">t-1</task>"
                    "<parentTask type=\"MorphelServerJobJob\">j</parentTask>"),
         "key", "refused: type MorphelServerJobJob is not a MorphelTask @ parentTask"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        EXPECT_EQ(Read(c.message, c.path), c.expected);
    }
}

TEST(Read, DeepNestingAndMessagesOneAfterAnother) {
    // Deeper than the frames a thread keeps between messages: they grow while open elements hold their place.
    std::string nested;
    for (int i = 0; i < 40; ++i)
        nested += "<anyType xsi:type=\"ArrayOfAnyType\">";
    for (int i = 0; i < 40; ++i)
        nested += "</anyType>";
    const std::string message = Replaced(Encode(Sample("morphel.task.TaskInfo").Get()), "result",
                                         "<result xsi:type=\"ArrayOfAnyType\">" + nested + "</result>");
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(Read(message, "state"), "success");
        // A refused message between two good ones leaves nothing behind for the next.
        EXPECT_EQ(Read(WithText("morphel.info.StorageInfo.DiskInfo", "biosNumber", "x"), "biosNumber"),
                  "refused: not an int: \"x\" @ biosNumber");
    }
}

}  // namespace
