#include "config/ini.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <utility>

namespace tavistro {

namespace {

constexpr std::string_view whitespace = " \t\n\v\f\r";

struct FlagWord {
    std::string_view word;
    bool value;
};

constexpr FlagWord flag_words[] = {
    {"1", true},  {"true", true},   {"yes", true}, {"on", true},
    {"0", false}, {"false", false}, {"no", false}, {"off", false},
};

constexpr char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

struct Number {
    bool negative = false;
    std::uint64_t magnitude = 0;
};

/// Removes a hexadecimal prefix from `digits` and returns their base.
int take_base(std::string_view& digits) {
    if (!digits.starts_with('0')) return 10;
    if (!digits.starts_with("0x") && !digits.starts_with("0X")) return 8;
    digits.remove_prefix(2);
    return 16;
}

std::optional<Number> parse_number(std::string_view text) {
    std::string_view digits = trim(text);
    Number number;
    if (digits.starts_with('+') || digits.starts_with('-')) {
        number.negative = digits.front() == '-';
        digits.remove_prefix(1);
    }
    const int base = take_base(digits);
    const char* const end = digits.data() + digits.size();
    const auto [stop, fault] = std::from_chars(digits.data(), end, number.magnitude, base);
    if (fault != std::errc() || stop != end) return std::nullopt;
    return number;
}

template <typename Unsigned>
bool parse_unsigned(std::string_view text, Unsigned& value) {
    const std::optional<Number> number = parse_number(text);
    if (!number || number->magnitude > std::numeric_limits<Unsigned>::max()) return false;
    const auto magnitude = static_cast<Unsigned>(number->magnitude);
    value = number->negative ? Unsigned{0} - magnitude : magnitude;
    return true;
}

std::string key_fault(std::string_view fault, std::string_view section, std::string_view key) {
    return std::string(fault).append(" [").append(section).append("] ").append(key);
}

/// The stored value, null if absent.
const std::string* find_value(const IniSections& sections, std::string_view section,
                              std::string_view key) {
    const auto keys = sections.find(to_lower(section));
    if (keys == sections.end()) return nullptr;
    const auto value = keys->second.find(to_lower(key));
    return value == keys->second.end() ? nullptr : &value->second;
}

bool parse_flag(std::string_view text, bool& value) {
    const auto* const found = std::ranges::find(flag_words, to_lower(trim(text)), &FlagWord::word);
    if (found == std::end(flag_words)) return false;
    value = found->value;
    return true;
}

/// The parser of an accessor, and the beginning of its error message.
template <typename Value>
struct Conversion {
    std::string_view fault;
    bool (*parse)(std::string_view text, Value& value);
};

constexpr Conversion<bool> bool_value{"Invalid bool value for", parse_flag};
constexpr Conversion<std::int32_t> int_value{"Invalid integer value for", parse_int};
constexpr Conversion<std::uint16_t> u16_value{"Invalid uint16 value for", parse_u16};
constexpr Conversion<std::uint32_t> u32_value{"Invalid uint32 value for", parse_u32};
constexpr Conversion<std::uint64_t> size_value{"Invalid size value for", parse_size};

bool missing(std::string_view section, std::string_view key, std::string& error) {
    error = key_fault("Missing required key", section, key);
    return false;
}

template <typename Value>
bool read_optional(const IniSections& sections, std::string_view section, std::string_view key,
                   const Conversion<Value>& conversion, Value& value, std::string& error) {
    const std::string* const text = find_value(sections, section, key);
    if (text == nullptr || conversion.parse(*text, value)) return true;
    error = key_fault(conversion.fault, section, key);
    return false;
}

template <typename Value>
bool read_required(const IniSections& sections, std::string_view section, std::string_view key,
                   const Conversion<Value>& conversion, Value& value, std::string& error) {
    if (find_value(sections, section, key) == nullptr) return missing(section, key, error);
    return read_optional(sections, section, key, conversion, value, error);
}

}  // namespace

std::string_view trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(whitespace);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(whitespace) - first + 1);
}

std::string to_lower(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), lower);
    return result;
}

std::string_view strip_inline_comment(std::string_view text) {
    bool in_quotes = false;
    const auto starts_comment = [&](char c) {
        if (c == '"') in_quotes = !in_quotes;
        return !in_quotes && (c == ';' || c == '#');
    };
    return trim({text.begin(), std::find_if(text.begin(), text.end(), starts_comment)});
}

