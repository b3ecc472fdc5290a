// The examples in docs/protocol.md, errors of the decoders, splitting and reassembly of blocks.
// tests/fuzz tests that decoding reverses encoding.
#include "net/protocol.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "net/net_inputs.h"
#include "net/reassembly.h"
#include "net/server_messages.h"

namespace tavistro::test {
namespace {

/// The example bytes in the document, by message name.
std::map<std::string, Datagram> examples_of_document() {
    std::map<std::string, Datagram> examples;
    std::ifstream file(TAVISTRO_DOCS "/protocol.md");
    std::string name;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("### ")) name = line.substr(4, line.find(' ', 4) - 4);
        if (!line.starts_with("    ")) continue;
        std::istringstream bytes(line);
        for (unsigned byte = 0; bytes >> std::hex >> byte;)
            examples[name].push_back(static_cast<std::uint8_t>(byte));
    }
    return examples;
}

TEST(ProtocolDocument, ExamplesMatchTheCodecs) {
    constexpr std::uint32_t client_id = 7;
    constexpr std::uint64_t nonce = 0x1122334455667788;
    const float samples[] = {1.0F, -0.5F};
    DatagramList audio;
    ASSERT_TRUE(encode_audio_block({client_id, 1000, 48000, 2, 1, samples}, 1200, audio));
    const std::map<std::string, Datagram> sent = {
        {"Announce", encode_announce({client_id, 0x01020304, 6, 6, {2, 3}, {0}})},
        {"Audio", audio.front()},
        {"Sync", encode_sync(client_id, {1000, 48000, 128, 128000, 1234567890123})},
        {"Discover", encode_discover({client_id, nonce})},
        {"DiscoverReply", encode_discover_reply({client_id, nonce, 28010})},
        {"Ping", encode_ping({client_id, nonce, 1000000001})},
        {"Pong", encode_pong({client_id, nonce, 1000000001, 2000000002, 2000000003})},
    };
    EXPECT_EQ(examples_of_document(), sent);
}

const Datagram sync_datagram = encode_sync(7, {1, test_rate, 128, 2, 3});

TEST(Protocol, DecodersReportTheFirstErrorAndRejectFragmentsOutsideTheBlock) {
    const struct {
        const char* faults;
        DecodeResult result;
        int expected;
    } cases[] = {
        {"none", decode_sync(sync_datagram).result, 0},
        {"15 bytes", decode_header(resized(sync_datagram, 15)).result, 2},
        {"magic, version", decode_header(patched(sync_datagram, 3, {'o', 4})).result, 3},
        {"version, length", decode_header(patched(sync_datagram, 4, {4, 0, 3, 0, 9})).result, 4},
        {"length, client", decode_header(patched(sync_datagram, 8, {9, 0, 0, 0, 0})).result, 5},
        {"client, type", decode_pong(patched(sync_datagram, 12, {0})).result, 6},
        {"type, size", decode_pong(resized(sync_datagram, 16)).result, 7},
        {"size", decode_sync(resized(sync_datagram, 16)).result, 5},
        {"type of audio", decode_audio(sync_datagram).result, 8},
        {"longer list", decode_announce(patched(encode_leave(7, 8), 16, {1})).result, 5},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.result, static_cast<DecodeResult>(c.expected)) << c.faults;

    // The last fragment of a block of 3 frames and 2 channels, with two fragments per channel.
    const Datagram good = block_datagrams(1, 3, 2, 48 + 4 * 2).at(3);
    ASSERT_TRUE(decode_audio(good));
    const std::pair<std::size_t, std::uint8_t> bad[] = {{24, 0}, {24, 2}, {26, 0}, {26, 1},
                                                        {28, 2}, {30, 0}, {30, 2}, {32, 3},
                                                        {34, 0}, {34, 2}, {36, 4}, {38, 0}};
    for (const auto& [offset, value] : bad)
        EXPECT_FALSE(decode_audio(patched(good, offset, {value, 0}))) << value << " at " << offset;
    EXPECT_EQ(decode_audio(resized(good, good.size() + 4)).result, DecodeResult::bad_audio);
}

