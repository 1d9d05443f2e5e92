// Text output from templates: "$name$" is replaced by the variable's value, "$$" by a dollar sign.
#pragma once

#include <initializer_list>
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
            std::string name(p + 1, end);
            if (name.empty()) {
                out_ += '$';
            } else {
                bool found = false;
                for (const auto& v : vars) {
                    if (name == v.first) {
                        out_ += v.second;
                        found = true;
                        break;
                    }
                }
                if (!found) out_ += "$" + name + "$";  // visible in the output, caught by the compiler
            }
            p = *end == '\0' ? end - 1 : end;
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
    std::string out_;
};

}  // namespace kodlgen
