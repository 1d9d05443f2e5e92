#include "fundix/Object.h"

namespace Fundix {

Object::~Object() = default;

ObjectImpl::~ObjectImpl() = default;

ObjectImpl::ObjectImpl(const ObjectImpl& other) : Object(other) {}

ObjectImpl& ObjectImpl::operator=(const ObjectImpl& other) {
    Object::operator=(other);
    return *this;
}

int32_t ObjectImpl::GetRefCount() const { return refCount_.load(std::memory_order_relaxed); }

}  // namespace Fundix
