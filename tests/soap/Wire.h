// Shorthands for codec tests: values by wire name, round trips, and the fault a call raised.
#pragma once

#include <algorithm>
#include <optional>
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

// A property of `value`, a record.
inline Fundix::Ref<Kitra::Any> Get(const Kitra::Any* value, const std::string& name) {
    auto* o = static_cast<const Kitra::DataObject*>(value);
    return o->_GetDataType()->GetPropertyValue(o, Prop(o, name));
}

inline Kitra::ManagedMethod* Method(const std::string& type, const std::string& name) {
    return Kitra::GetTypeMap()->GetType(type)->AsManagedObjectType()->FindMethod(name);
}

// The request a stub would send for `method` of the object `id` of `type`.
inline std::string Request(const std::string& type, const std::string& method,
                           std::initializer_list<Fundix::Ref<Kitra::Any>> args = {},
                           const std::string& id = "obj-1") {
    Fundix::RefVector<Kitra::Any> all;
    all.insert(all.end(), args.begin(), args.end());
    std::string request;
    Kitra::Soap::Codec(V(4)).EncodeRequest(Kitra::MoRef(type, id), Method(type, method), all, request);
    return request;
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

// One value of `type` for parameters, results and anyType places, at the edges of its lexical form and apart
// from the type's default (a text past the in-place buffer, an enumeration's last value); `seed` tells apart
// the values of one message.
inline Fundix::Ref<Kitra::Any> One(const Kitra::Type* type, const Kitra::Soap::Codec& codec, int seed = 0) {
    switch (type->GetKind()) {
    case Kitra::kKindString:
        return new Kitra::Primitive<std::string>("a <b> & \"c\" on the heap " + std::to_string(seed));
    case Kitra::kKindInt: return new Kitra::Primitive<int32_t>(-2147483647 - 1 + seed);
    case Kitra::kKindLong: return new Kitra::Primitive<int64_t>(INT64_MAX - seed);
    case Kitra::kKindShort: return new Kitra::Primitive<int16_t>(static_cast<int16_t>(-300 + seed));
    case Kitra::kKindByte: return new Kitra::Primitive<int8_t>(static_cast<int8_t>(-128 + seed));
    case Kitra::kKindBool: return new Kitra::Primitive<bool>(seed % 2 == 0);
    case Kitra::kKindFloat: return new Kitra::Primitive<float>(3.4e38f);
    case Kitra::kKindDouble: return new Kitra::Primitive<double>(-0.1 - seed);
    case Kitra::kKindDateTime:
        return new Kitra::Primitive<Fundix::System::DateTime>({2026, 2, 3, 4, 5, 6, 7 + seed});
    case Kitra::kKindAnyType: return new Kitra::Primitive<Kitra::TypeName>("morphel.task.TaskInfo");
    case Kitra::kKindTypeName: return new Kitra::Primitive<Kitra::TypeName>("morphel.task.Task");
    case Kitra::kKindPropertyPath: return new Kitra::Primitive<Kitra::PropertyPath>("info.state");
    case Kitra::kKindEnum: return type->AsEnumType()->CreateBox(type->AsEnumType()->GetValues().size() - 1);
    case Kitra::kKindManaged: return new Kitra::MoRef(type->GetName(), "obj-" + std::to_string(seed));
    default: return Fundix::Ref<Kitra::Any>(MorphelTypesTool::Sample(type->AsDataObjectType(), codec).Get());
    }
}

// A value for a record of `info` with `flags`: two of them in an array where the record says so.
inline Fundix::Ref<Kitra::Any> Argument(const Kitra::TypeInfo* info, uint32_t flags, const Kitra::Soap::Codec& codec,
                                        int seed = 0) {
    const Kitra::Type* type = Kitra::Soap::TypeOf(info);
    if (!(flags & Kitra::kFlagArray)) return One(type, codec, seed);
    Fundix::Ref<Kitra::ArrayBase> array = type->CreateArray();
    array->AppendBoxed(One(type, codec, seed).Get());
    array->AppendBoxed(One(type, codec, seed + 1).Get());
    return Fundix::Ref<Kitra::Any>(array.Get());
}

// The same with the latest version's samples, for records that walk every field, parameter or result: nothing
// where no type is named.
inline Fundix::Ref<Kitra::Any> Argument(const Kitra::TypeInfo* info, uint32_t flags) {
    static const Kitra::Soap::Codec latest(V(4));
    return info == nullptr ? nullptr : Argument(info, flags, latest);
}

// `message` with the first element `tag` (attributes and all) given as `element` instead.
inline std::string Replaced(std::string message, const std::string& tag, const std::string& element) {
    const size_t at = std::min(message.find("<" + tag + ">"), message.find("<" + tag + " "));
    const std::string close = "</" + tag + ">";
    return message.replace(at, message.find(close, at) + close.size() - at, element);
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

// A copy of what `f` raised as E; nothing when it raised nothing (anything else passes through).
template <class E, class F>
std::optional<E> Raised(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e;
    }
    return std::nullopt;
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
