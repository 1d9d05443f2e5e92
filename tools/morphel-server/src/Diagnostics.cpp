// The diagnostic manager: log bundles of the server's events (a task's or all), each a zip archive of one
// text file, kept in the state by key and read back in pages.
#include <algorithm>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include <dovra/fault/types.h>
#include <morphel/types.h>

#include "Context.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;
using Fundix::System::DateTime;
using BundleInfo = Morphel::DiagnosticManager::TaskLogBundleInfo;

// How many bundles the state keeps (the oldest go first), how long a bundle's log may grow (its newest
// events are kept), and how many bytes one retrieveTaskLogBundle answers at most.
constexpr size_t kMaxBundles = 16;
constexpr size_t kMaxLogBytes = size_t(4) << 20;
constexpr int64_t kMaxPageBytes = int64_t(1) << 20;

uint32_t Crc32(const std::string& data) {
    uint32_t crc = 0xffffffffu;
    for (unsigned char c : data) {
        crc ^= c;
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

// Little-endian fields of the zip format.
void Put16(std::string& out, uint32_t v) {
    out += char(v & 0xff);
    out += char((v >> 8) & 0xff);
}
void Put32(std::string& out, uint32_t v) {
    Put16(out, v & 0xffff);
    Put16(out, v >> 16);
}

// A zip archive holding `data` as the one file `name`, stored (not compressed), modified at `time`.
// Sizes stay far below 4 GiB (kMaxLogBytes), so no 64-bit extension is needed.
std::string Zip(const std::string& name, const std::string& data, DateTime time) {
    std::time_t seconds = std::time_t(time.GetUtcMicros() / 1000000);
    std::tm t{};
    gmtime_r(&seconds, &t);
    const uint32_t dosTime = uint32_t(t.tm_hour << 11 | t.tm_min << 5 | t.tm_sec / 2);
    const uint32_t dosDate = uint32_t((t.tm_year - 80) << 9 | (t.tm_mon + 1) << 5 | t.tm_mday);
    const uint32_t crc = Crc32(data), size = uint32_t(data.size());
    // What the local header and the central directory's entry share, from the method on.
    auto common = [&](std::string& out) {
        Put16(out, 0);  // stored
        Put16(out, dosTime);
        Put16(out, dosDate);
        Put32(out, crc);
        Put32(out, size);  // compressed
        Put32(out, size);
        Put16(out, uint32_t(name.size()));
        Put16(out, 0);  // no extra field
    };
    std::string zip;
    Put32(zip, 0x04034b50);  // local file header
    Put16(zip, 10);          // version needed: 1.0
    Put16(zip, 0);           // flags
    common(zip);
    zip += name;
    zip += data;
    const uint32_t directoryAt = uint32_t(zip.size());
    Put32(zip, 0x02014b50);   // central directory entry
    Put16(zip, 3 << 8 | 20);  // made by: Unix, 2.0
    Put16(zip, 10);
    Put16(zip, 0);
    common(zip);
    Put16(zip, 0);               // no comment
    Put16(zip, 0);               // disk 0
    Put16(zip, 1);               // internal attributes: text
    Put32(zip, 0100644u << 16);  // external attributes: a regular file, rw-r--r--
    Put32(zip, 0);               // the local header's offset
    zip += name;
    const uint32_t directorySize = uint32_t(zip.size()) - directoryAt;
    Put32(zip, 0x06054b50);  // end of central directory
    Put16(zip, 0);
    Put16(zip, 0);
    Put16(zip, 1);
    Put16(zip, 1);
    Put32(zip, directorySize);
    Put32(zip, directoryAt);
    Put16(zip, 0);
    return zip;
}

std::string Base64(const char* bytes, size_t n) {
    static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((n + 2) / 3 * 4);
    for (size_t i = 0; i < n; i += 3) {
        uint32_t v = uint32_t(static_cast<unsigned char>(bytes[i])) << 16;
        if (i + 1 < n) v |= uint32_t(static_cast<unsigned char>(bytes[i + 1])) << 8;
        if (i + 2 < n) v |= uint32_t(static_cast<unsigned char>(bytes[i + 2]));
        out += kDigits[v >> 18];
        out += kDigits[(v >> 12) & 63];
        out += i + 1 < n ? kDigits[(v >> 6) & 63] : '=';
        out += i + 2 < n ? kDigits[v & 63] : '=';
    }
    return out;
}

// The log of `events`, a line each, the newest that fit in kMaxLogBytes.
std::string LogOf(const std::vector<Ref<Morphel::Event::Event>>& events) {
    std::vector<std::string> lines;
    size_t total = 0;
    for (auto e = events.rbegin(); e != events.rend(); ++e) {
        std::string line =
            (*e)->GetCreatedTime().ToIso8601() + " " + (*e)->GetFullMessage().GetValue() + "\n";
        if (total + line.size() > kMaxLogBytes) break;
        total += line.size();
        lines.push_back(std::move(line));
    }
    std::string text;
    text.reserve(total);
    for (auto line = lines.rbegin(); line != lines.rend(); ++line)
        text += *line;
    return text;
}

class DiagnosticManagerImpl : public Morphel::DiagnosticManagerBase {
public:
    explicit DiagnosticManagerImpl(Context& context) : context_(context) {}

    // The events of the task's chain (all events without a task), as `<task id>.log`; the task's info
    // names its latest bundle.
    void GenerateTaskLogBundle(Kitra::MoRef* task,
                               Ref<Morphel::DiagnosticManager_TaskLogBundleInfo>& result) override {
        const bool failedLogins = ReadsFailedLogins(context_);
        result = context_.state->Run([&](StateTransaction& tx) {
            Ref<Morphel::Event::EventFilterSpec> filter(new Morphel::Event::EventFilterSpec());
            std::optional<TaskRecord> found;
            if (task != nullptr) {
                found = tx.FindTask(task->GetId());
                if (!found) ThrowNotFound();
                filter->SetEventChainId(found->info->GetEventChainId());
            }
            auto info = Make(tx, ReadableEvents(tx, filter.Get(), failedLogins),
                             found ? found->id + ".log" : "server.log", failedLogins, found ? found->id : "");
            if (found) {
                found->info->SetLogBundleInfo(info.Get());
                tx.PutTask(*found);
            }
            return info;
        });
    }

    // All the events the caller reads, as `server.log`. The source is this machine (none names it too):
    // the server holds no other machine's logs (dovra.fault.LogBundlingFailed).
    void GenerateLogBundle(Morphel::ComputerSpec* source,
                           Ref<Morphel::DiagnosticManager_TaskLogBundleInfo>& result) override {
        if (source != nullptr) {
            try {
                CheckSource(context_.machine, source);
            } catch (const Fundix::Exception&) {
                Raise(new Dovra::Fault::LogBundlingFailed());
            }
        }
        const bool failedLogins = ReadsFailedLogins(context_);
        result = context_.state->Run([&](StateTransaction& tx) {
            return Make(tx, ReadableEvents(tx, nullptr, failedLogins), "server.log", failedLogins, "");
        });
    }

    // The bundle's bytes from `offset`, at most `maxPageSize` (and kMaxPageBytes) of them, in base64; empty
    // from the end on.
    std::string RetrieveTaskLogBundle(const std::string& key, int64_t offset, int64_t maxPageSize) override {
        if (offset < 0) ThrowInvalidArgument("offset");
        if (maxPageSize <= 0) ThrowInvalidArgument("maxPageSize");
        LogBundleRecord bundle = Find(key);
        if (offset >= int64_t(bundle.data.size())) return "";
        size_t n = size_t(std::min({maxPageSize, kMaxPageBytes, int64_t(bundle.data.size()) - offset}));
        return Base64(bundle.data.data() + offset, n);
    }
    // No download address is served: the bundle is read through retrieveTaskLogBundle.
    std::string RetrieveTaskLogBundleUrl(const std::string& key) override {
        Find(key);
        ThrowInvalidState();
    }
    void DeleteTaskLogBundle(const std::string& key) override {
        const bool failedLogins = ReadsFailedLogins(context_);
        context_.state->Transact([&](StateTransaction& tx) {
            auto bundle = tx.FindLogBundle(key);
            if (!bundle || (bundle->failedLogins && !failedLogins)) ThrowNotFound();
            Drop(tx, *bundle);
        });
    }

private:
    // The bundle `key`; dovra.fault.NotFound for none, and for one holding failed logins when the caller
    // may not read them.
    LogBundleRecord Find(const std::string& key) {
        const bool failedLogins = ReadsFailedLogins(context_);
        auto bundle = context_.state->Run([&](StateTransaction& tx) { return tx.FindLogBundle(key); });
        if (!bundle || (bundle->failedLogins && !failedLogins)) ThrowNotFound();
        return *bundle;
    }

    // Keeps a new bundle of `events` as the file `name`, dropping the oldest past kMaxBundles.
    Ref<BundleInfo> Make(StateTransaction& tx, const std::vector<Ref<Morphel::Event::Event>>& events,
                         const std::string& name, bool failedLogins, const std::string& taskId) {
        DateTime now = DateTime::Now();
        LogBundleRecord bundle;
        bundle.key = "bundle-" + std::to_string(tx.NextId());
        bundle.data = Zip(name, LogOf(events), now);
        bundle.taskId = taskId;
        bundle.failedLogins = failedLogins;
        Ref<Kitra::Array<Morphel::DiagnosticManager::BundleContent>> content(
            new Kitra::Array<Morphel::DiagnosticManager::BundleContent>());
        content->Append(Morphel::DiagnosticManager::BundleContent::serverLogs);
        Ref<BundleInfo> info(new BundleInfo(bundle.key, now, Morphel::DiagnosticManager::BundleFormat::zip,
                                            content.Get(), int64_t(bundle.data.size()),
                                            int32_t(Crc32(bundle.data))));
        bundle.info = info;
        tx.PutLogBundle(bundle);
        auto keys = tx.LogBundleKeys();
        for (size_t i = 0; i + kMaxBundles < keys.size(); ++i)
            if (auto old = tx.FindLogBundle(keys[i])) Drop(tx, *old);
        return info;
    }
    // Erases `bundle`; its task's info names it no more.
    static void Drop(StateTransaction& tx, const LogBundleRecord& bundle) {
        tx.EraseLogBundle(bundle.key);
        if (bundle.taskId.empty()) return;
        auto task = tx.FindTask(bundle.taskId);
        if (task && task->info->GetLogBundleInfo() != nullptr &&
            task->info->GetLogBundleInfo()->GetKey() == bundle.key) {
            task->info->UnsetLogBundleInfo();
            tx.PutTask(*task);
        }
    }

    Context& context_;
};

}  // namespace

void AttachDiagnostics(Context& context) {
    context.Register(kDiagnosticManagerId,
                     Ref<DiagnosticManagerImpl>(new DiagnosticManagerImpl(context)).Get());
}

}  // namespace MorphelServer
