// What the codec writes is valid against the schema emitted for its version: every value, fault, request
// and response, checked whole (envelope included) with libxml2's schema validator.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <tuple>

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/xmlschemas.h>

#include <kitra/Kitra.h>
#include <kitra/Soap.h>
#include <kitra/Wsdl.h>
#include <morphel/types.h>

#include "../soap/Wire.h"

namespace {

using Fundix::Ref;
using Kitra::Any;
using Kitra::Soap::Codec;

using namespace WireTest;  // versions, sample values and envelopes shared with the codec's tests

// The envelope as the codec writes it. The body's element, and the one in a fault's detail, are matched
// strictly: each must be declared by the imported schema of the version.
std::string EnvelopeSchema(const std::string& ns, const std::string& location) {
    return "<xsd:schema xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
           "xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
           "targetNamespace=\"http://schemas.xmlsoap.org/soap/envelope/\">"
           "<xsd:import namespace=\"" + ns + "\" schemaLocation=\"" + location + "\"/>"
           "<xsd:element name=\"Envelope\"><xsd:complexType><xsd:sequence>"
           "<xsd:element name=\"Header\" form=\"qualified\" minOccurs=\"0\"><xsd:complexType><xsd:sequence>"
           "<xsd:any namespace=\"##other\" processContents=\"skip\" minOccurs=\"0\" maxOccurs=\"unbounded\"/>"
           "</xsd:sequence></xsd:complexType></xsd:element>"
           "<xsd:element name=\"Body\" form=\"qualified\"><xsd:complexType><xsd:choice>"
           "<xsd:element ref=\"soapenv:Fault\"/>"
           "<xsd:any namespace=\"" + ns + "\" processContents=\"strict\"/>"
           "</xsd:choice></xsd:complexType></xsd:element>"
           "</xsd:sequence></xsd:complexType></xsd:element>"
           "<xsd:element name=\"Fault\"><xsd:complexType><xsd:sequence>"
           "<xsd:element name=\"faultcode\" type=\"xsd:QName\"/>"
           "<xsd:element name=\"faultstring\" type=\"xsd:string\"/>"
           "<xsd:element name=\"detail\"><xsd:complexType><xsd:sequence>"
           "<xsd:any namespace=\"" + ns + "\" processContents=\"strict\"/>"
           "</xsd:sequence></xsd:complexType></xsd:element>"
           "</xsd:sequence></xsd:complexType></xsd:element></xsd:schema>";
}

#if LIBXML_VERSION >= 21200
void Collect(void* errors, const xmlError* error) {
#else
void Collect(void* errors, xmlErrorPtr error) {
#endif
    *static_cast<std::string*>(errors) += error->message != nullptr ? error->message : "?\n";
}

class Validator {
public:
    explicit Validator(const Codec& codec) {
        std::string xsd;
        Kitra::Soap::WriteSchema(codec, xsd);
        std::string path = testing::TempDir() + "schema-" + std::to_string(getpid()) + "-" +
                           codec.GetVersion().name + ".xsd";
        std::ofstream(path) << xsd;
        std::string envelope = EnvelopeSchema(codec.GetNamespace(), path);
        xmlSchemaParserCtxtPtr parser =
            xmlSchemaNewMemParserCtxt(envelope.data(), static_cast<int>(envelope.size()));
        xmlSchemaSetParserStructuredErrors(parser, Collect, &errors_);
        schema_ = xmlSchemaParse(parser);
        xmlSchemaFreeParserCtxt(parser);
        std::remove(path.c_str());
        EXPECT_NE(schema_, nullptr) << codec.GetVersion().name << ": " << errors_;
        if (schema_ != nullptr) {
            valid_ = xmlSchemaNewValidCtxt(schema_);
            xmlSchemaSetValidStructuredErrors(valid_, Collect, &errors_);
        }
    }
    ~Validator() {
        if (valid_ != nullptr) xmlSchemaFreeValidCtxt(valid_);
        if (schema_ != nullptr) xmlSchemaFree(schema_);
    }
    Validator(const Validator&) = delete;
    Validator& operator=(const Validator&) = delete;

    // Empty when `message` is valid; otherwise what the validator says.
    std::string Check(const std::string& message) {
        if (valid_ == nullptr) return "no schema";
        errors_.clear();
        int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
        int size = static_cast<int>(message.size());
        xmlDocPtr doc = xmlReadMemory(message.data(), size, "message.xml", nullptr, options);
        if (doc == nullptr) return "not well-formed";
        int rc = xmlSchemaValidateDoc(valid_, doc);
        xmlFreeDoc(doc);
        if (rc == 0) return "";
        return errors_.empty() ? "invalid" : errors_;
    }

private:
    std::string errors_;
    xmlSchemaPtr schema_ = nullptr;
    xmlSchemaValidCtxtPtr valid_ = nullptr;
};

// The same sample with every optional and array property left out: what a sparse peer sends.
Ref<Kitra::DataObject> Lean(Ref<Kitra::DataObject> object) {
    const Kitra::DataObjectType* type = object->_GetDataType();
    for (size_t i = 0; i < type->GetProperties().size(); ++i)
        if (type->GetProperties()[i].info->flags & (Kitra::kFlagOptional | Kitra::kFlagArray))
            type->SetPropertyValue(object.Get(), static_cast<int>(i), nullptr);
    return object;
}

class Schema : public testing::Test {
protected:
    static void SetUpTestSuite() {
        (void)Kitra::GetType<Morphel::ComputerSpec>();  // keeps the bindings, and their registration, linked
        xmlInitParser();
    }

    // Encodes with `encode` into a message and expects it valid; counts it.
    template <class Fn>
    void Expect(Validator& validator, const std::string& what, Fn&& encode) {
        std::string message;
        try {
            encode(message);
        } catch (const Fundix::Exception& e) {
            ADD_FAILURE() << what << ": the codec refused: " << e.GetMessage();
            return;
        }
        std::string errors = validator.Check(message);
        EXPECT_EQ(errors, "") << what << "\n" << message;
        ++checked_;
    }

    size_t checked_ = 0;
};

TEST_F(Schema, EveryDataObjectAndFaultFilledAndLeanAsValueAndFault) {
    for (const char* version : kVersions) {
        Codec codec(version);
        Validator validator(codec);
        for (Kitra::Type* t : Kitra::GetTypeMap()->GetTypes()) {
            const Kitra::DataObjectType* type = t->AsDataObjectType();
            if (type == nullptr || !codec.Knows(type)) continue;
            std::string what = std::string(type->GetName()) + " in " + version;
            Ref<Kitra::DataObject> full = MorphelTypesTool::Sample(type, codec);
            Ref<Kitra::DataObject> lean = Lean(MorphelTypesTool::Sample(type, codec));
            Expect(validator, what, [&](std::string& m) { codec.EncodeValue(full.Get(), m); });
            Expect(validator, what + " (lean)", [&](std::string& m) { codec.EncodeValue(lean.Get(), m); });
            if (!type->IsFault()) continue;
            Expect(validator, what + " (fault)", [&](std::string& m) {
                codec.EncodeFault(static_cast<const Kitra::MethodFault*>(full.Get()), m);
            });
        }
    }
    EXPECT_GT(checked_, 5000u);
}

// An array in an anyType place travels as ArrayOf<X>: one for every element type the version knows.
TEST_F(Schema, ArraysOfEveryElementTypeAsValues) {
    for (const char* version : kVersions) {
        Codec codec(version);
        Validator validator(codec);
        std::vector<const Kitra::Type*> plain{Kitra::GetType<Kitra::ManagedObject>()};
        for (const Kitra::TypeInfo* p :
             {&Kitra::gStringTypeInfo, &Kitra::gIntTypeInfo, &Kitra::gLongTypeInfo, &Kitra::gShortTypeInfo,
              &Kitra::gByteTypeInfo, &Kitra::gBoolTypeInfo, &Kitra::gFloatTypeInfo, &Kitra::gDoubleTypeInfo,
              &Kitra::gDateTimeTypeInfo, &Kitra::gTypeNameTypeInfo, &Kitra::gPropertyPathTypeInfo})
            plain.push_back(Kitra::GetPrimitiveType(p));
        std::vector<const Kitra::Type*> elements = plain;
        for (Kitra::Type* t : Kitra::GetTypeMap()->GetTypes())
            if ((t->AsEnumType() != nullptr || t->AsDataObjectType() != nullptr) && codec.Knows(t))
                elements.push_back(t);
        for (const Kitra::Type* element : elements) {
            Ref<Any> array = Argument(element->GetTypeInfo(), Kitra::kFlagArray, codec);
            Expect(validator, std::string(element->GetName()) + "[] in " + version,
                   [&](std::string& m) { codec.EncodeValue(array.Get(), m); });
        }
        // Items of an anyType array each carry their own type, arrays among them.
        Ref<Kitra::ArrayBase> mixed = Kitra::GetPrimitiveType(&Kitra::gAnyTypeInfo)->CreateArray();
        for (const Kitra::Type* element : plain) mixed->AppendBoxed(One(element, codec).Get());
        mixed->AppendBoxed(One(elements.back(), codec).Get());
        mixed->AppendBoxed(Argument(&Kitra::gDoubleTypeInfo, Kitra::kFlagArray, codec).Get());
        Expect(validator, std::string("anyType[] in ") + version,
               [&](std::string& m) { codec.EncodeValue(mixed.Get(), m); });
    }
}

// Every method the codec will send in a version has its request and response elements, with every
// argument given and with only the required ones; every property its fetch.
TEST_F(Schema, EveryRequestResponseAndFetch) {
    for (const char* version : kVersions) {
        Codec codec(version);
        Validator validator(codec);
        for (Kitra::Type* t : Kitra::GetTypeMap()->GetTypes()) {
            Kitra::ManagedObjectType* managed = t->AsManagedObjectType();
            if (managed == nullptr || !codec.Knows(managed)) continue;
            Kitra::MoRef target(managed->GetName(), "obj-7");
            for (Kitra::ManagedMethod* method : managed->GetMethods()) {
                if (!codec.Includes(method->GetVersion())) continue;
                std::string what = method->GetWireName() + " in " + version;
                if (method->IsProperty()) {
                    const Kitra::PropertyTypeInfo* p = method->GetPropertyInfo();
                    Ref<Any> value = Argument(p->type, p->flags, codec);
                    Expect(validator, what,
                           [&](std::string& m) { codec.EncodeRequest(target, method, {}, m); });
                    Expect(validator, what + " (value)",
                           [&](std::string& m) { codec.EncodeResponse(method, value.Get(), m); });
                    continue;
                }
                const Kitra::MethodTypeInfo* info = method->GetMethodInfo();
                Fundix::RefVector<Any> all, required;
                for (const Kitra::ParamTypeInfo* p = info->params; p != nullptr && p->name != nullptr; ++p) {
                    all.push_back(codec.Includes(p->version) ? Argument(p->type, p->flags, codec) : nullptr);
                    bool optional = p->flags & (Kitra::kFlagOptional | Kitra::kFlagArray);
                    required.push_back(optional ? nullptr : all.back());
                }
                Expect(validator, what, [&](std::string& m) { codec.EncodeRequest(target, method, all, m); });
                Expect(validator, what + " (required only)",
                       [&](std::string& m) { codec.EncodeRequest(target, method, required, m); });
                Ref<Any> result;
                const Kitra::ParamTypeInfo r = Kitra::WireResult(*info);
                if (r.type != nullptr) result = Argument(r.type, r.flags, codec);
                Expect(validator, what + " (result)",
                       [&](std::string& m) { codec.EncodeResponse(method, result.Get(), m); });
            }
        }
    }
    EXPECT_GT(checked_, 1000u);
}

// The checks have teeth: what the codec would not write is refused.
TEST_F(Schema, RefusesWhatTheCodecWouldNotWrite) {
    Codec v1(kVersions[0]);
    Codec v4(kVersions[3]);
    Validator validator(v1);
    std::string live = "<location xsi:type=\"MorphelComputerSpecLiveComputerLocation\">";
    std::string good = live + "<hostname>h</hostname><osType>w</osType></location>";
    ASSERT_EQ(validator.Check(Value("MorphelComputerSpec", good)), "");
    EXPECT_NE(validator.Check(Value("MorphelComputerSpec", "")), "") << "a required record left out";
    EXPECT_NE(validator.Check(Value("MorphelComputerSpec", live + "<osType>w</osType></location>")), "");
    EXPECT_NE(validator.Check(Value("MorphelComputerSpec", good + good)), "") << "a single value twice";
    EXPECT_NE(validator.Check(Value("MorphelComputerSpec", good + "<extra/>")), "") << "an unknown element";
    // Valid beside invalid: an enumeration's text, an int's lexical form.
    for (auto [type, valid, invalid] : {std::tuple{"MorphelAgentInternalDiskAttachPointBusType", "IDE", "X"},
                                        std::tuple{"xsd:int", "-12", "12x"}}) {
        EXPECT_EQ(validator.Check(Value(type, valid)), "");
        EXPECT_NE(validator.Check(Value(type, invalid)), "") << type;
    }

    // A type that only later versions know is not in version 1's schema.
    for (Kitra::Type* t : Kitra::GetTypeMap()->GetTypes()) {
        const Kitra::DataObjectType* type = t->AsDataObjectType();
        if (type == nullptr || v1.Knows(type) || !v4.Knows(type)) continue;
        std::string message;
        v4.EncodeValue(MorphelTypesTool::Sample(type, v4).Get(), message);
        EXPECT_NE(validator.Check(message), "") << type->GetName();
        return;
    }
    ADD_FAILURE() << "every type exists in version 1";
}

}  // namespace
