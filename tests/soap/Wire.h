// Shorthands for codec tests: values by wire name, round trips, and the fault a call raised.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include <kitra/Kitra.h>
#include <kitra/Soap.h>
#include <kitra/fault/types.h>
#include <morphel/types.h>

#include "Sample.h"

namespace WireTest {

inline const char* const kVersions[] = {"morphel.version.version1", "morphel.version.version2",
                                        "morphel.version.version3", "morphel.version.version4"};
inline const char* V(int n) { return kVersions[n - 1]; }

inline const Kitra::DataObjectType* DataType(const std::string& wire) {
    (void)Kitra::GetType<Morphel::ComputerSpec>();
    Kitra::Type* t = Kitra::GetTypeMap()->GetType(wire);
    if (t == nullptr || t->AsDataObjectType() == nullptr) throw std::runtime_error("no data type " + wire);
    return t->AsDataObjectType();
}

inline Fundix::Ref<Kitra::DataObject> New(const std::string& wire) { return DataType(wire)->CreateInstance(); }

inline Fundix::Ref<Kitra::DataObject> Sample(const std::string& wire, int version = 4) {
    return MorphelTypesTool::Sample(DataType(wire), Kitra::Soap::Codec(V(version)));
}

inline int Prop(const Kitra::DataObject* o, const std::string& name) {
    int i = o->_GetDataType()->FindProperty(name);
    if (i < 0) throw std::runtime_error("no property " + name);
    return i;
}

inline void Set(Kitra::DataObject* o, const std::string& name, const Kitra::Any* value) {
    o->_GetDataType()->SetPropertyValue(o, Prop(o, name), value);
}

inline Fundix::Ref<Kitra::Any> Get(const Kitra::DataObject* o, const std::string& name) {
    return o->_GetDataType()->GetPropertyValue(o, Prop(o, name));
}

inline std::string Encode(const Kitra::Any* value, int version = 4) {
    std::string out;
    Kitra::Soap::Codec(V(version)).EncodeValue(value, out);
    return out;
}

inline Fundix::Ref<Kitra::Any> Decode(const std::string& message, int version = 4) {
    Kitra::Soap::Message m = Kitra::Soap::Codec(V(version)).Decode(message);
    EXPECT_EQ(m.kind, Kitra::Soap::MessageKind::Value);
    return m.value;
}

inline Fundix::Ref<Kitra::Any> RoundTrip(const Kitra::Any* value, int version = 4) {
    return Decode(Encode(value, version), version);
}

// A message of its own making: `inner` as the body's content; a value element of `type` holding `fields`.
inline std::string Body(const std::string& inner) {
    return "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
           "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\">"
           "<soapenv:Body>" +
           inner + "</soapenv:Body></soapenv:Envelope>";
}
inline std::string Value(const std::string& type, const std::string& fields) {
    return Body("<value xmlns=\"urn:morphel\" xsi:type=\"" + type + "\">" + fields + "</value>");
}

// Runs `f` and returns the fault it raised as F (failing the test when it raised nothing or another).
template <class F, class Fn>
Fundix::Ref<F> FaultOf(Fn&& f) {
    try {
        f();
    } catch (const Kitra::MethodFault::Exception& e) {
        auto* fault = dynamic_cast<F*>(e.GetFault());
        EXPECT_NE(fault, nullptr) << "raised " << e.GetMessage();
        return fault;
    }
    ADD_FAILURE() << "no fault raised";
    return nullptr;
}

// The reason and place of a rejected message, "reason @ path".
template <class Fn>
std::string Rejection(Fn&& f) {
    Fundix::Ref<Kitra::Fault::InvalidRequest> fault = FaultOf<Kitra::Fault::InvalidRequest>(f);
    if (fault == nullptr) return "";
    std::string where = fault->GetInvalidProperty().IsSet() ? fault->GetInvalidProperty().GetValue() : "";
    return fault->GetReason() + " @ " + where;
}

}  // namespace WireTest
