// Which events a filter selects, as every store answers SelectEvents. Private to the server library.
#pragma once

#include <algorithm>

#include <morphel/event/types.h>

namespace MorphelServer {

inline bool Matches(const Morphel::Event::EventFilterSpec* filter, const Morphel::Event::Event& e) {
    if (filter == nullptr) return true;
    if (filter->GetEventChainId().IsSet() && filter->GetEventChainId().GetValue() != e.GetChainId())
        return false;
    if (auto* types = filter->GetType(); types != nullptr && types->GetLength() != 0) {
        const auto& v = types->GetValues();
        if (std::find(v.begin(), v.end(), e.GetType()) == v.end()) return false;
    }
    if (auto* ids = filter->GetTypeId(); ids != nullptr && ids->GetLength() != 0) {
        bool any = false;
        for (const auto& name : ids->GetValues())
            any = any || name == e._GetType()->GetName();
        if (!any) return false;
    }
    if (auto* time = filter->GetTimeRange(); time != nullptr) {
        int64_t t = e.GetCreatedTime().GetUtcMicros();
        if (time->GetBeginTime().IsSet() && t < time->GetBeginTime().GetValue().GetUtcMicros()) return false;
        if (time->GetEndTime().IsSet() && t > time->GetEndTime().GetValue().GetUtcMicros()) return false;
    }
    if (auto* users = filter->GetUserName();
        users != nullptr && users->GetUserList() != nullptr && users->GetUserList()->GetLength() != 0) {
        const auto& v = users->GetUserList()->GetValues();
        if (std::find(v.begin(), v.end(), e.GetUserName()) == v.end()) return false;
    }
    if (auto* job = filter->GetJob();
        job != nullptr && (e.GetJob() == nullptr || e.GetJob()->GetId() != job->GetId()))
        return false;
    return true;
}

}  // namespace MorphelServer
