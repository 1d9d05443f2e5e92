// Names and C++ types derived from the definitions, shared by the emitters of every kind.
#include <cctype>
#include <cstdio>
#include <map>

#include "Emit.h"

namespace kodlgen::emit {

namespace {

const char* const kKeywords[] = {
    "alignas", "alignof", "and", "and_eq", "asm", "auto", "bitand", "bitor", "bool", "break", "case", "catch",
    "char", "class", "compl", "concept", "const", "consteval", "constexpr", "constinit", "const_cast",
    "continue", "co_await", "co_return", "co_yield", "decltype", "default", "delete", "do", "double",
    "dynamic_cast", "else", "enum", "explicit", "export", "extern", "false", "float", "for", "friend", "goto",
    "if", "inline", "int", "long", "mutable", "namespace", "new", "noexcept", "not", "not_eq", "nullptr",
    "operator", "or", "or_eq", "private", "protected", "public", "register", "reinterpret_cast", "requires",
    "return", "short", "signed", "sizeof", "static", "static_assert", "static_cast", "struct", "switch",
    "template", "this", "thread_local", "throw", "true", "try", "typedef", "typeid", "typename", "union",
    "unsigned", "using", "virtual", "void", "volatile", "wchar_t", "while", "xor", "xor_eq"};

}  // namespace

std::string SafeName(const std::string& name) {
    for (const char* k : kKeywords)
        if (name == k) return name + "_";
    return name;
}

std::string Upper(const std::string& text) {
    std::string r = text;
    for (char& c : r) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return r;
}

std::string Quote(const std::string& text) {
    std::string r = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') r += '\\';
        r += c;
    }
    return r + "\"";
}

std::string OrNull(bool has, const std::string& text) { return has ? Quote(text) : "nullptr"; }

std::string Hex(uint32_t v) {
    char buf[16];
    snprintf(buf, sizeof buf, "0x%X", v);
    return buf;
}

std::string LibraryOf(const Module& m) { return m.root == "kodl" ? "kitra" : m.root; }

std::string PrimitiveRecord(const std::string& p) {
    static const std::map<std::string, std::string> names = {
        {"string", "String"}, {"int", "Int"},         {"long", "Long"},         {"short", "Short"},
        {"boolean", "Bool"},  {"byte", "Byte"},       {"float", "Float"},       {"double", "Double"},
        {"dateTime", "DateTime"}, {"anyType", "Any"}, {"typeName", "TypeName"}, {"propertyPath", "PropertyPath"}};
    return "::Kitra::g" + names.at(p) + "TypeInfo";
}

std::string PrimitiveCpp(const std::string& p, bool element) {
    if (p == "string") return "std::string";
    if (p == "int") return "int32_t";
    if (p == "long") return "int64_t";
    if (p == "short") return "int16_t";
    if (p == "boolean") return "bool";
    if (p == "byte") return "int8_t";
    if (p == "float") return "float";
    if (p == "double") return "double";
    if (p == "dateTime") return "::Fundix::System::DateTime";
    if (p == "typeName") return element ? "::Kitra::TypeName" : "std::string";
    if (p == "propertyPath") return element ? "::Kitra::PropertyPath" : "std::string";
    return "::Kitra::Any";
}

Storage StorageOf(const TypeRef& type, uint32_t flags) {
    if (flags & 1) return Storage::Array;
    if (!type.primitive.empty()) return type.primitive == "anyType" ? Storage::Any : Storage::Scalar;
    if (type.decl->kind == TypeDecl::Managed) return Storage::MoRef;
    if (type.decl->kind == TypeDecl::Enum) return Storage::Enum;
    return Storage::Data;
}

bool IsSlot(Storage s) { return s == Storage::Data || s == Storage::MoRef || s == Storage::Any || s == Storage::Array; }

std::string PointerType(const TypeRef& type, Storage s) {
    switch (s) {
    case Storage::Data: return type.decl->qualFlat + "*";
    case Storage::MoRef: return "::Kitra::MoRef*";
    case Storage::Any: return "::Kitra::Any*";
    case Storage::Array:
        if (!type.primitive.empty()) {
            if (type.primitive == "anyType") return "::Kitra::DataArray<::Kitra::Any>*";
            return "::Kitra::Array<" + PrimitiveCpp(type.primitive, true) + ">*";
        }
        if (type.decl->kind == TypeDecl::Enum) return "::Kitra::Array<" + type.decl->qualFlat + ">*";
        if (type.decl->kind == TypeDecl::Managed) return "::Kitra::DataArray<::Kitra::MoRef>*";
        return "::Kitra::DataArray<" + type.decl->qualFlat + ">*";
    default: return "";
    }
}

