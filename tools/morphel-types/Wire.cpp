// `morphel-types decode` and `encode`: messages from and to the command line.
#include <iostream>
#include <iterator>
#include <sstream>

#include <kitra/Kitra.h>
#include <kitra/Soap.h>
#include <kitra/fault/types.h>

#include "Sample.h"
#include "Tool.h"

namespace MorphelTypesTool {

namespace {

std::string Quoted(const std::string& text) { return Json(text); }

class Printer {
public:
    explicit Printer(std::ostream& out) : out_(out) {}

    // One value after "name: " on the current line; nested values on the lines below, indented.
    void Value(const Kitra::Any* value, int depth) {
        if (value == nullptr) {
            out_ << "(none)\n";
            return;
        }
        if (auto* data = dynamic_cast<const Kitra::DataObject*>(value)) {
            const Kitra::DataObjectType* type = data->_GetDataType();
            out_ << type->GetName() << "\n";
            const auto& props = type->GetProperties();
            for (size_t i = 0; i < props.size(); ++i) {
                if (!type->IsPropertySet(data, static_cast<int>(i))) continue;
                Fundix::Ref<Kitra::Any> v = type->GetPropertyValue(data, static_cast<int>(i));
                if (v == nullptr) continue;
                if (auto* a = dynamic_cast<const Kitra::ArrayBase*>(v.Get()); a != nullptr && a->IsEmpty()) continue;
                Indent(depth + 1);
                out_ << props[i].info->name << ": ";
                Value(v.Get(), depth + 1);
            }
        } else if (auto* array = dynamic_cast<const Kitra::ArrayBase*>(value)) {
            out_ << array->GetElementType()->GetName() << "[" << array->GetLength() << "]\n";
            for (size_t i = 0; i < array->GetLength(); ++i) {
                Indent(depth + 1);
                out_ << "[" << i << "] ";
                Value(array->GetBoxed(i).Get(), depth + 1);
            }
        } else if (auto* ref = dynamic_cast<const Kitra::MoRef*>(value)) {
            out_ << ref->GetTypeName() << " " << Quoted(ref->GetId()) << "\n";
        } else if (auto* e = dynamic_cast<const Kitra::EnumBox*>(value)) {
            out_ << e->_GetType()->AsEnumType()->ValueToText(e->GetIntValue()) << "\n";
        } else {
            out_ << Primitive(value) << "\n";
        }
    }

    void Indent(int depth) {
        for (int i = 0; i < depth; ++i) out_ << "  ";
    }

private:
    static std::string Primitive(const Kitra::Any* v) {
        std::ostringstream s;
        if (auto* p = dynamic_cast<const Kitra::Primitive<std::string>*>(v)) return Quoted(p->GetValue());
        if (auto* p = dynamic_cast<const Kitra::Primitive<Kitra::TypeName>*>(v)) return Quoted(p->GetValue());
        if (auto* p = dynamic_cast<const Kitra::Primitive<Kitra::PropertyPath>*>(v)) return Quoted(p->GetValue());
        if (auto* p = dynamic_cast<const Kitra::Primitive<bool>*>(v)) return p->GetValue() ? "true" : "false";
        if (auto* p = dynamic_cast<const Kitra::Primitive<int8_t>*>(v)) return std::to_string(p->GetValue());
        if (auto* p = dynamic_cast<const Kitra::Primitive<Fundix::System::DateTime>*>(v)) return p->GetValue().ToIso8601();
        if (auto* p = dynamic_cast<const Kitra::Primitive<int16_t>*>(v)) s << p->GetValue();
        else if (auto* p = dynamic_cast<const Kitra::Primitive<int32_t>*>(v)) s << p->GetValue();
        else if (auto* p = dynamic_cast<const Kitra::Primitive<int64_t>*>(v)) s << p->GetValue();
        else if (auto* p = dynamic_cast<const Kitra::Primitive<float>*>(v)) s << p->GetValue();
        else if (auto* p = dynamic_cast<const Kitra::Primitive<double>*>(v)) s << p->GetValue();
        else s << "(" << v->_GetType()->GetName() << ")";
        return s.str();
    }

    std::ostream& out_;
};

}  // namespace

std::string FullVersionName(const std::string& version) {
    return version.find('.') == std::string::npos ? "morphel.version." + version : version;
}

int DecodeCommand(const std::string& version, std::istream& in, std::ostream& out, std::ostream& err) {
    std::string message((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    try {
        Kitra::Soap::Codec codec(FullVersionName(version));
        Kitra::Soap::Message m = codec.Decode(message);
        Printer print(out);
        switch (m.kind) {
        case Kitra::Soap::MessageKind::Value: print.Value(m.value.Get(), 0); break;
        case Kitra::Soap::MessageKind::Fault:
            out << "fault ";
            print.Value(m.value.Get(), 0);
            break;
        case Kitra::Soap::MessageKind::Request: {
            out << "request " << m.method->GetWireName() << " on " << m.target->GetTypeName() << " "
                << Quoted(m.target->GetId()) << "\n";
            const Kitra::MethodTypeInfo* info = m.method->GetMethodInfo();
            size_t i = 0;
            for (const Kitra::ParamTypeInfo* p = info ? info->params : nullptr; p != nullptr && p->name != nullptr;
                 ++p, ++i) {
                if (m.arguments[i] == nullptr) continue;
                out << "  " << p->name << ": ";
                print.Value(m.arguments[i].Get(), 1);
            }
            break;
        }
        case Kitra::Soap::MessageKind::Response:
            out << "response";
            if (m.method != nullptr) out << " of " << m.method->GetWireName();
            out << "\n  returnval: ";
            print.Value(m.value.Get(), 1);
            break;
        }
        return 0;
    } catch (const Kitra::MethodFault::Exception& e) {
        err << "morphel-types: " << e.GetMessage();
        if (auto* r = dynamic_cast<Kitra::Fault::InvalidRequest*>(e.GetFault())) {
            err << ": " << r->GetReason();
            if (r->GetInvalidProperty().IsSet()) err << " (at " << r->GetInvalidProperty().GetValue() << ")";
        }
        err << "\n";
        return 1;
    } catch (const Fundix::Exception& e) {
        err << "morphel-types: " << e.GetMessage() << "\n";
        return 2;
    }
}

int EncodeCommand(const std::string& version, const std::string& wireName, std::ostream& out, std::ostream& err) {
    Kitra::Type* type = Kitra::GetTypeMap()->GetType(wireName);
    if (type == nullptr || type->AsDataObjectType() == nullptr) {
        err << "morphel-types: no data object or fault named '" << wireName << "'\n";
        return 2;
    }
    try {
        Kitra::Soap::Codec codec(FullVersionName(version));
        std::string message;
        codec.EncodeValue(Sample(type->AsDataObjectType(), codec).Get(), message);
        out << message << "\n";
        return 0;
    } catch (const Fundix::Exception& e) {
        err << "morphel-types: " << e.GetMessage() << "\n";
        return 1;
    }
}

}  // namespace MorphelTypesTool
