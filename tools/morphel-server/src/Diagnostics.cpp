// The diagnostic manager: log bundles of a task's events.
#include <morphel/types.h>

#include "Context.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;
using Fundix::System::DateTime;

uint32_t Crc32(const std::string& data) {
    uint32_t crc = 0xffffffffu;
    for (unsigned char c : data) {
        crc ^= c;
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

class DiagnosticManagerImpl : public Morphel::DiagnosticManagerBase {
public:
    explicit DiagnosticManagerImpl(Context& context) : context_(context) {}

    // The bundle is the text of the task's events (all events without a task); nothing is written.
    void GenerateTaskLogBundle(Kitra::MoRef* task,
                               Ref<Morphel::DiagnosticManager_TaskLogBundleInfo>& result) override {
        const bool failedLogins = ReadsFailedLogins(context_);
        result = context_.state->Run([&](StateTransaction& tx) {
            Ref<Morphel::Event::EventFilterSpec> filter(new Morphel::Event::EventFilterSpec());
            if (task != nullptr) {
                auto found = tx.FindTask(task->GetId());
                if (!found) ThrowNotFound();
                filter->SetEventChainId(found->info->GetEventChainId());
            }
            std::string text;
            for (const auto& e : ReadableEvents(tx, filter.Get(), failedLogins))
                text += e->GetCreatedTime().ToIso8601() + " " + e->GetFullMessage().GetValue() + "\n";
            return Ref<Morphel::DiagnosticManager_TaskLogBundleInfo>(
                new Morphel::DiagnosticManager::TaskLogBundleInfo(
                    "bundle-" + std::to_string(tx.NextId()), DateTime::Now(),
                    Morphel::DiagnosticManager::BundleFormat::zip, nullptr, int64_t(text.size()),
                    int32_t(Crc32(text))));
        });
    }

private:
    Context& context_;
};

}  // namespace

void AttachDiagnostics(Context& context) {
    context.Register(kDiagnosticManagerId,
                     Ref<DiagnosticManagerImpl>(new DiagnosticManagerImpl(context)).Get());
}

}  // namespace MorphelServer
