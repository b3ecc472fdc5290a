#include "tools/host/check_command.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iomanip>
#include <numeric>
#include <ostream>
#include <string_view>
#include <utility>
#include <vector>

#include "config/config_keys.h"
#include "config/engine_config.h"
#include "config/ini.h"

namespace tavistro::host {

namespace {

/// A key with more differences than this is no likely misspelling.
constexpr std::size_t most_typing_errors = 3;

IniSections keys_in_file(const std::string& path) {
    IniSections sections;
    std::ifstream file(path, std::ios::binary);
    std::string ignored;  // the loader reports it
    parse_ini(file, sections, ignored);
    return sections;
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

void list_ignored_key(const std::string& section, const std::string& key, std::ostream& out) {
    out << "ignored: [" << section << "] " << key;
    const auto distance = [&](const ConfigKey& known) { return edit_distance(key, known.key); };
    const auto nearest = std::ranges::min_element(config_keys(), {}, distance);
    if (distance(*nearest) <= most_typing_errors) {
        out << " (did you mean [" << nearest->section << "] " << nearest->key << "?)";
    }
    out << '\n';
}

bool is_known(std::string_view section, std::string_view key) {
    return std::ranges::any_of(config_keys(), [&](const ConfigKey& known) {
        return known.section == section && known.key == key;
    });
}

void list_ignored_keys(const IniSections& sections, std::ostream& out) {
    for (const auto& [section, keys] : sections) {
        for (const auto& [key, value] : keys) {
            if (!is_known(section, key)) list_ignored_key(section, key, out);
        }
    }
}

void list_setting(std::string_view name, std::string_view value, std::string_view origin,
                  std::string_view allowed, std::ostream& out) {
    out << std::left << "  " << std::setw(36) << name << std::setw(20) << value;
    if (allowed.empty()) {
        out << origin << '\n';
    } else {
        out << std::setw(9) << origin << allowed << '\n';
    }
}

void list_keys(const EngineConfig& config, const IniSections& sections, std::ostream& out) {
    std::string_view section;
    for (const ConfigKey& key : config_keys()) {
        if (key.section != std::exchange(section, key.section)) out << '[' << section << "]\n";
        std::string written;
        const bool in_file = lookup(sections, key.section, key.key, written);
        list_setting(key.key, value_text(key, config), in_file ? "file" : "default", key.allowed,
                     out);
    }
}

void list_derived(const EngineConfig& config, std::ostream& out) {
    const struct {
        std::string_view name;
        std::uint64_t value;
        std::string_view origin;
    } sizes[] = {
        {"prebuffer_blocks", config.audio.prebuffer_blocks, "derived"},
        {"target_queue_depth", config.audio.target_queue_depth, "derived"},
        {"max_queue_blocks", config.audio.max_queue_blocks, "derived"},
        {"input_latency_blocks", config.client.input_latency_blocks, "derived"},
        {"output_latency_blocks", config.client.output_latency_blocks, "derived"},
        {"capture_capacity_blocks", config.client.capture_capacity_blocks, "derived"},
        {"capture_target_blocks", config.client.capture_target_blocks, "fixed"},
    };
    out << "follows from client_latency_blocks, in blocks\n";
    for (const auto& size : sizes) {
        list_setting(size.name, std::to_string(size.value), size.origin, "", out);
    }
}

}  // namespace

int check_config(const std::string& path, std::ostream& out, std::ostream& errors) {
    const IniSections sections = keys_in_file(path);
    EngineConfig config;
    std::string error;
    const bool valid = load_engine_config(path, config, error);
    if (valid) {
        list_keys(config, sections, out);
        list_derived(config, out);
    }
    list_ignored_keys(sections, out);
    if (!valid) errors << error << '\n';
    return valid ? 0 : 1;
}

}  // namespace tavistro::host
