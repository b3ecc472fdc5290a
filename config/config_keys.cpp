#include "config/config_keys.h"

namespace tavistro {

namespace {

using Client = TavistroProtocol::ClientSettings;
using Audio = AudioDeviceSettings;
using enum ValueKind;

constexpr bool required = true;
constexpr bool optional = false;

constexpr ConfigKey keys[] = {
    {"network", "server_ip", text, required, "auto or a dotted IPv4 address", &Client::server_ip},
    {"network", "server_port", u16, required, "1..65535", &Client::server_port},
    {"network", "client_id", u32, required, "1..4294967295", &Client::client_id},
    {"network", "discovery_timeout_ms", u32, optional, "1..10000", &Client::discovery_timeout_ms},
    {"network", "discovery_broadcast", flag_number, optional, "0 or 1",
     &Client::discovery_broadcast},
    {"protocol", "announce_period_ms", u32, optional, "1..3999", &Client::announce_period_ms},
    {"latency", "client_latency_blocks", size, optional, "1..128", &Client::client_latency_blocks},
    {"tavistro", "driver_inputs", int_list, optional, "distinct channels 0..31",
     &Client::driver_inputs},
    {"tavistro", "driver_outputs", int_list, optional, "distinct channels 0..31",
     &Client::driver_outputs},
    {"asio", "driver_name", text, required, "not empty unless loopback", &Audio::driver_name},
    {"asio", "input_map", int_list, optional, "distinct channels", &Audio::input_channel_map},
    {"asio", "output_map", int_list, optional, "distinct channels", &Audio::output_channel_map},
    {"socket", "recv_buffer_bytes", u32, optional, "", &Client::recv_buffer_bytes},
    {"socket", "send_buffer_bytes", u32, optional, "", &Client::send_buffer_bytes},
    {"transport", "udp_payload_bytes", u32, optional, "52..65507", &Client::udp_payload_bytes},
    {"test", "loopback_device", boolean, optional, "", &EngineConfig::loopback_device},
    {"test", "loopback_drift_ppm", integer, optional, "-100000..100000",
     &Audio::loopback_drift_ppm},
    {"test", "loopback_callback_jitter_max_ms", u32, optional, "0..1000",
     &Audio::loopback_callback_jitter_max_ms},
    {"test", "loopback_callback_skip_every", u32, optional, "",
     &Audio::loopback_callback_skip_every},
    {"test", "loopback_callback_skip_count", u32, optional, "0..128",
     &Audio::loopback_callback_skip_count},
    {"test", "loopback_callback_duplicate_every", u32, optional, "",
     &Audio::loopback_callback_duplicate_every},
    {"test", "loopback_callback_duplicate_count", u32, optional, "0..128",
     &Audio::loopback_callback_duplicate_count},
    {"test", "loopback_callback_stall_every_ms", u32, optional, "",
     &Audio::loopback_callback_stall_every_ms},
    {"test", "loopback_callback_stall_duration_ms", u32, optional, "0..1000, at most every",
     &Audio::loopback_callback_stall_duration_ms},
    {"test", "loopback_input_silence_every_ms", u32, optional, "",
     &Audio::loopback_input_silence_every_ms},
    {"test", "loopback_input_silence_duration_ms", u32, optional, "0..1000, at most every",
     &Audio::loopback_input_silence_duration_ms},
    {"test", "loopback_device_lost_after_ms", u32, optional, "",
     &Audio::loopback_device_lost_after_ms},
    {"test", "loopback_device_lost_duration_ms", u32, optional, "0..10000",
     &Audio::loopback_device_lost_duration_ms},
};

// Where a field lies inside a constant or a changeable EngineConfig.
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

/// One key of one file, read into a field of whatever type.
struct FieldReader {
    const ConfigKey& key;
    const IniSections& sections;
    std::string& error;

    bool operator()(std::string& value) const {
        return read_required_string(sections, key.section, key.key, value, error);
    }
    bool operator()(std::uint16_t& value) const {
        return read_required_u16(sections, key.section, key.key, value, error);
    }
    bool operator()(std::uint32_t& value) const {
        const auto read = key.required ? read_required_u32 : read_optional_u32;
        return read(sections, key.section, key.key, value, error);
    }
    bool operator()(std::uint64_t& value) const {
        return read_optional_size(sections, key.section, key.key, value, error);
    }
    bool operator()(std::int32_t& value) const {
        return read_optional_int(sections, key.section, key.key, value, error);
    }
    bool operator()(std::vector<std::int32_t>& values) const {
        return read_optional_int_list(sections, key.section, key.key, values, error);
    }
    bool operator()(bool& value) const {
        if (key.kind == boolean) {
            return read_optional_bool(sections, key.section, key.key, value, error);
        }
        std::uint32_t number = value ? 1 : 0;
        if (!read_optional_u32(sections, key.section, key.key, number, error)) return false;
        value = number != 0;
        return true;
    }
};

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

}  // namespace

std::span<const ConfigKey> config_keys() {
    return keys;
}

bool read_key(const ConfigKey& key, const IniSections& sections, EngineConfig& config,
              std::string& error) {
    const FieldReader reader{key, sections, error};
    return std::visit([&](auto field) { return reader(field_in(config, field)); }, key.field);
}

std::string value_text(const ConfigKey& key, const EngineConfig& config) {
    return std::visit([&](auto field) { return text_of(field_in(config, field)); }, key.field);
}

}  // namespace tavistro
