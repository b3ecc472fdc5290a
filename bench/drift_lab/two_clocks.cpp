#include "bench/drift_lab/two_clocks.h"

#include <algorithm>
#include <limits>
#include <random>
#include <vector>

#include "audio/period_path.h"
#include "config/engine_config.h"
#include "net/capture_ring.h"
#include "net/delivery.h"

namespace tavistro::drift_lab {

namespace {

constexpr double never = std::numeric_limits<double>::infinity();

/// Uniform random values in [0, 1), identical with every standard library.
class Dice {
  public:
    explicit Dice(std::uint64_t seed) : generator_(seed) {}
    double roll() { return static_cast<double>(generator_() >> 11) * 0x1p-53; }
    double upto(double limit) { return limit > 0.0 ? roll() * limit : 0.0; }

  private:
    std::mt19937_64 generator_;
};

/// Random intervals of up to `longest`, `every` apart on average. Query it with increasing times.
class Spells {
  public:
    Spells(double every, double longest, std::uint64_t seed)
        : every_(every), longest_(longest), dice_(seed) {
        if (every_ <= 0.0)
            begin_ = end_ = never;
        else
            plan_after(0.0);
    }
    /// The end of the interval that contains `time`, or `time` itself if none does.
    double end_of(double time) {
        while (end_ <= time)
            plan_after(end_);
        return begin_ <= time ? end_ : time;
    }

  private:
    void plan_after(double time) {
        begin_ = time + dice_.upto(2.0 * every_);
        end_ = begin_ + dice_.upto(longest_);
    }

    double every_;
    double longest_;
    Dice dice_;
    double begin_ = 0.0;
    double end_ = 0.0;
};

class FillRecord {
  public:
    explicit FillRecord(double from) : from_(from) {}
    void take(double time, double blocks) {
        if (time < from_) return;
        sum_ += blocks;
        range_.least = count_ == 0 ? blocks : std::min(range_.least, blocks);
        range_.most = std::max(range_.most, blocks);
        ++count_;
    }
    FillRange result() const {
        FillRange result = range_;
        if (count_ != 0) result.mean = sum_ / static_cast<double>(count_);
        return result;
    }

  private:
    double from_;
    double sum_ = 0.0;
    std::uint64_t count_ = 0;
    FillRange range_;
};

/// Times of block arrivals and device periods, in periods of the device clock.
class Timetable {
  public:
    explicit Timetable(const Experiment& e)
        : way_(e.disturbance),
          server_period_(1.0 / (1.0 + e.server_faster_ppm * 1e-6)),
          bursts_(way_.burst_every, way_.burst_length, e.seed + 1),
          pauses_(way_.pause_every, way_.pause_length, e.seed + 2),
          arrival_dice_(e.seed + 3),
          wake_dice_(e.seed + 4) {}

    struct Arrival {
        double time;
        bool lost;
    };
    Arrival arrival(std::uint64_t block) {
        const double sent = static_cast<double>(block) * server_period_;
        const double due = sent + arrival_dice_.upto(way_.arrival_jitter);
        last_arrival_ = std::max(last_arrival_, pauses_.end_of(std::max(due, last_arrival_)));
        return {last_arrival_, bursts_.end_of(sent) != sent};
    }
    double wake(std::uint64_t period) {
        // Offset by half a block, so that arrivals and periods do not coincide.
        const double due = static_cast<double>(period) + 0.5;
        last_wake_ = std::max(last_wake_, due + wake_dice_.upto(way_.wake_jitter));
        return last_wake_;
    }

  private:
    Disturbance way_;
    double server_period_;
    Spells bursts_;
    Spells pauses_;
    Dice arrival_dice_;
    Dice wake_dice_;
    double last_arrival_ = 0.0;
    double last_wake_ = 0.0;
};

/// A client with one channel in each direction. The audio content does not matter.
class Client {
  public:
    Client(const Experiment& e, EngineConfig config, double settled)
        : format_(e),
          ring_(1, e.sample_rate, e.frames, config.client.capture_target_blocks,
                config.client.capture_capacity_blocks),
          ring_limit_(config.client.capture_capacity_blocks * e.frames),
          block_(e.frames, 0.25F),
          playback_fill_(settled),
          capture_fill_(settled) {
        config.audio.output_channel_map = config.audio.input_channel_map = {0};
        periods_.prepare(config.audio, e.sample_rate, e.frames, true);
    }

