// A mixing session by itself: the tests play the clients and move time by hand.
#include "tools/server/mixing_session.h"

#include <gtest/gtest.h>

#include "net/server_messages.h"
#include "support/movable_clock.h"

namespace tavistro::server {
namespace {

using namespace TavistroProtocol;
using platform::Ipv4Endpoint;

constexpr StreamFormat format{48000, 64};
constexpr std::uint32_t first_sequence = 0xFFFFFFFE;  // wraps early
constexpr std::uint64_t start_ns = 10'000'000'000;

struct Sent {
    std::vector<SyncInfo> syncs;
    std::vector<std::vector<float>> blocks;  ///< one-fragment blocks, planar
};

class MixingSessionTest : public testing::Test {
  protected:
    MixingSessionTest() { test::set_manual_clock(20'000); }
    ~MixingSessionTest() override { test::use_running_clock(); }

    std::optional<Datagram> receive(const Datagram& bytes, const Ipv4Endpoint& from) {
        return session.receive(bytes, from, faults, now_ns);
    }

    void announce(const Ipv4Endpoint& from, std::uint32_t id, std::uint32_t session_id,
                  std::vector<std::int32_t> inputs, std::vector<std::int32_t> outputs) {
        receive(encode_announce({id, session_id, 0, 0, std::move(inputs), std::move(outputs)}),
                from);
    }

    /// A block in which channel c is constantly values[c], in fragments of one channel.
    DatagramList input(std::uint32_t id, std::uint32_t sequence, const std::vector<float>& values) {
        std::vector<float> samples;
        for (const float value : values)
            samples.resize(samples.size() + format.frames, value);
        DatagramList fragments;
        encode_audio_block({id, sequence, format.sample_rate, format.frames,
                            static_cast<std::uint16_t>(values.size()), samples},
                           48 + 4 * format.frames, fragments);
        return fragments;
    }

    void send_input(const Ipv4Endpoint& from, std::uint32_t id, std::uint32_t sequence,
                    const std::vector<float>& values) {
        for (const Datagram& fragment : input(id, sequence, values))
            receive(fragment, from);
    }

    /// Moves time to the next block's deadline and mixes it; what went to `to`.
    Sent mix(const Ipv4Endpoint& to) {
        now_ns = session.next_due_ns() + 1;
        std::vector<RoutedDatagram> outbox;
        EXPECT_TRUE(session.mix_due_block(faults, true, now_ns, outbox));
        Sent sent;
        for (const RoutedDatagram& datagram : outbox) {
            if (datagram.client != to) continue;
            if (const auto sync = decode_sync(datagram.bytes)) sent.syncs.push_back(sync.message);
            const auto audio = decode_audio(datagram.bytes);
            if (!audio) continue;
            EXPECT_EQ(sent.syncs.size(), 1U) << "audio before its sync";
            EXPECT_EQ(audio.message.sequence, sent.syncs.back().sequence);
            sent.blocks.emplace_back(audio.message.sample_count());
            read_samples(audio.message.payload, sent.blocks.back());
        }
        return sent;
    }

    const Client& client(std::size_t index = 0) {
        return *std::next(session.registry().clients().begin(), static_cast<std::ptrdiff_t>(index));
    }
    std::size_t client_count() { return session.registry().clients().size(); }

    const Ipv4Endpoint alice{0x0A000001, 5000};
    const Ipv4Endpoint bob{0x0A000002, 5000};
    std::uint64_t now_ns = start_ns;
    FaultOptions faults;
    MixingSession session{{.format = format,
                           .port = 4242,
                           .udp_payload_bytes = 1200,
                           .first_sequence = first_sequence},
                          SkewedClock(start_ns, 0, 0),
                          {},
                          start_ns};
};

TEST_F(MixingSessionTest, BlockNIsTheSumOfWhatWasTaggedN) {
    announce(alice, 1, 11, {0, 3}, {});
    announce(bob, 2, 22, {3}, {3, 0, 31, 99});
    for (std::uint32_t block = 0; block < 5; ++block) {
        const auto value = static_cast<float>(block + 1);
        send_input(alice, 1, first_sequence + block, {value, 10 * value});
        send_input(bob, 2, first_sequence + block, {100 * value});
    }
    for (std::uint32_t block = 0; block < 5; ++block) {
        const Sent sent = mix(bob);
        ASSERT_EQ(sent.syncs.size(), 1U);
        EXPECT_EQ(sent.syncs[0].sequence, first_sequence + block);
        EXPECT_EQ(sent.syncs[0].server_frame_position, block * 64U);
        EXPECT_EQ(sent.syncs[0].server_time_ns, start_ns + block * 64'000'000ULL / 48);
        ASSERT_EQ(sent.blocks.size(), 1U);
        const auto value = static_cast<float>(block + 1);
        std::vector<float> expected(64, 110 * value);  // in the order of the client's list
        expected.resize(128, value);
        expected.resize(256, 0.0F);
        EXPECT_EQ(sent.blocks[0], expected);
    }
    EXPECT_EQ(client(0).input_counters().complete, 5U);
}

TEST_F(MixingSessionTest, CountsInputThatMissesItsBlock) {
    announce(alice, 1, 11, {0, 1}, {0, 1});
    mix(alice);
    mix(alice);
    const std::uint32_t next = session.next_block().sequence;
    send_input(alice, 1, next - 1, {1, 1});                           // both fragments: one block
    send_input(alice, 1, next + InputRing::block_count, {1, 1});      // too far ahead
    send_input(alice, 1, next + InputRing::block_count - 1, {1, 1});  // just near enough
    send_input(alice, 1, next, {1, 1, 1});                            // three channels
    const DatagramList half = input(1, next, {5, 6});
    receive(half[1], alice);
    receive(half[1], alice);
    const Sent sent = mix(alice);  // what came of it is played
    EXPECT_EQ(sent.blocks[0].front(), 0.0F);
    EXPECT_EQ(sent.blocks[0].back(), 6.0F);
    send_input(alice, 1, next + 2, {1, 1});
    mix(alice);
    mix(alice);

    const InputCounters counters = client().input_counters();
    EXPECT_EQ(counters.complete, 1U);
    EXPECT_EQ(counters.incomplete, 1U);
    EXPECT_EQ(counters.late, 1U);
    EXPECT_EQ(counters.early, 1U);
    EXPECT_EQ(counters.mismatched, 3U);
    EXPECT_EQ(counters.duplicates, 1U);
    EXPECT_EQ(counters.missing, 1U);

    send_input(bob, 1, next + 5, {1, 1});
    EXPECT_EQ(session.strangers(), 2U);
}

TEST_F(MixingSessionTest, HearsSilenceAmidSoundAndNotWhatNeverCame) {
    announce(alice, 1, 11, {0, 1}, {});
    std::uint32_t sequence = first_sequence;
    for (const int level : {0, 5, -1, 5, 0, -1, 0, 5, -1, 5, 0}) {  // -1: does not come
        if (level >= 0) send_input(alice, 1, sequence, {static_cast<float>(level), 0});
        ++sequence;
        mix(alice);
    }
    EXPECT_EQ(client().input_counters().gaps, 1U);
    EXPECT_EQ(client().input_counters().missing, 3U);
    EXPECT_EQ(session.longest_silence_ms(), 4 * 64 / 48U);
}

TEST_F(MixingSessionTest, ClientsAreReplacedLeaveAndTimeOut) {
    announce(alice, 1, 11, {0}, {0});
    announce({alice.address, 6000}, 2, 12, {}, {0});
    announce(bob, 1, 11, {0}, {0});  // same id, another host: another client
    EXPECT_EQ(client_count(), 3U);

    send_input(alice, 1, first_sequence, {1});
    announce({alice.address, 7000}, 1, 13, {0}, {0});  // started again on another port
    EXPECT_EQ(client_count(), 3U);
    EXPECT_EQ(session.registry().counters().replaced, 1U);
    EXPECT_EQ(mix(bob).blocks[0][0], 0.0F) << "input of the old session";

    receive(encode_leave(1, 11), alice);  // of the old session
    EXPECT_EQ(client_count(), 3U);
    receive(encode_leave(1, 13), {alice.address, 7000});
    EXPECT_EQ(client_count(), 2U);
    EXPECT_EQ(session.registry().counters().left, 1U);

    now_ns = start_ns + 4'900'000'000;
    announce(bob, 1, 11, {0}, {0});
    now_ns = start_ns + 5'100'000'000;
    std::vector<RoutedDatagram> outbox;
    session.mix_due_block(faults, true, now_ns, outbox);
    ASSERT_EQ(client_count(), 1U);
    EXPECT_EQ(client().endpoint, bob);
    EXPECT_EQ(session.registry().counters().timed_out, 1U);
}

TEST_F(MixingSessionTest, CatchesUpInOrderAndGivesUpOnlyWhatIsHopeless) {
    announce(alice, 1, 11, {}, {0});
    now_ns = start_ns + 1'000'000'000;  // block 750 is due
    std::vector<RoutedDatagram> outbox;
    std::vector<std::uint64_t> indexes;
    while (const auto block = session.mix_due_block(faults, true, now_ns, outbox)) {
        indexes.push_back(block->index);
        EXPECT_EQ(block->frame_position, block->index * 64);
    }
    ASSERT_EQ(indexes.size(), MixingSession::max_late_blocks);
    EXPECT_EQ(indexes.front(), 751 - MixingSession::max_late_blocks);
    EXPECT_EQ(indexes.back(), 750U);
    EXPECT_EQ(session.blocks_skipped(), indexes.front());
    EXPECT_EQ(session.next_due_ns(), start_ns + 1'001'333'333);
}

}  // namespace
}  // namespace tavistro::server
