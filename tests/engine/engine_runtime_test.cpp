// Whole runs of the engine against a server and a device that follow the test's script. Time runs
// on and is pushed forward by the test, so that pauses of seconds pass in milliseconds.
#include "engine/engine_runtime.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "audio/test_device.h"
#include "platform/clock.h"
#include "support/eventually.h"
#include "support/movable_clock.h"
#include "support/scripted_server.h"

namespace tavistro {
namespace {

using State = tavistro_engine_state;
using Pair = std::array<std::uint32_t, 2>;
using Triple = std::array<std::uint32_t, 3>;
/// kind, attempt, error_code, message
using Events = std::vector<std::array<std::uint32_t, 4>>;

Triple status_of(const State& s) {
    return {s.status_level, s.status_category, s.status_message};
}
Pair error_of(const State& s) {
    return {s.error_code, s.error_detail};
}
using Wanted = std::function<bool(const State&)>;
Wanted in(tavistro_state_code code) {
    return [code](const State& s) { return s.state == code; };
}
Wanted shows(tavistro_message_id message) {
    return [message](const State& s) { return s.status_message == message; };
}
/// The newest ones, oldest first. All must be about one subject and have one limit.
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
    EngineRuntimeTest() { configure(""); }
    ~EngineRuntimeTest() override {
        runtime_.stop();
        unlink(path_.c_str());
    }

    /// `lines` belong to the section [network]; more sections may come with them.
    void configure(const std::string& lines) {
        std::ofstream(path_) << "[asio]\ndriver_name=scripted\n[network]\nserver_ip=127.0.0.1\n"
                             << "server_port=" << server_.port() << "\nclient_id=" << getpid()
                             << "\n"
                             << lines;
    }
    bool start() { return runtime_.start(path_.c_str()); }
    void start_with_stream() {
        ASSERT_TRUE(start());
        EXPECT_EQ(status_of(await(in(TAVISTRO_STATE_CONNECTED))), (Triple{3, 1, 8}));
        server_.send_sync(44100, 0);  // not a format
        server_.send_sync(48000, 128);
    }
    /// Ends a run that has not failed; the error that is left.
    Pair stop() {
        runtime_.stop();
        EXPECT_EQ(runtime_.snapshot_state().state, TAVISTRO_STATE_STOPPED);
        return error_of(runtime_.snapshot_state());
    }
    /// Waits for the end of a run that fails, and stops it.
    State await_failure(Pair error) {
        const State state = await(in(TAVISTRO_STATE_FAILED));
        EXPECT_EQ(error_of(state), error);
        runtime_.stop();
        EXPECT_EQ(runtime_.snapshot_state().state, TAVISTRO_STATE_FAILED);
        return state;
    }

    /// Takes `step` again and again until the record is as wanted; cuts the pauses short.
    State await(
        const Wanted& wanted, const std::function<void()>& step = [] {}) {
        for (int tries = 0; tries < 10'000; ++tries) {
            const State state = runtime_.snapshot_state();
            if (wanted(state)) return state;
            cut_pause_short(state);
            step();
            platform::sleep_ms(2);
        }
        ADD_FAILURE() << "in vain: message " << runtime_.snapshot_state().status_message;
        return runtime_.snapshot_state();
    }
    /// Moves the time on once for each pause, by the most of its second.
    void cut_pause_short(const State& state) {
        const bool pausing = state.status_message == TAVISTRO_MESSAGE_CLIENT_RETRY_WAIT ||
                             state.status_message == TAVISTRO_MESSAGE_ASIO_RETRY_WAIT ||
                             state.status_message == TAVISTRO_MESSAGE_RECOVERY_ATTEMPT_FAILED;
        if (!pausing || state.next_event_sequence == passed_pause_) return;
        passed_pause_ = state.next_event_sequence;
        test::advance_clock_ms(850);
    }
    /// A step: lets the player report, once for each second in which the server is heard.
    void report() {
        test::advance_clock_ms(1000);
        server_.send_sync(48000, 128);
    }

    const std::string path_ = testing::TempDir() + "engine_runtime_" + std::to_string(getpid());
    std::uint64_t passed_pause_ = 0;  ///< next_event_sequence during it
    test::ScriptedServer server_;
    const std::shared_ptr<test::DevicePanel> device_ = std::make_shared<test::DevicePanel>();
    int devices_made_ = 0;
    EngineRuntime runtime_{[this] {
        if (!device_->exists) throw std::runtime_error("no device");
        ++devices_made_;
        return std::make_unique<test::TestDevice>(device_);
    }};
};

/// What the record shows just before each event; the time of an event is read first.
class EventOrder : public EngineRuntimeTest {
  protected:
    EventOrder() {
        order = this;
        test::call_at_readings([] {
            const State state = order->runtime_.snapshot_state();
            const std::lock_guard lock(order->mutex_);
            order->before_[state.next_event_sequence] = state;
        });
    }
    ~EventOrder() override {
        runtime_.stop();
        test::call_at_readings(nullptr);
    }

