#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

namespace Fundix {

// Fills numbered placeholders in a message template. `%1`..`%9` stand for the arguments in order and `%%`
// for a literal percent sign. A placeholder without a matching argument, and any other use of `%`, is
// copied unchanged so a wrong template still yields a readable message. Only one digit is read: `%10` is
// argument 1 followed by "0".
class MessageFormatter {
public:
    static std::string Format(std::string_view tmpl, std::initializer_list<std::string_view> args);

    // Accepts integers, bool, char and anything convertible to std::string_view.
    template <class... A>
    static std::string FormatValues(std::string_view tmpl, const A&... values) {
        // The temporaries produced by ToText live until the end of this full expression, so the views
        // passed to Format stay valid.
        return Format(tmpl, {std::string_view(ToText(values))...});
    }

private:
    template <class V>
    static std::string ToText(const V& value) {
        if constexpr (std::is_same_v<V, bool>) {
            return value ? "true" : "false";
        } else if constexpr (std::is_same_v<V, char>) {
            return std::string(1, value);
        } else if constexpr (std::is_integral_v<V>) {
            return std::to_string(value);
        } else {
            static_assert(std::is_convertible_v<const V&, std::string_view>,
                          "FormatValues accepts integers and strings only");
            return std::string(std::string_view(value));
        }
    }
};

}  // namespace Fundix
