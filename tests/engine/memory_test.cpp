// Every allocation of the engine fails once, in run after run: none ends the process, each ends in
// the error of the part that needed it, and the next start works.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

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
using Error = std::array<std::uint32_t, 2>;  ///< code and detail

constexpr std::array<Error, 3> ends_of_retries{{{4, 16}, {7, 20}, {7, 23}}};

/// Shown while a next attempt is waited for.
constexpr std::array<std::uint32_t, 3> pauses{TAVISTRO_MESSAGE_CLIENT_RETRY_WAIT,
                                              TAVISTRO_MESSAGE_ASIO_RETRY_WAIT,
                                              TAVISTRO_MESSAGE_RECOVERY_ATTEMPT_FAILED};

/// A sweep that ends sooner never got beyond loading the settings and starting the client.
constexpr std::uint64_t few_allocations = 80;

/// Which allocation fails, counted over all threads but the test's own: its main thread, apart from
/// the call of start(), and the server's.
struct Shortage {
    static inline std::array<std::atomic<std::thread::id>, 2> own_threads;
    static inline std::atomic<bool> host_counts{false};
    static inline std::atomic<std::uint64_t> seen{0}, first{0}, end{0};

    /// Those that allocate before any engine runs are the test's own.
    static bool learn() {
        const auto here = std::this_thread::get_id();
        for (auto& thread : own_threads) {
            auto known = std::thread::id();
            if (thread.compare_exchange_strong(known, here) || known == here) break;
        }
        return false;
    }
    static bool refuses() {
        const auto here = std::this_thread::get_id();
        if (here == own_threads[0] ? !host_counts : here == own_threads[1]) return false;
        const std::uint64_t number = ++seen;
        return number >= first && number < end;
    }
    /// `count` allocations in a row, so that those fail too that an error needs when it is
    /// reported.
    static void begin(std::uint64_t number, std::uint64_t count) {
        seen = 0;
        end = number + count;
        first = number;
    }
    static void end_it() { first = end = 0; }
    static bool met() { return end != 0 && seen + 1 >= end; }
};

struct Learning {
    Learning() {
        refuse_allocations(&Shortage::learn);
        delete new int;  // main is the first
    }
};

/// How many allocations in a row fail, and how many are passed over from run to run.
struct Failures {
    std::uint64_t count;
    std::uint64_t step;
    const char* device;
};

class MemoryTest : public testing::TestWithParam<Failures> {
  protected:
    MemoryTest() {
        EXPECT_TRUE(
            eventually([] { return Shortage::own_threads[1].load() != std::thread::id(); }));
        refuse_allocations(&Shortage::refuses);
        limit_sleeps_ms(1);
    }
    ~MemoryTest() override {
        runtime_.stop();
        refuse_allocations(nullptr);
        limit_sleeps_ms(UINT32_MAX);
        for (auto& thread : Shortage::own_threads)
            thread = std::thread::id();
        unlink(path_.c_str());
    }

    void configure(const std::string& lines) {
        std::ofstream(path_) << "[asio]\ndriver_name=scripted\n[network]\nserver_ip=127.0.0.1\n"
                             << "discovery_timeout_ms=200\nserver_port=" << server_.port()
                             << "\nclient_id=" << getpid() << "\n"
                             << lines;
    }
    bool start() {
        Shortage::host_counts = true;
        const bool started = runtime_.start(path_.c_str());
        Shortage::host_counts = false;
        return started;
    }

