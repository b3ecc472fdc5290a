#include <gtest/gtest.h>

#include <sstream>

#include "asio/fake_registry.h"
#include "drivers/test/driver_control.h"
#include "tools/host/commands.h"

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
    driver.set("fail", "init");
    EXPECT_EQ(list(false), 0);
    EXPECT_EQ(out.str(), "0  Fake \xFF\n    fault         init failed: Told to fail.\n");
    driver.set("fail", "getSampleRate");
    driver.set("granularity", "0");
    driver.set("fixed_rate", "1");
    EXPECT_EQ(list(false), 0);
    EXPECT_NE(out.str().find("preferred 128, no steps\n"
                             "    accepts       none of the usual rates\n"
                             "    fault         getSampleRate failed: "),
              std::string::npos)
        << out.str();
    list(true);
    const std::string known =
        "{\"type\":\"device\",\"number\":0,\"name\":\"Fake "
        "\xEF\xBF\xBD\",\"inputs\":8,\"outputs\":8,"
        R"("input_types":{"ASIOSTInt24LSB":8},"output_types":{"ASIOSTInt24LSB":8},)"
        R"("buffer_frames":{"minimum":32,"maximum":2048,"preferred":128,"granularity":0},)"
        R"("sample_rate":null,"accepted_sample_rates":[],"faults":["getSampleRate failed: )";
    EXPECT_EQ(out.str().substr(0, known.size()), known);
}

}  // namespace
}  // namespace tavistro::host
