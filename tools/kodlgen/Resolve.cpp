// Derives names from the definitions, resolves type references and checks what the definitions say
// against the rules of the metadata, so that emission can trust the model.
#include <functional>
#include <set>

#include "Model.h"

namespace kodlgen {

namespace {

std::string RootNamespace(const std::string& root) {
    if (root == "kodl") return "Kitra";
    return Capitalize(root);
}

std::string RootDirectory(const std::string& root) {
    if (root == "kodl") return "kitra";
    return root;
}

std::string JoinCapitalized(const std::vector<std::string>& words, size_t from, const std::string& separator) {
    std::string out;
    for (size_t i = from; i < words.size(); ++i) {
        if (!out.empty() || !separator.empty()) out += separator;
        out += Capitalize(words[i]);
    }
    return out;
}

std::string WithoutDots(const std::string& path) {
    std::string out;
    for (char c : path)
        if (c != '.') out += c;
    return out;
}

void DeriveModule(Model& model, Module& m) {
    auto words = Split(m.prefix, '.');
    m.root = words[0];
    if (m.root != "morphel" && m.root != "dovra" && m.root != "kodl") {
        model.Error(m.where, "module '" + m.prefix + "' must start with morphel, dovra or kodl");
    }
    for (const auto& w : words)
        if (w.empty()) model.Error(m.where, "module '" + m.prefix + "' has an empty word");
    m.sourcePath = "sysimage/kodl";
    for (const auto& w : words) m.sourcePath += "/" + w;
    m.sourcePath += "/types";
    m.ns = RootNamespace(m.root);
    for (size_t i = 1; i < words.size(); ++i) m.ns += "::" + Capitalize(words[i]);
    m.headerPath = RootDirectory(m.root);
    for (size_t i = 1; i < words.size(); ++i) m.headerPath += "/" + words[i];
    m.headerPath += "/types.h";
    // The build finds a module's output by the place of its definition: <root>/<module path>/types.kodl.
    std::string expected = "/";
    for (const auto& w : words) expected += w + "/";
    expected += "types.kodl";
    const std::string& file = m.definitionFile;
    if (file.size() < expected.size() || file.compare(file.size() - expected.size(), expected.size(), expected) != 0)
        model.Error(m.where, "module '" + m.prefix + "' must be defined in a file ending in " + expected.substr(1));
    if (!m.wsdlPrefixWritten) m.wsdlPrefix = m.root == "morphel" ? JoinCapitalized(words, 0, "") : "";
}

void DeriveType(Model& model, TypeDecl& t) {
    const Module& m = *t.module;
    t.wireName = m.prefix + "." + t.path;
    auto words = Split(m.prefix, '.');
    auto pathParts = Split(t.path, '.');
    t.ns = m.ns;
    t.flatName.clear();
    t.cppName = m.ns;
    for (const auto& p : pathParts) {
        if (!t.flatName.empty()) t.flatName += "_";
        t.flatName += p;
        t.cppName += "::" + p;
    }
    t.qualFlat = "::" + m.ns + "::" + t.flatName;
    std::string stem = JoinCapitalized(words, 1, "") + WithoutDots(t.path);
    if (m.root == "kodl") {
        t.recordName = "::Kitra::g" + stem + "TypeInfo";
        t.methodObjectsName = "::Kitra::g" + stem + "MethodObjects";
    } else {
        t.recordName = "::g" + RootNamespace(m.root) + stem + "TypeInfo";
        t.methodObjectsName = "::g" + RootNamespace(m.root) + stem + "MethodObjects";
    }
    if (!t.wsdlWritten) t.wsdlName = m.wsdlPrefix + WithoutDots(t.path);
    if (model.byWireName.count(t.wireName)) {
        model.Error(t.where, "type '" + t.wireName + "' is declared twice (first at " +
                                 model.byWireName[t.wireName]->where.file + ":" +
                                 std::to_string(model.byWireName[t.wireName]->where.line) + ")");
    } else {
        model.byWireName[t.wireName] = &t;
    }
}

std::string ExpandVersion(const Module& m, const std::string& v) {
    if (v.find('.') == std::string::npos) return m.root + ".version." + v;
    return v;
}

class Resolver {
public:
    explicit Resolver(Model& model) : model_(model) {
        for (const auto& v : model.versions) versions_.insert(v.name);
    }

