// The service root: what the service offers (its content) and its clock.
#include <dovra/types.h>
#include <morphel/server/conversion/types.h>
#include <morphel/task/types.h>
#include <morphel/types.h>

#include "Context.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;

class ServiceInstanceImpl : public Morphel::ServiceInstanceBase {
public:
    explicit ServiceInstanceImpl(Context& context) : context_(context) {}

    void RetrieveContent(Ref<Morphel::ServiceInstanceContent>& result) override { result = Content(); }
    void GetContent(Ref<Morphel::ServiceInstanceContent>& result) override { result = Content(); }
    Fundix::System::DateTime GetCurrentTime() override { return Fundix::System::DateTime::Now(); }

private:
    // The API version is the one the caller speaks.
    Ref<Morphel::ServiceInstanceContent> Content() {
        std::string apiVersion = "4.0";
        if (Kitra::Http::Call* call = Kitra::Http::Call::Current()) {
            const std::string& uri = call->GetCodec().GetVersionUri();
            apiVersion = uri.substr(uri.rfind('/') + 1);
        }
        Ref<Dovra::AboutInfo> about(
            new Dovra::AboutInfo("Morphel Server", "Morphel Reference Server 0.1.0", "morphelTypes", "0.1.0",
                                 "1", "linux-x64", "ConversionServer", apiVersion, context_.instanceUuid,
                                 Fundix::Optional<std::string>(), Fundix::Optional<std::string>()));
        return new Morphel::ServiceInstanceContent(
            Ref<Kitra::MoRef>(
                new Kitra::MoRef(Kitra::GetType<Kitra::ManagedObject>()->GetName(), "PropertyCollector"))
                .Get(),
            RefTo<Morphel::SessionManager>(kSessionManagerId).Get(),
            RefTo<Morphel::Event::EventManager>(kEventManagerId).Get(),
            RefTo<Morphel::Task::TaskManager>(kTaskManagerId).Get(),
            RefTo<Morphel::QueryManager>(kQueryManagerId).Get(),
            RefTo<Morphel::DiagnosticManager>(kDiagnosticManagerId).Get(), about.Get(),
            RefTo<Morphel::Server::Conversion::ConversionManager>(kConversionManagerId).Get(), nullptr);
    }

    Context& context_;
};

}  // namespace

void AttachRoot(Context& context) {
    context.Register(kServiceInstanceId, Ref<ServiceInstanceImpl>(new ServiceInstanceImpl(context)).Get());
}

}  // namespace MorphelServer
