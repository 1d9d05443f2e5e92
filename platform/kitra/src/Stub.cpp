// Calls on managed objects, in process and through the completion threads.
#include <condition_variable>
#include <deque>
#include <memory>
#include <thread>

#include <kitra/DataObject.h>
#include <kitra/Call.h>
#include <kitra/Stub.h>
#include <kitra/fault/types.h>

namespace Kitra {

// ---- RequestContext

void RequestContext::Set(const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_[key] = value;
}

std::string RequestContext::Get(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = values_.find(key);
    return it == values_.end() ? std::string() : it->second;
}

// ---- Completion threads

namespace {

// A small pool that runs scheduled items. It lives for the whole process: its threads are never joined,
// so that a completion still running at exit cannot deadlock the exit.
class CompletionPool {
public:
    CompletionPool() {
        for (int i = 0; i < 2; ++i) std::thread([this] { Work(); }).detach();
    }

    void Post(Fundix::System::ScheduledItem* item) {
        item->IncRef();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            queue_.push_back(item);
        }
        ready_.notify_one();
    }

private:
    void Work() {
        for (;;) {
            Fundix::System::ScheduledItem* item;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                ready_.wait(lock, [this] { return !queue_.empty(); });
                item = queue_.front();
                queue_.pop_front();
            }
            item->Run();
            item->DecRef();
        }
    }

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<Fundix::System::ScheduledItem*> queue_;
};

CompletionPool& Pool() {
    static CompletionPool* pool = new CompletionPool();
    return *pool;
}

}  // namespace

Fundix::Ref<Fundix::System::ScheduledItem> Schedule(Fundix::Functor<void(Fundix::System::ScheduledItem*)> work) {
    auto self = std::make_shared<Fundix::System::ScheduledItem*>(nullptr);
    Fundix::Ref<Fundix::System::ScheduledItem> item(
        new Fundix::System::ScheduledItem([self, work] { work(*self); }));
    *self = item.Get();  // before the item is posted, so the work always sees it
    Pool().Post(item.Get());
    return item;
}

void Complete(Fundix::System::ScheduledItem* item, const Completion& completion,
              const Fundix::Functor<Fundix::Ref<Any>()>& call) {
    std::unique_ptr<Fundix::Exception> failure;
    Fundix::Ref<Any> result;
    try {
        result = call();
    } catch (const Fundix::Exception& e) {
        failure.reset(e.Clone());
    } catch (const std::exception&) {
        failure.reset(new RuntimeFault::Exception());
    }
    if (completion) completion(item, failure.get(), failure ? nullptr : result.Get());
}

void StubAdapter::StartInvoke(const std::string& id, ManagedMethod* method, Fundix::RefVector<Any>& arguments,
                              const Completion& completion, Fundix::Ref<Fundix::System::ScheduledItem>& item,
                              RequestContext* context) {
    Fundix::Ref<StubAdapter> self(this);
    Fundix::Ref<RequestContext> ctx(context);
    Fundix::Ref<ManagedMethod> m(method);
    auto args = std::make_shared<Fundix::RefVector<Any>>(arguments);
    item = Schedule([self, ctx, m, args, id, completion](Fundix::System::ScheduledItem* running) {
        Complete(running, completion, [&]() {
            Fundix::Ref<Any> result;
            self->Invoke(id, m.Get(), *args, result, ctx.Get());
            return result;
        });
    });
}

// ---- StubImpl

StubImpl::StubImpl(const std::string& id, StubAdapter* adapter, RequestContext* context)
    : id_(id), adapter_(adapter), context_(context), local_(dynamic_cast<LocalStubAdapter*>(adapter)) {}

Fundix::Ref<MoRef> StubImpl::_GetRef() const { return new MoRef(_GetType()->GetName(), id_); }

void StubImpl::_Invoke(ManagedMethod* method, Fundix::RefVector<Any>& arguments, Fundix::Ref<Any>& result) {
    if (adapter_ == nullptr) Fault::ManagedObjectNotFound::Exception(_GetRef().Get()).Throw();
    adapter_->Invoke(id_, method, arguments, result, context_.Get());
}

void StubImpl::_StartInvoke(ManagedMethod* method, Fundix::RefVector<Any>& arguments, const Completion& completion,
                            Fundix::Ref<Fundix::System::ScheduledItem>& item) {
    if (adapter_ == nullptr) Fault::ManagedObjectNotFound::Exception(_GetRef().Get()).Throw();
    adapter_->StartInvoke(id_, method, arguments, completion, item, context_.Get());
}

