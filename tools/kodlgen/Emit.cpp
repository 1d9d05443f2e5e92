// Writes, per module, the public header and the source: metadata records, registrar, data-object,
// fault and enumeration classes, managed-type records and method tables. Per type it writes only what
// must be per type (storage, accessors, records, thin overrides); every loop over fields lives in the
// object model and walks the records.
#include <algorithm>
#include <functional>
#include <set>

#include "Model.h"
#include "Printer.h"

namespace kodlgen {

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

// How a field is stored and handed out.
enum class Storage { Scalar, Enum, Data, MoRef, Any, Array };

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

struct FieldTypes {
    Storage storage;
    std::string member;    // member declaration type
    std::string param;     // parameter type for setters and constructors
    std::string result;    // getter result type
    bool inlineAccess;     // accessors defined in the header
};

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

bool HasFullConstructor(const TypeDecl* t);

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
    // "::Kitra::gX" -> ("Kitra", "gX"); "::gX" -> ("", "gX")
    std::string q = qualified.substr(2);
    auto pos = q.rfind("::");
    if (pos == std::string::npos) {
        name = q;
        return "";
    }
    name = q.substr(pos + 2);
    return q.substr(0, pos);
}

// The exported header record of a type, inside the namespace its name carries.
void EmitTypeRecord(Printer& p, const TypeDecl* t, const std::string& kind) {
    std::string name;
    std::string ns = SplitNamespace(t->recordName, name);
    p.Print("$open$const ::Kitra::TypeInfo $name$ = {$kind$, $wire$, $wsdl$, $version$};\n$close$",
            {{"open", ns.empty() ? "" : "namespace " + ns + " {\n"}, {"close", ns.empty() ? "" : "}\n"},
             {"name", name}, {"kind", kind}, {"wire", Quote(t->wireName)}, {"wsdl", Quote(t->wsdlName)},
             {"version", Quote(t->version)}});
}


// ---- Calls: how a parameter, result or property value crosses the C++ interface.

struct CallType {
    bool slot;             // passed as a pointer, returned through an out-reference
    std::string pointee;   // slot: the class pointed to
    std::string value;     // scalar: the value type (optional ones wrapped in Fundix::Optional)
    bool optional;
};

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