    void take_notice(std::uint64_t block, double time) {
        periods_.playback().drift().on_sync(block * format_.frames);
        hand_out_captured();
        capture_fill_.take(time, blocks(ring_.fill()));
        const bool sent = ring_.pull(format_.sample_rate, format_.frames, uplink_);
        ++(sent ? outcome_.uplink_sent : outcome_.uplink_short);
    }
    void take_block(std::uint64_t block) {
        const auto sequence = static_cast<std::uint32_t>(block);
        // Replace lost blocks with silence.
        const DeliveryTracker::Verdict verdict = delivery_.consult(sequence);
        for (std::uint32_t i = 0; i < verdict.missing; ++i)
            push(verdict.first_missing + i);
        push(sequence);
        hand_out_captured();
    }
    void run_period(double time) {
        playback_fill_.take(time, blocks(periods_.playback().fill()));
        periods_.count_period();
        periods_.follow_drift();
        periods_.render(0);
        periods_.loop_back(false);
        periods_.count_frames();
    }
    Outcome outcome() {
        outcome_.playback = playback_fill_.result();
        outcome_.capture = capture_fill_.result();
        outcome_.underruns = periods_.playback().counters().underruns;
        outcome_.overruns = periods_.playback().counters().overruns;
        return outcome_;
    }

  private:
    double blocks(std::uint64_t frames) const {
        return static_cast<double>(frames) / format_.frames;
    }
    void push(std::uint32_t sequence) {
        periods_.playback().push_block({.sequence = sequence,
                                        .sample_rate = format_.sample_rate,
                                        .frames = format_.frames,
                                        .channels = 1,
                                        .samples = block_});
    }
    void hand_out_captured() {
        while (periods_.take_captured(captured_)) {
            if (ring_.fill() + captured_.frames > ring_limit_) ++outcome_.capture_overflows;
            ring_.push(captured_.sample_rate, captured_.frames, captured_.channels,
                       captured_.samples, periods_.playback().drift().capture_ratio());
        }
    }

    const Experiment& format_;
    PeriodPath periods_;
    DeliveryTracker delivery_;
    CaptureRing ring_;
    std::uint64_t ring_limit_;
    std::vector<float> block_;
    std::vector<float> uplink_;
    CaptureSlot captured_;
    FillRecord playback_fill_;
    FillRecord capture_fill_;
    Outcome outcome_;
};

EngineConfig config_for(std::uint64_t latency_blocks) {
    EngineConfig config;
    config.client.client_latency_blocks = latency_blocks;
    apply_latency_derivation(config);
    return config;
}

}  // namespace

Outcome run(const Experiment& experiment) {
    const double seconds_per_period =
        static_cast<double>(experiment.frames) / experiment.sample_rate;
    const double end = experiment.hours * 3600.0 / seconds_per_period;
    Timetable timetable(experiment);
    Client client(experiment, config_for(experiment.latency_blocks), end / 2);

    std::uint64_t block = 0;
    std::uint64_t lost = 0;
    Timetable::Arrival arrival = timetable.arrival(block);
    for (std::uint64_t period = 0; static_cast<double>(period) < end; ++period) {
        const double wake = timetable.wake(period);
        for (; arrival.time <= wake; arrival = timetable.arrival(++block)) {
            if (arrival.lost) {
                ++lost;
                continue;
            }
            client.take_notice(block, arrival.time);
            client.take_block(block);
        }
        client.run_period(wake);
    }
    Outcome outcome = client.outcome();
    outcome.blocks_sent = block;
    outcome.blocks_lost = lost;
    return outcome;
}

std::optional<double> greatest_held_ppm(Experiment experiment, double highest_ppm,
                                        double step_ppm) {
    const double side = experiment.server_faster_ppm < 0.0 ? -step_ppm : step_ppm;
    const auto holds = [&](int steps) {
        experiment.server_faster_ppm = steps == 0 ? 0.0 : side * steps;
        return run(experiment).faultless();
    };
    if (!holds(0)) return {};
    int held = 0;
    for (int broken = static_cast<int>(highest_ppm / step_ppm) + 1; held + 1 < broken;) {
        const int middle = held + (broken - held) / 2;
        (holds(middle) ? held : broken) = middle;
    }
    return held == 0 ? 0.0 : side * held;
}

}  // namespace tavistro::drift_lab
