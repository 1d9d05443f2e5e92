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
        Kitra::Http::Server* server = context_.server;
        bool tls = server != nullptr && server->IsTls();
        Ref<Morphel::ServiceInstanceContent> content(tls ? new Morphel::ServerInstanceContent()
                                                         : new Morphel::ServiceInstanceContent());
        content->SetPropertyCollector(
            Ref<Kitra::MoRef>(
                new Kitra::MoRef(Kitra::GetType<Kitra::ManagedObject>()->GetName(), "PropertyCollector"))
                .Get());
        content->SetSessionManager(RefTo<Morphel::SessionManager>(kSessionManagerId).Get());
        content->SetEventManager(RefTo<Morphel::Event::EventManager>(kEventManagerId).Get());
        content->SetTaskManager(RefTo<Morphel::Task::TaskManager>(kTaskManagerId).Get());
        content->SetQueryManager(RefTo<Morphel::QueryManager>(kQueryManagerId).Get());
        content->SetDiagnosticManager(RefTo<Morphel::DiagnosticManager>(kDiagnosticManagerId).Get());
        content->SetAbout(about.Get());
        content->SetConversionManager(
            RefTo<Morphel::Server::Conversion::ConversionManager>(kConversionManagerId).Get());
        // Over HTTPS the content names the server's certificate, for clients to pin.
        if (tls) {
            static_cast<Morphel::ServerInstanceContent*>(content.Get())
                ->SetScheduledTaskManager(
                    RefTo<Morphel::Task::ScheduledTaskManager>(kScheduledTaskManagerId).Get());
            static_cast<Morphel::ServerInstanceContent*>(content.Get())
                ->SetPelorServerInfo(Ref<Morphel::ServerInstanceContent::PelorServerInfo>(
                                         new Morphel::ServerInstanceContent::PelorServerInfo(
                                             server->GetUrl(), server->GetThumbprint()))
                                         .Get());
        }
        return content;
    }

    Context& context_;
};

}  // namespace

void AttachRoot(Context& context) {
    context.Register(kServiceInstanceId, Ref<ServiceInstanceImpl>(new ServiceInstanceImpl(context)).Get());
}

}  // namespace MorphelServer
