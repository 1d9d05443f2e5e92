// The codec's reader: expat reports elements as they stream by, and each is decoded straight into the
// typed object its record names. Nothing is handed out unless the whole message was read.
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include <expat.h>

#include <fundix/Exception.h>
#include <fundix/Optional.h>
#include <fundix/System/DateTime.h>
#include <kitra/Array.h>
#include <kitra/DataObject.h>
#include <kitra/Field.h>
#include <kitra/MoRef.h>
#include <kitra/Primitive.h>
#include <kitra/fault/types.h>

#include "Internal.h"

namespace Kitra {

// How the reader appends a record whose type it has checked (DataArrayBase names it a friend).
struct ReaderAccess {
    static void Append(DataArrayBase* array, Any* value) { array->AppendUnchecked(value); }
};

}  // namespace Kitra

namespace Kitra::Soap {

using Fundix::Optional;
using Fundix::System::DateTime;

namespace {

constexpr char kSep = '\x01';  // between namespace URI and local name in the names expat reports

// What an open element is.
enum class Kind : uint8_t {
    Document,  // before the envelope
    Envelope,
    Header,
    VersionId,
    Skip,  // a header entry nobody needs to understand
    Body,
    Request,
    Response,
    Fault,
    FaultText,  // faultcode, faultstring, faultactor
    Detail,
    Data,      // a data object or fault being filled
    Leaf,      // a primitive or enumeration value, or a reference: never a frame, the reader holds it
    AnyArray,  // ArrayOf<X> in an anyType place
    Nil,       // an element with xsi:nil="true"
};

// Where a decoded value goes in its parent.
struct Slot {
    const Type* type = nullptr;  // the type to decode (xsi:type applied)
    int prop = -1;               // property index in the parent data object, or parameter index
    bool array = false;          // one item of an array
    ArrayBase* into = nullptr;   // an item of a data object's array property: that array
};

// An open element. Frames hold nothing that must be freed but the object or array being filled, so that
// opening and closing one is cheap; what a record needs beyond its frame lies in the reader (its arrays
// under construction, seen-bits past 128 properties). A leaf (a value written as text) has no frame at
// all: only one is open at a time, and the reader holds it.
struct Frame {
    explicit Frame(Kind k, const Slot& s = {}, const char* n = "", long i = -1)
        : kind(k), slot(s), name(n), index(i) {}