    /// Takes `step` again and again until the record is as wanted. False when the run has failed.
    template <typename Wanted, typename Step>
    bool reaches(Wanted wanted, Step step) {
        for (int tries = 0; tries < 5000; ++tries) {
            const State state = runtime_.snapshot_state();
            if (state.state == TAVISTRO_STATE_FAILED) return false;
            if (wanted(state)) return true;
            if (std::ranges::count(pauses, state.status_message) > 0) advance_clock_ms(1000);
            step();
            platform::sleep_ms(1);
        }
        ADD_FAILURE() << "hangs at message " << runtime_.snapshot_state().status_message;
        return false;
    }
    bool connects() {
        return start() &&
               reaches([](const State& s) { return s.state == TAVISTRO_STATE_CONNECTED; }, [] {});
    }
    bool runs(std::uint32_t sample_rate, std::uint16_t block_frames) {
        return reaches(
            [&](const State& s) {
                return s.state == TAVISTRO_STATE_RUNNING && s.stream_sample_rate == sample_rate;
            },
            [&] { server_.send_sync(sample_rate, block_frames); });
    }
    bool reports() {
        if (device_->period) device_->period();  // something to send
        return reaches([](const State& s) { return s.device_sample_rate != 0; },
                       [&] {
                           advance_clock_ms(1000);
                           server_.send_sync(48000, 128);
                       });
    }
    bool recovers() {
        device_->faulty = true;
        const auto newest = [](const State& s) {
            return s.event_count == 0 ? tavistro_engine_event{} : s.events[s.event_count - 1];
        };
        return reaches(
            [&](const State& s) {
                return s.state == TAVISTRO_STATE_RUNNING &&
                       newest(s).message == TAVISTRO_MESSAGE_EVENT_DEVICE_RECOVERED;
            },
            [&] {
                const bool noticed =
                    newest(runtime_.snapshot_state()).subject == TAVISTRO_CATEGORY_DEVICE_RESET;
                if (!noticed) advance_clock_ms(1000);  // for a report
                server_.send_sync(96000, 64);
            });
    }

    /// A whole run as far as needed: until the shortage is over and what it met has been done.
    /// Returns the errors that the phase may end in in which the run stopped.
    std::vector<Error> run(bool loopback) {
        if (!connects()) return {{3, 5}, {9, 4}, {10, 6}, {4, 16}};
        if (!runs(48000, 128)) return {{6, 10}, {7, loopback ? 21u : 20u}};
        if (Shortage::met() || !reports()) return {};
        if (Shortage::met()) return {};
        if (!runs(96000, 64)) return {{6, 10}, {7, loopback ? 21u : 17u}};
        if (loopback || Shortage::met()) return {};
        if (!recovers()) return {{6, 25}, {7, 23}};
        return {};
    }

    /// How many allocations there are to fail.
    std::uint64_t sweep(bool loopback) {
        configure(loopback ? "[test]\nloopback_device=1\n" : "");
        std::uint64_t number = 1;
        for (bool met = true; met && !HasFailure(); number += GetParam().step) {
            Shortage::begin(number, GetParam().count);
            const std::vector<Error> allowed = run(loopback);
            met = Shortage::seen >= number;
            runtime_.stop();
            Shortage::end_it();
            const State state = runtime_.snapshot_state();
            const Error error{state.error_code, state.error_detail};
            EXPECT_EQ(state.state, allowed.empty() ? TAVISTRO_STATE_STOPPED : TAVISTRO_STATE_FAILED)
                << "allocation " << number;
            EXPECT_TRUE(allowed.empty() || std::ranges::count(allowed, error))
                << "allocation " << number << " ends in error " << error[0] << ", " << error[1];
            const bool exhausted = std::ranges::count(ends_of_retries, error) > 0;
            EXPECT_TRUE(!exhausted ||
                        (state.event_count > 0 &&
                         state.events[state.event_count - 1].kind == TAVISTRO_EVENT_GAVE_UP))
                << "allocation " << number << " was not taken for a failed attempt";
            EXPECT_TRUE(connects() && runs(48000, 128)) << "after allocation " << number;
            runtime_.stop();
        }
        return number;
    }

    const std::string path_ = testing::TempDir() + "memory_" + std::to_string(getpid());
    const Learning learning_;
    ScriptedServer server_;
    const std::shared_ptr<DevicePanel> device_ = std::make_shared<DevicePanel>();
    EngineRuntime runtime_{[this] { return std::make_unique<TestDevice>(device_); }};
};

TEST_P(MemoryTest, RunsOutAndEndsARunAtMost) {
    EXPECT_GT(sweep(std::string_view(GetParam().device) == "Loopback"), few_allocations);
}

INSTANTIATE_TEST_SUITE_P(Failures, MemoryTest,
                         testing::Values(Failures{1, 1, "Device"}, Failures{20, 10, "Device"},
                                         Failures{1, 3, "Loopback"}, Failures{20, 10, "Loopback"}),
                         [](const auto& param) {
                             return param.param.device + std::to_string(param.param.count);
                         });

}  // namespace
}  // namespace tavistro::test
