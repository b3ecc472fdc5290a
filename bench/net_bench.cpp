// Benchmarks of the network side: sending captured input and receiving the server's blocks.
#include <cstring>

#include "audio/playback_buffer.h"
#include "bench/bench.h"
#include "net/capture_ring.h"
#include "net/client_session.h"
#include "net/protocol.h"

namespace tavistro::bench {
namespace {

constexpr std::uint32_t sample_rate = 48000;
constexpr std::uint32_t udp_payload_bytes = 1200;

class Uplink {
  public:
    explicit Uplink(const Shape& shape)
        : shape_(shape),
          samples_(noise(shape.samples())),
          ring_(shape.channels, sample_rate, shape.frames, 2, shape.batch() + kept_blocks) {}

    bool push() {
        ring_.push(sample_rate, shape_.frames, shape_.channels, samples_, 1.0001);
        return true;
    }
    bool pull() { return ring_.pull(sample_rate, shape_.frames, block_); }
    void fill() {
        while (ring_.fill() < (shape_.batch() + kept_blocks - 1) * shape_.frames)
            push();
    }
    void drain() {
        while (ring_.fill() > kept_blocks * shape_.frames && pull()) {
        }
    }

  private:
    static constexpr std::size_t kept_blocks = 3;
    Shape shape_;
    std::vector<float> samples_;
    std::vector<float> block_;
    CaptureRing ring_;
};

void capture_push(benchmark::State& state, const Shape& shape) {
    Uplink uplink(shape);
    measure(
        state, shape, [&] { uplink.drain(); }, [&] { return uplink.push(); });
}

void uplink_pull(benchmark::State& state, const Shape& shape) {
    Uplink uplink(shape);
    measure(
        state, shape, [&] { uplink.fill(); }, [&] { return uplink.pull(); });
}

TavistroProtocol::AudioBlockView view_of(const Shape& shape, std::span<const float> samples) {
    return {1, 1, sample_rate, shape.frames, shape.channels, samples};
}

void encode_block(benchmark::State& state, const Shape& shape) {
    const std::vector<float> samples = noise(shape.samples());
    TavistroProtocol::DatagramList datagrams;
    measure(
        state, shape, [] {},
        [&] { return encode_audio_block(view_of(shape, samples), udp_payload_bytes, datagrams); });
}

/// From a block's datagrams to its samples in the playback buffer.
void receive_block(benchmark::State& state, const Shape& shape) {
    constexpr platform::Ipv4Endpoint server{platform::ipv4_loopback, 28010};
    constexpr std::size_t sequence_offset = 16;
    PlaybackBuffer buffer;
    buffer.configure({.block_frames = shape.frames,
                      .sample_rate = sample_rate,
                      .channels = shape.channels,
                      .prebuffer_blocks = 1,
                      .target_queue_depth = 0,
                      .max_queue_blocks = shape.batch() + 1});
    PlaybackBlock rendered;
    rendered.samples.resize(shape.samples());

    TavistroProtocol::ClientSettings settings;
    settings.driver_outputs.resize(shape.channels);
    bool pushed = false;
    ClientSession session([](auto, const auto&) { return true; });
    session.reset(settings, {.log = {},
                             .block =
                                 [&](const TavistroProtocol::CompletedOutputBlock& block) {
                                     pushed = buffer.push_block(
                                         {block.sequence, block.sample_rate, block.frames,
                                          block.channels, block.samples, block.server_time_local_ns,
                                          block.arrival_time_ns, block.delivery_time_ns});
                                 },
                             .sync = {},
                             .telemetry = {}});
    session.run(server);

    const std::vector<float> samples = noise(shape.samples());
    std::vector<TavistroProtocol::DatagramList> blocks(shape.batch());
    for (auto& datagrams : blocks)
        encode_audio_block(view_of(shape, samples), udp_payload_bytes, datagrams);
    std::uint32_t sequence = 0;
    std::size_t next = 0;
    const auto prepare = [&] {
        while (buffer.render_period(rendered, 2000)) {
        }
        for (auto& datagrams : blocks) {
            ++sequence;
            for (auto& datagram : datagrams)
                std::memcpy(&datagram[sequence_offset], &sequence, sizeof sequence);
        }
        next = 0;
    };
    measure(state, shape, prepare, [&] {
        pushed = false;
        for (const auto& datagram : blocks[next])
            session.handle_datagram(datagram, server);
        ++next;
        return pushed;
    });
}

/// Forged datagrams of 52 bytes that claim to belong to a block of the largest size. The time of
/// each is the load that an attacker puts on the receive thread. `fragments` 1: each is a whole
/// block.
void forged_datagram(benchmark::State& state, std::uint8_t fragments) {
    constexpr platform::Ipv4Endpoint server{platform::ipv4_loopback, 28010};
    constexpr float sample = 1.0F;
    TavistroProtocol::DatagramList forged;
    TavistroProtocol::encode_audio_block({1, 0, sample_rate, 1, 1, {&sample, 1}}, 52, forged);
    TavistroProtocol::Datagram& datagram = forged.front();
    datagram[24] = datagram[25] = 0xFF;  // frames of the block
    datagram[26] = 32;                   // its channels
    datagram[38] = fragments;
    TavistroProtocol::ClientSettings settings;
    settings.driver_outputs.resize(32);
    ClientSession session([](auto, const auto&) { return true; });
    session.reset(settings, {.log = {}, .block = [](const auto&) {}, .sync = {}, .telemetry = {}});
    session.run(server);
    std::uint32_t sequence = 0;
    for (auto _ : state) {
        sequence += 2;  // the block before it is missing
        std::memcpy(&datagram[16], &sequence, sizeof sequence);
        session.handle_datagram(datagram, server);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

}  // namespace

void add_net_benches() {
    add_for_every_shape("capture_push", capture_push);
    add_for_every_shape("uplink_pull", uplink_pull);
    add_for_every_shape("encode_block", encode_block);
    add_for_every_shape("receive_block", receive_block);
    benchmark::RegisterBenchmark("forged_fragment", forged_datagram, std::uint8_t{2});
    benchmark::RegisterBenchmark("forged_block", forged_datagram, std::uint8_t{1});
}

}  // namespace tavistro::bench
