// Calls through stubs and server-side dispatch, without a network: every method of every managed type
// travels stub -> argument vector -> in-process adapter -> the type's dispatch -> an implementation ->
// result -> unboxing. The implementation is itself a stub of the same type whose adapter checks what it
// receives against the method record and answers with a value of the declared result type, so the typed
// boxing and unboxing of every operation is exercised on both sides.
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>
#include <vector>

#include <kitra/Kitra.h>
#include <kitra/fault/types.h>
#include <morphel/morphelTypes.h>

#include "../soap/Wire.h"

namespace {

using Fundix::Ref;
using Kitra::Any;

Kitra::Type* ElementType(const Kitra::TypeInfo* t) {
    return Kitra::IsPrimitiveKind(t->kind) ? Kitra::GetPrimitiveType(t)
                                           : Kitra::GetTypeMap()->GetType(t->name);
}

// True when `value` may travel where a record of type `t` with `flags` is declared.
bool Fits(const Any* value, const Kitra::TypeInfo* t, uint32_t flags) {
    if (value == nullptr) return (flags & Kitra::kFlagOptional) != 0;
    if (flags & Kitra::kFlagArray) {
        auto* array = dynamic_cast<const Kitra::ArrayBase*>(value);
        if (array == nullptr) return false;
        if (t->kind == Kitra::kKindManaged) return array->GetElementType()->GetKind() == Kitra::kKindManaged;
        return array->GetElementType() == ElementType(t);
    }
    if (t->kind == Kitra::kKindAnyType) return true;
    return value->_GetType()->IsA(ElementType(t));
}

struct Declared {
    const Kitra::ParamTypeInfo* params = nullptr;
    const Kitra::TypeInfo* result = nullptr;
    uint32_t resultFlags = 0;
};

Declared DeclaredOf(Kitra::ManagedMethod* m) {
    if (m->IsProperty()) return {nullptr, m->GetPropertyInfo()->type, m->GetPropertyInfo()->flags & 3u};
    const auto* info = m->GetMethodInfo();
    // A method that starts a task answers with the task's reference.
    Kitra::ParamTypeInfo result = Kitra::WireResult(*info);
    return {info->params, result.type, result.flags};
}

// Checks each call against its record and answers with a value of the declared result type.
class EchoAdapter : public Kitra::StubAdapter {
public:
    void Invoke(const std::string&, Kitra::ManagedMethod* method, Fundix::RefVector<Any>& args, Ref<Any>& result,
                Kitra::RequestContext*) override {
        ++calls;
        Declared d = DeclaredOf(method);
        size_t count = 0;
        for (const auto* p = d.params; p != nullptr && p->name != nullptr; ++p, ++count) {
            if (count >= args.size() || !Fits(args[count].Get(), p->type, p->flags))
                problems.push_back(method->GetWireName() + " argument " + p->name);
        }
        if (count != args.size()) problems.push_back(method->GetWireName() + " argument count");
        received = args;
        result = answer ? *answer : WireTest::Argument(d.result, d.resultFlags & 1);
    }
    std::atomic<int> calls{0};
    std::optional<Ref<Any>> answer;  // given, it replaces the value of the declared result type
    std::vector<std::string> problems;
    Fundix::RefVector<Any> received;
};

std::vector<Kitra::ManagedObjectType*> ManagedTypes() {
    std::vector<Kitra::ManagedObjectType*> all;
    for (Kitra::Type* t : Kitra::GetTypeMap()->GetTypes())
        if (std::string(t->GetName()).rfind("morphel.", 0) == 0)
            if (auto* m = t->AsManagedObjectType()) all.push_back(m);
    return all;
}

TEST(CallTest, EveryMethodOfEveryManagedTypeRoundTrips) {
    Ref<EchoAdapter> echo(new EchoAdapter());
    Ref<Kitra::LocalStubAdapter> local(new Kitra::LocalStubAdapter());
    int methods = 0;
    for (Kitra::ManagedObjectType* type : ManagedTypes()) {
        // The implementation: a stub of the type made through its record's stub factory.
        Ref<Kitra::ManagedObject> implementation = Kitra::CreateStub(type, "inner", echo.Get());
        ASSERT_NE(dynamic_cast<Kitra::StubImpl*>(implementation.Get()), nullptr) << type->GetName();
        EXPECT_STREQ(dynamic_cast<Kitra::StubImpl*>(implementation.Get())->_GetRef()->GetTypeName().c_str(), type->GetName());
        local->Register("obj", implementation.Get());
        for (Kitra::ManagedMethod* method : type->GetMethods()) {
            Declared d = DeclaredOf(method);
            Fundix::RefVector<Any> args;
            int i = 0;
            for (const auto* p = d.params; p != nullptr && p->name != nullptr; ++p, ++i) {
                // Every second optional parameter stays unset: a null slot, never a shorter vector.
                bool unset = (p->flags & Kitra::kFlagOptional) && i % 2 == 1;
                args.push_back(unset ? nullptr : WireTest::Argument(p->type, p->flags));
            }
            Ref<Any> result;
            int before = echo->calls;
            local->Invoke("obj", method, args, result, nullptr);
            ++methods;
            EXPECT_EQ(echo->calls, before + 1) << method->GetWireName();
            ASSERT_EQ(echo->received.size(), args.size()) << method->GetWireName();
            for (size_t a = 0; a < args.size(); ++a)
                EXPECT_TRUE(Kitra::AreEqualAnysInt(echo->received[a].Get(), args[a].Get(), 0, false))
                    << method->GetWireName() << " argument " << a;
            EXPECT_TRUE(d.result == nullptr ? result == nullptr : Fits(result.Get(), d.result, d.resultFlags & 1u))
                << method->GetWireName();
        }
        local->Unregister("obj");
    }
    EXPECT_EQ(methods, 120 + 47);  // the methods and properties of the 31 managed types
    for (const auto& p : echo->problems) ADD_FAILURE() << p;
}

TEST(CallTest, TypedStubsUnboxAndReportFaults) {
    Ref<EchoAdapter> echo(new EchoAdapter());
    Ref<Morphel::QueryManagerStub> query(new Morphel::QueryManagerStub("query", echo.Get(), nullptr));
    Ref<Morphel::ComputerSpec> spec(new Morphel::ComputerSpec());
    EXPECT_EQ(query->ValidateAgentAvailability(spec.Get()), Morphel::QueryManager::AgentAvailabilityResult::hyperVNotSupported);
    Ref<Morphel::DiagnosticManagerStub> diag(new Morphel::DiagnosticManagerStub("diag", echo.Get(), nullptr));
    EXPECT_EQ(diag->RetrieveTaskLogBundle("key", 0, 4096), "a <b> & \"c\" on the heap 0");

    // A result of another class: a type mismatch, and the out-parameter is left as it was.
    echo->answer = new Kitra::MoRef("kodl.ManagedObject", "x");
    Ref<Morphel::Info::ComputerInfo> info(new Morphel::Info::ComputerInfo());
    EXPECT_THROW(query->Query(spec.Get(), info), Fundix::TypeMismatchException);
    EXPECT_NE(info.Get(), nullptr);
    EXPECT_THROW(query->ValidateAgentAvailability(spec.Get()), Fundix::TypeMismatchException);

    // An absent result: a null out-reference without a fault, but a fault where a value is due.
    echo->answer = Ref<Any>();
    query->Query(spec.Get(), info);
    EXPECT_EQ(info.Get(), nullptr);
    auto noResult = WireTest::Raised<Kitra::Fault::InvalidArgument::Exception>(
        [&] { diag->RetrieveTaskLogBundle("key", 0, 4096); });
    ASSERT_TRUE(noResult);
    EXPECT_EQ(noResult->GetFault()->GetInvalidProperty(), "result");
}

// Implementations over the generated bases: each overrides only what it serves.
class CountingTaskManager : public Morphel::Task::TaskManagerBase {
public:
    explicit CountingTaskManager(int32_t max) : max(max) {}
    int32_t GetMaxTask() override { return max; }
    void SetMaxTask(int32_t value) override { max = value; }
    int32_t max;
};

class RewindingCollector : public Morphel::Event::EventHistoryCollectorBase {
public:
    void Rewind() override { ++rewinds; }  // declared by the base type, morphel.HistoryCollector
    int rewinds = 0;
};

// The wire name that the NotImplemented fault of `call` names.
template <class F>
std::string NotImplementedMethod(F call) {
    auto e = WireTest::Raised<Kitra::Fault::NotImplemented::Exception>(call).value();
    EXPECT_STREQ(e.what(), "kodl.fault.NotImplemented");
    return e.GetFault()->GetMethod();
}

TEST(CallTest, ImplementationBasesRaiseNotImplementedNamingTheOperation) {
    Ref<Kitra::LocalStubAdapter> local(new Kitra::LocalStubAdapter());
    Ref<CountingTaskManager> tasks(new CountingTaskManager(42));
    local->Register("tasks", tasks.Get());
    Ref<Morphel::Task::TaskManagerStub> stub(new Morphel::Task::TaskManagerStub("tasks", local.Get(), nullptr));
    EXPECT_EQ(stub->GetMaxTask(), 42);

    Ref<Morphel::Task::TaskInfo> info;
    Ref<Kitra::MoRef> task(new Kitra::MoRef("morphel.task.Task", "task-1"));
    EXPECT_EQ(NotImplementedMethod([&] { stub->GetTaskInfo(task.Get(), info); }),
              "morphel.task.TaskManager.getTaskInfo");
    EXPECT_EQ(NotImplementedMethod([&] { stub->GetMaxCollector(); }), "morphel.task.TaskManager.maxCollector");
    Ref<Kitra::DataArray<Kitra::MoRef>> recent;
    EXPECT_EQ(NotImplementedMethod([&] { tasks->GetRecentTask(recent); }), "morphel.task.TaskManager.recentTask");

    // An operation inherited from the base type is served or refused under the base type's name.
    Ref<RewindingCollector> collector(new RewindingCollector());
    local->Register("collector", collector.Get());
    Ref<Morphel::Event::EventHistoryCollectorStub> events(
        new Morphel::Event::EventHistoryCollectorStub("collector", local.Get(), nullptr));
    events->Rewind();
    EXPECT_EQ(collector->rewinds, 1);
    EXPECT_EQ(NotImplementedMethod([&] { events->Reset(); }), "morphel.HistoryCollector.reset");
    Ref<Kitra::DataArray<Morphel::Event::Event>> page;
    EXPECT_EQ(NotImplementedMethod([&] { events->ReadNext(5, page); }), "morphel.event.EventHistoryCollector.readNext");

    // Asynchronously, the fault reaches the completion as its own class.
    std::string method;
    Ref<Fundix::System::ScheduledItem> item;
    stub->DestroyTask(task.Get(), [&](Fundix::System::ScheduledItem*, Fundix::Exception* e, Any*) {
        if (auto* f = dynamic_cast<Kitra::Fault::NotImplemented::Exception*>(e)) method = f->GetFault()->GetMethod();
    }, item);
    item->Wait();
    EXPECT_EQ(method, "morphel.task.TaskManager.destroyTask");
}

Kitra::ManagedMethod* MethodNamed(const char* type, const char* name) {
    return Kitra::GetTypeMap()->GetType(type)->AsManagedObjectType()->FindMethod(name);
}

// The failure a started task call hands to its completion, as text; "task <id>" for a task reference.
std::string StartTask(Kitra::StubImpl& stub, Kitra::ManagedMethod* method, Fundix::RefVector<Any>& args) {
    std::string outcome = "not completed";
    Ref<Fundix::System::ScheduledItem> item;
    stub._StartInvoke_Task(method, args, [&](Fundix::System::ScheduledItem* running, Fundix::Exception* e, Any* result) {
        if (running == nullptr) outcome = "no item";
        else if (e != nullptr) outcome = e->what();
        else if (auto* ref = dynamic_cast<Kitra::MoRef*>(result)) outcome = "task " + ref->GetId();
        else outcome = "no task";
    }, item);
    if (!item) return "no item";
    item->Wait();
    return outcome;
}

TEST(CallTest, TaskMethodsHandBackTheStartedTask) {
    Ref<EchoAdapter> adapter(new EchoAdapter());
    Ref<Morphel::Agent::MorphelManagerStub> manager(new Morphel::Agent::MorphelManagerStub("agent", adapter.Get(), nullptr));
    Kitra::ManagedMethod* convert = MethodNamed("morphel.agent.MorphelManager", "convert");
    ASSERT_NE(convert, nullptr);
    Fundix::RefVector<Any> args(3);

    adapter->answer = new Kitra::MoRef("morphel.task.Task", "task-9");
    Ref<Kitra::MoRef> task;
    manager->_Invoke_Task(convert, args, task);
    ASSERT_TRUE(task);
    EXPECT_EQ(task->GetId(), "task-9");
    EXPECT_EQ(StartTask(*manager, convert, args), "task task-9");
    // The typed operation hands back the reference too, though the record's result names what the task
    // delivers.
    Ref<Kitra::MoRef> started;
    manager->Convert(nullptr, nullptr, nullptr, started);
    ASSERT_TRUE(started);
    EXPECT_EQ(started->GetId(), "task-9");

    // An answer of another class or none at all: the reference stays as it was.
    adapter->answer = new Morphel::Agent::MorphelManager::ConvertResult();
    EXPECT_THROW(manager->_Invoke_Task(convert, args, task), Fundix::TypeMismatchException);
    EXPECT_EQ(task->GetId(), "task-9");
    EXPECT_EQ(StartTask(*manager, convert, args).rfind("type mismatch", 0), 0u) << StartTask(*manager, convert, args);
    adapter->answer = Ref<Any>();
    EXPECT_THROW(manager->_Invoke_Task(convert, args, task), Kitra::Fault::InvalidArgument::Exception);
    EXPECT_EQ(task->GetId(), "task-9");
    EXPECT_EQ(StartTask(*manager, convert, args), "kodl.fault.InvalidArgument");

    // A method that starts no task is refused before anything is sent.
    Ref<Morphel::SessionManagerStub> sessions(new Morphel::SessionManagerStub("sessions", adapter.Get(), nullptr));
    Kitra::ManagedMethod* logout = MethodNamed("morphel.SessionManager", "logout");
    ASSERT_NE(logout, nullptr);
    Fundix::RefVector<Any> none;
    int before = adapter->calls;
    EXPECT_THROW(sessions->_Invoke_Task(logout, none, task), Fundix::InvalidArgumentException);
    Ref<Fundix::System::ScheduledItem> item;
    EXPECT_THROW(sessions->_StartInvoke_Task(logout, none, {}, item), Fundix::InvalidArgumentException);
    EXPECT_FALSE(item);
    EXPECT_EQ(adapter->calls, before);
}

// An in-process stub resolves its implementation once and again only when the registrations change.
TEST(CallTest, InProcessStubsFollowTheRegistrations) {
    Ref<Kitra::LocalStubAdapter> local(new Kitra::LocalStubAdapter());
    Ref<CountingTaskManager> first(new CountingTaskManager(1));
    Ref<CountingTaskManager> second(new CountingTaskManager(2));
    Ref<Morphel::Task::TaskManagerStub> stub(new Morphel::Task::TaskManagerStub("tasks", local.Get(), nullptr));
    EXPECT_EQ(stub->_GetLocalAdapter(), local.Get());

    local->Register("tasks", first.Get());
    EXPECT_EQ(stub->GetMaxTask(), 1);
    stub->SetMaxTask(11);
    EXPECT_EQ(first->max, 11);

    // Another object under the same identifier, and registrations of other identifiers in between.
    local->Register("other", second.Get());
    EXPECT_EQ(stub->GetMaxTask(), 11);
    local->Register("tasks", second.Get());
    EXPECT_EQ(stub->GetMaxTask(), 2);
    local->Register("tasks", first.Get());
    EXPECT_EQ(stub->GetMaxTask(), 11);

    // Gone: the call fails as before, naming the object; back again: it succeeds.
    local->Unregister("tasks");
    auto gone = WireTest::Raised<Kitra::Fault::ManagedObjectNotFound::Exception>([&] { stub->GetMaxTask(); });
    ASSERT_TRUE(gone);
    EXPECT_EQ(gone->GetFault()->GetObj()->GetId(), "tasks");
    EXPECT_EQ(gone->GetFault()->GetObj()->GetTypeName(), "morphel.task.TaskManager");
    local->Register("tasks", second.Get());
    EXPECT_EQ(stub->GetMaxTask(), 2);

    // Asynchronously: the completion runs on another thread with the result.
    std::atomic<int> value{-1};
    std::atomic<bool> sameThread{true};
    auto caller = std::this_thread::get_id();
    Ref<Fundix::System::ScheduledItem> item;
    stub->GetMaxTask([&](Fundix::System::ScheduledItem*, Fundix::Exception* e, Any* result) {
        sameThread = std::this_thread::get_id() == caller;
        auto* box = dynamic_cast<Kitra::Primitive<int32_t>*>(result);
        value = e == nullptr && box != nullptr ? box->GetValue() : -2;
    }, item);
    ASSERT_TRUE(item);
    item->Wait();
    EXPECT_EQ(value, 2);
    EXPECT_FALSE(sameThread);

    // An object of another managed type under the identifier.
    Ref<RewindingCollector> collector(new RewindingCollector());
    local->Register("tasks", collector.Get());
    auto mismatch = WireTest::Raised<Fundix::TypeMismatchException>([&] { stub->GetMaxTask(); });
    ASSERT_TRUE(mismatch);
    EXPECT_EQ(mismatch->GetExpected(), "morphel.task.TaskManager");  // the wire name, not the C++ class

    // The stub keeps the object it called alive while the adapter lets go of it.
    Ref<Morphel::Task::TaskManagerStub> other(new Morphel::Task::TaskManagerStub("mine", local.Get(), nullptr));
    {
        Ref<CountingTaskManager> only(new CountingTaskManager(5));
        local->Register("mine", only.Get());
        EXPECT_EQ(other->GetMaxTask(), 5);
        EXPECT_EQ(only->GetRefCount(), 3);  // this scope, the adapter and the stub
    }
    local->Unregister("mine");
    EXPECT_THROW(other->GetMaxTask(), Kitra::Fault::ManagedObjectNotFound::Exception);

    // Calls from several threads while the registration under the identifier changes: every call reaches one
    // of the two objects (run under the thread sanitizer by the test command).
    first->max = 1;
    local->Register("tasks", first.Get());
    std::atomic<int> wrong{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 3; ++t)
        callers.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                int32_t v = stub->GetMaxTask();
                if (v != 1 && v != 2) ++wrong;
            }
        });
    for (int i = 0; i < 500; ++i) local->Register("tasks", i % 2 ? first.Get() : second.Get());
    for (auto& c : callers) c.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