TEST(Protocol, OnlyAnAnnounceWithoutChannelsIsALeave) {
    EXPECT_TRUE(is_leave(decode_announce(encode_leave(7, 8)).message));
    EXPECT_FALSE(is_leave({7, 8, 6, 6, {}, {0}}));
    EXPECT_FALSE(is_leave({7, 8, 6, 6, {2}, {}}));
}

TEST(Blocks, AreSplitAtTheSizeLimitAndReassembledInAnyOrder) {
    const struct {
        std::uint16_t frames, channels;
        std::uint32_t payload_bytes;
        std::size_t fragments;  // 0: cannot be encoded
    } cases[] = {{128, 5, 1200, 3},     {512, 2, 1200, 4},    {288, 3, 1200, 3}, {289, 1, 1200, 2},
                 {3, 2, 52, 6},         {3, 2, 55, 6},        {3, 2, 51, 0},     {3, 2, 65508, 0},
                 {65535, 1, 52, 65535}, {1, 65535, 65507, 5}, {65535, 2, 52, 0}, {0, 2, 1200, 0},
                 {2, 0, 1200, 0}};
    DatagramList datagrams;
    CompletedOutputBlock block;
    std::mt19937 engine;
    for (const auto& c : cases) {
        const std::vector<float> samples = ramp(std::size_t{c.frames} * c.channels);
        encode_audio_block({7, 9, test_rate, c.frames, c.channels, samples}, c.payload_bytes,
                           datagrams);
        ASSERT_EQ(datagrams.size(), c.fragments) << c.frames << " at " << c.payload_bytes;
        Reassembly reassembly;
        reassembly.reset(c.channels);
        std::ranges::shuffle(datagrams, engine);
        for (std::size_t i = 0; i < datagrams.size(); ++i) {
            ASSERT_LE(datagrams[i].size(), c.payload_bytes);
            const auto fragment = decode_audio(datagrams[i]).message;
            ASSERT_EQ(reassembly.offer(fragment, block), i + 1 == datagrams.size());
            if (i + 1 == datagrams.size())
                EXPECT_EQ(block.samples, samples);
            else
                ASSERT_FALSE(reassembly.offer(fragment, block)) << "duplicate";
        }
    }
    EXPECT_FALSE(encode_audio_block({0, 9, test_rate, 2, 2, ramp(4)}, 1200, datagrams));
    EXPECT_FALSE(encode_audio_block({7, 9, test_rate, 2, 2, ramp(3)}, 1200, datagrams));
}

TEST(Blocks, RestartInANewFormatAndReplaceOlderBlocks) {
    Reassembly reassembly;
    CompletedOutputBlock block;
    reassembly.reset(2);
    // Fragment `index` (channel `index`) of a block of 2 channels.
    const auto offer = [&](std::uint32_t sequence, std::size_t index, std::uint16_t frames = 4) {
        const auto datagram = block_datagrams(sequence, frames, 2, 48 + 4U * frames).at(index);
        return reassembly.offer(decode_audio(datagram).message, block);
    };
    EXPECT_FALSE(offer(6, 0));
    EXPECT_FALSE(offer(6, 1, 8)) << "another format restarts the block";
    reassembly.clear();
    EXPECT_FALSE(offer(6, 1));

    EXPECT_FALSE(offer(9, 0));
    EXPECT_FALSE(offer(1, 0)) << "late";
    EXPECT_TRUE(offer(9, 1)) << "a late fragment does not replace the block";
    EXPECT_FALSE(offer(0xFFFFFFFF, 0));
    EXPECT_FALSE(offer(7, 0)) << "replaces the block before the wrap";
    EXPECT_TRUE(offer(7, 1));

    // Samples without a fragment are silent, even where an earlier block has left its samples.
    for (const std::uint32_t sequence : {25U, 33U}) {
        const auto first_half = block_datagrams(sequence, 4, 2, 48 + 16).front();
        EXPECT_TRUE(reassembly.offer(decode_audio(patched(first_half, 38, {1})).message, block));
        EXPECT_EQ(block.samples, (std::vector<float>{1, 2, 3, 4, 0, 0, 0, 0}));
    }
}

}  // namespace
}  // namespace tavistro::test
