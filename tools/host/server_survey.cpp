#include "tools/host/server_survey.h"

#include <algorithm>

#include "net/discovery.h"
#include "net/protocol.h"

namespace tavistro::host {

std::string_view address_class_text(int address_class) {
    constexpr std::string_view texts[] = {"this host", "private network", "elsewhere"};
    return texts[address_class];
}

void ServerSurvey::offer(std::span<const std::uint8_t> datagram,
                         const platform::Ipv4Endpoint& source, std::uint64_t round_trip_ns) {
    ServerChoice judge(client_id_, nonce_);
    const ServerChoice::Verdict verdict = judge.offer(datagram, source);
    if (verdict == ServerChoice::Verdict::ignored) return;

    AnsweringServer server{.endpoint = source,
                           .address_class = address_class(source.address),
                           .protocol_version = TavistroProtocol::stated_version(datagram),
                           .compatible = verdict == ServerChoice::Verdict::accepted,
                           .round_trip_ns = round_trip_ns};
    if (const auto reply = TavistroProtocol::decode_discover_reply(datagram)) {
        server.endpoint.port = reply.message.port;
        server.protocol_version = reply.message.version;
    }
    const auto known = std::ranges::find_if(
        servers_, [&](const AnsweringServer& earlier) { return is_same(earlier, server); });
    if (known == servers_.end()) {
        servers_.push_back(server);
    } else if (server.address_class < known->address_class) {
        *known = server;
    }
}

std::vector<AnsweringServer> ServerSurvey::servers() const {
    std::vector<AnsweringServer> sorted = servers_;
    std::ranges::stable_sort(sorted, {}, &AnsweringServer::address_class);
    return sorted;
}

bool ServerSurvey::is_same(const AnsweringServer& known, const AnsweringServer& other) const {
    if (known.endpoint.port != other.endpoint.port) return false;
    return known.endpoint.address == other.endpoint.address ||
           (is_own_address_(known.endpoint.address) && is_own_address_(other.endpoint.address));
}

}  // namespace tavistro::host
