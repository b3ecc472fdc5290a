#include "audio/period_path.h"

#include <algorithm>

#include "audio/atomic_maximum.h"
#include "audio/scaled_ticks.h"
#include "platform/clock.h"

namespace tavistro {

namespace {

/// Truncates to whole Hz and saturates.
std::uint32_t truncated_rate(double rate) noexcept {
    constexpr double highest = 4294967295.0;
    return rate > 0.0 ? static_cast<std::uint32_t>(std::min(rate, highest)) : 0;
}

}  // namespace

void PeriodPath::prepare(const AudioDeviceSettings& settings, double sample_rate,
                         std::int32_t block_frames, bool capture) {
    release();
    playback_.configure({.block_frames = block_frames,
                         .sample_rate = truncated_rate(sample_rate),
                         .channels = settings.output_channel_map.size(),
                         .prebuffer_blocks = settings.prebuffer_blocks,
                         .target_queue_depth = settings.target_queue_depth,
                         .max_queue_blocks = settings.max_queue_blocks});
    sample_rate_ = sample_rate;
    block_frames_ = static_cast<std::size_t>(block_frames);
    output_channels_ = settings.output_channel_map.size();
    input_channels_ = settings.input_channel_map.size();
    block_.samples.resize(output_channels_ * block_frames_);
    capture_ring_.configure(input_channels_ * block_frames_);
    input_meters_.configure(input_channels_);
    output_meters_.configure(output_channels_);
    meter_schedule_.configure(sample_rate, block_frames);
    frequency_ = platform::performance_frequency();
    capture_ = capture;
}

void PeriodPath::release() noexcept {
    sample_rate_ = 0.0;
    block_frames_ = output_channels_ = input_channels_ = 0;
    capture_ = false;
    playback_.release();
    block_ = {};
    capture_ring_.release();
    input_meters_.configure(0);
    output_meters_.configure(0);
    meters_due_ = false;
    rendered_ = false;
    for (auto* counter : {&callbacks_total_, &output_ready_failures_, &callback_duration_last_us_,
                          &callback_duration_max_us_})
        counter->store(0, std::memory_order_relaxed);
}

void PeriodPath::run_device_period(AudioDevice& device, std::int32_t buffer_index) noexcept {
    const std::int64_t start = platform::performance_counter();
    count_period();
    follow_drift();
    capture_from(device, buffer_index);
    render(start);
    meter_outputs();
    write_outputs(device, buffer_index);
    if (!device.output_ready()) output_ready_failures_.fetch_add(1, std::memory_order_relaxed);
    count_frames();
    record_duration(start, platform::performance_counter());
}

void PeriodPath::count_period() noexcept {
    callbacks_total_.fetch_add(1, std::memory_order_relaxed);
    meters_due_ = meter_schedule_.tick();
}

void PeriodPath::follow_drift() noexcept {
    playback_.drift().update_drift();
}

void PeriodPath::render(std::int64_t start) noexcept {
    rendered_ =
        playback_.render_period(block_, platform::counter_to_nanoseconds(start, frequency_));
}

void PeriodPath::meter_outputs() noexcept {
    if (!meters_due_ || !rendered_) return;
    for (std::size_t c = 0; c < output_meters_.count(); ++c)
        output_meters_.raise(c, rendered_channel(c));
}

std::span<const float> PeriodPath::rendered_channel(std::size_t channel) const noexcept {
    if (!rendered_ || channel >= block_.channels) return {};
    return std::span(block_.samples).subspan(channel * block_frames_, block_frames_);
}

CaptureSlot* PeriodPath::begin_capture() noexcept {
    if (!capture_ || input_channels_ == 0) return nullptr;
    CaptureSlot* slot = capture_ring_.begin_write();
    if (slot == nullptr) return nullptr;
    slot->sample_rate = playback_.shape().sample_rate;
    slot->frames = static_cast<std::uint16_t>(block_frames_);
    slot->channels = static_cast<std::uint16_t>(input_channels_);
    return slot;
}

void PeriodPath::capture_from(AudioDevice& device, std::int32_t buffer_index) noexcept {
    CaptureSlot* slot = begin_capture();
    if (slot == nullptr) return;
    const std::size_t frames = block_frames_;
    for (std::size_t c = 0; c < input_channels_; ++c) {
        const std::span input = std::span(slot->samples).subspan(c * frames, frames);
        device.read_input(static_cast<std::int32_t>(c), buffer_index, input.data(),
                          static_cast<std::int32_t>(frames));
        if (meters_due_) input_meters_.raise(c, input);
    }
    capture_ring_.commit_write();
}

void PeriodPath::loop_back(bool input_silent) noexcept {
    CaptureSlot* slot = begin_capture();
    if (slot == nullptr) return;
    const std::size_t frames = block_frames_;
    for (std::size_t c = 0; c < input_channels_; ++c) {
        const std::span input = std::span(slot->samples).subspan(c * frames, frames);
        const std::span<const float> output = rendered_channel(c);
        if (input_silent || output.empty())
            std::fill(input.begin(), input.end(), 0.0F);
        else
            std::copy(output.begin(), output.end(), input.begin());
        if (meters_due_) input_meters_.raise(c, input);
    }
    capture_ring_.commit_write();
}

void PeriodPath::write_outputs(AudioDevice& device, std::int32_t buffer_index) noexcept {
    for (std::size_t c = 0; c < output_channels_; ++c) {
        const std::span<const float> output = rendered_channel(c);
        device.write_output(static_cast<std::int32_t>(c), buffer_index,
                            output.empty() ? nullptr : output.data(),
                            static_cast<std::int32_t>(block_frames_));
    }
}

void PeriodPath::count_frames() noexcept {
    playback_.drift().add_local_frames(block_frames_);
}

void PeriodPath::record_duration(std::int64_t start, std::int64_t end) noexcept {
    if (frequency_ < 1 || end < start) return;
    const auto duration_us =
        static_cast<std::uint64_t>(scaled_ticks(end - start, 1'000'000, frequency_));
    callback_duration_last_us_.store(duration_us, std::memory_order_relaxed);
    raise_to(callback_duration_max_us_, duration_us);
}

PlayerTelemetry PeriodPath::take_telemetry() noexcept {
    const auto total = [](const std::atomic<std::uint64_t>& counter) {
        return counter.load(std::memory_order_relaxed);
    };
    const PlaybackCounters& counters = playback_.counters();
    const FillStatistics::Range fill = playback_.fill_statistics().take();

    PlayerTelemetry t;
    t.renderedFrames = total(counters.renderedFrames);
    t.pll_ratio = playback_.drift().pll_ratio();
    t.playback_buffer_frames = fill.current;
    t.minFrames = fill.minFrames;
    t.maxFrames = fill.maxFrames;
    t.target_frames = playback_.target_frames();
    t.error_frames = static_cast<double>(fill.current) - static_cast<double>(t.target_frames);
    if (sample_rate_ > 0.0) t.buffer_ms = static_cast<double>(fill.current) * 1000.0 / sample_rate_;
    if (block_frames_ > 0)
        t.buffer_blocks = static_cast<double>(fill.current) / static_cast<double>(block_frames_);
    t.underruns = total(counters.underruns);
    t.overruns = total(counters.overruns);
    t.playbackDropped = total(counters.playbackDropped);
    t.format_drops = total(counters.format_drops);
    t.output_ready_failures = total(output_ready_failures_);
    t.captureDropped = capture_ring_.captureDropped();
    t.callbacks_total = total(callbacks_total_);
    t.callback_duration_last_us = total(callback_duration_last_us_);
    t.callback_duration_max_us = total(callback_duration_max_us_);
    t.queue_latency_last_us = playback_.queue_latency().last_us();
    t.queue_latency_max_us = playback_.queue_latency().max_us();
    t.server_to_output_last_us = playback_.server_to_output().last_us();
    t.server_to_output_max_us = playback_.server_to_output().max_us();
    t.actual_sample_rate = playback_.shape().sample_rate;
    t.actual_block_frames = static_cast<std::uint16_t>(block_frames_);
    t.input_peak_count = input_meters_.count();
    t.output_peak_count = output_meters_.count();
    return t;
}

void PeriodPath::take_peaks(PlayerTelemetry& telemetry) noexcept {
    telemetry.input_peaks = input_meters_.take();
    telemetry.output_peaks = output_meters_.take();
}

}  // namespace tavistro
