// The process-wide version map and type map.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <kitra/Type.h>

namespace Kitra {

struct Version {
    std::string name;
    std::string wireNamespace;
    std::string versionString;
    bool flag1;
    std::string taskType;
    bool flag2;
    std::string serviceNamespace;
    std::vector<std::string> includes;  // in the order added; the version itself among them
};

class VersionMap {
public:
    virtual ~VersionMap() = default;
    // Adding a version again with identical values does nothing; with other values it throws
    // Fundix::InvalidArgumentException.
    virtual void AddVersion(const std::string& name, const std::string& wireNamespace,
                            const std::string& versionString, bool flag1, const std::string& taskType,
                            bool flag2, const std::string& serviceNamespace) = 0;
    // Records that `version` includes `included`; both must be known; adding it again does nothing.
    virtual void AddRelation(const std::string& version, const std::string& included) = 0;
    virtual const Version* GetVersion(std::string_view name) const = 0;
    virtual bool IsIncluded(std::string_view version, std::string_view included) const = 0;
    // Every version, in the order added.
    virtual std::vector<const Version*> GetVersions() const = 0;
};

struct Module {
    std::string source;
    std::vector<Type*> types;  // in the order added
};

class TypeMap {
public:
    virtual ~TypeMap() = default;
    virtual Type* GetType(std::string_view wireName) const = 0;
    // Adds a type to the map and to the current module; adding it again does nothing.
    virtual void AddType(Type* type) = 0;
    virtual Type* GetTypeByWsdlName(std::string_view wsdlName) const = 0;
    // Opens the module that the following AddType calls belong to; a module opened before is
    // reopened, not repeated.
    virtual void BeginModule(const std::string& source) = 0;
    virtual std::vector<Type*> GetTypes() const = 0;
    virtual std::vector<const Module*> GetModules() const = 0;
};

VersionMap* GetVersionMap();
TypeMap* GetTypeMap();

}  // namespace Kitra
