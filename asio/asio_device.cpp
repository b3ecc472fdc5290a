#include "asio/asio_device.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <charconv>
#include <exception>
#include <span>
#include <utility>

#include "asio/buffer_size.h"
#include "asio/current_device.h"
#include "asio/sample_format.h"
#include "platform/driver_registry.h"

namespace tavistro {

namespace {

/// Longest wait of close() for a callback to return.
constexpr std::uint64_t callback_limit_ms = 2000;

constexpr std::int64_t largest_buffer_frames = 65535;

constinit CurrentDevice<AsioDevice> current_device;

std::unique_ptr<AsioDrivers> list_drivers() noexcept {
    try {
        return std::make_unique<AsioDrivers>();
    } catch (const std::exception&) {  // out of memory, or an error of the driver registry
        return nullptr;
    }
}

bool within(const std::vector<std::int32_t>& channel_map, std::int32_t hardware_channels) noexcept {
    return std::all_of(channel_map.begin(), channel_map.end(),
                       [=](std::int32_t channel) { return channel < hardware_channels; });
}

/// Six significant digits, independent of the locale.
std::string number_text(double value) {
    std::array<char, 32> text;
    const auto result =
        std::to_chars(text.begin(), text.end(), value, std::chars_format::general, 6);
    return {text.begin(), result.ptr};
}

}  // namespace

AsioDevice::~AsioDevice() {
    AsioDevice::close();
}

bool AsioDevice::open(const AudioDeviceSettings& settings, LogCallback log_line,
                      BufferSwitchCallback callback, void* context) {
    assert(callback != nullptr);
    close();
    settings_ = settings;
    log_ = std::move(log_line);
    callback_ = callback;
    context_ = context;

    const bool ready = load_driver() && agree_on_sample_rate() && check_channels() &&
                       choose_buffer_size() && create_buffers() && identify_channels();
    if (!ready) {
        close();
        return false;
    }
    silence_outputs();
    current_device.set(*this);
    describe();
    probe_output_ready();
    return true;
}

bool AsioDevice::load_driver() {
    drivers_ = list_drivers();
    if (!drivers_) return fail("[asio] Failed to allocate AsioDrivers.");
    if (!drivers_->loadDriver(settings_.driver_name.c_str()))
        return fail("[asio] loadDriver failed.");
    driver_ = theAsioDriver;
    if (driver_ == nullptr) return fail("[asio] theAsioDriver is null.");
    return driver_->init(platform::driver_parent_window()) != 0 || fail("[asio] init failed.");
}

bool AsioDevice::agree_on_sample_rate() {
    // The rate is set first: channels and buffer sizes may depend on it. The rate that the driver
    // then reports is used.
    if (driver_->setSampleRate(static_cast<double>(settings_.sample_rate)) != kAsioOk)
        log("[asio] setSampleRate failed.");
    sample_rate_ = 0.0;
    return driver_->getSampleRate(&sample_rate_) == kAsioOk || fail("[asio] getSampleRate failed.");
}

bool AsioDevice::check_channels() {
    std::int32_t inputs = 0;
    std::int32_t outputs = 0;
    if (driver_->getChannels(&inputs, &outputs) != kAsioOk)
        return fail("[asio] getChannels failed.");
    hardware_inputs_ = static_cast<std::uint32_t>(std::max(inputs, 0));
    hardware_outputs_ = static_cast<std::uint32_t>(std::max(outputs, 0));
    if (!within(settings_.output_channel_map, outputs))
        return fail(
            "[asio] output_channel_map contains a hardware channel outside available output "
            "range.");
    if (!within(settings_.input_channel_map, inputs))
        return fail(
            "[asio] input_channel_map contains a hardware channel outside available input range.");
    return true;
}

bool AsioDevice::choose_buffer_size() {
    BufferSizeRange range;
    if (driver_->getBufferSize(&range.minimum, &range.maximum, &range.preferred,
                               &range.granularity) != kAsioOk)
        return fail("[asio] getBufferSize failed.");
    const std::int64_t wanted =
        settings_.block_size > 0 ? std::int64_t{settings_.block_size} : range.preferred;
    if (wanted < 1 || wanted > largest_buffer_frames || !acceptable_buffer_size(wanted, range))
        return fail("[asio] unsupported bufferSize=" + std::to_string(wanted) + " min=" +
                    std::to_string(range.minimum) + " max=" + std::to_string(range.maximum) +
                    " preferred=" + std::to_string(range.preferred) +
                    " granularity=" + std::to_string(range.granularity));
    buffer_size_ = static_cast<std::uint32_t>(wanted);
    return true;
}

bool AsioDevice::create_buffers() {
    driver_callbacks_ = {buffer_switch, sample_rate_changed, message, buffer_switch_time_info};
    buffer_infos_.clear();
    for (const std::int32_t channel : settings_.input_channel_map)
        buffer_infos_.push_back({.isInput = 1, .channel = channel, .half = {}});
    for (const std::int32_t channel : settings_.output_channel_map)
        buffer_infos_.push_back({.isInput = 0, .channel = channel, .half = {}});
    return driver_->createBuffers(
               buffer_infos_.data(), static_cast<std::int32_t>(buffer_infos_.size()),
               static_cast<std::int32_t>(buffer_size_), &driver_callbacks_) == kAsioOk ||
           fail("[asio] createBuffers failed.");
}

bool AsioDevice::identify_channels() {
    const std::span<const AsioBufferInfo> buffers(buffer_infos_);
    const std::size_t input_count = settings_.input_channel_map.size();
    if (!identify(true, settings_.input_channel_map, buffers.first(input_count), inputs_))
        return fail("[asio] getChannelInfo failed for input.");
    if (!identify(false, settings_.output_channel_map, buffers.subspan(input_count), outputs_))
        return fail("[asio] getChannelInfo failed for output.");
    return true;
}

bool AsioDevice::identify(bool inputs, const std::vector<std::int32_t>& channel_map,
                          std::span<const AsioBufferInfo> buffers, std::vector<Channel>& channels) {
    channels.clear();
    for (std::size_t i = 0; i < buffers.size(); ++i) {
        // Uses the map: only the addresses in `buffers` are valid driver output.
        AsioChannelInfo info{};
        info.channel = channel_map[i];
        info.isInput = inputs ? 1 : 0;
        if (driver_->getChannelInfo(&info) != kAsioOk) return false;
        channels.push_back({.hardware_channel = channel_map[i],
                            .sample_type = static_cast<std::uint32_t>(info.type),
                            .halves = {buffers[i].half[0], buffers[i].half[1]}});
    }
    return true;
}

void AsioDevice::silence_outputs() noexcept {
    // New buffers may contain noise, and one half plays before the first period fills it. Buffers
    // of an unknown type are skipped, since their length is unknown: one-bit types have eight
    // frames per byte.
    for (const Channel& channel : outputs_) {
        if (!is_known_sample_type(channel.sample_type)) continue;
        for (void* half : channel.halves)
            if (half != nullptr) write_silence(half, channel.sample_type, buffer_size_);
    }
}

void AsioDevice::describe() const {
    log("[asio] device=\"" + settings_.driver_name + "\"");
    log("[asio] actual sample_rate=" + number_text(sample_rate_));
    log("[asio] created bufferSize=" + std::to_string(buffer_size_) +
        " mappedInputChannels=" + std::to_string(inputs_.size()) +
        " mappedOutputChannels=" + std::to_string(outputs_.size()) +
        " availableHardwareInputs=" + std::to_string(hardware_inputs_) +
        " availableHardwareOutputs=" + std::to_string(hardware_outputs_));
    describe("logicalIn=", "hardwareIn=", inputs_);
    describe("logicalOut=", "hardwareOut=", outputs_);
}

void AsioDevice::describe(const char* logical, const char* hardware,
                          const std::vector<Channel>& channels) const {
    for (std::size_t i = 0; i < channels.size(); ++i)
        log(std::string("[asio] ") + logical + std::to_string(i) + " -> " + hardware +
            std::to_string(channels[i].hardware_channel) +
            " type=" + sample_type_name(channels[i].sample_type));
}

void AsioDevice::probe_output_ready() {
    const bool supported = driver_->outputReady() == kAsioOk;
    output_ready_supported_.store(supported, std::memory_order_relaxed);
    log(supported ? "[asio] outputReady optimization is supported."
                  : "[asio] outputReady optimization is not supported.");
}

bool AsioDevice::start() {
    return driver_ != nullptr && driver_->start() == kAsioOk;
}

void AsioDevice::close() {
    if (driver_ != nullptr) {
        // Periods continue until stop() has returned: some drivers wait in it for an outputReady.
        driver_->stop();
        current_device.clear(*this, callback_limit_ms);
        driver_->disposeBuffers();
    }
    if (drivers_) drivers_->unloadCurrentDriver();
    drivers_.reset();
    driver_ = nullptr;
    output_ready_supported_.store(false, std::memory_order_relaxed);
}

void AsioDevice::read_input(std::int32_t channel, std::int32_t buffer_index, float* destination,
                            std::int32_t frames) {
    const Channel& input = inputs_[static_cast<std::size_t>(channel)];
    const std::span samples(destination, static_cast<std::size_t>(frames));
    if (const void* half = input.halves[static_cast<std::size_t>(buffer_index)])
        samples_to_float(half, input.sample_type, samples);
    else
        std::fill(samples.begin(), samples.end(), 0.0F);
}

void AsioDevice::write_output(std::int32_t channel, std::int32_t buffer_index, const float* source,
                              std::int32_t frames) {
    const Channel& output = outputs_[static_cast<std::size_t>(channel)];
    void* half = output.halves[static_cast<std::size_t>(buffer_index)];
    if (half == nullptr) return;
    const auto count = static_cast<std::size_t>(frames);
    if (source != nullptr)
        samples_from_float(half, output.sample_type, std::span(source, count));
    else
        write_silence(half, output.sample_type, count);
}

bool AsioDevice::output_ready() {
    return !output_ready_supported_.load(std::memory_order_relaxed) ||
           driver_->outputReady() == kAsioOk;
}

bool AsioDevice::reset_requested() {
    return reset_requested_.load(std::memory_order_relaxed);
}

void AsioDevice::buffer_switch(std::int32_t half, std::int32_t) noexcept {
    if (half != 0 && half != 1) return;
    current_device.use([half](AsioDevice& device) { device.callback_(device.context_, half); });
}

AsioTimeRecord* AsioDevice::buffer_switch_time_info(AsioTimeRecord* time, std::int32_t half,
                                                    std::int32_t process_now) noexcept {
    buffer_switch(half, process_now);
    return time;
}

void AsioDevice::sample_rate_changed(double rate) noexcept {
    current_device.use([rate](AsioDevice& device) {
        if (rate != device.sample_rate_)
            device.reset_requested_.store(true, std::memory_order_relaxed);
    });
}

std::int32_t AsioDevice::message(std::int32_t selector, std::int32_t, void*, double*) noexcept {
    if (selector == kAsioSupportsTimeInfo) return 1;
    if (selector == kAsioResetRequest || selector == kAsioResyncRequest) {
        // The reset is handled later, outside the driver's callback.
        current_device.use([](AsioDevice& device) {
            device.reset_requested_.store(true, std::memory_order_relaxed);
        });
    }
    return 0;
}

bool AsioDevice::fail(const std::string& line) const {
    log(line);
    return false;
}

void AsioDevice::log(const std::string& line) const {
    if (log_) log_(line);
}

}  // namespace tavistro
