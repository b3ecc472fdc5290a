// A client session without sockets: the fuzzer is the server, the device and the clock. What the
// session hands out and sends is held against what its contract says, after every step.
#include <optional>

#include "fuzz/fuzz.h"
#include "net/client_session.h"
#include "net/server_messages.h"
#include "support/movable_clock.h"

namespace {

using namespace tavistro;
using namespace TavistroProtocol;

constexpr platform::Ipv4Endpoint server{0x0A000001, 28010};

class Rig {
  public:
    explicit Rig(fuzz::Input input) : in_(input) { test::set_manual_clock(); }

    void run() {
        for (start(); !in_.empty(); step())
            REQUIRE(silence_ == 0);  // the block that closes a gap comes directly after it
    }

  private:
    void step() {
        const std::uint16_t what = in_.below(32);
        if (what >= 22) return receive_audio();
        if (what >= 15) return receive(encode_sync(9, sync()));
        if (what >= 12) return receive(encode_pong({9, ping_.nonce, ping_.t1_ns, time(), time()}));
        if (what >= 7) return test::advance_clock_ns(in_.take<std::uint32_t>());
        if (what == 6) return set_format();
        if (what == 5) return push_input();
        if (what == 4) return start();
        what == 3 ? session_.send_announce() : session_.ping_tick();
    }

    void start() {
        session_.end();
        settings_ = {};
        settings_.client_id = 1U + in_.take();
        settings_.driver_inputs.resize(in_.below(4));
        settings_.driver_outputs.resize(in_.below(4));
        settings_.udp_payload_bytes = 52U + in_.below(1200);
        settings_.capture_target_blocks = in_.below(4);
        settings_.capture_capacity_blocks = in_.below(8);
        session_.reset(settings_, {{},
                                   [this](const auto& block) { on_block(block); },
                                   [this](const auto& sync) { on_sync(sync); },
                                   {}});
        last_block_ = last_sync_ = {};
        session_.run(server);
    }
    void set_format() {
        sample_rate_ = in_.one_in(8) ? 0 : 48000U + in_.below(2);
        frames_ = in_.below(in_.one_in(8) ? 300 : 24);
        if (session_.set_capture_format(sample_rate_, frames_)) last_block_ = last_sync_ = {};
    }
    void push_input() {
        const auto channels = static_cast<std::uint16_t>(settings_.driver_inputs.size());
        const auto samples = in_.samples(std::size_t{frames_} * channels);
        session_.push_captured_input(sample_rate_, frames_, channels, samples,
                                     0.9 + in_.below(256) / 1024.0);
    }

    void receive(const Datagram& datagram) { session_.handle_datagram(datagram, server); }
    void receive_audio() {
        const auto channels = static_cast<std::uint16_t>(settings_.driver_outputs.size());
        const std::uint16_t frames = in_.below(65);
        const auto samples = in_.samples(std::size_t{frames} * channels);
        DatagramList list;
        encode_audio_block({9, sequence(), 48000, frames, channels, samples}, 52U + in_.below(1200),
                           list);
        const std::size_t lost = in_.below(128);  // if there are so many
        for (std::size_t i = list.size(); i-- > 0;) {
            if (in_.one_in(32)) list[i][in_.below(48)] ^= in_.take();
            if (i != lost) receive(list[i]);
        }
    }
    SyncInfo sync() {
        SyncInfo sync{sequence(), sample_rate_, frames_, in_.take(), time()};
        if (in_.one_in(16)) sync.sample_rate = in_.take();
        if (in_.one_in(16)) sync.block_frames = in_.take();
        return sync;
    }
    /// Mostly the next one or the same; behind it, over a gap, or anywhere.
    std::uint32_t sequence() {
        const std::uint8_t step = in_.take();
        if (step >= 252) return sequence_ = in_.take<std::uint32_t>();
        if (step >= 250) return sequence_ += 1000U + in_.below(50);
        if (step >= 200) return sequence_ - (step - 200U);
        return sequence_ += step % 3U;
    }
    std::uint64_t time() {
        return in_.one_in(8) ? in_.take<std::uint64_t>() : ping_.t1_ns + in_.take<std::uint32_t>();
    }

    bool on_send(std::span<const std::uint8_t> datagram) {
        REQUIRE(decode_header(datagram));
        REQUIRE(datagram.size() <= settings_.udp_payload_bytes || !decode_audio(datagram));
        if (const auto ping = decode_ping(datagram)) ping_ = ping.message;
        return !in_.one_in(16);
    }
    void on_block(const CompletedOutputBlock& block) {
        REQUIRE(block.frames > 0 && block.channels == settings_.driver_outputs.size());
        REQUIRE(block.samples.size() == std::size_t{block.frames} * block.channels);
        if (block.delivery_time_ns == 0) {
            REQUIRE(last_block_ && block.sequence == *last_block_ + ++silence_);
            REQUIRE(std::ranges::all_of(block.samples, [](float value) { return value == 0.0F; }));
            return;
        }
        REQUIRE(0 < block.arrival_time_ns && block.arrival_time_ns <= block.delivery_time_ns);
        if (last_block_) {
            REQUIRE(is_newer(block.sequence, *last_block_));
            const std::uint32_t missing = block.sequence - *last_block_ - 1;
            REQUIRE(silence_ == (missing <= 1024 ? missing : 0));
        }
        silence_ = 0;
        last_block_ = block.sequence;
        if (in_.one_in(2)) push_input();
    }
    void on_sync(const SyncInfo& sync) {
        const bool same_format = sync.sample_rate == sample_rate_ && sync.block_frames == frames_;
        REQUIRE(!same_format || !last_sync_ || is_newer(sync.sequence, *last_sync_));
        last_sync_ = sync.sequence;
    }

    fuzz::Input in_;
    ClientSession session_{[this](auto datagrams, const auto&) {
        return std::ranges::all_of(datagrams, [this](auto bytes) { return on_send(bytes); });
    }};
    ClientSettings settings_;
    std::uint32_t sample_rate_ = 0;  ///< of captured input
    std::uint16_t frames_ = 0;
    Ping ping_;
    std::uint32_t sequence_ = 0xFFFFFFF0;
    std::uint32_t silence_ = 0;  ///< records since the last block
    std::optional<std::uint32_t> last_block_, last_sync_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Rig({data, size}).run();
    return 0;
}
