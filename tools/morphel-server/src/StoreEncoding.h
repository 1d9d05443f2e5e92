// What the stores kept outside the process share: records in their wire form (the SOAP codec's value
// messages) beside the API version they were written in and read back in that version, the list blob, and
// the check of a database's schema version. Each store keeps its SQL dialect in its own file. Private to
// the server library.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fundix/Exception.h>
#include <fundix/Ref.h>
#include <kitra/Soap.h>
#include <kitra/fault/types.h>
#include <morphel-server/State.h>

namespace MorphelServer {

// A list of strings as one blob: each its length in decimal, a colon, its bytes.
inline std::string Join(const std::vector<std::string>& items) {
    std::string out;
    for (const auto& item : items)
        out += std::to_string(item.size()) + ":" + item;
    return out;
}
inline std::vector<std::string> Split(const std::string& blob) {
    std::vector<std::string> items;
    for (size_t at = 0; at < blob.size();) {
        size_t colon = blob.find(':', at);
        if (colon == std::string::npos) throw std::runtime_error("malformed list");
        size_t length = std::stoul(blob.substr(at, colon - at));
        if (length > blob.size() - colon - 1) throw std::runtime_error("malformed list");
        items.push_back(blob.substr(colon + 1, length));
        at = colon + 1 + length;
    }
    return items;
}

// A collector's kind as a column holds it.
inline const char* KindName(CollectorKind kind) {
    switch (kind) {
        case CollectorKind::task:
            return "task";
        case CollectorKind::job:
            return "job";
        default:
            return "event";
    }
}
// The kind `name` names; throws for none, naming the store and the collector (`what`).
inline CollectorKind KindNamed(const std::string& name, const std::string& where, const std::string& what) {
    for (CollectorKind kind : {CollectorKind::event, CollectorKind::task, CollectorKind::job})
        if (name == KindName(kind)) return kind;
    throw std::runtime_error(where + ": " + what + " cannot be read: unknown kind " + name);
}

// Writes records in one API version and reads them in the version each was written in. Errors name the
// store (`where`: a file, a server).
class RecordCodec {
public:
    RecordCodec(std::string where, const std::string& version) : where_(std::move(where)) {
        writer_ = &CodecFor(version);
        version_ = writer_->GetVersion().name;
    }
    // The writer's version, in full.
    const std::string& Version() const { return version_; }
    const std::string& Where() const { return where_; }

    std::string Encode(const Kitra::Any* value) {
        try {
            return writer_->ToText(value);
        } catch (const Kitra::Fault::InvalidArgument::Exception& e) {
            const auto& property = e.GetFault()->GetInvalidProperty();
            throw std::runtime_error(where_ + ": " + value->_GetType()->GetName() + " cannot be written: " +
                                     (property.IsSet() ? property.GetValue() : std::string("invalid")));
        } catch (const Kitra::Fault::NotInVersion::Exception&) {
            throw std::runtime_error(where_ + ": " + value->_GetType()->GetName() + " cannot be written in " +
                                     version_);
        }
    }
    template <class T>
    Fundix::Ref<T> Decode(const std::string& version, const std::string& text, const std::string& what) {
        try {
            return CodecFor(version).FromText<T>(text);
        } catch (const Kitra::Fault::InvalidRequest::Exception& e) {
            throw std::runtime_error(where_ + ": " + what + " cannot be read: " + e.GetFault()->GetReason());
        } catch (const Fundix::Exception& e) {
            throw std::runtime_error(where_ + ": " + what + " cannot be read: " + e.GetMessage());
        }
    }
    std::vector<std::string> DecodeList(const std::string& blob, const std::string& what) {
        try {
            return Split(blob);
        } catch (const std::exception&) {
            throw std::runtime_error(where_ + ": " + what + " cannot be read: its disks are malformed");
        }
    }

private:
    const Kitra::Soap::Codec& CodecFor(const std::string& version) {
        auto& codec = codecs_[version];
        if (codec == nullptr) {
            try {
                codec = std::make_unique<Kitra::Soap::Codec>(version);
            } catch (const Fundix::Exception&) {
                codecs_.erase(version);
                throw std::runtime_error(where_ + ": unknown API version " + version);
            }
        }
        return *codec;
    }

    std::string where_;
    std::map<std::string, std::unique_ptr<Kitra::Soap::Codec>> codecs_;
    const Kitra::Soap::Codec* writer_ = nullptr;
    std::string version_;
};

// Brings a database of schema version `found` to the latest, `std::size(steps)`: runs each step after
// `found` in order through `exec` (inside the caller's transaction). Throws for a database of a newer
// server.
template <size_t N>
void MigrateSchema(const std::string& where, int64_t found, const char* const (&steps)[N],
                   const std::function<void(const char*)>& exec) {
    constexpr int64_t latest = int64_t(N);
    if (found > latest)
        throw std::runtime_error(where + ": written by a newer server (schema version " +
                                 std::to_string(found) + "; this server reads up to " +
                                 std::to_string(latest) + ")");
    for (int64_t step = found < 0 ? 0 : found; step < latest; ++step)
        exec(steps[step]);
}

}  // namespace MorphelServer
