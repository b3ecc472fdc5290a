// What the drivers for sound servers and sound cards share: the object's references and stages, the
// channels with their buffer halves, the messages to the host and the buffer switch.
//
// Samples are 32-bit floats. A derived class opens the device, fills the input halves, calls
// switch_buffers() and takes the output halves.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "asio/driver_abi.h"
#include "platform/realtime.h"

namespace tavistro::drivers {

using ClassId = std::array<std::uint8_t, 16>;  ///< in memory order

class DriverBase : public AsioDriver {
  public:
    std::int32_t QueryInterface(const void* interface_id, void** object) noexcept final;
    std::uint32_t AddRef() noexcept final { return ++references_; }
    std::uint32_t Release() noexcept final;

    std::int32_t init(void*) noexcept final;
    void getDriverName(char* name) noexcept final;
    std::int32_t getDriverVersion() noexcept final { return 1; }
    /// The last error or, without one, the number of missed deadlines.
    void getErrorMessage(char* text) noexcept final;
    std::int32_t start() noexcept final;
    std::int32_t stop() noexcept final;
    std::int32_t getChannels(std::int32_t* inputs, std::int32_t* outputs) noexcept final;
    std::int32_t getLatencies(std::int32_t* inputs, std::int32_t* outputs) noexcept final;
    std::int32_t getBufferSize(std::int32_t* minimum, std::int32_t* maximum,
                               std::int32_t* preferred, std::int32_t* granularity) noexcept final;
    std::int32_t canSampleRate(double rate) noexcept final {
        return is_open() && accepts_rate(rate) ? kAsioOk : kAsioNoClock;
    }
    std::int32_t getSampleRate(double* rate) noexcept final {
        *rate = sample_rate();
        return is_open() ? kAsioOk : kAsioNoClock;
    }
    std::int32_t setSampleRate(double rate) noexcept final;
    /// One clock, which has the driver's name.
    std::int32_t getClockSources(AsioClockSource* sources, std::int32_t* count) noexcept final;
    std::int32_t setClockSource(std::int32_t index) noexcept final {
        return index == 0 ? kAsioOk : kAsioInvalidParameter;
    }
    std::int32_t getSamplePosition(AsioCount64* samples, AsioCount64* nanoseconds) noexcept final;
    std::int32_t getChannelInfo(AsioChannelInfo* info) noexcept final;
    std::int32_t createBuffers(AsioBufferInfo* channels, std::int32_t channel_count,
                               std::int32_t frames, AsioCallbacks* callbacks) noexcept final;
    std::int32_t disposeBuffers() noexcept final;
    std::int32_t controlPanel() noexcept final { return kAsioNotPresent; }
    std::int32_t future(std::int32_t, void*) noexcept final { return kAsioInvalidParameter; }
    /// Not needed: the outputs are taken when the buffer switch returns.
    std::int32_t outputReady() noexcept final { return kAsioNotPresent; }

  protected:
    struct Channel {
        bool is_input;
        std::size_t number;  ///< from 0, within the inputs or outputs
        std::vector<float> half[2];
    };

    struct BufferSizes {
        std::int32_t minimum, maximum, preferred, granularity;  ///< as in AsioDriver::getBufferSize
    };

    /// `name` has at most 31 bytes.
    DriverBase(const ClassId& class_id, std::string name)
        : class_id_(class_id), name_(std::move(name)) {}
    /// A derived class calls dispose() in its destructor: the functions below are its own.
    virtual ~DriverBase() = default;
    void dispose() noexcept { disposeBuffers(); }

    // What a device is. The host's thread calls these, one at a time; they may wait. Channels and
    // block_frames() do not change between prepare() and unprepare().