std::string ValueType(const TypeRef& type, Storage s) {
    return s == Storage::Enum ? type.decl->qualFlat : PrimitiveCpp(type.primitive, false);
}

bool PassByReference(const std::string& cpp) {
    return cpp == "std::string" || cpp == "::Fundix::System::DateTime";
}


FieldTypes TypesOf(const Field& f) {
    FieldTypes t;
    t.storage = StorageOf(f.type, f.flags);
    bool optional = (f.flags & 2) != 0;
    if (IsSlot(t.storage)) {
        t.member = t.storage == Storage::Array ? "::Kitra::ArraySlot" : "::Kitra::ObjSlot";
        t.param = PointerType(f.type, t.storage);
        t.result = t.param;
        t.inlineAccess = false;
        return t;
    }
    std::string v = ValueType(f.type, t.storage);
    t.inlineAccess = true;
    if (optional) {
        t.member = "::Fundix::Optional<" + v + ">";
        t.param = "const " + t.member + "&";
        t.result = t.param;
    } else {
        t.member = v;
        t.param = PassByReference(v) ? "const " + v + "&" : v;
        t.result = t.param;
    }
    return t;
}

// The object model's storage class of a field (Kitra::Storage), as its record will describe it.
std::string StorageName(const Field& f) {
    Storage s = StorageOf(f.type, f.flags);
    if (s != Storage::Scalar && s != Storage::Enum) return "Slot";
    bool optional = (f.flags & 2) != 0;
    static const std::map<std::string, std::string> names = {
        {"string", "String"}, {"typeName", "String"}, {"propertyPath", "String"}, {"int", "I32"},
        {"long", "I64"},      {"short", "I16"},       {"byte", "I8"},           {"boolean", "Bool"},
        {"float", "F32"},     {"double", "F64"},      {"dateTime", "Date"}};
    std::string base = f.type.primitive.empty() ? "I32" : names.at(f.type.primitive);
    return optional ? "Opt" + base : base;
}

std::string AccessorStem(const Field& f) { return f.accessor.empty() ? Capitalize(f.name) : f.accessor; }

std::string GetterName(const Field& f) {
    bool boolean = f.type.primitive == "boolean" && !(f.flags & 1);
    return (boolean ? "Is" : "Get") + AccessorStem(f);
}

std::string MemberName(const Field& f) { return f.name + "_"; }

// Fields of the generated levels of `t`, root-most level first.
std::vector<const Field*> AllFields(const TypeDecl* t) {
    std::vector<const TypeDecl*> chain;
    for (const TypeDecl* c = t; c != nullptr && !c->builtin; c = c->hasBase ? c->base.decl : nullptr)
        chain.push_back(c);
    std::vector<const Field*> fields;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it)
        for (const auto& f : (*it)->fields) fields.push_back(&f);
    return fields;
}

bool HasFullConstructor(const TypeDecl* t) { return !t->builtin && !t->noCtor && !AllFields(t).empty(); }

std::string SplitNamespace(const std::string& qualified, std::string& name) {
    std::string q = qualified.substr(2);
    auto pos = q.rfind("::");
    if (pos == std::string::npos) {
        name = q;
        return "";
    }
    name = q.substr(pos + 2);
    return q.substr(0, pos);
}

void EmitTypeRecord(Printer& p, const TypeDecl* t, const std::string& kind) {
    std::string name;
    std::string ns = SplitNamespace(t->recordName, name);
    p.Print("$open$const ::Kitra::TypeInfo $name$ = {$kind$, $wire$, $wsdl$, $version$};\n$close$",
            {{"open", ns.empty() ? "" : "namespace " + ns + " {\n"}, {"close", ns.empty() ? "" : "}\n"},
             {"name", name}, {"kind", kind}, {"wire", Quote(t->wireName)}, {"wsdl", Quote(t->wsdlName)},
             {"version", Quote(t->version)}});
}

// ---- Calls: how a parameter, result or property value crosses the C++ interface.


CallType CallTypeOf(const TypeRef& type, uint32_t flags) {
    CallType c{};
    Storage s = StorageOf(type, flags);
    c.optional = (flags & 2) != 0;
    if (IsSlot(s)) {
        c.slot = true;
        std::string p = PointerType(type, s);
        c.pointee = p.substr(0, p.size() - 1);
    } else {
        c.value = ValueType(type, s);
    }
    return c;
}

