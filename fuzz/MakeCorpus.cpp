// Writes the seed corpus of the decoder fuzz target: messages the encoder wrote, one per file, covering
// values (records, polymorphic places, anyType arrays, base64, a lone primitive), requests, a property
// fetch, responses and faults, mostly in version 4 (the fuzz target's), a few in older versions.
//
//   decode_fuzz_corpus <directory>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#include <kitra/Kitra.h>
#include <kitra/Soap.h>
#include <morphel/event/types.h>
#include <morphel/types.h>

#include "Sample.h"

namespace {

using Fundix::Ref;
using Kitra::Soap::Codec;

std::string Version(int n) { return "morphel.version.version" + std::to_string(n); }

const Kitra::DataObjectType* DataType(const std::string& wire) {
    Kitra::Type* t = Kitra::GetTypeMap()->GetType(wire);
    if (t == nullptr || t->AsDataObjectType() == nullptr) throw std::runtime_error("no data type " + wire);
    return t->AsDataObjectType();
}

// Leaves the customisation record out of every nested conversion-parameter record: the reader treats it
// like any other record, and the seeds stay smaller without it.
void DropCustomization(Kitra::DataObject* object, int depth = 0) {
    if (object == nullptr || depth > 8) return;
    const Kitra::DataObjectType* type = object->_GetDataType();
    const auto& props = type->GetProperties();
    for (size_t i = 0; i < props.size(); ++i) {
        const Kitra::PropertyTypeInfo& p = *props[i].info;
        if (p.type->kind != Kitra::kKindData || (p.flags & Kitra::kFlagArray)) continue;
        if (std::string(p.name) == "customizationParams") {
            type->SetPropertyValue(object, static_cast<int>(i), nullptr);
            continue;
        }
        Ref<Kitra::Any> nested = type->GetPropertyValue(object, static_cast<int>(i));
        DropCustomization(dynamic_cast<Kitra::DataObject*>(nested.Get()), depth + 1);
    }
}

Ref<Kitra::DataObject> Sample(const std::string& wire, const Codec& codec) {
    Ref<Kitra::DataObject> value = MorphelTypesTool::Sample(DataType(wire), codec);
    DropCustomization(value.Get());
    return value;
}

Kitra::ManagedMethod* Method(const std::string& type, const std::string& name) {
    Kitra::Type* t = Kitra::GetTypeMap()->GetType(type);
    Kitra::ManagedMethod* m = t != nullptr && t->AsManagedObjectType() ? t->AsManagedObjectType()->FindMethod(name) : nullptr;
    if (m == nullptr) throw std::runtime_error("no method " + type + "." + name);
    return m;
}

// Three events of different classes, as the event history hands them out.
Ref<Kitra::DataArray<Morphel::Event::Event>> Events(const Codec& codec) {
    Ref<Kitra::DataArray<Morphel::Event::Event>> page(new Kitra::DataArray<Morphel::Event::Event>());
    for (const char* wire : {"morphel.event.UserLoginEvent", "morphel.event.PowerOnFailedEvent",
                             "morphel.event.VolumeBlockLevelCloningBadBlockEvent"}) {
        Ref<Kitra::DataObject> e = Sample(wire, codec);
        page->AppendBoxed(e.Get());
    }
    return page;
}

template <class T>
Ref<Kitra::Array<T>> Values(std::initializer_list<T> items) {
    Ref<Kitra::Array<T>> array(new Kitra::Array<T>());
    for (const T& item : items) array->Append(item);
    return array;
}

// An anyType array holding one item of every kind an anyType place can carry: each primitive, an
// enumeration, a reference, a record and arrays of primitives.
Ref<Kitra::DataArray<Kitra::Any>> Mixed(const Codec& codec) {
    Ref<Kitra::DataArray<Kitra::Any>> items(new Kitra::DataArray<Kitra::Any>());
    items->Append(new Kitra::Primitive<std::string>("text & <markup>"));
    items->Append(new Kitra::Primitive<int32_t>(-2147483647 - 1));
    items->Append(new Kitra::Primitive<int64_t>(9223372036854775807LL));
    items->Append(new Kitra::Primitive<int16_t>(-32768));
    items->Append(new Kitra::Primitive<int8_t>(127));
    items->Append(new Kitra::Primitive<bool>(true));
    items->Append(new Kitra::Primitive<float>(0.1f));
    items->Append(new Kitra::Primitive<double>(-1.5e300));
    items->Append(new Kitra::Primitive<Fundix::System::DateTime>(Fundix::System::DateTime(1999, 12, 31, 23, 59, 59)));
    items->Append(new Kitra::Primitive<Kitra::TypeName>(Kitra::TypeName("morphel.task.TaskInfo")));
    items->Append(new Kitra::Primitive<Kitra::PropertyPath>(Kitra::PropertyPath("info.state")));
    items->Append(new Kitra::Primitive<Morphel::Event::Event::Type>(Morphel::Event::Event::Type::warning));
    items->Append(new Kitra::MoRef("morphel.task.Task", "task-9"));
    items->Append(Sample("morphel.info.BasicHardwareInfo", codec).Get());
    items->Append(Values<int32_t>({1, -2, 3}).Get());
    items->Append(Values<int64_t>({1LL << 40}).Get());
    items->Append(Values<double>({0.25, 1e-300}).Get());
    items->Append(Values<bool>({true, false}).Get());
    items->Append(Values<Kitra::TypeName>({Kitra::TypeName("morphel.ComputerSpec")}).Get());
    return items;
}

class Writer {
public:
    explicit Writer(std::string dir) : dir_(std::move(dir)) {}

    void Write(const std::string& name, const std::string& message) {
        std::ofstream out(dir_ + "/" + name, std::ios::binary);
        out << message;
        if (!out) throw std::runtime_error("cannot write " + dir_ + "/" + name);
        ++count_;
    }