// The declaration of a parameter; without its name where `named` is false (a body that ignores it).
std::string ParamDecl(const Param& p, bool named = true) {
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

// One operation of a managed type: a method, or a property read as a method without parameters.
struct Operation {
    std::string cppName;
    std::vector<Param> params;
    bool hasResult = false;
    TypeRef result;
    uint32_t resultFlags = 0;
    bool async = false;
    std::string wire;  // for messages
};

std::vector<Operation> OperationsOf(const TypeDecl* t) {
    std::vector<Operation> ops;
    for (const auto& m : t->methods)
        ops.push_back({Capitalize(m.name), m.params, m.hasResult, m.result, m.resultFlags, m.async,
                       t->wireName + "." + m.name});
    for (const auto& p : t->properties) {
        bool boolean = p.type.primitive == "boolean" && !(p.flags & 1);
        ops.push_back({(boolean ? "Is" : "Get") + Capitalize(p.name), {}, true, p.type, p.flags & 3u, p.async,
                       t->wireName + "." + p.name});
    }
    return ops;
}

// "RET Name(params)" of the synchronous form; the result of a slot type is an out-reference.
std::string SyncSignature(const Operation& op, const std::string& qualifier, bool named = true) {
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

class ModuleEmitter {
public:
    ModuleEmitter(const Module& module, const std::string& library) : module_(module), library_(library) {
        for (const auto& t : module.types)
            if (!t->builtin) types_.push_back(t.get());
        for (const auto* t : types_)
            if (t->kind == TypeDecl::Managed) ordered_.push_back(t);
        for (const auto* t : types_)
            if (t->kind == TypeDecl::Data) ordered_.push_back(t);
        for (const auto* t : types_)
            if (t->kind == TypeDecl::Enum) ordered_.push_back(t);
    }

    std::string Header();
    std::string Source();

private:
    bool Imported(const TypeRef& ref) const {
        if (!ref.primitive.empty()) return library_ != "kitra";
        return LibraryOf(*ref.decl->module) != library_;
    }
    std::string RecordAddress(const TypeRef& ref) const {
        return "&" + (ref.primitive.empty() ? ref.decl->recordName : PrimitiveRecord(ref.primitive));
    }
    // The record word for `ref`: a constant when it is of this library, else null and filled at load.
    std::string RecordWord(const TypeRef& ref, const std::string& lhs) {
        if (!Imported(ref)) return RecordAddress(ref);
        imports_.push_back({RecordAddress(ref), lhs});
        return "nullptr";
    }

    void ForEachRef(const std::function<void(const TypeRef&)>& visit) const {
        for (const auto* t : types_) {
            if (t->hasBase) visit(t->base);
            for (const auto& f : t->fields) visit(f.type);
            for (const auto& m : t->methods) {
                for (const auto& p : m.params) visit(p.type);
                if (m.hasResult) visit(m.result);
                for (const auto& f : m.faults) visit(f);
            }
            for (const auto& p : t->properties) visit(p.type);
        }
    }

    std::vector<const TypeDecl*> ClassOrder() const;
    void EmitEnumConstantsDecl(Printer& p, const TypeDecl* scope, const std::string& indent);
    void EmitDataClass(Printer& p, const TypeDecl* t);
    void EmitManagedClass(Printer& p, const TypeDecl* t);
    void EmitNestedAliases(Printer& p, const TypeDecl* t);
    void EmitDataSource(Printer& p, const TypeDecl* t);
    void EmitManagedSource(Printer& p, const TypeDecl* t);
    void EmitImplBaseSource(Printer& p, const TypeDecl* t);
    void EmitEnumSource(Printer& p, const TypeDecl* t);
    std::string ConstructorParams(const TypeDecl* t) const;

    const Module& module_;
    std::string library_;
    std::vector<const TypeDecl*> types_;    // generated here, file order
    std::vector<const TypeDecl*> ordered_;  // registration order
    std::vector<std::pair<std::string, std::string>> imports_;  // (record address, word)
    std::vector<std::string> enumFills_;
};

std::vector<const TypeDecl*> ModuleEmitter::ClassOrder() const {
    // Bases of this module before the classes derived from them; otherwise file order.
    std::vector<const TypeDecl*> order;
    std::set<const TypeDecl*> done;
    std::function<void(const TypeDecl*)> visit = [&](const TypeDecl* t) {
        if (done.count(t)) return;
        done.insert(t);
        if (t->hasBase && t->base.decl && t->base.decl->module == &module_ && !t->base.decl->builtin)
            visit(t->base.decl);
        order.push_back(t);
    };
    for (const auto* t : types_)
        if (t->kind != TypeDecl::Enum) visit(t);
    return order;
}

std::string EnumConstantName(const TypeDecl* e, const std::string& value) {
    auto parts = Split(e->path, '.');
    return Upper(parts.back()) + "_" + Upper(value);
}

void ModuleEmitter::EmitEnumConstantsDecl(Printer& p, const TypeDecl* scope, const std::string& indent) {
    for (const auto* e : types_) {
        if (e->kind != TypeDecl::Enum || e->outer != scope) continue;
        for (const auto& v : e->values)
            p.Print("$i$$kw$const char* const $name$;\n",
                    {{"i", indent}, {"kw", scope ? "static " : "extern "}, {"name", EnumConstantName(e, v)}});
    }
}

void ModuleEmitter::EmitNestedAliases(Printer& p, const TypeDecl* t) {
    for (const auto* n : types_) {
        if (n->outer != t) continue;
        p.Print("    using $name$ = $flat$;\n", {{"name", Split(n->path, '.').back()}, {"flat", n->flatName}});
    }
    EmitEnumConstantsDecl(p, t, "    ");
}

std::string ModuleEmitter::ConstructorParams(const TypeDecl* t) const {
    std::string params;
    for (const Field* f : AllFields(t)) {
        if (!params.empty()) params += ", ";
        params += TypesOf(*f).param + " " + SafeName(f->name);
    }
    return params;
}

std::string BaseClass(const TypeDecl* t) { return t->base.decl->qualFlat; }

void ModuleEmitter::EmitDataClass(Printer& p, const TypeDecl* t) {
    const std::string& flat = t->flatName;
    p.Print("\n// $wire$\nclass $flat$ : public $base$ {\npublic:\n",
            {{"wire", t->wireName}, {"flat", flat}, {"base", BaseClass(t)}});
    EmitNestedAliases(p, t);
    if (t->isFault) {
        std::string params = ConstructorParams(t);
        p.Print("\n    class Exception : public $base$::Exception {\n    public:\n"
                "        explicit Exception($flat$* fault);\n",
                {{"base", BaseClass(t)}, {"flat", flat}});
        if (params.empty()) {
            p.Print("        Exception();\n");
        } else {
            p.Print("        $explicit$Exception($params$);\n",
                    {{"explicit", AllFields(t).size() == 1 ? "explicit " : ""}, {"params", params}});
        }
        p.Print("        $flat$* GetFault() const;\n"
                "        ::Fundix::Exception* Clone() const override;\n"
                "        [[noreturn]] void Throw() const override;\n    };\n\n",
                {{"flat", flat}});
    }
    p.Print("    $flat$();\n", {{"flat", flat}});
    if (HasFullConstructor(t))
        p.Print("    $explicit$$flat$($params$);\n",
                {{"explicit", AllFields(t).size() == 1 ? "explicit " : ""}, {"flat", flat}, {"params", ConstructorParams(t)}});
    p.Print("    ~$flat$() override;\n"
            "    $flat$* _Clone() const override;\n"
            "    ::Kitra::Type* _GetType() const override;\n"
            "    ::Kitra::DataObjectType* _GetDataType() const override;\n",
            {{"flat", flat}});
    if (!t->fields.empty()) p.Print("    unsigned _GetSize(::Kitra::Sizer sizer) const override;\n");
    if (t->isFault)
        p.Print("    [[noreturn]] void Throw() override;\n    Exception* CreateException() override;\n");
    if (!t->fields.empty()) p.Print("\n");
    for (const auto& f : t->fields) {
        FieldTypes ft = TypesOf(f);
        std::string stem = AccessorStem(f);
        if (ft.inlineAccess) {
            p.Print("    $result$ $getter$() const { return $member$; }\n"
                    "    void Set$stem$($param$ value) { $member$ = value; }\n",
                    {{"result", ft.result}, {"getter", GetterName(f)}, {"member", MemberName(f)},
                     {"stem", stem}, {"param", ft.param}});
            if (f.flags & 2) p.Print("    void Unset$stem$() { $member$.Unset(); }\n", {{"stem", stem}, {"member", MemberName(f)}});
        } else {
            p.Print("    $result$ $getter$() const;\n    void Set$stem$($param$ value);\n",
                    {{"result", ft.result}, {"getter", GetterName(f)}, {"stem", stem}, {"param", ft.param}});
            if (f.flags & 2) p.Print("    void Unset$stem$() { $member$.Store(nullptr); }\n", {{"stem", stem}, {"member", MemberName(f)}});
        }
    }
    if (!t->fields.empty()) p.Print("\n    static const ::Kitra::FieldLayout _kLayout;\n");
    p.Print("\nprotected:\n    $flat$(const $flat$& other);\n", {{"flat", flat}});
    if (!t->fields.empty()) {
        p.Print("    bool _EqualFields(const ::Kitra::DataObject* other, bool partial) const override;\n"
                "    void _DiffFields(const ::Kitra::DataObject* other, const std::string& prefix,\n"
                "                     ::Kitra::PropertyDiffSet& diffs) const override;\n"
                "\nprivate:\n    static const ::Kitra::FieldDesc _kFields[];\n");
        for (const auto& f : t->fields) {
            FieldTypes ft = TypesOf(f);
            bool scalar = ft.storage == Storage::Enum ||
                          (ft.storage == Storage::Scalar && !(f.flags & 2) && !PassByReference(ft.member));
            p.Print("    $type$ $member$$init$;\n", {{"type", ft.member}, {"member", MemberName(f)}, {"init", scalar && !(f.flags & 2) ? "{}" : ""}});
        }
    }
    p.Print("};\n");
}

void ModuleEmitter::EmitManagedClass(Printer& p, const TypeDecl* t) {
    std::string base = t->hasBase ? t->base.decl->qualFlat : "::Kitra::ManagedObject";
    p.Print("\n// $wire$\nclass $flat$ : public virtual $base$ {\npublic:\n",
            {{"wire", t->wireName}, {"flat", t->flatName}, {"base", base}});
    EmitNestedAliases(p, t);
    for (const auto& m : t->methods)
        p.Print("    static const char* const METHOD_$name$;\n", {{"name", Upper(m.name)}});
    auto ops = OperationsOf(t);
    if (!ops.empty()) p.Print("\n");
    for (const auto& op : ops) p.Print("    virtual $sig$ = 0;\n", {{"sig", SyncSignature(op, "")}});
    p.Print("\nprotected:\n    $flat$() = default;\n};\n", {{"flat", t->flatName}});

    // The client stub: every operation turned into a call through the stub adapter.
    std::string bases = "public virtual " + t->flatName + ", public virtual ::Kitra::StubImpl";
    if (t->hasBase) bases += ", public " + t->base.decl->qualFlat + "Stub";
    p.Print("\n// The client stub of $wire$.\nclass $stub$ : $bases$ {\npublic:\n"
            "    $stub$(const std::string& id, ::Kitra::StubAdapter* adapter, ::Kitra::RequestContext* context);\n"
            "    ::Kitra::Type* _GetType() const override;\n",
            {{"wire", t->wireName}, {"stub", StubName(t)}, {"bases", bases}});
    for (const auto& op : ops) {
        p.Print("    $sig$ override;\n", {{"sig", SyncSignature(op, "")}});
        if (op.async) p.Print("    $sig$;\n", {{"sig", AsyncSignature(op, "")}});
    }
    p.Print("};\n");

    // The base of implementations: every operation raises kodl.fault.NotImplemented naming it.
    std::string implBases = "public virtual " + t->flatName + ", public virtual ::Kitra::ManagedObjectImpl";
    if (t->hasBase) implBases += ", public " + t->base.decl->qualFlat + "Base";
    p.Print("\n// The base of an implementation of $wire$: every operation it does not override raises\n"
            "// kodl.fault.NotImplemented naming the operation.\nclass $impl$ : $bases$ {\npublic:\n",
            {{"wire", t->wireName}, {"impl", ImplBaseName(t)}, {"bases", implBases}});
    for (const auto& op : ops) p.Print("    $sig$ override;\n", {{"sig", SyncSignature(op, "")}});
    p.Print("\nprotected:\n    $impl$() = default;\n};\n", {{"impl", ImplBaseName(t)}});
}

std::string ModuleEmitter::Header() {
    Printer p;
    p.Print("// Generated by kodlgen from the definition of module $module$. Do not edit.\n#pragma once\n\n"
            "#include <cstdint>\n#include <string>\n\n#include <kitra/Call.h>\n#include <kitra/Module.h>\n",
            {{"module", module_.prefix}});
    std::set<std::string> includes;
    for (const auto* t : types_)
        if (t->hasBase && t->base.decl && t->base.decl->module != &module_ && !t->base.decl->builtin)
            includes.insert(t->base.decl->module->headerPath);
    for (const auto& inc : includes) p.Print("#include <$h$>\n", {{"h", inc}});

    // Declarations of the types of other modules that fields name.
    std::map<std::string, std::set<std::string>> foreign;
    auto declare = [&](const TypeRef& ref) {
        const TypeDecl* d = ref.decl;
        if (d == nullptr || d->module == &module_ || d->builtin) return;
        if (d->kind == TypeDecl::Data) foreign[d->ns].insert("class " + d->flatName + ";");
        if (d->kind == TypeDecl::Enum) foreign[d->ns].insert("enum class " + d->flatName + " : int32_t;");
    };
    for (const auto* t : types_) {
        for (const auto& f : t->fields) declare(f.type);
        for (const auto& m : t->methods) {
            for (const auto& pa : m.params) declare(pa.type);
            if (m.hasResult) declare(m.result);
        }
        for (const auto& pr : t->properties) declare(pr.type);
    }
    if (!foreign.empty()) p.Print("\n");
    for (const auto& [ns, decls] : foreign) {
        p.Print("namespace $ns$ {\n", {{"ns", ns}});
        for (const auto& d : decls) p.Print("$d$\n", {{"d", d}});
        p.Print("}  // namespace $ns$\n", {{"ns", ns}});
    }

    p.Print("\nnamespace $ns$ {\n\n", {{"ns", module_.ns}});
    for (const auto* t : types_)
        if (t->kind != TypeDecl::Enum) p.Print("class $flat$;\n", {{"flat", t->flatName}});
    for (const auto* t : types_) {
        if (t->kind != TypeDecl::Enum) continue;
        p.Print("\n// $wire$\nenum class $flat$ : int32_t {", {{"wire", t->wireName}, {"flat", t->flatName}});
        for (size_t i = 0; i < t->values.size(); ++i)
            p.Print("$sep$$v$", {{"sep", i ? ", " : " "}, {"v", SafeName(t->values[i])}});
        p.Print(" };\n");
    }
    EmitEnumConstantsDecl(p, nullptr, "");
    bool managed = false;
    for (const auto* t : types_) managed = managed || t->kind == TypeDecl::Managed;
    // A managed type may redeclare a property of its base with a narrower type; its operations then hide
    // the base's by design.
    if (managed)
        p.Print("\n#if defined(__clang__)\n#pragma clang diagnostic push\n"
                "#pragma clang diagnostic ignored \"-Woverloaded-virtual\"\n#endif\n");
    for (const auto* t : ClassOrder()) {
        if (t->kind == TypeDecl::Data) EmitDataClass(p, t);
        else EmitManagedClass(p, t);
    }
    if (managed) p.Print("\n#if defined(__clang__)\n#pragma clang diagnostic pop\n#endif\n");
    p.Print("\n}  // namespace $ns$\n\nnamespace Kitra {\n", {{"ns", module_.ns}});
    for (const auto* t : ordered_) p.Print("template <>\nType* GetType<$q$>();\n", {{"q", t->qualFlat}});
    p.Print("}  // namespace Kitra\n\n");
    for (const auto* t : ordered_) {
        std::string name;
        std::string ns = SplitNamespace(t->recordName, name);
        std::string decl = "extern const ::Kitra::TypeInfo " + name + ";";
        if (t->kind == TypeDecl::Managed)
            decl += "\nextern ::Kitra::ManagedMethod* " +
                    SplitNamespace(t->methodObjectsName, name).substr(0, 0) + name + "[];";
        if (ns.empty()) p.Print("$d$\n", {{"d", decl}});
        else p.Print("namespace $ns$ {\n$d$\n}\n", {{"ns", ns}, {"d", decl}});
    }
    return p.Text();
}

void ModuleEmitter::EmitDataSource(Printer& p, const TypeDecl* t) {
    const std::string& flat = t->flatName;
    const std::string q = t->qualFlat.substr(2);
    std::string id = flat;
    p.Print("\n// ---- $wire$\n\nnamespace {\n\n", {{"wire", t->wireName}});
    bool hasFields = !t->fields.empty();
    bool hasArrays = false;
    if (hasFields) {
        p.Print("::Kitra::PropertyTypeInfo kP_$id$[] = {\n", {{"id", id}});
        for (size_t i = 0; i < t->fields.size(); ++i) {
            const Field& f = t->fields[i];
            hasArrays = hasArrays || (f.flags & 1);
            std::string word = RecordWord(f.type, "kP_" + id + "[" + std::to_string(i) + "].type");
            p.Print("    {$name$, nullptr, $extra$, $type$, $flags$, $version$},\n",
                    {{"name", Quote(f.name)}, {"extra", OrNull(f.hasExtra, f.extra)}, {"type", word},
                     {"flags", std::to_string(f.flags)}, {"version", Quote(f.version.empty() ? t->version : f.version)}});
        }
        p.Print("    {nullptr, nullptr, nullptr, nullptr, ::Kitra::kFlagTerminator, nullptr},\n};\n\n");
        p.Print("void Get_$id$(::Kitra::DataObject* o, int i, void* out) {\n"
                "    ::Kitra::Fields::Get($q$::_kLayout, ::Kitra::CheckedCast<$q$>(o), i, out);\n}\n"
                "void Set_$id$(::Kitra::DataObject* o, int i, const void* in) {\n"
                "    ::Kitra::Fields::Set($q$::_kLayout, ::Kitra::CheckedCast<$q$>(o), i, in);\n}\n"
                "bool IsSet_$id$(const ::Kitra::DataObject* o, int i) {\n"
                "    return ::Kitra::Fields::IsSet($q$::_kLayout, ::Kitra::CheckedCast<const $q$>(o), i);\n}\n",
                {{"id", id}, {"q", q}});
        if (hasArrays)
            p.Print("void Init_$id$(::Kitra::DataObject* o, int i) {\n"
                    "    ::Kitra::Fields::Init($q$::_kLayout, ::Kitra::CheckedCast<$q$>(o), i);\n}\n",
                    {{"id", id}, {"q", q}});
    }
    p.Print("::Kitra::DataObject* New_$id$() { return new (std::nothrow) $q$(); }\n"
            "::Kitra::Any* NewArray_$id$() { return new (std::nothrow) ::Kitra::DataArray<$q$>(); }\n\n",
            {{"id", id}, {"q", q}});
    std::string baseWord = RecordWord(t->base, "kD_" + id + ".base");
    p.Print("::Kitra::DataTypeInfo kD_$id$ = {\n    &$record$, $base$, $props$,\n",
            {{"id", id}, {"record", t->recordName}, {"base", baseWord}, {"props", hasFields ? "kP_" + id : "nullptr"}});
    if (hasFields)
        p.Print("    &Get_$id$, &Set_$id$, &IsSet_$id$, $init$,\n",
                {{"id", id}, {"init", hasArrays ? "&Init_" + id : "&::Kitra::Fields::NoInit"}});
    else
        p.Print("    &::Kitra::Fields::NoGet, &::Kitra::Fields::NoSet, &::Kitra::Fields::AlwaysSet, &::Kitra::Fields::NoInit,\n");
    p.Print("    &New_$id$, &NewArray_$id$,\n};\n\n}  // namespace\n\n", {{"id", id}});

    EmitTypeRecord(p, t, t->isFault ? "::Kitra::kKindFault" : "::Kitra::kKindData");
    p.Print("\ntemplate <>\n::Kitra::Type* Kitra::GetType<$q$>() {\n"
            "    static ::Kitra::Binding::TypeCache cache;\n"
            "    return ::Kitra::Binding::GetTypeOnce(cache, &::Kitra::Binding::CreateData, &kD_$id$);\n}\n\n",
            {{"q", q}, {"id", id}});

    if (hasFields) {
        p.Print("const ::Kitra::FieldDesc $q$::_kFields[] = {\n", {{"q", q}});
        for (size_t i = 0; i < t->fields.size(); ++i)
            p.Print("    {offsetof($q$, $m$), ::Kitra::Storage::$s$},\n",
                    {{"q", q}, {"m", MemberName(t->fields[i])}, {"s", StorageName(t->fields[i])}});
        p.Print("};\nconst ::Kitra::FieldLayout $q$::_kLayout = {kP_$id$, _kFields, $n$};\n\n",
                {{"q", q}, {"id", id}, {"n", std::to_string(t->fields.size())}});
    }
    std::string base = BaseClass(t);
    p.Print("$q$::$flat$() = default;\n$q$::$flat$(const $flat$& other) = default;\n$q$::~$flat$() = default;\n",
            {{"q", q}, {"flat", flat}});
    if (HasFullConstructor(t)) {
        std::vector<const Field*> all = AllFields(t);
        size_t own = t->fields.size();
        std::vector<const Field*> inherited(all.begin(), all.end() - own);
        p.Print("$q$::$flat$($params$)", {{"q", q}, {"flat", flat}, {"params", ConstructorParams(t)}});
        std::vector<std::string> init;
        bool baseHasCtor = !inherited.empty() && HasFullConstructor(t->base.decl);
        if (baseHasCtor) {
            std::string args;
            for (const Field* f : inherited) args += (args.empty() ? "" : ", ") + SafeName(f->name);
            init.push_back(base + "(" + args + ")");
        }
        std::string body;
        if (!baseHasCtor)
            for (const Field* f : inherited) body += "    Set" + AccessorStem(*f) + "(" + SafeName(f->name) + ");\n";
        for (const auto& f : t->fields) {
            if (IsSlot(TypesOf(f).storage)) body += "    " + MemberName(f) + ".Store(" + SafeName(f.name) + ");\n";
            else init.push_back(MemberName(f) + "(" + SafeName(f.name) + ")");
        }
        for (size_t i = 0; i < init.size(); ++i) p.Print("$sep$$i$", {{"sep", i ? ", " : "\n    : "}, {"i", init[i]}});
        p.Print(" {\n$body$}\n", {{"body", body}});
    }
    p.Print("$q$* $q$::_Clone() const { return new $q$(*this); }\n"
            "::Kitra::Type* $q$::_GetType() const { return ::Kitra::GetType<$flat$>(); }\n"
            "::Kitra::DataObjectType* $q$::_GetDataType() const {\n"
            "    static ::Kitra::DataObjectType* cache;\n"
            "    return ::Kitra::Binding::DataTypeOnce(cache, ::Kitra::GetType<$flat$>());\n}\n",
            {{"q", q}, {"flat", flat}});
    if (hasFields) {
        p.Print("unsigned $q$::_GetSize(::Kitra::Sizer sizer) const {\n"
                "    return ::Kitra::Binding::SizeOf(sizer, sizeof($flat$), sizeof($base$), $base$::_GetSize(sizer), _kLayout, this);\n}\n"
                "bool $q$::_EqualFields(const ::Kitra::DataObject* other, bool partial) const {\n"
                "    return $base$::_EqualFields(other, partial) &&\n"
                "           ::Kitra::Fields::Equal(_kLayout, this, static_cast<const $flat$*>(other), partial);\n}\n"
                "void $q$::_DiffFields(const ::Kitra::DataObject* other, const std::string& prefix,\n"
                "                      ::Kitra::PropertyDiffSet& diffs) const {\n"
                "    $base$::_DiffFields(other, prefix, diffs);\n"
                "    ::Kitra::Fields::Diff(_kLayout, this, static_cast<const $flat$*>(other), prefix, diffs);\n}\n",
                {{"q", q}, {"flat", flat}, {"base", base}});
    }
    for (const auto& f : t->fields) {
        FieldTypes ft = TypesOf(f);
        if (ft.inlineAccess) continue;
        std::string get = ft.storage == Storage::Any ? MemberName(f) + ".Get()"
                                                     : "static_cast<" + ft.result + ">(" + MemberName(f) + ".Get())";
        p.Print("$result$ $q$::$getter$() const { return $get$; }\n"
                "void $q$::Set$stem$($param$ value) { $member$.Store(value); }\n",
                {{"result", ft.result}, {"q", q}, {"getter", GetterName(f)}, {"get", get}, {"stem", AccessorStem(f)},
                 {"param", ft.param}, {"member", MemberName(f)}});
    }
    if (t->isFault) {
        std::string params = ConstructorParams(t);
        std::string args;
        for (const Field* f : AllFields(t)) args += (args.empty() ? "" : ", ") + SafeName(f->name);
        p.Print("void $q$::Throw() { throw Exception(this); }\n"
                "$q$::Exception* $q$::CreateException() { return new (std::nothrow) Exception(this); }\n"
                "$q$::Exception::Exception($flat$* fault) : $base$::Exception(fault) {}\n"
                "$q$::Exception::Exception($params$) : Exception(new (std::nothrow) $flat$($args$)) {}\n"
                "$q$* $q$::Exception::GetFault() const {\n"
                "    return ::Kitra::CheckedCast<$flat$>(::Kitra::MethodFault::Exception::GetFault());\n}\n"
                "::Fundix::Exception* $q$::Exception::Clone() const { return new (std::nothrow) Exception(*this); }\n"
                "void $q$::Exception::Throw() const { throw Exception(*this); }\n",
                {{"q", q}, {"flat", flat}, {"base", base}, {"params", params}, {"args", args}});
    }
}

void ModuleEmitter::EmitManagedSource(Printer& p, const TypeDecl* t) {
    const std::string id = t->flatName;
    p.Print("\n// ---- $wire$\n\nnamespace {\n\n", {{"wire", t->wireName}});
    for (size_t m = 0; m < t->methods.size(); ++m) {
        const Method& mt = t->methods[m];
        std::string mid = id + "_" + std::to_string(m);
        if (!mt.params.empty()) {
            p.Print("::Kitra::ParamTypeInfo kPa_$mid$[] = {\n", {{"mid", mid}});
            for (size_t i = 0; i < mt.params.size(); ++i) {
                const Param& pa = mt.params[i];
                std::string word = RecordWord(pa.type, "kPa_" + mid + "[" + std::to_string(i) + "].type");
                p.Print("    {$name$, nullptr, $type$, $flags$, $version$},\n",
                        {{"name", Quote(pa.name)}, {"type", word}, {"flags", std::to_string(pa.flags)},
                         {"version", Quote(pa.version.empty() ? mt.version : pa.version)}});
            }
            p.Print("    {nullptr, nullptr, nullptr, ::Kitra::kFlagTerminator, nullptr},\n};\n");
        }
        if (!mt.faults.empty()) {
            p.Print("const ::Kitra::TypeInfo* kFa_$mid$[] = {", {{"mid", mid}});
            for (size_t i = 0; i < mt.faults.size(); ++i)
                p.Print("$w$, ", {{"w", RecordWord(mt.faults[i], "kFa_" + mid + "[" + std::to_string(i) + "]")}});
            p.Print("nullptr};\n");
        }
    }
    if (!t->methods.empty()) {
        p.Print("::Kitra::MethodTypeInfo kM_$id$[] = {\n", {{"id", id}});
        for (size_t m = 0; m < t->methods.size(); ++m) {
            const Method& mt = t->methods[m];
            std::string mid = id + "_" + std::to_string(m);
            std::string resultType = "nullptr";
            std::string resultVersion = "kodl.version.version0";
            if (mt.hasResult) {
                resultType = RecordWord(mt.result, "kM_" + id + "[" + std::to_string(m) + "].result.type");
                resultVersion = mt.version;
            }
            p.Print("    {$name$, $wsdl$, $priv$, 0, {\"result\", nullptr, $rtype$, $rflags$, $rversion$},\n"
                    "     $params$, $faults$, $flags$, $version$},\n",
                    {{"name", Quote(mt.name)}, {"wsdl", Quote(mt.wsdlName)}, {"priv", OrNull(mt.hasPrivilege, mt.privilege)},
                     {"rtype", resultType}, {"rflags", std::to_string(mt.resultFlags)}, {"rversion", Quote(resultVersion)},
                     {"params", mt.params.empty() ? "nullptr" : "kPa_" + mid},
                     {"faults", mt.faults.empty() ? "nullptr" : "kFa_" + mid}, {"flags", Hex(mt.flags)},
                     {"version", Quote(mt.version)}});
        }
        p.Print("    {nullptr, nullptr, nullptr, 0, {nullptr, nullptr, nullptr, 0, nullptr}, nullptr, nullptr, 0, nullptr},\n};\n");
    }
    if (!t->properties.empty()) {
        p.Print("::Kitra::PropertyTypeInfo kP_$id$[] = {\n", {{"id", id}});
        for (size_t i = 0; i < t->properties.size(); ++i) {
            const Property& pr = t->properties[i];
            std::string word = RecordWord(pr.type, "kP_" + id + "[" + std::to_string(i) + "].type");
            p.Print("    {$name$, $priv$, nullptr, $type$, $flags$, $version$},\n",
                    {{"name", Quote(pr.name)}, {"priv", OrNull(pr.hasPrivilege, pr.privilege)}, {"type", word},
                     {"flags", std::to_string(pr.flags)}, {"version", Quote(t->version)}});
        }
        p.Print("    {nullptr, nullptr, nullptr, nullptr, ::Kitra::kFlagTerminator, nullptr},\n};\n");
    }
    // Server-side dispatch and stub creation.
    auto ops = OperationsOf(t);
    p.Print("\n::Kitra::ManagedObject* NewStub_$id$(const std::string& id, ::Kitra::StubAdapter* adapter,\n"
            "                                   ::Kitra::RequestContext* context) {\n"
            "    return new $q$Stub(id, adapter, context);\n}\n\n"
            "void Invoke_$id$(::Kitra::ManagedObject* object, int index, ::Fundix::RefVector<::Kitra::Any>& args,\n"
            "                 ::Fundix::Ref<::Kitra::Any>& result) {\n"
            "    auto* self = ::Kitra::Binding::Target<$q$>(object);\n    (void)args;\n    (void)result;\n    switch (index) {\n",
            {{"id", id}, {"q", t->qualFlat}});
    for (size_t i = 0; i < ops.size(); ++i) {
        const Operation& op = ops[i];
        std::string call = "self->" + op.cppName + "(";
        for (size_t a = 0; a < op.params.size(); ++a) {
            const Param& pa = op.params[a];
            call += (a ? ", " : "") +
                    UnboxExpr(pa.type, pa.flags, "::Kitra::Binding::Arg(args, " + std::to_string(a) + ", " + Quote(pa.name) + ")",
                              pa.name);
        }
        p.Print("    case $i$: {\n", {{"i", std::to_string(i)}});
        if (!op.hasResult) {
            p.Print("        $call$);\n        result = nullptr;\n", {{"call", call}});
        } else {
            CallType c = CallTypeOf(op.result, op.resultFlags);
            if (c.slot) {
                p.Print("        ::Fundix::Ref<$t$> r;\n        $call$$sep$r);\n        result = ::Kitra::Binding::BoxRef(r.Get());\n",
                        {{"t", c.pointee}, {"call", call}, {"sep", op.params.empty() ? "" : ", "}});
            } else if (c.optional) {
                p.Print("        result = ::Kitra::Binding::BoxOptional<$t$>($call$));\n", {{"t", c.value}, {"call", call}});
            } else {
                p.Print("        result = ::Kitra::Binding::BoxValue<$t$>($call$));\n", {{"t", c.value}, {"call", call}});
            }
        }
        p.Print("        return;\n    }\n");
    }
    p.Print("    default: break;\n    }\n    ::Kitra::Binding::ThrowNoMethod($wire$, index);\n}\n",
            {{"wire", Quote(t->wireName)}});

    std::string baseWord = "nullptr";
    if (t->hasBase) baseWord = RecordWord(t->base, "kMt_" + id + ".base");
    else imports_.push_back({"&::Kitra::gManagedObjectTypeInfo", "kMt_" + id + ".base"});
    std::string moName;
    std::string moNs = SplitNamespace(t->methodObjectsName, moName);
    size_t slots = t->methods.size() + t->properties.size();
    p.Print("\n}  // namespace\n\n$open$::Kitra::ManagedMethod* $mo$[$n$];\n$close$\nnamespace {\n"
            "::Kitra::ManagedTypeInfo kMt_$id$ = {\n    &$record$, $base$, $props$, $methods$,\n"
            "    &Invoke_$id$, &NewStub_$id$, $mofull$,\n};\n}  // namespace\n\n",
            {{"open", moNs.empty() ? "" : "namespace " + moNs + " {\n"}, {"close", moNs.empty() ? "" : "}\n"},
             {"mo", moName}, {"n", std::to_string(std::max<size_t>(slots, 1))}, {"id", id},
             {"record", t->recordName}, {"base", baseWord},
             {"props", t->properties.empty() ? "nullptr" : "kP_" + id},
             {"methods", t->methods.empty() ? "nullptr" : "kM_" + id}, {"mofull", t->methodObjectsName}});
    EmitTypeRecord(p, t, "::Kitra::kKindManaged");
    p.Print("\ntemplate <>\n::Kitra::Type* Kitra::GetType<$q$>() {\n"
            "    static ::Kitra::Binding::TypeCache cache;\n"
            "    return ::Kitra::Binding::GetTypeOnce(cache, &::Kitra::Binding::CreateManaged, &kMt_$id$);\n}\n",
            {{"q", t->qualFlat}, {"id", id}});
    for (const auto& mt : t->methods)
        p.Print("const char* const $q$::METHOD_$up$ = $wire$;\n",
                {{"q", t->qualFlat.substr(2)}, {"up", Upper(mt.name)}, {"wire", Quote(t->wireName + "." + mt.name)}});

    std::string stub = t->qualFlat.substr(2) + "Stub";
    std::string init = "::Kitra::StubImpl(id, adapter, context)";
    if (t->hasBase) init += ", " + t->base.decl->qualFlat + "Stub(id, adapter, context)";
    p.Print("\n$stub$::$name$(const std::string& id, ::Kitra::StubAdapter* adapter, ::Kitra::RequestContext* context)\n"
            "    : $init$ {}\n"
            "::Kitra::Type* $stub$::_GetType() const { return ::Kitra::GetType<$q$>(); }\n",
            {{"stub", stub}, {"name", StubName(t)}, {"init", init}, {"q", t->qualFlat}});
    for (size_t i = 0; i < ops.size(); ++i) {
        const Operation& op = ops[i];
        std::string boxes;
        for (size_t a = 0; a < op.params.size(); ++a)
            boxes += "    args[" + std::to_string(a) + "] = " + BoxExpr(op.params[a]) + ";\n";
        std::string slot = t->methodObjectsName + "[" + std::to_string(i) + "]";
        std::string tail;
        if (op.hasResult) {
            CallType c = CallTypeOf(op.result, op.resultFlags);
            if (c.slot) tail = "    result = " + UnboxExpr(op.result, op.resultFlags, "r.Get()", "result") + ";\n";
            else tail = "    return " + UnboxExpr(op.result, op.resultFlags, "r.Get()", "result") + ";\n";
        }
        p.Print("$sig$ {\n    ::Fundix::RefVector<::Kitra::Any> args($n$);\n$boxes$"
                "    ::Fundix::Ref<::Kitra::Any> r;\n    _Invoke($slot$, args, r);\n$tail$}\n",
                {{"sig", SyncSignature(op, stub + "::")}, {"n", std::to_string(op.params.size())}, {"boxes", boxes},
                 {"slot", slot}, {"tail", tail}});
        if (op.async)
            p.Print("$sig$ {\n    ::Fundix::RefVector<::Kitra::Any> args($n$);\n$boxes$"
                    "    _StartInvoke($slot$, args, completion, item);\n}\n",
                    {{"sig", AsyncSignature(op, stub + "::")}, {"n", std::to_string(op.params.size())},
                     {"boxes", boxes}, {"slot", slot}});
    }
    EmitImplBaseSource(p, t);
}

void ModuleEmitter::EmitImplBaseSource(Printer& p, const TypeDecl* t) {
    std::string impl = t->qualFlat.substr(2) + "Base::";
    p.Print("\n");
    for (const auto& op : OperationsOf(t))
        p.Print("$sig$ { ::Kitra::ThrowNotImplemented($wire$); }\n",
                {{"sig", SyncSignature(op, impl, false)}, {"wire", Quote(op.wire)}});
}

void ModuleEmitter::EmitEnumSource(Printer& p, const TypeDecl* t) {
    const std::string id = t->flatName;
    std::string scope = t->outer ? t->outer->qualFlat.substr(2) + "::" : t->ns + "::";
    p.Print("\n// ---- $wire$\n\n", {{"wire", t->wireName}});
    for (size_t i = 0; i < t->values.size(); ++i) {
        std::string constant = scope + EnumConstantName(t, t->values[i]);
        p.Print("const char* const $c$ = $v$;\n", {{"c", constant}, {"v", Quote(t->values[i])}});
        enumFills_.push_back("kV_" + id + "[" + std::to_string(i) + "] = " + constant + ";");
    }
    EmitTypeRecord(p, t, "::Kitra::kKindEnum");
    p.Print("\nnamespace {\nconst char* kV_$id$[$n$];  // filled at load from the constants above\n"
            "const ::Kitra::EnumTypeInfo kE_$id$ = {&$record$, kV_$id$};\n}  // namespace\n\n"
            "template <>\n::Kitra::Type* Kitra::GetType<$q$>() {\n"
            "    static ::Kitra::Binding::TypeCache cache;\n"
            "    return ::Kitra::Binding::GetTypeOnce(cache, &::Kitra::Binding::CreateEnum<$q$>, &kE_$id$);\n}\n",
            {{"id", id}, {"n", std::to_string(t->values.size() + 1)}, {"record", t->recordName}, {"q", t->qualFlat}});
}

std::string ModuleEmitter::Source() {
    Printer body;
    for (const auto* t : types_) {
        if (t->kind == TypeDecl::Data) EmitDataSource(body, t);
        else if (t->kind == TypeDecl::Managed) EmitManagedSource(body, t);
        else EmitEnumSource(body, t);
    }

    Printer p;
    p.Print("// Generated by kodlgen from the definition of module $module$. Do not edit.\n#include <$header$>\n\n"
            "#include <cstddef>\n#include <new>\n\n",
            {{"module", module_.prefix}, {"header", module_.headerPath}});
    std::set<std::string> includes;
    ForEachRef([&](const TypeRef& r) {
        if (r.decl && r.decl->module != &module_ && !r.decl->builtin) includes.insert(r.decl->module->headerPath);
    });
    for (const auto& inc : includes) p.Print("#include <$h$>\n", {{"h", inc}});
    p.Print("\n// Field offsets are taken within classes that have a virtual base; the fields themselves lie\n"
            "// outside it, so their offsets are fixed for every object of the class.\n"
            "#if defined(__GNUC__)\n#pragma GCC diagnostic ignored \"-Winvalid-offsetof\"\n#endif\n\n"
            "namespace Kitra::Binding {\nextern const VersionTable g$lib$Versions;\n}\n",
            {{"lib", Capitalize(library_)}});
    p.Raw(body.Text());

    // The load-time initialiser: words that name records of other libraries, one group per record,
    // and the enumeration value tables.
    p.Print("\nnamespace {\n\nvoid FillWordsAtLoad() {\n");
    std::vector<std::string> order;
    std::map<std::string, std::vector<std::string>> groups;
    for (const auto& [record, word] : imports_) {
        if (!groups.count(record)) order.push_back(record);
        groups[record].push_back(word);
    }
    for (const auto& record : order) {
        p.Print("    {\n        const ::Kitra::TypeInfo* r = $r$;\n", {{"r", record}});
        for (const auto& w : groups[record]) p.Print("        $w$ = r;\n", {{"w", w}});
        p.Print("    }\n");
    }
    for (const auto& fill : enumFills_) p.Print("    $f$\n", {{"f", fill}});
    p.Print("}\n\n::Kitra::Type* (*const kTypes[])() = {\n");
    for (const auto* t : ordered_) p.Print("    &::Kitra::GetType<$q$>,\n", {{"q", t->qualFlat}});
    if (ordered_.empty()) p.Print("    nullptr,\n");
    int line = module_.assertLine ? module_.assertLine : p.LineCount() + 5;
    p.Print("};\n\n// Registers the module at load: versions and relations, then every type in catalogue order.\n"
            "struct Registrar {\n    Registrar() {\n        FillWordsAtLoad();\n"
            "        ::Kitra::Binding::RegisterModule({$source$, $line$, &::Kitra::Binding::g$lib$Versions, kTypes, $n$});\n"
            "    }\n};\nconst Registrar gRegistrar;\n\n}  // namespace\n",
            {{"source", Quote(module_.sourcePath)}, {"line", std::to_string(line)}, {"lib", Capitalize(library_)},
             {"n", std::to_string(ordered_.size())}});
    return p.Text();
}

std::string VersionsSource(const Model& model, const std::string& library) {
    Printer p;
    p.Print("// Generated by kodlgen from the version definitions. Do not edit.\n"
            "#include <kitra/Module.h>\n\nnamespace Kitra::Binding {\n\nnamespace {\n\n"
            "const VersionEntry kVersions[] = {\n");
    size_t relations = 0;
    for (const auto& v : model.versions) {
        p.Print("    {$n$, $w$, $s$, $sv$},\n", {{"n", Quote(v.name)}, {"w", Quote(v.wireNamespace)},
                                                {"s", Quote(v.versionString)}, {"sv", Quote(v.serviceNamespace)}});
        relations += v.includes.size();
    }
    p.Print("};\n\nconst RelationEntry kRelations[] = {\n");
    for (const auto& v : model.versions)
        for (const auto& inc : v.includes) p.Print("    {$v$, $i$},\n", {{"v", Quote(v.name)}, {"i", Quote(inc)}});
    if (relations == 0) p.Print("    {nullptr, nullptr},\n");
    p.Print("};\n\n}  // namespace\n\nextern const VersionTable g$lib$Versions;\n"
            "const VersionTable g$lib$Versions = {kVersions, $nv$, kRelations, $nr$};\n\n}  // namespace Kitra::Binding\n",
            {{"lib", Capitalize(library)}, {"nv", std::to_string(model.versions.size())},
             {"nr", std::to_string(relations)}});
    return p.Text();
}

}  // namespace

std::vector<OutputFile> Emit(const Model& model, const std::string& library) {
    std::vector<OutputFile> files;
    for (const auto& m : model.modules) {
        if (m->imported) continue;
        bool any = false;
        for (const auto& t : m->types) any = any || !t->builtin;
        if (!any) continue;
        ModuleEmitter emitter(*m, library);
        files.push_back({"include/" + m->headerPath, emitter.Header()});
        std::string source = m->headerPath.substr(0, m->headerPath.size() - 2) + ".cpp";
        files.push_back({"src/" + source, emitter.Source()});
    }
    files.push_back({"src/" + library + "_versions.cpp", VersionsSource(model, library)});
    // One header that includes every module of the library.
    std::string umbrella = "// Generated by kodlgen. Do not edit.\n// Every module of the " + library + " library.\n#pragma once\n\n";
    std::string dir;
    for (const auto& f : files) {
        if (f.path.rfind("include/", 0) != 0) continue;
        umbrella += "#include <" + f.path.substr(8) + ">\n";
        if (dir.empty()) dir = f.path.substr(8, f.path.find('/', 8) - 8);
    }
    if (!dir.empty()) files.push_back({"include/" + dir + "/" + library + "Types.h", umbrella});
    return files;
}

}  // namespace kodlgen
