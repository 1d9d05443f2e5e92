// The interface description of a version: walks the type map and the records, as the writer does, and
// names every type the way the writer's xsi:type does, so that what one writes the other describes.
#include <kitra/Wsdl.h>

#include <set>
#include <string_view>
#include <vector>

#include <kitra/DataObject.h>
#include <kitra/ManagedObject.h>

#include "Internal.h"

namespace Kitra::Soap {

namespace {

const char kWsdlNs[] = "http://schemas.xmlsoap.org/wsdl/";
const char kWsdlSoapNs[] = "http://schemas.xmlsoap.org/wsdl/soap/";
const char kHttpTransport[] = "http://schemas.xmlsoap.org/soap/http";

// What one version's description holds, in type-map order.
struct Contents {
    std::vector<const DataObjectType*> data;  // data objects and faults
    std::vector<const EnumType*> enums;
    std::vector<const ManagedMethod*> methods;
};

class Out {
public:
    explicit Out(std::string& out) : out_(out) {}

    // Starts a new line at `depth` and writes `text` (raw markup).
    Out& Line(int depth, std::string_view text = {}) {
        out_.append(static_cast<size_t>(depth) * 2, ' ');
        out_ += text;
        return *this;
    }

    Out& operator<<(std::string_view text) {
        out_ += text;
        return *this;
    }

    // ` name="value"`, the value escaped for an attribute.
    Out& Attr(std::string_view name, std::string_view value) {
        out_ += ' ';
        out_ += name;
        out_ += "=\"";
        for (char c : value) {
            switch (c) {
            case '&': out_ += "&amp;"; break;
            case '<': out_ += "&lt;"; break;
            case '>': out_ += "&gt;"; break;
            case '"': out_ += "&quot;"; break;
            default: out_ += c;
            }
        }
        out_ += '"';
        return *this;
    }

