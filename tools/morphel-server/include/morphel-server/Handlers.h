// Implementation objects made of handler functions: a managed object whose operations are served by
// functions keyed by method name, carried by the generated client stub of its managed type.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>

#include <fundix/Ref.h>
#include <kitra/Kitra.h>
#include <kitra/Stub.h>

namespace MorphelServer {

using Args = Fundix::RefVector<Kitra::Any>;
// Serves one operation: the call's arguments in parameter order (null for absent ones), the result boxed
// as the stub expects it (null for none). Faults are raised as their exceptions.
using Handler = std::function<Fundix::Ref<Kitra::Any>(Args& arguments)>;

// The handlers of one managed object, by method or property name ("login", "currentTime"). An operation
// without a handler raises a plain kodl.RuntimeFault.
class HandlerAdapter : public Kitra::StubAdapter {
public:
    void On(const std::string& name, Handler handler);
    bool Has(const std::string& name) const;

    void Invoke(const std::string& id, Kitra::ManagedMethod* method, Args& arguments, Fundix::Ref<Kitra::Any>& result,
                Kitra::RequestContext* context) override;

private:
    mutable std::mutex mutex_;
    std::map<std::string, Handler> handlers_;
};

// The implementation object of the managed type `T` (a wire type such as Morphel::SessionManager) whose
// operations `adapter` serves: the type's stub over the adapter, ready to register with a server.
Fundix::Ref<Kitra::ManagedObject> MakeObject(const Kitra::Type* type, HandlerAdapter* adapter);
template <class T>
Fundix::Ref<Kitra::ManagedObject> MakeObject(HandlerAdapter* adapter) {
    return MakeObject(Kitra::GetType<T>(), adapter);
}

// Arguments of a handler's call. A required value that is absent raises kodl.fault.InvalidArgument naming
// the parameter; a value of the wrong class raises Fundix::TypeMismatchException.
std::string TextArg(Args& arguments, size_t index, const char* name);
Fundix::Optional<std::string> OptionalTextArg(Args& arguments, size_t index);
int32_t IntArg(Args& arguments, size_t index, const char* name);
template <class T>
T* RecordArg(Args& arguments, size_t index) {
    return index < arguments.size() ? Kitra::CheckedCast<T>(arguments[index].Get()) : nullptr;
}

// Raises `fault` as its own exception class.
[[noreturn]] void Raise(Fundix::Ref<Kitra::MethodFault> fault);
// Raises kodl.fault.InvalidArgument naming `property`.
[[noreturn]] void ThrowInvalidArgument(const std::string& property);

}  // namespace MorphelServer
