#include <cstdio>

#include <kitra/Kitra.h>

#include "Tool.h"

namespace MorphelTypesTool {

std::string Json(const char* text) {
    if (text == nullptr) return "null";
    std::string out = "\"";
    for (const char* p = text; *p != '\0'; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out + "\"";
}

std::string Json(const std::string& text) { return Json(text.c_str()); }

namespace {

const char* TypeName(const Kitra::TypeInfo* t) { return t != nullptr ? t->name : nullptr; }

const char* KindName(uint32_t kind) {
    switch (kind) {
    case Kitra::kKindEnum: return "enum";
    case Kitra::kKindFault: return "fault";
    case Kitra::kKindManaged: return "managed";
    default: return "data";
    }
}

void Properties(std::ostream& out, const Kitra::PropertyTypeInfo* p) {
    out << "[";
    for (int i = 0; p != nullptr && p[i].name != nullptr; ++i) {
        out << (i ? ", " : "") << "{\"name\": " << Json(p[i].name) << ", \"type\": " << Json(TypeName(p[i].type))
            << ", \"flags\": " << p[i].flags << ", \"version\": " << Json(p[i].version)
            << ", \"privilege\": " << Json(p[i].privilege) << ", \"extra\": " << Json(p[i].extra) << "}";
    }
    out << "]";
}

void Methods(std::ostream& out, const Kitra::MethodTypeInfo* m) {
    out << "[";
    for (int i = 0; m != nullptr && m[i].name != nullptr; ++i) {
        const Kitra::MethodTypeInfo& method = m[i];
        out << (i ? ", " : "") << "{\"name\": " << Json(method.name) << ", \"wsdlName\": " << Json(method.wsdlName)
            << ", \"privilege\": " << Json(method.privilege) << ", \"flags\": " << method.methodFlags
            << ", \"version\": " << Json(method.version) << ", \"result\": {\"type\": "
            << Json(TypeName(method.result.type)) << ", \"flags\": " << method.result.flags
            << ", \"version\": " << Json(method.result.version) << "}, \"params\": [";
        for (int j = 0; method.params != nullptr && method.params[j].name != nullptr; ++j) {
            const Kitra::ParamTypeInfo& p = method.params[j];
            out << (j ? ", " : "") << "{\"name\": " << Json(p.name) << ", \"type\": " << Json(TypeName(p.type))
                << ", \"flags\": " << p.flags << ", \"version\": " << Json(p.version) << "}";
        }
        out << "], \"faults\": [";
        for (int j = 0; method.faults != nullptr && method.faults[j] != nullptr; ++j)
            out << (j ? ", " : "") << Json(method.faults[j]->name);
        out << "]}";
    }
    out << "]";
}

}  // namespace

std::string CppName(const std::string& wireName) {
    std::string out;
    size_t start = 0;
    bool first = true;
    while (start <= wireName.size()) {
        size_t end = wireName.find('.', start);
        if (end == std::string::npos) end = wireName.size();
        std::string word = wireName.substr(start, end - start);
        if (first && word == "kodl") word = "Kitra";
        if (!word.empty()) word[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(word[0])));
        out += (first ? "" : "::") + word;
        first = false;
        start = end + 1;
    }
    return out;
}

void Dump(std::ostream& out) {
    out << "{\n  \"versions\": [\n";
    auto versions = Kitra::GetVersionMap()->GetVersions();
    for (size_t i = 0; i < versions.size(); ++i) {
        const Kitra::Version& v = *versions[i];
        out << "    {\"name\": " << Json(v.name) << ", \"wireNamespace\": " << Json(v.wireNamespace)
            << ", \"versionString\": " << Json(v.versionString) << ", \"serviceNamespace\": "
            << Json(v.serviceNamespace) << ", \"includes\": [";
        for (size_t j = 0; j < v.includes.size(); ++j) out << (j ? ", " : "") << Json(v.includes[j]);
        out << "]}" << (i + 1 < versions.size() ? "," : "") << "\n";
    }
    out << "  ],\n  \"modules\": [\n";
    auto modules = Kitra::GetTypeMap()->GetModules();
    for (size_t i = 0; i < modules.size(); ++i) {
        out << "    {\"source\": " << Json(modules[i]->source) << ", \"types\": [";
        const auto& types = modules[i]->types;
        for (size_t j = 0; j < types.size(); ++j) out << (j ? ", " : "") << Json(types[j]->GetName());
        out << "]}" << (i + 1 < modules.size() ? "," : "") << "\n";
    }
    out << "  ],\n  \"types\": [\n";
    auto types = Kitra::GetTypeMap()->GetTypes();
    for (size_t i = 0; i < types.size(); ++i) {
        Kitra::Type* t = types[i];
        const Kitra::TypeInfo* base = nullptr;
        const Kitra::PropertyTypeInfo* properties = nullptr;
        const Kitra::MethodTypeInfo* methods = nullptr;
        const Kitra::EnumType* e = t->AsEnumType();
        if (auto* d = t->AsDataObjectType()) {
            base = d->GetDataTypeInfo()->base;
            properties = d->GetDataTypeInfo()->properties;
        } else if (auto* m = t->AsManagedObjectType()) {
            base = m->GetManagedTypeInfo()->base;
            properties = m->GetManagedTypeInfo()->properties;
            methods = m->GetManagedTypeInfo()->methods;
        }
        out << "    {\"kind\": " << Json(KindName(t->GetKind())) << ", \"name\": " << Json(t->GetName())
            << ", \"wsdlName\": " << Json(t->GetWsdlName()) << ", \"version\": " << Json(t->GetVersion())
            << ", \"cppName\": " << Json(CppName(t->GetName())) << ", \"base\": " << Json(TypeName(base))
            << ",\n     \"properties\": ";
        Properties(out, properties);
        out << ",\n     \"methods\": ";
        Methods(out, methods);
        out << ",\n     \"values\": [";
        if (e != nullptr)
            for (size_t j = 0; j < e->GetValues().size(); ++j) out << (j ? ", " : "") << Json(e->GetValues()[j]);
        out << "]}" << (i + 1 < types.size() ? "," : "") << "\n";
    }
    out << "  ]\n}\n";
}

}  // namespace MorphelTypesTool
