#include "net/client_session.h"

#include <cstdio>
#include <new>
#include <utility>

#include "net/nonce.h"
#include "platform/clock.h"

namespace tavistro {

using TavistroProtocol::SyncInfo;

namespace {

constexpr int leave_tries = 10;
constexpr std::uint32_t leave_pause_ms = 10;

}  // namespace

void ClientSession::reset(const TavistroProtocol::ClientSettings& settings,
                          ClientCallbacks callbacks) {
    settings_ = settings;
    callbacks_ = std::move(callbacks);
    session_id_ = fresh_session_id(settings_.client_id);
    uplink_datagrams_.clear();

    const std::lock_guard lock(mutex_);
    last_sync_sequence_.reset();
    last_uplink_sequence_.reset();
    reassembly_.reset(settings_.driver_outputs.size());
    delivery_.reset();
    capture_ring_ = CaptureRing();
    server_clock_ = ServerClock();
    statistics_.reset(platform::millisecond_tick());
}

void ClientSession::run(const platform::Ipv4Endpoint& server) {
    server_ = server;
    running_.store(true, std::memory_order_release);
}

// Locks no mutex: the receive thread would wait for the periodic thread, whose priority is lower.
// The count is raised before running_ is read, sequentially consistent with end(): either the
// send sees that the session has ended, or end() waits for the send.
bool ClientSession::send(std::span<const platform::DatagramBytes> datagrams) const {
    sends_under_way_.fetch_add(1);
    const bool sent = running_.load() && send_(datagrams, server_);
    sends_under_way_.fetch_sub(1);
    return sent;
}

bool ClientSession::end() {
    if (!running_.exchange(false)) return false;
    while (sends_under_way_.load() != 0)
        platform::sleep_ms(1);
    if (settings_.client_id != 0) leave();
    return true;
}

void ClientSession::leave() const {
    try {
        const auto datagram = TavistroProtocol::encode_leave(settings_.client_id, session_id_);
        const platform::DatagramBytes bytes = datagram;
        for (int i = 0; i < leave_tries && !send_({&bytes, 1}, server_); ++i)
            platform::sleep_ms(leave_pause_ms);
    } catch (const std::bad_alloc&) {
        // The server removes a client that sends nothing.
    }
}

void ClientSession::release() {
    callbacks_.telemetry = nullptr;
    completed_ = {};
    silence_ = {};
    uplink_samples_ = {};
    uplink_datagrams_ = {};
    uplink_run_ = {};
    const std::lock_guard lock(mutex_);
    reassembly_.release();
    capture_ring_ = CaptureRing();
    server_clock_.forget_ping();
}

void ClientSession::log(const char* line) const noexcept {
    if (!callbacks_.log) return;
    try {
        callbacks_.log(line);
    } catch (const std::bad_alloc&) {
        // Only the line is lost.
    }
}

void ClientSession::report(const ClientTelemetry& telemetry) const {
    if (callbacks_.telemetry) callbacks_.telemetry(telemetry);
}

void ClientSession::send_announce() {
    const auto datagram = TavistroProtocol::encode_announce(
        {settings_.client_id, session_id_, settings_.input_latency_blocks,
         settings_.output_latency_blocks, settings_.driver_inputs, settings_.driver_outputs});
    if (!send_one(datagram)) log("[net] Failed to send announce.");
}

void ClientSession::ping_tick() {
    const std::uint64_t now_ms = platform::millisecond_tick();
    TavistroProtocol::Ping ping;
    std::optional<ClientTelemetry> telemetry;
    {
        const std::lock_guard lock(mutex_);
        const auto step = server_clock_.next_ping_step(now_ms);
        if (step == ServerClock::PingStep::wait) return;
        if (step == ServerClock::PingStep::send_after_loss) {
            statistics_.count_ping_timeout();
            telemetry = snapshot();
        }
        const std::uint64_t t1_ns = platform::nanosecond_clock();
        ping = {settings_.client_id, fresh_nonce(settings_.client_id) ^ t1_ns, t1_ns};
        server_clock_.ping_sent(ping, now_ms);
    }
    if (telemetry) report(*telemetry);
    send_one(TavistroProtocol::encode_ping(ping));
}

void ClientSession::handle_datagram(std::span<const std::uint8_t> datagram,
                                    const platform::Ipv4Endpoint& source) {
    using TavistroProtocol::MessageType;
    if (!running() || source != server_) return;
    switch (TavistroProtocol::stated_type(datagram)) {
        case MessageType::Audio:
            return handle_audio(datagram);
        case MessageType::Sync:
            return handle_sync(datagram);
        case MessageType::Pong:
            return handle_pong(datagram);
        default:
            return;
    }
}

void ClientSession::handle_pong(std::span<const std::uint8_t> datagram) {
    const auto pong = TavistroProtocol::decode_pong(datagram);
    if (!pong) return;
    ClientTelemetry telemetry;
    {
        const std::lock_guard lock(mutex_);
        const auto rtt_ns = server_clock_.accept(pong.message, platform::nanosecond_clock());
        if (!rtt_ns) return;
        statistics_.record_rtt(ceil_to_us(*rtt_ns));
        telemetry = snapshot();
    }
    report(telemetry);
}

void ClientSession::handle_sync(std::span<const std::uint8_t> datagram) {
    const std::uint64_t now_ns = platform::nanosecond_clock();
    const auto decoded = TavistroProtocol::decode_sync(datagram);
    if (!decoded) return;
    const SyncInfo& sync = decoded.message;
    SyncVerdict verdict{};
    std::optional<ClientTelemetry> telemetry;
    {
        const std::lock_guard lock(mutex_);
        verdict = judge_sync(sync);
        if (verdict == SyncVerdict::dropped) return;
        last_sync_sequence_ = sync.sequence;
        if (server_clock_.clock_synced() && sync.server_time_ns != 0) {
            server_clock_.remember_block(sync.sequence, sync.server_time_ns);
            statistics_.record_sync_delay(now_ns, server_clock_.clock_offset_ns(),
                                          sync.server_time_ns);
            telemetry = snapshot();
        }
    }
    if (telemetry) report(*telemetry);
    if (callbacks_.sync) callbacks_.sync(sync);
    if (verdict == SyncVerdict::accepted_with_input) send_captured_block(sync);
}

ClientSession::SyncVerdict ClientSession::judge_sync(const SyncInfo& sync) {
    // A stream in a new format may start at any sequence; no input is captured for it yet.
    const bool states_format = sync.sample_rate != 0 && sync.block_frames != 0;
    if (capture_ring_.capture_format_set() && states_format &&
        (sync.sample_rate != capture_ring_.capture_sample_rate() ||
         sync.block_frames != capture_ring_.capture_frames())) {
        return SyncVerdict::accepted;
    }
    if (last_sync_sequence_ && !TavistroProtocol::is_newer(sync.sequence, *last_sync_sequence_)) {
        return SyncVerdict::dropped;
    }
    return settings_.driver_inputs.empty() ? SyncVerdict::accepted
                                           : SyncVerdict::accepted_with_input;
}

void ClientSession::handle_audio(std::span<const std::uint8_t> datagram) {
    const std::uint64_t arrival_time_ns = platform::nanosecond_clock();
    const auto fragment = TavistroProtocol::decode_audio(datagram);
    if (!fragment) return;
    {
        const std::lock_guard lock(mutex_);
        if (!reassembly_.offer(fragment.message, completed_)) return;
        completed_.arrival_time_ns = arrival_time_ns;
        const auto times = server_clock_.block_times(completed_.sequence);
        completed_.server_time_ns = times.server_time_ns;
        completed_.server_time_local_ns = times.local_time_ns;
    }
    deliver_completed();
}

void ClientSession::deliver_completed() {
    if (!callbacks_.block) return;
    const std::uint64_t now_ms = platform::millisecond_tick();
    DeliveryTracker::Verdict verdict;
    std::optional<ClientTelemetry> telemetry;
    {
        const std::lock_guard lock(mutex_);
        verdict = delivery_.consult(completed_.sequence);
        if (verdict.is_new) {
            statistics_.count_new_block();
        } else {
            statistics_.count_duplicate_block();
        }
        if (statistics_.rollover(now_ms)) telemetry = snapshot();
    }
    if (telemetry) {
        report(*telemetry);
        log_interval(*telemetry);
    }
    if (!verdict.is_new) return;
    if (verdict.missing > 0) deliver_silence(verdict);

    completed_.delivery_time_ns = platform::nanosecond_clock();
    callbacks_.block(completed_);
    const std::uint64_t delivered_ns = platform::nanosecond_clock();
    const std::lock_guard lock(mutex_);
    statistics_.record_callback_latency(completed_.arrival_time_ns, delivered_ns);
}

void ClientSession::deliver_silence(const DeliveryTracker::Verdict& gap) {
    silence_.sample_rate = completed_.sample_rate;
    silence_.frames = completed_.frames;
    silence_.channels = completed_.channels;
    silence_.samples.resize(completed_.samples.size());  // all zeros
    for (std::uint32_t i = 0; i < gap.missing; ++i) {
        silence_.sequence = gap.first_missing + i;
        callbacks_.block(silence_);
    }
}

void ClientSession::log_interval(const ClientTelemetry& telemetry) {
    if (!callbacks_.log) return;
    char text[256];
    std::snprintf(
        text, sizeof text, "[net] recvBlocksPerSec=%llu duplicateBlocksPerSec=%llu rttUs=%u/%u/%u",
        static_cast<unsigned long long>(telemetry.recvBlocksPerSec),
        static_cast<unsigned long long>(telemetry.duplicateBlocksPerSec),
        static_cast<unsigned>(telemetry.rtt_last_us), static_cast<unsigned>(telemetry.rtt_min_us),
        static_cast<unsigned>(telemetry.rtt_max_us));
    interval_line_ = text;
    callbacks_.log(interval_line_);
}

void ClientSession::send_captured_block(const SyncInfo& sync) {
    const std::uint32_t sequence =
        sync.sequence + static_cast<std::uint32_t>(settings_.client_latency_blocks);
    {
        const std::lock_guard lock(mutex_);
        if (last_uplink_sequence_ &&
            !TavistroProtocol::is_newer(sequence, *last_uplink_sequence_)) {
            return;
        }
        if (!capture_ring_.pull(sync.sample_rate, sync.block_frames, uplink_samples_)) return;
    }
    const TavistroProtocol::AudioBlockView block{
        settings_.client_id,
        sequence,
        sync.sample_rate,
        sync.block_frames,
        static_cast<std::uint16_t>(settings_.driver_inputs.size()),
        uplink_samples_};
    if (!TavistroProtocol::encode_audio_block(block, settings_.udp_payload_bytes,
                                              uplink_datagrams_)) {
        return;
    }
    uplink_run_.assign(uplink_datagrams_.begin(), uplink_datagrams_.end());
    send(uplink_run_);
    const std::lock_guard lock(mutex_);
    last_uplink_sequence_ = sequence;
}

bool ClientSession::set_capture_format(std::uint32_t sample_rate, std::uint16_t frames) {
    if (sample_rate == 0 || frames == 0) return false;
    // The new ring is allocated and the old one freed without the mutex: the receive thread does
    // not wait for either.
    CaptureRing ring(settings_.driver_inputs.size(), sample_rate, frames,
                     settings_.capture_target_blocks, settings_.capture_capacity_blocks);
    const std::lock_guard lock(mutex_);
    last_sync_sequence_.reset();
    last_uplink_sequence_.reset();
    delivery_.reset();
    reassembly_.clear();
    std::swap(capture_ring_, ring);
    return true;
}

void ClientSession::push_captured_input(std::uint32_t sample_rate, std::uint16_t frames,
                                        std::uint16_t channels, std::span<const float> samples,
                                        double rate_ratio) {
    const std::lock_guard lock(mutex_);
    capture_ring_.push(sample_rate, frames, channels, samples, rate_ratio);
}

}  // namespace tavistro