std::string ParamDecl(const Param& p, bool named) {
    CallType c = CallTypeOf(p.type, p.flags);
    std::string name = named ? SafeName(p.name) : "";
    if (c.slot) return c.pointee + "*" + (named ? " " + name : "");
    if (c.optional) return "const ::Fundix::Optional<" + c.value + ">&" + (named ? " " + name : "");
    return (PassByReference(c.value) ? "const " + c.value + "&" : c.value) + (named ? " " + name : "");
}

std::string BoxExpr(const Param& p) {
    CallType c = CallTypeOf(p.type, p.flags);
    if (c.slot) return "::Kitra::Binding::BoxRef(" + SafeName(p.name) + ")";
    if (c.optional) return "::Kitra::Binding::BoxOptional<" + c.value + ">(" + SafeName(p.name) + ")";
    return "::Kitra::Binding::BoxValue<" + c.value + ">(" + SafeName(p.name) + ")";
}

std::string UnboxExpr(const TypeRef& type, uint32_t flags, const std::string& any, const std::string& name) {
    CallType c = CallTypeOf(type, flags);
    if (c.slot) return "::Kitra::Binding::UnboxRef<" + c.pointee + ">(" + any + ")";
    if (c.optional) return "::Kitra::Binding::UnboxOptional<" + c.value + ">(" + any + ")";
    return "::Kitra::Binding::UnboxValue<" + c.value + ">(" + any + ", " + Quote(name) + ")";
}

std::vector<Operation> OperationsOf(const TypeDecl* t) {
    std::vector<Operation> ops;
    for (const auto& m : t->methods) {
        ops.push_back({Capitalize(m.name), m.params, m.hasResult, m.result, m.resultFlags, m.async,
                       t->wireName + "." + m.name});
        if (m.flags & 1) {
            // A method that starts a task answers with the task's reference; its record's result names
            // what the task delivers. Any managed declaration types the result as a reference.
            Operation& op = ops.back();
            op.hasResult = true;
            op.result = TypeRef{};
            op.result.decl = t;
            op.resultFlags = 0;
        }
    }
    for (const auto& p : t->properties) {
        bool boolean = p.type.primitive == "boolean" && !(p.flags & 1);
        ops.push_back({(boolean ? "Is" : "Get") + Capitalize(p.name), {}, true, p.type, p.flags & 3u, p.async,
                       t->wireName + "." + p.name});
    }
    return ops;
}

std::string SyncSignature(const Operation& op, const std::string& qualifier, bool named) {
    std::vector<std::string> params;
    for (const auto& p : op.params) params.push_back(ParamDecl(p, named));
    std::string ret = "void";
    if (op.hasResult) {
        CallType c = CallTypeOf(op.result, op.resultFlags);
        if (c.slot) params.push_back("::Fundix::Ref<" + c.pointee + ">&" + (named ? " result" : ""));
        else ret = c.optional ? "::Fundix::Optional<" + c.value + ">" : c.value;
    }
    std::string list;
    for (size_t i = 0; i < params.size(); ++i) list += (i ? ", " : "") + params[i];
    return ret + " " + qualifier + op.cppName + "(" + list + ")";
}

std::string AsyncSignature(const Operation& op, const std::string& qualifier) {
    std::string list;
    for (const auto& p : op.params) list += ParamDecl(p) + ", ";
    return "void " + qualifier + op.cppName + "(" + list +
           "const ::Kitra::Completion& completion, ::Fundix::Ref<::Fundix::System::ScheduledItem>& item)";
}

std::string StubName(const TypeDecl* t) { return t->flatName + "Stub"; }
std::string ImplBaseName(const TypeDecl* t) { return t->flatName + "Base"; }

std::string EnumConstantName(const TypeDecl* e, const std::string& value) {
    auto parts = Split(e->path, '.');
    return Upper(parts.back()) + "_" + Upper(value);
}

std::string ConstructorParams(const TypeDecl* t) {
    std::string params;
    for (const Field* f : AllFields(t)) {
        if (!params.empty()) params += ", ";
        params += TypesOf(*f).param + " " + SafeName(f->name);
    }
    return params;
}

std::string BaseClass(const TypeDecl* t) { return t->base.decl->qualFlat; }

}  // namespace kodlgen::emit