    /// Returns an empty text on success, else the reason. Once per object. May throw
    /// std::exception.
    virtual std::string open_device() = 0;
    /// May be called before open_device().
    virtual bool is_open() const noexcept = 0;
    virtual std::int32_t channel_count(bool is_input) const noexcept = 0;
    virtual BufferSizes buffer_sizes() const noexcept = 0;
    virtual bool accepts_size(std::int32_t frames) const noexcept = 0;
    /// Rates in Hz.
    virtual double sample_rate() const noexcept = 0;
    virtual bool accepts_rate(double rate) const noexcept = 0;
    /// Only with a rate that is accepted; not once prepare() has been called.
    virtual bool set_rate(double rate) noexcept = 0;
    /// The error of a rate that is not accepted: which is, and what changes it. With a text, no
    /// buffers are made until the host asks for another rate. May throw std::bad_alloc.
    virtual std::string rate_refusal(double) const { return {}; }
    /// Frames between the host's buffer and the outside. Only while prepared.
    virtual std::int32_t latency(bool is_input) const noexcept = 0;
    /// Takes the channels() and the block_frames(). A result of the driver interface. May throw
    /// std::bad_alloc. unprepare() follows in either case.
    virtual std::int32_t prepare() = 0;
    virtual void unprepare() noexcept = 0;
    /// Periods may begin before it returns. An error has been set when it returns a fault.
    virtual std::int32_t start_periods() noexcept = 0;
    /// No period is called after it has returned.
    virtual void stop_periods() noexcept = 0;

    /// In the order of createBuffers().
    std::vector<Channel>& channels() noexcept { return channels_; }
    const std::vector<Channel>& channels() const noexcept { return channels_; }
    std::size_t block_frames() const noexcept { return block_frames_; }
    /// The half of every channel that the next buffer switch passes to the host.
    std::size_t half() const noexcept { return half_; }
    /// For getErrorMessage(). The host's thread only.
    void set_error(const std::string& text) noexcept;
    /// The error of a block size that is not accepted: which are.
    void refuse_size(std::int32_t frames) noexcept;

    /// Passes the half() to the host, then changes to the other one. `position` is the number
    /// of frames before this block, `nanoseconds` the monotonic clock at its begin. Only the thread
    /// of the periods.
    TAVISTRO_REALTIME void switch_buffers(std::uint64_t position, std::uint64_t nanoseconds);
    /// As request_reset() and count_missed_deadline(), for the thread of the periods.
    TAVISTRO_REALTIME void request_reset_in_period();
    TAVISTRO_REALTIME void count_missed_deadline_in_period();
    /// From any thread; they may wait for each other.
    void request_reset() { tell(kAsioResetRequest); }
    void announce_latencies() { tell(kAsioLatenciesChanged); }
    void count_missed_deadline() {
        ++missed_deadlines_;
        tell(kAsioOverload);
    }

  private:
    enum class Stage { created, initialised, prepared, running };

    bool exists(bool is_input, std::int32_t channel) const {
        return channel >= 0 && channel < channel_count(is_input);
    }
    std::int32_t make_channels(std::span<AsioBufferInfo> wanted);
    void tell(std::int32_t selector);
    TAVISTRO_REALTIME AsioTimeRecord time_info(std::uint64_t position,
                                               std::uint64_t nanoseconds) const;

    static constexpr std::int64_t no_position = -1;        ///< before the first block
    static constexpr std::int64_t changing_position = -2;  ///< between this and its time

    const ClassId class_id_;
    const std::string name_;
    std::atomic<std::uint32_t> references_{1};
    Stage stage_ = Stage::created;
    bool rate_refused_ = false;
    std::array<char, 124> error_{};
    std::atomic<unsigned> missed_deadlines_{0};

    // Set by createBuffers(). The thread of the periods reads them: they do not change while it
    // runs.
    std::size_t block_frames_ = 0;
    bool with_time_info_ = false;
    bool overload_wanted_ = false;
    std::vector<Channel> channels_;
    const AsioCallbacks* callbacks_ = nullptr;

    std::mutex notice_mutex_;  ///< never locked by the thread of the periods
    const AsioCallbacks* notified_ =
        nullptr;  ///< guarded by the mutex; null: there is no host to notify

    std::size_t half_ = 0;
    std::atomic<std::int64_t> position_{no_position};  ///< frames
    std::atomic<std::uint64_t> position_ns_{0};
};

}  // namespace tavistro::drivers
