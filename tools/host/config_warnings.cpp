#include "tools/host/config_warnings.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <numeric>
#include <optional>
#include <utility>

#include "config/config_keys.h"
#include "config/ini.h"

namespace tavistro::host {

namespace {

/// A name with more differences than this is no likely misspelling.
constexpr std::size_t most_typing_errors = 3;
/// So many keys of a section can be listed in one line.
constexpr std::size_t few_keys = 5;

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
/// Straight, and those that word processors make of them.
constexpr std::string_view quotes[] = {
    "\"", "'", "\xE2\x80\x9C", "\xE2\x80\x9D", "\xE2\x80\x9E", "\xE2\x80\x98", "\xE2\x80\x99"};

/// Text of two bytes a character, with its mark or shown by the zero half of a first ASCII letter.
bool is_utf16(std::string_view bytes) {
    if (bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xFE\xFF")) return true;
    return bytes.size() >= 2 && (bytes[0] == '\0') != (bytes[1] == '\0');
}

/// Insertions, deletions and replacements that turn one text into the other.
std::size_t edit_distance(std::string_view from, std::string_view to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

/// The known key whose `name` is nearest to `written`, null when none is near. Of equally near
/// ones the first.
const ConfigKey* nearest(std::string_view written, std::string_view ConfigKey::*name) {
    const auto distance = [&](const ConfigKey& known) {
        return edit_distance(written, known.*name);
    };
    const auto found = std::ranges::min_element(config_keys(), {}, distance);
    const std::size_t allowed = std::min(most_typing_errors, written.size() / 2);
    return distance(*found) <= allowed ? &*found : nullptr;
}

bool is_section(std::string_view name) {
    return std::ranges::find(config_keys(), name, &ConfigKey::section) != config_keys().end();
}

/// "[section] expects a, b, c" for a section of few keys, else nothing.
std::string keys_of(std::string_view section) {
    std::vector<std::string_view> keys;
    for (const ConfigKey& known : config_keys())
        if (known.section == section) keys.push_back(known.key);
    if (keys.empty() || keys.size() > few_keys) return {};
    return fmt::format("[{}] expects {}", section, fmt::join(keys, ", "));
}

class Checker {
  public:
    void check(std::string_view bytes) {
        if (is_utf16(bytes)) {
            warn("the file is saved as UTF-16: save it as UTF-8 without a byte-order mark");
            return;
        }
        if (bytes.starts_with(byte_order_mark)) {
            warn(
                "the file begins with a UTF-8 byte-order mark, which spoils its first line: "
                "save it without");
            bytes.remove_prefix(byte_order_mark.size());
        }
        while (!bytes.empty()) {
            ++line_number_;
            const std::size_t end = std::min(bytes.find('\n'), bytes.size() - 1);
            check_line(trim(bytes.substr(0, end + 1)));
            bytes.remove_prefix(end + 1);
        }
    }

    std::vector<std::string> take() { return std::move(warnings_); }

  private:
    void warn(const std::string& text) {
        warnings_.push_back(line_number_ == 0 ? text
                                              : fmt::format("line {}: {}", line_number_, text));
    }

    void check_line(std::string_view line) {
        if (line.empty() || line.front() == ';' || line.front() == '#') return;
        if (line.front() == '[') return enter_section(line);
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos || !section_) return;  // the loader's to report
        check_key(to_lower(trim(line.substr(0, equals))),
                  strip_inline_comment(line.substr(equals + 1)));
    }

    void enter_section(std::string_view line) {
        section_.reset();
        if (line.size() < 3 || line.back() != ']') return;  // the loader's to report
        section_ = to_lower(trim(line.substr(1, line.size() - 2)));
        if (is_section(*section_)) return;
        const ConfigKey* const near = nearest(*section_, &ConfigKey::section);
        warn(fmt::format("unknown section [{}]: {}", *section_,
                         near != nullptr ? fmt::format("did you mean [{}]?", near->section)
                                         : "its keys are ignored"));
    }

    void check_key(const std::string& key, std::string_view value) {
        const auto is_this = [&](const ConfigKey& known) {
            return known.section == *section_ && known.key == key;
        };
        if (std::ranges::none_of(config_keys(), is_this)) return explain_unknown(key);
        const auto [first, is_first] = first_lines_.try_emplace(key, line_number_);
        if (!is_first)
            warn(fmt::format("'{}' was given in line {} already: the last one counts", key,
                             first->second));
        const auto begins = [&](std::string_view quote) { return value.starts_with(quote); };
        if (std::ranges::any_of(quotes, begins))
            warn(fmt::format("the quotes in '{}' are taken for a part of the value: leave them out",
                             key));
    }

    void explain_unknown(const std::string& key) {
        const std::string place =
            section_->empty() ? "above every section" : fmt::format("in [{}]", *section_);
        const auto known = std::ranges::find(config_keys(), key, &ConfigKey::key);
        if (known != config_keys().end())
            return warn(fmt::format("'{}' has no effect {}: it belongs in [{}]", key, place,
                                    known->section));
        if (!section_->empty() && !is_section(*section_)) return;  // told with its header
        std::string text = fmt::format("unknown key '{}' {}", key, place);
        if (const ConfigKey* const near = nearest(key, &ConfigKey::key)) {
            text += fmt::format(": did you mean '{}'", near->key);
            if (near->section != *section_) text += fmt::format(" in [{}]", near->section);
            text += '?';
        } else if (const std::string expected = keys_of(*section_); !expected.empty()) {
            text += ": " + expected;
        }
        warn(text);
    }

    std::uint64_t line_number_ = 0;            ///< from 1; 0 while the file as a whole is looked at
    std::optional<std::string> section_ = "";  ///< nothing after a malformed header
    std::map<std::string, std::uint64_t> first_lines_;
    std::vector<std::string> warnings_;
};

}  // namespace

std::vector<std::string> config_warnings(std::string_view bytes) {
    Checker checker;
    checker.check(bytes);
    return checker.take();
}

}  // namespace tavistro::host
