#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

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
    struct Part {
        std::string_view call;  ///< that fails when the part is unknown
        std::string known, unknown;
    };
    const Part parts[] = {
        {"getChannels", R"("inputs":2,"outputs":1)", R"("inputs":null,"outputs":null)"},
        {"", R"(,"input_types":{"ASIOSTInt24LSB":2})", R"(,"input_types":{})"},
        {"getOutputInfo", R"(,"output_types":{"ASIOSTInt24LSB":1})", R"(,"output_types":{})"},
        {"getBufferSize",
         R"(,"buffer_frames":{"minimum":32,"maximum":2048,"preferred":128,"granularity":-1})",
         R"(,"buffer_frames":null)"},
        {"getSampleRate", R"(,"sample_rate":48000.0)", R"(,"sample_rate":null)"},
    };
    const std::pair<std::string, std::string> cases[] = {
        {"init", "init failed: Told to fail."},
        {"getChannels", "getChannels failed: "},
        {"getOutputInfo", "getChannelInfo of output 0 failed: "},
        {"getBufferSize", "getBufferSize failed: "},
        {"getSampleRate", "getSampleRate failed: "},
    };
    for (const auto& [call, fault] : cases) {
        driver.restore();
        for (const auto& [name, value] :
             {std::pair{"inputs", "2"}, {"outputs", "1"}, {"fixed_rate", "1"}})
            driver.set(name, value);
        driver.set("fail", call);
        std::string expected = "{\"type\":\"device\",\"number\":0,\"name\":\"Fake \xEF\xBF\xBD\",";
        for (const Part& part : parts) {
            const bool types = part.call.empty() || part.call == "getOutputInfo";
            const bool is_unknown =
                call == "init" || call == part.call || (types && call == "getChannels");
            expected += is_unknown ? part.unknown : part.known;
        }
        expected += R"(,"accepted_sample_rates":[],"faults":[")" + fault;
        EXPECT_EQ(list(true), 0);
        EXPECT_EQ(out.str().substr(0, expected.size()), expected);
    }
}

TEST_F(Devices, ShowStepsAndThatNoUsualRateIsAccepted) {
    test::installed_drivers = {{"Odd", '1'}};
    driver.set("granularity", "16");
    driver.set("fixed_rate", "1");
    driver.set("rate", "32000");
    list(false);
    EXPECT_NE(out.str().find("preferred 128, steps of 16\n"), std::string::npos) << out.str();
    EXPECT_NE(out.str().find("accepts       none of the usual rates\n"), std::string::npos)
        << out.str();
    driver.set("granularity", "0");
    list(false);
    EXPECT_NE(out.str().find("preferred 128, no steps\n"), std::string::npos) << out.str();
}

TEST_F(Devices, AreNoneWhereNoneIsRegistered) {
    test::installed_drivers = {{"Unserved", '1', {}, false}};
    EXPECT_EQ(list(false), 1);
    EXPECT_EQ(out.str() + errors.str(), "no ASIO drivers are registered\n");
}

}  // namespace
}  // namespace tavistro::host
