// Managed types: the interface class (one pure virtual operation per method and property), the client
// stub, the implementation base whose operations raise kodl.fault.NotImplemented, and in the source the
// method and property records, the server-side dispatch and the stub's operations.
#include <algorithm>

#include "Emit.h"

namespace kodlgen::emit {

void ModuleEmitter::EmitManagedClass(Printer& p, const TypeDecl* t) {
    std::string base = t->hasBase ? t->base.decl->qualFlat : "::Kitra::ManagedObject";
    p.Print(R"(
// $wire$
class $flat$ : public virtual $base$ {
public:
)",
            {{"wire", t->wireName}, {"flat", t->flatName}, {"base", base}});
    EmitNestedAliases(p, t);
    for (const auto& m : t->methods) p.Print("    static const char* const METHOD_$name$;\n", {{"name", Upper(m.name)}});
    auto ops = OperationsOf(t);
    if (!ops.empty()) p.Print("\n");
    for (const auto& op : ops) p.Print("    virtual $sig$ = 0;\n", {{"sig", SyncSignature(op, "")}});
    p.Print(R"(
protected:
    $flat$() = default;
};
)",
            {{"flat", t->flatName}});

    // The client stub: every operation turned into a call through the stub adapter.
    std::string bases = "public virtual " + t->flatName + ", public virtual ::Kitra::StubImpl";
    if (t->hasBase) bases += ", public " + t->base.decl->qualFlat + "Stub";
    p.Print(R"(
// The client stub of $wire$.
class $stub$ : $bases$ {
public:
    $stub$(const std::string& id, ::Kitra::StubAdapter* adapter, ::Kitra::RequestContext* context);
    ::Kitra::Type* _GetType() const override;
)",
            {{"wire", t->wireName}, {"stub", StubName(t)}, {"bases", bases}});
    for (const auto& op : ops) {
        p.Print("    $sig$ override;\n", {{"sig", SyncSignature(op, "")}});
        if (op.async) p.Print("    $sig$;\n", {{"sig", AsyncSignature(op, "")}});
    }
    p.Print(R"(
private:
    ::Kitra::LocalTarget<$flat$> _localTarget;  // the implementation, when the adapter is in-process
};
)",
            {{"flat", t->flatName}});

    // The base of implementations: every operation raises kodl.fault.NotImplemented naming it.
    std::string implBases = "public virtual " + t->flatName + ", public virtual ::Kitra::ManagedObjectImpl";
    if (t->hasBase) implBases += ", public " + t->base.decl->qualFlat + "Base";
    p.Print(R"(
// The base of an implementation of $wire$: every operation it does not override raises
// kodl.fault.NotImplemented naming the operation.
class $impl$ : $bases$ {
public:
)",
            {{"wire", t->wireName}, {"impl", ImplBaseName(t)}, {"bases", implBases}});
    for (const auto& op : ops) p.Print("    $sig$ override;\n", {{"sig", SyncSignature(op, "")}});
    p.Print(R"(
protected:
    $impl$() = default;
};
)",
            {{"impl", ImplBaseName(t)}});
}

void ModuleEmitter::EmitManagedSource(Printer& p, const TypeDecl* t) {
    p.Print(R"(
// ---- $wire$

)",
            {{"wire", t->wireName}});
    EmitTypeRecord(p, t, "::Kitra::kKindManaged");
    EmitManagedRecords(p, t);
    EmitDispatch(p, t);
    EmitStubSource(p, t);
    EmitImplBaseSource(p, t);
}

