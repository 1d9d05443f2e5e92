// The codec's writer: walks a value through its type's records and appends XML to a buffer, no tree.
#include <charconv>
#include <cmath>
#include <cstring>
#include <vector>

#include <fundix/Optional.h>
#include <fundix/System/DateTime.h>
#include <kitra/Array.h>
#include <kitra/DataObject.h>
#include <kitra/Field.h>
#include <kitra/MoRef.h>
#include <kitra/Primitive.h>
#include <kitra/fault/types.h>

#include "Internal.h"

namespace Kitra::Soap {

using Fundix::Optional;
using Fundix::System::DateTime;

namespace {

const char kEnvelopeHead[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">"
    "<soapenv:Header><versionId xmlns=\"urn:kodl\">";
const char kBodyHead[] = "</versionId></soapenv:Header><soapenv:Body>";
const char kEnvelopeTail[] = "</soapenv:Body></soapenv:Envelope>";

const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

class Writer {
public:
    Writer(const Codec& codec, std::string& out) : codec_(codec), out_(out), start_(out.size()) {}

    // Restores the buffer when the writer is left by an exception.
    ~Writer() {
        if (!done_) out_.resize(start_);
    }

    // The envelope up to the body; the next element opened declares the default namespace unless
    // `topNamespace` is false.
    void Envelope(bool topNamespace = true) {
        out_ += kEnvelopeHead;
        out_ += codec_.GetVersionUri();
        out_ += kBodyHead;
        topPending_ = topNamespace;
    }

    void Finish() {
        out_ += kEnvelopeTail;
        done_ = true;
    }

    void Text(const char* text) { out_ += text; }

    void Open(const char* name, bool declareNamespace = false) {
        out_ += '<';
        out_ += name;
        if (topPending_ || declareNamespace) {
            out_ += " xmlns=\"";
            out_ += codec_.GetNamespace();
            out_ += '"';
            topPending_ = false;
        }
    }

    void Attr(const char* name, const std::string& value) {
        out_ += ' ';
        out_ += name;
        out_ += "=\"";
        Escaped(value);
        out_ += '"';
    }

    void Close(const char* name) {
        out_ += "</";
        out_ += name;
        out_ += '>';
    }

    // The fields of a data object, its own class already checked against the version.
    void Fields(const DataObject* object, const DataObjectType* type) {
        for (const PropertyDesc& d : type->GetProperties()) {
            const PropertyTypeInfo& p = *d.info;
            if (!codec_.Includes(p.version)) continue;
            path_.push_back({p.name, -1});
            Field(object, d);
            path_.pop_back();
        }
    }

    // Writes a whole value in an anyType place: always typed.
    void AnyValue(const char* name, const Any* value) {
        if (auto* data = dynamic_cast<const DataObject*>(value)) {
            DataValue(name, data, nullptr);
        } else if (auto* ref = dynamic_cast<const MoRef*>(value)) {
            Reference(name, *ref, true);
        } else if (auto* array = dynamic_cast<const ArrayBase*>(value)) {
            if (path_.empty()) path_.push_back({"", -1});
            Type* element = array->GetElementType();
            CheckKnown(element);
            std::string item = Detail::ItemName(element);
            Open(name);
            Attr("xsi:type", Detail::XsiTypeName(array->_GetType()));
            out_ += '>';
            bool any = element->GetKind() == kKindAnyType;
            for (size_t i = 0; i < array->GetLength(); ++i) {
                path_.back().index = static_cast<long>(i);
                Fundix::Ref<Any> v = array->GetBoxed(i);
                if (v == nullptr) Fail();
                if (any) AnyValue(item.c_str(), v.Get());
                else Item(item.c_str(), element, v.Get());
            }
            path_.back().index = -1;
            Close(name);
        } else if (value != nullptr) {
            Type* type = value->_GetType();
            CheckKnown(type);
            Open(name);
            Attr("xsi:type", Detail::XsiTypeName(type));
            out_ += '>';
            BoxedText(type, value);
            Close(name);
        }
    }

    // One value of a declared type (not anyType): typed only when its class is not the declared one.
    void Item(const char* name, const Type* declared, const Any* value) {
        switch (declared->GetKind()) {
        case kKindData:
        case kKindFault: {
            auto* data = dynamic_cast<const DataObject*>(value);
            if (data == nullptr) Fail();
            DataValue(name, data, declared);
            return;
        }
        case kKindManaged: {
            auto* ref = dynamic_cast<const MoRef*>(value);
            if (ref == nullptr) Fail();
            Reference(name, *ref, false);
            return;
        }
        case kKindAnyType: AnyValue(name, value); return;
        default:
            Open(name);
            out_ += '>';
            BoxedText(declared, value);
            Close(name);
        }
    }

    void DataValue(const char* name, const DataObject* data, const Type* declared) {
        DataObjectType* type = data->_GetDataType();
        CheckKnown(type);
        Open(name);
        if (type != declared) Attr("xsi:type", type->GetWsdlName());
        out_ += '>';
        Fields(data, type);
        Close(name);
    }

    void Reference(const char* name, const MoRef& ref, bool typed) {
        Open(name);
        if (typed) out_ += " xsi:type=\"ManagedObjectReference\"";
        Type* type = GetTypeMap()->GetType(ref.GetTypeName());
        if (type != nullptr) CheckKnown(type);
        Attr("type", type != nullptr ? std::string(type->GetWsdlName()) : ref.GetTypeName());
        out_ += '>';
        Escaped(ref.GetId());
        Close(name);
    }

    // A parameter or result: `value` as a property of type `param` would be written.
    void Param(const ParamTypeInfo& param, const char* name, const Any* value) {
        const Type* declared = Detail::TypeOf(param.type);
        path_.push_back({name, -1});
        if (value == nullptr) {
            if (!(param.flags & (kFlagOptional | kFlagArray))) Detail::ThrowInvalidArgument(Path());
        } else if (param.flags & kFlagArray) {
            auto* array = dynamic_cast<const ArrayBase*>(value);
            if (array == nullptr) Fail();
            Array(name, declared, array);
        } else {
            Item(name, declared, value);
        }
        path_.pop_back();
    }

    void CheckKnown(const Type* type) {
        if (!codec_.Knows(type)) Detail::ThrowNotInVersion(type->GetName(), codec_.GetVersion(), Path());
    }

    std::string Path() const {
        std::string path;
        for (const Step& s : path_) {
            if (!path.empty() && *s.name != '\0') path += '.';
            path += s.name;
            if (s.index >= 0) {
                path += '[';
                path += std::to_string(s.index);
                path += ']';
            }
        }
        return path;
    }

    // A value that is not what its record says: a broken invariant of the caller.
    [[noreturn]] void Fail() { Detail::ThrowInvalidArgument(Path()); }

    void Escaped(std::string_view text) {
        // Most text needs no escaping: copy runs between the characters that do.
        const char* p = text.data();
        const char* end = p + text.size();
        const char* run = p;
        while (p < end) {
            unsigned char c = static_cast<unsigned char>(*p);
            if (c >= 0x80) {
                size_t n = Utf8Length(p, end);
                if (n == 0) Detail::ThrowInvalidArgument(Path());
                p += n;
                continue;
            }
            const char* entity = nullptr;
            switch (c) {
            case '&': entity = "&amp;"; break;
            case '<': entity = "&lt;"; break;
            case '>': entity = "&gt;"; break;
            case '"': entity = "&quot;"; break;
            case '\r': entity = "&#13;"; break;  // would read back as a line feed otherwise
            case '\t':
            case '\n': break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    if (c < 0x20) Detail::ThrowInvalidArgument(Path());
                }
            }
            if (entity != nullptr) {
                out_.append(run, p);
                out_ += entity;
                run = p + 1;
            }
            ++p;
        }
        out_.append(run, end);
    }

private:
    struct Step {
        const char* name;
        long index;
    };

    // Length of the well-formed UTF-8 sequence at `p` that XML allows, or 0.
    static size_t Utf8Length(const char* p, const char* end) {
        auto b = [&](int i) { return static_cast<unsigned char>(p[i]); };
        auto cont = [&](int i) { return p + i < end && (b(i) & 0xC0) == 0x80; };
        unsigned c = b(0);
        if (c >= 0xC2 && c <= 0xDF) return cont(1) ? 2 : 0;
        if (c >= 0xE0 && c <= 0xEF) {
            if (!cont(1) || !cont(2)) return 0;
            unsigned cp = ((c & 0x0F) << 12) | ((b(1) & 0x3F) << 6) | (b(2) & 0x3F);
            if (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF) || cp == 0xFFFE || cp == 0xFFFF) return 0;
            return 3;
        }
        if (c >= 0xF0 && c <= 0xF4) {
            if (!cont(1) || !cont(2) || !cont(3)) return 0;
            unsigned cp = ((c & 0x07) << 18) | ((b(1) & 0x3F) << 12) | ((b(2) & 0x3F) << 6) | (b(3) & 0x3F);
            if (cp < 0x10000 || cp > 0x10FFFF) return 0;
            return 4;
        }
        return 0;
    }

