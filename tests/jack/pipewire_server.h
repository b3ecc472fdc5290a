// PipeWire with a sink that has no hardware, neither session manager nor D-Bus: 48000 Hz, quantum
// 1024 unless a client or the test asks for another.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <jack/jack.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "jack/jack_server.h"

namespace tavistro::test {

class PipeWireServer {
  public:
    PipeWireServer() {
        jack_set_error_function([](const char*) {});
        jack_set_info_function([](const char*) {});
        std::filesystem::create_directories(folder_);
        std::ofstream(folder_ + "/pipewire.conf") << config;
        setenv("PIPEWIRE_RUNTIME_DIR", folder_.c_str(), 1);
        setenv("PIPEWIRE_DEBUG", "0", 1);
        process_ = run({"pipewire", "-c", folder_ + "/pipewire.conf"});
        EXPECT_TRUE(eventually([] {
            const auto client = open_jack_client();
            return client != nullptr &&
                   jack_port_by_name(client.get(), "sink:playback_FL") != nullptr;
        })) << "no PipeWire";
    }
    PipeWireServer(const PipeWireServer&) = delete;
    PipeWireServer& operator=(const PipeWireServer&) = delete;
    ~PipeWireServer() {
        ::kill(process_, SIGTERM);
        waitpid(process_, nullptr, 0);
        std::filesystem::remove_all(folder_);
    }
    /// 0: the clients decide again.
    void force_quantum(int frames) {
        int status = 0;
        waitpid(run({"pw-metadata", "-n", "settings", "0", "clock.force-quantum",
                     std::to_string(frames)}),
                &status, 0);
        EXPECT_EQ(status, 0);
    }

  private:
    static constexpr const char* config = R"(
context.properties = {
    core.daemon = true
    core.name = pipewire-0
    support.dbus = false
    default.clock.rate = 48000
    default.clock.quantum = 1024
    default.clock.min-quantum = 16
}
context.spa-libs = {
    audio.convert.* = audioconvert/libspa-audioconvert
    support.* = support/libspa-support
}
context.modules = [
    { name = libpipewire-module-protocol-native }
    { name = libpipewire-module-metadata }
    { name = libpipewire-module-spa-node-factory }
    { name = libpipewire-module-client-node }
    { name = libpipewire-module-access }
    { name = libpipewire-module-adapter }
    { name = libpipewire-module-link-factory }
]
context.objects = [
    { factory = metadata args = { metadata.name = default } }
    { factory = adapter
      args = {
        factory.name = support.null-audio-sink
        node.name = sink
        media.class = Audio/Sink
        audio.channels = 2
        audio.position = [ FL FR ]
        node.param.PortConfig = {
            direction = Input
            mode = dsp
            format = { mediaType = audio mediaSubtype = raw format = F32 rate = 48000
                       channels = 2 position = [ FL FR ] }
        }
      }
    }
]
)";

    static pid_t run(const std::vector<std::string>& command) {
        const pid_t process = fork();
        if (process != 0) return process;
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        const int nowhere = open("/dev/null", O_RDWR);
        dup2(nowhere, STDOUT_FILENO);
        dup2(nowhere, STDERR_FILENO);
        std::vector<char*> arguments;
        for (const std::string& word : command)
            arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }

    const std::string folder_ =
        (std::filesystem::temp_directory_path() / ("tavistro-pipewire-" + std::to_string(getpid())))
            .string();
    pid_t process_;
};

}  // namespace tavistro::test
