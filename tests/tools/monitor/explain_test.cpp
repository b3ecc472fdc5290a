// The fault that is put in is the fault that is named.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "driver_test/driver_rig.h"
#include "scenarios/rig.h"
#include "tools/monitor/client_watch.h"
#include "tools/monitor/diagnosis.h"

namespace tavistro::test {
namespace {

using monitor::Cause;
using monitor::Finding;
using monitor::Sample;
using server::FaultOptions;
using server::ReferenceServer;

std::int64_t now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct Fault {
    const char* name;
    Cause cause;
    FaultOptions network;     ///< once the audio runs
    std::string device;       ///< lines of section [asio]
    std::string driver_rate;  ///< of a test driver that has no other; empty for the loopback device
    std::string words = "";   ///< part of what is said
    friend void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }
};

// A dozen periods missing here, a dozen too many there: on average the device is on time.
const Fault uneven_device{
    "UnevenDevice",
    Cause::buffer_too_small,
    {},
    "loopback_callback_skip_every = 300\nloopback_callback_skip_count = 12\n"
    "loopback_callback_duplicate_every = 280\nloopback_callback_duplicate_count = 12\n",
    "",
    "unevenly"};

class Explain : public ::testing::TestWithParam<Fault> {
  protected:
    void start(const Fault& fault) {
        ASSERT_EQ(server.start(), "");
        std::string settings = fault.device;
        if (!fault.driver_rate.empty()) {
            driver.emplace();
            driver->set("rate", fault.driver_rate);
            driver->set("fixed_rate", "1");
            settings = on_test_driver();
        }
        config.emplace(server.port(), settings);
        ASSERT_TRUE(engine.start(*config));
        ASSERT_TRUE(eventually([&] { return engine.runs(); }));
        server.set_faults(fault.network);
        watch.emplace(config->client_id());
    }
    /// Watches until the diagnosis of the last seconds satisfies the condition.
    template <typename Condition>
    bool comes_to_say(const Condition& condition) {
        constexpr std::size_t readings = 8;
        return eventually(
            [&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(1000));
                samples.push_back(watch->look(now_ms()));
                if (samples.size() > readings) samples.erase(samples.begin());
                findings = monitor::diagnose(samples);
                return condition();
            },
            std::chrono::seconds(60));
    }
    const Finding* finding(Cause cause) const {
        const auto found = std::ranges::find(findings, cause, &Finding::cause);
        return found == findings.end() ? nullptr : &*found;
    }
    std::string said() const {
        std::string all;
        for (const Finding& f : findings)
            all.append(cause_text(f.cause)).append(": ").append(f.text).append("\n");
        return all;
    }

    std::optional<DriverRemote> driver;
    ReferenceServer server{{.port = 0, .seed = 7}};
    std::optional<ConfigFile> config;
    Engine engine;
    std::optional<monitor::ClientWatch> watch;
    std::vector<Sample> samples;
    std::vector<Finding> findings;
};

TEST_P(Explain, NamesTheFault) {
    const Fault& fault = GetParam();
    ASSERT_NO_FATAL_FAILURE(start(fault));
    EXPECT_TRUE(comes_to_say([&] {
        const Finding* const named = finding(fault.cause);
        return samples.size() > monitor::least_readings && named != nullptr &&
               named->text.find(fault.words) != std::string::npos;
    })) << said();
}

INSTANTIATE_TEST_SUITE_P(
    Faults, Explain,
    ::testing::Values(
        Fault{"Loss", Cause::network_loss, {.drop_percent = 5}, "", "", "never came"},
        Fault{"Jitter", Cause::late_network, {.jitter_ms = 50}, "", ""},
        Fault{"JitterBeyondTheBuffer",
              Cause::buffer_too_small,
              {.jitter_ms = 50},
              "",
              "",
              "would hold"},
        Fault{"Silence", Cause::server_stopped, {.silent = true}, "", ""},
        Fault{
            "Stall",
            Cause::device_stall,
            {},
            "loopback_callback_stall_every_ms = 1500\nloopback_callback_stall_duration_ms = 300\n",
            ""},
        Fault{"MissedPeriods",
              Cause::device_stall,
              {},
              "loopback_callback_skip_every = 20\nloopback_callback_skip_count = 1\n",
              ""},
        Fault{"DoubledPeriods",
              Cause::device_too_fast,
              {},
              "loopback_callback_duplicate_every = 20\nloopback_callback_duplicate_count = 1\n",
              ""},
        Fault{"SlowDevice",
              Cause::device_too_slow,
              {},
              "loopback_drift_ppm = -4000\n",
              "",
              "overruns"},
        Fault{"FastDevice",
              Cause::device_too_fast,
              {},
              "loopback_drift_ppm = 4000\n",
              "",
              "underruns"},
        uneven_device, Fault{"OtherRate", Cause::format_mismatch, {}, "", "44100", "44100 Hz"}),
    [](const auto& param) { return param.param.name; });

class ExplainToo : public Explain {};

// What the network and the device do alike is told apart by whether this computer was late itself.
TEST_F(ExplainToo, ABusyComputerIsNamedInsteadOfTheDevice) {
    ASSERT_NO_FATAL_FAILURE(start(uneven_device));
    EXPECT_TRUE(comes_to_say([&] {
        for (Sample& sample : samples)
            sample.host_late_us = 40'000;
        findings = monitor::diagnose(samples);
        return finding(Cause::host_overload) != nullptr &&
               finding(Cause::buffer_too_small) == nullptr;
    })) << said();
}

TEST_F(ExplainToo, AQuietRigIsNotBlamed) {
    ASSERT_NO_FATAL_FAILURE(start({"", Cause::engine_absent, {}, "", ""}));
    EXPECT_TRUE(comes_to_say([&] {
        return samples.size() > monitor::least_readings && findings.empty();
    })) << said();
    engine.stop();
    EXPECT_TRUE(comes_to_say([&] { return finding(Cause::engine_ended) != nullptr; }));
}

}  // namespace
}  // namespace tavistro::test
