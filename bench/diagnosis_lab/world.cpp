#include "bench/diagnosis_lab/world.h"

#include <algorithm>
#include <array>
#include <limits>
#include <queue>
#include <utility>

#include "bench/diagnosis_lab/client.h"
#include "bench/diagnosis_lab/line.h"
#include "bench/diagnosis_lab/virtual_system.h"
#include "tools/monitor/tally.h"
#include "tools/server/block_schedule.h"
#include "tools/server/skewed_clock.h"

namespace tavistro::diagnosis_lab {

namespace {

constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t start_ns = 1'000'000'000'000;  // not 0, which means "unknown"
constexpr std::int64_t ping_tick_ns = 50'000'000;
constexpr std::int64_t moment_ns = 250'000'000;
constexpr std::int64_t sample_ns = 1'000'000'000;
constexpr std::int64_t least_silence_ns = 1'000'000'000;
constexpr std::int64_t epoch_ms = 1'700'000'000'000;
constexpr std::int64_t answer_ns = 20'000;  // from a ping's arrival at the server to its answer
constexpr double longest_offset_ms = 1e8;
constexpr std::uint64_t most_blocks_before = 1'000'000;

std::int64_t ns(double seconds) {
    return static_cast<std::int64_t>(seconds * 1e9);
}
std::int64_t sample_time_ms(std::int64_t time) {
    return epoch_ms + time / 1'000'000;
}

/// A datagram on its way to the client. It is encoded when it is received.
struct Flight {
    enum class Kind : std::uint8_t { notice, block, pong };

    std::int64_t due_ns = 0;
    std::uint64_t order = 0;  ///< order of sending, for equal due times
    std::uint64_t index = 0;  ///< of the block, or of the pong
    std::uint64_t server_time_ns = 0;
    Kind kind{};

    friend bool operator>(const Flight& a, const Flight& b) noexcept {
        return a.due_ns != b.due_ns ? a.due_ns > b.due_ns : a.order > b.order;
    }
};

/// A ping on its way to the server.
struct Question {
    std::int64_t due_ns;
    TavistroProtocol::Ping ping;
};

class World {
  public:
    explicit World(const Scenario& scenario);
    Recording run();

  private:
    enum Event { send_block, answer_ping, receive, run_period, tick, look, note, event_count };

    std::int64_t& next(Event event) { return next_[event]; }
    void happen(Event event);

    void on_send_block();
    void on_answer_ping();
    void on_receive();
    void on_look();
    void on_note();
    void ask_server(const TavistroProtocol::Ping& ping);
    void depart(Line& line, Flight flight);
    void plan_receive();
    void plan_answer();
    void finish();
    TavistroProtocol::SyncInfo notice_of(std::uint64_t index, std::uint64_t server_time_ns) const;
    Counts counts() const;

    const Scenario& scenario_;
    std::int64_t first_look_ns_;
    std::int64_t end_ns_;
    Dice dice_;
    Computer computer_;
    std::uint64_t
        blocks_before_;  ///< sent before the engine's start; the faults' block index includes them
    std::uint32_t first_sequence_;
    server::SkewedClock clock_;
    server::BlockSchedule schedule_;
    Line blocks_;
    Line answers_;
    Line questions_;
    Client client_;
    monitor::Tally tally_;

