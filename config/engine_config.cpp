#include "config/engine_config.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <new>
#include <span>
#include <string_view>
#include <utility>

#include "config/config_keys.h"
#include "config/ini.h"
#include "config/validation.h"
#include "platform/regular_file.h"

namespace tavistro {

namespace {

// From an audio datagram with one sample to the largest UDP payload over IPv4.
constexpr std::uint32_t smallest_udp_payload_bytes = 52;
constexpr const char* out_of_memory = "Out of memory.";  // short: std::string does not allocate
constexpr std::uint32_t largest_udp_payload_bytes = 65507;

bool read_keys(std::span<const ConfigKey> keys, const IniSections& sections, EngineConfig& config,
               std::string& error) {
    return std::ranges::all_of(
        keys, [&](const ConfigKey& key) { return read_key(key, sections, config, error); });
}

/// Reads every setting. The order decides which of several faults is reported: an invalid payload
/// size comes before any fault of the test keys.
bool read_settings(const IniSections& sections, EngineConfig& config, std::string& error) {
    const std::span<const ConfigKey> keys = config_keys();
    const auto test_keys = static_cast<std::size_t>(
        std::ranges::find(keys, std::string_view("test"), &ConfigKey::section) - keys.begin());
    if (!read_keys(keys.first(test_keys), sections, config, error)) return false;
    if (config.client.udp_payload_bytes < smallest_udp_payload_bytes ||
        config.client.udp_payload_bytes > largest_udp_payload_bytes) {
        error = "Invalid uint32 value for [transport] udp_payload_bytes";
        return false;
    }
    apply_latency_derivation(config);
    return read_keys(keys.subspan(test_keys), sections, config, error);
}

}  // namespace

EngineConfig::EngineConfig() {
    client.driver_inputs = {2, 3};
    client.driver_outputs = {0, 1};
    audio.input_channel_map = {0, 1};
    audio.output_channel_map = {0, 1};
    apply_latency_derivation(*this);
}

bool load_engine_config(const std::string& path, EngineConfig& config, std::string& error) {
    error.clear();
    try {
        if (platform::is_regular_file(path.c_str())) {
            std::ifstream file(path, std::ios::binary);
            EngineConfig loaded;
            const bool valid = read_engine_config(file, loaded, error);
            if (file.is_open() && !file.bad()) {
                if (valid) config = std::move(loaded);
                return valid;
            }
        }
        error = "Cannot open config file: " + path;
    } catch (const std::bad_alloc&) {
        error = out_of_memory;
    }
    return false;
}

bool read_engine_config(std::istream& input, EngineConfig& config, std::string& error) {
    error.clear();
    try {
        IniSections sections;
        if (!parse_ini(input, sections, error)) return false;
        EngineConfig loaded;
        if (!read_settings(sections, loaded, error)) return false;
        error = first_fault(loaded);
        if (!error.empty()) return false;
        config = std::move(loaded);
        return true;
    } catch (const std::bad_alloc&) {
        error = out_of_memory;
        return false;
    }
}

void apply_latency_derivation(EngineConfig& config) {
    const std::uint64_t latency_blocks = config.client.client_latency_blocks;
    config.audio.prebuffer_blocks = latency_blocks;
    config.audio.target_queue_depth = latency_blocks;
    config.client.input_latency_blocks = static_cast<std::uint32_t>(latency_blocks);
    config.client.output_latency_blocks = static_cast<std::uint32_t>(latency_blocks);
    config.audio.max_queue_blocks = std::max<std::uint64_t>(latency_blocks + 4, 6);
    config.client.capture_capacity_blocks =
        std::max<std::uint64_t>(config.client.capture_target_blocks + 4 + latency_blocks, 8);
}

}  // namespace tavistro
