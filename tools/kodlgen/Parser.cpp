// Reads .kodl files into the model. The grammar is line-based: the first words of a line say what it
// declares, and a member line belongs to the nearest type or method above it.
#include <cctype>
#include <cstdlib>

#include "Model.h"

namespace kodlgen {

namespace {

struct Line {
    int number;
    std::vector<std::string> tokens;
};

// Splits `text` into lines of tokens; `#` starts a comment, quotes group blanks and allow "".
std::vector<Line> Tokenize(Model& model, const std::string& file, const std::string& text) {
    std::vector<Line> lines;
    int number = 0;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        std::string raw = text.substr(pos, end - pos);
        pos = end + 1;
        ++number;
        Line line{number, {}};
        size_t i = 0;
        while (i < raw.size()) {
            char c = raw[i];
            if (c == '#') break;
            if (c == ' ' || c == '\t' || c == '\r') {
                ++i;
                continue;
            }
            std::string token;
            bool quoted = false;
            while (i < raw.size() && raw[i] != ' ' && raw[i] != '\t' && raw[i] != '\r') {
                if (raw[i] == '"') {
                    size_t close = raw.find('"', i + 1);
                    if (close == std::string::npos) {
                        model.Error({file, number}, "unterminated quote");
                        close = raw.size() - 1;
                    }
                    token += raw.substr(i + 1, close - i - 1);
                    i = close + 1;
                    quoted = true;
                } else {
                    token += raw[i++];
                }
            }
            (void)quoted;
            line.tokens.push_back(token);
        }
        if (!line.tokens.empty()) lines.push_back(std::move(line));
        if (end == text.size()) break;
    }
    return lines;
}

bool ParseNumber(const std::string& token, uint32_t& value) {
    if (token.empty()) return false;
    int base = 10;
    size_t start = 0;
    if (token.size() > 2 && token[0] == '0' && (token[1] == 'x' || token[1] == 'X')) {
        base = 16;
        start = 2;
    }
    for (size_t i = start; i < token.size(); ++i) {
        if (base == 10 ? !std::isdigit(static_cast<unsigned char>(token[i]))
                       : !std::isxdigit(static_cast<unsigned char>(token[i])))
            return false;
    }
    value = static_cast<uint32_t>(std::strtoul(token.c_str() + start, nullptr, base));
    return true;
}

bool IsNumber(const std::string& token) {
    uint32_t ignored;
    return ParseNumber(token, ignored);
}

bool LooksLikeVersion(const std::string& token) {
    if (token.find(".version.") != std::string::npos) return true;
    if (token.rfind("version", 0) == 0 && token.size() > 7) {
        for (size_t i = 7; i < token.size(); ++i)
            if (!std::isdigit(static_cast<unsigned char>(token[i]))) return false;
        return true;
    }
    return false;
}

bool IsIdentifier(const std::string& token) {
    if (token.empty() || !(std::isalpha(static_cast<unsigned char>(token[0])) || token[0] == '_')) return false;
    for (char c : token)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '_')) return false;
    return true;
}

// Splits "key=value" options from bare words; reports unknown ones.
struct Options {
    std::map<std::string, std::string> values;
    std::vector<std::string> words;
};

Options ReadOptions(Model& model, const Location& where, const std::vector<std::string>& tokens, size_t from,
                    const std::vector<std::string>& allowedKeys, const std::vector<std::string>& allowedWords) {
    Options options;
    for (size_t i = from; i < tokens.size(); ++i) {
        const std::string& t = tokens[i];
        size_t eq = t.find('=');
        if (eq != std::string::npos) {
            std::string key = t.substr(0, eq);
            bool known = false;
            for (const auto& k : allowedKeys) known = known || k == key;
            if (!known) {
                model.Error(where, "unknown option '" + key + "'");
                continue;
            }
            if (options.values.count(key)) model.Error(where, "option '" + key + "' given twice");
            options.values[key] = t.substr(eq + 1);
        } else {
            bool known = false;
            for (const auto& w : allowedWords) known = known || w == t;
            if (!known) {
                model.Error(where, "unexpected word '" + t + "'");
                continue;
            }
            options.words.push_back(t);
        }
    }
    return options;
}

bool Has(const Options& options, const std::string& word) {
    for (const auto& w : options.words)
        if (w == word) return true;
    return false;
}

}  // namespace