// The parameter and fault lists of each method, the method and property tables, and the type's record.
void ModuleEmitter::EmitManagedRecords(Printer& p, const TypeDecl* t) {
    const std::string id = t->flatName;
    p.Print("\nnamespace {\n");
    for (size_t m = 0; m < t->methods.size(); ++m) {
        const Method& mt = t->methods[m];
        std::string mid = id + "_" + std::to_string(m);
        if (!mt.params.empty()) {
            p.Print("\n// $method$: name, privilege, type, flags, version\n"
                    "constinit const ::Kitra::ParamTypeInfo kPa_$mid$[] = {\n",
                    {{"method", mt.name}, {"mid", mid}});
            for (const auto& pa : mt.params)
                p.Print("    {$name$, nullptr, $type$, $flags$, $version$},\n",
                        {{"name", Quote(pa.name)}, {"type", RecordAddress(pa.type)}, {"flags", std::to_string(pa.flags)},
                         {"version", Quote(pa.version.empty() ? mt.version : pa.version)}});
            p.Print("    {nullptr, nullptr, nullptr, ::Kitra::kFlagTerminator, nullptr},\n};\n");
        }
        if (!mt.faults.empty()) {
            std::string faults;
            for (const auto& f : mt.faults) faults += RecordAddress(f) + ", ";
            p.Print("constinit const ::Kitra::TypeInfo* const kFa_$mid$[] = {$faults$nullptr};\n",
                    {{"mid", mid}, {"faults", faults}});
        }
    }
    if (!t->methods.empty()) {
        p.Print(R"(
// name, interface-description name, privilege, 0, result {name, privilege, type, flags, version},
// parameters, faults, method flags, version
constinit const ::Kitra::MethodTypeInfo kM_$id$[] = {
)",
                {{"id", id}});
        for (size_t m = 0; m < t->methods.size(); ++m) {
            const Method& mt = t->methods[m];
            std::string mid = id + "_" + std::to_string(m);
            p.Print(R"(    {$name$, $wsdl$, $priv$, 0, {"result", nullptr, $rtype$, $rflags$, $rversion$},
     $params$, $faults$, $flags$, $version$},
)",
                    {{"name", Quote(mt.name)}, {"wsdl", Quote(mt.wsdlName)}, {"priv", OrNull(mt.hasPrivilege, mt.privilege)},
                     {"rtype", mt.hasResult ? RecordAddress(mt.result) : "nullptr"},
                     {"rflags", std::to_string(mt.resultFlags)},
                     {"rversion", Quote(mt.hasResult ? mt.version : "kodl.version.version0")},
                     {"params", mt.params.empty() ? "nullptr" : "kPa_" + mid},
                     {"faults", mt.faults.empty() ? "nullptr" : "kFa_" + mid}, {"flags", Hex(mt.flags)},
                     {"version", Quote(mt.version)}});
        }
        p.Print("    {nullptr, nullptr, nullptr, 0, {nullptr, nullptr, nullptr, 0, nullptr}, nullptr, nullptr, 0, nullptr},\n};\n");
    }
    if (!t->properties.empty()) {
        p.Print(R"(
// name, privilege, extra, type, flags, version
constinit const ::Kitra::PropertyTypeInfo kP_$id$[] = {
)",
                {{"id", id}});
        for (const auto& pr : t->properties)
            p.Print("    {$name$, $priv$, nullptr, $type$, $flags$, $version$},\n",
                    {{"name", Quote(pr.name)}, {"priv", OrNull(pr.hasPrivilege, pr.privilege)},
                     {"type", RecordAddress(pr.type)}, {"flags", std::to_string(pr.flags)}, {"version", Quote(t->version)}});
        p.Print("    {nullptr, nullptr, nullptr, nullptr, ::Kitra::kFlagTerminator, nullptr},\n};\n");
    }
}

// Server-side dispatch, stub creation and the type's record with its method objects (still inside the
// anonymous namespace that the records opened).
void ModuleEmitter::EmitDispatch(Printer& p, const TypeDecl* t) {
    const std::string id = t->flatName;
    auto ops = OperationsOf(t);
    p.Print(R"(
::Kitra::ManagedObject* NewStub_$id$(const std::string& id, ::Kitra::StubAdapter* adapter,
                                   ::Kitra::RequestContext* context) {
    return new $q$Stub(id, adapter, context);
}

void Invoke_$id$(::Kitra::ManagedObject* object, int index, ::Fundix::RefVector<::Kitra::Any>& args,
                 ::Fundix::Ref<::Kitra::Any>& result) {
    auto* self = ::Kitra::Binding::Target<$q$>(object);
    (void)args;
    (void)result;
    switch (index) {
)",
            {{"id", id}, {"q", t->qualFlat}});
    for (size_t i = 0; i < ops.size(); ++i) {
        const Operation& op = ops[i];
        std::string call = "self->" + op.cppName + "(";
        for (size_t a = 0; a < op.params.size(); ++a) {
            const Param& pa = op.params[a];
            std::string arg = "::Kitra::Binding::Arg(args, " + std::to_string(a) + ", " + Quote(pa.name) + ")";
            call += (a ? ", " : "") + UnboxExpr(pa.type, pa.flags, arg, pa.name);
        }
        p.Print("    case $i$: {  // $name$\n", {{"i", std::to_string(i)}, {"name", op.wire.substr(t->wireName.size() + 1)}});
        if (!op.hasResult) {
            p.Print(R"(        $call$);
        result = nullptr;
)",
                    {{"call", call}});
        } else {
            CallType c = CallTypeOf(op.result, op.resultFlags);
            if (c.slot) {
                p.Print(R"(        ::Fundix::Ref<$t$> r;
        $call$$sep$r);
        result = ::Kitra::Binding::BoxRef(r.Get());
)",
                        {{"t", c.pointee}, {"call", call}, {"sep", op.params.empty() ? "" : ", "}});
            } else {
                p.Print("        result = ::Kitra::Binding::$box$<$t$>($call$));\n",
                        {{"box", c.optional ? "BoxOptional" : "BoxValue"}, {"t", c.value}, {"call", call}});
            }
        }
        p.Print("        return;\n    }\n");
    }
    std::string moName;
    std::string moNs = SplitNamespace(t->methodObjectsName, moName);
    size_t slots = t->methods.size() + t->properties.size();
    p.Print(R"(    default: break;
    }
    ::Kitra::Binding::ThrowNoMethod($wire$, index);
}

}  // namespace

