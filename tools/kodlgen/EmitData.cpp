// Data objects: the class in the header (fields as plain members, accessors, the full constructor) and in
// the source the type's records, written complete where they stand, and the thin overrides that hand
// every loop over fields to Kitra::Fields.
#include "Emit.h"

namespace kodlgen::emit {

void ModuleEmitter::EmitDataClass(Printer& p, const TypeDecl* t) {
    const std::string& flat = t->flatName;
    p.Print(R"(
// $wire$
class $flat$ : public $base$ {
public:
)",
            {{"wire", t->wireName}, {"flat", flat}, {"base", BaseClass(t)}});
    EmitNestedAliases(p, t);
    if (t->isFault) EmitFaultExceptionClass(p, t);
    p.Print("    $flat$();\n", {{"flat", flat}});
    if (HasFullConstructor(t))
        p.Print("    $explicit$$flat$($params$);\n", {{"explicit", AllFields(t).size() == 1 ? "explicit " : ""},
                                                       {"flat", flat}, {"params", ConstructorParams(t)}});
    p.Print(R"(    ~$flat$() override;
    $flat$* _Clone() const override;
    ::Kitra::Type* _GetType() const override;
    ::Kitra::DataObjectType* _GetDataType() const override;
)",
            {{"flat", flat}});
    if (!t->fields.empty()) p.Print("    unsigned _GetSize(::Kitra::Sizer sizer) const override;\n");
    if (t->isFault) {
        p.Print(R"(    [[noreturn]] void Throw() override;
    Exception* CreateException() override;
)");
    }
    if (!t->fields.empty()) p.Print("\n");
    for (const auto& f : t->fields) {
        FieldTypes ft = TypesOf(f);
        Printer::Vars vars = {{"result", ft.result}, {"getter", GetterName(f)}, {"member", MemberName(f)},
                              {"stem", AccessorStem(f)}, {"param", ft.param}};
        if (ft.inlineAccess) {
            p.Print(R"(    $result$ $getter$() const { return $member$; }
    void Set$stem$($param$ value) { $member$ = value; }
)",
                    vars);
            if (f.flags & 2) p.Print("    void Unset$stem$() { $member$.Unset(); }\n", vars);
        } else {
            p.Print(R"(    $result$ $getter$() const;
    void Set$stem$($param$ value);
)",
                    vars);
            if (f.flags & 2) p.Print("    void Unset$stem$() { $member$.Store(nullptr); }\n", vars);
        }
    }
    if (!t->fields.empty()) {
        p.Print(R"(
    // The records of the own fields, and the layout through which Kitra::Fields reaches them.
    static const ::Kitra::Binding::FieldTable<$n$> _kFields;
    static const ::Kitra::FieldLayout _kLayout;
)",
                {{"n", std::to_string(t->fields.size())}});
    }
    p.Print(R"(
protected:
    $flat$(const $flat$& other);
)",
            {{"flat", flat}});
    if (!t->fields.empty()) {
        p.Print(R"(    bool _EqualFields(const ::Kitra::DataObject* other, bool partial) const override;
    void _DiffFields(const ::Kitra::DataObject* other, const std::string& prefix,
                     ::Kitra::PropertyDiffSet& diffs) const override;

private:
)");
        for (const auto& f : t->fields) {
            FieldTypes ft = TypesOf(f);
            bool zeroed = ft.storage == Storage::Enum ||
                          (ft.storage == Storage::Scalar && !(f.flags & 2) && !PassByReference(ft.member));
            p.Print("    $type$ $member$$init$;\n",
                    {{"type", ft.member}, {"member", MemberName(f)}, {"init", zeroed && !(f.flags & 2) ? "{}" : ""}});
        }
    }
    p.Print("};\n");
}

