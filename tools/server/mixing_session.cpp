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

MixingSession::Answer MixingSession::receive(std::span<const std::uint8_t> bytes,
                                             const Ipv4Endpoint& from, const FaultOptions& faults,
                                             std::uint64_t local_ns) {
    const auto header = TavistroProtocol::decode_header(bytes);
    if (!header) {
        ++malformed_;
        return {};
    }
    switch (header.message.type) {
        case MessageType::Discover:
            return answer_discover(bytes, faults);
        case MessageType::Ping:
            return answer_ping(bytes, local_ns);
        case MessageType::Announce:
            take_announce(bytes, from, local_ns);
            return {};
        case MessageType::Audio:
            take_audio(bytes, from, header.message.client_id);
            return {};
        default:
            ++malformed_;
            return {};
    }
}

std::uint64_t MixingSession::next_due_ns() const noexcept {
    return clock_.to_local(schedule_.next().time_ns);
}

std::optional<BlockStamp> MixingSession::mix_due_block(const FaultOptions& faults, bool send,
                                                       std::uint64_t local_ns,
                                                       std::vector<RoutedDatagram>& outbox) {
    const std::uint64_t now_ns = clock_.to_server(local_ns);
    const std::uint64_t due = schedule_.due_blocks(now_ns);
    if (due == 0) return {};
    if (due > max_late_blocks) {
        schedule_.advance(due - max_late_blocks);
        blocks_skipped_ += due - max_late_blocks;
    }
    const BlockStamp block = schedule_.next();
    lateness_max_ns_ = std::max(lateness_max_ns_, now_ns - block.time_ns);
    registry_.drop_silent(local_ns / ns_per_ms);
    mix(block);
    if (send) {
        const bool paused = sync_is_paused(faults, format(), block.index);
        for (Client& client : registry_.clients()) {
            if (!paused) send_sync(client, block, outbox);
            send_audio(client, block, outbox);
            ++blocks_sent_;
        }
    }
    schedule_.advance();
    return block;
}

bool MixingSession::change_format(const StreamFormat& format) {
    const std::uint32_t old_rate = schedule_.format().sample_rate;
    for (auto source = sources_.begin(); source != sources_.end(); ++source) {
        if ((*source)->change_rate(format.sample_rate)) continue;
        for (auto undo = sources_.begin(); undo != source; ++undo)
            (*undo)->change_rate(old_rate);
        return false;
    }
    schedule_.change_format(format);
    bus_.resize(format.frames);
    registry_.change_format(format);
    return true;
}

void MixingSession::adjust_clock(std::int64_t offset_ms, double drift_ppm, std::uint64_t local_ns) {
    const std::uint64_t before_ns = clock_.to_server(local_ns);
    clock_.adjust(local_ns, offset_ms, drift_ppm);
    // Unsigned arithmetic wraps: this also moves back.
    schedule_.move_to(schedule_.next().time_ns + clock_.to_server(local_ns) - before_ns);
}

MixingSession::Answer MixingSession::answer_discover(std::span<const std::uint8_t> bytes,
                                                     const FaultOptions& faults) {
    const auto discover = TavistroProtocol::decode_discover(bytes);
    if (!discover) {
        ++malformed_;
        return {};
    }
    return TavistroProtocol::encode_discover_reply({.client_id = discover.message.client_id,
                                                    .nonce = discover.message.nonce,
                                                    .port = port_,
                                                    .version = faults.reply_version,
                                                    .capability = faults.reply_capability});
}

MixingSession::Answer MixingSession::answer_ping(std::span<const std::uint8_t> bytes,
                                                 std::uint64_t local_ns) {
    const auto ping = TavistroProtocol::decode_ping(bytes);
    if (!ping) {
        ++malformed_;
        return {};
    }
    return TavistroProtocol::encode_pong({.client_id = ping.message.client_id,
                                          .nonce = ping.message.nonce,
                                          .t1_ns = ping.message.t1_ns,
                                          .t2_ns = clock_.to_server(local_ns),
                                          .t3_ns = clock_.to_server(platform::nanosecond_clock())});
}

void MixingSession::take_announce(std::span<const std::uint8_t> bytes, const Ipv4Endpoint& from,
                                  std::uint64_t local_ns) {
    const auto announce = TavistroProtocol::decode_announce(bytes);
    const bool taken =
        announce && registry_.announce(from, announce.message, format(), local_ns / ns_per_ms);
    if (!taken) ++malformed_;
}

void MixingSession::take_audio(std::span<const std::uint8_t> bytes, const Ipv4Endpoint& from,
                               std::uint32_t client_id) {
    const auto fragment = TavistroProtocol::decode_audio(bytes);
    if (!fragment) {
        ++malformed_;
        return;
    }
    Client* client = registry_.find(from, client_id);
    if (client == nullptr) {
        ++strangers_;
        return;
    }
    client->input.accept(fragment.message, schedule_.next().sequence);
}

void MixingSession::mix(const BlockStamp& block) {
    bus_.clear();
    for (const auto& source : sources_)
        source->mix(bus_);
    const std::size_t frames = bus_.frames();
    bool heard = false;
    for (Client& client : registry_.clients()) {
        const std::span<const float> input = client.input.take(block.sequence);
        if (input.empty()) continue;
        heard = heard || std::ranges::any_of(input, [](float sample) { return sample != 0.0F; });
        const std::vector<std::int32_t>& channels = client.announce.driver_inputs;
        for (std::size_t i = 0; i < channels.size(); ++i) {
            if (!on_bus(channels[i])) continue;
            bus_.add(static_cast<std::size_t>(channels[i]), input.subspan(i * frames, frames));
        }
    }
    if (!heard) return;
    // Counted in frames: the server's clock may have been set since.
    const std::uint64_t frame = block.frame_position;
    const std::uint64_t silent_frames = frame - last_heard_frame_.value_or(frame);
    longest_silence_ms_ =
        std::max(longest_silence_ms_, silent_frames * 1000 / format().sample_rate);
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
    // Fails only for a client that receives nothing: its list stays empty then.
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
