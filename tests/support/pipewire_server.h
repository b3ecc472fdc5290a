// A PipeWire server with its session manager, without hardware: 48000 Hz, 128 frames, a stereo sink
// and a stereo source.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/eventually.h"

namespace tavistro::test {

/// The server of this process, which clients find through the environment. Its configuration is in
/// the folder `pipewire` beside this file.
class PipeWireServer {
  public:
    PipeWireServer() {
        std::filesystem::create_directories(folder_);
        std::filesystem::permissions(folder_, std::filesystem::perms::owner_all);
        // NOLINTBEGIN(concurrency-mt-unsafe): before any other thread
        for (const char* name : {"XDG_RUNTIME_DIR", "PIPEWIRE_RUNTIME_DIR", "XDG_STATE_HOME"})
            setenv(name, folder_.c_str(), 1);
        for (const char* name : {"PIPEWIRE_CONFIG_DIR", "WIREPLUMBER_CONFIG_DIR"})
            setenv(name, TAVISTRO_PIPEWIRE_CONFIG, 1);
        server_ = run({"pipewire", "-c", "pipewire.conf"});
        EXPECT_TRUE(eventually([&] { return std::filesystem::exists(folder_ + "/pipewire-0"); }));
        session_manager_ = run({"wireplumber", "-c", "wireplumber.conf"});
        unsetenv("PIPEWIRE_CONFIG_DIR");  // clients have their own
        // NOLINTEND(concurrency-mt-unsafe)
    }
    PipeWireServer(const PipeWireServer&) = delete;
    PipeWireServer& operator=(const PipeWireServer&) = delete;
    ~PipeWireServer() {
        for (const pid_t process : {session_manager_, server_}) {
            kill(process, SIGTERM);
            waitpid(process, nullptr, 0);
        }
        std::filesystem::remove_all(folder_);
    }

    /// Connects the sink's first channel to the source's, once the session manager is ready.
    static bool connect_sink_to_source() {
        return eventually([] {
            const pid_t link = run({"pw-link", "sink:monitor_FL", "source:input_FL"});
            int status = -1;
            waitpid(link, &status, 0);
            return status == 0;
        });
    }

  private:
    static pid_t run(std::vector<const char*> command) {
        command.push_back(nullptr);
        const pid_t process = fork();
        if (process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            const int nowhere = open("/dev/null", O_RDWR);
            dup2(nowhere, STDOUT_FILENO);
            dup2(nowhere, STDERR_FILENO);
            execvp(command.front(), const_cast<char**>(command.data()));
            _exit(127);
        }
        return process;
    }

    const std::string folder_ =
        (std::filesystem::temp_directory_path() / ("tavistro-pipewire-" + std::to_string(getpid())))
            .string();
    pid_t server_ = 0, session_manager_ = 0;
};

}  // namespace tavistro::test
