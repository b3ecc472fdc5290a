// The driver list, and the device with a driver that has faults observed in real drivers.
#include "asio/asio_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <thread>
#include <tuple>

#include "asio/buffer_size.h"
#include "asio/current_device.h"
#include "asio/fake_registry.h"
#include "drivers/test/driver_control.h"
#include "platform/clock.h"
#include "support/realtime_guard.h"

namespace tavistro::test {
namespace {

using Lines = std::vector<std::string>;

TEST(DriverList, ListsCompleteDriversInRegistryOrderAndTruncatesNames) {
    installed_drivers = {{"Key", '1'},
                         {"Unserved", '2', "skipped", false},
                         {"OneTooMany", '3', std::string(32, 'b')},
                         {"Endless", '4', std::string(200, 'd')}};
    AsioDrivers drivers;
    std::string names;
    char name[256];
    for (std::int32_t id = 0; drivers.driverNameAt(id, std::span(name, 32)) == kAsioListOk; ++id)
        names.append(name).append(" ");
    const std::string b(28, 'b'), d(28, 'd');
    EXPECT_EQ(names, "Key " + b + "... " + d + "... ");
    EXPECT_TRUE(drivers.loadDriver((b + "...").c_str()));
    EXPECT_EQ(drivers.driverNameAt(2, name), kAsioListOk);
    EXPECT_EQ(name, std::string(127, 'd'));
    EXPECT_EQ(drivers.driverNameAt(0, {}), kAsioListBadArgument);
}

TEST(DriverList, LoadsByExactNameAndRestoresThePreviousDriverOnFailure) {
    installed_drivers = {{"One", '1'}, {"Key", '2', "Twin"}, {"Twin", '3'}, {"Odd", 'x'}};
    auto list = std::make_unique<AsioDrivers>();
    EXPECT_FALSE(list->loadDriver("one") || list->loadDriver("Odd"));
    EXPECT_EQ(theAsioDriver, nullptr);
    EXPECT_TRUE(list->loadDriver("Twin"));
    EXPECT_EQ(theAsioDriver, installed_drivers[1].object);
    EXPECT_TRUE(list->loadDriver("One"));
    EXPECT_FALSE(list->loadDriver("Odd"));
    EXPECT_TRUE(theAsioDriver != nullptr && theAsioDriver == installed_drivers[0].object);
    AsioDriver* opened = nullptr;
    EXPECT_EQ(list->openDriverAt(2, &opened), kAsioListOk);
    list->unloadCurrentDriver();
    EXPECT_EQ(theAsioDriver, nullptr);
    list.reset();
    EXPECT_EQ(apartments_entered + DriverControl::instance().count("objects"), 0);
}

class Device : public testing::Test {
  protected:
    Device() {
        driver.restore();
        installed_drivers = {{"Fake", '1'}};
        settings.driver_name = "Fake";
        settings.output_channel_map = {5, 0};
        settings.input_channel_map = {5, 0};
        reset_realtime_violations();
    }
    ~Device() override {
        device.close();
        EXPECT_EQ(apartments_entered, 0);
        EXPECT_EQ(realtime_violations().total(), 0U) << "inside a period";
        EXPECT_EQ(driver.count("objects"), 0);
        EXPECT_EQ(driver.count("overwritten"), 0) << "bytes beyond the driver's buffers";
    }
    bool open() { return open(device); }
    bool open(AsioDevice& chosen) {
        lines.clear();
        periods = 0;
        return chosen.open(
            settings, [this](const std::string& line) { lines.push_back(line); },
            [](void* self, std::int32_t half) { static_cast<Device*>(self)->on_period(half); },
            this);
    }
    /// Plays a falling ramp from 0.5 on the first output; the same for two periods and then silence
    /// on the second. The driver returns the outputs as inputs.
    void on_period(std::int32_t half) {
        const RealtimeScope scope;
        for (const std::int32_t channel : {0, 1})
            device.read_input(channel, half, inputs[channel], 128);
        if (periods > 0 && !std::ranges::equal(inputs[0], played)) ++changed_periods;
        for (float& sample : played)
            sample = 0.5F - 0x1p-20F * static_cast<float>(++sent);
        device.write_output(0, half, played, 128);
        device.write_output(1, half, periods < 2 ? played : nullptr, 128);
        ready = device.output_ready();
        if (periods++ == 0) first_input = inputs[0][127];
    }
    void wait_for_periods(int more) {
        for (const int until = periods + more; periods < until;)
            platform::sleep_ms(1);
    }

