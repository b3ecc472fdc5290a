#include "config/config_keys.h"

#include <concepts>
#include <cstdint>
#include <vector>

namespace tavistro {

namespace {

using Client = TavistroProtocol::ClientSettings;
using Audio = AudioDeviceSettings;

// A field of a const or mutable EngineConfig.
template <typename Value>
auto& field_in(auto& config, Value Client::*field) {
    return config.client.*field;
}
template <typename Value>
auto& field_in(auto& config, Value Audio::*field) {
    return config.audio.*field;
}
template <typename Value>
auto& field_in(auto& config, Value EngineConfig::*field) {
    return config.*field;
}

std::string text_of(const std::string& value) {
    return value;
}
std::string text_of(std::integral auto value) {
    return std::to_string(value);
}
std::string text_of(const std::vector<std::int32_t>& values) {
    std::string result;
    for (const std::int32_t value : values) {
        if (!result.empty()) result += ", ";
        result += std::to_string(value);
    }
    return result;
}

/// Reads a flag that is written as a number: 0 is false, any other number true.
bool read_optional_number_flag(const IniSections& sections, std::string_view section,
                               std::string_view key, bool& value, std::string& error) {
    std::uint32_t number = value ? 1 : 0;
    if (!read_optional_u32(sections, section, key, number, error)) return false;
    value = number != 0;
    return true;
}

/// A key whose value `accessor` reads into `field`. The accessor defines the valid values and
/// whether the key is required; its type must be that of the field.
template <auto accessor, auto field>
constexpr ConfigKey entry(std::string_view section, std::string_view key,
                          std::string_view allowed = "") {
    return {section, key, allowed,
            [](const ConfigKey& entry, const IniSections& sections, EngineConfig& config,
               std::string& error) {
                return accessor(sections, entry.section, entry.key, field_in(config, field), error);
            },
            [](const EngineConfig& config) { return text_of(field_in(config, field)); }};
}

constexpr ConfigKey keys[] = {
    entry<read_required_string, &Client::server_ip>("network", "server_ip",
                                                    "auto or a dotted IPv4 address"),
    entry<read_required_u16, &Client::server_port>("network", "server_port", "1..65535"),
    entry<read_required_u32, &Client::client_id>("network", "client_id", "1..4294967295"),
    entry<read_optional_u32, &Client::discovery_timeout_ms>("network", "discovery_timeout_ms",
                                                            "1..10000"),
    entry<read_optional_number_flag, &Client::discovery_broadcast>("network", "discovery_broadcast",
                                                                   "0 or 1"),
    entry<read_optional_u32, &Client::announce_period_ms>("protocol", "announce_period_ms",
                                                          "1..3999"),
    entry<read_optional_size, &Client::client_latency_blocks>("latency", "client_latency_blocks",
                                                              "1..128"),
    entry<read_optional_int_list, &Client::driver_inputs>("tavistro", "driver_inputs",
                                                          "distinct channels 0..31"),
    entry<read_optional_int_list, &Client::driver_outputs>("tavistro", "driver_outputs",
                                                           "distinct channels 0..31"),
    entry<read_required_string, &Audio::driver_name>("asio", "driver_name",
                                                     "not empty unless loopback"),
    entry<read_optional_int_list, &Audio::input_channel_map>("asio", "input_map",
                                                             "distinct channels"),
    entry<read_optional_int_list, &Audio::output_channel_map>("asio", "output_map",
                                                              "distinct channels"),
    entry<read_optional_u32, &Client::recv_buffer_bytes>("socket", "recv_buffer_bytes"),
    entry<read_optional_u32, &Client::send_buffer_bytes>("socket", "send_buffer_bytes"),
    entry<read_optional_u32, &Client::udp_payload_bytes>("transport", "udp_payload_bytes",
                                                         "52..65507"),
    entry<read_optional_bool, &EngineConfig::loopback_device>("test", "loopback_device"),
    entry<read_optional_int, &Audio::loopback_drift_ppm>("test", "loopback_drift_ppm",
                                                         "-100000..100000"),
    entry<read_optional_u32, &Audio::loopback_callback_jitter_max_ms>(
        "test", "loopback_callback_jitter_max_ms", "0..1000"),
    entry<read_optional_u32, &Audio::loopback_callback_skip_every>("test",
                                                                   "loopback_callback_skip_every"),
    entry<read_optional_u32, &Audio::loopback_callback_skip_count>(
        "test", "loopback_callback_skip_count", "0..128"),
    entry<read_optional_u32, &Audio::loopback_callback_duplicate_every>(
        "test", "loopback_callback_duplicate_every"),
    entry<read_optional_u32, &Audio::loopback_callback_duplicate_count>(
        "test", "loopback_callback_duplicate_count", "0..128"),
    entry<read_optional_u32, &Audio::loopback_callback_stall_every_ms>(
        "test", "loopback_callback_stall_every_ms"),
    entry<read_optional_u32, &Audio::loopback_callback_stall_duration_ms>(
        "test", "loopback_callback_stall_duration_ms", "0..1000, at most every"),
    entry<read_optional_u32, &Audio::loopback_input_silence_every_ms>(
        "test", "loopback_input_silence_every_ms"),
    entry<read_optional_u32, &Audio::loopback_input_silence_duration_ms>(
        "test", "loopback_input_silence_duration_ms", "0..1000, at most every"),
    entry<read_optional_u32, &Audio::loopback_device_lost_after_ms>(
        "test", "loopback_device_lost_after_ms"),
    entry<read_optional_u32, &Audio::loopback_device_lost_duration_ms>(
        "test", "loopback_device_lost_duration_ms", "0..10000"),
};

}  // namespace

std::span<const ConfigKey> config_keys() {
    return keys;
}

}  // namespace tavistro
