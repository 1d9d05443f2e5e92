// Calls on managed objects: the carrier of a call (StubAdapter), the per-call context, the base of every
// client stub (StubImpl), the counted base of implementation objects, and the in-process adapter that
// routes calls to implementation objects registered under their references.
#pragma once

#include <atomic>
#include <cstdint>
#include <typeinfo>
#include <map>
#include <mutex>
#include <string>

#include <fundix/Exception.h>
#include <fundix/Functor.h>
#include <fundix/Ref.h>
#include <fundix/System/ScheduledItem.h>
#include <kitra/Any.h>
#include <kitra/ManagedObject.h>
#include <kitra/MoRef.h>

namespace Kitra {

class LocalStubAdapter;

// What an asynchronous call reports when it ends: the item that carried it, and either the failure (owned
// by the caller of the functor for the duration of the call) or the result (null for void methods).
using Completion = Fundix::Functor<void(Fundix::System::ScheduledItem*, Fundix::Exception*, Any*)>;

// Values that travel with every call made through a stub (a session, a locale, ...).
class RequestContext : public Fundix::ObjectImpl {
public:
    void Set(const std::string& key, const std::string& value);
    // Empty when the key is not set.
    std::string Get(const std::string& key) const;

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::string> values_;
};

// The counted base of objects that are managed objects themselves: client stubs and implementation objects.
class ManagedObjectImpl : public virtual ManagedObject {
public:
    void IncRef() const override { refs_.fetch_add(1, std::memory_order_relaxed); }
    void DecRef() const override {
        if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }
    int32_t GetRefCount() const { return refs_.load(std::memory_order_relaxed); }

protected:
    ManagedObjectImpl() = default;
    ManagedObjectImpl(const ManagedObjectImpl&) : ManagedObject() {}

private:
    mutable std::atomic<int32_t> refs_{0};
};

// Carries calls to the object that `id` names. Implementations: the in-process adapter below, and the
// network adapter of the wire layer.
class StubAdapter : public Fundix::ObjectImpl {
public:
    // Performs the call and stores its result (null for none); a fault arrives as its exception.
    virtual void Invoke(const std::string& id, ManagedMethod* method, Fundix::RefVector<Any>& arguments,
                        Fundix::Ref<Any>& result, RequestContext* context) = 0;
    // Starts the call and returns at once; `completion` is called later on one of the object model's own
    // threads, never on the caller's stack. The default runs Invoke there.
    virtual void StartInvoke(const std::string& id, ManagedMethod* method, Fundix::RefVector<Any>& arguments,
                             const Completion& completion, Fundix::Ref<Fundix::System::ScheduledItem>& item,
                             RequestContext* context);
};

// Runs `work` (given the item that carries it) on one of the object model's completion threads; the item
// is already queued on return.
Fundix::Ref<Fundix::System::ScheduledItem> Schedule(Fundix::Functor<void(Fundix::System::ScheduledItem*)> work);

// Calls `call` and hands its outcome to `completion`: the result, or the failure as an exception (a fault's
// own class; anything else as a runtime fault).
void Complete(Fundix::System::ScheduledItem* item, const Completion& completion,
              const Fundix::Functor<Fundix::Ref<Any>()>& call);

// The base of every generated client stub: the remote object's identifier, the adapter that carries its
// calls and the request context.
class StubImpl : public ManagedObjectImpl {
public:
    StubImpl(const std::string& id, StubAdapter* adapter, RequestContext* context);

    // A reference to the object this stub stands for.
    Fundix::Ref<MoRef> _GetRef() const;
    virtual Type* _GetType() const = 0;
    StubAdapter* _GetStubAdapter() const { return adapter_.Get(); }
    RequestContext* _GetRequestContext() const { return context_.Get(); }
    void _SetRequestContext(RequestContext* context) { context_ = context; }
    // True when the adapter no longer serves the object (the stub then only fails).
    bool _Unregistered() const { return adapter_ == nullptr; }
    const std::string& _GetId() const { return id_; }
    // The adapter when it is the in-process one, else null: the stub's operations then call the
    // implementation object directly (see LocalTarget).
    LocalStubAdapter* _GetLocalAdapter() const { return local_; }

    // Calls `method` with `arguments` through the adapter and stores its result (null for none).
    void _Invoke(ManagedMethod* method, Fundix::RefVector<Any>& arguments, Fundix::Ref<Any>& result);
    // Starts the call and returns at once, handing back through `item` the scheduled item that carries it;
    // `completion` runs later on one of the object model's threads.
    void _StartInvoke(ManagedMethod* method, Fundix::RefVector<Any>& arguments, const Completion& completion,
                      Fundix::Ref<Fundix::System::ScheduledItem>& item);
    // Calls a method that starts a task (its record carries kMethodTask, its interface-description name
    // ends in "_Task") and stores the reference of the started task in `task`. A method that starts no
    // task raises Fundix::InvalidArgumentException before anything is sent; an answer that is not a
    // reference raises Fundix::TypeMismatchException and an absent one Kitra::Fault::InvalidArgument
    // naming "result", both leaving `task` as it was.
    void _Invoke_Task(ManagedMethod* method, Fundix::RefVector<Any>& arguments, Fundix::Ref<MoRef>& task);
    // The same, started: `completion` receives the task's reference as its result, or the failure (an
    // answer that is not a reference as Fundix::TypeMismatchException, an absent one as
    // Kitra::Fault::InvalidArgument).
    void _StartInvoke_Task(ManagedMethod* method, Fundix::RefVector<Any>& arguments, const Completion& completion,
                           Fundix::Ref<Fundix::System::ScheduledItem>& item);

private:
    std::string id_;
    Fundix::Ref<StubAdapter> adapter_;
    Fundix::Ref<RequestContext> context_;
    LocalStubAdapter* local_;  // adapter_ itself, when it is in-process
};

// Routes calls to implementation objects in the same process, for tests and for programs that host a
// manager beside its clients. Implementation objects are registered under their identifiers.
class LocalStubAdapter : public StubAdapter {
public:
    void Register(const std::string& id, ManagedObject* implementation);
    void Unregister(const std::string& id);
    ManagedObject* Find(const std::string& id) const;

