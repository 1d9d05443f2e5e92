// What the emitters of one module share: names and C++ types derived from the definitions, and the module
// emitter whose parts live one file per kind of type (EmitData.cpp, EmitFault.cpp, EmitEnum.cpp,
// EmitManaged.cpp) plus the module files and their registration (EmitModule.cpp).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Model.h"
#include "Printer.h"

namespace kodlgen::emit {

// ---- Names and literals

std::string SafeName(const std::string& name);  // a C++ keyword gets a trailing underscore
std::string Upper(const std::string& text);
std::string Quote(const std::string& text);
std::string OrNull(bool has, const std::string& text);  // quoted text, or nullptr
std::string Hex(uint32_t v);
std::string LibraryOf(const Module& m);  // the library that generates the module

// The record of a primitive ("::Kitra::gStringTypeInfo") and its C++ type (`element`: as an array item).
std::string PrimitiveRecord(const std::string& primitive);
std::string PrimitiveCpp(const std::string& primitive, bool element);

// ---- Fields

// How a field is stored and handed out.
enum class Storage { Scalar, Enum, Data, MoRef, Any, Array };
Storage StorageOf(const TypeRef& type, uint32_t flags);
bool IsSlot(Storage s);  // kept as a counted object
std::string PointerType(const TypeRef& type, Storage s);
std::string ValueType(const TypeRef& type, Storage s);
bool PassByReference(const std::string& cpp);

struct FieldTypes {
    Storage storage;
    std::string member;  // member declaration type
    std::string param;   // parameter type for setters and constructors
    std::string result;  // getter result type
    bool inlineAccess;   // accessors defined in the header
};
FieldTypes TypesOf(const Field& f);
std::string StorageName(const Field& f);  // the object model's storage class (Kitra::Storage)
std::string AccessorStem(const Field& f);
std::string GetterName(const Field& f);
std::string MemberName(const Field& f);

std::vector<const Field*> AllFields(const TypeDecl* t);  // generated levels, root-most first
bool HasFullConstructor(const TypeDecl* t);
std::string ConstructorParams(const TypeDecl* t);
std::string BaseClass(const TypeDecl* t);

// "::Kitra::gX" -> ("Kitra", "gX"); "::gX" -> ("", "gX")
std::string SplitNamespace(const std::string& qualified, std::string& name);
// The exported header record of a type, inside the namespace its name carries.
void EmitTypeRecord(Printer& p, const TypeDecl* t, const std::string& kind);
std::string EnumConstantName(const TypeDecl* e, const std::string& value);

// ---- Calls: how a parameter, result or property value crosses the C++ interface.

struct CallType {
    bool slot;            // passed as a pointer, returned through an out-reference
    std::string pointee;  // slot: the class pointed to
    std::string value;    // scalar: the value type (optional ones wrapped in Fundix::Optional)
    bool optional;
};
CallType CallTypeOf(const TypeRef& type, uint32_t flags);
// The declaration of a parameter; without its name where `named` is false (a body that ignores it).
std::string ParamDecl(const Param& p, bool named = true);
std::string BoxExpr(const Param& p);
std::string UnboxExpr(const TypeRef& type, uint32_t flags, const std::string& any, const std::string& name);

// One operation of a managed type: a method, or a property read as a method without parameters.
struct Operation {
    std::string cppName;
    std::vector<Param> params;
    bool hasResult = false;
    TypeRef result;
    uint32_t resultFlags = 0;
    bool async = false;
    std::string wire;  // "<type wire name>.<name>"
};
std::vector<Operation> OperationsOf(const TypeDecl* t);
// "RET Name(params)" of the synchronous form; the result of a slot type is an out-reference.
std::string SyncSignature(const Operation& op, const std::string& qualifier, bool named = true);
std::string AsyncSignature(const Operation& op, const std::string& qualifier);
std::string StubName(const TypeDecl* t);
std::string ImplBaseName(const TypeDecl* t);

// ---- One module

class ModuleEmitter {
public:
    ModuleEmitter(const Module& module, const std::string& library);

    std::string Header();  // EmitModule.cpp
    std::string Source();  // EmitModule.cpp

private:
    // The address of the record `ref` names; records of other libraries are named as well, and the
    // loader fills them in.
    std::string RecordAddress(const TypeRef& ref) const;
    void ForEachRef(const std::function<void(const TypeRef&)>& visit) const;
    std::vector<const TypeDecl*> ClassOrder() const;
    void EmitEnumConstantsDecl(Printer& p, const TypeDecl* scope, const std::string& indent);
    void EmitNestedAliases(Printer& p, const TypeDecl* t);

    // EmitData.cpp
    void EmitDataClass(Printer& p, const TypeDecl* t);
    void EmitDataSource(Printer& p, const TypeDecl* t);
    // EmitFault.cpp
    void EmitFaultExceptionClass(Printer& p, const TypeDecl* t);
    void EmitFaultSource(Printer& p, const TypeDecl* t);
    // EmitEnum.cpp
    void EmitEnumDecl(Printer& p, const TypeDecl* t);
    void EmitEnumSource(Printer& p, const TypeDecl* t);
    // EmitManaged.cpp
    void EmitManagedClass(Printer& p, const TypeDecl* t);
    void EmitManagedSource(Printer& p, const TypeDecl* t);
    void EmitManagedRecords(Printer& p, const TypeDecl* t);
    void EmitDispatch(Printer& p, const TypeDecl* t);
    void EmitStubSource(Printer& p, const TypeDecl* t);
    void EmitImplBaseSource(Printer& p, const TypeDecl* t);

    const Module& module_;
    std::string library_;
    std::vector<const TypeDecl*> types_;    // generated here, file order
    std::vector<const TypeDecl*> ordered_;  // registration order
};

}  // namespace kodlgen::emit
