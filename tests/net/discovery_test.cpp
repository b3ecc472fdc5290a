// Server discovery in a simulated network with near and far hosts. The manual clock advances with
// each receive.
#include "net/discovery.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <functional>

#include "net/net_inputs.h"
#include "net/server_messages.h"
#include "platform/clock.h"
#include "support/movable_clock.h"

namespace tavistro {
namespace {

using namespace test;
using namespace std::string_literals;

using Reply = std::function<Datagram(const Discover& question)>;

/// A datagram that arrives `after_ms` after the discover message; without `reply`, a receive error.
struct Arrival {
    std::uint64_t after_ms;
    const char* source;
    Reply reply;
};

struct Network {
    std::deque<Arrival> arrivals;
    bool can_broadcast = true;
    std::uint32_t receive_timeout_ms = 0;
    std::vector<std::string> asked;
    Discover question;
    std::uint64_t asked_at_ms = 0;
} network;

std::string text_of(const platform::Ipv4Endpoint& endpoint) {
    return platform::format_ipv4(endpoint.address) + ":" + std::to_string(endpoint.port);
}

}  // namespace

// Replaces the socket of the platform: sends to and receives from `network`.
namespace platform {

bool UdpSocket::open(const SocketOptions&) noexcept {
    open_ = true;
    return true;
}
void UdpSocket::release() noexcept {}
bool UdpSocket::set_receive_timeout(std::uint32_t ms) noexcept {
    network.receive_timeout_ms = ms;
    return true;
}
bool UdpSocket::enable_broadcast() noexcept {
    return network.can_broadcast;
}
bool UdpSocket::send_to(DatagramBytes datagram, const Ipv4Endpoint& to) noexcept {
    network.asked.push_back(text_of(to));
    network.question = decode_discover(datagram).message;
    network.asked_at_ms = millisecond_tick();
    return true;
}
ReceiveResult UdpSocket::receive(std::span<std::uint8_t> buffer) noexcept {
    const std::uint64_t waited_ms = millisecond_tick() - network.asked_at_ms;
    auto& arrivals = network.arrivals;
    if (arrivals.empty() || arrivals.front().after_ms > waited_ms + network.receive_timeout_ms) {
        advance_clock_ms(network.receive_timeout_ms);
        return {network.receive_timeout_ms == 0 ? ReceiveStatus::closed : ReceiveStatus::timed_out};
    }
    const Arrival arrival = arrivals.front();
    arrivals.pop_front();
    if (arrival.after_ms > waited_ms) advance_clock_ms(arrival.after_ms - waited_ms);
    if (!arrival.reply) return {ReceiveStatus::failed};
    const Datagram datagram = arrival.reply(network.question);
    std::ranges::copy(datagram, buffer.begin());
    return {ReceiveStatus::datagram, datagram.size(), {*parse_ipv4(arrival.source), 9}};
}

std::optional<std::uint32_t> parse_ipv4(std::string_view text) {
    unsigned a, b, c, d;
    const int count = std::sscanf(std::string(text).c_str(), "%u.%u.%u.%u", &a, &b, &c, &d);
    return count == 4 ? std::optional(a << 24 | b << 16 | c << 8 | d) : std::nullopt;
}
std::string format_ipv4(std::uint32_t address) {
    std::string text;
    for (const int shift : {24, 16, 8, 0})
        text += '.' + std::to_string(address >> shift & 255);
    return text.substr(1);
}

}  // namespace platform

namespace {

Datagram good(const Discover& question) {
    return encode_discover_reply({question.client_id, question.nonce, 99});
}
Datagram of_version_4(const Discover& question) {
    return patched(good(question), 32, {4});
}

class FindServer : public testing::Test {
  protected:
    FindServer() {
        set_manual_clock();
        network = {};
        settings.client_id = 7;
        settings.server_ip = "auto";
        settings.server_port = 28010;
        settings.discovery_timeout_ms = 700;
    }
    ~FindServer() override { use_running_clock(); }

    /// Returns "ADDRESS:PORT" or "error NUMBER", and the duration in milliseconds.
    std::string find(std::deque<Arrival> arrivals) {
        network.arrivals = std::move(arrivals);
        network.asked.clear();
        log.clear();
        platform::UdpSocket socket;
        socket.open({});
        const std::uint64_t start_ms = platform::millisecond_tick();
        const FoundServer found =
            find_server(socket, settings, [this](const std::string& line) { log += line; });
        const std::uint64_t took_ms = platform::millisecond_tick() - start_ms;
        EXPECT_FALSE(found.server && network.receive_timeout_ms != 0) << "timeout not cleared";
        return (found.server ? text_of(*found.server)
                             : "error " + std::to_string(static_cast<int>(found.error))) +
               " after " + std::to_string(took_ms);
    }

