#include <iomanip>

#include <kitra/Kitra.h>

#include "Tool.h"

namespace MorphelTypesTool {

namespace {

std::string Presence(uint32_t flags) {
    std::string s;
    if (flags & Kitra::kFlagArray) s += "[]";
    if (flags & Kitra::kFlagOptional) s += "?";
    return s;
}

std::string TypeText(const Kitra::TypeInfo* t, uint32_t flags) {
    return std::string(t != nullptr ? t->name : "(none)") + Presence(flags);
}

const char* KindText(uint32_t kind) {
    switch (kind) {
    case Kitra::kKindEnum: return "enumeration";
    case Kitra::kKindFault: return "fault";
    case Kitra::kKindManaged: return "managed object";
    default: return "data object";
    }
}

void Fields(std::ostream& out, const Kitra::PropertyTypeInfo* p, const char* owner) {
    for (int i = 0; p != nullptr && p[i].name != nullptr; ++i) {
        out << "    " << std::left << std::setw(28) << p[i].name << " " << std::setw(52) << TypeText(p[i].type, p[i].flags)
            << " flags " << p[i].flags << "  " << p[i].version;
        if (p[i].privilege != nullptr) out << "  privilege " << p[i].privilege;
        if (owner != nullptr) out << "  (from " << owner << ")";
        out << "\n";
    }
}

}  // namespace

bool Describe(std::ostream& out, const std::string& wireName) {
    Kitra::Type* t = Kitra::GetTypeMap()->GetType(wireName);
    if (t == nullptr) return false;
    out << t->GetName() << "  (" << KindText(t->GetKind()) << ")\n";
    out << "  C++ name   " << CppName(t->GetName()) << "\n";
    out << "  WSDL name  " << t->GetWsdlName() << "\n";
    out << "  version    " << t->GetVersion() << "\n";
    if (t->GetBaseType() != nullptr || t->GetKind() == Kitra::kKindData || t->GetKind() == Kitra::kKindFault) {
        out << "  bases     ";
        for (Kitra::Type* b = t->GetBaseType(); b != nullptr; b = b->GetBaseType()) out << " " << b->GetName();
        out << "\n";
    }
    if (auto* d = t->AsDataObjectType()) {
        std::vector<const Kitra::DataObjectType*> chain;
        for (const Kitra::DataObjectType* c = d; c != nullptr; c = c->GetBaseDataType()) chain.insert(chain.begin(), c);
        out << "  fields (inherited first)\n";
        size_t count = 0;
        for (const auto* c : chain) {
            const auto* props = c->GetDataTypeInfo()->properties;
            Fields(out, props, c == d ? nullptr : c->GetName());
            for (int i = 0; props != nullptr && props[i].name != nullptr; ++i) ++count;
        }
        if (count == 0) out << "    (none)\n";
    } else if (auto* m = t->AsManagedObjectType()) {
        const Kitra::ManagedTypeInfo* info = m->GetManagedTypeInfo();
        out << "  methods\n";
        int index = 0;
        for (const Kitra::MethodTypeInfo* mt = info->methods; mt != nullptr && mt->name != nullptr; ++mt, ++index) {
            out << "    [" << index << "] " << mt->name << "(";
            for (int j = 0; mt->params != nullptr && mt->params[j].name != nullptr; ++j) {
                const auto& p = mt->params[j];
                out << (j ? ", " : "") << p.name << ": " << TypeText(p.type, p.flags);
                if (std::string(p.version) != mt->version) out << " since " << p.version;
            }
            out << ") -> " << (mt->result.type ? TypeText(mt->result.type, mt->result.flags) : "void");
            out << "\n        WSDL " << mt->wsdlName << ", " << mt->version;
            if (mt->privilege != nullptr) out << ", privilege " << mt->privilege;
            if (mt->methodFlags & Kitra::kMethodTask) out << ", starts a task";
            if (mt->methodFlags & Kitra::kMethodFlag100) out << ", flag 0x100";
            out << "\n";
            if (mt->faults != nullptr && mt->faults[0] != nullptr) {
                out << "        faults";
                for (int j = 0; mt->faults[j] != nullptr; ++j) out << " " << mt->faults[j]->name;
                out << "\n";
            }
        }
        if (index == 0) out << "    (none)\n";
        out << "  properties\n";
        Fields(out, info->properties, nullptr);
        if (info->properties == nullptr) out << "    (none)\n";
    } else if (auto* e = t->AsEnumType()) {
        out << "  values\n";
        for (size_t i = 0; i < e->GetValues().size(); ++i) out << "    " << i << "  " << e->GetValues()[i] << "\n";
    }
    return true;
}

}  // namespace MorphelTypesTool