    Out& End(std::string_view close = ">") {
        out_ += close;
        out_ += '\n';
        return *this;
    }

private:
    std::string& out_;
};

bool KnowsRecord(const Codec& codec, const TypeInfo* info) {
    if (info == nullptr) return false;
    if (IsPrimitiveKind(info->kind)) return true;
    Type* type = TypeOf(info);
    return type != nullptr && codec.Knows(type);
}

// A method is described when the version includes it and knows its owner and every type that its result
// and included parameters name. One that mentions a type the version lacks is left out: the writer
// refuses to send such a value in that version, so no message of the version could carry the call.
bool Describable(const Codec& codec, const ManagedMethod* method) {
    const MethodTypeInfo* info = method->GetMethodInfo();
    if (info == nullptr || !codec.Includes(info->version) || !codec.Knows(method->GetOwner())) return false;
    const ParamTypeInfo result = WireResult(*info);
    if (result.type != nullptr && !KnowsRecord(codec, result.type)) return false;
    for (const ParamTypeInfo* p = info->params; p != nullptr && p->name != nullptr; ++p)
        if (codec.Includes(p->version) && !KnowsRecord(codec, p->type)) return false;
    return true;
}

Contents Collect(const Codec& codec) {
    Contents c;
    for (Type* t : GetTypeMap()->GetTypes()) {
        if (!codec.Knows(t)) continue;
        if (const DataObjectType* d = t->AsDataObjectType()) {
            c.data.push_back(d);
        } else if (const EnumType* e = t->AsEnumType()) {
            c.enums.push_back(e);
        } else if (ManagedObjectType* m = t->AsManagedObjectType()) {
            for (const ManagedMethod* method : m->GetMethods())
                if (!method->IsProperty() && Describable(codec, method)) c.methods.push_back(method);
        }
    }
    return c;
}

// The faults a method declares that the version knows, each once. The writer sends an unknown fault as
// its nearest known base, which the port type then covers only when the method declares that base too.
std::vector<const DataObjectType*> DeclaredFaults(const Codec& codec, const ManagedMethod* method) {
    std::vector<const DataObjectType*> faults;
    std::set<std::string_view> names;
    const TypeInfo* const* f = method->GetMethodInfo()->faults;
    for (; f != nullptr && *f != nullptr; ++f) {
        Type* type = TypeOf(*f);
        const DataObjectType* fault = type != nullptr ? type->AsDataObjectType() : nullptr;
        if (fault == nullptr || !codec.Knows(fault)) continue;
        if (names.insert(fault->GetWsdlName()).second) faults.push_back(fault);
    }
    return faults;
}

// What any operation can raise beside what it declares: a request the server cannot read
// (kodl.fault.InvalidRequest) and a failure of the server (kodl.RuntimeFault); and, unless it is open to
// callers without a session (privilege "System.Anonymous"), a call without a session
// (dovra.fault.NotAuthenticated) or without the privilege (dovra.fault.NoPermission). Those of them the
// version knows are added to `faults`, each once, after the declared ones.
void AddCommonFaults(const Codec& codec, const char* privilege, std::vector<const DataObjectType*>& faults) {
    const bool anonymous = privilege != nullptr && std::string_view(privilege) == "System.Anonymous";
    const char* const common[] = {"dovra.fault.NotAuthenticated", "dovra.fault.NoPermission", "kodl.RuntimeFault",
                                  "kodl.fault.InvalidRequest"};
    for (const char* name : common) {
        if (anonymous && std::string_view(name).substr(0, 12) == "dovra.fault.") continue;
        Type* type = GetTypeMap()->GetType(name);
        const DataObjectType* fault = type != nullptr ? type->AsDataObjectType() : nullptr;
        if (fault == nullptr || !fault->IsFault() || !codec.Knows(fault)) continue;
        bool listed = false;
        for (const DataObjectType* f : faults) listed = listed || std::string_view(f->GetWsdlName()) == fault->GetWsdlName();
        if (!listed) faults.push_back(fault);
    }
}

// A property, parameter or result: one element per value, typed by the name xsi:type gives the values
// of its declared type. Whatever the writer may leave out (unset, null, empty) may be absent; a required
// one is always written (the writer refuses a null one), as the reader's missing-required rule expects.
void Member(Out& out, int depth, const char* name, const TypeInfo* info, uint32_t flags) {
    bool array = (flags & kFlagArray) != 0;
    bool bytes = array && info->kind == kKindByte;  // one element of base64
    out.Line(depth, "<xsd:element").Attr("name", name);
    out.Attr("type", bytes ? "xsd:base64Binary" : Detail::XsiTypeName(TypeOf(info)));
    if (flags & (kFlagOptional | kFlagArray)) out.Attr("minOccurs", "0");
    if (array && !bytes) out.Attr("maxOccurs", "unbounded");
    out.End("/>");
}

void Sequence(Out& out, int depth, const std::vector<const PropertyTypeInfo*>& members) {
    if (members.empty()) {
        out.Line(depth, "<xsd:sequence").End("/>");
        return;
    }
    out.Line(depth, "<xsd:sequence").End();
    for (const PropertyTypeInfo* p : members) Member(out, depth + 1, p->name, p->type, p->flags);
    out.Line(depth, "</xsd:sequence").End();
}

// A data object or fault extends the nearest base the version knows with its own properties, in
// declaration order: the writer puts inherited ones first, which is the order an extension's content has.
// A property whose type the version lacks is left out, as the writer refuses to send it.
void DataType(Out& out, int depth, const Codec& codec, const DataObjectType* type) {
    const DataObjectType* base = type->GetBaseDataType();
    while (base != nullptr && !codec.Knows(base)) base = base->GetBaseDataType();
    const std::vector<PropertyDesc>& props = type->GetProperties();
    std::vector<const PropertyTypeInfo*> own;
    for (size_t i = base != nullptr ? base->GetProperties().size() : 0; i < props.size(); ++i) {
        const PropertyTypeInfo* p = props[i].info;
        if (codec.Includes(p->version) && KnowsRecord(codec, p->type)) own.push_back(p);
    }
    out.Line(depth, "<xsd:complexType").Attr("name", type->GetWsdlName()).End();
    if (base == nullptr) {
        Sequence(out, depth + 1, own);
    } else {
        out.Line(depth + 1, "<xsd:complexContent").End();
        out.Line(depth + 2, "<xsd:extension").Attr("base", Detail::XsiTypeName(base)).End();
        Sequence(out, depth + 3, own);
        out.Line(depth + 2, "</xsd:extension").End();
        out.Line(depth + 1, "</xsd:complexContent").End();
    }
    out.Line(depth, "</xsd:complexType").End();
}

void EnumerationType(Out& out, int depth, const EnumType* type) {
    out.Line(depth, "<xsd:simpleType").Attr("name", type->GetWsdlName()).End();
    out.Line(depth + 1, "<xsd:restriction base=\"xsd:string\"").End();
    for (const std::string& value : type->GetValues())
        out.Line(depth + 2, "<xsd:enumeration").Attr("value", value).End("/>");
    out.Line(depth + 1, "</xsd:restriction").End();
    out.Line(depth, "</xsd:simpleType").End();
}

// What an anyType place holds for an array: one child element per item, named after the element type.
void ArrayOfType(Out& out, int depth, const Type* element) {
    out.Line(depth, "<xsd:complexType").Attr("name", Detail::XsiTypeName(element->GetArrayType())).End();
    out.Line(depth + 1, "<xsd:sequence").End();
    out.Line(depth + 2, "<xsd:element").Attr("name", Detail::ItemName(element));
    out.Attr("type", Detail::XsiTypeName(element)).Attr("minOccurs", "0").Attr("maxOccurs", "unbounded");
    out.End("/>");
    out.Line(depth + 1, "</xsd:sequence").End();
    out.Line(depth, "</xsd:complexType").End();
}

// The target of a request.
const char kThisElement[] = "<xsd:element name=\"_this\" type=\"ManagedObjectReference\"/>";

// A global element whose content is a sequence of `members`, after `_this` for a request.
void CallElement(Out& out, int depth, const std::string& name, bool target,
                 const std::vector<ParamTypeInfo>& members) {
    out.Line(depth, "<xsd:element").Attr("name", name).End();
    out.Line(depth + 1, "<xsd:complexType").End();
    if (!target && members.empty()) {
        out.Line(depth + 2, "<xsd:sequence").End("/>");
    } else {
        out.Line(depth + 2, "<xsd:sequence").End();
        if (target) out.Line(depth + 3, kThisElement).End("");
        for (const ParamTypeInfo& p : members) Member(out, depth + 3, p.name, p.type, p.flags);
        out.Line(depth + 2, "</xsd:sequence").End();
    }
    out.Line(depth + 1, "</xsd:complexType").End();
    out.Line(depth, "</xsd:element").End();
}

void Schema(Out& out, int depth, const Codec& codec, const Contents& c) {
    const std::string& ns = codec.GetNamespace();
    // The target namespace is also the default one, so that types are referred to by the very names
    // that xsi:type gives them in messages.
    out.Line(depth, "<xsd:schema").Attr("xmlns:xsd", kXsdNs).Attr("xmlns", ns).Attr("targetNamespace", ns);
    out.Attr("elementFormDefault", "qualified").End();
    int d = depth + 1;

    out.Line(d, "<!-- API version ") << codec.GetVersion().name << ", " << codec.GetVersionUri() << " -->\n";
    for (const char* name : {"TypeName", "PropertyPath"}) {
        out.Line(d, "<xsd:simpleType").Attr("name", name).End();
        out.Line(d + 1, "<xsd:restriction base=\"xsd:string\"").End("/>");
        out.Line(d, "</xsd:simpleType").End();
    }
    out.Line(d, "<xsd:complexType name=\"ManagedObjectReference\"").End();
    out.Line(d + 1, "<xsd:simpleContent").End();
    out.Line(d + 2, "<xsd:extension base=\"xsd:string\"").End();
    out.Line(d + 3, "<xsd:attribute name=\"type\" type=\"xsd:string\" use=\"required\"").End("/>");
    out.Line(d + 2, "</xsd:extension").End();
    out.Line(d + 1, "</xsd:simpleContent").End();
    out.Line(d, "</xsd:complexType").End();

    for (const EnumType* e : c.enums) EnumerationType(out, d, e);
    for (const DataObjectType* t : c.data) DataType(out, d, codec, t);

    for (const TypeInfo* primitive :
         {&gStringTypeInfo, &gIntTypeInfo, &gLongTypeInfo, &gShortTypeInfo, &gByteTypeInfo, &gBoolTypeInfo,
          &gFloatTypeInfo, &gDoubleTypeInfo, &gDateTimeTypeInfo, &gTypeNameTypeInfo, &gPropertyPathTypeInfo,
          &gAnyTypeInfo})
        ArrayOfType(out, d, GetPrimitiveType(primitive));
    ArrayOfType(out, d, GetType<ManagedObject>());
    for (const EnumType* e : c.enums) ArrayOfType(out, d, e);
    for (const DataObjectType* t : c.data) ArrayOfType(out, d, t);

    out.Line(d, "<xsd:element name=\"value\" type=\"xsd:anyType\"").End("/>");
    // A property fetch names the property; its value comes back typed, one `returnval` per array item.
    CallElement(out, d, "FetchProperty", true, {{"prop", nullptr, &gStringTypeInfo, 0, nullptr}});
    CallElement(out, d, "FetchPropertyResponse", false,
                {{"returnval", nullptr, &gAnyTypeInfo, kFlagArray, nullptr}});
    for (const ManagedMethod* method : c.methods) {
        const MethodTypeInfo* info = method->GetMethodInfo();
        std::vector<ParamTypeInfo> params;
        for (const ParamTypeInfo* p = info->params; p != nullptr && p->name != nullptr; ++p)
            if (codec.Includes(p->version)) params.push_back(*p);
        CallElement(out, d, info->wsdlName, true, params);
        // The result travels as `returnval`; a method without one answers with an empty element.
        std::vector<ParamTypeInfo> result;
        if (WireResult(*info).type != nullptr) {
            result.push_back(WireResult(*info));
            result.back().name = "returnval";
        }
        CallElement(out, d, std::string(info->wsdlName) + "Response", false, result);
    }
    for (const DataObjectType* t : c.data) {
        if (!t->IsFault()) continue;
        out.Line(d, "<xsd:element").Attr("name", std::string(t->GetWsdlName()) + "Fault");
        out.Attr("type", Detail::XsiTypeName(t)).End("/>");
    }
    out.Line(depth, "</xsd:schema").End();
}

const char kXmlDeclaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

// "morphel" -> "Morphel": the prefix of the port type, binding and service names.
std::string ServiceName(const Codec& codec) {
    std::string name;
    for (char c : codec.GetVersion().serviceNamespace)
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) name += c;
    if (!name.empty() && name[0] >= 'a' && name[0] <= 'z') name[0] = static_cast<char>(name[0] - 'a' + 'A');
    return name;
}

// One operation of the port type or the binding.
struct Operation {
    std::string name;
    std::vector<const DataObjectType*> faults;
};

void WsdlMessage(Out& out, const std::string& name, const char* part, const std::string& element) {
    out.Line(1, "<wsdl:message").Attr("name", name).End();
    out.Line(2, "<wsdl:part").Attr("name", part).Attr("element", "tns:" + element).End("/>");
    out.Line(1, "</wsdl:message").End();
}

}  // namespace

