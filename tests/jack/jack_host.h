// A minimal host, which has the channels 0 and 17 open in both directions.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <string>

#include "drivers/base/reblocker.h"
#include "drivers/jack/jack_driver.h"
#include "support/eventually.h"
#include "support/realtime_guard.h"

namespace tavistro::test {

constexpr std::int32_t far_channel = 17;  // beyond the server's physical ports

// The host's callbacks, which have no context. Sends 1, 2, 3, ... to the far output and expects
// them later by loop_frames, in blocks whose positions and times follow each other.
struct Host {
    static inline AsioBufferInfo channels[4];
    static inline std::int32_t block, last_half;
    static inline float sent;  // exact for about five minutes
    static inline std::uint64_t last_position, last_nanoseconds;
    static inline std::atomic<int> loop_frames, frames_in_order, blocks, resets, overloads,
        new_latencies, unordered_halves;
    static inline std::atomic<bool> held_up, inside;

    static std::int32_t open_channels(AsioDriver& driver, std::int32_t frames) {
        int i = 0;
        for (const std::int32_t channel : {0, far_channel})
            for (const std::int32_t is_input : {1, 0})
                channels[i++] = {is_input, channel, {}};
        block = frames;
        last_half = 1;
        sent = 0;
        last_position = 0;
        for (auto* count : {&frames_in_order, &resets, &overloads, &new_latencies})
            *count = 0;
        inside = false;
        return driver.createBuffers(channels, 4, frames, &callbacks);
    }
    /// What the far output's connection with the far input takes: the connection a period, and the
    /// driver the delay of the blocks.
    static void expect_period(std::size_t frames) {
        loop_frames = static_cast<int>(
            frames + drivers::reblocking_delay(frames, static_cast<std::size_t>(block)));
    }
    static void buffer_switch(std::int32_t half, std::int32_t) {
        // Until the end of the thread, so that it also guards the driver's code.
        static thread_local const RealtimeScope scope;
        if (half == last_half) ++unordered_halves;
        last_half = half;
        const auto* in = static_cast<const float*>(channels[2].half[half]);
        auto* out = static_cast<float*>(channels[3].half[half]);
        const auto loop = static_cast<float>(loop_frames.load());
        for (std::int32_t i = 0; i < block; ++i) {
            out[i] = ++sent;
            frames_in_order = in[i] == sent - loop ? frames_in_order + 1 : 0;
        }
        const auto begin = std::chrono::steady_clock::now();
        while (held_up && std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(100))
            inside = true;
        held_up = false;
        ++blocks;
    }
    static AsioTimeRecord* buffer_switch_time_info(AsioTimeRecord* time, std::int32_t half,
                                                   std::int32_t now) {
        const auto count = [](const AsioCount64& value) {
            return std::uint64_t{value.hi} << 32 | value.lo;
        };
        const std::uint64_t position = count(time->samplePosition);
        const std::uint64_t nanoseconds = count(time->systemTime);
        if (position != last_position + static_cast<std::uint64_t>(block) ||
            nanoseconds <= last_nanoseconds)
            frames_in_order = 0;
        last_position = position;
        last_nanoseconds = nanoseconds;
        buffer_switch(half, now);
        return time;
    }
    static void rate_changed(double) {}
    static std::int32_t message(std::int32_t selector, std::int32_t value, void*, double*) {
        if (selector == kAsioResetRequest) ++resets;
        if (selector == kAsioOverload) ++overloads;
        if (selector == kAsioLatenciesChanged) ++new_latencies;
        return selector == kAsioSupportsTimeInfo ||
               (selector == kAsioSelectorSupported && value == kAsioOverload);
    }
    static inline AsioCallbacks callbacks{buffer_switch, rate_changed, message,
                                          buffer_switch_time_info};
};

inline std::string error_message(AsioDriver& driver) {
    std::array<char, 256> text{};
    driver.getErrorMessage(text.data());
    return text.data();
}

/// Every frame comes back when it is due, for `frames` of them.
inline bool loops(int frames) {
    Host::frames_in_order = 0;
    return eventually([=] { return Host::frames_in_order > frames; });
}

}  // namespace tavistro::test
