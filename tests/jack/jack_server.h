// A JACK server without hardware, 48000 Hz and at first 128 frames, with 2 physical ports each way.
#pragma once

#include <jack/jack.h>
#include <sys/types.h>

#include <csignal>
#include <memory>

namespace tavistro::test {

struct CloseJackClient {
    void operator()(jack_client_t* client) const noexcept { jack_client_close(client); }
};
using JackClientHandle = std::unique_ptr<jack_client_t, CloseJackClient>;

/// A client of the test's own. Only while no other client of the process belongs to a dead server:
/// libjack would close that one.
JackClientHandle open_jack_client();

/// The server of this process, under a name of its own that libjack finds in the environment.
class JackServer {
  public:
    /// Returns when clients can be opened; throws when none can.
    JackServer();
    JackServer(const JackServer&) = delete;
    JackServer& operator=(const JackServer&) = delete;
    ~JackServer();

    /// As a crash would end it.
    void kill() noexcept { end(SIGKILL); }
    /// Returns at once.
    void restart();

  private:
    void end(int signal) noexcept;

    pid_t process_ = 0;  ///< 0: killed
};

}  // namespace tavistro::test
