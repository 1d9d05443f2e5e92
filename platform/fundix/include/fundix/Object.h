#pragma once

#include <atomic>
#include <cstdint>

namespace Fundix {

// Interface of every reference-counted object. Lifetime is managed through IncRef/DecRef, normally by
// holding the object in a Ref<T>.
class Object {
public:
    virtual ~Object();

    virtual void IncRef() const = 0;
    virtual void DecRef() const = 0;

protected:
    Object() = default;
    Object(const Object&) = default;
    Object& operator=(const Object&) = default;
};

// Standard implementation of Object with an atomic count. A new object starts at 0, so the first Ref that
// takes it becomes its owner. The object deletes itself when the last reference goes away, which means it
// must have been allocated with new. Object is an ordinary base here: a virtual one would give every one
// of the hundreds of generated classes construction tables of its own, for no use, since a value class
// never inherits the interface twice.
class ObjectImpl : public Object {
public:
    ~ObjectImpl() override;

    // Final and inline, so that a count held through any class derived from this one costs an atomic
    // operation rather than a call.
    void IncRef() const final {
        // Taking a new reference needs no ordering: the caller already holds one, so the object cannot
        // vanish.
        refCount_.fetch_add(1, std::memory_order_relaxed);
    }
    void DecRef() const final {
        // acq_rel makes every write done through other references visible to the thread that deletes.
        if (refCount_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    // Only a snapshot; another thread may change it right after the call.
    int32_t GetRefCount() const;

protected:
    ObjectImpl() = default;

    // The count belongs to the object's identity, not to its value: a copy is a new object with no owners
    // yet, and assigning a value does not change who holds the target.
    ObjectImpl(const ObjectImpl& other);
    ObjectImpl& operator=(const ObjectImpl& other);

private:
    mutable std::atomic<int32_t> refCount_{0};
};

}  // namespace Fundix
