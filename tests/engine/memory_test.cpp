// Lets every allocation of the engine fail once, one per run. No failure ends the process; each
// leads to the error of the part that allocated, and the next start works.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "audio/test_device.h"
#include "engine/engine_runtime.h"
#include "platform/clock.h"
#include "support/eventually.h"
#include "support/movable_clock.h"
#include "support/realtime_guard.h"
#include "support/scripted_server.h"

namespace tavistro::test {
namespace {

using State = tavistro_engine_state;
using Wanted = std::function<bool(const State&)>;
using Error = std::array<std::uint32_t, 2>;  ///< code and detail

/// Errors of configuration, client, statistics block and device start.
constexpr Error allowed_errors[] = {{3, 5},  {4, 16}, {9, 4},  {10, 6},
                                    {6, 10}, {7, 17}, {7, 20}, {7, 21}};

/// A sweep with fewer has not got beyond loading the settings and starting the client.
constexpr std::uint64_t few_allocations = 80;

/// Selects the allocations that fail. Counts all threads except the server's, and the test's only
/// during start().
struct Shortage {
    static inline const std::thread::id main_thread = std::this_thread::get_id();
    static inline std::thread::id server_thread;
    static inline std::atomic<bool> host_counts{false};
    static inline std::atomic<std::uint64_t> seen{0}, first{0}, end{0};

    static bool refuses() {
        const auto here = std::this_thread::get_id();
        if (here == main_thread ? !host_counts : here == server_thread) return false;
        const std::uint64_t number = ++seen;
        return number >= first && number < end;
    }
    static bool is_over() { return end != 0 && seen + 1 >= end; }
};

/// `count`: consecutive failing allocations; more than one also hits the reporting of an error.
/// `step`: distance of the first failing allocation from run to run.
struct Failures {
    std::uint64_t count;
    std::uint64_t step;
    bool loopback;

    friend void PrintTo(const Failures& failures, std::ostream* out) {
        *out << failures.count << "InARow" << (failures.loopback ? "Loopback" : "");
    }
};

class MemoryTest : public testing::TestWithParam<Failures> {
  protected:
    MemoryTest() {
        EXPECT_TRUE(eventually([&] { return server_.thread() != std::thread::id(); }));
        Shortage::server_thread = server_.thread();
        refuse_allocations(&Shortage::refuses);
        limit_sleeps_ms(1);
        std::ofstream(path_) << "[asio]\ndriver_name=scripted\n[network]\nserver_ip=127.0.0.1\n"
                             << "discovery_timeout_ms=200\nserver_port=" << server_.port()
                             << "\nclient_id=" << getpid()
                             << "\n[test]\nloopback_device=" << GetParam().loopback << "\n";
    }
    ~MemoryTest() override {
        runtime_.stop();
        refuse_allocations(nullptr);
        limit_sleeps_ms(UINT32_MAX);
        unlink(path_.c_str());
    }

    /// Repeats `step` until the record is as wanted. Returns false if the run has failed.
    bool reaches(
        const std::function<bool(const State&)>& wanted,
        const std::function<void()>& step = [] {}) {
        for (int tries = 0; tries < 5000; ++tries) {
            const State state = runtime_.snapshot_state();
            if (state.state == TAVISTRO_STATE_FAILED) return false;
            if (wanted(state)) return true;
            if (state.status_message == TAVISTRO_MESSAGE_CLIENT_RETRY_WAIT ||
                state.status_message == TAVISTRO_MESSAGE_ASIO_RETRY_WAIT)
                advance_clock_ms(1000);
            step();
            platform::sleep_ms(1);
        }
        ADD_FAILURE() << "hangs at message " << runtime_.snapshot_state().status_message;
        return false;
    }
    /// Runs up to `count` steps, but ends early once all failing allocations have occurred. Returns
    /// false if the run has failed.
    bool run(std::size_t count) {
        const auto running_at = [](std::uint32_t rate) {
            return [rate](const State& s) {
                return s.state == TAVISTRO_STATE_RUNNING && s.stream_sample_rate == rate;
            };
        };
        const auto report = [&] {
            if (device_->period) device_->period();  // captures input to send
            advance_clock_ms(1000);
            server_.send_sync(48000, 128);
        };
        const std::pair<Wanted, std::function<void()>> steps[] = {
            {[](const State& s) { return s.state == TAVISTRO_STATE_CONNECTED; }, [] {}},
            {running_at(48000), [&] { server_.send_sync(48000, 128); }},
            {[](const State& s) { return s.device_sample_rate != 0; }, report},
            {running_at(96000), [&] { server_.send_sync(96000, 64); }}};
        Shortage::host_counts = true;
        bool goes_on = runtime_.start(path_.c_str());
        Shortage::host_counts = false;
        for (std::size_t i = 0; i < count && goes_on && !(i > 1 && Shortage::is_over()); ++i)
            goes_on = reaches(steps[i].first, steps[i].second);
        return goes_on;
    }

    const std::string path_ = testing::TempDir() + "memory_" + std::to_string(getpid());
    ScriptedServer server_;
    const std::shared_ptr<DevicePanel> device_ = std::make_shared<DevicePanel>();
    EngineRuntime runtime_{[this] { return std::make_unique<TestDevice>(device_); }};
};

TEST_P(MemoryTest, FailedAllocationsEndAtMostTheRun) {
    std::uint64_t number = 1;
    for (bool met = true; met && !HasFailure(); number += GetParam().step) {
        SCOPED_TRACE(number);
        Shortage::seen = 0;
        Shortage::end = number + GetParam().count;
        Shortage::first = number;
        const bool succeeded = run(4);
        met = Shortage::seen >= number;
        runtime_.stop();
        Shortage::first = Shortage::end = 0;
        const State state = runtime_.snapshot_state();
        const Error error{state.error_code, state.error_detail};
        EXPECT_EQ(state.state, succeeded ? TAVISTRO_STATE_STOPPED : TAVISTRO_STATE_FAILED);
        EXPECT_TRUE(succeeded || std::ranges::count(allowed_errors, error) > 0)
            << error[0] << ", " << error[1];
        EXPECT_TRUE(run(2)) << "the next run";
        runtime_.stop();
    }
    EXPECT_GT(number, few_allocations);
}

INSTANTIATE_TEST_SUITE_P(Failures, MemoryTest,
                         testing::Values(Failures{1, 1, false}, Failures{20, 10, false},
                                         Failures{1, 3, true}, Failures{20, 10, true}));

}  // namespace
}  // namespace tavistro::test
