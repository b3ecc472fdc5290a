// Test inputs shared by tests/net.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "config/settings.h"
#include "net/protocol.h"

namespace tavistro::test {

using namespace TavistroProtocol;

inline constexpr std::uint32_t test_rate = 48000;

inline ClientSettings two_in_two_out() {
    ClientSettings settings;
    settings.client_id = 7;
    settings.discovery_broadcast = false;
    settings.driver_inputs = {2, 3};
    settings.driver_outputs = {0, 1};
    return settings;
}

/// `count` samples: first, first + 1, ...
inline std::vector<float> ramp(std::size_t count, float first = 1.0F) {
    std::vector<float> samples(count);
    std::iota(samples.begin(), samples.end(), first);
    return samples;
}

/// The datagram with `bytes` at `offset`.
inline Datagram patched(Datagram datagram, std::size_t offset,
                        std::initializer_list<std::uint8_t> bytes) {
    std::ranges::copy(bytes, datagram.begin() + static_cast<std::ptrdiff_t>(offset));
    return datagram;
}

/// The datagram truncated or padded to `size` (below 256), with a matching length field.
inline Datagram resized(Datagram datagram, std::size_t size) {
    datagram.resize(size);
    return patched(datagram, 8, {static_cast<std::uint8_t>(size)});
}

/// The datagrams of a block with the samples ramp(frames * channels).
inline DatagramList block_datagrams(std::uint32_t sequence, std::uint16_t frames,
                                    std::uint16_t channels, std::uint32_t payload_bytes = 1200) {
    const std::vector<float> samples = ramp(static_cast<std::size_t>(frames) * channels);
    DatagramList datagrams;
    EXPECT_TRUE(encode_audio_block({7, sequence, test_rate, frames, channels, samples},
                                   payload_bytes, datagrams));
    return datagrams;
}

}  // namespace tavistro::test
