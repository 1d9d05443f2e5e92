// What the codec's writer and reader share.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <kitra/Registry.h>
#include <kitra/Soap.h>
#include <kitra/Type.h>

namespace Kitra::Soap::Detail {

[[noreturn]] void ThrowInvalidRequest(const std::string& reason, const std::string& path);
[[noreturn]] void ThrowNotInVersion(const std::string& name, const Version& version, const std::string& path);
[[noreturn]] void ThrowInvalidArgument(const std::string& path);

// The name that `xsi:type` gives a value of `type`: "xsd:int", "TypeName", "ManagedObjectReference",
// "ArrayOfString", or the type's WSDL name.
std::string XsiTypeName(const Type* type);
// The element name of one item of an array whose element type is `element`, inside an anyType place.
const char* ItemName(const Type* element);
// The schema name of a primitive kind ("int", "dateTime"), or null for other kinds.
const char* PrimitiveXsdName(uint32_t kind);

// Is `type` a managed type, or the generic managed object?
inline bool IsManagedKind(uint32_t kind) { return kind == kKindManaged; }

inline Type* TypeOf(const TypeInfo* info) { return Soap::TypeOf(info); }

}  // namespace Kitra::Soap::Detail