    Kind kind;
    Slot slot;
    const char* name;  // for property paths: a name from the records, or a literal
    long index;        // item index within an array
    // Data
    const DataObjectType* dataType = nullptr;
    const PropertyDesc* props = nullptr;  // dataType's properties, all levels
    uint32_t propCount = 0;
    int lastField = -1;
    uint32_t arraysFrom = 0;  // this record's arrays under construction: the reader's arrays_ from here on
    uint32_t seenFrom = 0;  // this record's seen-bits past the first 128: the reader's seenMore_ from here on
    // The properties met so far, a bit each: in place for up to 128 properties (every record of the
    // interface), so that a record costs no allocation of its own beyond the object.
    uint64_t seen[2] = {0, 0};
    Fundix::Ref<DataObject> object;
    // AnyArray: the array, its element type and the name each item's element has
    Fundix::Ref<ArrayBase> anyArray;
    const Type* element = nullptr;
    const char* itemName = nullptr;
};

struct Stop {};  // unwinds a handler after the error has been recorded

std::string_view Local(const char* name) {
    const char* sep = std::strchr(name, kSep);
    return sep != nullptr ? std::string_view(sep + 1) : std::string_view(name);
}

std::string_view Uri(const char* name) {
    const char* sep = std::strchr(name, kSep);
    return sep != nullptr ? std::string_view(name, static_cast<size_t>(sep - name)) : std::string_view();
}

inline bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

inline std::string_view Trim(std::string_view s) {
    while (!s.empty() && IsSpace(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && IsSpace(s.back()))
        s.remove_suffix(1);
    return s;
}

// The namespaces the reader meets, measured once.
constexpr std::string_view kXsi = kXsiNs;
constexpr std::string_view kXsd = kXsdNs;
constexpr std::string_view kEnvelope = kEnvelopeNs;

bool IsBlank(std::string_view s) { return Trim(s).empty(); }

// What a reader borrows from its thread for one message: an expat parser, its frame stack and its text
// buffer. Each thread keeps them between messages: a new parser costs a dozen allocations and a system call
// for the random salt of its hash tables, and a stack or buffer that grew again for every message would
// allocate where the finished objects keep nothing. The salt stays random, drawn once per thread. A parser
// that read a large message is not kept, nor a buffer that held a long text, so that neither holds its
// memory. A message read inside another (by a handler of the outer one) gets its own.
class Lease {
public:
    explicit Lease(size_t bytes) : keep_(bytes <= kKeptBelow) {
        Slot& slot = tSlot;
        if (slot.parser != nullptr) {
            parser_ = slot.parser;
            slot.parser = nullptr;
            if (XML_ParserReset(parser_, "UTF-8") != XML_TRUE) {
                XML_ParserFree(parser_);
                parser_ = nullptr;
            }
        }
        if (parser_ == nullptr) parser_ = XML_ParserCreateNS("UTF-8", kSep);
        if (parser_ == nullptr) throw std::bad_alloc();
        if (slot.salt == 0) slot.salt = static_cast<unsigned long>(std::random_device()()) << 16 | 1;
        XML_SetHashSalt(parser_, slot.salt);
        frames.swap(slot.frames);
        text.swap(slot.text);
        if (frames.capacity() == 0) frames.reserve(kFrames);
    }
    ~Lease() {
        Slot& slot = tSlot;
        if (keep_ && slot.parser == nullptr)
            slot.parser = parser_;
        else
            XML_ParserFree(parser_);
        frames.clear();
        text.clear();
        if (slot.frames.capacity() == 0 && frames.capacity() <= kFramesKept) frames.swap(slot.frames);
        if (slot.text.capacity() == 0 && text.capacity() <= kTextKept) text.swap(slot.text);
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    XML_Parser Parser() const { return parser_; }

    std::vector<Frame> frames;
    std::string text;

private:
    static constexpr size_t kKeptBelow = 1 << 20;
    static constexpr size_t kFrames = 16;
    static constexpr size_t kFramesKept = 128;
    static constexpr size_t kTextKept = 64 << 10;
    struct Slot {
        XML_Parser parser = nullptr;
        unsigned long salt = 0;
        std::vector<Frame> frames;
        std::string text;
        ~Slot() {
            if (parser != nullptr) XML_ParserFree(parser);
        }
    };
    static thread_local Slot tSlot;

    XML_Parser parser_ = nullptr;
    bool keep_;
};

thread_local Lease::Slot Lease::tSlot;

class Reader {
public:
    Reader(const Codec& codec)
        : codec_(codec), limits_(codec.GetLimits()), nsSep_(codec.GetNamespace() + kSep) {}

    Message Read(std::string_view text) {
        if (text.size() > limits_.maxMessageBytes)
            Detail::ThrowInvalidRequest("message of " + std::to_string(text.size()) +
                                            " bytes exceeds the limit of " +
                                            std::to_string(limits_.maxMessageBytes),
                                        "");
        Lease lease(text.size());
        XML_Parser parser = lease.Parser();
        parser_ = parser;
        stack_.swap(lease.frames);
        text_.swap(lease.text);
        // Handed back on every way out; the frames go empty, so that nothing of this message stays held.
        struct Return {
            Reader& r;
            Lease& l;
            ~Return() {
                r.stack_.clear();
                r.stack_.swap(l.frames);
                r.text_.swap(l.text);
            }
        } handBack{*this, lease};
        XML_SetUserData(parser, this);
        XML_SetElementHandler(parser, &Reader::OnStart, &Reader::OnEnd);
        XML_SetCharacterDataHandler(parser, &Reader::OnText);
        XML_SetNamespaceDeclHandler(parser, &Reader::OnNsStart, &Reader::OnNsEnd);
        XML_SetStartDoctypeDeclHandler(parser, &Reader::OnDoctype);
        XML_SetEntityDeclHandler(parser, &Reader::OnEntity);
        XML_SetParamEntityParsing(parser, XML_PARAM_ENTITY_PARSING_NEVER);
        stack_.push_back(Frame{Kind::Document});
        XML_Status status = XML_Parse(parser, text.data(), static_cast<int>(text.size()), XML_TRUE);
        if (status != XML_STATUS_OK && !failed_) {
            reason_ = std::string(XML_ErrorString(XML_GetErrorCode(parser))) + " at line " +
                      std::to_string(XML_GetCurrentLineNumber(parser)) + ", column " +
                      std::to_string(XML_GetCurrentColumnNumber(parser));
            failed_ = true;
        }
        parser_ = nullptr;
        if (failed_) Detail::ThrowInvalidRequest(reason_, errorPath_);
        if (!haveTop_) Detail::ThrowInvalidRequest("the body holds no message", "");
        // A fault without a detail that names its class is still a fault.
        if (message_.kind == MessageKind::Fault && message_.value == nullptr)
            message_.value = new RuntimeFault();
        return std::move(message_);
    }

private:
    // ---- Failure

    [[noreturn]] void Fail(const std::string& reason, const char* child = nullptr) {
        if (!failed_) {
            failed_ = true;
            reason_ = reason;
            errorPath_ = Path(child);
        }
        if (parser_ != nullptr) XML_StopParser(parser_, XML_FALSE);
        throw Stop{};
    }

    std::string Path(const char* child) const {
        std::string path;
        auto add = [&](const char* name, long index) {
            if (*name != '\0') {
                if (!path.empty()) path += '.';
                path += name;
            }
            if (index >= 0) path += '[' + std::to_string(index) + ']';
        };
        for (size_t i = topIndex_ + 1; topIndex_ != 0 && i < stack_.size(); ++i)
            add(stack_[i].name, stack_[i].index);
        if (leafOpen_ && topIndex_ != 0 && stack_.size() > topIndex_) add(leafName_, leafIndex_);
        if (child != nullptr) add(child, -1);
        return path;
    }

    // ---- Expat callbacks: each catches everything, since nothing may unwind through the parser.

    template <class F>
    static void Guard(void* self, F&& f) {
        auto* r = static_cast<Reader*>(self);
        if (r->failed_) return;
        try {
            f(*r);
        } catch (const Stop&) {
        } catch (const Fundix::Exception& e) {
            r->Record(e.GetMessage());
        } catch (const std::bad_alloc&) {
            r->Record("out of memory");
        } catch (const std::exception& e) {
            r->Record(e.what());
        }
    }

    void Record(const std::string& reason) {
        if (!failed_) {
            failed_ = true;
            reason_ = reason;
            errorPath_ = Path(nullptr);
        }
        XML_StopParser(parser_, XML_FALSE);
    }

    static void XMLCALL OnStart(void* self, const XML_Char* name, const XML_Char** attrs) {
        Guard(self, [&](Reader& r) { r.Start(name, attrs); });
    }
    static void XMLCALL OnEnd(void* self, const XML_Char*) {
        Guard(self, [&](Reader& r) { r.End(); });
    }
    static void XMLCALL OnText(void* self, const XML_Char* s, int len) {
        auto* r = static_cast<Reader*>(self);
        const std::string_view text(s, static_cast<size_t>(len));
        // Most leaves: their text in one piece, in expat's buffer, within the limit.
        if (!r->failed_ && r->leafOpen_ && r->view_.empty() && r->text_.empty() &&
            text.size() <= r->limits_.maxTextBytes && r->InBuffer(text)) {
            r->view_ = text;
            return;
        }
        Guard(self, [&](Reader& r) { r.Chars(text); });
    }
    static void XMLCALL OnNsStart(void* self, const XML_Char* prefix, const XML_Char* uri) {
        static_cast<Reader*>(self)->checkedName_ = nullptr;
        Guard(self, [&](Reader& r) { r.ns_.emplace_back(prefix ? prefix : "", uri ? uri : ""); });
    }
    static void XMLCALL OnNsEnd(void* self, const XML_Char* prefix) {
        static_cast<Reader*>(self)->checkedName_ = nullptr;
        Guard(self, [&](Reader& r) {
            std::string_view p = prefix ? prefix : "";
            for (size_t i = r.ns_.size(); i-- > 0;)
                if (r.ns_[i].first == p) {
                    r.ns_.erase(r.ns_.begin() + static_cast<long>(i));
                    break;
                }
        });
    }
    static void XMLCALL OnDoctype(void* self, const XML_Char*, const XML_Char*, const XML_Char*, int) {
        Guard(self, [&](Reader& r) { r.Fail("document type declarations are not accepted"); });
    }
    static void XMLCALL OnEntity(void* self, const XML_Char*, int, const XML_Char*, int, const XML_Char*,
                                 const XML_Char*, const XML_Char*, const XML_Char*) {
        Guard(self, [&](Reader& r) { r.Fail("entity declarations are not accepted"); });
    }

    // ---- Structure

    // Opens a frame in place on the stack.
    template <class... Args>
    [[gnu::always_inline]] Frame& Push(Args&&... args) {
        if (stack_.size() > limits_.maxDepth) TooDeep();
        return stack_.emplace_back(std::forward<Args>(args)...);
    }
    // Opens a leaf. A leaf has no frame: at most one is open, above the top frame, and it holds no more
    // than its place and name.
    [[gnu::always_inline]] void OpenLeaf(const Slot& slot, const char* name, long index) {
        if (stack_.size() > limits_.maxDepth) TooDeep();
        leafSlot_ = slot;
        leafName_ = name;
        leafIndex_ = index;
        leafOpen_ = true;
    }
    [[noreturn, gnu::noinline]] void TooDeep() {
        Fail("nesting deeper than " + std::to_string(limits_.maxDepth) + " elements");
    }

    const char* Attr(const XML_Char** attrs, std::string_view uri, std::string_view local) const {
        for (int i = 0; attrs[i] != nullptr; i += 2)
            if (Local(attrs[i]) == local && Uri(attrs[i]) == uri) return attrs[i + 1];
        return nullptr;
    }

    // The attributes a value element may carry, found in one pass: xsi:nil, xsi:type and a reference's
    // type. Any other attribute is left alone.
    struct ValueAttrs {
        const char* nil = nullptr;
        const char* xsiType = nullptr;
        const char* refType = nullptr;
    };
    static ValueAttrs ScanAttrs(const XML_Char** attrs) {
        ValueAttrs found;
        for (int i = 0; attrs[i] != nullptr; i += 2) {
            const char* name = attrs[i];
            const char* sep = std::strchr(name, kSep);
            if (sep == nullptr) {
                if (found.refType == nullptr && std::strcmp(name, "type") == 0) found.refType = attrs[i + 1];
                continue;
            }
            if (std::string_view(name, static_cast<size_t>(sep - name)) != kXsi) continue;
            if (found.xsiType == nullptr && std::strcmp(sep + 1, "type") == 0)
                found.xsiType = attrs[i + 1];
            else if (found.nil == nullptr && std::strcmp(sep + 1, "nil") == 0)
                found.nil = attrs[i + 1];
        }
        return found;
    }

    void Start(const char* name, const char** attrs) {
        if (leafOpen_) [[unlikely]]
            Fail("unexpected element " + std::string(Local(name)) + " inside a value");
        Frame& parent = stack_.back();
        // Expat writes the expanded name of each element after the namespace, in a buffer of the namespace's
        // binding, so the elements of one namespace mostly come at one address. That buffer moves only when
        // an element of the namespace needs a longer one (and every element passes here), and bindings change
        // only where a namespace is declared or goes out of scope, which forgets the address.
        if (name == checkedName_ || std::strncmp(name, nsSep_.data(), nsSep_.size()) == 0) {
            checkedName_ = name;
            if (parent.kind == Kind::Data) {  // most elements are fields
                StartField(name + nsSep_.size(), attrs);
                return;
            }
        }
        const char* sep = std::strchr(name, kSep);
        std::string_view uri =
            sep != nullptr ? std::string_view(name, static_cast<size_t>(sep - name)) : std::string_view();
        std::string_view local = sep != nullptr ? std::string_view(sep + 1) : std::string_view(name);
        switch (parent.kind) {
            case Kind::Document:
                if (uri != kEnvelope || local != "Envelope") Fail("not a SOAP 1.1 envelope");
                Push(Kind::Envelope);
                return;
            case Kind::Envelope:
                if (uri == kEnvelope && local == "Header" && !haveBody_) {
                    Push(Kind::Header);
                } else if (uri == kEnvelope && local == "Body" && !haveBody_) {
                    haveBody_ = true;
                    Push(Kind::Body);
                } else {
                    Fail("unexpected element " + std::string(local) + " in the envelope");
                }
                return;
            case Kind::Header:
                if (uri == kKodlNs && local == "versionId") {
                    text_.clear();
                    Push(Kind::VersionId);
                    return;
                }
                if (const char* mu = Attr(attrs, kEnvelope, "mustUnderstand");
                    mu != nullptr && std::string_view(mu) == "1")
                    Fail("header " + std::string(local) + " is not understood");
                Push(Kind::Skip);
                return;
            case Kind::Skip:
            case Kind::VersionId:
            case Kind::FaultText:
                if (parent.kind != Kind::Skip) Fail("unexpected element " + std::string(local));
                Push(Kind::Skip);
                return;
            case Kind::Body:
                StartTop(uri, local, attrs);
                return;
            case Kind::Fault:
                if (!uri.empty()) Fail("unexpected element " + std::string(local) + " in a fault");
                if (local == "detail") {
                    Push(Kind::Detail);
                } else if (local == "faultcode" || local == "faultstring" || local == "faultactor") {
                    Push(Kind::FaultText);
                } else {
                    Fail("unexpected element " + std::string(local) + " in a fault");
                }
                return;
            case Kind::Detail:
                StartFaultDetail(local, attrs);
                return;
            case Kind::Request:
                StartParam(local, attrs);
                return;
            case Kind::Response:
                StartReturn(local, attrs);
                return;
            case Kind::Data:
                CheckNamespace(uri, local);
                StartField(local.data(), attrs);
                return;
            case Kind::AnyArray:
                StartAnyItem(local.data(), attrs);
                return;
            case Kind::Leaf:  // (leaves have no frame; Start refused the element already)
            case Kind::Nil:
                Fail("unexpected element " + std::string(local) + " inside a value");
        }
    }

    void Chars(std::string_view s) {
        Frame& top = stack_.back();
        if (leafOpen_) {
            if (text_.size() + view_.size() + s.size() > limits_.maxTextBytes)
                Fail("text longer than " + std::to_string(limits_.maxTextBytes) + " bytes");
            if (view_.empty() && text_.empty() && InBuffer(s)) {
                view_ = s;
                return;
            }
            if (!view_.empty()) {
                text_.append(view_);  // empty until now
                view_ = {};
            }
            text_.append(s);
        } else if (top.kind == Kind::VersionId) {
            if (text_.size() + s.size() > limits_.maxTextBytes)
                Fail("text longer than " + std::to_string(limits_.maxTextBytes) + " bytes");
            text_.append(s);
        } else if (top.kind != Kind::Skip && top.kind != Kind::FaultText && !IsBlank(s)) {
            Fail("unexpected text");
        }
    }

    void End() {
        if (leafOpen_) {
            EndLeaf();
            return;
        }
        Frame& top = stack_.back();
        switch (top.kind) {
            case Kind::VersionId:
                if (Trim(text_) != codec_.GetVersionUri())
                    Fail("the message speaks " + std::string(Trim(text_)) + ", not " +
                         codec_.GetVersionUri());
                break;
            case Kind::Body:
                if (!haveTop_) Fail("the body holds no message");
                break;
            case Kind::Data:
                FinishData(top);
                arrays_.resize(top.arraysFrom);
                seenMore_.resize(top.seenFrom);
                Deliver(top.slot, stack_[stack_.size() - 2], top.object.Get(), Kind::Data);
                break;
            case Kind::AnyArray:
                Deliver(top.slot, stack_[stack_.size() - 2], top.anyArray.Get(), Kind::AnyArray);
                break;
            case Kind::Request:
                FinishRequest();
                break;
            default:
                break;
        }
        stack_.pop_back();
    }

    // A leaf ends: its value goes to the top frame, stored in place where it can be.
    void EndLeaf() {
        Fundix::Ref<Any> value = LeafValue();
        if (value != nullptr) Deliver(leafSlot_, stack_.back(), value.Get(), Kind::Leaf);
        leafOpen_ = false;
    }

    // ---- The body's message

    void StartTop(std::string_view uri, std::string_view local, const char** attrs) {
        if (haveTop_) Fail("the body holds more than one element");
        haveTop_ = true;
        topIndex_ = stack_.size();
        if (uri == kEnvelope && local == "Fault") {
            message_.kind = MessageKind::Fault;
            Push(Kind::Fault);
            return;
        }
        CheckNamespace(uri, local);
        if (local == "value") {
            message_.kind = MessageKind::Value;
            topIndex_ = stack_.size() - 1;  // the value's fields are paths of their own
            StartValue("", nullptr, attrs, Slot{});
            return;
        }
        if (local == "FetchProperty" || local == "FetchPropertyResponse") {
            message_.kind = local == "FetchProperty" ? MessageKind::Request : MessageKind::Response;
            fetch_ = true;
            if (expected_ != nullptr) {
                if (message_.kind != MessageKind::Response || !expected_->IsProperty())
                    Fail("expected a response to " + std::string(expected_->GetWsdlName()) + ", received " +
                         std::string(local));
                message_.method = const_cast<ManagedMethod*>(expected_);
            }
            Push(message_.kind == MessageKind::Request ? Kind::Request : Kind::Response);
            return;
        }
        bool response = local.size() > 8 && local.substr(local.size() - 8) == "Response";
        std::string_view op = response ? local.substr(0, local.size() - 8) : local;
        ManagedMethod* method = FindOperation(op);
        if (method == nullptr) Fail("unknown operation " + std::string(local));
        if (!codec_.Includes(method->GetVersion()))
            Fail("operation " + std::string(op) + " is not part of " + codec_.GetVersion().name);
        if (expected_ != nullptr && (!response || method != expected_))
            Fail("expected a response to " + std::string(expected_->GetWsdlName()) + ", received " +
                 std::string(local));
        message_.method = method;
        message_.kind = response ? MessageKind::Response : MessageKind::Request;
        if (!response) {
            const MethodTypeInfo* info = method->GetMethodInfo();
            size_t n = 0;
            for (const ParamTypeInfo* p = info->params; p != nullptr && p->name != nullptr; ++p)
                ++n;
            message_.arguments.resize(n);
            paramSeen_.assign(n, false);
        }
        Push(response ? Kind::Response : Kind::Request);
    }

    void CheckNamespace(std::string_view uri, std::string_view local) {
        if (!uri.empty() && uri != codec_.GetNamespace())
            Fail("element " + std::string(local) + " in unknown namespace " + std::string(uri));
    }

    void StartFaultDetail(std::string_view local, const char** attrs) {
        if (message_.value != nullptr || faultStarted_) Fail("a fault detail holds more than one fault");
        faultStarted_ = true;
        const char* xsi = Attr(attrs, kXsi, "type");
        const Type* type = nullptr;
        if (xsi != nullptr) {
            type = ResolveQName(xsi);
        } else if (local.size() > 5 && local.substr(local.size() - 5) == "Fault") {
            type = GetTypeMap()->GetTypeByWsdlName(local.substr(0, local.size() - 5));
        }
        auto* data = type != nullptr ? type->AsDataObjectType() : nullptr;
        if (data == nullptr || !data->IsFault()) Fail("unknown fault " + std::string(local));
        if (!codec_.Knows(data))
            Fail("fault " + std::string(data->GetName()) + " is not part of " + codec_.GetVersion().name);
        topIndex_ = stack_.size() - 1;
        StartData("", data, Slot{data});
    }

    void StartParam(std::string_view local, const char** attrs) {
        static const Type* generic = GetType<ManagedObject>();
        if (local == "_this") {
            if (message_.target != nullptr) Fail("_this given twice");
            StartValue("_this", generic, attrs, Slot{generic, -2});
            return;
        }
        if (fetch_) {
            if (local != "prop" || haveProp_) Fail("unexpected element " + std::string(local));
            haveProp_ = true;
            static const Type* str = GetPrimitiveType(&gStringTypeInfo);
            StartValue("prop", str, attrs, Slot{str, -3});
            return;
        }
        const MethodTypeInfo* info = message_.method->GetMethodInfo();
        int i = 0;
        for (const ParamTypeInfo* p = info->params; p != nullptr && p->name != nullptr; ++p, ++i) {
            if (local != p->name) continue;
            if (!codec_.Includes(p->version))
                Fail("parameter " + std::string(local) + " is not part of " + codec_.GetVersion().name,
                     p->name);
            const Type* declared = Detail::TypeOf(p->type);
            bool array = (p->flags & kFlagArray) != 0;
            if (!array && paramSeen_[static_cast<size_t>(i)]) Fail("parameter given twice", p->name);
            paramSeen_[static_cast<size_t>(i)] = true;
            long index = -1;
            if (array) {
                Fundix::Ref<Any>& slot = message_.arguments[static_cast<size_t>(i)];
                if (slot == nullptr) slot = NewArray(declared);
                index = static_cast<long>(static_cast<ArrayBase*>(slot.Get())->GetLength());
                if (static_cast<size_t>(index) >= limits_.maxArrayLength) Fail(ArrayLimit(), p->name);
            }
            StartValue(p->name, declared, attrs, Slot{declared, i, array}, index);
            return;
        }
        Fail("unknown parameter " + std::string(local) + " of " + message_.method->GetWsdlName());
    }

    void StartReturn(std::string_view local, const char** attrs) {
        static const Type* any = GetPrimitiveType(&gAnyTypeInfo);
        if (local != "returnval") Fail("unexpected element " + std::string(local) + " in a response");
        const ManagedMethod* m = message_.method;
        const Type* declared = any;
        bool array = false;
        if (m != nullptr && !m->IsProperty()) {
            const ParamTypeInfo result = WireResult(*m->GetMethodInfo());
            if (result.type == nullptr) Fail("a response to a method without a result holds a result");
            declared = Detail::TypeOf(result.type);
            array = (result.flags & kFlagArray) != 0;
        } else if (m != nullptr) {
            array = (m->GetPropertyInfo()->flags & kFlagArray) != 0;
            declared = array ? any : Detail::TypeOf(m->GetPropertyInfo()->type);
        }
        if (!array && message_.value != nullptr) Fail("returnval given twice");
        long index = -1;
        if (array) {
            if (message_.value == nullptr) {
                const Type* element =
                    m != nullptr && m->IsProperty() ? Detail::TypeOf(m->GetPropertyInfo()->type) : declared;
                message_.value = NewArray(m == nullptr ? any : element);
            }
            index = static_cast<long>(static_cast<ArrayBase*>(message_.value.Get())->GetLength());
            if (static_cast<size_t>(index) >= limits_.maxArrayLength) Fail(ArrayLimit(), "returnval");
        }
        // A fetched property's items come typed, since the schema cannot name their type.
        if (m != nullptr && m->IsProperty() && array) declared = any;
        StartValue("returnval", declared, attrs, Slot{declared, -4, array}, index);
    }

    [[gnu::always_inline]] void StartField(const char* local, const char** attrs) {
        Frame& parent = stack_.back();
        int index = FindField(parent, local);
        if (index < 0)
            Fail("unknown property " + std::string(local) + " of " + parent.dataType->GetWsdlName(), local);
        const PropertyDesc& d = parent.props[index];
        const PropertyTypeInfo& p = *d.info;
        const PropertyFacts& facts = Facts(p);
        if (!facts.included) Fail("property is not part of " + codec_.GetVersion().name, p.name);
        bool array = (p.flags & kFlagArray) != 0;
        uint64_t bit = uint64_t(1) << (index % 64);
        uint64_t& word = Seen(parent, static_cast<size_t>(index / 64));
        if (!array && (word & bit)) Fail("property given twice", p.name);
        word |= bit;
        const Type* declared = facts.declared;
        long item = -1;
        ArrayBase* into = nullptr;
        if (array) {
            into = FieldArray(parent, index, d, declared);
            item = static_cast<long>(into->GetLength());
            if (declared->GetKind() == kKindByte) {
                if (item > 0) Fail("property given twice", p.name);
                item = -1;
            } else if (static_cast<size_t>(item) >= limits_.maxArrayLength) {
                Fail(ArrayLimit(), p.name);
            }
        }
        if (attrs[0] == nullptr && facts.leaf) {  // what StartValue would do, without asking again
            StartLeaf();
            OpenLeaf(Slot{declared, index, array, into}, p.name, item);
            return;
        }
        StartValue(p.name, declared, attrs, Slot{declared, index, array, into}, item);
    }

    // Children usually come in declaration order, an array's items one after another, fields left out
    // where they are unset: try the property after the last one found, then that one again, then search on
    // from there before searching from the start. `local` ends at a terminating zero, as expat's names do.
    static int FindField(Frame& frame, const char* local) {
        const int next = frame.lastField + 1;
        if (next < static_cast<int>(frame.propCount) && SameName(frame.props[next].info->name, local))
            return frame.lastField = next;
        return SearchField(frame, local);
    }
    static bool SameName(const char* name, const char* local) {
        return name[0] == local[0] && std::strcmp(local, name) == 0;
    }
    [[gnu::noinline]] static int SearchField(Frame& frame, const char* local) {
        const int n = static_cast<int>(frame.propCount);
        const int next = frame.lastField + 1;
        if (next > 0 && SameName(frame.props[next - 1].info->name, local)) return next - 1;
        for (int i = next + 1; i < n; ++i)
            if (SameName(frame.props[i].info->name, local)) return frame.lastField = i;
        for (int i = 0; i < next - 1 && i < n; ++i)
            if (SameName(frame.props[i].info->name, local)) return frame.lastField = i;
        return -1;
    }

    void StartAnyItem(const char* local, const char** attrs) {
        Frame& parent = stack_.back();
        ArrayBase* a = parent.anyArray.Get();
        if (std::strcmp(local, parent.itemName) != 0) Fail("unexpected item " + std::string(local));
        if (a->GetLength() >= limits_.maxArrayLength) Fail(ArrayLimit());
        const Type* element = parent.element;
        StartValue("", element, attrs, Slot{element, -5, true}, static_cast<long>(a->GetLength()));
    }

    // What the reader asks of a property, remembered for the properties a message meets most: the type it
    // declares (Detail::TypeOf), whether the codec's version includes it, and whether an element of it
    // without attributes holds a leaf of that type (a primitive or enumeration the version knows).
    struct PropertyFacts {
        const PropertyTypeInfo* key;
        const Type* declared;
        bool included;
        bool leaf;
    };
    const PropertyFacts& Facts(const PropertyTypeInfo& p) {
        PropertyFacts& f =
            facts_[(reinterpret_cast<uintptr_t>(&p) / sizeof(PropertyTypeInfo)) & (kFacts - 1)];
        if (f.key != &p) Learn(f, p);
        return f;
    }
    [[gnu::noinline]] void Learn(PropertyFacts& f, const PropertyTypeInfo& p) {
        f.key = &p;
        f.declared = Detail::TypeOf(p.type);
        f.included = Included(p.version);
        const uint32_t kind = f.declared->GetKind();
        f.leaf = kind != kKindManaged && kind != kKindArray && kind != kKindAnyType &&
                 f.declared->AsDataObjectType() == nullptr && Knows(f.declared);
    }

    // Codec::Includes and Codec::Knows, remembered for the first few version words a message meets (a
    // message meets few: its records' fields share the words of their module).
    bool Included(const char* version) {
        for (size_t i = 0; i < versionsKept_; ++i)
            if (versionKeys_[i] == version) return versionIncluded_[i];
        const bool included = codec_.Includes(version);
        if (versionsKept_ < kVersionCache) {
            versionKeys_[versionsKept_] = version;
            versionIncluded_[versionsKept_++] = included;
        }
        return included;
    }
    bool Knows(const Type* type) {
        return type->GetKind() == kKindArray ? codec_.Knows(type) : Included(type->GetVersion());
    }

    std::string ArrayLimit() const {
        return "array longer than " + std::to_string(limits_.maxArrayLength) + " items";
    }

    Fundix::Ref<Any> NewArray(const Type* element) {
        ArrayBase* a = element->NewArray();
        if (a == nullptr) throw std::bad_alloc();
        return Fundix::Ref<Any>(a);
    }

    // The array a data object's array property is being read into; created and attached on first use.
    // `frame` is the innermost open record, whose arrays are the last ones listed.
    ArrayBase* FieldArray(Frame& frame, int index, const PropertyDesc& d, const Type* element) {
        for (size_t i = frame.arraysFrom; i < arrays_.size(); ++i)
            if (arrays_[i].first == index) return arrays_[i].second;
        Fundix::Ref<Any> array = NewArray(element);
        StoreSlot(frame.object.Get(), d, array.Get());
        auto* a = static_cast<ArrayBase*>(array.Get());
        arrays_.emplace_back(index, a);
        return a;
    }

    uint64_t& Seen(Frame& frame, size_t word) {
        return word < 2 ? frame.seen[word] : seenMore_[frame.seenFrom + word - 2];
    }

    // A type that a name in the message resolved to, remembered for the rest of the message by the name
    // and what kind of name it was: a page of events names a dozen classes a thousand times. Names longer
    // than an entry holds are looked up each time.
    enum class Naming : uint8_t { None, XsiType, RefType };
    struct Named {
        const Type* type;
        uint8_t size;
        Naming naming;
        char text[54];
    };
    static constexpr size_t kNamed = 64;
    static uint64_t NamedHash(std::string_view text) {
        constexpr uint64_t kMix = 0x9E3779B97F4A7C15u;
        const char* p = text.data();
        const size_t n = text.size();
        uint64_t h = n, w = 0;
        size_t i = 0;
        for (; i + 8 <= n; i += 8) {
            std::memcpy(&w, p + i, 8);
            h = (h ^ w) * kMix;
        }
        if (i < n) {
            w = 0;
            if (n >= 8)
                std::memcpy(&w, p + n - 8, 8);  // the last eight bytes, overlapping
            else
                for (; i < n; ++i)
                    w = w << 8 | static_cast<unsigned char>(p[i]);
            h = (h ^ w) * kMix;
        }
        return h;
    }
    // Each name may be kept in one of two places (six bits of its hash each); a third name that wants both
    // displaces the one in the first.
    static_assert(kNamed == 64);
    const Type* Remembered(Naming naming, std::string_view text) const {
        if (text.empty() || text.size() > sizeof(Named::text)) return nullptr;
        const uint64_t h = NamedHash(text);
        for (size_t slot : {size_t(h >> 58), size_t(h >> 52 & (kNamed - 1))}) {
            const Named& e = named_[slot];
            if (e.naming == naming && e.size == text.size() &&
                std::memcmp(e.text, text.data(), text.size()) == 0)
                return e.type;
        }
        return nullptr;
    }
    void Remember(Naming naming, std::string_view text, const Type* type) {
        if (text.empty() || text.size() > sizeof(Named::text)) return;
        const uint64_t h = NamedHash(text);
        Named* e = &named_[h >> 58];
        if (e->naming != Naming::None && named_[h >> 52 & (kNamed - 1)].naming == Naming::None)
            e = &named_[h >> 52 & (kNamed - 1)];
        e->type = type;
        e->size = static_cast<uint8_t>(text.size());
        e->naming = naming;
        std::memcpy(e->text, text.data(), text.size());
    }

    // Whether records of `type` may stand where `declared` records are expected, remembered for the pairs
    // met last: a page of events asks it of a dozen classes a thousand times.
    bool Derives(const Type* type, const Type* declared) {
        Derivation& d = derivations_[(reinterpret_cast<uintptr_t>(type) >> 4) % derivations_.size()];
        if (d.type == type && d.declared == declared) return true;
        if (!type->IsA(declared) || declared->AsDataObjectType() == nullptr) return false;
        d = Derivation{type, declared};
        return true;
    }
    struct Derivation {
        const Type* type = nullptr;
        const Type* declared = nullptr;
    };

    // ---- Values

    // Resolves "prefix:Name" against the namespaces in scope.
    const Type* ResolveQName(std::string_view qname) {
        std::string_view prefix;
        std::string_view local = qname;
        if (size_t colon = qname.find(':'); colon != std::string_view::npos) {
            prefix = qname.substr(0, colon);
            local = qname.substr(colon + 1);
        }
        std::string_view uri;
        bool found = false;
        for (size_t i = ns_.size(); i-- > 0;)
            if (ns_[i].first == prefix) {
                uri = ns_[i].second;
                found = true;
                break;
            }
        if (!found && !prefix.empty()) Fail("unknown namespace prefix in xsi:type " + std::string(qname));
        if (uri == kXsd) {
            static const TypeInfo* const primitives[] = {
                &gStringTypeInfo, &gIntTypeInfo,   &gLongTypeInfo,   &gShortTypeInfo,    &gBoolTypeInfo,
                &gByteTypeInfo,   &gFloatTypeInfo, &gDoubleTypeInfo, &gDateTimeTypeInfo, &gAnyTypeInfo};
            for (const TypeInfo* t : primitives)
                if (local == Detail::PrimitiveXsdName(t->kind)) return GetPrimitiveType(t);
            Fail("unknown type " + std::string(qname));
        }
        if (!uri.empty() && uri != codec_.GetNamespace()) Fail("unknown type " + std::string(qname));
        if (const Type* known = Remembered(Naming::XsiType, local)) return known;
        const Type* type = TypeByLocalName(qname, local);
        Remember(Naming::XsiType, local, type);
        return type;
    }

    // The type a name of the codec's namespace (or none) gives in xsi:type.
    const Type* TypeByLocalName(std::string_view qname, std::string_view local) {
        if (local == "TypeName") return GetPrimitiveType(&gTypeNameTypeInfo);
        if (local == "PropertyPath") return GetPrimitiveType(&gPropertyPathTypeInfo);
        if (local == "ManagedObjectReference") return GetType<ManagedObject>();
        if (local.substr(0, 7) == "ArrayOf") {
            std::string item(local.substr(7));
            const Type* element = nullptr;
            if (item == "ManagedObjectReference")
                element = GetType<ManagedObject>();
            else if (item == "TypeName")
                element = GetPrimitiveType(&gTypeNameTypeInfo);
            else if (item == "PropertyPath")
                element = GetPrimitiveType(&gPropertyPathTypeInfo);
            else if (item == "AnyType")
                element = GetPrimitiveType(&gAnyTypeInfo);
            else if (item == "DateTime")
                element = GetPrimitiveType(&gDateTimeTypeInfo);
            else {
                std::string lower = item;
                if (!lower.empty())
                    lower[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(lower[0])));
                static const TypeInfo* const primitives[] = {
                    &gStringTypeInfo, &gIntTypeInfo,  &gLongTypeInfo,  &gShortTypeInfo,
                    &gBoolTypeInfo,   &gByteTypeInfo, &gFloatTypeInfo, &gDoubleTypeInfo};
                for (const TypeInfo* t : primitives)
                    if (lower == t->name) element = GetPrimitiveType(t);
                if (element == nullptr) element = GetTypeMap()->GetTypeByWsdlName(item);
            }
            if (element == nullptr ||
                (element->GetKind() == kKindManaged && element != GetType<ManagedObject>()))
                Fail("unknown type " + std::string(qname));
            return element->GetArrayType();
        }
        const Type* type = GetTypeMap()->GetTypeByWsdlName(local);
        if (type == nullptr || type->GetKind() == kKindManaged) Fail("unknown type " + std::string(qname));
        return type;
    }

    // Opens an element holding one value of `declared` (null: the value must name its type).
    void StartValue(const char* name, const Type* declared, const char** attrs, const Slot& slot,
                    long index = -1) {
        ValueAttrs found;
        if (attrs[0] != nullptr) found = ScanAttrs(attrs);  // most values come without
        if (const char* nil = found.nil;
            nil != nullptr && (std::strcmp(nil, "true") == 0 || std::strcmp(nil, "1") == 0)) {
            // Absent: a required property or parameter given as nil is then missing.
            Frame& parent = stack_.back();
            if (parent.kind == Kind::Data && !slot.array)
                Seen(parent, static_cast<size_t>(slot.prop / 64)) &= ~(uint64_t(1) << (slot.prop % 64));
            Push(Kind::Nil, slot, name, index);
            return;
        }
        const Type* type = declared;
        if (const char* xsi = found.xsiType) {
            const Type* named = ResolveQName(xsi);
            if (declared != nullptr && declared->GetKind() != kKindAnyType && named != declared) {
                bool ok = Derives(named, declared);
                if (declared->GetKind() == kKindManaged && named == GetType<ManagedObject>()) ok = true;
                if (!ok)
                    Fail(std::string("type ") + named->GetWsdlName() + " is not a " + declared->GetWsdlName(),
                         name);
            }
            type = named;
        } else if (declared == nullptr || declared->GetKind() == kKindAnyType) {
            Fail("a value of type anyType needs xsi:type", name);
        }
        const uint32_t kind = type->GetKind();
        if (kind != kKindManaged && !Knows(type))
            Fail("type " + std::string(type->GetName()) + " is not part of " + codec_.GetVersion().name,
                 name);
        if (const DataObjectType* data = type->AsDataObjectType()) {
            StartData(name, data, Slot{type, slot.prop, slot.array, slot.into}, index);
            return;
        }
        if (kind == kKindArray) {
            Fundix::Ref<ArrayBase> array =
                static_cast<const ArrayType*>(type)->GetElementType()->CreateArray();
            if (array == nullptr) throw std::bad_alloc();
            Frame& f = Push(Kind::AnyArray, Slot{type, slot.prop, slot.array, slot.into}, name, index);
            f.element = array->GetElementType();
            f.itemName = Detail::ItemName(f.element);
            f.anyArray = std::move(array);
            return;
        }
        StartLeaf();
        if (kind != kKindManaged) {
            OpenLeaf(Slot{type, slot.prop, slot.array, slot.into}, name, index);
            return;
        }
        const char* refType = found.refType;
        if (refType == nullptr) Fail("a reference needs its type", name);
        const Type* t = Remembered(Naming::RefType, refType);
        if (t == nullptr) {
            t = GetTypeMap()->GetTypeByWsdlName(refType);
            bool generic = declared == nullptr || declared->GetKind() == kKindAnyType ||
                           declared == GetType<ManagedObject>();
            if (t == nullptr && generic && GetTypeMap()->GetType(refType) == nullptr) {
                // A place for any managed object may name a type of another library by its own name,
                // as the writer sends it.
                OpenLeaf(Slot{type, slot.prop, slot.array, slot.into}, name, index);
                refType_ = nullptr;
                refName_ = refType;
                return;
            }
            if (t == nullptr || t->GetKind() != kKindManaged)
                Fail("unknown managed type " + std::string(refType), name);
            if (!codec_.Knows(t))
                Fail("type " + std::string(t->GetName()) + " is not part of " + codec_.GetVersion().name,
                     name);
            Remember(Naming::RefType, refType, t);
        }
        if (declared != nullptr && declared->GetKind() == kKindManaged &&
            declared != GetType<ManagedObject>() && !t->IsA(declared))
            Fail(std::string("type ") + t->GetWsdlName() + " is not a " + declared->GetWsdlName(), name);
        OpenLeaf(Slot{type, slot.prop, slot.array, slot.into}, name, index);
        refType_ = t;
    }

    void StartData(const char* name, const DataObjectType* type, const Slot& slot, long index = -1) {
        Fundix::Ref<DataObject> object = type->CreateInstance();
        if (object == nullptr) throw std::bad_alloc();
        const std::vector<PropertyDesc>& props = type->GetProperties();
        Frame& f = Push(Kind::Data, slot, name, index);
        f.dataType = type;
        f.props = props.data();
        f.propCount = static_cast<uint32_t>(props.size());
        f.object = std::move(object);
        f.arraysFrom = static_cast<uint32_t>(arrays_.size());
        f.seenFrom = static_cast<uint32_t>(seenMore_.size());
        const size_t words = props.size() / 64 + 1;
        if (words > 2) seenMore_.resize(seenMore_.size() + words - 2, 0);
    }

    // The missing-required rule, and empty arrays for absent required ones.
    void FinishData(Frame& frame) {
        for (uint32_t w = 0; w * 64 < frame.propCount; ++w) {
            uint64_t missing = ~Seen(frame, w);
            if (frame.propCount - w * 64 < 64) missing &= (uint64_t(1) << (frame.propCount - w * 64)) - 1;
            for (; missing != 0; missing &= missing - 1)
                FinishProperty(frame, w * 64 + static_cast<uint32_t>(__builtin_ctzll(missing)));
        }
    }

    // A property the record's element left out.
    void FinishProperty(Frame& frame, uint32_t i) {
        const PropertyDesc& d = frame.props[i];
        const PropertyTypeInfo& p = *d.info;
        if ((p.flags & kFlagOptional) || !Included(p.version)) return;
        if (p.flags & kFlagArray) {
            FieldArray(frame, static_cast<int>(i), d, Facts(p).declared);
            return;
        }
        Fail("required property missing", p.name);
    }

    void FinishRequest() {
        if (message_.target == nullptr) Fail("the request names no object (_this)");
        if (fetch_) {
            const Type* type = GetTypeMap()->GetType(message_.target->GetTypeName());
            ManagedObjectType* managed =
                type != nullptr ? const_cast<Type*>(type)->AsManagedObjectType() : nullptr;
            ManagedMethod* m = managed != nullptr ? managed->FindMethod(fetchName_) : nullptr;
            if (m == nullptr || !m->IsProperty())
                Fail("unknown property " + fetchName_ + " of " +
                     (type ? type->GetWsdlName() : std::string("?")));
            if (!codec_.Includes(m->GetVersion()))
                Fail("property " + fetchName_ + " is not part of " + codec_.GetVersion().name);
            message_.method = m;
            return;
        }
        const MethodTypeInfo* info = message_.method->GetMethodInfo();
        size_t i = 0;
        for (const ParamTypeInfo* p = info->params; p != nullptr && p->name != nullptr; ++p, ++i) {
            if (message_.arguments[i] != nullptr || !codec_.Includes(p->version)) continue;
            if (p->flags & kFlagArray) {
                if (!(p->flags & kFlagOptional)) message_.arguments[i] = NewArray(Detail::TypeOf(p->type));
            } else if (!(p->flags & kFlagOptional)) {
                Fail("required parameter missing", p->name);
            }
        }
        const Type* owner = message_.method->GetOwner();
        const Type* target = GetTypeMap()->GetType(message_.target->GetTypeName());
        if (target == nullptr || !target->IsA(owner))
            Fail(std::string("object of type ") + message_.target->GetTypeName() + " has no operation " +
                     message_.method->GetWsdlName(),
                 "_this");
    }

    // Hands a finished value, made by an element of kind `made` for `slot`, to the frame it lies in.
    void Deliver(const Slot& slot, Frame& parent, Any* value, Kind made) {
        switch (parent.kind) {
            case Kind::Data:
                if (slot.array)
                    Append(slot.into, value, made);
                else
                    StoreSlot(parent.object.Get(), parent.props[slot.prop], value);
                return;
            case Kind::AnyArray:
                Append(parent.anyArray.Get(), value, made);
                return;
            case Kind::Request:
                if (slot.prop == -2) {
                    message_.target = static_cast<MoRef*>(value);
                } else if (slot.prop == -3) {
                    fetchName_ = static_cast<Primitive<std::string>*>(value)->GetValue();
                } else if (slot.array) {
                    Append(static_cast<ArrayBase*>(message_.arguments[static_cast<size_t>(slot.prop)].Get()),
                           value);
                } else {
                    message_.arguments[static_cast<size_t>(slot.prop)] = value;
                }
                return;
            case Kind::Response:
                if (slot.array)
                    Append(static_cast<ArrayBase*>(message_.value.Get()), value);
                else
                    message_.value = value;
                return;
            case Kind::Detail:
            case Kind::Body:
                message_.value = value;
                return;
            default:
                return;
        }
    }

    // Every array checks what it takes against its element type, but for a record: StartValue took its
    // type only if it is the element type or derives from it (or the element is anyType), so its array
    // holds counted values and need not ask the record's type again.
    void Append(ArrayBase* array, Any* value, Kind made = Kind::Leaf) {
        if (made == Kind::Data)
            ReaderAccess::Append(static_cast<DataArrayBase*>(array), value);
        else
            array->AppendBoxed(value);
    }

    // ---- Leaf text

    // Opens a leaf's text.
    void StartLeaf() {
        text_.clear();
        view_ = {};
    }

    // Is `s` in expat's input buffer? The buffer holds the whole message and stays where it is until the
    // parse ends, so text there can be read at the end of its element without a copy. Other text (a character
    // reference, an entity, a line end made plain) comes from expat's scratch space and is copied at once.
    bool InBuffer(std::string_view s) {
        if (!bufferKnown_) {
            int offset = 0, size = 0;
            const char* buffer = XML_GetInputContext(parser_, &offset, &size);
            if (buffer != nullptr && size > 0) {
                bufferBegin_ = reinterpret_cast<uintptr_t>(buffer);
                bufferEnd_ = bufferBegin_ + static_cast<uintptr_t>(size);
            }
            bufferKnown_ = true;
        }
        const auto at = reinterpret_cast<uintptr_t>(s.data());
        return at >= bufferBegin_ && at + s.size() <= bufferEnd_;
    }

    // The open leaf's text.
    std::string_view Text() const { return view_.empty() ? std::string_view(text_) : view_; }

    // ---- Lexical forms

    [[noreturn]] void Lexical(const char* what) {
        const std::string_view text = Text();
        std::string shown = text.size() > 64 ? std::string(text.substr(0, 64)) + "..." : std::string(text);
        Fail(std::string("not ") + what + ": \"" + shown + "\"");
    }

    template <class T>
    T Integer(const char* what) {
        // The form the writer sends: digits, perhaps after a minus, nothing around them, short enough not to
        // overflow on the way. Anything else, a value out of range included, takes the general path.
        std::string_view s = Text();
        if (const size_t sign = !s.empty() && s[0] == '-'; s.size() > sign && s.size() <= 18) {
            int64_t value = 0;
            size_t i = sign;
            for (; i < s.size(); ++i) {
                const unsigned digit = static_cast<unsigned char>(s[i]) - '0';
                if (digit > 9) break;
                value = value * 10 + digit;
            }
            if (sign) value = -value;
            if (i == s.size() && value >= std::numeric_limits<T>::min() &&
                value <= std::numeric_limits<T>::max())
                return static_cast<T>(value);
        }
        s = Trim(s);
        if (!s.empty() && s.front() == '+') s.remove_prefix(1);
        T value{};
        auto r = std::from_chars(s.data(), s.data() + s.size(), value);
        if (r.ec == std::errc::result_out_of_range) Lexical((std::string("in range for ") + what).c_str());
        if (r.ec != std::errc() || r.ptr != s.data() + s.size() || s.empty()) Lexical(what);
        return value;
    }

    template <class T>
    T Real(const char* what) {
        std::string_view s = Trim(Text());
        if (s == "INF" || s == "+INF") return std::numeric_limits<T>::infinity();
        if (s == "-INF") return -std::numeric_limits<T>::infinity();
        if (s == "NaN") return std::numeric_limits<T>::quiet_NaN();
        if (!s.empty() && s.front() == '+') s.remove_prefix(1);
        // Only the three spellings above name the special values; from_chars would take others.
        for (char c : s)
            if ((c >= 'a' && c <= 'z' && c != 'e') || (c >= 'A' && c <= 'Z' && c != 'E')) Lexical(what);
        T value{};
        auto r = std::from_chars(s.data(), s.data() + s.size(), value);
        if (r.ec != std::errc() || r.ptr != s.data() + s.size() || s.empty()) Lexical(what);
        return value;
    }

    bool Boolean() {
        std::string_view s = Trim(Text());
        if (s == "true" || s == "1") return true;
        if (s == "false" || s == "0") return false;
        Lexical("a boolean");
    }

    DateTime Date() {
        const std::string_view s = Trim(Text());
        DateTime value;
        if (!UtcDate(s, value) && !DateTime::ParseIso8601(s, value)) Lexical("a dateTime");
        return value;
    }

    // A date in the form the writer sends, "YYYY-MM-DDThh:mm:ss[.fraction]Z", read without the general
    // parser: the day is checked once while the following dates fall on it, and the time of day is added.
    // False for any other form (which DateTime::ParseIso8601 then reads or refuses).
    bool UtcDate(std::string_view s, DateTime& out) {
        const size_t n = s.size();
        if (n < 20 || s[n - 1] != 'Z' || s[10] != 'T' || s[13] != ':' || s[16] != ':') return false;
        auto two = [&](size_t at) {
            const unsigned a = static_cast<unsigned char>(s[at]) - '0',
                           b = static_cast<unsigned char>(s[at + 1]) - '0';
            return a <= 9 && b <= 9 ? static_cast<int>(a * 10 + b) : 99;
        };
        const int hour = two(11), minute = two(14), second = two(17);
        if (hour > 23 || minute > 59 || second > 59) return false;
        int64_t micros = 0;
        if (n > 20) {
            // 1 to 9 digits between the point and the Z, truncated to microseconds.
            const size_t digits = n - 21;
            if (s[19] != '.' || digits == 0 || digits > 9) return false;
            for (size_t i = 0; i < digits; ++i) {
                const unsigned d = static_cast<unsigned char>(s[20 + i]) - '0';
                if (d > 9) return false;
                if (i < 6) micros = micros * 10 + d;
            }
            for (size_t i = digits; i < 6; ++i)
                micros *= 10;
        }
        if (!haveDay_ || std::memcmp(day_, s.data(), sizeof day_) != 0) {
            char midnight[20];
            std::memcpy(midnight, s.data(), sizeof day_);
            std::memcpy(midnight + sizeof day_, "T00:00:00Z", 10);
            DateTime start;
            if (!DateTime::ParseIso8601(std::string_view(midnight, sizeof midnight), start)) return false;
            std::memcpy(day_, s.data(), sizeof day_);
            dayMicros_ = start.GetUtcMicros();
            haveDay_ = true;
        }
        out = DateTime::FromUtcMicros(dayMicros_ + ((hour * 60 + minute) * 60 + second) * int64_t(1000000) +
                                      micros);
        return true;
    }

    std::vector<int8_t> Base64() {
        std::vector<int8_t> out;
        const std::string_view text = Text();
        out.reserve(text.size() * 3 / 4);
        unsigned acc = 0;
        int bits = 0;
        size_t pad = 0, count = 0;
        for (char c : text) {
            int v;
            if (c >= 'A' && c <= 'Z')
                v = c - 'A';
            else if (c >= 'a' && c <= 'z')
                v = c - 'a' + 26;
            else if (c >= '0' && c <= '9')
                v = c - '0' + 52;
            else if (c == '+')
                v = 62;
            else if (c == '/')
                v = 63;
            else if (c == '=') {
                ++pad;
                ++count;
                continue;
            } else if (c == ' ' || c == '\n' || c == '\r' || c == '\t')
                continue;
            else
                Lexical("base64");
            if (pad > 0) Lexical("base64");
            ++count;
            acc = (acc << 6) | static_cast<unsigned>(v);
            bits += 6;
            if (bits >= 8) {
                bits -= 8;
                out.push_back(static_cast<int8_t>((acc >> bits) & 0xFF));
            }
        }
        if (count % 4 != 0 || pad > 2) Lexical("base64");
        return out;
    }

    int32_t EnumValue(const Type* type) {
        const EnumType* e = type->AsEnumType();
        std::string_view s = Trim(Text());
        if (e != nullptr) {
            // Remembered for the message: a page of records repeats a few values of a few enumerations.
            KnownEnum* known = s.size() <= sizeof(KnownEnum::text) ? &enums_[EnumSlot(e, s)] : nullptr;
            if (known != nullptr && known->type == e && known->size == s.size() &&
                std::memcmp(known->text, s.data(), s.size()) == 0)
                return known->value;
            try {
                const int32_t value = e->TextToValue(s);  // one lookup for the values that are known
                if (known != nullptr) {
                    known->type = e;
                    known->size = static_cast<uint8_t>(s.size());
                    std::memcpy(known->text, s.data(), s.size());
                    known->value = value;
                }
                return value;
            } catch (const Fundix::InvalidArgumentException&) {
            }
        }
        std::string shown(s.substr(0, 64));
        Fail("unknown value \"" + shown + "\" of " + type->GetWsdlName());
    }

    struct KnownEnum {
        const EnumType* type;
        int32_t value;
        uint8_t size;
        char text[19];
    };
    static constexpr size_t kEnums = 16;
    static size_t EnumSlot(const EnumType* e, std::string_view s) {
        const size_t h =
            reinterpret_cast<uintptr_t>(e) / 16 + s.size() * 7 +
            (s.empty() ? 0 : static_cast<unsigned char>(s[0]) * 3 + static_cast<unsigned char>(s.back()));
        return (h ^ h >> 4) & (kEnums - 1);
    }

    // Stores a leaf straight into its data-object field when it is one; otherwise returns it boxed.
    Fundix::Ref<Any> LeafValue() {
        const Slot& leaf = leafSlot_;
        const Type* type = leaf.type;
        uint32_t kind = type->GetKind();
        Frame& parent = stack_.back();
        if (parent.kind == Kind::Data) {
            if (leaf.array) {
                if (AppendText(leaf.into, kind, type)) return nullptr;
            } else if (StoreText(parent.object.Get(), parent.props[leaf.prop], kind, type)) {
                return nullptr;
            }
        }
        return Box(type, kind);
    }

    // The storage class a value of C++ type T has in a field, plain or optional.
    template <class T>
    static constexpr Storage StorageFor(bool optional) {
        if constexpr (std::is_same_v<T, std::string>)
            return optional ? Storage::OptString : Storage::String;
        else if constexpr (std::is_same_v<T, int32_t>)
            return optional ? Storage::OptI32 : Storage::I32;
        else if constexpr (std::is_same_v<T, int64_t>)
            return optional ? Storage::OptI64 : Storage::I64;
        else if constexpr (std::is_same_v<T, int16_t>)
            return optional ? Storage::OptI16 : Storage::I16;
        else if constexpr (std::is_same_v<T, int8_t>)
            return optional ? Storage::OptI8 : Storage::I8;
        else if constexpr (std::is_same_v<T, bool>)
            return optional ? Storage::OptBool : Storage::Bool;
        else if constexpr (std::is_same_v<T, float>)
            return optional ? Storage::OptF32 : Storage::F32;
        else if constexpr (std::is_same_v<T, double>)
            return optional ? Storage::OptF64 : Storage::F64;
        else if constexpr (std::is_same_v<T, DateTime>)
            return optional ? Storage::OptDate : Storage::Date;
        else
            return Storage::Slot;
    }

    // The field of `d` in `object`, straight from its class's layout, when that layout is known and the
    // field is stored as `expected`; else null, and the caller goes through the record's functions.
    static char* FieldAt(DataObject* object, const PropertyDesc& d, Storage expected) {
        const FieldLayout* layout = d.owner->layout;
        if (layout == nullptr || d.localIndex < 0 || static_cast<uint32_t>(d.localIndex) >= layout->count)
            return nullptr;
        const FieldDesc& f = layout->fields[d.localIndex];
        if (f.storage != expected) return nullptr;
        return reinterpret_cast<char*>(object) + f.offset;
    }

    // A record, reference or array into its field.
    static void StoreSlot(DataObject* object, const PropertyDesc& d, Any* value) {
        if (char* at = FieldAt(object, d, Storage::Slot)) {
            if (d.info->flags & kFlagArray)
                reinterpret_cast<ArraySlot*>(at)->Store(value);
            else
                reinterpret_cast<ObjSlot*>(at)->Store(value);
            return;
        }
        Fundix::Ref<Any> counted(value);
        d.owner->setProperty(object, d.localIndex, &counted);
    }

    template <class T>
    void Store(DataObject* object, const PropertyDesc& d, T value) {
        const bool optional = (d.info->flags & kFlagOptional) != 0;
        if (char* at = FieldAt(object, d, StorageFor<T>(optional))) {
            if (optional)
                reinterpret_cast<Optional<T>*>(at)->Set(std::move(value));
            else
                *reinterpret_cast<T*>(at) = std::move(value);
            return;
        }
        if (d.info->flags & kFlagOptional) {
            Optional<T> o(std::move(value));
            d.owner->setProperty(object, d.localIndex, &o);
        } else {
            d.owner->setProperty(object, d.localIndex, &value);
        }
    }

    // Text into a string field, copied once.
    void StoreString(DataObject* object, const PropertyDesc& d) {
        const std::string_view text = Text();
        if ((d.info->flags & kFlagOptional) == 0) {
            if (char* at = FieldAt(object, d, Storage::String)) {
                *reinterpret_cast<std::string*>(at) = std::string(text);
                return;
            }
        } else if (char* at = FieldAt(object, d, Storage::OptString)) {
            reinterpret_cast<Optional<std::string>*>(at)->Set(std::string(text));
            return;
        }
        Store<std::string>(object, d, std::string(text));
    }

    bool StoreText(DataObject* object, const PropertyDesc& d, uint32_t kind, const Type* type) {
        if (d.info->type->kind != kind) return false;  // an anyType field holding a primitive
        switch (kind) {
            case kKindString:
            case kKindTypeName:
            case kKindPropertyPath:
                StoreString(object, d);
                return true;
            case kKindInt:
                Store(object, d, Integer<int32_t>("an int"));
                return true;
            case kKindLong:
                Store(object, d, Integer<int64_t>("a long"));
                return true;
            case kKindShort:
                Store(object, d, Integer<int16_t>("a short"));
                return true;
            case kKindByte:
                Store(object, d, Integer<int8_t>("a byte"));
                return true;
            case kKindBool:
                Store(object, d, Boolean());
                return true;
            case kKindFloat:
                Store(object, d, Real<float>("a float"));
                return true;
            case kKindDouble:
                Store(object, d, Real<double>("a double"));
                return true;
            case kKindDateTime:
                Store(object, d, Date());
                return true;
            case kKindEnum:
                Store(object, d, EnumValue(type));
                return true;
            default:
                return false;
        }
    }

    template <class T>
    static void Add(ArrayBase* a, T value) {
        static_cast<Kitra::Array<T>*>(a)->Append(std::move(value));
    }

    bool AppendText(ArrayBase* a, uint32_t kind, const Type* type) {
        switch (kind) {
            case kKindString:
                Add<std::string>(a, std::string(Text()));
                return true;
            case kKindTypeName:
                Add<TypeName>(a, TypeName(std::string(Text())));
                return true;
            case kKindPropertyPath:
                Add<PropertyPath>(a, PropertyPath(std::string(Text())));
                return true;
            case kKindInt:
                Add(a, Integer<int32_t>("an int"));
                return true;
            case kKindLong:
                Add(a, Integer<int64_t>("a long"));
                return true;
            case kKindShort:
                Add(a, Integer<int16_t>("a short"));
                return true;
            case kKindBool:
                Add(a, Boolean());
                return true;
            case kKindFloat:
                Add(a, Real<float>("a float"));
                return true;
            case kKindDouble:
                Add(a, Real<double>("a double"));
                return true;
            case kKindDateTime:
                Add(a, Date());
                return true;
            case kKindByte: {
                auto bytes = Base64();
                if (bytes.size() > limits_.maxArrayLength) Fail(ArrayLimit());
                static_cast<Kitra::Array<int8_t>*>(a)->GetValues() = std::move(bytes);
                return true;
            }
            case kKindEnum: {
                const EnumType* e = type->AsEnumType();
                a->AppendBoxed(e->CreateBox(EnumValue(type)).Get());
                return true;
            }
            default:
                return false;
        }
    }

    Fundix::Ref<Any> Box(const Type* type, uint32_t kind) {
        switch (kind) {
            case kKindString:
                return new Primitive<std::string>(std::string(Text()));
            case kKindTypeName:
                return new Primitive<TypeName>(TypeName(std::string(Text())));
            case kKindPropertyPath:
                return new Primitive<PropertyPath>(PropertyPath(std::string(Text())));
            case kKindInt:
                return new Primitive<int32_t>(Integer<int32_t>("an int"));
            case kKindLong:
                return new Primitive<int64_t>(Integer<int64_t>("a long"));
            case kKindShort:
                return new Primitive<int16_t>(Integer<int16_t>("a short"));
            case kKindByte:
                return new Primitive<int8_t>(Integer<int8_t>("a byte"));
            case kKindBool:
                return new Primitive<bool>(Boolean());
            case kKindFloat:
                return new Primitive<float>(Real<float>("a float"));
            case kKindDouble:
                return new Primitive<double>(Real<double>("a double"));
            case kKindDateTime:
                return new Primitive<DateTime>(Date());
            case kKindEnum:
                return type->AsEnumType()->CreateBox(EnumValue(type));
            case kKindManaged:
                return Reference();
            default:
                Fail(std::string("cannot read a value of type ") + type->GetName());
        }
    }

    // A reference of the open leaf's type and text. A message names the same objects again and again (each
    // event of a page names its job), and a reference cannot change once made, so a repeat of one of the
    // last few read shares the object already made.
    Fundix::Ref<Any> Reference() {
        const std::string_view id = Text();
        if (refType_ == nullptr) return new MoRef(refName_, std::string(id));
        for (const SeenRef& seen : seenRefs_)
            if (seen.type == refType_ && seen.ref->GetId() == id) return seen.ref.Get();
        Fundix::Ref<MoRef> ref(new MoRef(std::string(refType_->GetName()), std::string(id)));
        seenRefs_[nextSeenRef_++ % seenRefs_.size()] = SeenRef{refType_, ref};
        return ref.Get();
    }

    struct SeenRef {
        const Type* type = nullptr;
        Fundix::Ref<MoRef> ref;
    };

    const Codec& codec_;
    const Limits& limits_;
    XML_Parser parser_ = nullptr;
    std::string nsSep_;                  // the codec's namespace and the separator, as expat's names begin
    const char* checkedName_ = nullptr;  // where the last element name found to begin so lay
    std::vector<Frame> stack_;
    std::vector<std::pair<int, ArrayBase*>> arrays_;  // arrays under construction: property, array
    std::vector<uint64_t> seenMore_;
    std::vector<std::pair<std::string, std::string>> ns_;
    std::string text_;       // the open leaf's text, or a version's
    std::string_view view_;  // or while it came in one piece, where it lies in expat's buffer
    bool bufferKnown_ = false;
    uintptr_t bufferBegin_ = 0, bufferEnd_ = 0;
    bool leafOpen_ = false;  // the open leaf, which has no frame: where its value goes, and for paths
    Slot leafSlot_;
    const char* leafName_ = "";
    long leafIndex_ = -1;
    const Type* refType_ = nullptr;  // the open leaf's managed type, when it is a reference
    std::string refName_;            // its type's name when this library does not register it
    std::array<SeenRef, 4> seenRefs_;  // references read last, the oldest replaced first
    unsigned nextSeenRef_ = 0;
    bool failed_ = false;
    std::string reason_;
    std::string errorPath_;
    bool haveBody_ = false;
    bool haveTop_ = false;
    bool faultStarted_ = false;
    bool fetch_ = false;
    bool haveProp_ = false;
    std::string fetchName_;
    size_t topIndex_ = 0;
    std::vector<bool> paramSeen_;
    Message message_;
    static constexpr size_t kFacts = 128;
    PropertyFacts facts_[kFacts] = {};
    static constexpr size_t kVersionCache = 16;
    size_t versionsKept_ = 0;
    const char* versionKeys_[kVersionCache] = {};
    bool versionIncluded_[kVersionCache] = {};
    Named named_[kNamed] = {};
    std::array<Derivation, 16> derivations_;  // pairs Derives found true
    KnownEnum enums_[kEnums] = {};
    // The day of the last date read in the writer's form, and its first microsecond.
    char day_[10] = {};
    bool haveDay_ = false;
    int64_t dayMicros_ = 0;

public:
    const ManagedMethod* expected_ = nullptr;
};

}  // namespace

Message Codec::Decode(std::string_view message) const {
    Reader reader(*this);
    return reader.Read(message);
}

Fundix::Ref<Any> Codec::DecodeResponse(const ManagedMethod* method, std::string_view text) const {
    Reader reader(*this);
    reader.expected_ = method;
    Message m = reader.Read(text);
    if (m.kind == MessageKind::Fault) {
        auto* fault = static_cast<MethodFault*>(m.value.Get());
        fault->Throw();
    }
    if (m.kind != MessageKind::Response) Detail::ThrowInvalidRequest("expected a response", "");
    if (method->IsProperty() && m.value == nullptr) return nullptr;
    return m.value;
}

}  // namespace Kitra::Soap
