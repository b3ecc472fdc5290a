// A PipeWire server without hardware and D-Bus.
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

/// The server of this process, which clients find through the environment.
class PipeWireServer {
  public:
    /// `configuration`: the folder of pipewire.conf and, if there is to be a session manager,
    /// wireplumber.conf.
    explicit PipeWireServer(const std::string& configuration) {
        std::filesystem::create_directories(folder_);
        std::filesystem::permissions(folder_, std::filesystem::perms::owner_all);
        for (const char* name : {"XDG_RUNTIME_DIR", "PIPEWIRE_RUNTIME_DIR", "XDG_STATE_HOME"})
            setenv(name, folder_.c_str(), 1);
        for (const char* name : {"PIPEWIRE_CONFIG_DIR", "WIREPLUMBER_CONFIG_DIR"})
            setenv(name, configuration.c_str(), 1);
        setenv("PIPEWIRE_DEBUG", "0", 1);
        processes_.push_back(run({"pipewire", "-c", "pipewire.conf"}));
        EXPECT_TRUE(eventually([&] { return std::filesystem::exists(folder_ + "/pipewire-0"); }));
        if (std::filesystem::exists(configuration + "/wireplumber.conf"))
            processes_.push_back(run({"sh", "-c", session_manager}));
        unsetenv("PIPEWIRE_CONFIG_DIR");  // clients have their own
    }
    PipeWireServer(const PipeWireServer&) = delete;
    PipeWireServer& operator=(const PipeWireServer&) = delete;
    ~PipeWireServer() {
        for (const pid_t process : processes_)
            kill(process, SIGTERM);
        for (const pid_t process : processes_)
            waitpid(process, nullptr, 0);
        std::filesystem::remove_all(folder_);
    }

    /// For every client; 0: the clients decide again.
    static void force_quantum(int frames) {
        EXPECT_TRUE(succeeds(
            {"pw-metadata", "-n", "settings", "0", "clock.force-quantum", std::to_string(frames)}));
    }
    /// Connects two ports, once they exist.
    static bool connect(const std::string& from, const std::string& to) {
        return eventually([&] { return succeeds({"pw-link", from, to}); });
    }

  private:
    /// From version 0.5 on there are profiles, one of which leaves hardware alone.
    static constexpr const char* session_manager =
        "if wireplumber --help | grep -q -e --profile; then\n"
        "    unset WIREPLUMBER_CONFIG_DIR; exec wireplumber --profile policy\n"
        "else exec wireplumber --config-file wireplumber.conf; fi";

    static bool succeeds(const std::vector<std::string>& command) {
        int status = -1;
        waitpid(run(command), &status, 0);
        return status == 0;
    }
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
        execvp(arguments.front(), arguments.data());
        _exit(127);
    }

    const std::string folder_ =
        (std::filesystem::temp_directory_path() / ("tavistro-pipewire-" + std::to_string(getpid())))
            .string();
    std::vector<pid_t> processes_;
};

}  // namespace tavistro::test
