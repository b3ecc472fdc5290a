// The INI reader and the typed accessors over what it read.
//
// parse_ini() fills a two-level map; the accessors pull single values out of it. The reader knows
// no key names. Bad input never throws: every failure is a false result and one line of text that
// names the line, or the section and key. The text is left alone on success.
//
// Bytes, not characters: whitespace is the classic C-locale set, letter case is that of A to Z,
// and a byte-order mark is an ordinary part of the first line.
#pragma once

#include <cstdint>
#include <istream>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tavistro {

/// Section name to key to value. Names and keys are trimmed and in lower case, values trimmed and
/// without their inline comment. Keys above the first header belong to the section "".
using IniSections = std::map<std::string, std::map<std::string, std::string>>;

/// The text without leading and trailing whitespace.
std::string_view trim(std::string_view text);
/// A copy with A to Z turned into a to z.
std::string to_lower(std::string_view text);
/// The text up to its first ";" or "#" outside double quotes, trimmed. Quotes stay, and one that
/// is never closed protects the rest of the line.
std::string_view strip_inline_comment(std::string_view text);

/// Reads the stream to its end and adds every key to `sections`; a key given twice keeps its last
/// value. On the first malformed line returns false with the line number in `error`, leaving in
/// the map what stood before that line. The stream must deliver raw bytes.
bool parse_ini(std::istream& input, IniSections& sections, std::string& error);

/// Copies the value and returns true; false, with `value` unchanged, when the section or the key
/// is absent. Letter case of section and key does not matter.
bool lookup(const IniSections& sections, std::string_view section, std::string_view key,
            std::string& value);

/// Number parsers: surrounding whitespace, a sign, then "0x" and hexadecimal digits, "0" and octal
/// digits, or decimal digits. False, with `value` unchanged, for anything else and for numbers out
/// of range. The unsigned ones accept a minus sign and negate within their type: "-1" is the
/// largest value. The same on every system, whatever its size of long.
bool parse_int(std::string_view text, std::int32_t& value);
bool parse_u32(std::string_view text, std::uint32_t& value);
bool parse_u16(std::string_view text, std::uint16_t& value);  ///< parse_u32, then at most 65535
bool parse_size(std::string_view text, std::uint64_t& value);
/// Items of parse_int() between commas; empty items are skipped, so an empty text is an empty
/// list. False at the first bad item, which `error` names; `values` is unchanged then.
bool parse_int_list(std::string_view text, std::vector<std::int32_t>& values, std::string& error);

/// Required accessors fail when the key is absent. Every accessor leaves `value` unchanged on
/// failure; `error` then names section and key as passed.
bool read_required_string(const IniSections& sections, std::string_view section,
                          std::string_view key, std::string& value, std::string& error);
bool read_required_u16(const IniSections& sections, std::string_view section, std::string_view key,
                       std::uint16_t& value, std::string& error);
bool read_required_u32(const IniSections& sections, std::string_view section, std::string_view key,
                       std::uint32_t& value, std::string& error);

/// Optional accessors return true and leave `value` unchanged when the key is absent.
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