    template <class T>
    void Number(T value) {
        char buffer[32];
        if constexpr (std::is_floating_point_v<T>) {
            if (std::isnan(value)) { out_ += "NaN"; return; }
            if (std::isinf(value)) { out_ += value > 0 ? "INF" : "-INF"; return; }
        }
        auto r = std::to_chars(buffer, buffer + sizeof buffer, value);
        out_.append(buffer, r.ptr);
    }

    void Date(const DateTime& value) { out_ += value.ToIso8601(); }

    void Base64(const std::vector<int8_t>& bytes) {
        size_t n = bytes.size();
        auto u = [&](size_t i) { return static_cast<unsigned>(static_cast<uint8_t>(bytes[i])); };
        size_t i = 0;
        for (; i + 2 < n; i += 3) {
            unsigned v = (u(i) << 16) | (u(i + 1) << 8) | u(i + 2);
            char quad[4] = {kBase64[v >> 18], kBase64[(v >> 12) & 63], kBase64[(v >> 6) & 63], kBase64[v & 63]};
            out_.append(quad, 4);
        }
        if (i + 1 == n) {
            unsigned v = u(i) << 16;
            char quad[4] = {kBase64[v >> 18], kBase64[(v >> 12) & 63], '=', '='};
            out_.append(quad, 4);
        } else if (i + 2 == n) {
            unsigned v = (u(i) << 16) | (u(i + 1) << 8);
            char quad[4] = {kBase64[v >> 18], kBase64[(v >> 12) & 63], kBase64[(v >> 6) & 63], '='};
            out_.append(quad, 4);
        }
    }

