// One ASIO driver as an audio device: loads it by name, agrees on rate and buffer size, opens the
// mapped channels and hands the driver's periods to the user of the device.
//
//     AsioDevice device;
//     device.open(settings, log, on_period, context) && device.start();
//     ... on_period(context, half): read_input, write_output, output_ready ...
//     device.close();
//
// A driver calls back on any thread, before it was started, while it stops and out of turn. Such a
// call finds either the whole device or nothing; close() returns when none is inside any more.
// Everything but outputReady is called on the thread that opens, starts and closes.
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

    /// Opens the driver called settings.driver_name. One device at a time may be open in a process.
    /// A rate that the driver refuses is logged and its own kept; a failure is logged in one line
    /// and leaves no driver loaded. Takes as long as the driver takes; throws std::bad_alloc, after
    /// which close() is due. Periods that come before this has returned may reach the callback.
    bool open(const AudioDeviceSettings& settings, LogCallback log, BufferSwitchCallback callback,
              void* context) override;
    bool start() override;
    /// Waits for callbacks that are inside, but gives up on one that the driver never lets return.
    void close() override;
    TAVISTRO_REALTIME void read_input(std::int32_t channel, std::int32_t buffer_index,
                                      float* destination, std::int32_t frames) override;
    TAVISTRO_REALTIME void write_output(std::int32_t channel, std::int32_t buffer_index,
                                        const float* source, std::int32_t frames) override;
    /// Always true for a driver that does not want to be told.
    TAVISTRO_REALTIME bool output_ready() override;
    /// Set by a reset or resync request or a change of the sample rate, and never cleared.
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

    // What the driver calls, and where it leads once there is a current device. A buffer index
    // other than 0 and 1 is ignored.
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
    // The driver may keep and overwrite both until its buffers are disposed of.
    AsioCallbacks driver_callbacks_{};
    std::vector<AsioBufferInfo> buffer_infos_;  ///< inputs, then outputs
    std::vector<Channel> inputs_;               ///< in map order
    std::vector<Channel> outputs_;
    std::atomic<bool> output_ready_supported_{false};
    std::atomic<bool> reset_requested_{false};
};

}  // namespace tavistro
