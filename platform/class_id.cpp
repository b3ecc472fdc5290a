// The text form of a class identifier, the same on every system.
#include <cctype>
#include <string_view>

#include "platform/driver_registry.h"

namespace tavistro::platform {

std::optional<ClassId> parse_class_id(const std::string& text) {
    constexpr std::string_view form = "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}";
    if (text.size() != form.size()) return {};
    std::string digits;
    for (std::size_t i = 0; i < form.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (form[i] != 'X' ? text[i] != form[i] : std::isxdigit(c) == 0) return {};
        if (form[i] == 'X') digits += text[i];
    }
    // The first three groups are numbers and stand in memory with their low byte first.
    constexpr std::array<std::size_t, 16> order{3, 2, 1,  0,  5,  4,  7,  6,
                                                8, 9, 10, 11, 12, 13, 14, 15};
    ClassId id{};
    for (std::size_t i = 0; i < id.size(); ++i) {
        id[order[i]] = static_cast<std::uint8_t>(std::stoul(digits.substr(2 * i, 2), nullptr, 16));
    }
    return id;
}

}  // namespace tavistro::platform
