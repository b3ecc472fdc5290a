// The driver's JACK client: ports numbered like the physical ports, and the server's callbacks.
#pragma once

#include <jack/jack.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/realtime.h"
#include "platform/threads.h"

namespace tavistro::jack {

/// Callbacks from libjack's threads.
class JackListener {
  public:
    /// Called on JACK's process thread while the client is active.
    TAVISTRO_REALTIME virtual void on_period(jack_nframes_t frames) = 0;
    /// The server has another period. Called on another thread at any time while the client is
    /// open.
    virtual void on_new_period() = 0;
    /// The latencies of the ports are to be set. Called like on_new_period(), with PipeWire on a
    /// thread of our own.
    virtual void on_latencies(jack_latency_callback_mode_t mode) = 0;
    /// An xrun. Called on another thread at any time while the client is open.
    virtual void on_missed_deadline() = 0;
    /// Called on any of these threads. No further period follows.
    virtual void on_server_lost() = 0;

  protected:
    ~JackListener() = default;
};

/// Calls on_latencies() for libjack. PipeWire's (0.3.65) holds a lock during its callbacks that
/// jack_port_set_latency_range() takes as well if another callback is due.
class LatencyThread {
  public:
    explicit LatencyThread(JackListener& listener);
    LatencyThread(const LatencyThread&) = delete;
    LatencyThread& operator=(const LatencyThread&) = delete;
    ~LatencyThread();
    void ask(jack_latency_callback_mode_t mode) noexcept;

  private:
    void run();

    JackListener& listener_;
    std::atomic<bool> capture_{false}, playback_{false}, ending_{false};
    platform::WorkerEvent event_;
    platform::Thread thread_;
};

class JackClient {
  public:
    explicit JackClient(JackListener& listener) : listener_(listener) {}
    JackClient(const JackClient&) = delete;
    JackClient& operator=(const JackClient&) = delete;

    /// Returns an empty text on success, else the reason. Neither starts a server nor waits for
    /// one. Call it once per object. Throws std::bad_alloc.
    std::string open();
    bool is_open() const noexcept { return handle_ != nullptr; }
    /// PipeWire's libjack, which has a period for each group of connected clients.
    static bool is_pipewire() noexcept;
    /// PipeWire: asks for a period of at most `frames` by opening the client again, unless the
    /// environment has the user's own wishes. The server has the last word. With JACK it does
    /// nothing: there the period is everybody's. Returns an empty text on success, else the reason,
    /// and then there is no client. Only without ports. Throws std::bad_alloc.
    std::string ask_for_period(std::size_t frames);
    /// False without a server. Periods are called until deactivate() has returned.
    bool activate() noexcept;
    void deactivate() noexcept { jack_deactivate(handle_.get()); }

    /// The server's period in frames and sample rate in Hz; 0 without a client.
    jack_nframes_t period_frames() const noexcept;
    TAVISTRO_REALTIME jack_nframes_t rate() const noexcept { return rate_; }
    /// JACK frame time at the start of the period; it wraps. Valid only within on_period().
    TAVISTRO_REALTIME jack_nframes_t period_begin() const noexcept {
        return jack_last_frame_time(handle_.get());
    }
    /// The monotonic clock in ns at a JACK frame time.
    TAVISTRO_REALTIME std::uint64_t frame_ns(jack_nframes_t frame) const noexcept {
        return jack_frames_to_time(handle_.get(), frame) * 1000;
    }

    /// Number of physical capture or playback ports.
    std::size_t physical_count(bool is_input) const noexcept { return physical(is_input).size(); }
    /// Hardware latency of the physical port with this number, in frames; 0 if there is none.
    jack_nframes_t physical_latency(bool is_input, std::size_t number) const noexcept;
    /// Null when the server has no free port or the name is taken.
    jack_port_t* add_port(bool is_input, const char* name) noexcept;
    void remove_port(jack_port_t* port) noexcept { jack_port_unregister(handle_.get(), port); }
    /// Connects the port to the physical port with this number, if any. The client must be active.
    void connect(jack_port_t* port, bool is_input, std::size_t number) noexcept;

  private:
    struct Close {
        void operator()(jack_client_t* handle) const noexcept { jack_client_close(handle); }
    };

    std::string open_client();
    void listen() noexcept;
    std::vector<std::string> physical_ports(unsigned long flags) const;
    const std::vector<std::string>& physical(bool is_input) const noexcept {
        return is_input ? physical_captures_ : physical_playbacks_;
    }

    JackListener& listener_;
    std::unique_ptr<LatencyThread> latencies_;  ///< with PipeWire; ends after libjack's callbacks
    std::unique_ptr<jack_client_t, Close> handle_;
    std::vector<std::string> physical_captures_;
    std::vector<std::string> physical_playbacks_;
    std::size_t asked_frames_ = 0;  ///< 0: none
    std::atomic<jack_nframes_t> rate_{0};
    std::atomic<bool> server_lost_{false};
};

}  // namespace tavistro::jack
