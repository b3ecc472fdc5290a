// The whole server over real sockets; the test is the client.
#include "tools/server/reference_server.h"

#include <gtest/gtest.h>

#include "net/server_messages.h"
#include "support/eventually.h"

namespace tavistro::server {
namespace {

using namespace TavistroProtocol;

/// Receives channel 0.
class Client {
  public:
    explicit Client(std::uint16_t port, std::uint32_t session_id = 1)
        : server_{platform::ipv4_loopback, port} {
        socket_.open({});
        socket_.set_receive_timeout(500);
        send(encode_announce({5, session_id, 0, 0, {}, {0}}));
    }

    bool send(const Datagram& bytes) { return socket_.send_to(bytes, server_); }

    /// The type of the next datagram; nothing when none comes.
    std::optional<MessageType> step() {
        const platform::ReceiveResult received = socket_.receive(buffer_);
        if (received.status != platform::ReceiveStatus::datagram) return {};
        const std::span bytes(buffer_.data(), received.size);
        if (const auto sync = decode_sync(bytes)) syncs.push_back(sync.message);
        const auto header = decode_header(bytes);
        return header ? std::optional(header.message.type) : std::nullopt;
    }
    bool receives(MessageType type) {
        for (int i = 0; i < 5000; ++i) {
            const auto received = step();
            if (!received || received == type) return received.has_value();
        }
        return false;
    }

    std::vector<SyncInfo> syncs;

  private:
    platform::Ipv4Endpoint server_;
    platform::UdpSocket socket_;
    std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(2048);
};

ServerOptions local_options() {
    return {.bind_address = platform::ipv4_loopback, .port = 0, .melodies = {{.channel = 0}}};
}

TEST(ReferenceServer, StartedAgainGoesOnAboveOnTheSamePort) {
    ReferenceServer server(local_options());
    ASSERT_EQ(server.start(), "");
    const std::uint16_t port = server.port();
    std::uint32_t last_sequence = 0;
    {
        Client client(port);
        ASSERT_TRUE(client.receives(MessageType::Sync));
        last_sequence = client.syncs.back().sequence;
    }
    ReferenceServer second(ServerOptions{.bind_address = platform::ipv4_loopback, .port = port});
    EXPECT_NE(second.start().find(std::to_string(port)), std::string::npos) << "port in use";
    EXPECT_TRUE(server.change_format(96000, 32));
    ASSERT_TRUE(
        test::eventually([&] { return server.snapshot().next_sequence - last_sequence > 50; }));
    last_sequence = server.snapshot().next_sequence;  // may not be sent yet
    server.stop();
    ASSERT_EQ(server.start(), "");
    EXPECT_EQ(server.port(), port);
    Client client(port, 2);
    ASSERT_TRUE(client.receives(MessageType::Sync));
    EXPECT_TRUE(is_newer(client.syncs.back().sequence, last_sequence - 1))
        << client.syncs.back().sequence << " after " << last_sequence;
    EXPECT_EQ(client.syncs.back().block_frames, 128);
}

TEST(ReferenceServer, FaultsComeAndGoWhileItRuns) {
    ReferenceServer server(local_options());
    ASSERT_EQ(server.start(), "");
    EXPECT_FALSE(server.change_format(48000, 0));
    Client client(server.port());
    ASSERT_TRUE(client.receives(MessageType::Audio));

    server.set_faults({.silent = true});
    while (client.step()) {
    }
    client.send(encode_ping({.client_id = 5, .nonce = 1, .t1_ns = 1}));
    EXPECT_FALSE(client.step());
    server.set_faults({});
    server.set_sending(false);
    while (client.step()) {
    }
    client.send(encode_ping({.client_id = 5, .nonce = 2, .t1_ns = 1}));
    EXPECT_EQ(client.step(), MessageType::Pong);

    server.set_faults({.duplicate_percent = 100, .jitter_ms = 5, .drift_ppm = 500});
    server.set_sending(true);
    client.syncs.clear();
    while (client.syncs.size() < 100)
        ASSERT_TRUE(client.step());
    for (std::size_t i = 0; i < 100; ++i) {
        ASSERT_EQ(client.syncs[i].sequence, client.syncs[0].sequence + i / 2) << i;
    }
    EXPECT_GT(server.snapshot().lost_on_purpose, 0U);
}

}  // namespace
}  // namespace tavistro::server