    void ResolveRef(const Module& m, TypeRef& ref) {
        if (IsPrimitive(ref.written)) {
            ref.primitive = ref.written;
            return;
        }
        std::string wire = ref.written;
        bool absolute = wire.rfind("morphel.", 0) == 0 || wire.rfind("dovra.", 0) == 0 || wire.rfind("kodl.", 0) == 0;
        if (!absolute) wire = m.prefix + "." + wire;
        auto it = model_.byWireName.find(wire);
        if (it == model_.byWireName.end() && absolute) {
            // "morphel.X" inside module morphel.Y may also be meant relative; prefer the absolute name.
            it = model_.byWireName.find(m.prefix + "." + ref.written);
        }
        if (it == model_.byWireName.end()) {
            model_.Error(ref.where, "unknown type '" + ref.written + "'");
            return;
        }
        ref.decl = it->second;
    }

    void CheckVersion(const Module& m, const Location& where, std::string& version) {
        version = ExpandVersion(m, version);
        if (!versions_.empty() && !versions_.count(version)) model_.Error(where, "unknown version '" + version + "'");
    }

    void CheckFlags(const Location& where, uint32_t flags, uint32_t allowed, const std::string& what) {
        if (flags & ~allowed) model_.Error(where, what + " flags " + std::to_string(flags) + " are not allowed here");
    }

    void Run() {
        for (auto& m : model_.modules) {
            for (auto& tp : m->types) {
                TypeDecl& t = *tp;
                CheckVersion(*m, t.where, t.version);
                if (t.hasBase) ResolveRef(*m, t.base);
                for (auto& f : t.fields) {
                    ResolveRef(*m, f.type);
                    if (!f.version.empty()) CheckVersion(*m, f.where, f.version);
                    CheckFlags(f.where, f.flags, 7, "field");
                    if (f.type.decl && f.type.decl->kind == TypeDecl::Data && f.type.decl->builtin &&
                        f.type.decl->wireName == "kodl.DynamicData")
                        model_.Error(f.where, "a field cannot hold a bare kodl.DynamicData");
                }
                for (auto& mt : t.methods) {
                    CheckVersion(*m, mt.where, mt.version);
                    for (auto& p : mt.params) {
                        ResolveRef(*m, p.type);
                        if (!p.version.empty()) CheckVersion(*m, p.where, p.version);
                        if (p.flags > 2) model_.Error(p.where, "parameter flags must be 0, 1 or 2");
                    }
                    if (mt.hasResult) {
                        ResolveRef(*m, mt.result);
                        CheckFlags(mt.where, mt.resultFlags, 3, "result");
                    }
                    for (auto& fr : mt.faults) {
                        ResolveRef(*m, fr);
                        if (fr.decl && !IsFaultDecl(fr.decl))
                            model_.Error(fr.where, "'" + fr.written + "' is not a fault type");
                    }
                    bool taskName = mt.wsdlName.size() > 5 &&
                                    mt.wsdlName.compare(mt.wsdlName.size() - 5, 5, "_Task") == 0;
                    if (taskName != ((mt.flags & 1) != 0))
                        model_.Error(mt.where, "method '" + mt.name +
                                                   "': flags=0x1 goes with a WSDL name ending in _Task, and only there");
                    CheckFlags(mt.where, mt.flags, 0x101, "method");
                }
                for (auto& p : t.properties) {
                    ResolveRef(*m, p.type);
                    CheckFlags(p.where, p.flags, 7, "property");
                    if (!(p.flags & 4)) model_.Error(p.where, "a managed type's property carries flag 4");
                }
            }
        }
        for (auto& m : model_.modules)
            for (auto& tp : m->types) CheckType(*tp);
        CheckWsdlNames();
    }

