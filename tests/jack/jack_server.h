// A JACK server without hardware: 48000 Hz, initially 128 frames, 2 physical inputs and 2 outputs.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <jack/jack.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>

#include "support/eventually.h"

namespace tavistro::test {

/// Opens a client for the test. Not while another client of the process has a dead server: libjack
/// would close that client.
inline auto open_jack_client() {
    return std::unique_ptr<jack_client_t, int (*)(jack_client_t*)>(
        jack_client_open("test", JackNoStartServer, nullptr), jack_client_close);
}

/// The server of this process, with a unique name that libjack reads from the environment.
class JackServer {
  public:
    JackServer() {
        jack_set_error_function([](const char*) {});
        jack_set_info_function([](const char*) {});
        setenv("JACK_DEFAULT_SERVER", name_.c_str(), 1);
        setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
        run();
    }
    JackServer(const JackServer&) = delete;
    JackServer& operator=(const JackServer&) = delete;
    /// A killed server still counts towards the limit of eight servers per machine, until a server
    /// of the same name has ended normally.
    ~JackServer() {
        if (process_ == 0) run();
        end(SIGTERM);
    }
    /// SIGKILL simulates a crash.
    void end(int signal) {
        ::kill(process_, signal);
        waitpid(process_, nullptr, 0);
        process_ = 0;
    }

  private:
    // Synchronous with a long client timeout: on a machine under load a client is late but loses no
    // frames.
    void run() {
        process_ = fork();
        if (process_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            const int nowhere = open("/dev/null", O_RDWR);
            dup2(nowhere, STDOUT_FILENO);
            dup2(nowhere, STDERR_FILENO);
            execl(TAVISTRO_JACKD, "jackd", "-n", name_.c_str(), "-S", "-r", "-t", "5000", "-d",
                  "dummy", "-r", "48000", "-p", "128", "-C", "2", "-P", "2", nullptr);
            _exit(127);
        }
        EXPECT_TRUE(eventually([] { return open_jack_client() != nullptr; })) << "no JACK server";
    }

    const std::string name_ = "tavistro-test-" + std::to_string(getpid());
    pid_t process_ = 0;  ///< 0: killed
};

}  // namespace tavistro::test
