// Tests a mixing session alone: the tests act as the clients and set the time.
#include "tools/server/mixing_session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <span>
#include <tuple>

#include "net/server_messages.h"
#include "support/movable_clock.h"

namespace tavistro::server {
namespace {

using namespace TavistroProtocol;
using platform::Ipv4Endpoint;

constexpr StreamFormat format{48000, 64};
constexpr std::uint32_t first_sequence = 0xFFFFFFFE;  // wraps early
constexpr std::uint64_t start_ns = 10'000'000'000;
constexpr std::int64_t offset_ms = 700;  // server clock minus local clock

/// A planar block; every sample of channel c is `values[c]`.
std::vector<float> constant(const std::vector<float>& values, std::size_t frames = format.frames) {
    std::vector<float> samples;
    for (const float value : values)
        samples.resize(samples.size() + frames, value);
    return samples;
}

class MixingSessionTest : public testing::Test {
  protected:
    MixingSessionTest() { test::set_manual_clock(start_ns / 1'000'000 + 3); }
    ~MixingSessionTest() override { test::use_running_clock(); }

    std::optional<Datagram> receive(const Datagram& bytes, const Ipv4Endpoint& from) {
        return session.receive(bytes, from, faults, now_ns);
    }

    void announce(const Ipv4Endpoint& from, std::uint32_t id, std::uint32_t session_id,
                  const std::vector<std::int32_t>& inputs,
                  const std::vector<std::int32_t>& outputs) {
        receive(encode_announce({id, session_id, 0, 0, inputs, outputs}), from);
    }

    /// Sends a planar block with half a channel per datagram, starting with datagram `first`.
    void send_input(const Ipv4Endpoint& from, std::uint32_t id, std::uint32_t sequence,
                    const std::vector<float>& samples, std::size_t first = 0) {
        const StreamFormat& of = session.format();
        DatagramList fragments;
        encode_audio_block({id, sequence, of.sample_rate, of.frames,
                            static_cast<std::uint16_t>(samples.size() / of.frames), samples},
                           48 + 2 * of.frames, fragments);
        for (const Datagram& fragment : std::span(fragments).subspan(first))
            receive(fragment, from);
    }

    /// Moves time to the next block's deadline and mixes it. Returns the planar block sent to `to`.
    std::vector<float> mix(const Ipv4Endpoint& to) {
        now_ns = session.next_due_ns() + 1;
        outbox.clear();
        EXPECT_TRUE(session.mix_due_block(faults, now_ns, outbox));
        sync.reset();
        std::vector<float> block;
        for (const RoutedDatagram& datagram : outbox) {
            if (datagram.client != to) continue;
            if (const auto decoded = decode_sync(datagram.bytes)) sync = decoded.message;
            if (const auto audio = decode_audio(datagram.bytes)) {
                block.resize(audio.message.sample_count());
                read_samples(audio.message.payload, block);
            }
        }
        return block;
    }

    std::size_t clients() { return session.registry().clients().size(); }
    InputCounters input() { return session.registry().input_counters(); }