$open$::Kitra::ManagedMethod* $mo$[$n$];
$close$
namespace {
// type, base, properties, methods, dispatch, stub factory, method objects
constinit const ::Kitra::ManagedTypeInfo kMt_$id$ = {
    &$record$, $base$, $props$, $methods$, &Invoke_$id$, &NewStub_$id$, $mofull$,
};
}  // namespace

template <>
::Kitra::Type* Kitra::GetType<$q$>() {
    static ::Kitra::Binding::TypeCache cache;
    return ::Kitra::Binding::GetTypeOnce(cache, &::Kitra::Binding::CreateManaged, &kMt_$id$);
}
)",
            {{"wire", Quote(t->wireName)}, {"open", moNs.empty() ? "" : "namespace " + moNs + " {\n"},
             {"close", moNs.empty() ? "" : "}  // namespace " + moNs + "\n"}, {"mo", moName},
             {"n", std::to_string(std::max<size_t>(slots, 1))}, {"id", id}, {"record", t->recordName},
             {"base", t->hasBase ? RecordAddress(t->base) : "&::Kitra::gManagedObjectTypeInfo"},
             {"props", t->properties.empty() ? "nullptr" : "kP_" + id},
             {"methods", t->methods.empty() ? "nullptr" : "kM_" + id}, {"mofull", t->methodObjectsName},
             {"q", t->qualFlat}});
    for (const auto& mt : t->methods)
        p.Print("const char* const $q$::METHOD_$up$ = $wire$;\n",
                {{"q", t->qualFlat.substr(2)}, {"up", Upper(mt.name)}, {"wire", Quote(t->wireName + "." + mt.name)}});
}

// The stub's operations: in process, a direct call on the implementation; otherwise the arguments boxed
// into a vector, the call through the adapter, the result unboxed.
void ModuleEmitter::EmitStubSource(Printer& p, const TypeDecl* t) {
    std::string stub = t->qualFlat.substr(2) + "Stub";
    std::string init = "::Kitra::StubImpl(id, adapter, context)";
    if (t->hasBase) init += ", " + t->base.decl->qualFlat + "Stub(id, adapter, context)";
    p.Print(R"(
$stub$::$name$(const std::string& id, ::Kitra::StubAdapter* adapter, ::Kitra::RequestContext* context)
    : $init$ {}
::Kitra::Type* $stub$::_GetType() const { return ::Kitra::GetType<$q$>(); }
)",
            {{"stub", stub}, {"name", StubName(t)}, {"init", init}, {"q", t->qualFlat}});
    auto ops = OperationsOf(t);
    for (size_t i = 0; i < ops.size(); ++i) {
        const Operation& op = ops[i];
        std::string boxes;
        for (size_t a = 0; a < op.params.size(); ++a)
            boxes += "    args[" + std::to_string(a) + "] = " + BoxExpr(op.params[a]) + ";\n";
        std::string slot = t->methodObjectsName + "[" + std::to_string(i) + "]";
        std::string tail;
        if (op.hasResult) {
            CallType c = CallTypeOf(op.result, op.resultFlags);
            tail = std::string(c.slot ? "    result = " : "    return ") +
                   UnboxExpr(op.result, op.resultFlags, "r.Get()", "result") + ";\n";
        }
        std::string call = op.cppName + "(";
        for (size_t a = 0; a < op.params.size(); ++a) call += (a ? ", " : "") + SafeName(op.params[a].name);
        if (op.hasResult && CallTypeOf(op.result, op.resultFlags).slot) call += op.params.empty() ? "result" : ", result";
        call += ")";
        Printer::Vars vars = {{"sig", SyncSignature(op, stub + "::")},
                              {"call", call},
                              {"async", op.async ? AsyncSignature(op, stub + "::") : ""},
                              {"n", std::to_string(op.params.size())},
                              {"boxes", boxes},
                              {"slot", slot},
                              {"tail", tail}};
        p.Print(R"($sig$ {
    if (auto* _target = _localTarget.Get(*this)) return _target->$call$;
    ::Fundix::RefVector<::Kitra::Any> args($n$);
$boxes$    ::Fundix::Ref<::Kitra::Any> r;
    _Invoke($slot$, args, r);
$tail$}
)",
                vars);
        if (op.async) {
            p.Print(R"($async$ {
    ::Fundix::RefVector<::Kitra::Any> args($n$);
$boxes$    _StartInvoke($slot$, args, completion, item);
}
)",
                    vars);
        }
    }
}

void ModuleEmitter::EmitImplBaseSource(Printer& p, const TypeDecl* t) {
    std::string impl = t->qualFlat.substr(2) + "Base::";
    p.Print("\n");
    for (const auto& op : OperationsOf(t))
        p.Print("$sig$ { ::Kitra::ThrowNotImplemented($wire$); }\n",
                {{"sig", SyncSignature(op, impl, false)}, {"wire", Quote(op.wire)}});
}

}  // namespace kodlgen::emit
