// Complete runs of the engine with a scripted server and device. The clock runs, and the tests
// advance it so that pauses of seconds take milliseconds.
#include "engine/engine_runtime.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "audio/test_device.h"
#include "platform/clock.h"
#include "support/eventually.h"
#include "support/movable_clock.h"
#include "support/scripted_server.h"
#include "tools/readings/stats_reader.h"

namespace tavistro {
namespace {

using State = tavistro_engine_state;
using Pair = std::array<std::uint32_t, 2>;
using Triple = std::array<std::uint32_t, 3>;
/// kind, attempt, error_code, message
using Events = std::vector<std::array<std::uint32_t, 4>>;
using Wanted = std::function<bool(const State&)>;

/// Messages that are shown during a pause before the next attempt.
constexpr std::array<std::uint32_t, 3> pauses{TAVISTRO_MESSAGE_CLIENT_RETRY_WAIT,
                                              TAVISTRO_MESSAGE_ASIO_RETRY_WAIT,
                                              TAVISTRO_MESSAGE_RECOVERY_ATTEMPT_FAILED};

Triple status_of(const State& s) {
    return {s.status_level, s.status_category, s.status_message};
}
Pair error_of(const State& s) {
    return {s.error_code, s.error_detail};
}
Wanted in(tavistro_state_code code) {
    return [code](const State& s) { return s.state == code; };
}
Wanted shows(tavistro_message_id message) {
    return [message](const State& s) { return s.status_message == message; };
}
Wanted has_events(std::uint64_t count) {
    return [count](const State& s) { return s.next_event_sequence > count; };
}
/// The events in the record, oldest first. Expects the same subject and limit in all of them.
Events events_of(const State& state, std::uint32_t subject, std::uint32_t max_attempts) {
    Events events;
    for (const auto& e : std::span(state.events, state.event_count)) {
        EXPECT_EQ((Pair{e.subject, e.max_attempts}), (Pair{subject, max_attempts}));
        EXPECT_EQ(e.sequence, state.next_event_sequence - state.event_count + events.size());
        events.push_back({e.kind, e.attempt, e.error_code, e.message});
    }
    return events;
}

class EngineRuntimeTest : public testing::Test {
  protected:
    EngineRuntimeTest() {
        configure("");
        device_->at_close = [this] { closed_in_ = runtime_.snapshot_state().state; };
    }
    ~EngineRuntimeTest() override {
        runtime_.stop();
        test::call_at_readings(nullptr);
        unlink(path_.c_str());
    }

    /// `lines` continue the section [network] and may add more sections.
    void configure(const std::string& lines) {
        std::ofstream(path_) << "[asio]\ndriver_name=scripted\n[network]\nserver_ip=127.0.0.1\n"
                             << "server_port=" << server_.port() << "\nclient_id=" << id_ << "\n"
                             << lines;
    }
    bool start() {
        stats_.close();
        return runtime_.start(path_.c_str()) && test::eventually([&] { return stats_.open(id_); });
    }
    void connect_and_send(StreamFormat format = {48000, 128}) {
        ASSERT_TRUE(start());
        EXPECT_EQ(status_of(await(in(TAVISTRO_STATE_CONNECTED))), (Triple{3, 1, 8}));
        ++sessions_;
        server_.send_sync(44100, 0);  // not a format
        send_sync(format);
    }
    void run(StreamFormat format = {48000, 128}) {
        connect_and_send(format);
        const State state = await(in(TAVISTRO_STATE_RUNNING));
        EXPECT_EQ(status_of(state), (Triple{1, 0, 11}));
        EXPECT_EQ((StreamFormat{state.stream_sample_rate, state.stream_block_frames}), format);
        EXPECT_EQ(state.device_sample_rate, 0u) << "the device format is not known yet";
    }
    void send_sync(StreamFormat format) {
        format_ = format;
        send_sync();
    }
    void send_sync() {
        server_.send_sync(format_.sample_rate, static_cast<std::uint16_t>(format_.block_frames));
    }
    /// Stops a run that has not failed; returns the remaining error.
    Pair stop() {
        const auto begin = std::chrono::steady_clock::now();
        runtime_.stop();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(800));
        const State state = runtime_.snapshot_state();
        EXPECT_EQ(state.state, TAVISTRO_STATE_STOPPED);
        expect_end();
        return error_of(state);
    }
    /// Waits until the run has failed, then stops it.
    State await_failure(Pair error) {
        const State state = await(in(TAVISTRO_STATE_FAILED));
        EXPECT_EQ(error_of(state), error);
        expect_end();
        runtime_.stop();
        EXPECT_EQ(runtime_.snapshot_state().state, TAVISTRO_STATE_FAILED);
        return state;
    }
    void expect_end() {
        EXPECT_TRUE(test::eventually([&] { return server_.leaves == sessions_; }))
            << server_.leaves << " leaves for " << sessions_ << " sessions";
        EXPECT_EQ(device_.use_count(), 1) << "a device still exists";
        EXPECT_TRUE(test::eventually([&] {
            stats_.close();
            return !stats_.open(id_);
        })) << "the statistics block still exists";
    }

