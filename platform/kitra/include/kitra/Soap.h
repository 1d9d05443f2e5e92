// The SOAP codec: writes and reads values, requests, responses and faults for any registered type in
// one API version, by walking the metadata records. The format is described in docs/wire.md.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <fundix/Ref.h>
#include <kitra/Any.h>
#include <kitra/DataObject.h>
#include <kitra/ManagedObject.h>
#include <kitra/MoRef.h>
#include <kitra/Registry.h>

namespace Kitra {

class MethodFault;

namespace Soap {

inline constexpr const char* kEnvelopeNs = "http://schemas.xmlsoap.org/soap/envelope/";
inline constexpr const char* kXsiNs = "http://www.w3.org/2001/XMLSchema-instance";
inline constexpr const char* kXsdNs = "http://www.w3.org/2001/XMLSchema";
inline constexpr const char* kKodlNs = "urn:kodl";

// What the reader accepts at most. A message beyond any of them is refused with InvalidRequest.
struct Limits {
    size_t maxMessageBytes = size_t(32) << 20;
    unsigned maxDepth = 64;                  // nested elements, the envelope included
    size_t maxTextBytes = size_t(4) << 20;   // text of one element
    size_t maxArrayLength = 100000;          // items of one array
};

// What a message carries.
enum class MessageKind { Value, Request, Response, Fault };

struct Message {
    MessageKind kind = MessageKind::Value;
    // Request and Response: the method (a property fetch names the property's method object).
    ManagedMethod* method = nullptr;
    // Request: the target object.
    Fundix::Ref<MoRef> target;
    // Request: the arguments in parameter order (null for absent ones).
    Fundix::RefVector<Any> arguments;
    // Value: the value; Response: the result (null for none); Fault: the fault.
    Fundix::Ref<Any> value;
};

class Codec {
public:
    // A codec for the version named `version`: its full name ("morphel.version.version2") or, for the
    // interface's own versions, its last part ("version2"); Fundix::InvalidArgumentException when the
    // version map does not know it.
    explicit Codec(std::string_view version, Limits limits = {});

    const Version& GetVersion() const { return *version_; }
    const Limits& GetLimits() const { return limits_; }
    // "urn:morphel/2.0": the version as messages name it (header and SOAPAction).
    const std::string& GetVersionUri() const { return versionUri_; }
    // "urn:morphel": the namespace of the types and operations.
    const std::string& GetNamespace() const { return namespace_; }

    // True when the version includes `introduced` (null or empty counts as included).
    bool Includes(const char* introduced) const;
    bool Knows(const Type* type) const;

    // Writers append a whole envelope to `out`. They raise kodl.fault.NotInVersion for what the version
    // does not know and kodl.fault.InvalidArgument for a null required record or a string XML cannot
    // carry; `out` is then left as it was.
    void EncodeValue(const Any* value, std::string& out) const;
    void EncodeRequest(const MoRef& target, const ManagedMethod* method, const Fundix::RefVector<Any>& arguments,
                       std::string& out) const;
    void EncodeResponse(const ManagedMethod* method, const Any* result, std::string& out) const;
    void EncodeFault(const MethodFault* fault, std::string& out) const;

    // Reads any message. Raises kodl.fault.InvalidRequest for anything it cannot accept.
    Message Decode(std::string_view message) const;
    // Reads a response to `method`: returns the result, or raises a fault message's fault as its own
    // exception class; another kind of message, or a response to another method, is InvalidRequest.
    Fundix::Ref<Any> DecodeResponse(const ManagedMethod* method, std::string_view message) const;

    // One call each way for a single value: its text (the message EncodeValue writes), and the value a
    // text carries as a T (InvalidRequest for text the reader refuses, Fundix::TypeMismatchException
    // for a value of another class).
    std::string ToText(const Any* value) const;
    template <class T>
    Fundix::Ref<T> FromText(std::string_view text) const;

private:
    struct Index;

    const Version* version_;
    const Index* index_;  // shared by every codec of the version, immutable once built
    Limits limits_;
    std::string versionUri_;
    std::string namespace_;
};

template <class T>
Fundix::Ref<T> Codec::FromText(std::string_view text) const {
    Message m = Decode(text);
    return Fundix::Ref<T>(CheckedCast<T>(m.value.Get()));
}

// The same with a codec made for the call: ToText(spec, "version2"), FromText<ComputerSpec>(text, "version2").
inline std::string ToText(const Any* value, std::string_view version) { return Codec(version).ToText(value); }
template <class T>
Fundix::Ref<T> FromText(std::string_view text, std::string_view version) {
    return Codec(version).FromText<T>(text);
}

// The type object of a record: primitives, and every registered type by its record.
Type* TypeOf(const TypeInfo* info);

// The method whose request element is `operation` (a WSDL name), or null.
ManagedMethod* FindOperation(std::string_view operation);

}  // namespace Soap
}  // namespace Kitra
