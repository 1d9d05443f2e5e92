// The process-wide version and type maps. They are filled by the registrars during load, in the
// loader's single thread, and only read afterwards.
#include <kitra/Registry.h>

#include <map>
#include <memory>

#include <fundix/Exception.h>

namespace Kitra {

namespace {

class VersionMapImpl : public VersionMap {
public:
    void AddVersion(const std::string& name, const std::string& wireNamespace, const std::string& versionString,
                    bool flag1, const std::string& taskType, bool flag2,
                    const std::string& serviceNamespace) override {
        auto it = byName_.find(name);
        if (it != byName_.end()) {
            const Version& v = *it->second;
            if (v.wireNamespace != wireNamespace || v.versionString != versionString || v.flag1 != flag1 ||
                v.taskType != taskType || v.flag2 != flag2 || v.serviceNamespace != serviceNamespace)
                throw Fundix::InvalidArgumentException("version " + name + " added again with other values");
            return;
        }
        auto v = std::make_unique<Version>(
            Version{name, wireNamespace, versionString, flag1, taskType, flag2, serviceNamespace, {}});
        byName_.emplace(v->name, v.get());
        versions_.push_back(std::move(v));
    }

    void AddRelation(const std::string& version, const std::string& included) override {
        auto it = byName_.find(version);
        if (it == byName_.end() || !byName_.count(included))
            throw Fundix::InvalidArgumentException("relation between unknown versions " + version + " and " + included);
        auto& list = it->second->includes;
        for (const auto& i : list)
            if (i == included) return;
        list.push_back(included);
    }

    const Version* GetVersion(std::string_view name) const override {
        auto it = byName_.find(name);
        return it == byName_.end() ? nullptr : it->second;
    }

    bool IsIncluded(std::string_view version, std::string_view included) const override {
        const Version* v = GetVersion(version);
        if (v == nullptr) return false;
        for (const auto& i : v->includes)
            if (i == included) return true;
        return false;
    }

    std::vector<const Version*> GetVersions() const override {
        std::vector<const Version*> all;
        for (const auto& v : versions_) all.push_back(v.get());
        return all;
    }

private:
    std::vector<std::unique_ptr<Version>> versions_;
    std::map<std::string, Version*, std::less<>> byName_;
};

class TypeMapImpl : public TypeMap {
public:
    Type* GetType(std::string_view wireName) const override {
        auto it = byName_.find(wireName);
        return it == byName_.end() ? nullptr : it->second.Get();
    }

    void AddType(Type* type) override {
        if (type == nullptr) return;
        auto it = byName_.find(std::string_view(type->GetName()));
        if (it != byName_.end()) {
            if (it->second.Get() != type)
                throw Fundix::InvalidArgumentException(std::string("type ") + type->GetName() + " added twice");
            return;
        }
        byName_.emplace(type->GetName(), type);
        byWsdlName_.emplace(type->GetWsdlName(), type);
        order_.push_back(type);
        if (current_ != nullptr) current_->types.push_back(type);
    }

    Type* GetTypeByWsdlName(std::string_view wsdlName) const override {
        auto it = byWsdlName_.find(wsdlName);
        return it == byWsdlName_.end() ? nullptr : it->second;
    }

    void BeginModule(const std::string& source) override {
        for (auto& m : modules_) {
            if (m->source == source) {
                current_ = m.get();
                return;
            }
        }
        modules_.push_back(std::make_unique<Module>(Module{source, {}}));
        current_ = modules_.back().get();
    }

    std::vector<Type*> GetTypes() const override { return order_; }

    std::vector<const Module*> GetModules() const override {
        std::vector<const Module*> all;
        for (const auto& m : modules_) all.push_back(m.get());
        return all;
    }

private:
    std::map<std::string, Fundix::Ref<Type>, std::less<>> byName_;
    std::map<std::string, Type*, std::less<>> byWsdlName_;
    std::vector<Type*> order_;
    std::vector<std::unique_ptr<Module>> modules_;
    Module* current_ = nullptr;
};

}  // namespace

// The maps live for the whole process and are never destroyed: registrars of libraries unloaded after
// this one must still find them, and nothing is withdrawn at exit.
VersionMap* GetVersionMap() {
    static VersionMap* map = new VersionMapImpl();
    return map;
}

TypeMap* GetTypeMap() {
    static TypeMap* map = new TypeMapImpl();
    return map;
}

}  // namespace Kitra
