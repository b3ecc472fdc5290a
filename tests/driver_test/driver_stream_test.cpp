// Server to driver to server: what comes back is what was sent, channel by channel.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "driver_test/driver_rig.h"

namespace tavistro::test {
namespace {

std::string list(const std::vector<int>& numbers) {
    std::string text;
    for (const int number : numbers)
        text += std::to_string(number) + ",";
    text.pop_back();
    return text;
}

TEST(DriverStream, ATuneComesBackWhateverTheMannersOfTheDriver) {
    DriverRemote driver;
    for (const char* manner :
         {"callback_in_create", "callback_in_start", "callback_in_stop", "noise", "foreign_thread"})
        driver.set(manner, "1");
    for (const char* service : {"time_info", "output_ready"})
        driver.set(service, "0");
    driver.set("ppm", "200");
    // Periods long enough for a driver that makes a thread for each, and buffers that outlast the
    // pauses of a machine under load; what remains of those is a pitch that wavers.
    Rig rig({.format = {48000, 512},
             .melodies = {{.channel = 0}, {.channel = 1, .level = 0.5F}},
             .measures = {{0, 2}, {1, 3}}},
            on_test_driver("[latency]\nclient_latency_blocks = 16\n"));
    EXPECT_TRUE(eventually([&] {
        return std::ranges::all_of(rig.server.snapshot().measures, [](const auto& measure) {
            return measure.report.correlation_max > 0.85;
        });
    })) << "state "
        << rig.engine.state().state;
    for (const char* command : {"bad_index", "repeat_rate", "overload"})
        driver.fire(command);
    EXPECT_TRUE(input_flows(rig.server));
    EXPECT_TRUE(rig.engine.runs());
    EXPECT_EQ(rig.engine.state().event_count, 0U) << "nothing that asks for a restart";
    rig.engine.stop();
    EXPECT_TRUE(rig.engine.in_state(TAVISTRO_STATE_STOPPED));
    EXPECT_EQ(driver.count("objects"), 0);
}

/// Bits of the integer in a sample type, 0 for floating point.
int bits_of(int type) {
    constexpr int bits[16]{16, 24, 32, 0, 0, 0, 0, 0, 16, 18, 20, 24};
    return bits[type % 16];
}

// Each sample type has an input with a level of its own, which the server sends to the output of
// the same type; that comes back, converted by the driver's own arithmetic, as 32-bit float.
TEST(DriverStream, LevelsComeBackWithinOneStepOfTheSampleType) {
    const std::vector types{0, 1, 2, 3, 4, 8, 9, 10, 11, 16, 18, 20, 24, 25, 26, 27};
    std::vector<int> input_types = types;
    input_types.resize(2 * types.size(), 19);
    const std::string inputs = channel_list(0, input_types.size());
    const std::string outputs = channel_list(0, types.size());
    DriverRemote driver;
    driver.set("inputs", std::to_string(input_types.size()));
    driver.set("outputs", std::to_string(types.size()));
    driver.set("input_types", list(input_types));
    driver.set("output_types", list(types));
    driver.set("input_level", "-0.9");
    driver.set("loop_offset", std::to_string(types.size()));
    // A block in one datagram: under Wine each costs far more than its samples do.
    Rig rig({.format = {48000, 256}, .udp_payload_bytes = 65507},
            on_test_driver("input_map = " + inputs + "\noutput_map = " + outputs +
                           "\n[tavistro]\ndriver_inputs = " + inputs + "\ndriver_outputs = " +
                           outputs + "\n[transport]\nudp_payload_bytes = 65507\n"));
    rig.server.enable_history(8);
    for (std::size_t i = 0; i < types.size(); ++i) {
        SCOPED_TRACE(types[i]);
        const int bits = bits_of(types[i]);
        const double step = bits == 0 ? 0 : 1.0 / (std::ldexp(1.0, bits - 1) - 1);
        const double level = static_cast<float>(-0.9 / static_cast<double>(i + 1));
        const auto holds = [&](std::size_t channel, double tolerance) {
            const auto near = [&](float sample) { return std::abs(sample - level) <= tolerance; };
            const auto blocks = rig.server.bus_history(channel);
            return blocks.size() == 8 && std::ranges::all_of(blocks, [&](const auto& block) {
                       return std::ranges::all_of(block.samples, near);
                   });
        };
        // The driver rounds to the nearest step; the level is a float and has steps as well.
        const double rounding = bits == 0 ? 0 : step / 2 + 1e-7;
        EXPECT_TRUE(eventually([&] { return holds(i, rounding); }));
        EXPECT_TRUE(eventually([&] { return holds(i + types.size(), rounding + step); }));
    }
}

}  // namespace
}  // namespace tavistro::test
