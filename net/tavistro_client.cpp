#include "net/tavistro_client.h"

#include <new>
#include <utility>

#include "net/discovery.h"
#include "platform/clock.h"

namespace tavistro {

namespace {

constexpr std::uint32_t wait_slice_ms = 50;
constexpr std::uint32_t receive_error_pause_ms = 10;

/// A step that runs out of memory is skipped, like a lost datagram; the session continues.
template <typename Step>
void try_to(const Step& step) {
    try {
        step();
    } catch (const std::bad_alloc&) {
    }
}

}  // namespace

TavistroClient::TavistroClient()
    : session_([this](std::span<const platform::DatagramBytes> datagrams,
                      const platform::Ipv4Endpoint& to) {
          return socket_.send_run(datagrams, to).count == datagrams.size();
      }) {}

bool TavistroClient::start(const TavistroProtocol::ClientSettings& settings, Log log,
                           BlockCallback block, SyncCallback sync, TelemetryCallback telemetry) {
    if (session_.running()) return true;
    last_error_ = ClientError::None;
    try {
        session_.reset(settings,
                       {std::move(log), std::move(block), std::move(sync), std::move(telemetry)});
        const auto server = connect();
        if (!server) return false;
        session_.run(*server);
        if (!start_threads()) {
            last_error_ = ClientError::Thread;
            stop();
            return false;
        }
    } catch (const std::bad_alloc&) {
        last_error_ = session_.running() ? ClientError::Thread : ClientError::Socket;
        stop();
        return false;
    }
    try_to([this] { session_.send_announce(); });
    try_to([this] { session_.ping_tick(); });
    session_.log("[net] Client started.");
    return true;
}

void TavistroClient::stop() {
    socket_.wind_down();
    const bool was_running = session_.end();
    socket_.close();
    periodic_thread_.join();
    receive_thread_.join();
    session_.release();
    disconnect();
    if (was_running) session_.log("[net] Client stopped.");
}

bool TavistroClient::set_capture_format(std::uint32_t sample_rate, std::uint16_t frames) {
    try {
        return session_.set_capture_format(sample_rate, frames);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void TavistroClient::push_captured_input(std::uint32_t sample_rate, std::uint16_t frames,
                                         std::uint16_t channels, const std::vector<float>& samples,
                                         double rate_ratio) {
    session_.push_captured_input(sample_rate, frames, channels, samples, rate_ratio);
}

std::optional<platform::Ipv4Endpoint> TavistroClient::connect() {
    const auto& settings = session_.settings();
    network_started_ = platform::start_network_stack();
    if (!network_started_ ||
        !socket_.open({settings.recv_buffer_bytes, settings.send_buffer_bytes, {}})) {
        last_error_ = ClientError::Socket;
        disconnect();
        return {};
    }
    const FoundServer found =
        find_server(socket_, settings, [this](const auto& line) { session_.log(line.c_str()); });
    if (!found.server) {
        last_error_ = found.error;
        disconnect();
    }
    return found.server;
}

void TavistroClient::disconnect() {
    socket_.release();
    receive_buffer_ = {};
    if (std::exchange(network_started_, false)) platform::stop_network_stack();
}

bool TavistroClient::start_threads() {
    receive_buffer_.resize(platform::max_datagram_bytes);
    return receive_thread_.start("tav-receive", [this] { receive_loop(); }) &&
           periodic_thread_.start("tav-periodic", [this] { periodic_loop(); });
}

void TavistroClient::receive_loop() {
    const platform::ScopedThreadRole role(platform::ThreadRole::network_receive);
    socket_.receive_in_runs();
    while (session_.running()) {
        const platform::ReceiveResult received = socket_.receive(receive_buffer_);
        if (received.status == platform::ReceiveStatus::closed) return;
        if (received.status != platform::ReceiveStatus::datagram) {
            // Usually "port unreachable"; the server may come back.
            if (session_.running()) platform::sleep_ms(receive_error_pause_ms);
            continue;
        }
        platform::for_each_datagram(received, receive_buffer_, [&](const auto& datagram) {
            try_to([&] { session_.handle_datagram(datagram, received.source); });
        });
    }
}

void TavistroClient::periodic_loop() {
    while (session_.running()) {
        try_to([&] { session_.send_announce(); });
        try_to([&] { session_.ping_tick(); });
        const std::uint32_t period_ms = session_.settings().announce_period_ms;
        for (std::uint32_t waited_ms = 0; waited_ms < period_ms && session_.running();
             waited_ms += wait_slice_ms) {
            platform::sleep_ms(wait_slice_ms);
            if (session_.running()) try_to([&] { session_.ping_tick(); });
        }
    }
}

}  // namespace tavistro
