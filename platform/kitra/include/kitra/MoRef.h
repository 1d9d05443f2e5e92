// References to managed objects: the managed type's wire name and the object's identifier.
#pragma once

#include <string>

#include <kitra/Any.h>

namespace Kitra {

class MoRef : public Any {
public:
    MoRef(std::string type, std::string id) : type_(std::move(type)), id_(std::move(id)) {}
    const std::string& GetTypeName() const { return type_; }
    const std::string& GetId() const { return id_; }
    Type* _GetType() const override;
    MoRef* _Clone() const override { return new MoRef(type_, id_); }
    bool _IsEqual(const Any* other, bool partial) const override;
    unsigned _GetSize(Sizer sizer) const override;

private:
    std::string type_;
    std::string id_;
};

}  // namespace Kitra