namespace {

void CheckStartsTask(ManagedMethod* method) {
    const MethodTypeInfo* info = method != nullptr ? method->GetMethodInfo() : nullptr;
    if (info == nullptr || !(info->methodFlags & kMethodTask))
        throw Fundix::InvalidArgumentException((method != nullptr ? method->GetWireName() : std::string("null method")) +
                                               " starts no task");
}

// The task reference a task method answered with.
MoRef* TaskOf(Any* result) {
    if (result == nullptr) Binding::ThrowMissingValue("result");
    return CheckedCast<MoRef>(result);
}

}  // namespace

void StubImpl::_Invoke_Task(ManagedMethod* method, Fundix::RefVector<Any>& arguments, Fundix::Ref<MoRef>& task) {
    CheckStartsTask(method);
    Fundix::Ref<Any> result;
    _Invoke(method, arguments, result);
    task = TaskOf(result.Get());
}

void StubImpl::_StartInvoke_Task(ManagedMethod* method, Fundix::RefVector<Any>& arguments,
                                 const Completion& completion, Fundix::Ref<Fundix::System::ScheduledItem>& item) {
    CheckStartsTask(method);
    Completion checked = [completion](Fundix::System::ScheduledItem* running, Fundix::Exception* failure, Any* result) {
        if (failure != nullptr || !completion) {
            if (completion) completion(running, failure, nullptr);
            return;
        }
        Complete(running, completion, [result]() { return Fundix::Ref<Any>(TaskOf(result)); });
    };
    _StartInvoke(method, arguments, checked, item);
}

// ---- LocalStubAdapter

void LocalStubAdapter::Register(const std::string& id, ManagedObject* implementation) {
    std::lock_guard<std::mutex> lock(mutex_);
    objects_[id] = implementation;
    generation_.fetch_add(1, std::memory_order_acq_rel);
}

void LocalStubAdapter::Unregister(const std::string& id) {
    std::lock_guard<std::mutex> lock(mutex_);
    objects_.erase(id);
    generation_.fetch_add(1, std::memory_order_acq_rel);
}

Fundix::Ref<ManagedObject> LocalStubAdapter::Resolve(const std::string& id, uint64_t& generation) const {
    std::lock_guard<std::mutex> lock(mutex_);
    generation = generation_.load(std::memory_order_relaxed);
    auto it = objects_.find(id);
    return it == objects_.end() ? nullptr : it->second;
}

ManagedObject* LocalStubAdapter::Find(const std::string& id) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = objects_.find(id);
    return it == objects_.end() ? nullptr : it->second.Get();
}

void LocalStubAdapter::Invoke(const std::string& id, ManagedMethod* method, Fundix::RefVector<Any>& arguments,
                              Fundix::Ref<Any>& result, RequestContext*) {
    Fundix::Ref<ManagedObject> target(Find(id));
    if (!target) {
        Fundix::Ref<MoRef> ref(new MoRef(method->GetOwner()->GetName(), id));
        Fault::ManagedObjectNotFound::Exception(ref.Get()).Throw();
    }
    const ManagedTypeInfo* info = method->GetOwner()->GetManagedTypeInfo();
    if (info->invoke == nullptr) throw Fundix::InvalidArgumentException(std::string("no dispatch for ") + method->GetWireName());
    info->invoke(target.Get(), method->GetIndex(), arguments, result);
}

void ThrowNotImplemented(const char* method) { Fault::NotImplemented::Exception(method).Throw(); }

Fundix::Ref<ManagedObject> CreateStub(const Type* type, const std::string& id, StubAdapter* adapter,
                                      RequestContext* context) {
    auto* managed = const_cast<Type*>(type)->AsManagedObjectType();
    if (managed == nullptr || managed->GetManagedTypeInfo()->createStub == nullptr)
        throw Fundix::InvalidArgumentException(std::string("no stub for ") + type->GetName());
    return managed->GetManagedTypeInfo()->createStub(id, adapter, context);
}

}  // namespace Kitra

namespace Kitra::Binding {

void ThrowMissingValue(const char* name) {
    Fault::InvalidArgument::Exception(Fundix::Optional<std::string>(name)).Throw();
}

void ThrowNoMethod(const char* type, int index) {
    throw Fundix::InvalidArgumentException(std::string(type) + " has no method " + std::to_string(index));
}

std::mutex& LocalTargetMutex() {
    static std::mutex* mutex = new std::mutex();
    return *mutex;
}

void ThrowNotRegistered(const Type* type, const std::string& id) {
    Fundix::Ref<MoRef> ref(new MoRef(type->GetName(), id));
    Fault::ManagedObjectNotFound::Exception(ref.Get()).Throw();
}

void ThrowNotImplementing(const Type* expected, const ManagedObject* object) {
    // An implementation class carries no type of its own: the received side can only be described.
    throw Fundix::TypeMismatchException(expected != nullptr ? expected->GetName() : "ManagedObject",
                                        object != nullptr ? "another managed object" : "null");
}

}  // namespace Kitra::Binding
