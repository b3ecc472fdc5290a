// A client session without sockets: the fuzzer is the server, the device and the clock. What the
// session hands out and sends is held against what its contract says, after every step.
#include <optional>

#include "fuzz/fuzz.h"
#include "net/client_session.h"
#include "net/server_messages.h"
#include "net/wire_layout.h"
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
        if (what >= 24) return receive_audio();
        if (what >= 17) return receive_sync();
        if (what >= 13) return push_input();
        if (what >= 10) return receive_pong();
        if (what >= 7) return test::advance_clock_ns(in_.take<std::uint32_t>());
        if (what == 6) return test::advance_clock_ms(in_.take<std::uint16_t>());
        if (what == 5) return receive_raw();
        if (what == 4) return set_format();
        if (what == 3) return session_.running() ? end() : start();
        if (!session_.running()) return session_.release();
        what == 2 ? session_.send_announce() : session_.ping_tick();
    }

    void start() {
        settings_ = {};
        settings_.client_id = 1U + in_.take();
        settings_.driver_inputs.resize(in_.below(4));
        settings_.driver_outputs.resize(in_.below(4));
        settings_.udp_payload_bytes = 52U + in_.below(1200);
        settings_.client_latency_blocks = 1U + in_.below(128);
        settings_.capture_target_blocks = in_.below(4);
        settings_.capture_capacity_blocks = in_.below(8);
        const auto happens = [this](const auto&) { note_event(); };
        session_.reset(settings_, {happens, [this](const auto& block) { on_block(block); },
                                   [this](const auto& sync) { on_sync(sync); }, happens});
        last_block_ = last_sync_ = {};
        session_.run(server);
    }
    void end() {
        leaving_ = true;
        const std::uint64_t before = events_;
        REQUIRE(session_.end() && !session_.end() && !session_.running());
        // The leave, and again while it is refused.
        REQUIRE(events_ > before && events_ <= before + 10);
        leaving_ = false;
    }
    void set_format() {
        sample_rate_ = in_.one_in(8) ? 0 : 48000U + in_.below(2);
        frames_ = in_.below(in_.one_in(8) ? 300 : 24);
        if (session_.set_capture_format(sample_rate_, frames_)) last_block_ = last_sync_ = {};
    }
    void push_input() {
        const std::uint16_t oddity = in_.below(64);  // mostly none
        const auto channels =
            static_cast<std::uint16_t>(settings_.driver_inputs.size() + (oddity == 2));
        const auto samples = in_.samples(std::size_t{frames_} * channels + (oddity == 3));
        session_.push_captured_input(sample_rate_ + (oddity == 4), frames_, channels, samples,
                                     0.9 + in_.below(256) / 1024.0);
    }

    void receive(const Datagram& datagram) {
        const bool stranger = in_.one_in(64);
        const std::uint64_t before = events_;
        session_.handle_datagram(
            datagram, {server.address, static_cast<std::uint16_t>(server.port + stranger)});
        REQUIRE((session_.running() && !stranger) || events_ == before);
    }
    void receive_sync() {
        SyncInfo sync{sequence(), sample_rate_, frames_, in_.take(), server_time()};
        if (in_.one_in(16)) sync.sample_rate = in_.take();
        if (in_.one_in(16)) sync.block_frames = in_.take();
        receive(encode_sync(9, sync));
    }
    void receive_audio() {
        const auto channels = static_cast<std::uint16_t>(settings_.driver_outputs.size());
        const std::uint16_t frames = in_.below(65);
        const auto samples = in_.samples(std::size_t{frames} * channels);
        const AudioBlockView block{9, sequence(), 48000, frames, channels, samples};
        DatagramList list;
        encode_audio_block(block, 52U + in_.below(1200), list);
        const std::size_t lost = in_.below(128);  // if there are so many
        for (std::size_t i = list.size(); i-- > 0;)
            if (i != lost) receive(list[i]);
    }
    void receive_pong() {
        const std::uint64_t before = events_, strange = in_.one_in(8) ? in_.take() : 0;
        const std::uint64_t t2_ns = server_time();
        receive(encode_pong({9, ping_.nonce ^ strange, ping_.t1_ns, t2_ns, server_time()}));
        REQUIRE(strange == 0 || events_ == before);
    }
    void receive_raw() {
        const auto type = static_cast<MessageType>(in_.below(9));
        const auto bytes = in_.bytes(in_.take());
        Datagram datagram(bytes.begin(), bytes.end());
        if (datagram.size() >= 16 && type != MessageType{}) wire::put_header(datagram, type, 9);
        receive(datagram);
    }
    /// Mostly the next one or the same; behind it, over a gap, or anywhere.
    std::uint32_t sequence() {
        const std::uint8_t step = in_.take();
        if (step >= 252) return sequence_ = in_.take<std::uint32_t>();
        if (step >= 250) return sequence_ += 1000U + in_.below(50);
        if (step >= 200) return sequence_ - (step - 200U);
        return sequence_ += step % 3U;
    }
    std::uint64_t server_time() {
        return in_.one_in(8) ? in_.take<std::uint64_t>() : ping_.t1_ns + in_.take<std::uint32_t>();
    }

    void note_event() {
        ++events_;
        REQUIRE(session_.running() != leaving_);
    }
    bool on_send(std::span<const std::uint8_t> datagram, const platform::Ipv4Endpoint& to) {
        note_event();
        REQUIRE(to == server);
        const auto header = decode_header(datagram);
        REQUIRE(header && header.message.client_id == settings_.client_id);
        if (const auto input = decode_audio(datagram)) {
            REQUIRE(datagram.size() <= settings_.udp_payload_bytes && last_sync_);
            REQUIRE(input.message.sequence - *last_sync_ == settings_.client_latency_blocks);
        } else if (const auto ping = decode_ping(datagram)) {
            ping_ = ping.message;
        } else {
            const auto announce = decode_announce(datagram);
            REQUIRE(announce && announce.message.session_id != 0);
            REQUIRE(!leaving_ || is_leave(announce.message));
        }
        return !in_.one_in(16);
    }
    void on_block(const CompletedOutputBlock& block) {
        note_event();
        REQUIRE(block.frames > 0 && block.channels == settings_.driver_outputs.size());
        REQUIRE(block.samples.size() == std::size_t{block.frames} * block.channels);
        if (block.delivery_time_ns == 0) {
            REQUIRE(last_block_ && block.sequence == *last_block_ + ++silence_);
            REQUIRE(block.arrival_time_ns == 0 && block.server_time_ns == 0);
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
        note_event();
        const bool same_format = sync.sample_rate == sample_rate_ && sync.block_frames == frames_;
        REQUIRE(!same_format || !last_sync_ || is_newer(sync.sequence, *last_sync_));
        last_sync_ = sync.sequence;
        if (in_.one_in(2)) push_input();
    }

    fuzz::Input in_;
    ClientSession session_{[this](auto datagrams, const auto& to) {
        bool sent = true;  // what one fragment meets says nothing of those behind it
        for (const auto& datagram : datagrams)
            sent &= on_send(datagram, to);
        return sent;
    }};
    ClientSettings settings_;
    std::uint32_t sample_rate_ = 0;  ///< of captured input
    std::uint16_t frames_ = 0;
    Ping ping_;
    std::uint32_t sequence_ = 0xFFFFFFF0;
    std::uint64_t events_ = 0;   ///< callbacks and datagrams
    std::uint32_t silence_ = 0;  ///< records since the last block
    std::optional<std::uint32_t> last_block_, last_sync_;
    bool leaving_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Rig({data, size}).run();
    return 0;
}
