#include "config/validation.h"

#include <algorithm>
#include <cstdint>
#include <set>
#include <span>
#include <string_view>
#include <vector>

namespace tavistro {

namespace {

constexpr std::int32_t driver_channel_count = 32;

/// The kind of audio device to which a rule applies.
enum class Device { any, asio, loopback };

bool applies(Device device, const EngineConfig& config) {
    return device == Device::any || (device == Device::loopback) == config.loopback_device;
}

struct Rule {
    Device device;
    bool (*holds)(const EngineConfig& config);
    std::string_view message;
};

template <typename Value>
constexpr bool in_range(Value value, Value first, Value last) {
    return first <= value && value <= last;
}

bool no_fault_injected(const EngineConfig& config) {
    const AudioDeviceSettings& audio = config.audio;
    const std::uint32_t faults[] = {
        audio.loopback_callback_jitter_max_ms,     audio.loopback_callback_skip_every,
        audio.loopback_callback_skip_count,        audio.loopback_callback_duplicate_every,
        audio.loopback_callback_duplicate_count,   audio.loopback_callback_stall_every_ms,
        audio.loopback_callback_stall_duration_ms, audio.loopback_input_silence_every_ms,
        audio.loopback_input_silence_duration_ms,  audio.loopback_device_lost_after_ms,
        audio.loopback_device_lost_duration_ms,
    };
    return audio.loopback_drift_ppm == 0 &&
           std::ranges::all_of(faults, [](std::uint32_t value) { return value == 0; });
}

using Config = const EngineConfig&;
using enum Device;

constexpr Rule client_rules[] = {
    {any, [](Config c) { return c.client.client_id != 0; }, "client_id must be non-zero"},
    {any, [](Config c) { return !c.client.server_ip.empty(); }, "server_ip must be non-empty"},
    {any, [](Config c) { return c.client.server_port != 0; },
     "server_port must be greater than zero"},
    {any, [](Config c) { return in_range(c.client.discovery_timeout_ms, 1U, 10000U); },
     "discovery_timeout_ms must be in range 1..10000"},
    {any, [](Config c) { return c.client.announce_period_ms != 0; },
     "announce_period_ms must be greater than zero"},
    {any, [](Config c) { return c.client.client_latency_blocks != 0; },
     "client_latency_blocks must be greater than zero"},
    {any, [](Config c) { return c.client.client_latency_blocks <= 128; },
     "client_latency_blocks must be <= 128"},
    {any, [](Config c) { return c.client.announce_period_ms < 4000; },
     "announce_period_ms must be smaller than 4000"},
};

// "count" and "duration" values have no effect without their "every" or "after".
constexpr Rule device_rules[] = {
    {asio, [](Config c) { return !c.audio.driver_name.empty(); }, "driver_name must be non-empty"},
    {asio, no_fault_injected, "loopback fault injection requires [test] loopback_device=1"},
    {loopback, [](Config c) { return in_range(c.audio.loopback_drift_ppm, -100000, 100000); },
     "loopback_drift_ppm must be in range -100000..100000"},
    {loopback, [](Config c) { return c.audio.loopback_callback_jitter_max_ms <= 1000; },
     "loopback_callback_jitter_max_ms must be <= 1000"},
    {loopback,
     [](Config c) {
         return c.audio.loopback_callback_skip_count == 0 ||
                c.audio.loopback_callback_skip_every != 0;
     },
     "loopback_callback_skip_count requires loopback_callback_skip_every"},
    {loopback, [](Config c) { return c.audio.loopback_callback_skip_count <= 128; },
     "loopback_callback_skip_count must be <= 128"},
    {loopback,
     [](Config c) {
         return c.audio.loopback_callback_duplicate_count == 0 ||
                c.audio.loopback_callback_duplicate_every != 0;
     },
     "loopback_callback_duplicate_count requires loopback_callback_duplicate_every"},
    {loopback, [](Config c) { return c.audio.loopback_callback_duplicate_count <= 128; },
     "loopback_callback_duplicate_count must be <= 128"},
    {loopback,
     [](Config c) {
         return c.audio.loopback_callback_stall_duration_ms == 0 ||
                c.audio.loopback_callback_stall_every_ms != 0;
     },
     "loopback_callback_stall_duration_ms requires loopback_callback_stall_every_ms"},
    {loopback, [](Config c) { return c.audio.loopback_callback_stall_duration_ms <= 1000; },
     "loopback_callback_stall_duration_ms must be <= 1000"},
    {loopback,
     [](Config c) {
         return c.audio.loopback_callback_stall_every_ms == 0 ||
                c.audio.loopback_callback_stall_duration_ms <=
                    c.audio.loopback_callback_stall_every_ms;
     },
     "loopback_callback_stall_duration_ms must be <= loopback_callback_stall_every_ms"},
    {loopback,
     [](Config c) {
         return c.audio.loopback_input_silence_duration_ms == 0 ||
                c.audio.loopback_input_silence_every_ms != 0;
     },
     "loopback_input_silence_duration_ms requires loopback_input_silence_every_ms"},
    {loopback, [](Config c) { return c.audio.loopback_input_silence_duration_ms <= 1000; },
     "loopback_input_silence_duration_ms must be <= 1000"},
    {loopback,
     [](Config c) {
         return c.audio.loopback_input_silence_every_ms == 0 ||
                c.audio.loopback_input_silence_duration_ms <=
                    c.audio.loopback_input_silence_every_ms;
     },
     "loopback_input_silence_duration_ms must be <= loopback_input_silence_every_ms"},
    {loopback,
     [](Config c) {
         return c.audio.loopback_device_lost_duration_ms == 0 ||
                c.audio.loopback_device_lost_after_ms != 0;
     },
     "loopback_device_lost_duration_ms requires loopback_device_lost_after_ms"},
    {any, [](Config c) { return c.audio.loopback_device_lost_duration_ms <= 10000; },
     "loopback_device_lost_duration_ms must be <= 10000"},
};

std::string first_broken(std::span<const Rule> rules, const EngineConfig& config) {
    const auto broken = std::ranges::find_if(rules, [&](const Rule& rule) {
        return applies(rule.device, config) && !rule.holds(config);
    });
    return broken == rules.end() ? std::string() : std::string(broken->message);
}

using Channels = std::vector<std::int32_t>;

std::string channel_map_fault(std::string_view name, const Channels& channels) {
    std::set<std::int32_t> seen;
    for (const std::int32_t channel : channels) {
        const bool negative = channel < 0;
        if (!negative && seen.insert(channel).second) continue;
        return std::string(name) +
               (negative ? " contains negative channel index: "
                         : " contains duplicate channel index: ") +
               std::to_string(channel);
    }
    return {};
}

std::string driver_channels_fault(std::string_view name, const Channels& channels) {
    if (std::string fault = channel_map_fault(name, channels); !fault.empty()) return fault;
    const auto beyond = std::ranges::find_if(
        channels, [](std::int32_t channel) { return channel >= driver_channel_count; });
    if (beyond == channels.end()) return {};
    return std::string(name) +
           " contains out-of-range driver channel index: " + std::to_string(*beyond) +
           " (expected 0..31)";
}

struct ListRule {
    Device device;
    std::string (*fault)(std::string_view name, const Channels& channels);
    std::string_view name;
    const Channels& (*channels)(const EngineConfig& config);
};

constexpr ListRule list_rules[] = {
    {any, driver_channels_fault, "driver_inputs",
     [](Config c) -> const Channels& { return c.client.driver_inputs; }},
    {any, driver_channels_fault, "driver_outputs",
     [](Config c) -> const Channels& { return c.client.driver_outputs; }},
    {asio, channel_map_fault, "input_map",
     [](Config c) -> const Channels& { return c.audio.input_channel_map; }},
    {asio, channel_map_fault, "output_map",
     [](Config c) -> const Channels& { return c.audio.output_channel_map; }},
};

std::string first_list_fault(const EngineConfig& config) {
    for (const ListRule& rule : list_rules) {
        if (!applies(rule.device, config)) continue;
        std::string fault = rule.fault(rule.name, rule.channels(config));
        if (!fault.empty()) return fault;
    }
    return {};
}

}  // namespace

std::string first_fault(const EngineConfig& config) {
    std::string fault = first_broken(client_rules, config);
    if (fault.empty()) fault = first_list_fault(config);
    if (fault.empty()) fault = first_broken(device_rules, config);
    return fault;
}

}  // namespace tavistro
