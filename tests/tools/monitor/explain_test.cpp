// The fault that is put in is the fault that is named.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "driver_test/driver_rig.h"
#include "scenarios/rig.h"
#include "tools/monitor/account.h"
#include "tools/monitor/observer.h"

namespace tavistro::test {
namespace {

using monitor::Cause;
using monitor::Finding;
using monitor::Sample;
using server::FaultOptions;

struct Fault {
    const char* name;
    Cause cause;
    const char* words = "";             ///< part of what is said
    const char* device = "";            ///< lines of section [test]
    FaultOptions network{};             ///< once the audio runs
    const char* driver_rate = nullptr;  ///< of a test driver that has no other, for the loopback's
    friend void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }
};

class ExplainEnd : public ::testing::Test {
  protected:
    void start(const Fault& fault) {
        std::string settings = fault.device;
        if (fault.driver_rate != nullptr) {
            driver.emplace();
            driver->set("rate", fault.driver_rate);
            driver->set("fixed_rate", "1");
            settings = on_test_driver();
        }
        rig.emplace(server::ServerOptions{.seed = 7}, settings);
        ASSERT_TRUE(eventually([&] { return rig->engine.runs(); }));
        rig->server.set_faults(fault.network);
        observer.emplace(std::vector{rig->config.client_id()});
    }
    /// Watches until what is said of the last seconds satisfies the condition.
    template <typename Condition>
    bool comes_to_say(const Condition& condition) {
        constexpr std::size_t readings = 8;
        return eventually(
            [&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(1000));
                samples.push_back(observer->look().front());
                if (samples.size() > readings) samples.erase(samples.begin());
                account = monitor::judge(samples);
                return condition();
            },
            std::chrono::seconds(60));
    }
    const Finding* finding(Cause cause) const {
        const auto found = std::ranges::find(account.causes, cause, &Finding::cause);
        return found == account.causes.end() ? nullptr : &*found;
    }
    std::string said() const {
        std::string all;
        for (const std::string& line : monitor::account_lines(account))
            all.append(line).append("\n");
        return all;
    }

    std::optional<DriverRemote> driver;
    std::optional<Rig> rig;
    std::optional<monitor::Observer> observer;
    std::vector<Sample> samples;
    monitor::Account account;
};

class Explain : public ExplainEnd, public ::testing::WithParamInterface<Fault> {};

// Among others: a busy machine adds faults of its own.
TEST_P(Explain, NamesTheFault) {
    const Fault& fault = GetParam();
    ASSERT_NO_FATAL_FAILURE(start(fault));
    EXPECT_TRUE(comes_to_say([&] {
        const Finding* const named = finding(fault.cause);
        return named != nullptr && named->text.find(fault.words) != std::string::npos;
    })) << said();
}

INSTANTIATE_TEST_SUITE_P(
    Faults, Explain,
    ::testing::Values(
        Fault{"Loss", Cause::network_loss, "never came", "", {.drop_percent = 5}},
        Fault{"Burst",
              Cause::network_loss,
              "never came",
              "",
              {.burst_every_ms = 1000, .burst_length_blocks = 8}},
        Fault{"Reorder", Cause::late_network, "after their turn", "", {.reorder_percent = 5}},
        Fault{
            "Pause", Cause::missing_notices, "", "", {.pause_every_ms = 1500, .pause_for_ms = 300}},
        Fault{"Jitter", Cause::late_network, "", "", {.jitter_ms = 50}},
        Fault{"Silence", Cause::server_silent, "", "", {.silent = true}},
        Fault{
            "Stall", Cause::device_stall, "",
            "loopback_callback_stall_every_ms = 1500\nloopback_callback_stall_duration_ms = 300\n"},
        Fault{"MissedPeriods", Cause::device_stall, "",
              "loopback_callback_skip_every = 20\nloopback_callback_skip_count = 1\n"},
        Fault{"DoubledPeriods", Cause::device_too_fast, "",
              "loopback_callback_duplicate_every = 4\nloopback_callback_duplicate_count = 1\n"},
        Fault{"OtherRate", Cause::format_mismatch, "44100 Hz", "", {}, "44100"}),
    [](const auto& param) { return param.param.name; });

TEST_F(ExplainEnd, IsToldOfARunThatIsOver) {
    ASSERT_NO_FATAL_FAILURE(start({}));
    ASSERT_TRUE(comes_to_say([&] { return samples.size() == 2; }));
    rig->engine.stop();
    EXPECT_TRUE(comes_to_say([&] { return finding(Cause::engine_ended) != nullptr; })) << said();
}

}  // namespace
}  // namespace tavistro::test
