// `morphel-types wsdl` and `xsd`: the interface description of one API version.
#include <kitra/Soap.h>
#include <kitra/Wsdl.h>

#include "Tool.h"

namespace MorphelTypesTool {

int SchemaCommand(const std::string& version, bool wsdl, std::ostream& out, std::ostream& err) {
    std::string full = FullVersionName(version);
    if (Kitra::GetVersionMap()->GetVersion(full) == nullptr) {
        err << "morphel-types: unknown version '" << version
            << "' (give version1 .. version4, or a full name such as morphel.version.version2)\n";
        return 2;
    }
    Kitra::Soap::Codec codec(full);
    std::string text;
    if (wsdl) Kitra::Soap::WriteWsdl(codec, text);
    else Kitra::Soap::WriteSchema(codec, text);
    out << text;
    return out ? 0 : 1;
}

}  // namespace MorphelTypesTool
