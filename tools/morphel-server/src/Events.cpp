// The event manager and its history collectors: views over the events a filter selects (Collector.h).
#include <algorithm>
#include <array>
#include <cctype>
#include <set>

#include <morphel/event/types.h>

#include "Collector.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;
using Morphel::Event::Event;
using Morphel::Event::EventFilterSpec;
using EventPage = Kitra::DataArray<Event>;

class EventManagerImpl : public Morphel::Event::EventManagerBase {
public:
    explicit EventManagerImpl(Context& context) : context_(context) {}

    void CreateCollector(EventFilterSpec* filter, Ref<Kitra::MoRef>& result) override {
        result = MorphelServer::CreateCollector(
            context_, CollectorKind::event,
            filter != nullptr ? Ref<Kitra::Any>(filter->_Clone()) : Ref<Kitra::Any>(new EventFilterSpec()));
    }
    void QueryEvent(EventFilterSpec* filter, Ref<EventPage>& result) override {
        const bool failedLogins = ReadsFailedLogins(context_);
        result = context_.state->Run([&](StateTransaction& tx) {
            auto selected = ReadableEvents(tx, filter, failedLogins);
            return Page(selected, 0, selected.size());
        });
    }
    int32_t GetMaxCollector() override { return kMaxCollectors; }
    // Every kind of event the interface defines, by wire name (its label the class's name, its summary that
    // name in words: "Disk cloned event"), and the three types of event.
    void GetDescription(Ref<Morphel::Event::EventDescription>& result) override {
        static const Ref<Kitra::DataArray<Dovra::ElementDescription>> kinds = [] {
            const Kitra::Type* base = Kitra::GetType<Event>();
            std::vector<std::array<std::string, 3>> rows;
            for (const Kitra::Type* type : Kitra::GetTypeMap()->GetTypes()) {
                if (!type->IsA(base)) continue;
                std::string name = type->GetName(), label = name.substr(name.rfind('.') + 1), words;
                for (char c : label)
                    words += words.empty() ? std::string(1, c)
                             : std::isupper(static_cast<unsigned char>(c))
                                 ? std::string(" ") + char(std::tolower(static_cast<unsigned char>(c)))
                                 : std::string(1, c);
                rows.push_back({name, label, words});
            }
            std::sort(rows.begin(), rows.end());
            return Descriptions(rows);
        }();
        result = new Morphel::Event::EventDescription(
            Ref<Kitra::DataArray<Dovra::ElementDescription>>(kinds->_Clone()).Get(),
            Descriptions({{"info", "Information", "An event that informs"},
                          {"warning", "Warning", "An event that warns of something that may need attention"},
                          {"error", "Error", "An event that records a failure"}})
                .Get());
    }

private:
    Context& context_;
};

}  // namespace

Ref<Kitra::ManagedObject> NewEventCollector(Context& context, const std::string& id) {
    return new HistoryCollectorImpl<Morphel::Event::EventHistoryCollector,
                                    Morphel::Event::EventHistoryCollectorBase, Event>(
        context, id, [&context](StateTransaction& tx, const CollectorRecord& c) {
            std::vector<Keyed<Event>> keyed;
            for (auto& e : ReadableEvents(tx, dynamic_cast<const EventFilterSpec*>(c.filter.Get()),
                                          ReadsFailedLogins(context)))
                keyed.push_back({e->GetKey(), std::move(e)});
            return keyed;
        });
}

std::vector<Ref<Event>> ReadableEvents(StateTransaction& tx, const EventFilterSpec* filter,
                                       bool failedLogins) {
    auto selected = tx.SelectEvents(filter);
    if (!failedLogins)
        selected.erase(
            std::remove_if(selected.begin(), selected.end(),
                           [](const Ref<Event>& e) {
                               return dynamic_cast<const Morphel::Event::UserFailedAuthenticationEvent*>(
                                          e.Get()) != nullptr;
                           }),
            selected.end());
    return selected;
}

bool ReadsFailedLogins(Context& context) {
    return context.accounts.Holds(CurrentSession().GetUserName(), "Sessions.TerminateSession");
}

void EndCollectorsOf(Context& context, const std::string& key) {
    auto ended = context.state->Run([&](StateTransaction& tx) {
        auto ids = tx.CollectorIdsOf(key);
        for (const auto& id : ids)
            tx.EraseCollector(id);
        return ids;
    });
    for (const auto& id : ended)
        context.Unregister(id);
}

void AttachEvents(Context& context) {
    context.Register(kEventManagerId, Ref<EventManagerImpl>(new EventManagerImpl(context)).Get());
    // Collectors whose session ended with an earlier run of the server go; the others are served again.
    const std::set<std::string> live = context.server->GetSessionKeys();
    auto kept = context.state->Run([&](StateTransaction& tx) {
        std::vector<std::pair<std::string, CollectorKind>> ids;
        for (const auto& id : tx.CollectorIds()) {
            auto c = tx.FindCollector(id);
            if (c && live.count(c->owner) != 0)
                ids.emplace_back(id, c->kind);
            else
                tx.EraseCollector(id);
        }
        return ids;
    });
    for (const auto& [id, kind] : kept)
        RegisterCollector(context, id, kind);
}

}  // namespace MorphelServer
