#include "bench/diagnosis_lab/device.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "bench/diagnosis_lab/virtual_system.h"

namespace tavistro::diagnosis_lab {

namespace {

constexpr std::int64_t frequency = 1'000'000'000;
constexpr double least_work_ns = 10'000;
constexpr double most_work_ns = 40'000;
constexpr std::uint64_t least_starve_limit = 3;

AudioDeviceSettings at_rate(AudioDeviceSettings settings, std::uint32_t rate) {
    settings.sample_rate = rate;
    return settings;
}

AudioDeviceSettings punctual(AudioDeviceSettings settings) {
    settings.loopback_callback_jitter_max_ms = 0;
    return settings;
}

}  // namespace

class Device::Card final : public AudioDevice {
  public:
    explicit Card(Device& device) : device_(device) {}

    bool open(const AudioDeviceSettings&, LogCallback, BufferSwitchCallback callback,
              void* context) override {
        device_.callback_ = callback;
        device_.context_ = context;
        buffer_size_ = device_.block_frames_;
        hardware_inputs_ = hardware_outputs_ = 1;
        sample_rate_ = device_.said_rate_;
        return true;
    }
    bool start() override { return true; }
    void close() override { device_.callback_ = nullptr; }
    void read_input(std::int32_t, std::int32_t, float* destination, std::int32_t frames) override {
        std::fill_n(destination, frames, 0.125F);
    }
    void write_output(std::int32_t, std::int32_t, const float* source, std::int32_t) override {
        device_.note_output(source != nullptr);
    }
    bool output_ready() override {
        device_.work();
        return true;
    }
    bool reset_requested() override { return false; }

  private:
    Device& device_;
};

Device::Device(const AudioDeviceSettings& audio, std::uint32_t card_rate, bool admits,
               std::int64_t start_ns, Computer& computer, std::uint64_t seed)
    : computer_(computer),
      dice_(seed, 30),
      said_rate_(admits ? card_rate : audio.sample_rate),
      block_frames_(audio.block_size),
      starve_limit_(std::max(audio.prebuffer_blocks, least_starve_limit)),
      clock_(punctual(at_rate(audio, card_rate)), frequency, start_ns),
      faults_(at_rate(audio, card_rate), frequency, start_ns),
      ready_(start_ns) {
    // The schedule's random sequence is fixed, so each seed starts at another position in it.
    for (std::uint64_t i = dice_.below(1000); i > 0; --i)
        faults_.next_wake();
    plan(start_ns);
}

std::unique_ptr<AudioDevice> Device::make_card() {
    return std::make_unique<Card>(*this);
}

void Device::plan(std::int64_t not_before) {
    for (;;) {
        deadline_ = clock_.next_wake();
        ready_ = std::max(ready_, faults_.next_wake());
        if (faults_.begin_period()) break;
        ++counts_.missed;
        advance(deadline_);
    }
    const std::int64_t due = ready_ + std::int64_t{faults_.stall_ms(ready_)} * 1'000'000;
    wakes_at_ = computer_.runs_at(
        Thread::device, std::max(not_before, due + computer_.draw_lateness(Thread::device)));
}

void Device::run_period() {
    const std::int64_t late = time_ns() - ready_;
    const std::uint32_t calls = 1 + faults_.duplicates();
    counts_.doubled += calls - 1;
    for (std::uint32_t i = 0; i < calls; ++i) {
        ++counts_.run;
        callback_(context_, std::exchange(half_, 1 - half_));
    }
    advance(deadline_ + late);
    const double passed = static_cast<double>(clock_.next_wake() - deadline_);
    counts_.missed += std::llround(passed / clock_.period_ticks()) - 1;
    plan(time_ns());
}

void Device::advance(std::int64_t now) {
    clock_.advance(now);
    faults_.advance(now);
}

void Device::work() {
    const auto work = static_cast<std::int64_t>(dice_.between(least_work_ns, most_work_ns));
    set_time_ns(computer_.done_at(Thread::device, time_ns(), work));
}

/// After starve_limit_ silent periods the playback buffer refills. Silent periods during the refill
/// are not underruns.
void Device::note_output(bool rendered) noexcept {
    if (rendered) {
        playing_ = true;
        starved_ = 0;
    } else if (playing_) {
        ++counts_.underruns;
        playing_ = ++starved_ < starve_limit_;
        if (!playing_) starved_ = 0;
    }
}

}  // namespace tavistro::diagnosis_lab
