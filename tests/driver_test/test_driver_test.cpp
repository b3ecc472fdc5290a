// The test driver as any host sees it, through the binary interface alone.

#include "tools/test_driver/test_driver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "tools/test_driver/driver_control.h"

namespace tavistro::test {
namespace {

constexpr std::int32_t frames = 64;

// The host's end of the callbacks, which carry no context: numbers its output and reads its input.
struct Host {
    static inline AsioBufferInfo channels[2];
    static inline std::int32_t sent;
    static inline std::vector<std::int32_t> received;
    static inline std::atomic<bool> done;

    static void buffer_switch(std::int32_t half, std::int32_t) {
        if (done) return;
        const auto* input = static_cast<std::int32_t*>(channels[0].half[half]);
        auto* output = static_cast<std::int32_t*>(channels[1].half[half]);
        for (std::int32_t i = 0; i < frames; ++i) {
            received.push_back(input[i]);
            output[i] = ++sent;
        }
        done = received.size() >= 16 * frames;
    }
    static AsioTimeRecord* buffer_switch_time_info(AsioTimeRecord* time, std::int32_t half,
                                                   std::int32_t now) {
        buffer_switch(half, now);
        return time;
    }
    static void rate_changed(double) {}
    static std::int32_t message(std::int32_t, std::int32_t, void*, double*) { return 0; }
    static constexpr AsioCallbacks callbacks{buffer_switch, rate_changed, message,
                                             buffer_switch_time_info};
};

TEST(TestDriver, ReturnsEverySampleOnePeriodLater) {
    DriverControl& control = DriverControl::instance();
    control.restore();
    ASSERT_TRUE(control.set("input_types", "18") && control.set("output_types", "18"));
    EXPECT_FALSE(control.set("no such option", "1"));
    EXPECT_FALSE(control.set("rate", "fast"));
    EXPECT_FALSE(control.set("fail", "start,no such call"));
    EXPECT_FALSE(control.fire("no such command"));
    Host::channels[0] = {1, 3, {}};
    Host::channels[1] = {0, 3, {}};
    AsioDriver* driver = create_test_driver();
    ASSERT_NE(driver, nullptr);
    ASSERT_EQ(driver->init(nullptr), 1);
    ASSERT_EQ(driver->createBuffers(Host::channels, 2, frames, &Host::callbacks), kAsioOk);
    ASSERT_EQ(driver->start(), kAsioOk);
    for (int polls = 0; !Host::done && polls < 10'000; ++polls)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(driver->stop(), kAsioOk);
    EXPECT_EQ(driver->disposeBuffers(), kAsioOk);
    EXPECT_EQ(driver->Release(), 0U);
    EXPECT_EQ(control.count("objects"), 0);

    ASSERT_EQ(Host::received.size(), 16U * frames);
    for (std::size_t i = 0; i < Host::received.size(); ++i)
        ASSERT_EQ(Host::received[i], i < frames ? 0 : static_cast<std::int32_t>(i) - frames + 1);
}

TEST(TestDriver, RefusesCallsThatAreOutOfTurn) {
    DriverControl::instance().restore();
    AsioBufferInfo channel{0, 0, {}};
    AsioBufferInfo missing{0, 8, {}};
    AsioDriver* driver = create_test_driver();
    const auto create = [&](AsioBufferInfo& info, std::int32_t size) {
        return driver->createBuffers(&info, 1, size, &Host::callbacks);
    };
    EXPECT_EQ(create(channel, frames), kAsioInvalidMode);
    ASSERT_EQ(driver->init(nullptr), 1);
    EXPECT_EQ(driver->init(nullptr), 0) << "twice";
    EXPECT_EQ(driver->start(), kAsioInvalidMode);
    EXPECT_EQ(create(channel, 96), kAsioInvalidMode);
    EXPECT_EQ(create(missing, frames), kAsioInvalidParameter);
    ASSERT_EQ(create(channel, frames), kAsioOk);
    EXPECT_EQ(create(channel, frames), kAsioInvalidMode);
    EXPECT_EQ(driver->stop(), kAsioInvalidMode);
    EXPECT_EQ(driver->Release(), 0U) << "with buffers";
}

}  // namespace
}  // namespace tavistro::test