void WriteSchema(const Codec& codec, std::string& out) {
    Out o(out);
    o << kXmlDeclaration;
    Schema(o, 0, codec, Collect(codec));
}

void WriteWsdl(const Codec& codec, std::string& out) {
    Contents c = Collect(codec);
    std::string service = ServiceName(codec);
    const std::string& ns = codec.GetNamespace();
    // A property is read through FetchProperty, an operation of its own beside the methods.
    // Every operation lists the faults any call can raise as well as its own, so that typed clients
    // receive those as faults of their own classes; properties may need a session, so FetchProperty can
    // raise all of them.
    std::vector<Operation> operations{{"FetchProperty", {}}};
    AddCommonFaults(codec, nullptr, operations.back().faults);
    for (const ManagedMethod* method : c.methods) {
        operations.push_back({method->GetWsdlName(), DeclaredFaults(codec, method)});
        AddCommonFaults(codec, method->GetPrivilege(), operations.back().faults);
    }

    Out o(out);
    o << kXmlDeclaration;
    o.Line(0, "<wsdl:definitions").Attr("xmlns:wsdl", kWsdlNs).Attr("xmlns:soap", kWsdlSoapNs);
    o.Attr("xmlns:xsd", kXsdNs).Attr("xmlns:tns", ns).Attr("targetNamespace", ns).Attr("name", service).End();
    o.Line(1, "<wsdl:types").End();
    Schema(o, 2, codec, c);
    o.Line(1, "</wsdl:types").End();

    for (const Operation& op : operations) {
        WsdlMessage(o, op.name + "RequestMsg", "parameters", op.name);
        WsdlMessage(o, op.name + "ResponseMsg", "parameters", op.name + "Response");
    }
    for (const DataObjectType* t : c.data) {
        std::string name = t->GetWsdlName();
        if (t->IsFault()) WsdlMessage(o, name + "FaultMsg", "fault", name + "Fault");
    }

    o.Line(1, "<wsdl:portType").Attr("name", service + "PortType").End();
    for (const Operation& op : operations) {
        o.Line(2, "<wsdl:operation").Attr("name", op.name).End();
        o.Line(3, "<wsdl:input").Attr("message", "tns:" + op.name + "RequestMsg").End("/>");
        o.Line(3, "<wsdl:output").Attr("message", "tns:" + op.name + "ResponseMsg").End("/>");
        for (const DataObjectType* f : op.faults) {
            o.Line(3, "<wsdl:fault").Attr("name", f->GetWsdlName());
            o.Attr("message", "tns:" + std::string(f->GetWsdlName()) + "FaultMsg").End("/>");
        }
        o.Line(2, "</wsdl:operation").End();
    }
    o.Line(1, "</wsdl:portType").End();

    o.Line(1, "<wsdl:binding").Attr("name", service + "Binding");
    o.Attr("type", "tns:" + service + "PortType").End();
    o.Line(2, "<soap:binding style=\"document\"").Attr("transport", kHttpTransport).End("/>");
    for (const Operation& op : operations) {
        o.Line(2, "<wsdl:operation").Attr("name", op.name).End();
        o.Line(3, "<soap:operation").Attr("soapAction", codec.GetVersionUri());
        o.Attr("style", "document").End("/>");
        o.Line(3, "<wsdl:input><soap:body use=\"literal\"/></wsdl:input").End();
        o.Line(3, "<wsdl:output><soap:body use=\"literal\"/></wsdl:output").End();
        for (const DataObjectType* f : op.faults) {
            o.Line(3, "<wsdl:fault").Attr("name", f->GetWsdlName()) << "><soap:fault";
            o.Attr("name", f->GetWsdlName()).Attr("use", "literal").End("/></wsdl:fault>");
        }
        o.Line(2, "</wsdl:operation").End();
    }
    o.Line(1, "</wsdl:binding").End();

    o.Line(1, "<wsdl:service").Attr("name", service + "Service").End();
    o.Line(2, "<wsdl:port").Attr("name", service + "Port").Attr("binding", "tns:" + service + "Binding");
    o.End();
    std::string address = "http://localhost:8085/" + codec.GetVersion().serviceNamespace;
    o.Line(3, "<soap:address").Attr("location", address).End("/>");
    o.Line(2, "</wsdl:port").End();
    o.Line(1, "</wsdl:service").End();
    o.Line(0, "</wsdl:definitions").End();
}

}  // namespace Kitra::Soap
