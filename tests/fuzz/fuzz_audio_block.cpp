// Blocks cut into fragments and put together again, the fragments of several blocks mixed up in the
// fuzzer's order and some of them twice: each block completes once, to the bit.
#include "fuzz/fuzz.h"
#include "net/protocol.h"
#include "net/reassembly.h"

namespace {

using namespace TavistroProtocol;

struct Block {
    AudioBlockView view;
    std::vector<float> samples;
    DatagramList waiting;  ///< fragments still to be offered
    DatagramList offered;
};

bool offer(tavistro::Reassembly& reassembly, const Datagram& datagram,
           CompletedOutputBlock& completed) {
    const auto fragment = decode_audio(datagram);
    REQUIRE(fragment);
    return reassembly.offer(fragment.message, completed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tavistro::fuzz::Input input(data, size);
    const auto payload_bytes =
        input.one_in(16) ? input.take<std::uint32_t>() : 50U + input.below(1000);
    const auto first_sequence = input.take<std::uint32_t>();
    const auto channels = input.below(5);
    std::vector<Block> blocks(1 + input.below(tavistro::Reassembly::slot_count));
    std::size_t waiting = 0;
    for (std::uint32_t i = 0; i < blocks.size(); ++i) {
        Block& block = blocks[i];
        const auto frames = input.below(100);
        block.samples = input.samples(std::size_t{frames} * channels);
        block.view = {7, first_sequence + i, input.take(), frames, channels, block.samples};
        const bool valid = !block.samples.empty() && payload_bytes >= 52 && payload_bytes <= 65507;
        REQUIRE(encode_audio_block(block.view, payload_bytes, block.waiting) == valid);
        REQUIRE(block.waiting.empty() != valid);
        if (!valid) return 0;
        REQUIRE(std::ranges::max(block.waiting, {}, &Datagram::size).size() <= payload_bytes);
        waiting += block.waiting.size();
    }

    tavistro::Reassembly reassembly;
    reassembly.reset(channels);
    CompletedOutputBlock completed;
    for (; waiting > 0; --waiting) {
        std::size_t chosen = input.below(tavistro::Reassembly::slot_count) % blocks.size();
        while (blocks[chosen].waiting.empty())
            chosen = (chosen + 1) % blocks.size();
        Block& block = blocks[chosen];
        if (!block.offered.empty() && input.one_in(4)) {
            Datagram again = block.offered[input.below(256) % block.offered.size()];
            again.back() ^= 0xFF;  // would show in the samples
            REQUIRE(!offer(reassembly, again, completed));
        }
        std::swap(block.waiting[input.below(65536) % block.waiting.size()], block.waiting.back());
        block.offered.push_back(std::move(block.waiting.back()));
        block.waiting.pop_back();
        const bool complete = offer(reassembly, block.offered.back(), completed);
        REQUIRE(complete == block.waiting.empty());
        if (!complete) continue;
        REQUIRE(completed.sequence == block.view.sequence);
        REQUIRE(completed.sample_rate == block.view.sample_rate);
        REQUIRE(completed.frames == block.view.frames && completed.channels == channels);
        REQUIRE(tavistro::fuzz::same_samples(completed.samples, block.samples, false));
    }
    return 0;
}
