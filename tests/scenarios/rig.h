// An engine, a reference server and a configuration file, and what a test asks of them.
#pragma once

#include <filesystem>
#include <string>

#include "engine/engine_runtime.h"
#include "support/eventually.h"
#include "tools/server/reference_server.h"

namespace tavistro::test {

/// `count` numbers from `first` on, as a setting has them.
std::string channel_list(std::size_t first, std::size_t count);

/// A configuration file for as long as the object lives.
class ConfigFile {
  public:
    /// Loopback device, server at 127.0.0.1:`port`; `more` is appended as it stands.
    explicit ConfigFile(std::uint16_t port, const std::string& more = {});
    ConfigFile(const ConfigFile&) = delete;
    ConfigFile& operator=(const ConfigFile&) = delete;
    ~ConfigFile();

    const char* path() const noexcept { return path_.c_str(); }
    std::uint32_t client_id() const noexcept { return client_id_; }

  private:
    std::uint32_t client_id_;
    std::string path_;
};

/// One engine with shorthands for what its record shows.
struct Engine : EngineRuntime {
    bool start(const ConfigFile& config) { return EngineRuntime::start(config.path()); }
    tavistro_engine_state state() const { return snapshot_state(); }
    bool in_state(std::uint32_t code) const { return state().state == code; }
    bool runs() const { return in_state(TAVISTRO_STATE_RUNNING); }
    bool runs_at(std::uint32_t sample_rate, std::uint32_t block_frames) const {
        const auto now = state();
        return now.state == TAVISTRO_STATE_RUNNING && now.stream_sample_rate == sample_rate &&
               now.device_sample_rate == sample_rate && now.device_block_frames == block_frames;
    }
    bool shows(std::uint32_t message) const { return state().status_message == message; }
};

/// Blocks of captured input that have arrived at the server in time so far.
std::uint64_t input_blocks(const server::ReferenceServer& server);
/// Waits until `count` more of them have.
bool input_flows(const server::ReferenceServer& server, std::uint64_t count = 50);

/// An engine that has been started, and the server that it finds.
struct Rig {
    /// The server's port is one of the system's choice; the settings are those of a ConfigFile.
    explicit Rig(server::ServerOptions options = {}, const std::string& settings = {});

    /// Waits until the engine runs and is heard.
    bool plays() const;
    /// Waits until a channel of the server's mix is not silent, from now on.
    bool sounds(std::size_t channel);

    server::ReferenceServer server;
    ConfigFile config;
    Engine engine;
};

/// A tune on channel 0; the client returns it on channel 2.
inline const server::ServerOptions with_tune{.melodies = {{.channel = 0}}};

}  // namespace tavistro::test