    void Value(const std::string& name, const Kitra::Any* value, const Codec& codec) {
        std::string message;
        codec.EncodeValue(value, message);
        Write(name, message);
    }

    int Count() const { return count_; }

private:
    std::string dir_;
    int count_ = 0;
};

void WriteCorpus(Writer& w) {
    const Codec v4(Version(4));

    // Values.
    Ref<Morphel::ComputerSpec> spec(new Morphel::ComputerSpec());
    Ref<Kitra::DataObject> live = Sample("morphel.ComputerSpec.LiveComputerLocation", v4);
    spec->SetLocation(static_cast<Morphel::ComputerSpec::LiveComputerLocation*>(live.Get()));
    w.Value("value-ComputerSpec-v4.xml", spec.Get(), v4);
    for (const char* wire : {"morphel.task.TaskInfo", "morphel.info.ComputerHardwareInfo", "morphel.info.ComputerOsInfo",
                             "morphel.server.conversion.ConversionJobSpec", "morphel.SSLCertificateData"}) {
        std::string name = wire;
        w.Value("value-" + name.substr(name.rfind('.') + 1) + "-v4.xml", Sample(wire, v4).Get(), v4);
    }
    w.Value("value-ArrayOfEvent-v4.xml", Events(v4).Get(), v4);
    Ref<Kitra::Array<std::string>> strings(new Kitra::Array<std::string>());
    strings->Append("first");
    strings->Append("second & <third>");
    w.Value("value-ArrayOfString-v4.xml", strings.Get(), v4);
    Ref<Kitra::Primitive<Fundix::System::DateTime>> when(
        new Kitra::Primitive<Fundix::System::DateTime>(Fundix::System::DateTime(2026, 11, 23, 10, 15, 30, 250000)));
    w.Value("value-dateTime-v4.xml", when.Get(), v4);
    w.Value("value-ArrayOfAnyType-v4.xml", Mixed(v4).Get(), v4);

    // Older versions: one as written (another version than the reader's), one without its version
    // header (read as the reader's own).
    const Codec v1(Version(1)), v3(Version(3));
    w.Value("value-StorageInfo-v3.xml", Sample("morphel.info.StorageInfo", v3).Get(), v3);
    std::string old;
    v1.EncodeValue(Sample("morphel.params.ConversionParams", v1).Get(), old);
    size_t header = old.find("<soapenv:Header>");
    size_t headerEnd = old.find("</soapenv:Header>");
    if (header == std::string::npos || headerEnd == std::string::npos) throw std::runtime_error("no header in " + old);
    old.erase(header, headerEnd + 17 - header);
    w.Write("value-ConversionParams-v1-noversion.xml", old);

    // Requests and a property fetch.
    {
        Fundix::RefVector<Kitra::Any> args;
        args.push_back(new Kitra::Primitive<std::string>("operator"));
        args.push_back(new Kitra::Primitive<std::string>("pw & <more>"));
        args.push_back(new Kitra::Primitive<std::string>("en_US"));
        std::string message;
        v4.EncodeRequest(Kitra::MoRef("morphel.SessionManager", "SessionManager"),
                         Method("morphel.SessionManager", "login"), args, message);
        w.Write("request-login-v4.xml", message);
    }
    {
        Fundix::RefVector<Kitra::Any> args;
        args.push_back(Ref<Kitra::Any>(Sample("morphel.server.conversion.ConversionJobSpec", v4).Get()));
        args.push_back(new Kitra::Primitive<int32_t>(17));  // extraInfo, an anyType place
        std::string message;
        v4.EncodeRequest(Kitra::MoRef("morphel.server.conversion.ConversionManager", "ConversionManager"),
                         Method("morphel.server.conversion.ConversionManager", "createJob"), args, message);
        w.Write("request-createJob-v4.xml", message);
    }
    {
        std::string message;
        v4.EncodeRequest(Kitra::MoRef("morphel.task.Task", "task-7"), Method("morphel.task.Task", "info"), {}, message);
        w.Write("request-fetch-Task.info-v4.xml", message);
    }

    // Responses.
    {
        std::string message;
        v4.EncodeResponse(Method("morphel.event.EventHistoryCollector", "readNext"), Events(v4).Get(), message);
        w.Write("response-readNext-v4.xml", message);
    }
    {
        std::string message;
        v4.EncodeResponse(Method("morphel.server.conversion.ConversionManager", "createJob"),
                          Sample("morphel.server.conversion.ConversionJobInfo", v4).Get(), message);
        w.Write("response-createJob-v4.xml", message);
    }
    {
        std::string message;
        v4.EncodeResponse(Method("morphel.task.Task", "info"), Sample("morphel.task.TaskInfo", v4).Get(), message);
        w.Write("response-fetch-Task.info-v4.xml", message);
    }

    // Faults.
    for (const char* wire : {"morphel.fault.FileNotFound", "kodl.fault.InvalidRequest"}) {
        std::string name = wire, message;
        Ref<Kitra::DataObject> fault = Sample(wire, v4);
        v4.EncodeFault(static_cast<Kitra::MethodFault*>(fault.Get()), message);
        w.Write("fault-" + name.substr(name.rfind('.') + 1) + "-v4.xml", message);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: decode_fuzz_corpus <directory>\n";
        return 2;
    }
    (void)Kitra::GetType<Morphel::ComputerSpec>();
    Writer w(argv[1]);
    try {
        WriteCorpus(w);
    } catch (const std::exception& e) {
        std::cerr << "decode_fuzz_corpus: " << e.what() << "\n";
        return 1;
    }
    std::cout << w.Count() << " messages written to " << argv[1] << "\n";
    return 0;
}
