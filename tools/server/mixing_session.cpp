#include "tools/server/mixing_session.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "net/server_messages.h"
#include "platform/clock.h"
#include "tools/server/fault_lane.h"

namespace tavistro::server {

using platform::Ipv4Endpoint;
using TavistroProtocol::MessageType;

namespace {

constexpr std::uint64_t ns_per_us = 1'000;
constexpr std::uint64_t ns_per_ms = 1'000'000;

bool on_bus(std::int32_t channel) {
    return channel >= 0 && static_cast<std::size_t>(channel) < bus_channel_count;
}

}  // namespace

MixingSession::MixingSession(const Settings& settings, const SkewedClock& clock, SourceList sources,
                             std::uint64_t local_ns)
    : port_(settings.port),
      udp_payload_bytes_(settings.udp_payload_bytes),
      clock_(clock),
      schedule_(settings.format, clock.to_server(local_ns), settings.first_sequence),
      sources_(std::move(sources)),
      bus_(settings.format.frames) {}

std::optional<TavistroProtocol::Datagram> MixingSession::receive(
    std::span<const std::uint8_t> bytes, const Ipv4Endpoint& from, const FaultOptions& faults,
    std::uint64_t local_ns) {
    const auto header = TavistroProtocol::decode_header(bytes);
    switch (header ? header.message.type : MessageType{}) {
        case MessageType::Discover:
            if (const auto discover = TavistroProtocol::decode_discover(bytes)) {
                return TavistroProtocol::encode_discover_reply(
                    {.client_id = discover.message.client_id,
                     .nonce = discover.message.nonce,
                     .port = port_,
                     .version = faults.reply_version});
            }
            break;
        case MessageType::Ping:
            if (const auto ping = TavistroProtocol::decode_ping(bytes)) {
                return TavistroProtocol::encode_pong(
                    {.client_id = ping.message.client_id,
                     .nonce = ping.message.nonce,
                     .t1_ns = ping.message.t1_ns,
                     .t2_ns = clock_.to_server(local_ns),
                     .t3_ns = clock_.to_server(platform::nanosecond_clock())});
            }
            break;
        case MessageType::Announce:
            if (const auto announce = TavistroProtocol::decode_announce(bytes);
                announce &&
                registry_.announce(from, announce.message, format(), local_ns / ns_per_ms)) {
                return {};
            }
            break;
        case MessageType::Audio:
            if (const auto fragment = TavistroProtocol::decode_audio(bytes)) {
                Client* const client = registry_.find(from, header.message.client_id);
                if (client != nullptr) {
                    client->input.accept(fragment.message, schedule_.next().sequence);
                } else {
                    ++counters_.strangers;
                }
                return {};
            }
            break;
        default:
            break;
    }
    ++counters_.malformed;
    return {};
}

std::uint64_t MixingSession::next_due_ns() const noexcept {
    return clock_.to_local(schedule_.next().time_ns);
}

std::optional<BlockStamp> MixingSession::mix_due_block(const FaultOptions& faults,
                                                       std::uint64_t local_ns,
                                                       std::vector<RoutedDatagram>& outbox) {
    const std::uint64_t now_ns = clock_.to_server(local_ns);
    const std::uint64_t due = schedule_.due_blocks(now_ns);
    if (due == 0) return {};
    if (due > max_late_blocks) {
        schedule_.advance(due - max_late_blocks);
        counters_.blocks_skipped += due - max_late_blocks;
    }
    const BlockStamp block = schedule_.next();
    counters_.lateness_max_us =
        std::max(counters_.lateness_max_us, (now_ns - block.time_ns) / ns_per_us);
    registry_.drop_silent(local_ns / ns_per_ms);
    mix(block);
    const bool paused = sync_is_paused(faults, format(), block.index);
    for (Client& client : registry_.clients()) {
        if (!paused) send_sync(client, block, outbox);
        send_audio(client, block, outbox);
        ++counters_.blocks_sent;
    }
    schedule_.advance();
    return block;
}

void MixingSession::change_format(const StreamFormat& format) {
    for (const auto& source : sources_)
        source->change_rate(format.sample_rate);
    schedule_.change_format(format);
    bus_.resize(format.frames);
    registry_.change_format(format);
}

void MixingSession::adjust_clock(std::int64_t offset_ms, double drift_ppm, std::uint64_t local_ns) {
    const std::uint64_t before_ns = clock_.to_server(local_ns);
    clock_.adjust(local_ns, offset_ms, drift_ppm);
    // Unsigned arithmetic wraps, so this also moves the deadline back.
    schedule_.move_to(schedule_.next().time_ns + clock_.to_server(local_ns) - before_ns);
}

void MixingSession::mix(const BlockStamp& block) {
    bus_.clear();
    for (const auto& source : sources_)
        source->mix(bus_);
    const std::size_t frames = bus_.frames();
    bool heard = false;
    for (Client& client : registry_.clients()) {
        const std::vector<float> input = client.input.take(block.sequence);
        if (input.empty()) continue;
        heard = heard || std::ranges::any_of(input, [](float sample) { return sample != 0.0F; });
        const std::vector<std::int32_t>& channels = client.announce.driver_inputs;
        for (std::size_t i = 0; i < channels.size(); ++i) {
            if (!on_bus(channels[i])) continue;
            bus_.add(static_cast<std::size_t>(channels[i]),
                     std::span(input).subspan(i * frames, frames));
        }
    }
    if (!heard) return;
    // Count frames, not time: the server's clock may have been set in between.
    const std::uint64_t frame = block.frame_position;
    const std::uint64_t silent_frames = frame - last_heard_frame_.value_or(frame);
    counters_.longest_silence_ms =
        std::max(counters_.longest_silence_ms, silent_frames * 1000 / format().sample_rate);
    last_heard_frame_ = frame;
}

void MixingSession::send_sync(Client& client, const BlockStamp& block,
                              std::vector<RoutedDatagram>& outbox) {
    ++client.sync_blocks_sent;
    outbox.push_back({RoutedDatagram::Direction::to_client, client.endpoint,
                      TavistroProtocol::encode_sync(client.announce.client_id,
                                                    {.sequence = block.sequence,
                                                     .sample_rate = format().sample_rate,
                                                     .block_frames = format().frames,
                                                     .server_frame_position = block.frame_position,
                                                     .server_time_ns = block.time_ns})});
}

void MixingSession::send_audio(const Client& client, const BlockStamp& block,
                               std::vector<RoutedDatagram>& outbox) {
    const std::vector<std::int32_t>& channels = client.announce.driver_outputs;
    output_.clear();
    for (const std::int32_t channel : channels) {
        if (!on_bus(channel)) {
            output_.resize(output_.size() + bus_.frames());
            continue;
        }
        const auto samples = std::as_const(bus_).channel(static_cast<std::size_t>(channel));
        output_.insert(output_.end(), samples.begin(), samples.end());
    }
    // Fails only for a client without outputs, whose fragment list stays empty.
    TavistroProtocol::encode_audio_block({.client_id = client.announce.client_id,
                                          .sequence = block.sequence,
                                          .sample_rate = format().sample_rate,
                                          .frames = format().frames,
                                          .channels = static_cast<std::uint16_t>(channels.size()),
                                          .samples = output_},
                                         udp_payload_bytes_, fragments_);
    for (TavistroProtocol::Datagram& fragment : fragments_) {
        outbox.push_back(
            {RoutedDatagram::Direction::to_client, client.endpoint, std::move(fragment)});
    }
}

}  // namespace tavistro::server
