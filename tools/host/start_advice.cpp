#include "tools/host/start_advice.h"

#include <fmt/format.h>

#include <array>
#include <optional>
#include <vector>

#include "asio/buffer_size.h"
#include "asio/driver_list.h"
#include "config/ini.h"
#include "net/protocol.h"
#include "platform/driver_registry.h"
#include "tools/host/commands.h"
#include "tools/host/server_survey.h"

namespace tavistro::host {

namespace {

/// What the engine asks for its server; nothing when server_ip cannot be understood.
std::optional<ServersOptions> servers_of(const TavistroProtocol::ClientSettings& client) {
    ServersOptions options{.timeout_ms = client.discovery_timeout_ms,
                           .port = client.server_port,
                           .broadcast = client.discovery_broadcast};
    if (to_lower(client.server_ip) == "auto") return options;
    options.address = platform::parse_ipv4(client.server_ip);
    if (!options.address) return {};
    return options;
}

/// What the driver has against the stream; empty if nothing.
std::string objection_of(AsioDriver& driver, double rate, std::int32_t block_frames) {
    if (driver.init(platform::driver_parent_window()) == 0 ||
        (rate > 0 && driver.setSampleRate(rate) != kAsioOk)) {
        std::array<char, 256> words{};  // twice of what a driver may write
        driver.getErrorMessage(words.data());
        words.back() = '\0';
        return words.data();
    }
    BufferSizeRange sizes;
    if (block_frames < 1 ||
        driver.getBufferSize(&sizes.minimum, &sizes.maximum, &sizes.preferred,
                             &sizes.granularity) != kAsioOk ||
        acceptable_buffer_size(block_frames, sizes))
        return {};
    return fmt::format("The buffer size is {}, so it cannot be the stream's block of {} frames.",
                       buffer_size_text(sizes), block_frames);
}

}  // namespace

std::string StartAdvice::no_server() const {
    const TavistroProtocol::ClientSettings& client = config_.client;
    const auto options = servers_of(client);
    if (!options)
        return fmt::format("server_ip = {} is neither auto nor an IPv4 address.\n",
                           client.server_ip);
    std::string asked;
    for (const std::uint32_t address : asked_addresses(*options))
        asked += (asked.empty() ? "" : " and ") + platform::format_ipv4(address);
    std::string command = "tavistro-host servers";
    if (options->address) command += " --address " + asked;
    if (options->port != ServersOptions{}.port) command += fmt::format(" --port {}", options->port);
    return fmt::format(
        "No server has answered yet. Asked: {}{}, UDP port {}. Is the server running, and does a "
        "firewall let UDP through? This lists the servers that answer: {}\n",
        options->address ? "" : "auto: ", asked, options->port, command);
}

std::string StartAdvice::no_device() const {
    std::vector<std::string> names;
    for (const platform::RegisteredDriver& driver : platform::registered_drivers())
        names.push_back(driver.description.value_or(driver.key_name));
    std::string unlisted;
    for (const auto& [name, reason] : platform::unlisted_drivers())
        unlisted += fmt::format("Not listed: {} ({}). ", name, reason);
    return fmt::format(
        "The audio device did not start. driver_name = {}; drivers in {}: {}. Is it one of them "
        "and "
        "free, does it offer the stream's sample rate and block size, and do input_map and "
        "output_map fit it? {}This lists what each driver offers: tavistro-host devices\n",
        config_.audio.driver_name, platform::driver_place(),
        names.empty() ? "none" : fmt::to_string(fmt::join(names, ", ")), unlisted);
}

std::string StartAdvice::driver_words(double stream_rate, std::int32_t block_frames) const {
    AsioDrivers drivers;
    for (std::int32_t id = 0; id < drivers.driverCount(); ++id) {
        std::array<char, driver_name_bytes> name{};
        drivers.driverNameAt(id, name);
        AsioDriver* driver = nullptr;
        if (config_.audio.driver_name != name.data() ||
            drivers.openDriverAt(id, &driver) != kAsioListOk)
            continue;
        const std::string objection = objection_of(*driver, stream_rate, block_frames);
        drivers.closeDriverAt(id);
        return objection.empty() ? "" : fmt::format("{} says: {}\n", name.data(), objection);
    }
    return {};
}

std::string StartAdvice::incompatible_server() const {
    const auto options = servers_of(config_.client);
    const auto answers = options ? ask_servers(*options) : std::nullopt;
    if (!answers) return {};
    std::string text;
    for (const AnsweringServer& server : answers->servers) {
        if (server.compatible) continue;
        text += fmt::format("{}{}:{} speaks protocol version {}", text.empty() ? "" : ", ",
                            platform::format_ipv4(server.endpoint.address), server.endpoint.port,
                            server.protocol_version);
    }
    if (text.empty()) return {};
    return fmt::format("{}; this engine speaks version {}.\n", text,
                       TavistroProtocol::protocol_version);
}

}  // namespace tavistro::host
