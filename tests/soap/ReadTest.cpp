// The reader's shortcuts for the forms the writer sends (the next field in declaration order, text read where
// expat holds it, numbers, dates and enumeration values read without the general parsers, names and values
// remembered per message) against every way a message may leave those forms.
#include <algorithm>
#include <string>

#include "Wire.h"

namespace {

using namespace WireTest;

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
