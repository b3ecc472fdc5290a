// A server that answers the client's discover messages and otherwise sends only what a test passes.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <thread>
#include <vector>

#include "net/server_messages.h"
#include "platform/threads.h"
#include "platform/udp_socket.h"

namespace tavistro::test {

/// Listens on a free port of 127.0.0.1 during its lifetime.
class ScriptedServer {
  public:
    ScriptedServer() {
        socket_.open({.recv_buffer_bytes = 1 << 22, .bind = {platform::ipv4_loopback, 0}});
        thread_.start("server", [this] { answer(); });
    }
    ~ScriptedServer() {
        socket_.close();
        thread_.join();
    }

    /// The receive thread's id; std::thread::id() before it runs.
    std::thread::id thread() const { return thread_id_; }
    std::uint16_t port() const { return socket_.local_endpoint().port; }
    /// The client that sent the last discover message; send() sends to it.
    platform::Ipv4Endpoint client() const { return {platform::ipv4_loopback, client_port_}; }
    void send(std::span<const std::uint8_t> datagram) { socket_.send_to(datagram, client()); }
    void send_sync(std::uint32_t sample_rate, std::uint16_t block_frames) {
        send(TavistroProtocol::encode_sync(client_id_,
                                           {++sequence_, sample_rate, block_frames, 0, 0}));
    }

    std::atomic<bool> mute{false};            ///< does not answer
    std::atomic<std::uint64_t> announces{0};  ///< including leaves
    std::atomic<std::uint64_t> leaves{0};
    std::atomic<std::uint32_t> version{TavistroProtocol::protocol_version};  ///< in its replies

  private:
    void answer() {
        thread_id_ = std::this_thread::get_id();
        std::vector<std::uint8_t> buffer(platform::max_datagram_bytes);
        for (;;) {
            const auto received = socket_.receive(buffer);
            if (received.status == platform::ReceiveStatus::closed) return;
            const std::span bytes(buffer.data(), received.size);
            const auto discover = TavistroProtocol::decode_discover(bytes);
            const auto announce = TavistroProtocol::decode_announce(bytes);
            if (announce) ++announces;
            if (announce && is_leave(announce.message)) ++leaves;
            if (!discover) continue;
            client_id_ = discover.message.client_id;
            client_port_ = received.source.port;
            if (mute) continue;
            send(TavistroProtocol::encode_discover_reply(
                {client_id_, discover.message.nonce, port(), version}));
        }
    }

    platform::UdpSocket socket_;
    platform::Thread thread_;
    std::atomic<std::thread::id> thread_id_;
    std::atomic<std::uint32_t> client_id_{0};
    std::atomic<std::uint16_t> client_port_{0};
    std::uint32_t sequence_ = 0;
};

}  // namespace tavistro::test
