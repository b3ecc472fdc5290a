#include <fmt/format.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <ostream>
#include <sstream>
#include <string_view>
#include <utility>

#include "config/config_keys.h"
#include "config/engine_config.h"
#include "config/ini.h"
#include "platform/regular_file.h"
#include "tools/host/commands.h"
#include "tools/host/config_warnings.h"

namespace tavistro::host {

namespace {

/// The file's bytes; nothing of what the loader would not open either.
std::string bytes_of(const std::string& path) {
    if (!platform::is_regular_file(path.c_str())) return {};
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Keys and values as far as they can be read.
IniSections sections_of(const std::string& bytes) {
    IniSections sections;
    std::istringstream text(bytes);
    std::string ignored;  // the loader reports it
    parse_ini(text, sections, ignored);
    return sections;
}

/// A longer text keeps its distance from what follows.
std::string setting_line(std::string_view name, std::string_view value, std::string_view origin,
                         std::string_view allowed) {
    const std::string start = fmt::format("  {:<35}  {:<18}  ", name, value);
    return start + (allowed.empty() ? fmt::format("{}\n", origin)
                                    : fmt::format("{:<7}  {}\n", origin, allowed));
}

void list_keys(const EngineConfig& config, const IniSections& sections, std::ostream& out) {
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
    for (const auto& [name, blocks, origin] : sizes)
        out << setting_line(name, fmt::to_string(blocks), origin, "");
}

}  // namespace

int check_config(const std::string& path, std::ostream& out, std::ostream& errors) {
    const std::string bytes = bytes_of(path);
    EngineConfig config;
    std::string error;
    const bool valid = load_engine_config(path, config, error);
    if (valid) {
        list_keys(config, sections_of(bytes), out);
        list_derived(config, out);
    } else {
        errors << error << '\n';
    }
    for (const std::string& warning : config_warnings(bytes))
        errors << "warning: " << warning << '\n';
    return valid ? 0 : 1;
}

}  // namespace tavistro::host
