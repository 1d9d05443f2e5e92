// Faults: what a fault class adds to a data object, its nested exception class (derived from its base
// fault's, so handlers can catch at any level of the hierarchy) and the means to raise it.
#include "Emit.h"

namespace kodlgen::emit {

void ModuleEmitter::EmitFaultExceptionClass(Printer& p, const TypeDecl* t) {
    std::string params = ConstructorParams(t);
    p.Print(R"(
    class Exception : public $base$::Exception {
    public:
        explicit Exception($flat$* fault);
)",
            {{"base", BaseClass(t)}, {"flat", t->flatName}});
    if (params.empty()) p.Print("        Exception();\n");
    else
        p.Print("        $explicit$Exception($params$);\n",
                {{"explicit", AllFields(t).size() == 1 ? "explicit " : ""}, {"params", params}});
    p.Print(R"(        $flat$* GetFault() const;
        ::Fundix::Exception* Clone() const override;
        [[noreturn]] void Throw() const override;
    };

)",
            {{"flat", t->flatName}});
}

void ModuleEmitter::EmitFaultSource(Printer& p, const TypeDecl* t) {
    std::string args;
    for (const Field* f : AllFields(t)) args += (args.empty() ? "" : ", ") + SafeName(f->name);
    p.Print(R"(void $q$::Throw() { throw Exception(this); }
$q$::Exception* $q$::CreateException() { return new (std::nothrow) Exception(this); }
$q$::Exception::Exception($flat$* fault) : $base$::Exception(fault) {}
$q$::Exception::Exception($params$) : Exception(new (std::nothrow) $flat$($args$)) {}
$q$* $q$::Exception::GetFault() const {
    return ::Kitra::CheckedCast<$flat$>(::Kitra::MethodFault::Exception::GetFault());
}
::Fundix::Exception* $q$::Exception::Clone() const { return new (std::nothrow) Exception(*this); }
void $q$::Exception::Throw() const { throw Exception(*this); }
)",
            {{"q", t->qualFlat.substr(2)}, {"flat", t->flatName}, {"base", BaseClass(t)},
             {"params", ConstructorParams(t)}, {"args", args}});
}

}  // namespace kodlgen::emit