void ModuleEmitter::EmitDataSource(Printer& p, const TypeDecl* t) {
    const std::string& flat = t->flatName;
    const std::string q = t->qualFlat.substr(2);
    const std::string base = BaseClass(t);
    const bool hasFields = !t->fields.empty();
    bool hasArrays = false;
    for (const auto& f : t->fields) hasArrays = hasArrays || (f.flags & 1);

    p.Print(R"(
// ---- $wire$

)",
            {{"wire", t->wireName}});
    EmitTypeRecord(p, t, t->isFault ? "::Kitra::kKindFault" : "::Kitra::kKindData");
    if (hasFields) {
        // One row per field: its property record (name, extra, type, flags, version) and its storage.
        p.Print("\nconstinit const ::Kitra::Binding::FieldTable<$n$> $q$::_kFields({\n",
                {{"n", std::to_string(t->fields.size())}, {"q", q}});
        for (const auto& f : t->fields) {
            p.Print("    {$name$, $extra$, $type$, $flags$, $version$, offsetof($flat$, $member$), ::Kitra::Storage::$storage$},\n",
                    {{"name", Quote(f.name)}, {"extra", OrNull(f.hasExtra, f.extra)}, {"type", RecordAddress(f.type)},
                     {"flags", std::to_string(f.flags)}, {"version", Quote(f.version.empty() ? t->version : f.version)},
                     {"flat", flat}, {"member", MemberName(f)}, {"storage", StorageName(f)}});
        }
        p.Print(R"(});
constinit const ::Kitra::FieldLayout $q$::_kLayout = {_kFields.properties, _kFields.fields, $n$, _kFields.runs};
)",
                {{"q", q}, {"n", std::to_string(t->fields.size())}});
    }
    Printer::Vars vars = {{"q", q},
                          {"flat", flat},
                          {"id", flat},
                          {"record", "&" + t->recordName},
                          {"base", base},
                          {"baseRecord", RecordAddress(t->base)},
                          {"arrays", hasArrays ? "true" : "false"}};
    if (hasFields) {
        p.Print(R"(
namespace {
constinit const ::Kitra::DataTypeInfo kD_$id$ =
    ::Kitra::Binding::DataRecord<$q$, $arrays$>($record$, $baseRecord$, $q$::_kFields);
}  // namespace
)",
                vars);
    } else {
        p.Print(R"(
namespace {
constinit const ::Kitra::DataTypeInfo kD_$id$ = ::Kitra::Binding::DataRecord<$q$>($record$, $baseRecord$);
}  // namespace
)",
                vars);
    }
    p.Print(R"(
template <>
::Kitra::Type* Kitra::GetType<$q$>() {
    static ::Kitra::Binding::TypeCache cache;
    return ::Kitra::Binding::GetTypeOnce(cache, &::Kitra::Binding::CreateData, &kD_$id$);
}

$q$::$flat$() = default;
$q$::$flat$(const $flat$& other) = default;
$q$::~$flat$() = default;
)",
            vars);
    if (HasFullConstructor(t)) {
        std::vector<const Field*> all = AllFields(t);
        std::vector<const Field*> inherited(all.begin(), all.end() - t->fields.size());
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
        std::string inits;
        for (size_t i = 0; i < init.size(); ++i) inits += (i ? ", " : "\n    : ") + init[i];
        p.Print("$q$::$flat$($params$)$inits$ {\n$body$}\n",
                {{"q", q}, {"flat", flat}, {"params", ConstructorParams(t)}, {"inits", inits}, {"body", body}});
    }
    p.Print(R"($q$* $q$::_Clone() const { return new $q$(*this); }
::Kitra::Type* $q$::_GetType() const { return ::Kitra::GetType<$flat$>(); }
::Kitra::DataObjectType* $q$::_GetDataType() const {
    static ::Kitra::DataObjectType* cache;
    return ::Kitra::Binding::DataTypeOnce(cache, ::Kitra::GetType<$flat$>());
}
)",
            vars);
    if (hasFields && AllFields(t).size() == t->fields.size()) {
        // The first level with fields: its bases compare, differ and size as a bare data object, so the
        // walk over its own fields is the whole of each operation.
        p.Print(R"(unsigned $q$::_GetSize(::Kitra::Sizer sizer) const {
    return ::Kitra::Binding::SizeOf(sizer, sizeof($flat$), _kLayout, this);
}
bool $q$::_EqualFields(const ::Kitra::DataObject* other, bool partial) const {
    return ::Kitra::Fields::Equal(_kLayout, this, static_cast<const $flat$*>(other), partial);
}
void $q$::_DiffFields(const ::Kitra::DataObject* other, const std::string& prefix,
                      ::Kitra::PropertyDiffSet& diffs) const {
    ::Kitra::Fields::Diff(_kLayout, this, static_cast<const $flat$*>(other), prefix, diffs);
}
)",
                vars);
    } else if (hasFields) {
        p.Print(R"(unsigned $q$::_GetSize(::Kitra::Sizer sizer) const {
    return ::Kitra::Binding::SizeOf(sizer, sizeof($flat$), sizeof($base$), $base$::_GetSize(sizer), _kLayout, this);
}
bool $q$::_EqualFields(const ::Kitra::DataObject* other, bool partial) const {
    return $base$::_EqualFields(other, partial) &&
           ::Kitra::Fields::Equal(_kLayout, this, static_cast<const $flat$*>(other), partial);
}
void $q$::_DiffFields(const ::Kitra::DataObject* other, const std::string& prefix,
                      ::Kitra::PropertyDiffSet& diffs) const {
    $base$::_DiffFields(other, prefix, diffs);
    ::Kitra::Fields::Diff(_kLayout, this, static_cast<const $flat$*>(other), prefix, diffs);
}
)",
                vars);
    }
    for (const auto& f : t->fields) {
        FieldTypes ft = TypesOf(f);
        if (ft.inlineAccess) continue;
        std::string get = ft.storage == Storage::Any ? MemberName(f) + ".Get()"
                                                     : "static_cast<" + ft.result + ">(" + MemberName(f) + ".Get())";
        p.Print(R"($result$ $q$::$getter$() const { return $get$; }
void $q$::Set$stem$($param$ value) { $member$.Store(value); }
)",
                {{"result", ft.result}, {"q", q}, {"getter", GetterName(f)}, {"get", get}, {"stem", AccessorStem(f)},
                 {"param", ft.param}, {"member", MemberName(f)}});
    }
    if (t->isFault) EmitFaultSource(p, t);
}

}  // namespace kodlgen::emit
