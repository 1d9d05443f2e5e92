// The codec's version handling and what writer and reader share.
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>

#include <fundix/Exception.h>
#include <kitra/DataObject.h>
#include <kitra/Registry.h>
#include <kitra/fault/types.h>

#include "Internal.h"

namespace Kitra::Soap {

// Which version words of the records a version includes, by the words' addresses: records compare by
// pointer on the hot path instead of by text. Built once per version from every registered record.
struct Codec::Index {
    std::unordered_map<const char*, bool> included;
};

namespace {

bool IncludesText(const Version& version, const char* introduced) {
    if (introduced == nullptr || *introduced == '\0') return true;
    for (const auto& v : version.includes)
        if (v == introduced) return true;
    return false;
}

}  // namespace

namespace {

// The version a codec is asked for: a full name, or the last part of a name ("version2"), looked up
// first among the interface's own versions and then among all, where it must name exactly one.
const Version* ResolveVersion(std::string_view name) {
    VersionMap* map = GetVersionMap();
    if (const Version* v = map->GetVersion(name)) return v;
    if (name.empty() || name.find('.') != std::string_view::npos) return nullptr;
    if (const Version* v = map->GetVersion("morphel.version." + std::string(name))) return v;
    const Version* found = nullptr;
    for (const Version* v : map->GetVersions()) {
        std::string_view full = v->name;
        if (full.size() > name.size() && full.substr(full.size() - name.size()) == name &&
            full[full.size() - name.size() - 1] == '.') {
            if (found != nullptr) return nullptr;  // more than one: the short name is ambiguous
            found = v;
        }
    }
    return found;
}

}  // namespace

std::string Codec::ToText(const Any* value) const {
    std::string text;
    EncodeValue(value, text);
    return text;
}

Codec::Codec(std::string_view version, Limits limits) : version_(ResolveVersion(version)), limits_(limits) {
    if (version_ == nullptr)
        throw Fundix::InvalidArgumentException("unknown version " + std::string(version));
    versionUri_ = "urn:" + version_->wireNamespace + "/" + version_->versionString;
    namespace_ = "urn:" + version_->serviceNamespace;

    static std::mutex mutex;
    static auto* indexes = new std::map<const Version*, std::unique_ptr<Index>>();
    std::lock_guard<std::mutex> lock(mutex);
    std::unique_ptr<Index>& index = (*indexes)[version_];
    if (index == nullptr) {
        auto built = std::make_unique<Index>();
        auto add = [&](const char* word) {
            if (word != nullptr) built->included.emplace(word, IncludesText(*version_, word));
        };
        for (Type* t : GetTypeMap()->GetTypes()) {
            add(t->GetVersion());
            if (const DataObjectType* d = t->AsDataObjectType()) {
                for (const PropertyDesc& p : d->GetProperties())
                    add(p.info->version);
            } else if (const ManagedObjectType* m = t->AsManagedObjectType()) {
                for (const ManagedMethod* method : m->GetMethods()) {
                    add(method->GetVersion());
                    if (const MethodTypeInfo* info = method->GetMethodInfo()) {
                        add(info->result.version);
                        for (const ParamTypeInfo* p = info->params; p != nullptr && p->name != nullptr; ++p)
                            add(p->version);
                    }
                }
            }
        }
        index = std::move(built);
    }
    index_ = index.get();
}

bool Codec::Includes(const char* introduced) const {
    if (introduced == nullptr) return true;
    auto it = index_->included.find(introduced);
    if (it != index_->included.end()) return it->second;
    return IncludesText(*version_, introduced);
}

bool Codec::Knows(const Type* type) const {
    if (type == nullptr) return false;
    if (type->GetKind() == kKindArray) {
        auto* array = static_cast<const ArrayType*>(type);
        return Knows(array->GetElementType());
    }
    return Includes(type->GetVersion());
}

Type* TypeOf(const TypeInfo* info) {
    if (info == nullptr) return nullptr;
    if (IsPrimitiveKind(info->kind)) return GetPrimitiveType(info);
    // Records of registered types, indexed once: registration is over before any value travels.
    static std::once_flag once;
    static std::unordered_map<const TypeInfo*, Type*>* index;
    std::call_once(once, [] {
        index = new std::unordered_map<const TypeInfo*, Type*>();
        for (Type* t : GetTypeMap()->GetTypes())
            index->emplace(t->GetTypeInfo(), t);
    });
    auto it = index->find(info);
    if (it != index->end()) return it->second;
    return GetTypeMap()->GetType(info->name);
}

ManagedMethod* FindOperation(std::string_view operation) {
    static std::once_flag once;
    static std::map<std::string, ManagedMethod*, std::less<>>* index;
    std::call_once(once, [] {
        index = new std::map<std::string, ManagedMethod*, std::less<>>();
        for (Type* t : GetTypeMap()->GetTypes()) {
            ManagedObjectType* m = t->AsManagedObjectType();
            if (m == nullptr) continue;
            for (ManagedMethod* method : m->GetMethods())
                if (!method->IsProperty()) index->emplace(method->GetWsdlName(), method);
        }
    });
    auto it = index->find(operation);
    return it == index->end() ? nullptr : it->second;
}

namespace Detail {

void ThrowInvalidRequest(const std::string& reason, const std::string& path) {
    Fundix::Optional<std::string> where;
    if (!path.empty()) where = path;
    Kitra::Fault::InvalidRequest::Exception(reason, where).Throw();
}

void ThrowNotInVersion(const std::string& name, const Version& version, const std::string& path) {
    Fundix::Optional<std::string> where;
    if (!path.empty()) where = path;
    Kitra::Fault::NotInVersion::Exception(name, version.name, where).Throw();
}

void ThrowInvalidArgument(const std::string& path) {
    Kitra::Fault::InvalidArgument::Exception(Fundix::Optional<std::string>(path)).Throw();
}

const char* PrimitiveXsdName(uint32_t kind) {
    switch (kind) {
        case kKindString:
            return "string";
        case kKindInt:
            return "int";
        case kKindLong:
            return "long";
        case kKindShort:
            return "short";
        case kKindBool:
            return "boolean";
        case kKindByte:
            return "byte";
        case kKindFloat:
            return "float";
        case kKindDouble:
            return "double";
        case kKindDateTime:
            return "dateTime";
        case kKindAnyType:
            return "anyType";
        default:
            return nullptr;
    }
}

namespace {
std::string Capitalised(std::string name) {
    if (!name.empty() && name[0] >= 'a' && name[0] <= 'z') name[0] = static_cast<char>(name[0] - 'a' + 'A');
    return name;
}
}  // namespace

const char* ItemName(const Type* element) {
    uint32_t kind = element->GetKind();
    if (kind == kKindManaged) return "ManagedObjectReference";
    if (kind == kKindTypeName) return "typeName";
    if (kind == kKindPropertyPath) return "propertyPath";
    if (const char* xsd = PrimitiveXsdName(kind)) return xsd;
    return element->GetWsdlName();
}

std::string XsiTypeName(const Type* type) {
    uint32_t kind = type->GetKind();
    if (kind == kKindArray)
        return "ArrayOf" + Capitalised(ItemName(static_cast<const ArrayType*>(type)->GetElementType()));
    if (kind == kKindManaged) return "ManagedObjectReference";
    if (kind == kKindTypeName) return "TypeName";
    if (kind == kKindPropertyPath) return "PropertyPath";
    if (const char* xsd = PrimitiveXsdName(kind)) return std::string("xsd:") + xsd;
    return type->GetWsdlName();
}

}  // namespace Detail
}  // namespace Kitra::Soap
