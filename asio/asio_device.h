// An ASIO driver as an audio device: loads the driver by name, negotiates sample rate and buffer
// size, opens the mapped channels and passes the driver's periods to a callback.
//
//     AsioDevice device;
//     device.open(settings, log, on_period, context) && device.start();
//     ... on_period(context, half): read_input, write_output, output_ready ...
//     device.close();
//
// A driver may call back on any thread, before it is started, while it stops and at unexpected
// times. A callback sees either the complete device or none; close() waits for callbacks in
// progress. The thread that opens, starts and closes calls all driver functions but outputReady.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "asio/audio_device.h"
#include "asio/driver_abi.h"
#include "asio/driver_list.h"

namespace tavistro {

class AsioDevice : public AudioDevice {
  public:
    AsioDevice() = default;
    AsioDevice(const AsioDevice&) = delete;
    AsioDevice& operator=(const AsioDevice&) = delete;
    ~AsioDevice() override;

    /// Opens the driver named settings.driver_name. A process may have one device open at a time.
    /// If the driver refuses the sample rate, this logs it and keeps the driver's rate. A failure
    /// is logged in one line and leaves no driver loaded. Blocks as long as the driver does. Throws
    /// std::bad_alloc; close() must then be called. The callback may run before this returns.
    bool open(const AudioDeviceSettings& settings, LogCallback log, BufferSwitchCallback callback,
              void* context) override;
    bool start() override;
    /// Waits for callbacks in progress, but not forever for one that does not return.
    void close() override;
    TAVISTRO_REALTIME void read_input(std::int32_t channel, std::int32_t buffer_index,
                                      float* destination, std::int32_t frames) override;
    TAVISTRO_REALTIME void write_output(std::int32_t channel, std::int32_t buffer_index,
                                        const float* source, std::int32_t frames) override;
    /// Always true for a driver that does not support outputReady.
    TAVISTRO_REALTIME bool output_ready() override;
    /// Set by a reset or resync request or a sample rate change, and never cleared.
    bool reset_requested() override;

  private:
    struct Channel {
        std::int32_t hardware_channel;
        std::uint32_t sample_type;
        std::array<void*, 2> halves;
    };

    // The steps of open, in order. Each logs its own failure.
    bool load_driver();
    bool agree_on_sample_rate();
    bool check_channels();
    bool choose_buffer_size();
    bool create_buffers();
    bool identify_channels();
    void silence_outputs() noexcept;
    void describe() const;
    void probe_output_ready();

    bool identify(bool inputs, const std::vector<std::int32_t>& channel_map,
                  std::span<const AsioBufferInfo> buffers, std::vector<Channel>& channels);
    void describe(const char* logical, const char* hardware,
                  const std::vector<Channel>& channels) const;
    bool fail(const std::string& line) const;
    void log(const std::string& line) const;

    // The driver's callbacks, forwarded to the current device, if any. A buffer index other than 0
    // and 1 is ignored.
    static void buffer_switch(std::int32_t half, std::int32_t process_now) noexcept;
    static AsioTimeRecord* buffer_switch_time_info(AsioTimeRecord* time, std::int32_t half,
                                                   std::int32_t process_now) noexcept;
    static void sample_rate_changed(double rate) noexcept;
    static std::int32_t message(std::int32_t selector, std::int32_t value, void* text,
                                double* option) noexcept;

    AudioDeviceSettings settings_;
    LogCallback log_;
    BufferSwitchCallback callback_ = nullptr;
    void* context_ = nullptr;

    std::unique_ptr<AsioDrivers> drivers_;
    AsioDriver* driver_ = nullptr;
    // The driver may keep and overwrite both until disposeBuffers has returned.
    AsioCallbacks driver_callbacks_{};
    std::vector<AsioBufferInfo> buffer_infos_;  ///< inputs, then outputs
    std::vector<Channel> inputs_;               ///< in map order
    std::vector<Channel> outputs_;
    // Both relaxed: they pass on no data. A period that finds the old value is like one that came
    // earlier.
    std::atomic<bool> output_ready_supported_{false};
    std::atomic<bool> reset_requested_{false};
};

}  // namespace tavistro