    // The text of a boxed primitive or enumeration value of `type`.
    void BoxedText(const Type* type, const Any* value) {
        uint32_t kind = type->GetKind();
        auto text = [&](auto* tag) {
            using T = std::remove_pointer_t<decltype(tag)>;
            auto* box = dynamic_cast<const Primitive<T>*>(value);
            if (box == nullptr) Fail();
            return box->GetValue();
        };
        switch (kind) {
        case kKindString: Escaped(text(static_cast<std::string*>(nullptr))); return;
        case kKindTypeName: Escaped(text(static_cast<TypeName*>(nullptr))); return;
        case kKindPropertyPath: Escaped(text(static_cast<PropertyPath*>(nullptr))); return;
        case kKindInt: Number(text(static_cast<int32_t*>(nullptr))); return;
        case kKindLong: Number(text(static_cast<int64_t*>(nullptr))); return;
        case kKindShort: Number(text(static_cast<int16_t*>(nullptr))); return;
        case kKindByte: Number(static_cast<int>(text(static_cast<int8_t*>(nullptr)))); return;
        case kKindFloat: Number(text(static_cast<float*>(nullptr))); return;
        case kKindDouble: Number(text(static_cast<double*>(nullptr))); return;
        case kKindBool: out_ += text(static_cast<bool*>(nullptr)) ? "true" : "false"; return;
        case kKindDateTime: Date(text(static_cast<DateTime*>(nullptr))); return;
        case kKindEnum: {
            const EnumType* e = type->AsEnumType();
            auto* box = dynamic_cast<const EnumBox*>(value);
            if (e == nullptr || box == nullptr) Fail();
            out_ += e->ValueToText(box->GetIntValue());
            return;
        }
        default: Fail();
        }
    }

    template <class T>
    void PrimitiveArray(const char* name, const ArrayBase* array) {
        auto* typed = dynamic_cast<const Kitra::Array<T>*>(array);
        if (typed == nullptr) Fail();
        if constexpr (std::is_same_v<T, int8_t>) {
            Open(name);
            out_ += '>';
            Base64(typed->GetValues());
            Close(name);
        } else {
            for (const T& v : typed->GetValues()) {
                Open(name);
                out_ += '>';
                if constexpr (std::is_base_of_v<std::string, T>) Escaped(v);
                else if constexpr (std::is_same_v<T, bool>) out_ += v ? "true" : "false";
                else if constexpr (std::is_same_v<T, DateTime>) Date(v);
                else Number(v);
                Close(name);
            }
        }
    }