    /// Repeats `step` until the record is as wanted and the statistics block agrees. Shortens the
    /// pauses.
    State await(
        const Wanted& wanted, const std::function<void()>& step = [] {}) {
        for (int tries = 0; tries < 3000; ++tries) {
            const State state = runtime_.snapshot_state();
            if (wanted(state)) {
                expect_mirrored();
                return state;
            }
            if (std::ranges::count(pauses, state.status_message) > 0 &&
                std::exchange(passed_pause_, state.next_event_sequence) !=
                    state.next_event_sequence) {
                test::advance_clock_ms(850);  // most of the 1000 ms pause
            }
            step();
            platform::sleep_ms(2);
        }
        ADD_FAILURE() << "timed out at message " << runtime_.snapshot_state().status_message;
        return runtime_.snapshot_state();
    }
    void expect_mirrored() {
        EXPECT_TRUE(test::eventually(
            [&] {
                const auto block = stats_.read().value_or(tavistro_stats_block{});
                const State s = runtime_.snapshot_state();
                return block.state == s.state && block.error_code == s.error_code &&
                       block.client_id == s.client_id &&
                       block.stream_sample_rate == s.stream_sample_rate &&
                       block.stream_block_frames == s.stream_block_frames;
            },
            std::chrono::seconds(5)))
            << "the statistics block does not show state " << runtime_.snapshot_state().state;
    }
    /// A step for await(): advances the clock by one second and sends a sync notice, on which the
    /// player reports.
    void report() {
        test::advance_clock_ms(1000);
        send_sync();
    }
    /// Runs `periods` periods and lets the player report them; returns the state record.
    State report_of(std::uint32_t periods, const std::function<void()>& sync = {}) {
        for (std::uint32_t i = 0; i < periods; ++i)
            device_->period();
        test::advance_clock_ms(1000);
        sync ? sync() : send_sync();
        EXPECT_TRUE(test::eventually([&] { return stats_.read()->callbacks_per_sec == periods; }));
        platform::sleep_ms(10);  // the block is written before the record
        return runtime_.snapshot_state();
    }

