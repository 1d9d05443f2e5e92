// Calls on managed objects: the carrier of a call (StubAdapter), the per-call context, the base of every
// client stub (StubImpl), the counted base of implementation objects, and the in-process adapter that
// routes calls to implementation objects registered under their references.
#pragma once

#include <atomic>
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
};

// Routes calls to implementation objects in the same process, for tests and for programs that host a
// manager beside its clients. Implementation objects are registered under their identifiers.
class LocalStubAdapter : public StubAdapter {
public:
    void Register(const std::string& id, ManagedObject* implementation);
    void Unregister(const std::string& id);
    ManagedObject* Find(const std::string& id) const;

    // Dispatches through the invoke function of the type that declares `method`. An unknown identifier
    // raises Kitra::Fault::ManagedObjectNotFound.
    void Invoke(const std::string& id, ManagedMethod* method, Fundix::RefVector<Any>& arguments,
                Fundix::Ref<Any>& result, RequestContext* context) override;

private:
    mutable std::mutex mutex_;
    std::map<std::string, Fundix::Ref<ManagedObject>> objects_;
};

// Raises kodl.fault.NotImplemented naming `method` (the operation's wire name, "morphel.task.TaskManager.
// getTaskInfo"): what the generated implementation bases (`Morphel::Task::TaskManagerBase`) do for every
// operation an implementation does not override.
[[noreturn]] void ThrowNotImplemented(const char* method);

// Creates a client stub of the managed type `type` for the object `id`.
Fundix::Ref<ManagedObject> CreateStub(const Type* type, const std::string& id, StubAdapter* adapter,
                                      RequestContext* context = nullptr);

}  // namespace Kitra