void ParseModuleFile(Model& model, const std::string& path, const std::string& text, bool imported) {
    auto module = std::make_unique<Module>();
    module->definitionFile = path;
    module->imported = imported;
    module->where = {path, 1};
    TypeDecl* type = nullptr;
    Method* method = nullptr;
    bool sawModule = false;

    for (const Line& line : Tokenize(model, path, text)) {
        const auto& t = line.tokens;
        Location where{path, line.number};
        const std::string& head = t[0];

        if (head == "module") {
            if (sawModule) model.Error(where, "a second 'module' statement");
            if (t.size() != 2) {
                model.Error(where, "'module' takes one wire prefix");
                continue;
            }
            module->prefix = t[1];
            module->where = where;
            sawModule = true;
            continue;
        }
        if (!sawModule) {
            model.Error(where, "the file must start with 'module <wire prefix>'");
            sawModule = true;  // report once
        }
        if (head == "wsdl-prefix" || head == "assert-line") {
            if (type != nullptr) model.Error(where, "'" + head + "' must come before the first type");
            if (t.size() != 2) {
                model.Error(where, "'" + head + "' takes one value");
                continue;
            }
            if (head == "wsdl-prefix") {
                module->wsdlPrefix = t[1];
                module->wsdlPrefixWritten = true;
            } else {
                uint32_t n = 0;
                if (!ParseNumber(t[1], n) || n == 0) model.Error(where, "'assert-line' takes a positive number");
                module->assertLine = static_cast<int>(n);
            }
            continue;
        }

        // A field of a data type: NAME TYPE FLAGS ... (checked first, because a field may be called
        // "data", "in" or "property").
        if (type != nullptr && type->kind == TypeDecl::Data && t.size() >= 3 && IsNumber(t[2])) {
            Field f;
            f.where = where;
            f.name = t[0];
            if (!IsIdentifier(f.name)) model.Error(where, "'" + f.name + "' is not a field name");
            f.type = {t[1], where, "", nullptr};
            ParseNumber(t[2], f.flags);
            size_t next = 3;
            if (t.size() > 3 && LooksLikeVersion(t[3])) f.version = t[next++];
            Options o = ReadOptions(model, where, t, next, {"extra", "accessor"}, {});
            if (o.values.count("extra")) {
                f.hasExtra = true;
                f.extra = o.values["extra"];
            }
            if (o.values.count("accessor")) f.accessor = o.values["accessor"];
            type->fields.push_back(std::move(f));
            continue;
        }

        bool builtin = head == "builtin";
        size_t k = builtin ? 1 : 0;
        if (t.size() > k + 2 && (t[k] == "data" || t[k] == "managed" || t[k] == "enum") &&
            LooksLikeVersion(t[k + 2])) {
            auto decl = std::make_unique<TypeDecl>();
            decl->kind = t[k] == "data" ? TypeDecl::Data : t[k] == "managed" ? TypeDecl::Managed : TypeDecl::Enum;
            decl->where = where;
            decl->module = module.get();
            decl->builtin = builtin;
            decl->path = t[k + 1];
            decl->version = t[k + 2];
            std::vector<std::string> keys = {"wsdl"};
            std::vector<std::string> words;
            if (decl->kind != TypeDecl::Enum) keys.push_back("base");
            if (decl->kind == TypeDecl::Data) words.push_back("noctor");
            Options o = ReadOptions(model, where, t, k + 3, keys, words);
            if (o.values.count("wsdl")) {
                decl->wsdlName = o.values["wsdl"];
                decl->wsdlWritten = true;
            }
            if (o.values.count("base")) {
                decl->hasBase = true;
                decl->base = {o.values["base"], where, "", nullptr};
            }
            decl->noCtor = Has(o, "noctor");
            for (const auto& part : Split(decl->path, '.'))
                if (!IsIdentifier(part)) model.Error(where, "'" + decl->path + "' is not a type name");
            type = decl.get();
            method = nullptr;
            module->types.push_back(std::move(decl));
            continue;
        }
        if (type == nullptr) {
            model.Error(where, "'" + head + "' outside of a type");
            continue;
        }

        if (type->kind == TypeDecl::Enum) {
            for (const auto& value : t) type->values.push_back(value);
            continue;
        }

        if (type->kind == TypeDecl::Managed && head == "method") {
            if (t.size() < 4) {
                model.Error(where, "'method' takes a name, a WSDL name and a version");
                continue;
            }
            Method m;
            m.where = where;
            m.name = t[1];
            m.wsdlName = t[2];
            m.version = t[3];
            if (!LooksLikeVersion(m.version)) model.Error(where, "'" + m.version + "' is not a version");
            Options o = ReadOptions(model, where, t, 4, {"priv", "flags"}, {"async"});
            if (o.values.count("priv")) {
                m.hasPrivilege = true;
                m.privilege = o.values["priv"];
            }
            if (o.values.count("flags") && !ParseNumber(o.values["flags"], m.flags))
                model.Error(where, "'flags' takes a number");
            m.async = Has(o, "async");
            type->methods.push_back(std::move(m));
            method = &type->methods.back();
            continue;
        }
        if (type->kind == TypeDecl::Managed && head == "property") {
            if (t.size() < 4 || !IsNumber(t[3])) {
                model.Error(where, "'property' takes a name, a type and flags");
                continue;
            }
            Property p;
            p.where = where;
            p.name = t[1];
            p.type = {t[2], where, "", nullptr};
            ParseNumber(t[3], p.flags);
            Options o = ReadOptions(model, where, t, 4, {"priv"}, {"async"});
            if (o.values.count("priv")) {
                p.hasPrivilege = true;
                p.privilege = o.values["priv"];
            }
            p.async = Has(o, "async");
            type->properties.push_back(std::move(p));
            method = nullptr;
            continue;
        }
        if (method != nullptr && head == "in") {
            if (t.size() < 4 || t.size() > 5 || !IsNumber(t[3])) {
                model.Error(where, "'in' takes a name, a type, flags and an optional version");
                continue;
            }
            Param p;
            p.where = where;
            p.name = t[1];
            p.type = {t[2], where, "", nullptr};
            ParseNumber(t[3], p.flags);
            if (t.size() == 5) p.version = t[4];
            method->params.push_back(std::move(p));
            continue;
        }
        if (method != nullptr && head == "out") {
            if (t.size() != 3 || !IsNumber(t[2])) {
                model.Error(where, "'out' takes a type and flags");
                continue;
            }
            if (method->hasResult) model.Error(where, "a second 'out' for one method");
            method->hasResult = true;
            method->result = {t[1], where, "", nullptr};
            ParseNumber(t[2], method->resultFlags);
            continue;
        }
        if (method != nullptr && head == "raises") {
            for (size_t i = 1; i < t.size(); ++i) method->faults.push_back({t[i], where, "", nullptr});
            continue;
        }
        model.Error(where, "cannot read '" + head + "' here");
    }
    if (!sawModule) model.Error({path, 1}, "the file has no 'module' statement");
    model.modules.push_back(std::move(module));
}

