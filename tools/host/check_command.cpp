#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "config/config_keys.h"
#include "config/engine_config.h"
#include "config/ini.h"
#include "platform/regular_file.h"
#include "tools/host/commands.h"
#include "tools/nearest_word.h"

namespace tavistro::host {

namespace {

/// The file's bytes; nothing of what the loader would not open either.
std::string bytes_of(const std::string& path) {
    if (!platform::is_regular_file(path.c_str())) return {};
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A longer text keeps its distance from what follows.
std::string setting_line(std::string_view name, std::string_view value, std::string_view origin,
                         std::string_view allowed) {
    const std::string start = fmt::format("  {:<35}  {:<18}  ", name, value);
    return start + (allowed.empty() ? fmt::format("{}\n", origin)
                                    : fmt::format("{:<7}  {}\n", origin, allowed));
}

/// `bytes` are those that the configuration was loaded from.
void list_keys(const EngineConfig& config, const std::string& bytes, std::ostream& out) {
    IniSections sections;
    std::istringstream text(bytes);
    std::string no_error;
    parse_ini(text, sections, no_error);
    std::string_view section;
    for (const ConfigKey& key : config_keys()) {
        if (key.section != std::exchange(section, key.section)) out << '[' << section << "]\n";
        std::string written;
        const bool in_file = lookup(sections, key.section, key.key, written);
        out << setting_line(key.key, value_text(key, config), in_file ? "file" : "default",
                            key.allowed);
    }
}

void list_derived(const EngineConfig& config, std::ostream& out) {
    const struct {
        std::string_view name;
        std::uint64_t blocks;
        std::string_view origin = "derived";
    } sizes[] = {
        {"prebuffer_blocks", config.audio.prebuffer_blocks},
        {"target_queue_depth", config.audio.target_queue_depth},
        {"max_queue_blocks", config.audio.max_queue_blocks},
        {"input_latency_blocks", config.client.input_latency_blocks},
        {"output_latency_blocks", config.client.output_latency_blocks},
        {"capture_capacity_blocks", config.client.capture_capacity_blocks},
        {"capture_target_blocks", config.client.capture_target_blocks, "fixed"},
    };
    out << "follows from client_latency_blocks, in blocks\n";
    for (const auto& [name, blocks, origin] : sizes)
        out << setting_line(name, fmt::to_string(blocks), origin, "");
}

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

/// The known key whose `name` is nearest to `written`, null when none is near.
const ConfigKey* nearest(std::string_view written, std::string_view ConfigKey::*name) {
    std::vector<std::string_view> names;
    for (const ConfigKey& known : config_keys())
        names.push_back(known.*name);
    const std::string best = nearest_word(written, names);
    const auto found = std::ranges::find(config_keys(), best, name);
    return found == config_keys().end() ? nullptr : &*found;
}

bool is_section(std::string_view name) {
    return std::ranges::find(config_keys(), name, &ConfigKey::section) != config_keys().end();
}

/// ": [section] expects a, b, c" for a section of few keys, else nothing.
std::string expected_keys(std::string_view section) {
    std::vector<std::string_view> keys;
    for (const ConfigKey& known : config_keys())
        if (known.section == section) keys.push_back(known.key);
    if (keys.empty() || keys.size() > few_keys) return {};
    return fmt::format(": [{}] expects {}", section, fmt::join(keys, ", "));
}

/// Tells what the loader does not say about a file: it ignores names that it does not know and
/// takes quotes and byte-order marks for text. Writes one line for each thing that probably is not
/// what the author meant, in the order of the file, with the line number where there is one.
class ConfigWarnings {
  public:
    explicit ConfigWarnings(std::ostream& errors) : errors_(errors) {}

    /// `bytes` is the file as it lies on the disk; of a file in UTF-16 only that is said.
    void check(std::string bytes) {
        if (is_utf16(bytes))
            return warn("the file is saved as UTF-16: save it as UTF-8 without a byte-order mark");
        if (bytes.starts_with(byte_order_mark)) {
            warn(
                "the file begins with a UTF-8 byte-order mark, which spoils its first line: "
                "save it without");
            bytes.erase(0, byte_order_mark.size());
        }
        std::istringstream text(bytes);
        for (std::string line; std::getline(text, line);) {
            ++line_number_;
            check_line(trim(line));
        }
    }

  private:
    template <typename... Values>
    void warn(fmt::format_string<Values...> format, Values&&... values) {
        errors_ << "warning: ";
        if (line_number_ > 0) errors_ << "line " << line_number_ << ": ";
        errors_ << fmt::format(format, std::forward<Values>(values)...) << '\n';
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
        const ConfigKey* const best = nearest(*section_, &ConfigKey::section);
        if (best == nullptr) return warn("unknown section [{}]: its keys are ignored", *section_);
        warn("unknown section [{}]: did you mean [{}]?", *section_, best->section);
    }

    void check_key(const std::string& key, std::string_view value) {
        const auto is_this = [&](const ConfigKey& known) {
            return known.section == *section_ && known.key == key;
        };
        if (std::ranges::none_of(config_keys(), is_this)) return explain_unknown(key);
        const auto [first, is_first] = first_lines_.try_emplace(key, line_number_);
        if (!is_first)
            warn("'{}' was given in line {} already: the last one counts", key, first->second);
        const auto begins = [&](std::string_view quote) { return value.starts_with(quote); };
        if (std::ranges::any_of(quotes, begins))
            warn("the quotes in '{}' are taken for a part of the value: leave them out", key);
    }

    void explain_unknown(const std::string& key) {
        const std::string place =
            section_->empty() ? "above every section" : fmt::format("in [{}]", *section_);
        const auto known = std::ranges::find(config_keys(), key, &ConfigKey::key);
        if (known != config_keys().end())
            return warn("'{}' has no effect {}: it belongs in [{}]", key, place, known->section);
        if (!section_->empty() && !is_section(*section_)) return;  // told with its header
        std::string hint = expected_keys(*section_);
        if (const ConfigKey* const best = nearest(key, &ConfigKey::key)) {
            const bool elsewhere = best->section != *section_;
            hint = fmt::format(": did you mean '{}'{}?", best->key,
                               elsewhere ? fmt::format(" in [{}]", best->section) : "");
        }
        warn("unknown key '{}' {}{}", key, place, hint);
    }

    std::ostream& errors_;
    std::uint64_t line_number_ = 0;            ///< from 1; 0 while the file as a whole is looked at
    std::optional<std::string> section_ = "";  ///< nothing after a malformed header
    std::map<std::string, std::uint64_t> first_lines_;
};

}  // namespace

int check_config(const std::string& path, std::ostream& out, std::ostream& errors) {
    const std::string bytes = bytes_of(path);
    EngineConfig config;
    std::string error;
    const bool valid = load_engine_config(path, config, error);
    if (valid) {
        list_keys(config, bytes, out);
        list_derived(config, out);
    } else {
        errors << error << '\n';
    }
    ConfigWarnings(errors).check(bytes);
    return valid ? 0 : 1;
}

}  // namespace tavistro::host