    std::array<std::uint32_t, 6> before(std::uint64_t event) {
        const std::lock_guard lock(mutex_);
        const State& s = before_[event];
        return {s.state,        s.error_code,      s.error_detail,
                s.status_level, s.status_category, s.status_message};
    }

  private:
    static inline EventOrder* order = nullptr;
    std::mutex mutex_;
    std::map<std::uint64_t, State> before_;
};

TEST_F(EventOrder, each_event_comes_between_what_it_follows_and_what_it_announces) {
    using Shown = std::array<std::uint32_t, 6>;
    configure("discovery_timeout_ms=1\n");
    server_.mute = true;
    ASSERT_TRUE(start());
    await_failure({4, 16});
    EXPECT_EQ(before(1), (Shown{1, 0, 0, 3, 0, 3})) << "the first failure";
    EXPECT_EQ(before(2), (Shown{1, 4, 14, 3, 1, 15})) << "the next attempt";
    EXPECT_EQ(before(23), (Shown{1, 4, 14, 3, 1, 13})) << "the last failure";
    EXPECT_EQ(before(24), (Shown{1, 4, 14, 3, 1, 13})) << "giving up";

    server_.mute = false;
    configure("");
    device_->refusals = 1;
    start_with_stream();
    await(in(TAVISTRO_STATE_RUNNING));
    EXPECT_EQ(before(1), (Shown{2, 7, 17, 4, 0, 17})) << "a device that failed";
    EXPECT_EQ(before(2), (Shown{4, 7, 17, 3, 9, 19})) << "its next attempt";
    EXPECT_EQ(before(3), (Shown{4, 0, 0, 3, 9, 18})) << "its success";

    device_->refusals = 1;
    device_->faulty = true;
    await([](const State& s) { return s.event_count > 3; }, [&] { report(); });
    await(shows(TAVISTRO_MESSAGE_DEVICE_RECOVERED), [&] { server_.send_sync(48000, 128); });
    EXPECT_EQ(before(8), (Shown{4, 0, 0, 3, 10, 24})) << "a recovery";
}

TEST_F(EngineRuntimeTest, a_stream_that_comes_before_the_stop_is_noticed_wins_over_it) {
    configure("discovery_timeout_ms=5000\n");
    bool won = false;
    for (int round = 0; round < 50 && !won; ++round) {
        server_.mute = true;
        server_.held = false;
        ASSERT_TRUE(start());
        ASSERT_TRUE(test::eventually([&] { return server_.held.load(); }));
        std::thread stopper([&] { runtime_.stop(); });
        platform::sleep_ms(5);  // until the stop is requested, while the client waits for an answer
        server_.answer_held();
        for (int i = 0; i < 20; ++i)
            server_.send_sync(48000, 128);
        stopper.join();
        const State state = runtime_.snapshot_state();
        EXPECT_EQ(state.state, TAVISTRO_STATE_STOPPED);
        won = state.stream_sample_rate == 48000;
        EXPECT_EQ(error_of(state), won ? (Pair{0, 0}) : (Pair{5, 9}));
    }
    EXPECT_TRUE(won) << "a stop was noticed first in every round";
}

TEST_F(EngineRuntimeTest, a_server_is_tried_twelve_times_and_used_when_it_comes_late) {
    configure("discovery_timeout_ms=1\n");
    server_.mute = true;
    ASSERT_TRUE(start());
    State state = await_failure({4, 16});
    EXPECT_EQ(state.next_event_sequence, 25u) << "12 failures, 11 retries, 1 giving up";
    const Events last{{3, 9, 4, 42},  {2, 10, 0, 39}, {3, 10, 4, 42}, {2, 11, 0, 39},
                      {3, 11, 4, 42}, {2, 12, 0, 39}, {3, 12, 4, 42}, {5, 12, 4, 49}};
    EXPECT_EQ(events_of(state, 1, 12), last);
    EXPECT_GE(state.events[1].time_ms, state.events[0].time_ms + 1000) << "a pause in between";

    configure("discovery_timeout_ms=200\n");
    ASSERT_TRUE(start());
    await(in(TAVISTRO_STATE_STARTING));
    EXPECT_EQ(stop(), (Pair{0, 0})) << "while asking for the server";
    ASSERT_TRUE(start());
    state = await(shows(TAVISTRO_MESSAGE_CLIENT_RETRY_WAIT));
    EXPECT_EQ(error_of(state), (Pair{4, 14}));
    server_.mute = false;
    state = await(in(TAVISTRO_STATE_CONNECTED));
    EXPECT_EQ(error_of(state), (Pair{0, 0}));
    EXPECT_EQ(events_of(state, 1, 12).back()[3], TAVISTRO_MESSAGE_EVENT_CLIENT_RECOVERED);
    EXPECT_FALSE(start()) << "a run is on";
    EXPECT_EQ(error_of(runtime_.snapshot_state()), (Pair{2, 2}));
    EXPECT_EQ(stop(), (Pair{5, 9})) << "while waiting for the stream format";
}

TEST_F(EngineRuntimeTest, a_device_is_tried_until_it_opens_but_no_more_than_twelve_times) {
    device_->refusals = 2;
    start_with_stream();
    State state = await(shows(TAVISTRO_MESSAGE_ASIO_RETRY_WAIT));
    EXPECT_EQ(error_of(state), (Pair{7, 17}));
    state = await(in(TAVISTRO_STATE_RUNNING));
    EXPECT_EQ(status_of(state), (Triple{1, 0, 11}));
    const Events expected{
        {3, 1, 7, 43}, {2, 2, 0, 40}, {3, 2, 7, 43}, {2, 3, 0, 40}, {4, 3, 0, 47}};
    EXPECT_EQ(events_of(state, 9, 12), expected);
    stop();

    device_->refusals = 13;
    start_with_stream();
    await(shows(TAVISTRO_MESSAGE_ASIO_RETRY_WAIT));
    EXPECT_EQ(stop(), (Pair{0, 0})) << "while pausing for the device";
    EXPECT_EQ(status_of(runtime_.snapshot_state()), (Triple{0, 0, 7}));
    start_with_stream();
    state = await_failure({7, 20});
    EXPECT_EQ(state.next_event_sequence, 25u);
    EXPECT_EQ(events_of(state, 9, 12).back(), (Events::value_type{5, 12, 7, 50}));
}

TEST_F(EngineRuntimeTest, what_no_retry_mends_ends_the_run_at_once) {
    server_.version = 4;
    ASSERT_TRUE(start());
    const State state = await_failure({11, 52});
    EXPECT_EQ(status_of(state), (Triple{4, 12, 52}));
    EXPECT_EQ(state.event_count, 0u);
    server_.version = TavistroProtocol::protocol_version;

    configure("[asio]\ninput_map=\n[test]\nloopback_device=1\n");
    start_with_stream();
    EXPECT_EQ(await_failure({7, 21}).event_count, 0u);
    configure("");
    device_->exists = false;
    start_with_stream();
    await_failure({7, 17});
    device_->exists = true;

    start_with_stream();
    await(in(TAVISTRO_STATE_RUNNING));
    device_->refusals = 1;
    server_.send_sync(96000, 64);
    EXPECT_EQ(await_failure({7, 17}).event_count, 0u) << "a change of format is tried once";
}

TEST_F(EngineRuntimeTest, a_device_is_restarted_but_given_up_after_three_failures) {
    start_with_stream();
    await(in(TAVISTRO_STATE_RUNNING));
    server_.send_sync(44100, 0);
    device_->refusals = 1;
    device_->faulty = true;
    await([](const State& s) { return s.event_count > 0; }, [&] { report(); });
    State state =
        await(shows(TAVISTRO_MESSAGE_DEVICE_RECOVERED), [&] { server_.send_sync(48000, 128); });
    EXPECT_EQ(state.state, TAVISTRO_STATE_RUNNING);
    EXPECT_EQ(error_of(state), (Pair{0, 0}));
    const Events reset{{1, 1, 0, 38}, {2, 1, 0, 41}, {3, 1, 7, 44}, {2, 2, 0, 41}, {4, 2, 0, 48}};
    EXPECT_EQ(events_of(state, 10, 3), reset);
    EXPECT_EQ(devices_made_, 3);
    await(shows(TAVISTRO_MESSAGE_RUNNING), [&] { report(); });

    device_->refusals = 3;
    device_->period();  // the last one
    await([](const State& s) { return s.next_event_sequence > 6; }, [&] { report(); });
    state = await_failure({7, 23});
    const Events stall{{1, 1, 0, 38}, {2, 1, 0, 41}, {3, 1, 7, 44}, {2, 2, 0, 41},
                       {3, 2, 7, 44}, {2, 3, 0, 41}, {3, 3, 7, 44}, {5, 3, 7, 51}};
    EXPECT_EQ(events_of(state, 2, 3), stall);
    EXPECT_GE(state.events[3].time_ms, state.events[2].time_ms + 1000) << "a pause in between";
}

}  // namespace
}  // namespace tavistro
