// A client of the JACK server, as the driver needs it: ports that follow the physical ones by
// number, and what the server has to say.
#pragma once

#include <jack/jack.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/realtime.h"

namespace tavistro::jack {

/// What libjack's threads call.
class JackListener {
  public:
    /// The thread of the graph, while the client is active.
    TAVISTRO_REALTIME virtual void on_period(jack_nframes_t frames) = 0;
    /// Another thread, at any time while the client is open.
    virtual void on_missed_deadline() = 0;
    /// Any of them. No period comes any more.
    virtual void on_server_lost() = 0;

  protected:
    ~JackListener() = default;
};

class JackClient {
  public:
    explicit JackClient(JackListener& listener) : listener_(listener) {}
    JackClient(const JackClient&) = delete;
    JackClient& operator=(const JackClient&) = delete;

    /// Empty, or why there is no client. Starts no server and waits for none. Once per object;
    /// throws std::bad_alloc.
    std::string open();
    bool is_open() const noexcept { return handle_ != nullptr; }
    /// False without a server. Periods come until deactivate() has returned.
    bool activate() noexcept;
    void deactivate() noexcept { jack_deactivate(handle_.get()); }

    /// The server's own, in frames and Hz. 0 as long as there is no client.
    jack_nframes_t period_frames() const noexcept;
    TAVISTRO_REALTIME jack_nframes_t rate() const noexcept { return rate_; }
    /// Frame time (it wraps) at the begin of the period; inside of on_period alone.
    TAVISTRO_REALTIME jack_nframes_t period_begin() const noexcept {
        return jack_last_frame_time(handle_.get());
    }
    /// The system's monotonic clock at a frame time.
    TAVISTRO_REALTIME std::uint64_t frame_ns(jack_nframes_t frame) const noexcept {
        return jack_frames_to_time(handle_.get(), frame) * 1000;
    }

    /// Physical ports that an input listens to, or that an output feeds.
    std::size_t physical_count(bool is_input) const noexcept { return physical(is_input).size(); }
    /// Frames between the world and the physical port of that number, 0 if there is none.
    jack_nframes_t physical_latency(bool is_input, std::size_t number) const noexcept;
    /// Null when the server has no more or knows the name.
    jack_port_t* add_port(bool is_input, const char* name) noexcept;
    void remove_port(jack_port_t* port) noexcept { jack_port_unregister(handle_.get(), port); }
    /// To the physical port of that number, if there is one; of an active client.
    void connect(jack_port_t* port, bool is_input, std::size_t number) noexcept;

  private:
    struct Close {
        void operator()(jack_client_t* handle) const noexcept { jack_client_close(handle); }
    };

    void listen() noexcept;
    std::vector<std::string> physical_ports(unsigned long flags) const;
    const std::vector<std::string>& physical(bool is_input) const noexcept {
        return is_input ? physical_captures_ : physical_playbacks_;
    }

    JackListener& listener_;
    std::unique_ptr<jack_client_t, Close> handle_;
    std::vector<std::string> physical_captures_;
    std::vector<std::string> physical_playbacks_;
    std::atomic<jack_nframes_t> rate_{0};
    std::atomic<bool> server_lost_{false};
};

}  // namespace tavistro::jack
