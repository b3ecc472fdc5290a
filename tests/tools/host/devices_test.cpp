#include <gtest/gtest.h>

#include <sstream>

#include "asio/fake_registry.h"
#include "drivers/test/driver_control.h"
#include "tools/host/commands.h"
#include "tools/host/start_advice.h"

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
    static std::string listed(bool json = false, int status = 0) {
        std::ostringstream out;
        EXPECT_EQ(list_devices(json, out, out), status);
        return out.str();
    }

    test::DriverControl& driver = test::DriverControl::instance();
};

TEST_F(Devices, ShowWhatEachDriverOffersAndWhyOneDoesNot) {
    test::installed_drivers = {{"Fake \xFF", '1'}, {"Odd", 'x'}};
    driver.set("inputs", "3");
    driver.set("outputs", "0");
    driver.set("input_types", "17,19,17");
    driver.set("rate", "44100.5");
    EXPECT_EQ(listed(),
              "0  Fake \xFF\n"
              "    inputs        3 (1 x ASIOSTFloat32LSB, 2 x ASIOSTInt24LSB)\n"
              "    outputs       0\n"
              "    buffer size   32..2048 frames, preferred 128, doubling\n"
              "    sample rate   44100.5 Hz\n"
              "    accepts       44100 48000 88200 96000 176400 192000 Hz\n"
              "1  Odd\n"
              "    fault         could not be loaded: its class is not registered (0x80040154)\n");
    EXPECT_NE(
        listed(true).find(R"("outputs":0,"input_types":{"ASIOSTFloat32LSB":1,"ASIOSTInt24LSB":2},)"
                          R"("output_types":{},"buffer_frames":{"minimum":32,"maximum":2048,)"),
        std::string::npos);
}

TEST_F(Devices, NameTheCallThatFailedAndKeepTheOtherAnswers) {
    test::installed_drivers = {{"Fake \xFF", '1'}};
    driver.set("fail", "init");
    EXPECT_EQ(listed(), "0  Fake \xFF\n    fault         init failed: Told to fail.\n");
    driver.set("fail", "getSampleRate");
    driver.set("granularity", "0");
    driver.set("fixed_rate", "1");
    EXPECT_NE(listed().find(" no steps\n    accepts       none of the usual rates\n    fault  "),
              std::string::npos);
}

TEST_F(Devices, TellWhyADriverIsNotListed) {
    test::installed_drivers.clear();
    test::unlisted_drivers = {{"jack.so", "libjack.so.0: cannot open"}};
    EXPECT_EQ(listed(false, 1),
              "-  jack.so\n"
              "    not listed    libjack.so.0: cannot open\n"
              "no ASIO drivers are registered in test\n");
    EXPECT_TRUE(listed(true, 1).starts_with(
        R"({"type":"unlisted","name":"jack.so","reason":"libjack.so.0: cannot open"})"));
    test::unlisted_drivers.clear();
}

TEST_F(Devices, TellWhatTheyHaveAgainstTheStream) {
    test::installed_drivers = {{"Fake", '1'}, {"Other", 'x'}};
    EngineConfig config;
    config.audio.driver_name = "Fake";
    const StartAdvice advice(config);
    EXPECT_EQ(advice.driver_words(48000, 256), "");
    EXPECT_EQ(
        advice.driver_words(48000, 100),
        "Fake says: The buffer size is 32..2048 frames, preferred 128, doubling, so it cannot "
        "be the stream's block of 100 frames.\n");
    driver.set("fixed_rate", "1");
    EXPECT_EQ(advice.driver_words(48000, 128), "Fake says: Told to fail.\n");
    test::unlisted_drivers = {{"jack.so", "libjack.so.0: cannot open"}};
    EXPECT_NE(advice.no_device().find(
                  "drivers in test: Fake, Other. Is it one of them and free, does it offer the "
                  "stream's sample rate and block size, and do input_map and output_map fit it? "
                  "Not listed: jack.so (libjack.so.0: cannot open). This lists"),
              std::string::npos)
        << advice.no_device();
    test::unlisted_drivers.clear();
}

}  // namespace
}  // namespace tavistro::host