    const Ipv4Endpoint alice{0x0A000001, 5000};
    const Ipv4Endpoint bob{0x0A000002, 5000};
    std::uint64_t now_ns = start_ns;
    std::vector<RoutedDatagram> outbox;
    std::optional<SyncInfo> sync;  ///< sent with the latest block
    FaultOptions faults;
    MixingSession session{
        {format, 4242, 1200, first_sequence}, SkewedClock(start_ns, offset_ms, 0), {}, start_ns};
};

TEST_F(MixingSessionTest, MixesInputIntoTheBlockItIsTaggedFor) {
    announce(alice, 1, 11, {0, 31}, {});
    announce(bob, 2, 22, {31}, {31, 32, 0});  // 32: not on the bus
    for (std::uint32_t block = 0; block < 5; ++block) {
        send_input(alice, 1, first_sequence + block, constant({static_cast<float>(block), 10}));
        send_input(bob, 2, first_sequence + block, constant({0.5F}));
    }
    for (std::uint32_t block = 0; block < 5; ++block) {
        EXPECT_EQ(mix(bob), constant({10.5F, 0, static_cast<float>(block)}));
        EXPECT_EQ(sync->sequence, first_sequence + block);
        EXPECT_EQ(sync->server_frame_position, block * 64U);
        EXPECT_EQ(sync->server_time_ns,
                  start_ns + offset_ms * 1'000'000 + block * 64'000'000ULL / 48);
    }
    faults = {.pause_every_ms = 1, .pause_for_ms = 1};
    EXPECT_EQ(mix(bob).size(), 3 * 64U);
    EXPECT_FALSE(sync);
}

TEST_F(MixingSessionTest, CountsInputThatMissesItsBlock) {
    announce(alice, 1, 11, {0, 1}, {0, 1});
    mix(alice);
    mix(alice);
    const std::uint32_t next = session.next_block().sequence;
    const std::vector<float> stereo = constant({1, 1});
    send_input(alice, 1, next - 1, stereo);                           // all fragments: one block
    send_input(alice, 1, next + InputRing::block_count, stereo);      // too far ahead
    send_input(alice, 1, next + InputRing::block_count - 1, stereo);  // the latest accepted
    send_input(alice, 1, next, constant({1, 1, 1}));                  // three channels: 6 datagrams
    send_input(alice, 1, next, constant({5, 6}), 3);
    send_input(alice, 1, next, constant({5, 6}), 3);  // again
    std::vector<float> played = constant({0, 6});
    std::fill_n(played.begin() + 64, 32, 0.0F);
    EXPECT_EQ(mix(alice), played);
    send_input(alice, 1, next + 2, stereo);
    mix(alice);
    mix(alice);
    const InputCounters counters = input();
    EXPECT_EQ(std::tie(counters.complete, counters.incomplete, counters.late, counters.early,
                       counters.mismatched, counters.duplicates, counters.missing),
              std::tuple(1U, 1U, 1U, 1U, 6U, 1U, 1U));

    send_input(alice, 2, next + 5, stereo);                   // unknown client
    send_input({alice.address, 5001}, 1, next + 5, stereo);   // unknown port
    announce(bob, 2, 22, {}, std::vector<std::int32_t>(65));  // more than twice the bus
    EXPECT_EQ(session.counters().strangers, 8U);
    EXPECT_EQ(session.counters().malformed, 1U);
}

TEST_F(MixingSessionTest, CountsSilentGapsSeparatelyFromMissingBlocks) {
    announce(alice, 1, 11, {0, 1}, {});
    std::uint32_t sequence = first_sequence;
    for (const int level : {0, 5, -1, 5, 0, -1, 0, 5, -1, 5, 0}) {  // -1: missing
        std::vector<float> samples = constant({static_cast<float>(level), 0});
        std::fill_n(samples.begin() + 10, InputRing::least_gap_frames - 1, 0.0F);
        if (level >= 0) send_input(alice, 1, sequence, samples);
        ++sequence;
        mix(alice);
    }
    EXPECT_EQ(input().gaps, 1U);
    EXPECT_EQ(input().missing, 3U);
    EXPECT_EQ(session.counters().longest_silence_ms, 4 * 64 / 48U);
}

TEST_F(MixingSessionTest, ReplacesRemovesAndTimesOutClients) {
    const Ipv4Endpoint again{alice.address, 7000};
    announce(alice, 1, 11, {0}, {0});
    announce({alice.address, 6000}, 2, 12, {}, {0});
    announce(bob, 1, 11, {0}, {0});  // same id, another host: another client
    EXPECT_EQ(clients(), 3U);
    send_input(alice, 1, first_sequence, constant({1}));
    mix(alice);
    announce(again, 1, 13, {0}, {0});     // restarted on another port
    announce(again, 1, 13, {0}, {0, 1});  // new channels: a new session
    receive(encode_leave(1, 11), alice);  // of the old session
    EXPECT_EQ(clients(), 3U);
    receive(encode_leave(1, 13), again);
    EXPECT_EQ(clients(), 2U);

    now_ns = start_ns + 4'900'000'000;
    announce(bob, 1, 11, {0}, {0});
    now_ns = start_ns + 5'100'000'000;
    session.mix_due_block(faults, now_ns, outbox);
    ASSERT_EQ(clients(), 1U);
    EXPECT_EQ(session.registry().clients().front().endpoint, bob);
    const SessionCounters& counters = session.registry().counters();
    EXPECT_EQ(std::tie(counters.sessions, counters.sessions_replaced, counters.sessions_left,
                       counters.sessions_timed_out),
              std::tuple(5U, 2U, 1U, 1U));
    EXPECT_EQ(input().complete, 1U) << "includes ended sessions";
}

TEST_F(MixingSessionTest, RepliesWithItsPortAndTheServerTime) {
    const auto reply = decode_discover_reply(*receive(encode_discover({7, 70}), alice)).message;
    EXPECT_EQ(std::tie(reply.client_id, reply.nonce, reply.port), std::tuple(7U, 70U, 4242));
    const auto pong = decode_pong(*receive(encode_ping({7, 71, 72}), alice)).message;
    const std::uint64_t server_ns = start_ns + offset_ms * 1'000'000;
    EXPECT_EQ(std::tie(pong.client_id, pong.nonce, pong.t1_ns, pong.t2_ns, pong.t3_ns),
              std::tuple(7U, 71U, 72U, server_ns, server_ns + 3'000'000));
}

TEST_F(MixingSessionTest, KeepsTheDeadlinesAcrossFormatAndClockChanges) {
    announce(alice, 1, 11, {0}, {0});
    for (const StreamFormat& next : {StreamFormat{44100, 32}, {96000, 16}, format}) {
        const std::uint64_t due_ns = session.next_due_ns();
        session.change_format(next);
        session.adjust_clock(offset_ms + next.frames, 50'000, now_ns);
        const std::uint64_t server_ns = due_ns + (offset_ms + next.frames) * 1'000'000;
        EXPECT_LE(session.next_due_ns() - due_ns + 2, 4U) << "the deadline stays";
        EXPECT_LE(session.next_block().time_ns - server_ns, 100'000U);
        send_input(alice, 1, session.next_block().sequence, constant({3}, next.frames));
        EXPECT_EQ(mix(alice), constant({3}, next.frames));
    }
    EXPECT_EQ(input().complete, 3U);
}

TEST_F(MixingSessionTest, CatchesUpInOrderAndSkipsOnlyBlocksThatAreTooLate) {
    now_ns = start_ns + 1'000'000'000;  // block 750 is due
    EXPECT_EQ(session.mix_due_block(faults, now_ns, outbox)->index,
              751 - MixingSession::max_late_blocks);
    while (session.mix_due_block(faults, now_ns, outbox)) {
    }
    EXPECT_EQ(session.next_block().index, 751U);
}

TEST(BlockSchedule, DoesNotDriftInAWeek) {
    BlockSchedule schedule({48000, 128}, 0, 0);
    const std::uint64_t week_s = 7 * 86400;
    schedule.advance(week_s * 375);
    EXPECT_EQ(schedule.next().time_ns, week_s * 1'000'000'000);
    EXPECT_EQ(sequence_of_wall_clock(8'000, {48000, 128}), 3000U);
}

}  // namespace
}  // namespace tavistro::server
