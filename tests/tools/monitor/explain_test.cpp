// The fault that is put in is the fault that is named.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <optional>
#include <span>
#include <string>
#include <thread>

#include "driver_test/driver_rig.h"
#include "platform/clock.h"
#include "scenarios/rig.h"
#include "tools/monitor/client_watch.h"
#include "tools/monitor/diagnosis.h"
#include "tools/monitor/formats.h"

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
        watch.emplace(rig->config.client_id());
    }
    /// Watches until the diagnosis of the last seconds satisfies the condition.
    template <typename Condition>
    bool comes_to_say(const Condition& condition) {
        constexpr std::size_t readings = 8;
        return eventually(
            [&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(1000));
                samples.push_back(
                    watch->look(static_cast<std::int64_t>(platform::millisecond_tick())));
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
    std::optional<Rig> rig;
    std::optional<monitor::ClientWatch> watch;
    std::vector<Sample> samples;
    std::vector<Finding> findings;
};

class Explain : public ExplainEnd, public ::testing::WithParamInterface<Fault> {};

// Among others: a busy machine adds faults of its own, which the recordings do without.
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
        Fault{
            "JitterBeyondTheBuffer", Cause::buffer_too_small, "would hold", "", {.jitter_ms = 50}},
        Fault{"Silence", Cause::server_stopped, "", "", {.silent = true}},
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

// Of a device that is a little wrong, which a busy machine would hide; record.sh makes them.
std::vector<Sample> recording(const std::string& name) {
    std::ifstream file(TAVISTRO_RECORDINGS "/" + name);
    return monitor::read_recording(file);
}

TEST(ExplainRecording, NamesWhatAClockOrALateComputerDoes) {
    struct Case {
        const char* recording;
        std::optional<std::uint32_t> host_late_us;  ///< instead of the recorded one
        std::vector<Cause> causes;
        const char* words;
        std::size_t late_readings = 1000;  ///< from the sixth on
    };
    for (const Case& c : {Case{"quiet", {}, {}, ""}, Case{"quiet", 40'000, {}, ""},
                          Case{"slow_device", {}, {Cause::device_too_slow}, "about 38"},
                          Case{"slow_device", 40'000, {Cause::device_too_slow}, "about 38", 1},
                          Case{"fast_device", {}, {Cause::device_too_fast}, "about 39"},
                          Case{"uneven_device", {}, {Cause::buffer_too_small}, "unevenly"},
                          Case{"uneven_device", 40'000, {Cause::host_overload}, "40.0 ms"},
                          Case{"busy_host", {}, {Cause::host_overload}, "40.6 ms"}}) {
        SCOPED_TRACE(c.recording);
        std::vector<Sample> samples = recording(c.recording);
        ASSERT_GT(samples.size(), 10U);
        for (Sample& sample :
             std::span(samples).subspan(5).first(std::min(c.late_readings, samples.size() - 5))) {
            if (c.host_late_us) sample.host_late_us = c.host_late_us;
        }
        const auto findings = monitor::diagnose(samples);
        std::vector<Cause> causes;
        for (const Finding& f : findings)
            causes.push_back(f.cause);
        EXPECT_EQ(causes, c.causes);
        const std::string said = findings.empty() ? "" : findings[0].text;
        EXPECT_NE(said.find(c.words), std::string::npos) << said;
    }
}

TEST(ExplainRecording, AnotherFormatIsNoFaultAndADeadEngineNotTheServers) {
    const std::vector<Sample> quiet = recording("quiet");
    std::vector<Sample> samples = quiet;
    const std::int64_t shift_ms = quiet.back().time_ms - quiet.front().time_ms + 1000;
    for (Sample sample : quiet) {
        sample.time_ms += shift_ms;
        sample.stats->stream_block_frames *= 2;
        for (auto* count :
             {&sample.stats->client_recv_blocks_per_sec, &sample.stats->callbacks_per_sec,
              &sample.stats->player_recv_blocks_per_sec})
            *count /= 2;
        sample.stats->sync_delay_samples /= 2;
        for (auto* frames :
             {&sample.stats->min_frames, &sample.stats->max_frames, &sample.stats->target_frames})
            *frames *= 2;
        samples.push_back(sample);
    }
    EXPECT_TRUE(monitor::diagnose(samples).empty()) << monitor::diagnose(samples)[0].text;

    for (int second = 1; second < 6; ++second) {
        samples.push_back(samples.back());
        samples.back().time_ms += 1000;
        if (second == 5) samples.back().presence = monitor::Presence::silent;
    }
    const auto findings = monitor::diagnose(samples);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].cause, Cause::engine_silent);
}

// An hour of trouble now and then is told by its worst half minute, not once for each.
TEST(ExplainRecording, JoinsNeighboursAndKeepsDistantTroublesApart) {
    constexpr std::int64_t minute_ms = 60'000;
    const std::vector<Sample> trouble = recording("slow_device");
    std::vector<Sample> samples;
    for (const std::int64_t later_ms : {std::int64_t{0}, std::int64_t{20'000}, 5 * minute_ms}) {
        for (Sample sample : trouble) {
            sample.time_ms += later_ms;
            samples.push_back(sample);
        }
    }
    const auto findings = monitor::diagnose(samples);
    ASSERT_EQ(findings.size(), 2U);
    EXPECT_EQ(findings[0].from_s, 0);
    EXPECT_NEAR(findings[0].until_s, 33, 1);
    EXPECT_NEAR(findings[1].from_s, 300, 1);
}

}  // namespace
}  // namespace tavistro::test