    void Array(const char* name, const Type* element, const ArrayBase* array) {
        if (array->IsEmpty()) return;
        switch (element->GetKind()) {
        case kKindString: PrimitiveArray<std::string>(name, array); return;
        case kKindTypeName: PrimitiveArray<TypeName>(name, array); return;
        case kKindPropertyPath: PrimitiveArray<PropertyPath>(name, array); return;
        case kKindInt: PrimitiveArray<int32_t>(name, array); return;
        case kKindLong: PrimitiveArray<int64_t>(name, array); return;
        case kKindShort: PrimitiveArray<int16_t>(name, array); return;
        case kKindByte: PrimitiveArray<int8_t>(name, array); return;
        case kKindBool: PrimitiveArray<bool>(name, array); return;
        case kKindFloat: PrimitiveArray<float>(name, array); return;
        case kKindDouble: PrimitiveArray<double>(name, array); return;
        case kKindDateTime: PrimitiveArray<DateTime>(name, array); return;
        default: break;
        }
        CheckKnown(element);
        auto* items = dynamic_cast<const DataArrayBase*>(array);
        for (size_t i = 0; i < array->GetLength(); ++i) {
            path_.back().index = static_cast<long>(i);
            if (items != nullptr) {
                const Any* v = items->GetAny(i);
                if (v == nullptr) Fail();
                Item(name, element, v);
            } else {
                Item(name, element, array->GetBoxed(i).Get());
            }
        }
        path_.back().index = -1;
    }

    template <class T>
    T Read(DataObject* object, const PropertyDesc& d) {
        T value{};
        d.owner->getProperty(object, d.localIndex, &value);
        return value;
    }

    template <class T>
    void Scalar(const char* name, DataObject* object, const PropertyDesc& d, bool optional) {
        T value;
        if (optional) {
            Optional<T> o = Read<Optional<T>>(object, d);
            if (!o.IsSet()) return;
            value = o.GetValue();
        } else {
            value = Read<T>(object, d);
        }
        Open(name);
        out_ += '>';
        if constexpr (std::is_same_v<T, bool>) out_ += value ? "true" : "false";
        else if constexpr (std::is_same_v<T, DateTime>) Date(value);
        else if constexpr (std::is_same_v<T, int8_t>) Number(static_cast<int>(value));
        else Number(value);
        Close(name);
    }

    void Field(const DataObject* constObject, const PropertyDesc& d) {
        auto* object = const_cast<DataObject*>(constObject);
        const PropertyTypeInfo& p = *d.info;
        const char* name = p.name;
        Storage storage = StorageOf(p);
        bool enumeration = p.type->kind == kKindEnum && !(p.flags & kFlagArray);
        if (enumeration) {
            int32_t value;
            if (storage == Storage::OptI32) {
                auto o = Read<Optional<int32_t>>(object, d);
                if (!o.IsSet()) return;
                value = o.GetValue();
            } else {
                value = Read<int32_t>(object, d);
            }
            const Type* type = Detail::TypeOf(p.type);
            const EnumType* e = type != nullptr ? type->AsEnumType() : nullptr;
            if (e == nullptr) Fail();
            CheckKnown(type);
            Open(name);
            out_ += '>';
            try {
                out_ += e->ValueToText(value);
            } catch (const Fundix::InvalidArgumentException&) {
                Fail();
            }
            Close(name);
            return;
        }
        switch (storage) {
        case Storage::String: {
            std::string v = Read<std::string>(object, d);
            Open(name);
            out_ += '>';
            Escaped(v);
            Close(name);
            return;
        }
        case Storage::OptString: {
            auto v = Read<Optional<std::string>>(object, d);
            if (!v.IsSet()) return;
            Open(name);
            out_ += '>';
            Escaped(v.GetValue());
            Close(name);
            return;
        }
        case Storage::I32: Scalar<int32_t>(name, object, d, false); return;
        case Storage::OptI32: Scalar<int32_t>(name, object, d, true); return;
        case Storage::I64: Scalar<int64_t>(name, object, d, false); return;
        case Storage::OptI64: Scalar<int64_t>(name, object, d, true); return;
        case Storage::I16: Scalar<int16_t>(name, object, d, false); return;
        case Storage::OptI16: Scalar<int16_t>(name, object, d, true); return;
        case Storage::I8: Scalar<int8_t>(name, object, d, false); return;
        case Storage::OptI8: Scalar<int8_t>(name, object, d, true); return;
        case Storage::Bool: Scalar<bool>(name, object, d, false); return;
        case Storage::OptBool: Scalar<bool>(name, object, d, true); return;
        case Storage::F32: Scalar<float>(name, object, d, false); return;
        case Storage::OptF32: Scalar<float>(name, object, d, true); return;
        case Storage::F64: Scalar<double>(name, object, d, false); return;
        case Storage::OptF64: Scalar<double>(name, object, d, true); return;
        case Storage::Date: Scalar<DateTime>(name, object, d, false); return;
        case Storage::OptDate: Scalar<DateTime>(name, object, d, true); return;
        case Storage::Slot: break;
        }
        auto value = Read<Fundix::Ref<Any>>(object, d);
        const Type* declared = Detail::TypeOf(p.type);
        if (declared == nullptr) Fail();
        if (p.flags & kFlagArray) {
            if (value == nullptr) return;
            auto* array = dynamic_cast<const ArrayBase*>(value.Get());
            if (array == nullptr) Fail();
            Array(name, declared, array);
            return;
        }
        if (value == nullptr) {
            if (!(p.flags & kFlagOptional)) Detail::ThrowInvalidArgument(Path());
            return;
        }
        Item(name, declared, value.Get());
    }