    DriverControl& driver = DriverControl::instance();
    AudioDeviceSettings settings;
    Lines lines;
    int sent = 0;
    float played[128] = {};
    float inputs[2][128] = {};
    std::atomic<int> changed_periods{0};
    float first_input = 0.0F;
    std::atomic<int> periods{0};
    std::atomic<bool> ready{false};
    AsioDevice device;
};

TEST_F(Device, OpensAtTheDriversSampleRateRunsAndCloses) {
    driver.set("inputs", "9");
    driver.set("rate", "44100");
    driver.set("fixed_rate", "1");
    driver.set("noise", "1");
    driver.set("input_types", "16,19");  // 19 is float, so samples return unchanged
    driver.set("output_types", "17,19");
    driver.set("scribbles", "1");
    ASSERT_TRUE(open() && device.start());
    EXPECT_EQ(lines, (Lines{"[asio] setSampleRate failed.", "[asio] device=\"Fake\"",
                            "[asio] actual sample_rate=44100",
                            ("[asio] created bufferSize=128 mappedInputChannels=2 "
                             "mappedOutputChannels=2 availableHardwareInputs=9 "
                             "availableHardwareOutputs=8"),
                            "[asio] logicalIn=0 -> hardwareIn=5 type=ASIOSTFloat32LSB",
                            "[asio] logicalIn=1 -> hardwareIn=0 type=ASIOSTInt16LSB",
                            "[asio] logicalOut=0 -> hardwareOut=5 type=ASIOSTFloat32LSB",
                            "[asio] logicalOut=1 -> hardwareOut=0 type=ASIOSTInt24LSB",
                            "[asio] outputReady optimization is supported."}));
    wait_for_periods(20);
    device.close();
    EXPECT_EQ(driver.history(),
              "create init setSampleRate getSampleRate getChannels getBufferSize createBuffers "
              "in5 in0 out5 out0 getInputInfo getInputInfo getOutputInfo getOutputInfo start stop "
              "disposeBuffers ");
    EXPECT_FALSE(device.start());
    EXPECT_EQ(first_input, 0.0F) << "noise in the new buffers was played";
    EXPECT_EQ(changed_periods, 0) << "outputs must return within one period";
    EXPECT_EQ(inputs[1][127], 0.0F);
}

TEST_F(Device, EveryFailedStepLogsOneLineAndUnloadsTheDriver) {
    const auto expect_failure = [this](const std::string& line) {
        EXPECT_FALSE(open());
        EXPECT_EQ(lines, Lines{"[asio] " + line});
        EXPECT_EQ(driver.count("objects"), 0) << line;
    };
    for (const std::string call :
         {"init", "getSampleRate", "getChannels", "getBufferSize", "createBuffers"}) {
        driver.set("fail", call);
        expect_failure(call + " failed.");
    }
    driver.set("fail", "create");
    expect_failure("theAsioDriver is null.");
    driver.set("fail", "getOutputInfo");
    expect_failure("getChannelInfo failed for output.");
    driver.set("fail", "start");
    driver.set("output_types", "32");  // one bit per frame, without a conversion
    driver.set("inputs", "9");
    settings.input_channel_map = {8};
    EXPECT_TRUE(open());
    EXPECT_FALSE(device.start());
    settings.block_size = 96;
    expect_failure("unsupported bufferSize=96 min=32 max=2048 preferred=128 granularity=-1");
    settings.block_size = 0;
    for (const char* option : {"maximum_frames", "preferred_frames", "minimum_frames"})
        driver.set(option, "65536");
    expect_failure(
        "unsupported bufferSize=65536 min=65536 max=65536 preferred=65536 granularity=-1");
    settings.input_channel_map = {9};
    expect_failure("input_channel_map contains a hardware channel outside available input range.");
    settings.output_channel_map = {0, 8};
    expect_failure(
        "output_channel_map contains a hardware channel outside available output range.");
    settings.driver_name = "fake";
    expect_failure("loadDriver failed.");
}

TEST_F(Device, HandlesEveryPeriodDespiteUnexpectedCallbacks) {
    for (const char* option : {"callback_in_create", "callback_in_start", "callback_in_stop",
                               "scribbles", "foreign_thread"})
        driver.set(option, "1");
    ASSERT_TRUE(open());
    EXPECT_EQ(periods, 0) << "callback before the device was complete";
    AsioTimeRecord time{};
    EXPECT_EQ(driver.host()->bufferSwitchTimeInfo(&time, 1, 1), &time);
    EXPECT_EQ(periods, 1);
    ASSERT_TRUE(device.start());
    EXPECT_GE(periods, 2);
    driver.fire("bad_index");
    driver.set("fail", "outputReady");
    wait_for_periods(3);
    EXPECT_FALSE(ready);
    device.close();
    EXPECT_EQ(periods, 1 + driver.count("periods"));
    ASSERT_TRUE(open() && device.start());
    EXPECT_EQ(lines.back(), "[asio] outputReady optimization is not supported.");
    const auto probed = driver.count("outputReady");
    wait_for_periods(2);
    EXPECT_TRUE(ready);
    EXPECT_EQ(driver.count("outputReady"), probed);
}

TEST_F(Device, AnswersEveryMessageAndRecordsResetRequests) {
    const std::tuple<std::int32_t, std::int32_t, bool> messages[] = {
        {kAsioSelectorSupported, 0, false}, {kAsioHostVersion, 0, false},
        {kAsioResetRequest, 0, true},       {kAsioBufferSizeChange, 0, false},
        {kAsioResyncRequest, 0, true},      {kAsioLatenciesChanged, 0, false},
        {kAsioSupportsTimeInfo, 1, false},  {kAsioSupportsTimeCode, 0, false},
        {kAsioOverload, 0, false}};
    for (const auto& [selector, answer, reset] : messages) {
        AsioDevice fresh;
        ASSERT_TRUE(open(fresh));
        EXPECT_EQ(driver.host()->asioMessage(selector, 0, nullptr, nullptr), answer) << selector;
        EXPECT_EQ(fresh.reset_requested(), reset) << selector;
    }
    for (const double rate : {48000.0, 44100.0, 48000.5, static_cast<double>(NAN)}) {
        AsioDevice fresh;
        ASSERT_TRUE(open(fresh));
        driver.host()->sampleRateDidChange(rate);
        EXPECT_EQ(fresh.reset_requested(), rate != 48000.0) << rate;
    }
}

TEST(CurrentDevice, ClearWaitsForCallbacksInProgress) {
    CurrentDevice<std::atomic<int>> current;
    std::atomic<int> callbacks_left{-1};
    current.set(callbacks_left);
    std::thread driver_thread([&] {
        current.use([&](std::atomic<int>& left) {
            left = 0;
            platform::sleep_ms(20);
            left = 1;
        });
    });
    while (callbacks_left < 0)
        platform::sleep_ms(0);
    current.clear(callbacks_left, 600'000);
    EXPECT_EQ(callbacks_left, 1);
    driver_thread.join();
}

TEST(BufferSize, MustBeInTheDriversRange) {
    using Sizes = std::vector<std::int64_t>;
    const Sizes sizes{0, 1, 48, 64, 65, 96, 100, 128, 441, 768, 1000, 2048, 2080};
    const std::pair<BufferSizeRange, Sizes> cases[] = {
        {{64, 2048, 0, -1}, {64, 128, 2048}},
        {{48, 1000, 0, -1}, {48, 96, 768}},
        {{0, 64, 0, -1}, {}},
        {{65, 1000, 0, 35}, {65, 100}},
        {{64, 2048, 0, 0}, {64}},
        {{64, 2048, 0, -2}, {}},
        {{441, 441, 0, -7}, {441}},
        {{-2147483647, 2147483647, 0, 2147483647}, {0}},
    };
    for (const auto& [range, expected] : cases) {
        Sizes accepted;
        for (const auto frames : sizes)
            if (acceptable_buffer_size(frames, range)) accepted.push_back(frames);
        EXPECT_EQ(accepted, expected);
    }
}

}  // namespace
}  // namespace tavistro::test