    const std::uint32_t id_ = static_cast<std::uint32_t>(getpid());
    const std::string path_ = testing::TempDir() + "engine_runtime_" + std::to_string(id_);
    test::ScriptedServer server_;
    StreamFormat format_;
    std::uint64_t sessions_ = 0;
    std::uint64_t passed_pause_ = 0;  ///< next_event_sequence of the last shortened pause
    readings::StatsReader stats_;
    const std::shared_ptr<test::DevicePanel> device_ = std::make_shared<test::DevicePanel>();
    std::atomic<std::uint32_t> closed_in_{0};  ///< state at the last close of the device
    int devices_made_ = 0;
    EngineRuntime runtime_{[this] {
        if (!device_->exists) throw std::runtime_error("no device");
        ++devices_made_;
        return std::make_unique<test::TestDevice>(device_);
    }};
};

TEST_F(EngineRuntimeTest, ServerIsTriedTwelveTimesAndAnEarlierStopIsNoError) {
    configure("discovery_timeout_ms=300\n");
    server_.mute = true;
    ASSERT_TRUE(start());
    ASSERT_TRUE(test::eventually([&] { return server_.client().port != 0; })) << "no discover";
    EXPECT_EQ(stop(), (Pair{0, 0})) << "during discovery";
    configure("discovery_timeout_ms=50\n");
    ASSERT_TRUE(start());
    State state = await_failure({4, 16});
    EXPECT_EQ(state.next_event_sequence, 25u) << "12 failures, 11 retries, 1 final event";
    const Events events = events_of(state, 1, 12);
    EXPECT_EQ(Events(events.end() - 3, events.end()),
              (Events{{2, 12, 0, 39}, {3, 12, 4, 42}, {5, 12, 4, 49}}));
    EXPECT_GE(state.events[1].time_ms, state.events[0].time_ms + 1000) << "pause between attempts";

    ASSERT_TRUE(start());
    state = await(shows(TAVISTRO_MESSAGE_CLIENT_RETRY_WAIT));
    EXPECT_EQ(error_of(state), (Pair{4, 14}));
    server_.mute = false;
    state = await(in(TAVISTRO_STATE_CONNECTED));
    ++sessions_;
    EXPECT_EQ(error_of(state), (Pair{0, 0}));
    EXPECT_EQ(events_of(state, 1, 12).back()[3], TAVISTRO_MESSAGE_EVENT_CLIENT_RECOVERED);
    EXPECT_EQ(stop(), (Pair{5, 9})) << "while waiting for the stream format";
}

TEST_F(EngineRuntimeTest, DeviceOpenIsTriedTwelveTimes) {
    device_->refusals = 2;
    connect_and_send();
    State state = await(shows(TAVISTRO_MESSAGE_ASIO_RETRY_WAIT));
    EXPECT_EQ(error_of(state), (Pair{7, 17}));
    state = await(in(TAVISTRO_STATE_RUNNING), [&] { send_sync(); });
    EXPECT_EQ(status_of(state), (Triple{1, 0, 11}));
    EXPECT_EQ(error_of(state), (Pair{0, 0}));
    const Events expected{
        {3, 1, 7, 43}, {2, 2, 0, 40}, {3, 2, 7, 43}, {2, 3, 0, 40}, {4, 3, 0, 47}};
    EXPECT_EQ(events_of(state, 9, 12), expected);
    stop();
    EXPECT_EQ(closed_in_, TAVISTRO_STATE_STOPPING) << "the device closes before state \"stopped\"";

    device_->refusals = 14;
    connect_and_send();
    await(shows(TAVISTRO_MESSAGE_ASIO_RETRY_WAIT));
    EXPECT_EQ(stop(), (Pair{0, 0})) << "during the pause before the next device attempt";
    EXPECT_EQ(status_of(runtime_.snapshot_state()), (Triple{0, 0, 7}));
    connect_and_send();
    state = await_failure({7, 20});
    EXPECT_EQ(events_of(state, 9, 12).back(), (Events::value_type{5, 12, 7, 50}));
}

TEST_F(EngineRuntimeTest, PermanentErrorsEndTheRunWithoutRetries) {
    server_.version = 4;
    server_.mute = true;  // until start() has opened the statistics block
    configure("discovery_timeout_ms=50\n");
    ASSERT_TRUE(start());
    server_.mute = false;
    const State state = await_failure({11, 52});
    EXPECT_EQ(status_of(state), (Triple{4, 12, 52}));
    server_.version = TavistroProtocol::protocol_version;

    configure("[asio]\ninput_map=\n[test]\nloopback_device=1\n");
    connect_and_send();
    EXPECT_EQ(await_failure({7, 21}).event_count, 0u);
    configure("");
    device_->exists = false;
    connect_and_send();
    await_failure({7, 17});
    device_->exists = true;

    run();
    device_->refusals = 1;
    send_sync({96000, 64});
    EXPECT_EQ(await_failure({7, 17}).event_count, 0u) << "a format change has no retries";
}

TEST_F(EngineRuntimeTest, DeviceReportReachesTheStateRecord) {
    configure("[tavistro]\ndriver_inputs=5,4\ndriver_outputs=9\n[asio]\noutput_map=0\n");
    device_->input = 0.25F;
    device_->rate_error = -3900;
    run();
    const State state = report_of(2);
    EXPECT_EQ(status_of(state), (Triple{2, 3, 30}));
    EXPECT_EQ((Pair{state.device_sample_rate, state.device_block_frames}), (Pair{44100, 128}));
    EXPECT_EQ((Pair{state.input_meter_count, state.output_meter_count}), (Pair{2, 1}));
    const auto* const meters = state.input_meters;
    EXPECT_EQ((Pair{meters[0].channel, meters[0].peak_permille}), (Pair{5, 250}));
    EXPECT_EQ((Pair{meters[1].channel, meters[1].peak_permille}), (Pair{4, 500}));
}

TEST_F(EngineRuntimeTest, SyncLossShowsAfterThreeSecondsAndPreventsDeviceRecovery) {
    static std::atomic<int> readings{0};
    test::call_at_readings([] { ++readings; });
    const auto no_format = [&] { server_.send_sync(44100, 0); };
    run();
    report_of(1);
    test::advance_clock_ms(2500);
    ASSERT_TRUE(test::eventually([seen = readings + 8] { return readings > seen; }));
    EXPECT_EQ(runtime_.snapshot_state().status_message, TAVISTRO_MESSAGE_RUNNING);
    no_format();
    platform::sleep_ms(20);  // until it is handled: only the worker can set the next status
    test::advance_clock_ms(600);
    EXPECT_EQ(status_of(await(shows(TAVISTRO_MESSAGE_SYNC_LOST))), (Triple{3, 1, 28}));
    device_->faulty = true;
    const State state = report_of(2, no_format);
    EXPECT_EQ(state.event_count, 0u) << "no device recovery without a server";
    EXPECT_EQ(state.state, TAVISTRO_STATE_RUNNING);
    device_->faulty = false;
    EXPECT_EQ(report_of(1).status_message, TAVISTRO_MESSAGE_OUTPUT_READY_FAILURES);
}

TEST_F(EngineRuntimeTest, DeviceRecoveryGivesUpAfterThreeFailedAttempts) {
    run();
    EXPECT_EQ(report_of(1).device_sample_rate, 48000u);
    device_->refusals = 1;
    device_->faulty = true;
    await(has_events(1), [&] { report(); });
    for (int i = 0; i < 5; ++i) {
        report();  // during a pending recovery request
        platform::sleep_ms(5);
    }
    State state = await(shows(TAVISTRO_MESSAGE_DEVICE_RECOVERED), [&] { send_sync(); });
    EXPECT_EQ(state.state, TAVISTRO_STATE_RUNNING);
    EXPECT_EQ(error_of(state), (Pair{0, 0}));
    EXPECT_EQ(state.device_sample_rate, 0u) << "the new device's format is not known yet";
    const Events reset{{1, 1, 0, 38}, {2, 1, 0, 41}, {3, 1, 7, 44}, {2, 2, 0, 41}, {4, 2, 0, 48}};
    EXPECT_EQ(events_of(state, 10, 3), reset);
    EXPECT_EQ(devices_made_, 3);
    EXPECT_EQ(report_of(1).status_message, TAVISTRO_MESSAGE_RUNNING);

    device_->refusals = 3;
    await(has_events(6), [&] { report(); });
    state = await_failure({7, 23});
    EXPECT_EQ(events_of(state, 2, 3).back(), (Events::value_type{5, 3, 7, 51}));
    EXPECT_GE(state.events[3].time_ms, state.events[2].time_ms + 1000) << "pause between attempts";
}

TEST_F(EngineRuntimeTest, EveryStartOfTheAudioPathResetsTheCounters) {
    const std::function<void()> restarts[] = {
        [&] {
            EXPECT_FALSE(runtime_.start(path_.c_str())) << "during a run";
            EXPECT_EQ(error_of(runtime_.snapshot_state()), (Pair{2, 2}));
            send_sync({48000, 256});
            const State state = await([](const State& s) {
                return s.state == TAVISTRO_STATE_RUNNING && s.stream_block_frames == 256 &&
                       s.error_code == 0;
            });
            EXPECT_EQ(status_of(state), (Triple{1, 0, 11}));
        },
        [&] {
            device_->faulty = true;
            // The event, as the next report replaces the status.
            await(
                [](const State& s) {
                    return s.state == TAVISTRO_STATE_RUNNING && s.event_count > 0 &&
                           s.events[s.event_count - 1].message ==
                               TAVISTRO_MESSAGE_EVENT_DEVICE_RECOVERED;
                },
                [&] { report(); });
        },
        [&] {
            send_sync({44100, 64});  // a format change just before the stop
            platform::sleep_ms(10);
            stop();
            const int made = devices_made_;
            run();
            platform::sleep_ms(10);
            EXPECT_EQ(devices_made_, made + 1);
        }};
    run();
    for (const auto& restart : restarts) {
        EXPECT_EQ(report_of(10).status_message, TAVISTRO_MESSAGE_CAPTURE_DROPS);
        restart();
        EXPECT_EQ(report_of(1).status_message, TAVISTRO_MESSAGE_RUNNING);
    }
}

TEST_F(EngineRuntimeTest, RunStoppedDuringARecoveryLeavesNoStateForTheNext) {
    run();
    report_of(3);
    device_->refusals = 2;
    device_->faulty = true;
    await(shows(TAVISTRO_MESSAGE_RECOVERY_ATTEMPT_FAILED), [&] { report(); });
    stop();
    ASSERT_TRUE(runtime_.start("no such file"));
    ASSERT_TRUE(
        test::eventually([&] { return in(TAVISTRO_STATE_FAILED)(runtime_.snapshot_state()); }));
    const State empty = runtime_.snapshot_state();
    EXPECT_EQ(error_of(empty), (Pair{3, 5}));
    EXPECT_EQ((std::array{empty.client_id, empty.stream_sample_rate, empty.device_sample_rate,
                          empty.event_count}),
              (std::array<std::uint32_t, 4>{}));
    runtime_.stop();

    device_->refusals = 0;
    run({96000, 64});
    EXPECT_EQ(report_of(1).event_count, 0u);
    device_->faulty = true;
    const Events first = events_of(await(has_events(1), [&] { report(); }), 10, 3);
    EXPECT_EQ(first.front(), (Events::value_type{1, 1, 0, 38}));
}

}  // namespace
}  // namespace tavistro
