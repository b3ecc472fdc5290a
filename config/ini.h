// INI parser and typed accessors.
//
// parse_ini() fills a two-level map; the accessors read single values from it. The parser does not
// know the key names. Bad input never throws: every failure returns false and sets one line of text
// with the line number, or with section and key. Success leaves the text unchanged.
//
// Works on bytes: whitespace is that of the C locale, letter case applies to A to Z only, and a
// byte-order mark is part of the first line.
#pragma once

#include <cstdint>
#include <istream>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tavistro {

/// Maps section name and key to a value. Names and keys are trimmed and lower case, values trimmed
/// and without inline comment. Keys before the first section header are in section "".
using IniSections = std::map<std::string, std::map<std::string, std::string>>;

/// Removes leading and trailing whitespace.
std::string_view trim(std::string_view text);
/// Converts A to Z to lower case.
std::string to_lower(std::string_view text);
/// Returns the text up to the first ";" or "#" outside double quotes, trimmed. Keeps the quotes; an
/// unclosed quote extends to the end of the line.
std::string_view strip_inline_comment(std::string_view text);

/// Reads the stream to its end and adds every key to `sections`; the last value of a repeated key
/// counts. At the first malformed line returns false with the line number in `error`; the map keeps
/// the keys before that line. The stream must deliver raw bytes.
bool parse_ini(std::istream& input, IniSections& sections, std::string& error);

/// Copies the value and returns true; returns false and leaves `value` unchanged if section or key
/// are absent. Section and key are case-insensitive.
bool lookup(const IniSections& sections, std::string_view section, std::string_view key,
            std::string& value);

/// Number parsers. They accept surrounding whitespace, a sign, and "0x" with hexadecimal digits,
/// "0" with octal digits, or decimal digits. For anything else and for numbers out of range they
/// return false and leave `value` unchanged. Unsigned parsers accept a minus sign and negate within
/// their type: "-1" is the largest value. Independent of the system's size of long.
bool parse_int(std::string_view text, std::int32_t& value);
bool parse_u32(std::string_view text, std::uint32_t& value);
bool parse_u16(std::string_view text, std::uint16_t& value);  ///< parse_u32, then at most 65535
bool parse_size(std::string_view text, std::uint64_t& value);
/// Parses comma-separated items with parse_int() and skips empty ones: an empty text is an empty
/// list. At the first invalid item returns false, names it in `error` and leaves `values`
/// unchanged.
bool parse_int_list(std::string_view text, std::vector<std::int32_t>& values, std::string& error);

/// Required accessors fail if the key is absent. On failure every accessor leaves `value` unchanged
/// and names section and key, as passed, in `error`.
bool read_required_string(const IniSections& sections, std::string_view section,
                          std::string_view key, std::string& value, std::string& error);
bool read_required_u16(const IniSections& sections, std::string_view section, std::string_view key,
                       std::uint16_t& value, std::string& error);
bool read_required_u32(const IniSections& sections, std::string_view section, std::string_view key,
                       std::uint32_t& value, std::string& error);

/// Optional accessors return true and leave `value` unchanged if the key is absent.
/// Flags are "1", "true", "yes", "on" or "0", "false", "no", "off" in any letter case.
bool read_optional_bool(const IniSections& sections, std::string_view section, std::string_view key,
                        bool& value, std::string& error);
bool read_optional_int(const IniSections& sections, std::string_view section, std::string_view key,
                       std::int32_t& value, std::string& error);
bool read_optional_u32(const IniSections& sections, std::string_view section, std::string_view key,
                       std::uint32_t& value, std::string& error);
bool read_optional_size(const IniSections& sections, std::string_view section, std::string_view key,
                        std::uint64_t& value, std::string& error);
bool read_optional_int_list(const IniSections& sections, std::string_view section,
                            std::string_view key, std::vector<std::int32_t>& values,
                            std::string& error);

}  // namespace tavistro
