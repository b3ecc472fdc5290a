#include "tools/server/reference_server.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

#include "platform/clock.h"

namespace tavistro::server {

using platform::nanosecond_clock;

namespace {

constexpr std::uint32_t socket_buffer_bytes = 1 << 20;
/// After this many failed receives in a row the receive thread pauses between attempts.
constexpr int most_failures_in_a_row = 64;
/// Longest sleep of the clock thread, and so the longest time that stop() waits for it.
constexpr std::uint64_t longest_sleep_ns = 20'000'000;
/// The same when faults delay datagrams: the receive thread may queue a reply while the clock
/// thread sleeps.
constexpr std::uint64_t delay_precision_ns = 1'000'000;

std::uint64_t unix_ms() {
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(duration_cast<milliseconds>(since_epoch).count());
}

/// Finer than platform::sleep_ms, which sleeps whole milliseconds. May wake late, hardly ever
/// early.
void sleep_until_ns(std::uint64_t local_ns) {
    const std::uint64_t now_ns = nanosecond_clock();
    if (local_ns > now_ns) std::this_thread::sleep_for(std::chrono::nanoseconds(local_ns - now_ns));
}

void add_session(ServerSnapshot& snapshot, const MixingSession& session) {
    const ClientRegistry& registry = session.registry();
    const BlockStamp next = session.next_block();
    static_cast<MixCounters&>(snapshot) = session.counters();
    static_cast<SessionCounters&>(snapshot) = registry.counters();
    snapshot.format = session.format();
    snapshot.next_sequence = next.sequence;
    snapshot.blocks = next.index - snapshot.blocks_skipped;
    snapshot.input = registry.input_counters();
    for (const Client& client : registry.clients()) {
        snapshot.clients.push_back(
            {client.endpoint, client.announce, client.sync_blocks_sent, client.input.counters()});
    }
}

}  // namespace

std::string ReferenceServer::start() {
    if (running_.load()) return {};
    try {
        SourceList sources = make_sources(options_);
        open_socket();
        observer_.start(options_);
        begin_session(std::move(sources));
        running_ = true;
        if (!receive_thread_.start("srv-receive", [this] { run_receive(); }) ||
            !clock_thread_.start("srv-clock", [this] { run_clock(); }))
            throw std::runtime_error("cannot start the network and clock threads");
    } catch (const std::runtime_error& error) {
        stop();
        return error.what();
    }
    return {};
}

void ReferenceServer::stop() {
    if (running_.exchange(false)) {
        const std::lock_guard lock(mutex_);
        stopped_ms_ = platform::millisecond_tick();
    }
    socket_.close();
    clock_thread_.join();
    receive_thread_.join();
    socket_.release();
    observer_.stop();
    if (std::exchange(network_started_, false)) platform::stop_network_stack();
}

ServerSnapshot ReferenceServer::snapshot() const {
    ServerSnapshot snapshot;
    snapshot.format = options_.format;
    {
        const std::lock_guard lock(mutex_);
        static_cast<TrafficCounters&>(snapshot) = traffic_;
        if (session_) add_session(snapshot, *session_);
        const std::uint64_t until_ms =
            stopped_ms_ != 0 || !session_ ? stopped_ms_ : platform::millisecond_tick();
        snapshot.uptime_ms = until_ms - started_ms_;
    }
    observer_.add_to(snapshot);
    return snapshot;
}

bool ReferenceServer::change_format(std::uint32_t sample_rate, std::uint16_t frames) {
    const std::lock_guard lock(mutex_);
    const StreamFormat format{sample_rate, frames};
    if (!session_ || !format.is_valid()) return false;
    const bool has_files = !options_.plays.empty() || !options_.records.empty();
    if (has_files && sample_rate != session_->format().sample_rate) return false;
    session_->change_format(format);
    return true;
}

void ReferenceServer::set_faults(const FaultOptions& faults) {
    const std::lock_guard lock(mutex_);
    faults_ = faults;
    if (!session_) return;
    session_->adjust_clock(faults.clock_offset_ms, faults.drift_ppm, nanosecond_clock());
}

void ReferenceServer::open_socket() {
    network_started_ = platform::start_network_stack();
    if (!network_started_) throw std::runtime_error("cannot start the network stack");
    if (port_ == 0) port_ = options_.port;
    const platform::SocketOptions options{.recv_buffer_bytes = socket_buffer_bytes,
                                          .send_buffer_bytes = socket_buffer_bytes,
                                          .bind = {options_.bind_address, port_}};
    if (!socket_.open(options)) {
        throw std::runtime_error(
            "cannot bind to UDP " + platform::format_ipv4(options_.bind_address) + ":" +
            std::to_string(port_) + ": port in use, or not an address of this machine");
    }
    port_ = socket_.local_endpoint().port;
}

void ReferenceServer::begin_session(SourceList sources) {
    delayed_.clear();
    const std::lock_guard lock(mutex_);
    traffic_ = {};
    block_lane_ = FaultLane(options_.seed);
    reply_lane_ = FaultLane(options_.seed + 1);
    uplink_lane_ = FaultLane(options_.seed + 2);
    std::uint32_t first_sequence =
        options_.first_sequence.value_or(sequence_of_wall_clock(unix_ms(), options_.format));
    // After a change to shorter blocks, sequence numbers may be ahead of the wall clock.
    if (session_ && TavistroProtocol::is_newer(session_->next_block().sequence, first_sequence)) {
        first_sequence = session_->next_block().sequence;
    }
    const std::uint64_t now_ns = nanosecond_clock();
    session_.emplace(MixingSession::Settings{.format = options_.format,
                                             .port = port_,
                                             .udp_payload_bytes = options_.udp_payload_bytes,
                                             .first_sequence = first_sequence},
                     SkewedClock(now_ns, faults_.clock_offset_ms, faults_.drift_ppm),
                     std::move(sources), now_ns);
    started_ms_ = platform::millisecond_tick();
    stopped_ms_ = 0;
}

void ReferenceServer::run_receive() {
    const platform::ScopedThreadRole role(platform::ThreadRole::network_receive);
    socket_.receive_in_runs();
    std::vector<std::uint8_t> buffer(platform::max_datagram_bytes);
    int failures_in_a_row = 0;
    while (running_.load()) {
        const platform::ReceiveResult received = socket_.receive(buffer);
        if (received.status == platform::ReceiveStatus::closed) return;
        if (received.status != platform::ReceiveStatus::datagram) {
            // The system reports an error for each datagram sent to a client that has disappeared.
            // Other clients must not wait for these, but a permanent error must not use up the CPU.
            if (++failures_in_a_row > most_failures_in_a_row) platform::sleep_ms(1);
            continue;
        }
        failures_in_a_row = 0;
        platform::for_each_datagram(received, buffer, [&](const auto& datagram) {
            meet_faults(uplink_lane_,
                        {RoutedDatagram::Direction::from_client,
                         received.source,
                         {datagram.begin(), datagram.end()}},
                        [this](const RoutedDatagram& copy) { pass_on(copy); });
        });
    }
}

void ReferenceServer::run_clock() {
    const platform::ScopedThreadRole role(platform::ThreadRole::audio_device);
    const platform::ScopedTimerResolution timer;
    while (running_.load()) {
        release_delayed();
        if (!send_due_block()) wait_for_work();
    }
}

bool ReferenceServer::send_due_block() {
    outbox_.clear();
    {
        const std::lock_guard lock(mutex_);
        const std::uint64_t now_ns = nanosecond_clock();
        const auto block = session_->mix_due_block(faults_, now_ns, outbox_);
        if (!block) return false;
        history_.add(*block, session_->bus());
        observer_.push(block->index, session_->format(), session_->bus());
    }
    send_outbox();
    return true;
}

void ReferenceServer::send_outbox() {
    // Count a client's block once. The datagrams of one client are adjacent in the outbox.
    platform::Ipv4Endpoint lost_to;
    platform::Ipv4Endpoint held_back_to;
    departing_.clear();
    for (const RoutedDatagram& datagram : outbox_) {
        const auto header = TavistroProtocol::decode_header(datagram.bytes);
        const Passage passage =
            meet_faults(block_lane_, datagram,
                        [this](const RoutedDatagram& copy) { departing_.push_back(&copy); });
        const bool is_audio = header && header.message.type == TavistroProtocol::MessageType::Audio;
        const std::lock_guard lock(mutex_);
        if (!is_audio) {
            traffic_.syncs_lost += passage.copies == 0 ? 1U : 0U;
        } else if (passage.copies == 0) {
            traffic_.blocks_lost += std::exchange(lost_to, datagram.client) != datagram.client;
        } else if (passage.held_back) {
            traffic_.blocks_held_back +=
                std::exchange(held_back_to, datagram.client) != datagram.client;
        }
    }
    send_departing();
}

void ReferenceServer::send_departing() {
    for (auto next = departing_.begin(); next != departing_.end();) {
        const platform::Ipv4Endpoint client = (*next)->client;
        run_.clear();
        for (; next != departing_.end() && (*next)->client == client; ++next)
            run_.push_back((*next)->bytes);
        send(run_, client);
    }
}

void ReferenceServer::send(std::span<const platform::DatagramBytes> datagrams,
                           const platform::Ipv4Endpoint& client) {
    const platform::SentDatagrams sent = socket_.send_run(datagrams, client);
    const std::lock_guard lock(mutex_);
    traffic_.datagrams_sent += sent.count;
    traffic_.bytes_sent += sent.bytes;
    traffic_.send_failures += datagrams.size() - sent.count;
}

void ReferenceServer::wait_for_work() {
    std::uint64_t wake_ns = 0;
    {
        const std::lock_guard lock(mutex_);
        const bool delays = faults_.jitter_ms != 0 || faults_.reorder_percent > 0;
        wake_ns = std::min(session_->next_due_ns(),
                           nanosecond_clock() + (delays ? delay_precision_ns : longest_sleep_ns));
    }
    sleep_until_ns(std::min(wake_ns, delayed_.next_due_ns().value_or(wake_ns)));
}

template <typename PassOn>
Passage ReferenceServer::meet_faults(FaultLane& lane, const RoutedDatagram& datagram,
                                     const PassOn& pass_on) {
    const std::uint64_t now_ns = nanosecond_clock();
    Passage passage;
    {
        const std::lock_guard lock(mutex_);
        passage = lane.pass(faults_, session_->format(), session_->next_block().index, now_ns);
        if (datagram.direction == RoutedDatagram::Direction::from_client) {
            ++traffic_.datagrams_received;
            traffic_.bytes_received += datagram.bytes.size();
        } else if (faults_.silent) {
            passage.copies = 0;
        }
        traffic_.lost_on_purpose += passage.copies == 0 ? 1U : 0U;
    }
    // A datagram must not overtake delayed ones that are due but not released yet.
    const bool waits =
        passage.due_ns > now_ns || delayed_.next_due_ns().value_or(now_ns + 1) <= now_ns;
    for (unsigned copy = 0; copy < passage.copies; ++copy) {
        if (waits) {
            delayed_.push(passage.due_ns, datagram);
        } else {
            pass_on(datagram);
        }
    }
    return passage;
}

void ReferenceServer::release_delayed() {
    while (const auto datagram = delayed_.pop_due(nanosecond_clock()))
        pass_on(*datagram);
}

void ReferenceServer::pass_on(const RoutedDatagram& datagram) {
    if (datagram.direction == RoutedDatagram::Direction::from_client) return handle(datagram);
    const platform::DatagramBytes bytes = datagram.bytes;
    send({&bytes, 1}, datagram.client);
}

void ReferenceServer::handle(const RoutedDatagram& datagram) {
    std::optional<TavistroProtocol::Datagram> answer;
    {
        const std::lock_guard lock(mutex_);
        answer = session_->receive(datagram.bytes, datagram.client, faults_, nanosecond_clock());
    }
    if (!answer) return;
    meet_faults(reply_lane_,
                {RoutedDatagram::Direction::to_client, datagram.client, std::move(*answer)},
                [this](const RoutedDatagram& copy) { pass_on(copy); });
}

}  // namespace tavistro::server
