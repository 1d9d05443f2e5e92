// The interface description of one API version, made from the metadata records: an XML Schema of every
// type, request, response and fault element the codec writes in that version, and a WSDL 1.1 document
// (SOAP 1.1, document/literal) that embeds it. The format it describes is in docs/wire.md.
#pragma once

#include <string>

#include <kitra/Soap.h>

namespace Kitra::Soap {

// Appends a standalone `xsd:schema` document for `codec`'s version: target namespace
// codec.GetNamespace(), qualified elements. The same version always gives the same text.
void WriteSchema(const Codec& codec, std::string& out);

// Appends a WSDL 1.1 document for `codec`'s version: the schema of WriteSchema in `types`, a message
// per request, response and fault element, one port type with an operation per method the version
// knows (and FetchProperty), one SOAP 1.1 document/literal binding (soapAction codec.GetVersionUri())
// and a service. Names come from the version's service namespace ("morphel": MorphelPortType,
// MorphelService); the address, http://localhost:8085/morphel, is a placeholder clients override.
void WriteWsdl(const Codec& codec, std::string& out);

}  // namespace Kitra::Soap
