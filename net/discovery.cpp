#include "net/discovery.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "net/nonce.h"
#include "net/protocol.h"
#include "platform/clock.h"

namespace tavistro {

using platform::Ipv4Endpoint;
using TavistroProtocol::ClientSettings;
using Verdict = ServerChoice::Verdict;

namespace {

constexpr std::uint32_t receive_slice_ms = 50;
constexpr std::uint32_t receive_error_pause_ms = 10;

struct AddressBlock {
    std::uint32_t address;
    std::uint32_t prefix_bits;
    int address_class;
};

constexpr AddressBlock near_addresses[] = {
    {0x7F000000, 8, 0},   // 127.0.0.0/8
    {0x0A000000, 8, 1},   // 10.0.0.0/8
    {0xAC100000, 12, 1},  // 172.16.0.0/12
    {0xC0A80000, 16, 1},  // 192.168.0.0/16
    {0xA9FE0000, 16, 1},  // 169.254.0.0/16
};
constexpr int this_host = 0;
constexpr int elsewhere = 2;

bool is_auto(std::string_view text) {
    // Independent of the locale.
    constexpr std::string_view word = "auto";
    return std::ranges::equal(text, word, [](char given, char expected) {
        return given == expected || given == expected - 'a' + 'A';
    });
}

void log_line(const std::function<void(const std::string&)>& log, const std::string& line) {
    if (log) log(line);
}

/// Receives until `on_datagram(bytes, source)` returns true; returns false on a timeout.
template <typename OnDatagram>
bool receive_until(platform::UdpSocket& socket, std::uint32_t timeout_ms, OnDatagram on_datagram) {
    std::vector<std::uint8_t> buffer(platform::max_datagram_bytes);
    const std::uint64_t start_ms = platform::millisecond_tick();
    while (platform::millisecond_tick() - start_ms < timeout_ms) {
        const platform::ReceiveResult received = socket.receive(buffer);
        if (received.status == platform::ReceiveStatus::failed) {
            platform::sleep_ms(receive_error_pause_ms);
        }
        if (received.status != platform::ReceiveStatus::datagram) continue;
        if (on_datagram(std::span(buffer).first(received.size), received.source)) return true;
    }
    return false;
}

FoundServer discover(platform::UdpSocket& socket, const ClientSettings& settings,
                     const std::function<void(const std::string&)>& log) {
    const bool broadcast = settings.discovery_broadcast && socket.enable_broadcast();
    if (!socket.set_receive_timeout(receive_slice_ms)) return {};
    const std::uint64_t nonce = fresh_nonce(settings.client_id);
    const auto question = TavistroProtocol::encode_discover({settings.client_id, nonce});
    socket.send_to(question, {platform::ipv4_loopback, settings.server_port});
    if (broadcast) socket.send_to(question, {platform::ipv4_broadcast, settings.server_port});

    ServerChoice choice(settings.client_id, nonce);
    Verdict verdict = Verdict::ignored;
    receive_until(socket, settings.discovery_timeout_ms, [&](auto datagram, auto source) {
        verdict = choice.offer(datagram, source);
        if (verdict == Verdict::incompatible) return true;
        return choice.best() && address_class(choice.best()->address) == this_host;
    });
    if (verdict == Verdict::incompatible) return {{}, ClientError::Incompatible};
    socket.set_receive_timeout(0);
    if (!choice.best()) {
        log_line(log, "[net] Auto discovery did not find a Tavistro server.");
        return {{}, ClientError::NoServer};
    }
    log_line(log, "[net] Auto discovery selected " + platform::format_ipv4(choice.best()->address) +
                      ":" + std::to_string(choice.best()->port) + ".");
    return {choice.best(), ClientError::None};
}

FoundServer probe(platform::UdpSocket& socket, const ClientSettings& settings,
                  const Ipv4Endpoint& server, const std::function<void(const std::string&)>& log) {
    if (!socket.set_receive_timeout(receive_slice_ms)) return {{}, ClientError::Socket};
    const std::uint64_t nonce = fresh_nonce(settings.client_id);
    socket.send_to(TavistroProtocol::encode_discover({settings.client_id, nonce}), server);

    // A reply with our nonce is valid from any address: the server may have several.
    ServerChoice choice(settings.client_id, nonce);
    Verdict verdict = Verdict::ignored;
    receive_until(socket, settings.discovery_timeout_ms, [&](auto datagram, auto source) {
        verdict = choice.offer(datagram, source);
        return verdict != Verdict::ignored;
    });
    if (verdict == Verdict::incompatible) return {{}, ClientError::Incompatible};
    if (verdict == Verdict::ignored) {
        log_line(log, "[net] Tavistro server compatibility probe timed out.");
        return {{}, ClientError::NoServer};
    }
    socket.set_receive_timeout(0);
    return {server, ClientError::None};
}

}  // namespace

int address_class(std::uint32_t address) noexcept {
    for (const AddressBlock& block : near_addresses) {
        const std::uint32_t host_bits = 32 - block.prefix_bits;
        if (address >> host_bits == block.address >> host_bits) return block.address_class;
    }
    return elsewhere;
}

Verdict ServerChoice::offer(std::span<const std::uint8_t> datagram, const Ipv4Endpoint& source) {
    const auto reply = TavistroProtocol::decode_discover_reply(datagram);
    if (!reply) {
        const bool foreign = TavistroProtocol::is_foreign_reply(datagram, client_id_, nonce_);
        return foreign ? Verdict::incompatible : Verdict::ignored;
    }
    const TavistroProtocol::DiscoverReply& answer = reply.message;
    if (answer.client_id != client_id_ || answer.nonce != nonce_ || answer.port == 0) {
        return Verdict::ignored;
    }
    if (answer.version != TavistroProtocol::protocol_version ||
        answer.capability != TavistroProtocol::capability_word) {
        return Verdict::incompatible;
    }
    if (!best_ || address_class(source.address) < address_class(best_->address)) {
        best_ = Ipv4Endpoint{source.address, answer.port};
    }
    return Verdict::accepted;
}

FoundServer find_server(platform::UdpSocket& socket, const ClientSettings& settings,
                        const std::function<void(const std::string&)>& log) {
    const bool discovering = is_auto(settings.server_ip);
    const auto address = platform::parse_ipv4(settings.server_ip);
    if (!discovering && !address) return {{}, ClientError::Socket};
    if (!socket.is_open() || settings.client_id == 0) return {};
    if (discovering) return discover(socket, settings, log);
    return probe(socket, settings, {*address, settings.server_port}, log);
}

}  // namespace tavistro
