#include "fundix/Object.h"

namespace Fundix {

Object::~Object() = default;

ObjectImpl::~ObjectImpl() = default;

ObjectImpl::ObjectImpl(const ObjectImpl& other) : Object(other) {}

ObjectImpl& ObjectImpl::operator=(const ObjectImpl& other) {
    Object::operator=(other);
    return *this;
}

void ObjectImpl::IncRef() const {
    // Taking a new reference needs no ordering: the caller already holds one, so the object cannot vanish.
    refCount_.fetch_add(1, std::memory_order_relaxed);
}

void ObjectImpl::DecRef() const {
    // acq_rel makes every write done through other references visible to the thread that deletes.
    if (refCount_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

int32_t ObjectImpl::GetRefCount() const { return refCount_.load(std::memory_order_relaxed); }

}  // namespace Fundix
