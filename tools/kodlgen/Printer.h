// Text output from templates: "$name$" is replaced by the variable's value, "$$" by a dollar sign.
// Templates are written as raw strings that look like the code they emit. A variable the call does not
// give, or a "$" left open, is a fault of the generator: Print throws rather than write it out.
#pragma once

#include <initializer_list>
#include <stdexcept>
#include <string>
#include <utility>

namespace kodlgen {

class Printer {
public:
    using Vars = std::initializer_list<std::pair<const char*, std::string>>;

    void Print(const char* text, Vars vars = {}) {
        for (const char* p = text; *p != '\0'; ++p) {
            if (*p != '$') {
                out_ += *p;
                continue;
            }
            const char* end = p + 1;
            while (*end != '\0' && *end != '$') ++end;
            if (*end == '\0') throw std::logic_error(std::string("template has an unclosed $: ") + text);
            std::string name(p + 1, end);
            if (name.empty()) {
                out_ += '$';
            } else {
                const std::string* value = Find(vars, name);
                if (value == nullptr) throw std::logic_error("template variable $" + name + "$ has no value: " + text);
                out_ += *value;
            }
            p = end;
        }
    }
    void Raw(const std::string& text) { out_ += text; }
    const std::string& Text() const { return out_; }
    int LineCount() const {
        int n = 1;
        for (char c : out_) n += c == '\n';
        return n;
    }

private:
    static const std::string* Find(Vars vars, const std::string& name) {
        for (const auto& v : vars)
            if (name == v.first) return &v.second;
        return nullptr;
    }

    std::string out_;
};

}  // namespace kodlgen
