// The device as the player sees it: something that calls back once per period.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "config/settings.h"
#include "platform/realtime.h"

namespace tavistro {

/// Takes one line of text without a line end. May be empty. A device calls it on the thread that
/// opens it; the player also on the threads that bring it blocks and sync notices and on the
/// loopback thread, possibly while a device is being opened. Never called on a driver's thread.
using LogCallback = std::function<void(const std::string&)>;

/// Called by the device once per period on its own thread, with the context given to open() and
/// the index (0 or 1) of the buffer half that is free to read and fill until the call returns.
using BufferSwitchCallback = void (*)(void* context, std::int32_t buffer_index);

/// One audio device with double-buffered channels.
///
/// open, start, close and destruction belong to one thread. read_input, write_output and
/// output_ready are called on the device's thread inside the buffer-switch callback. Logical
/// channel i is entry i of the settings' channel map.
class AudioDevice {
  public:
    virtual ~AudioDevice() = default;

    /// Opens the device that the settings name and allocates everything a period needs. False with
    /// one log line when it cannot be had; the device is closed then. The callback may come from
    /// the moment this is called until close() has returned.
    virtual bool open(const AudioDeviceSettings& settings, LogCallback log,
                      BufferSwitchCallback callback, void* context) = 0;
    /// Starts the periods. May call back before it returns.
    virtual bool start() = 0;
    /// Stops and unloads. Safe in any state and more than once.
    virtual void close() = 0;
    /// Converts one input channel's half into `frames` samples of full scale +-1.
    TAVISTRO_REALTIME virtual void read_input(std::int32_t channel, std::int32_t buffer_index,
                                              float* destination, std::int32_t frames) = 0;
    /// Converts `frames` samples into one output channel's half; null writes silence.
    TAVISTRO_REALTIME virtual void write_output(std::int32_t channel, std::int32_t buffer_index,
                                                const float* source, std::int32_t frames) = 0;
    /// Tells the device that the outputs are written. False when the device reports a failure.
    TAVISTRO_REALTIME virtual bool output_ready() = 0;
    /// True once the device has asked to be reset. Any thread.
    virtual bool reset_requested() = 0;

    // Valid after a successful open().
    std::uint32_t buffer_size() const noexcept { return buffer_size_; }  ///< frames per period
    std::uint32_t hardware_inputs() const noexcept { return hardware_inputs_; }
    std::uint32_t hardware_outputs() const noexcept { return hardware_outputs_; }
    double sample_rate() const noexcept { return sample_rate_; }  ///< Hz, as the device runs

  protected:
    AudioDevice() = default;
    AudioDevice(const AudioDevice&) = default;
    AudioDevice& operator=(const AudioDevice&) = default;

    std::uint32_t buffer_size_ = 0;
    std::uint32_t hardware_inputs_ = 0;
    std::uint32_t hardware_outputs_ = 0;
    double sample_rate_ = 0.0;
};

}  // namespace tavistro
