// An engine, a reference server and a configuration file, with helpers for tests.
#pragma once

#include <filesystem>
#include <string>

#include "engine/engine_runtime.h"
#include "support/eventually.h"
#include "tools/server/reference_server.h"

namespace tavistro::test {

/// `count` channel numbers from `first` on, as a list in the configuration.
std::string channel_list(std::size_t first, std::size_t count);

/// A configuration file that is removed with the object.
class ConfigFile {
  public:
    /// Loopback device, server at 127.0.0.1:`port`; appends `more` unchanged.
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

/// An engine with shorthands for its state record.
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

/// Number of blocks of captured input that the server has received in time.
std::uint64_t input_blocks(const server::ReferenceServer& server);
/// Waits for `count` more of them.
bool input_flows(const server::ReferenceServer& server, std::uint64_t count = 50);

/// A started engine and its server.
struct Rig {
    /// The system chooses the server's port. `settings` are appended to the ConfigFile.
    explicit Rig(server::ServerOptions options = {}, const std::string& settings = {});

    /// Waits until the engine runs and the server receives its input.
    bool plays() const;
    /// Waits for a sound on a channel of the server's mix, from the call on.
    bool sounds(std::size_t channel);

    server::ReferenceServer server;
    ConfigFile config;
    Engine engine;
};

/// A tune on channel 0; the client returns it on channel 2.
inline const server::ServerOptions with_tune{.melodies = {{.channel = 0}}};

}  // namespace tavistro::test