bool parse_ini(std::istream& input, IniSections& sections, std::string& error) {
    std::string section;
    std::string raw_line;
    for (std::uint64_t line_number = 1; std::getline(input, raw_line); ++line_number) {
        // trim() also removes a carriage return before the line feed.
        const std::string_view line = trim(raw_line);
        if (line.empty() || line.front() == ';' || line.front() == '#') continue;
        if (line.front() == '[') {
            if (line.size() < 3 || line.back() != ']') {
                error = "Invalid section header at line " + std::to_string(line_number);
                return false;
            }
            section = to_lower(trim(line.substr(1, line.size() - 2)));
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) {
            error = "Expected key=value at line " + std::to_string(line_number);
            return false;
        }
        sections[section][to_lower(trim(line.substr(0, equals)))] =
            strip_inline_comment(line.substr(equals + 1));
    }
    return true;
}

bool lookup(const IniSections& sections, std::string_view section, std::string_view key,
            std::string& value) {
    const std::string* const found = find_value(sections, section, key);
    if (found == nullptr) return false;
    value = *found;
    return true;
}

bool parse_int(std::string_view text, std::int32_t& value) {
    const std::optional<Number> number = parse_number(text);
    constexpr std::uint64_t largest = std::numeric_limits<std::int32_t>::max();
    if (!number || number->magnitude > largest + (number->negative ? 1 : 0)) return false;
    const auto magnitude = static_cast<std::int64_t>(number->magnitude);
    value = static_cast<std::int32_t>(number->negative ? -magnitude : magnitude);
    return true;
}

bool parse_u32(std::string_view text, std::uint32_t& value) {
    return parse_unsigned(text, value);
}

bool parse_u16(std::string_view text, std::uint16_t& value) {
    std::uint32_t wide = 0;
    if (!parse_u32(text, wide) || wide > std::numeric_limits<std::uint16_t>::max()) return false;
    value = static_cast<std::uint16_t>(wide);
    return true;
}

bool parse_size(std::string_view text, std::uint64_t& value) {
    return parse_unsigned(text, value);
}

bool parse_int_list(std::string_view text, std::vector<std::int32_t>& values, std::string& error) {
    std::vector<std::int32_t> parsed;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(',', begin), text.size());
        const std::string_view item = trim(text.substr(begin, end - begin));
        begin = end + 1;
        if (item.empty()) continue;
        if (!parse_int(item, parsed.emplace_back())) {
            error = std::string("Invalid integer list item: ").append(item);
            return false;
        }
    }
    values = std::move(parsed);
    return true;
}

bool read_required_string(const IniSections& sections, std::string_view section,
                          std::string_view key, std::string& value, std::string& error) {
    return lookup(sections, section, key, value) || missing(section, key, error);
}

bool read_required_u16(const IniSections& sections, std::string_view section, std::string_view key,
                       std::uint16_t& value, std::string& error) {
    return read_required(sections, section, key, u16_value, value, error);
}

bool read_required_u32(const IniSections& sections, std::string_view section, std::string_view key,
                       std::uint32_t& value, std::string& error) {
    return read_required(sections, section, key, u32_value, value, error);
}

bool read_optional_bool(const IniSections& sections, std::string_view section, std::string_view key,
                        bool& value, std::string& error) {
    return read_optional(sections, section, key, bool_value, value, error);
}

bool read_optional_int(const IniSections& sections, std::string_view section, std::string_view key,
                       std::int32_t& value, std::string& error) {
    return read_optional(sections, section, key, int_value, value, error);
}

bool read_optional_u32(const IniSections& sections, std::string_view section, std::string_view key,
                       std::uint32_t& value, std::string& error) {
    return read_optional(sections, section, key, u32_value, value, error);
}

bool read_optional_size(const IniSections& sections, std::string_view section, std::string_view key,
                        std::uint64_t& value, std::string& error) {
    return read_optional(sections, section, key, size_value, value, error);
}

bool read_optional_int_list(const IniSections& sections, std::string_view section,
                            std::string_view key, std::vector<std::int32_t>& values,
                            std::string& error) {
    const std::string* const text = find_value(sections, section, key);
    std::string item_fault;
    if (text == nullptr || parse_int_list(*text, values, item_fault)) return true;
    error = key_fault("Invalid integer list for", section, key) + ": " + item_fault;
    return false;
}

}  // namespace tavistro
