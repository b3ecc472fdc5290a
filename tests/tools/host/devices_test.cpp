#include "tools/host/devices_command.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <tuple>

#include "asio/fake_registry.h"
#include "drivers/test/driver_control.h"

namespace tavistro::host {
namespace {

class Devices : public testing::Test {
  protected:
    ~Devices() override {
        EXPECT_EQ(driver.count("objects"), 0) << "released";
        EXPECT_EQ(test::apartments_entered, 0);
        EXPECT_EQ(driver.count("createBuffers") + driver.count("start"), 0) << "only asked";
        driver.restore();
    }
    int list(bool json) {
        out.str("");
        return list_devices(json, out, errors);
    }

    test::DriverControl& driver = test::DriverControl::instance();
    std::ostringstream out;
    std::ostringstream errors;
};

TEST_F(Devices, ShowWhatEachDriverOffersAndWhyOneDoesNot) {
    test::installed_drivers = {{"First", '1'}, {"Twin", '2'}, {"Twin", '3'}, {"Odd", 'x'}};
    driver.set("inputs", "3");
    driver.set("outputs", "0");
    driver.set("input_types", "17,19,17");
    driver.set("rate", "44100.5");
    const std::string offers =
        "    inputs        3 (1 x ASIOSTFloat32LSB, 2 x ASIOSTInt24LSB)\n"
        "    outputs       0\n"
        "    buffer size   32..2048 frames, preferred 128, doubling\n"
        "    sample rate   44100.5 Hz\n"
        "    accepts       44100 48000 88200 96000 176400 192000 Hz\n";
    EXPECT_EQ(list(false), 0);
    std::ostringstream expected;
    expected << "0  First\n" << offers << "1  Twin\n" << offers << "2  Twin\n" << offers;
    expected << "3  Odd\n"
             << "    fault         could not be loaded: its class is not registered (0x80040154)\n";
    EXPECT_EQ(out.str(), expected.str());
}

TEST_F(Devices, NameTheCallThatFailedAndKeepTheOtherAnswers) {
    test::installed_drivers = {{"Fake \xFF", '1'}};
    // The call, what is said, and what is not known then.
    const std::tuple<const char*, const char*, std::string> cases[] = {
        {"init", "init failed: Told to fail.",
         "inputs input_types outputs output_types buffer_frames sample_rate"},
        {"getChannels", "getChannels failed: ", "inputs input_types outputs output_types"},
        {"getOutputInfo", "getChannelInfo of output 0 failed: ", "output_types"},
        {"getBufferSize", "getBufferSize failed: ", "buffer_frames"},
        {"getSampleRate", "getSampleRate failed: ", "sample_rate"},
    };
    for (const auto& [call, fault, unknown] : cases) {
        driver.restore();
        driver.set("fail", call);
        driver.set("fixed_rate", "1");
        EXPECT_EQ(list(true), 0);
        const auto line = nlohmann::json::parse(out.str());
        EXPECT_EQ(line["name"], "Fake \xEF\xBF\xBD");
        ASSERT_EQ(line["faults"].size(), 1U) << line;
        EXPECT_TRUE(line["faults"][0].get<std::string>().starts_with(fault)) << line;
        std::istringstream all(std::get<2>(cases[0]));
        for (std::string key; all >> key;)
            EXPECT_EQ(line[key].empty(), unknown.find(key) != std::string::npos) << call << line;
        EXPECT_TRUE(line["accepted_sample_rates"].empty()) << line;
    }
}

TEST_F(Devices, AreNoneWhereNoneIsRegistered) {
    test::installed_drivers = {{"Unserved", '1', {}, false}};
    EXPECT_EQ(list(false), 1);
    EXPECT_EQ(out.str() + errors.str(), "no ASIO drivers are registered\n");
}

}  // namespace
}  // namespace tavistro::host