    // Counts the changes of the registrations: a stub's resolved target stays good while it is unchanged.
    uint64_t Generation() const { return generation_.load(std::memory_order_acquire); }
    // The object registered under `id` (null for none) and the generation it was found in.
    Fundix::Ref<ManagedObject> Resolve(const std::string& id, uint64_t& generation) const;

    // Dispatches through the invoke function of the type that declares `method`. An unknown identifier
    // raises Kitra::Fault::ManagedObjectNotFound.
    void Invoke(const std::string& id, ManagedMethod* method, Fundix::RefVector<Any>& arguments,
                Fundix::Ref<Any>& result, RequestContext* context) override;

private:
    mutable std::mutex mutex_;
    std::map<std::string, Fundix::Ref<ManagedObject>> objects_;
    std::atomic<uint64_t> generation_{1};
};

// The implementation object behind a stub whose adapter is in-process, as the interface `T` that declares
// the stub's operations: resolved by identifier on the first call and again only after the adapter's
// registrations change, so that an in-process call is a direct virtual call on the implementation, with
// neither argument vector nor boxes. Every generated stub keeps one per interface level.
template <class T>
class LocalTarget {
public:
    LocalTarget() = default;
    LocalTarget(const LocalTarget&) = delete;
    LocalTarget& operator=(const LocalTarget&) = delete;
    ~LocalTarget() {
        for (Bound* b = current_.load(std::memory_order_relaxed); b != nullptr;) {
            Bound* previous = b->previous;
            delete b;
            b = previous;
        }
    }

    // The implementation as `T`, or null when the stub's adapter is not in-process. An identifier the
    // adapter does not hold raises Kitra::Fault::ManagedObjectNotFound; an object that does not implement
    // `T`, Fundix::TypeMismatchException.
    T* Get(const StubImpl& stub) {
        LocalStubAdapter* local = stub._GetLocalAdapter();
        if (local == nullptr) return nullptr;
        Bound* b = current_.load(std::memory_order_acquire);
        if (b != nullptr && b->generation.load(std::memory_order_acquire) == local->Generation()) return b->target;
        return Resolve(stub, *local);
    }

private:
    // A resolved object. Those replaced by another object stay (with their reference) until the stub
    // goes, since a call on another thread may still be running on them.
    struct Bound {
        Fundix::Ref<ManagedObject> object;
        T* target;
        std::atomic<uint64_t> generation;
        Bound* previous;
    };

    T* Resolve(const StubImpl& stub, LocalStubAdapter& local);

    std::atomic<Bound*> current_{nullptr};
};

namespace Binding {
std::mutex& LocalTargetMutex();
[[noreturn]] void ThrowNotRegistered(const Type* type, const std::string& id);
// The object registered for a call does not implement the managed type `expected`: a type mismatch
// naming both by wire name.
[[noreturn]] void ThrowNotImplementing(const Type* expected, const ManagedObject* object);
}  // namespace Binding

template <class T>
T* LocalTarget<T>::Resolve(const StubImpl& stub, LocalStubAdapter& local) {
    uint64_t generation = 0;
    Fundix::Ref<ManagedObject> object = local.Resolve(stub._GetId(), generation);
    if (!object) Binding::ThrowNotRegistered(GetType<T>(), stub._GetId());
    T* target = dynamic_cast<T*>(object.Get());
    if (target == nullptr) Binding::ThrowNotImplementing(GetType<T>(), object.Get());
    std::lock_guard<std::mutex> lock(Binding::LocalTargetMutex());
    Bound* b = current_.load(std::memory_order_relaxed);
    if (b != nullptr && b->object.Get() == object.Get()) {
        // The same object: only its generation moves on.
        if (b->generation.load(std::memory_order_relaxed) < generation)
            b->generation.store(generation, std::memory_order_release);
        return b->target;
    }
    current_.store(new Bound{object, target, {generation}, b}, std::memory_order_release);
    return target;
}

// Raises kodl.fault.NotImplemented naming `method` (the operation's wire name, "morphel.task.TaskManager.
// getTaskInfo"): what the generated implementation bases (`Morphel::Task::TaskManagerBase`) do for every
// operation an implementation does not override.
[[noreturn]] void ThrowNotImplemented(const char* method);

// Creates a client stub of the managed type `type` for the object `id`.
Fundix::Ref<ManagedObject> CreateStub(const Type* type, const std::string& id, StubAdapter* adapter,
                                      RequestContext* context = nullptr);

}  // namespace Kitra