    ClientSettings settings;
    std::string log;
};

TEST_F(FindServer, WaitsForANearerServerUntilTheTimeoutOrALocalReply) {
    for (const char* near : {"10.200.0.1", "172.31.255.1", "192.168.1.1", "169.254.3.4"})
        for (const char* far : {"172.15.0.1", "172.32.0.1", "192.169.1.1", "169.253.3.4"})
            EXPECT_EQ(find({{50, far, good}, {600, near, good}, {650, "10.0.0.1", good}}),
                      near + ":99 after 700"s);
    EXPECT_EQ(log, "[net] Auto discovery selected 169.254.3.4:99.");
    settings.server_ip = "AutO";
    EXPECT_EQ(find({{10, "10.0.0.1", good}, {60, "127.255.1.2", good}, {61, "127.0.0.1", good}}),
              "127.255.1.2:99 after 60");
}

TEST_F(FindServer, IncompatibleReplyEndsTheSearchEvenAfterACompatibleOne) {
    EXPECT_EQ(find({{10, "10.0.0.1", good}, {20, "10.0.0.2", of_version_4}}), "error 3 after 20");
    settings.server_ip = "10.0.0.1";
    EXPECT_EQ(find({{20, "10.0.0.2", of_version_4}, {30, "10.0.0.1", good}}), "error 3 after 20");
}

TEST_F(FindServer, NoReplyBeforeTheTimeoutIsNoServer) {
    const std::deque<Arrival> late = {{10, "10.0.0.1", nullptr}, {800, "10.0.0.1", good}};
    EXPECT_EQ(find(late), "error 2 after 720") << "a receive error pauses 10 ms and is no reply";
    EXPECT_EQ(log, "[net] Auto discovery did not find a Tavistro server.");
    settings.server_ip = "10.0.0.1";
    EXPECT_EQ(find(late), "error 2 after 720");
    EXPECT_EQ(log, "[net] Tavistro server compatibility probe timed out.");
}

TEST_F(FindServer, BroadcastsOnlyIfEnabledAndNotForAConfiguredServer) {
    for (const auto& [allowed, possible] : {std::pair(false, true), {true, false}, {true, true}}) {
        settings.discovery_broadcast = allowed;
        network.can_broadcast = possible;
        find({});
        EXPECT_EQ(network.asked.front(), "127.0.0.1:28010");
        EXPECT_EQ(network.asked.back() == "255.255.255.255:28010", allowed && possible);
    }
    settings.server_ip = "10.0.0.1";
    EXPECT_EQ(find({{640, "10.0.0.2", good}}), "10.0.0.1:28010 after 640")
        << "regardless of the reply's address and port";
    EXPECT_EQ(network.asked, std::vector<std::string>{"10.0.0.1:28010"});
}

TEST_F(FindServer, IgnoresForeignRepliesAndDetectsIncompatibleOnes) {
    const std::string ignored = "error 2 after 700", incompatible = "error 3 after 50";
    const struct {
        const char* answer;
        std::size_t size;
        std::vector<std::size_t> changed;  // offsets of changed bytes
        std::string found;
    } cases[] = {
        {"another client", 48, {12}, ignored},
        {"another nonce", 48, {16}, ignored},
        {"port 0", 48, {24}, ignored},
        {"capability", 48, {38}, incompatible},
        {"header version", 48, {4}, incompatible},
        {"header version, another nonce", 48, {4, 23}, ignored},
        {"header version, another client", 48, {4, 12}, ignored},
        {"another size", 24, {}, incompatible},
        {"too short for a nonce", 23, {}, ignored},
    };
    for (const auto& c : cases) {
        const auto answer = [&](const Discover& question) {
            Datagram datagram = resized(good(question), c.size);
            for (const std::size_t offset : c.changed)
                datagram[offset] ^= 99;
            return datagram;
        };
        EXPECT_EQ(find({{50, "10.0.0.1", answer}}), c.found) << c.answer;
    }
}

TEST_F(FindServer, SendsNothingWithoutAValidAddress) {
    for (const char* server_ip : {"auto ", "aut", "server.local"}) {
        settings.server_ip = server_ip;
        EXPECT_EQ(find({}), "error 1 after 0") << server_ip;
        EXPECT_TRUE(network.asked.empty());
    }
}

}  // namespace
}  // namespace tavistro
