#include <morphel-server/Handlers.h>

#include <cstdlib>

#include <kitra/fault/types.h>
#include <kitra/Call.h>

namespace MorphelServer {

void HandlerAdapter::On(const std::string& name, Handler handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    handlers_[name] = std::move(handler);
}

bool HandlerAdapter::Has(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return handlers_.count(name) != 0;
}

void HandlerAdapter::Invoke(const std::string&, Kitra::ManagedMethod* method, Args& arguments,
                            Fundix::Ref<Kitra::Any>& result, Kitra::RequestContext*) {
    Handler handler;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = handlers_.find(method->GetName());
        if (it != handlers_.end()) handler = it->second;
    }
    if (!handler) Raise(new Kitra::RuntimeFault());
    result = handler(arguments);
}

Fundix::Ref<Kitra::ManagedObject> MakeObject(const Kitra::Type* type, HandlerAdapter* adapter) {
    // The stub's own identifier is never sent anywhere: the adapter serves exactly one object.
    return Kitra::CreateStub(type, "impl", adapter);
}

void ThrowInvalidArgument(const std::string& property) {
    Raise(new Kitra::Fault::InvalidArgument(property));
}

void Raise(Fundix::Ref<Kitra::MethodFault> fault) {
    fault->Throw();
    std::abort();  // not reached: Throw always throws
}

std::string TextArg(Args& arguments, size_t index, const char* name) {
    return Kitra::Binding::UnboxValue<std::string>(Kitra::Binding::Arg(arguments, index, name), name);
}

Fundix::Optional<std::string> OptionalTextArg(Args& arguments, size_t index) {
    return Kitra::Binding::UnboxOptional<std::string>(index < arguments.size() ? arguments[index].Get() : nullptr);
}

int32_t IntArg(Args& arguments, size_t index, const char* name) {
    return Kitra::Binding::UnboxValue<int32_t>(Kitra::Binding::Arg(arguments, index, name), name);
}

}  // namespace MorphelServer
