#include "jack/jack_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "scenarios/rig.h"

namespace tavistro::test {

JackClientHandle open_jack_client() {
    return JackClientHandle(jack_client_open("test", JackNoStartServer, nullptr));
}

namespace {
bool answers() {
    return eventually([] { return open_jack_client() != nullptr; });
}
}  // namespace

JackServer::JackServer() {
    jack_set_error_function([](const char*) {});
    jack_set_info_function([](const char*) {});
    setenv("JACK_DEFAULT_SERVER", ("tavistro-test-" + std::to_string(getpid())).c_str(), 1);
    setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
    restart();
    if (!answers()) throw std::runtime_error("no JACK server");
}

// A dead server keeps its place among the eight that a machine may have, until one of the same name
// has ended in peace.
JackServer::~JackServer() {
    if (process_ == 0) {
        restart();
        EXPECT_TRUE(answers());
    }
    end(SIGTERM);
}

void JackServer::end(int signal) noexcept {
    ::kill(process_, signal);
    waitpid(process_, nullptr, 0);
    process_ = 0;
}

// Synchronous, and patient with its clients: one that a loaded machine holds up is late, but misses
// nothing.
void JackServer::restart() {
    const char* name = std::getenv("JACK_DEFAULT_SERVER");
    process_ = fork();
    if (process_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const int nowhere = open("/dev/null", O_RDWR);
    dup2(nowhere, STDOUT_FILENO);
    dup2(nowhere, STDERR_FILENO);
    execl(TAVISTRO_JACKD, "jackd", "-n", name, "-S", "-r", "-t", "5000", "-d", "dummy", "-r",
          "48000", "-p", "128", "-C", "2", "-P", "2", nullptr);
    _exit(127);
}

}  // namespace tavistro::test
