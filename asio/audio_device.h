// The audio device interface of the player: a device that calls back once per period.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "config/settings.h"
#include "platform/realtime.h"

namespace tavistro {

/// Receives one line of text without a line end. May be empty. A device calls it on the thread that
/// opens it. The player also calls it on the threads that push blocks and sync notices and on the
/// loopback thread, possibly while a device is being opened. Never called on a driver's thread.
using LogCallback = std::function<void(const std::string&)>;

/// Called by the device once per period on its own thread. Gets the context given to open() and the
/// index (0 or 1) of the buffer half that may be read and written until the call returns.
using BufferSwitchCallback = void (*)(void* context, std::int32_t buffer_index);

/// One audio device with double-buffered channels.
///
/// One thread calls open, start, close and the destructor. read_input, write_output and
/// output_ready are called on the device's thread in the buffer-switch callback. Logical channel i
/// is entry i of the channel map in the settings.
class AudioDevice {
  public:
    virtual ~AudioDevice() = default;

    /// Opens the configured device and allocates everything that a period needs. On failure logs
    /// one line, closes the device and returns false. The callback may be called from the start of
    /// this call until close() has returned.
    virtual bool open(const AudioDeviceSettings& settings, LogCallback log,
                      BufferSwitchCallback callback, void* context) = 0;
    /// Starts the periods. May call back before it returns.
    virtual bool start() = 0;
    /// Stops and unloads the device. May be called in any state and repeatedly.
    virtual void close() = 0;
    /// Converts a buffer half of an input channel to `frames` samples, full scale +-1.0.
    TAVISTRO_REALTIME virtual void read_input(std::int32_t channel, std::int32_t buffer_index,
                                              float* destination, std::int32_t frames) = 0;
    /// Converts `frames` samples to a buffer half of an output channel; a null source is silence.
    TAVISTRO_REALTIME virtual void write_output(std::int32_t channel, std::int32_t buffer_index,
                                                const float* source, std::int32_t frames) = 0;
    /// Signals that the outputs are written. Returns false if the device reports a failure.
    TAVISTRO_REALTIME virtual bool output_ready() = 0;
    /// True once the device has requested a reset. Any thread.
    virtual bool reset_requested() = 0;

    // Valid after a successful open().
    std::uint32_t buffer_size() const noexcept { return buffer_size_; }  ///< frames per period
    std::uint32_t hardware_inputs() const noexcept { return hardware_inputs_; }
    std::uint32_t hardware_outputs() const noexcept { return hardware_outputs_; }
    double sample_rate() const noexcept { return sample_rate_; }  ///< Hz, actual rate

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