    std::array<std::int64_t, event_count> next_;
    std::priority_queue<Flight, std::vector<Flight>, std::greater<>> flights_;
    std::uint64_t departures_ = 0;
    std::vector<Question> asked_;
    std::vector<TavistroProtocol::Pong> pongs_;
    std::int64_t receive_free_ns_ = start_ns;  ///< when the receive thread is ready again
    std::int64_t receive_lateness_ns_ = 0;     ///< of the receive thread's next wake-up
    std::int64_t last_heard_ns_ = start_ns;
    std::int64_t silence_ns_ = 0;
    std::int64_t look_due_ns_ = 0;
    std::int64_t next_sample_ns_ = 0;
    std::int64_t latest_look_ns_ = 0;  ///< largest lateness of a look since the previous sample
    Recording recording_;
};

World::World(const Scenario& scenario)
    : scenario_(scenario),
      first_look_ns_(start_ns + ns(scenario.watched_after_s)),
      end_ns_(first_look_ns_ + ns(scenario.watched_for_s)),
      dice_(scenario.seed, 50),
      computer_(scenario.load, start_ns, end_ns_, scenario.seed),
      blocks_before_(dice_.below(most_blocks_before)),
      first_sequence_(static_cast<std::uint32_t>(dice_.bits())),
      clock_(start_ns,
             static_cast<std::int64_t>(dice_.between(-longest_offset_ms, longest_offset_ms)),
             scenario.faults.drift_ppm),
      schedule_(scenario.format,
                clock_.to_server(start_ns) + static_cast<std::uint64_t>(dice_.below(20'000'000)),
                first_sequence_),
      blocks_(scenario.faults, scenario.format, scenario.delay_ns, scenario.net_jitter_ns,
              mixed(scenario.seed, 51)),
      answers_(scenario.faults, scenario.format, scenario.delay_ns, scenario.net_jitter_ns,
               mixed(scenario.seed, 52)),
      questions_(scenario.faults, scenario.format, scenario.delay_ns, scenario.net_jitter_ns,
                 mixed(scenario.seed, 53)),
      client_(scenario, computer_, start_ns + static_cast<std::int64_t>(dice_.below(20'000'000)),
              first_sequence_, [this](const auto& ping) { ask_server(ping); }) {
    next_.fill(never);
    next(send_block) = static_cast<std::int64_t>(clock_.to_local(schedule_.next().time_ns));
    next(run_period) = client_.device().wakes_at();
    next(tick) = start_ns;
    look_due_ns_ = next_sample_ns_ = first_look_ns_;
    next(look) = computer_.runs_at(Thread::monitor, first_look_ns_);
    next(note) = start_ns;
    receive_lateness_ns_ = computer_.draw_lateness(Thread::receive);
    const auto seconds = static_cast<std::size_t>((end_ns_ - start_ns) / sample_ns);
    recording_.samples.reserve(seconds + 2);
    recording_.moments.reserve(4 * seconds + 8);
}

Recording World::run() {
    for (;;) {
        auto* const first = std::ranges::min_element(next_);
        if (*first >= end_ns_) break;
        set_time_ns(*first);
        happen(static_cast<Event>(first - next_.begin()));
    }
    set_time_ns(end_ns_);
    on_note();
    finish();
    return std::move(recording_);
}

void World::happen(Event event) {
    switch (event) {
        case send_block:
            return on_send_block();
        case answer_ping:
            return on_answer_ping();
        case receive:
            return on_receive();
        case run_period:
            client_.device().run_period();
            next(run_period) = client_.device().wakes_at();
            return;
        case tick:
            client_.ping_tick();
            next(tick) =
                computer_.runs_at(Thread::periodic, time_ns() + ping_tick_ns +
                                                        computer_.draw_lateness(Thread::periodic));
            return;
        case look:
            return on_look();
        case note:
            return on_note();
        case event_count:
            return;
    }
}

void World::on_send_block() {
    const server::BlockStamp block = schedule_.next();
    const std::uint64_t index = blocks_before_ + block.index;
    if (!server::sync_is_paused(scenario_.faults, scenario_.format, index))
        depart(
            blocks_,
            {.index = block.index, .server_time_ns = block.time_ns, .kind = Flight::Kind::notice});
    depart(blocks_, {.index = block.index, .kind = Flight::Kind::block});
    schedule_.advance();
    next(send_block) = static_cast<std::int64_t>(clock_.to_local(schedule_.next().time_ns));
}

/// Sends one datagram of the server. While the server is silent, the random faults are still drawn,
/// so that later datagrams meet the same faults as without the silence.
void World::depart(Line& line, Flight flight) {
    const std::uint64_t index = schedule_.next().index;
    const Arrival arrival = line.send(blocks_before_ + index, time_ns());
    const std::int64_t silent_from = first_look_ns_ + ns(scenario_.silent_from_s);
    const bool silent = scenario_.silent_for_s > 0 && time_ns() >= silent_from &&
                        time_ns() < silent_from + ns(scenario_.silent_for_s);
    if (silent) {
        if (flight.kind == Flight::Kind::block) client_.note_unsent(index);
        return;
    }
    for (unsigned copy = 0; copy < arrival.copies; ++copy) {
        flight.due_ns = arrival.at_ns;
        flight.order = departures_++;
        flights_.push(flight);
    }
    plan_receive();
}

void World::ask_server(const TavistroProtocol::Ping& ping) {
    const Arrival arrival = questions_.send(blocks_before_ + schedule_.next().index, time_ns());
    for (unsigned copy = 0; copy < arrival.copies; ++copy)
        asked_.push_back({arrival.at_ns, ping});
    plan_answer();
}

void World::plan_answer() {
    const auto first = std::ranges::min_element(asked_, {}, &Question::due_ns);
    next(answer_ping) = first == asked_.end() ? never : first->due_ns;
}

void World::on_answer_ping() {
    const auto first = std::ranges::min_element(asked_, {}, &Question::due_ns);
    const TavistroProtocol::Ping ping = first->ping;
    asked_.erase(first);
    const auto now = static_cast<std::uint64_t>(time_ns());
    pongs_.push_back({.client_id = ping.client_id,
                      .nonce = ping.nonce,
                      .t1_ns = ping.t1_ns,
                      .t2_ns = clock_.to_server(now),
                      .t3_ns = clock_.to_server(now + answer_ns)});
    set_time_ns(time_ns() + answer_ns);
    depart(answers_, {.index = pongs_.size() - 1, .kind = Flight::Kind::pong});
    plan_answer();
}

/// The receive thread sleeps when no datagram is waiting.
void World::plan_receive() {
    if (flights_.empty()) {
        next(receive) = never;
        return;
    }
    const std::int64_t due = flights_.top().due_ns;
    const std::int64_t ready =
        due <= receive_free_ns_ ? receive_free_ns_ : due + receive_lateness_ns_;
    next(receive) = computer_.runs_at(Thread::receive, ready);
}

void World::on_receive() {
    const Flight flight = flights_.top();
    flights_.pop();
    if (flight.due_ns > receive_free_ns_)
        receive_lateness_ns_ = computer_.draw_lateness(Thread::receive);
    const std::int64_t quiet_ns = time_ns() - last_heard_ns_;
    if (quiet_ns > least_silence_ns) silence_ns_ += quiet_ns;
    last_heard_ns_ = time_ns();
    switch (flight.kind) {
        case Flight::Kind::notice:
            client_.take_notice(notice_of(flight.index, flight.server_time_ns));
            break;
        case Flight::Kind::block:
            client_.take_block(flight.index);
            break;
        case Flight::Kind::pong:
            client_.take_pong(pongs_[flight.index]);
            break;
    }
    receive_free_ns_ = time_ns();
    plan_receive();
}

TavistroProtocol::SyncInfo World::notice_of(std::uint64_t index,
                                            std::uint64_t server_time_ns) const {
    return {.sequence = first_sequence_ + static_cast<std::uint32_t>(index),
            .sample_rate = scenario_.format.sample_rate,
            .block_frames = scenario_.format.frames,
            .server_frame_position = index * scenario_.format.frames,
            .server_time_ns = server_time_ns};
}

void World::on_look() {
    const std::int64_t now = time_ns();
    const std::int64_t overslept = now - look_due_ns_;
    const auto block = published_block();
    tally_.look(now / 1000, overslept / 1000, *block);
    latest_look_ns_ = std::max(latest_look_ns_, overslept);
    recording_.last_look = counts();
    if (recording_.samples.empty()) recording_.first_look = recording_.last_look;
    if (now >= next_sample_ns_) {
        recording_.samples.push_back(
            {.time_ms = sample_time_ms(now),
             .client_id = block->client_id,
             .presence = monitor::Presence::alive,
             .host_late_us = static_cast<std::uint32_t>(latest_look_ns_ / 1000),
             .stats = block,
             .totals = tally_.totals()});
        latest_look_ns_ = 0;
        next_sample_ns_ += sample_ns;
    }
    look_due_ns_ = std::max(tally_.next_look_us() * 1000, now + 1);
    next(look) =
        computer_.runs_at(Thread::monitor, look_due_ns_ + computer_.draw_lateness(Thread::monitor));
}

void World::on_note() {
    recording_.moments.push_back({sample_time_ms(time_ns()), counts()});
    next(note) = time_ns() + moment_ns;
}

Counts World::counts() const {
    Counts counts = client_.counts();
    const std::int64_t quiet_ns = time_ns() - last_heard_ns_;
    counts.silence_ms = (silence_ns_ + (quiet_ns > least_silence_ns ? quiet_ns : 0)) / 1'000'000;
    return counts;
}

/// Makes both halves of the engine report their final counts. A report needs a second and an event
/// after it.
void World::finish() {
    while (!flights_.empty()) {
        set_time_ns(std::max(time_ns(), next(receive)));
        on_receive();
    }
    const std::int64_t recoveries = client_.engine_counts().recoveries_wanted;
    const server::BlockStamp block = schedule_.next();
    set_time_ns(time_ns() + sample_ns);
    client_.take_block(block.index);
    set_time_ns(time_ns() + sample_ns);
    client_.take_notice(notice_of(block.index, block.time_ns));
    recording_.last = client_.counts();
    recording_.last.silence_ms = recording_.moments.back().counts.silence_ms;
    recording_.engine = client_.engine_counts();
    recording_.engine.recoveries_wanted =
        recoveries;  // excludes those caused by the missing periods here
}

}  // namespace

const Counts& Recording::counts_at(std::int64_t time_ms) const {
    const auto after = std::ranges::upper_bound(moments, time_ms, {}, &Moment::time_ms);
    return after == moments.begin() ? moments.front().counts : std::prev(after)->counts;
}

std::string Recording::disagreement() const {
    std::string text;
    const auto compare = [&](const char* what, std::int64_t ours, std::int64_t engines) {
        if (ours == engines) return;
        text += text.empty() ? "" : ", ";
        text.append(what).append(" ").append(std::to_string(ours));
        text.append(" but the engine counted ").append(std::to_string(engines));
    };
    compare("blocks received", last.received, engine.received);
    compare("blocks late or again", last.late + last.came_again, engine.repeated);
    compare("notices", last.timed_notices(), engine.notices);
    compare("blocks handed out", last.blocks(), engine.queued + engine.dropped);
    compare("blocks dropped", last.refused + last.overruns, engine.dropped);
    compare("periods", last.periods, engine.periods);
    compare("underruns", last.underruns, engine.underruns);
    compare("recoveries", 0, engine.recoveries_wanted);
    return text;
}

Recording simulate(const Scenario& scenario) {
    set_time_ns(start_ns);
    return World(scenario).run();
}

}  // namespace tavistro::diagnosis_lab