void ParseVersionsFile(Model& model, const std::string& path, const std::string& text) {
    VersionDecl* relationsOf = nullptr;
    for (const Line& line : Tokenize(model, path, text)) {
        const auto& t = line.tokens;
        Location where{path, line.number};
        if (t[0] == "version") {
            if (t.size() != 5) {
                model.Error(where, "'version' takes a name, a wire namespace, a version string and a service namespace");
                continue;
            }
            for (const auto& v : model.versions)
                if (v.name == t[1]) model.Error(where, "version '" + t[1] + "' declared twice");
            model.versions.push_back({where, t[1], t[2], t[3], t[4], {}});
            relationsOf = nullptr;
        } else if (t[0] == "relations") {
            relationsOf = nullptr;
            for (auto& v : model.versions)
                if (t.size() == 2 && v.name == t[1]) relationsOf = &v;
            if (relationsOf == nullptr) model.Error(where, "'relations' names no declared version");
        } else if (t[0] == "includes") {
            if (relationsOf == nullptr) {
                model.Error(where, "'includes' outside of 'relations'");
                continue;
            }
            for (size_t i = 1; i < t.size(); ++i) relationsOf->includes.push_back(t[i]);
        } else {
            model.Error(where, "cannot read '" + t[0] + "' here");
        }
    }
}

std::string Capitalize(const std::string& word) {
    if (word.empty()) return word;
    std::string r = word;
    r[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(r[0])));
    return r;
}

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        size_t end = text.find(separator, start);
        parts.push_back(text.substr(start, end - start));
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return parts;
}

bool IsPrimitive(const std::string& name) {
    static const char* const kNames[] = {"string", "int",      "long",    "short",    "boolean",     "byte",
                                         "float",  "double",   "dateTime", "anyType", "typeName", "propertyPath"};
    for (const char* n : kNames)
        if (name == n) return true;
    return false;
}

}  // namespace kodlgen
