#include "fundix/MessageFormatter.h"

namespace Fundix {

std::string MessageFormatter::Format(std::string_view tmpl, std::initializer_list<std::string_view> args) {
    std::string out;
    out.reserve(tmpl.size());
    for (std::size_t i = 0; i < tmpl.size(); ++i) {
        const char c = tmpl[i];
        if (c != '%' || i + 1 == tmpl.size()) {
            out += c;
            continue;
        }
        const char next = tmpl[i + 1];
        if (next == '%') {
            out += '%';
            ++i;
        } else if (next >= '1' && next <= '9') {
            const std::size_t index = static_cast<std::size_t>(next - '1');
            if (index < args.size()) {
                out += *(args.begin() + index);
            } else {
                out += tmpl.substr(i, 2);
            }
            ++i;
        } else {
            out += c;
        }
    }
    return out;
}

}  // namespace Fundix