    const Codec& codec_;
    std::string& out_;
    size_t start_;
    bool done_ = false;
    bool topPending_ = false;
    std::vector<Step> path_;
};

}  // namespace

void Codec::EncodeValue(const Any* value, std::string& out) const {
    Writer w(*this, out);
    if (value == nullptr) Detail::ThrowInvalidArgument("value");
    w.Envelope();
    w.AnyValue("value", value);
    w.Finish();
}

void Codec::EncodeRequest(const MoRef& target, const ManagedMethod* method, const Fundix::RefVector<Any>& arguments,
                          std::string& out) const {
    Writer w(*this, out);
    if (!Includes(method->GetVersion()) || !Knows(method->GetOwner()))
        Detail::ThrowNotInVersion(method->GetWireName(), *version_, "");
    w.Envelope();
    if (method->IsProperty()) {
        w.Open("FetchProperty");
        w.Text(">");
        w.Reference("_this", target, false);
        w.Text("<prop>");
        w.Escaped(method->GetName());
        w.Text("</prop>");
        w.Close("FetchProperty");
    } else {
        const MethodTypeInfo* info = method->GetMethodInfo();
        w.Open(info->wsdlName);
        w.Text(">");
        w.Reference("_this", target, false);
        size_t i = 0;
        for (const ParamTypeInfo* p = info->params; p != nullptr && p->name != nullptr; ++p, ++i) {
            if (!Includes(p->version)) continue;
            w.Param(*p, p->name, i < arguments.size() ? arguments[i].Get() : nullptr);
        }
        w.Close(info->wsdlName);
    }
    w.Finish();
}

void Codec::EncodeResponse(const ManagedMethod* method, const Any* result, std::string& out) const {
    Writer w(*this, out);
    if (!Includes(method->GetVersion())) Detail::ThrowNotInVersion(method->GetWireName(), *version_, "");
    w.Envelope();
    if (method->IsProperty()) {
        w.Open("FetchPropertyResponse");
        w.Text(">");
        auto* array = dynamic_cast<const ArrayBase*>(result);
        if (array != nullptr && (method->GetPropertyInfo()->flags & kFlagArray)) {
            for (size_t i = 0; i < array->GetLength(); ++i) w.AnyValue("returnval", array->GetBoxed(i).Get());
        } else if (result != nullptr) {
            w.AnyValue("returnval", result);
        }
        w.Close("FetchPropertyResponse");
    } else {
        const MethodTypeInfo* info = method->GetMethodInfo();
        std::string name = std::string(info->wsdlName) + "Response";
        w.Open(name.c_str());
        w.Text(">");
        const ParamTypeInfo wire = WireResult(*info);
        if (wire.type != nullptr) w.Param(wire, "returnval", result);
        w.Close(name.c_str());
    }
    w.Finish();
}

void Codec::EncodeFault(const MethodFault* fault, std::string& out) const {
    Writer w(*this, out);
    if (fault == nullptr) Detail::ThrowInvalidArgument("fault");
    // A fault the peer's version does not know goes as its nearest base that it does know.
    const DataObjectType* type = fault->_GetDataType();
    while (type != nullptr && !Knows(type)) type = type->GetBaseDataType();
    if (type == nullptr) Detail::ThrowNotInVersion(fault->_GetType()->GetName(), *version_, "");
    const DataObjectType* request = GetType<Kitra::Fault::InvalidRequest>()->AsDataObjectType();
    w.Envelope(false);
    w.Text("<soapenv:Fault><faultcode>");
    w.Text(type->IsA(request) ? "soapenv:Client" : "soapenv:Server");
    w.Text("</faultcode><faultstring>");
    w.Escaped(type->GetName());
    w.Text("</faultstring><detail>");
    std::string element = std::string(type->GetWsdlName()) + "Fault";
    w.Open(element.c_str(), true);
    w.Attr("xsi:type", type->GetWsdlName());
    w.Text(">");
    w.Fields(fault, type);
    w.Close(element.c_str());
    w.Text("</detail></soapenv:Fault>");
    w.Finish();
}

}  // namespace Kitra::Soap
