// Enumerations: a scoped enumeration over int32_t in the header, a text constant per value, and in the
// source the value table the type record points to.
#include "Emit.h"

namespace kodlgen::emit {

void ModuleEmitter::EmitEnumDecl(Printer& p, const TypeDecl* t) {
    std::string values;
    for (size_t i = 0; i < t->values.size(); ++i) values += (i ? ", " : " ") + SafeName(t->values[i]);
    p.Print(R"(
// $wire$
enum class $flat$ : int32_t {$values$ };
)",
            {{"wire", t->wireName}, {"flat", t->flatName}, {"values", values}});
}

void ModuleEmitter::EmitEnumSource(Printer& p, const TypeDecl* t) {
    const std::string id = t->flatName;
    std::string scope = t->outer ? t->outer->qualFlat.substr(2) + "::" : t->ns + "::";
    p.Print(R"(
// ---- $wire$

)",
            {{"wire", t->wireName}});
    EmitTypeRecord(p, t, "::Kitra::kKindEnum");
    std::string texts;
    for (const auto& v : t->values) texts += Quote(v) + ", ";
    p.Print(R"(
namespace {
constexpr const char* kV_$id$[] = {$texts$nullptr};
constinit const ::Kitra::EnumTypeInfo kE_$id$ = {&$record$, kV_$id$};
}  // namespace

)",
            {{"id", id}, {"texts", texts}, {"record", t->recordName}});
    for (size_t i = 0; i < t->values.size(); ++i)
        p.Print("const char* const $constant$ = kV_$id$[$i$];\n",
                {{"constant", scope + EnumConstantName(t, t->values[i])}, {"id", id}, {"i", std::to_string(i)}});
    p.Print(R"(
template <>
::Kitra::Type* Kitra::GetType<$q$>() {
    static ::Kitra::Binding::TypeCache cache;
    return ::Kitra::Binding::GetTypeOnce(cache, &::Kitra::Binding::CreateEnum<$q$>, &kE_$id$);
}
)",
            {{"q", t->qualFlat}, {"id", id}});
}

}  // namespace kodlgen::emit
