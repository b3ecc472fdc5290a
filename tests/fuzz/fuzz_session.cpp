// A client session without sockets: the fuzzer is the server and the clock. The blocks that the
// session hands out are held against its contract, and every datagram may be a damaged one.
#include <optional>

#include "fuzz/fuzz.h"
#include "net/client_session.h"
#include "net/server_messages.h"
#include "support/movable_clock.h"

namespace {

using namespace tavistro;
using namespace TavistroProtocol;

constexpr platform::Ipv4Endpoint server{0x0A000001, 28010};
constexpr std::uint16_t channels = 3;

class Rig {
  public:
    explicit Rig(fuzz::Input input) : in_(input) { test::set_manual_clock(); }

    void run() {
        for (start(); !in_.empty(); step())
            REQUIRE(silence_ == 0);  // the block that closes a gap comes directly after it
    }

  private:
    void step() {
        const std::uint16_t what = in_.below(16);
        if (what == 0) return start();
        if (what == 1) return session_.ping_tick();
        if (what == 2) return test::advance_clock_ns(in_.take<std::uint32_t>());
        if (what == 3) return receive(encode_pong({9, ping_.nonce, ping_.t1_ns, time(), time()}));
        if (what < 6) return receive(encode_sync(9, {sequence(), 48000, in_.take(), 0, time()}));
        const std::uint16_t frames = in_.below(65);
        const auto samples = in_.samples(std::size_t{frames} * channels);
        DatagramList list;
        encode_audio_block({9, sequence(), 48000, frames, channels, samples}, 52U + in_.below(1200),
                           list);
        const std::size_t lost = in_.below(128);  // if there are so many
        for (std::size_t i = list.size(); i-- > 0;)
            if (i != lost) receive(list[i]);
    }
    void start() {
        session_.end();
        ClientSettings settings;
        settings.client_id = 1;
        settings.driver_outputs.resize(channels);
        session_.reset(settings, {{}, [this](const auto& block) { on_block(block); }, {}, {}});
        last_block_ = {};
        session_.run(server);
    }
    void receive(Datagram datagram) {
        if (in_.one_in(32)) datagram[in_.below(48) % datagram.size()] ^= in_.take();
        session_.handle_datagram(datagram, server);
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

    void on_block(const CompletedOutputBlock& block) {
        REQUIRE(block.frames > 0 && block.channels == channels);
        REQUIRE(block.samples.size() == std::size_t{block.frames} * channels);
        if (block.delivery_time_ns == 0) {
            REQUIRE(last_block_ && block.sequence == *last_block_ + ++silence_);
            REQUIRE(std::ranges::all_of(block.samples, [](float value) { return value == 0.0F; }));
            return;
        }
        if (last_block_) {
            REQUIRE(is_newer(block.sequence, *last_block_));
            const std::uint32_t missing = block.sequence - *last_block_ - 1;
            REQUIRE(silence_ == (missing <= 1024 ? missing : 0));
        }
        silence_ = 0;
        last_block_ = block.sequence;
    }

    fuzz::Input in_;
    ClientSession session_{[this](auto datagrams, const auto&) {
        if (const auto ping = decode_ping(datagrams.front())) ping_ = ping.message;
        return !in_.one_in(16);
    }};
    Ping ping_;
    std::uint32_t sequence_ = 0xFFFFFFF0;
    std::uint32_t silence_ = 0;  ///< records since the last block
    std::optional<std::uint32_t> last_block_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Rig({data, size}).run();
    return 0;
}
