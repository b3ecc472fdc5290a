#include "audio/asio_player.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <utility>

#include "platform/clock.h"

namespace tavistro {

namespace {

constexpr const char* out_of_memory = "[audio] not enough memory for the audio buffers.";

struct ChannelMapFaults {
    const char* negative;
    const char* duplicate;
};

constexpr ChannelMapFaults output_map_faults{
    "[asio] output_channel_map contains a negative channel.",
    "[asio] output_channel_map contains duplicate hardware channels."};
constexpr ChannelMapFaults input_map_faults{
    "[asio] input_channel_map contains a negative channel.",
    "[asio] input_channel_map contains duplicate hardware channels."};

/// Log line for the first invalid entry, null if all are valid.
const char* channel_map_fault(const std::vector<std::int32_t>& map,
                              const ChannelMapFaults& faults) noexcept {
    for (auto entry = map.begin(); entry != map.end(); ++entry) {
        if (*entry < 0) return faults.negative;
        if (std::find(map.begin(), entry, *entry) != entry) return faults.duplicate;
    }
    return nullptr;
}

const char* channel_map_fault(const AudioDeviceSettings& settings) noexcept {
    if (const char* fault = channel_map_fault(settings.output_channel_map, output_map_faults))
        return fault;
    if (const char* fault = channel_map_fault(settings.input_channel_map, input_map_faults))
        return fault;
    if (settings.output_channel_map.empty() && settings.input_channel_map.empty())
        return "[asio] both output_channel_map and input_channel_map are empty.";
    return nullptr;
}

}  // namespace

AsioPlayer::AsioPlayer(DeviceFactory create_device)
    : create_device_(std::move(create_device)), loopback_(periods_, [this] { telemetry_step(); }) {
    reporter_.restart(platform::millisecond_tick());
}

AsioPlayer::~AsioPlayer() {
    stop();
}

bool AsioPlayer::start(const AudioDeviceSettings& settings, LogCallback log,
                       CapturedInputCallback captured_input, TelemetryCallback telemetry) {
    return begin_run(settings, {std::move(log), std::move(captured_input), std::move(telemetry)},
                     [this] { return open_and_start_device(); });
}

bool AsioPlayer::start_loopback(const AudioDeviceSettings& settings, LogCallback log,
                                CapturedInputCallback captured_input, TelemetryCallback telemetry) {
    return begin_run(settings, {std::move(log), std::move(captured_input), std::move(telemetry)},
                     [this] { return open_and_start_loopback(); });
}

template <typename OpenAndStart>
bool AsioPlayer::begin_run(const AudioDeviceSettings& settings, Callbacks callbacks,
                           OpenAndStart open_and_start) {
    stop();
    try {
        {
            const std::scoped_lock both(queue_mutex_, telemetry_mutex_);
            callbacks_ = std::move(callbacks);
            settings_ = settings;
            reporter_.restart(platform::millisecond_tick());
        }
        return open_and_start();
    } catch (const std::bad_alloc&) {
        return fail(out_of_memory);
    } catch (const std::length_error&) {
        return fail(out_of_memory);
    }
}

bool AsioPlayer::open_and_start_device() {
    if (const char* fault = channel_map_fault(settings_)) return fail(fault);
    std::unique_ptr<AudioDevice> device = create_device_ ? create_device_() : nullptr;
    if (!device) return fail("[asio] no ASIO device host.");
    {
        const std::scoped_lock both(queue_mutex_, telemetry_mutex_);
        device_ = std::move(device);
    }
    if (!device_->open(settings_, callbacks_.log, &AsioPlayer::buffer_switch, this)) {
        stop();  // the device has logged the reason
        return false;
    }
    prepare_periods(device_->sample_rate(), device_->buffer_size());
    periods_ready_.store(true, std::memory_order_release);
    return device_->start() || fail("[audio] device start failed.");
}

bool AsioPlayer::open_and_start_loopback() {
    if (settings_.sample_rate == 0 || settings_.block_size < 1)
        return fail("[asio] loopback requires a non-zero sample rate and block size.");
    if (settings_.output_channel_map.empty() || settings_.input_channel_map.empty())
        return fail("[asio] loopback requires both output and input channel maps.");
    prepare_periods(settings_.sample_rate, settings_.block_size);
    if (!loopback_.start(settings_)) return fail("[asio] virtual loopback thread not available.");
    log("[asio] virtual loopback started.");
    return true;
}

void AsioPlayer::prepare_periods(double sample_rate, std::uint32_t block_frames) {
    const std::scoped_lock both(queue_mutex_, telemetry_mutex_);
    periods_.prepare(settings_, sample_rate, static_cast<std::int32_t>(block_frames),
                     static_cast<bool>(callbacks_.captured_input));
}

bool AsioPlayer::fail(const char* line) noexcept {
    log(line);
    stop();
    return false;
}

/// Drops the line if memory runs out.
void AsioPlayer::log(const char* line) const noexcept {
    if (!callbacks_.log) return;
    try {
        callbacks_.log(line);
    } catch (const std::bad_alloc&) {
    }
}

void AsioPlayer::stop() {
    loopback_.stop();
    if (device_) device_->close();
    periods_ready_.store(false, std::memory_order_relaxed);

    // Callbacks and device are destroyed after the locks are released.
    Callbacks dropped_callbacks;
    std::unique_ptr<AudioDevice> dropped_device;
    const std::scoped_lock both(queue_mutex_, telemetry_mutex_);
    std::swap(callbacks_, dropped_callbacks);
    std::swap(device_, dropped_device);
    periods_.release();
}

void AsioPlayer::buffer_switch(void* context, std::int32_t buffer_index) {
    static_cast<AsioPlayer*>(context)->on_period(buffer_index);
}

void AsioPlayer::on_period(std::int32_t buffer_index) noexcept {
    if (!periods_ready_.load(std::memory_order_acquire)) return;
    periods_.run_device_period(*device_, buffer_index);
}

void AsioPlayer::push_block(std::uint32_t sequence, std::uint32_t sample_rate, std::uint16_t frames,
                            std::uint16_t channels, const std::vector<float>& samples,
                            std::uint64_t server_time_local_ns, std::uint64_t arrival_time_ns,
                            std::uint64_t delivery_time_ns) {
    if (samples.empty() || channels == 0 || frames == 0) return;
    {
        const std::lock_guard queue(queue_mutex_);
        periods_.playback().push_block({.sequence = sequence,
                                        .sample_rate = sample_rate,
                                        .frames = frames,
                                        .channels = channels,
                                        .samples = samples,
                                        .server_time_local_ns = server_time_local_ns,
                                        .arrival_time_ns = arrival_time_ns,
                                        .delivery_time_ns = delivery_time_ns});
    }
    telemetry_step();
}

void AsioPlayer::on_sync(const TavistroProtocol::SyncInfo& info) {
    periods_.playback().drift().on_sync(info.server_frame_position);
    telemetry_step();
}

void AsioPlayer::telemetry_step() {
    const std::lock_guard telemetry(telemetry_mutex_);
    try {
        hand_out_captured_input();
        const std::uint64_t now_ms = platform::millisecond_tick();
        if (reporter_.due(now_ms)) report(now_ms);
    } catch (const std::bad_alloc&) {
        // The loopback thread continues to play; a later step may succeed.
    }
}

void AsioPlayer::hand_out_captured_input() {
    while (periods_.take_captured(captured_)) {
        if (callbacks_.captured_input)
            callbacks_.captured_input(captured_.sample_rate, captured_.frames, captured_.channels,
                                      captured_.samples);
    }
}

void AsioPlayer::report(std::uint64_t now_ms) {
    Telemetry telemetry = reporter_.take(periods_, settings_, device_fault(), now_ms);
    if (callbacks_.telemetry) {
        periods_.take_peaks(telemetry);
        callbacks_.telemetry(telemetry);
    }
    if (!callbacks_.log) return;
    for (const std::string& line : report_lines(telemetry))
        callbacks_.log(line);
}

bool AsioPlayer::device_fault() const {
    return loopback_.device_lost() || (device_ && device_->reset_requested());
}

}  // namespace tavistro