    bool IsFaultDecl(const TypeDecl* t) {
        std::set<const TypeDecl*> seen;
        while (t != nullptr && seen.insert(t).second) {
            if (t->wireName == "kodl.MethodFault") return true;
            t = t->hasBase ? t->base.decl : nullptr;
        }
        return false;
    }

private:
    void CheckType(TypeDecl& t) {
        // Nesting: the outer type must be declared in the same module.
        auto dot = t.path.rfind('.');
        if (dot != std::string::npos) {
            auto it = model_.byWireName.find(t.module->prefix + "." + t.path.substr(0, dot));
            if (it == model_.byWireName.end()) {
                model_.Error(t.where, "'" + t.path + "' is nested in a type this module does not declare");
            } else {
                t.outer = it->second;
                if (t.outer->kind == TypeDecl::Enum) model_.Error(t.where, "a type cannot be nested in an enumeration");
            }
        }
        if (t.kind == TypeDecl::Data) {
            if (!t.hasBase && !t.builtin) {
                t.hasBase = true;
                t.base = {"kodl.DynamicData", t.where, "", nullptr};
                ResolveRef(*t.module, t.base);
            }
            if (t.hasBase && t.base.decl && t.base.decl->kind != TypeDecl::Data)
                model_.Error(t.where, "the base of '" + t.path + "' is not a data type");
            // Cycles in the base chain.
            std::set<const TypeDecl*> seen;
            for (const TypeDecl* b = &t; b != nullptr; b = b->hasBase ? b->base.decl : nullptr) {
                if (!seen.insert(b).second) {
                    model_.Error(t.where, "the base chain of '" + t.path + "' is circular");
                    break;
                }
            }
            t.isFault = IsFaultDecl(&t);
            std::set<std::string> names;
            for (const auto& f : t.fields) {
                if (!names.insert(f.name).second) model_.Error(f.where, "field '" + f.name + "' declared twice");
                if (f.type.decl && f.type.decl->kind == TypeDecl::Enum && f.type.decl == &t)
                    model_.Error(f.where, "bad field type");
            }
            if (!t.methods.empty() || !t.properties.empty() || !t.values.empty())
                model_.Error(t.where, "a data type has only fields");
        } else if (t.kind == TypeDecl::Managed) {
            if (t.hasBase && t.base.decl && t.base.decl->kind != TypeDecl::Managed)
                model_.Error(t.where, "the base of '" + t.path + "' is not a managed type");
            std::set<std::string> names;
            for (const auto& mt : t.methods)
                if (!names.insert(mt.name).second) model_.Error(mt.where, "method '" + mt.name + "' declared twice");
            for (const auto& p : t.properties)
                if (!names.insert(p.name).second) model_.Error(p.where, "property '" + p.name + "' declared twice");
        } else {
            if (t.values.empty()) model_.Error(t.where, "enumeration '" + t.path + "' has no values");
            std::set<std::string> values;
            for (const auto& v : t.values) {
                if (!values.insert(v).second) model_.Error(t.where, "value '" + v + "' listed twice");
                bool ident = !v.empty() && (std::isalpha(static_cast<unsigned char>(v[0])) || v[0] == '_');
                for (char c : v) ident = ident && (std::isalnum(static_cast<unsigned char>(c)) || c == '_');
                if (!ident) model_.Error(t.where, "value '" + v + "' is not usable as a C++ name");
            }
        }
    }

    void CheckWsdlNames() {
        std::map<std::string, const TypeDecl*> seen;
        for (auto& m : model_.modules) {
            for (auto& t : m->types) {
                auto [it, fresh] = seen.emplace(t->wsdlName, t.get());
                if (!fresh)
                    model_.Error(t->where, "WSDL name '" + t->wsdlName + "' is already used by '" +
                                               it->second->wireName + "'");
            }
        }
    }

    Model& model_;
    std::set<std::string> versions_;
};

}  // namespace

void Resolve(Model& model) {
    for (auto& m : model.modules) DeriveModule(model, *m);
    for (auto& m : model.modules)
        for (auto& t : m->types) DeriveType(model, *t);
    // Version relations name declared versions.
    std::set<std::string> names;
    for (const auto& v : model.versions) names.insert(v.name);
    for (const auto& v : model.versions)
        for (const auto& inc : v.includes)
            if (!names.count(inc)) model.Error(v.where, "version '" + v.name + "' includes unknown '" + inc + "'");
    Resolver(model).Run();
}

}  // namespace kodlgen
