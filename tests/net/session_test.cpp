// The session without sockets, on a manual clock; the test acts as the server. Also its statistics
// and its estimate of the server clock.
#include "net/client_session.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "net/net_inputs.h"
#include "net/server_messages.h"
#include "platform/clock.h"
#include "support/movable_clock.h"

namespace tavistro::test {
namespace {

constexpr platform::Ipv4Endpoint server{0x0A000001, 28010};
constexpr std::uint16_t frames = 4;

class Session : public testing::Test {
  protected:
    Session() {
        set_manual_clock();
        begin();
    }
    ~Session() override { use_running_clock(); }

    void begin() {
        ClientSettings settings = two_in_two_out();
        settings.output_latency_blocks = 8;
        session.reset(settings, {[this](const auto& line) { lines.push_back(line); },
                                 [this](const auto& block) {
                                     blocks.push_back(block);
                                     advance_clock_ns(block_callback_ns);
                                 },
                                 [this](const auto&) { ++syncs; },
                                 [this](const auto& telemetry) { reports.push_back(telemetry); }});
        session.run(server);
    }
    void receive(const Datagram& datagram) { session.handle_datagram(datagram, server); }
    void receive_block(std::uint32_t sequence) {
        receive(block_datagrams(sequence, frames, 2).front());
    }
    void receive_sync(std::uint32_t sequence, std::uint32_t sample_rate = test_rate,
                      std::uint64_t server_time_ns = 0, std::uint16_t block_frames = frames) {
        receive(encode_sync(7, {sequence, sample_rate, block_frames, 0, server_time_ns}));
    }
    /// Sends and answers a due ping; the server clock is `ahead_ns` ahead of ours.
    void exchange_ping(std::uint64_t rtt_ns, std::uint64_t ahead_ns) {
        session.ping_tick();
        const Ping ping = decode_ping(sent.back()).message;
        advance_clock_ns(rtt_ns);
        const std::uint64_t server_ns = ping.t1_ns + ahead_ns + rtt_ns / 2;
        receive(encode_pong({7, ping.nonce, ping.t1_ns, server_ns, server_ns}));
    }

    DatagramList sent;
    int refused = 0;  ///< number of sends that will fail
    std::vector<std::string> lines;
    std::vector<CompletedOutputBlock> blocks;
    std::uint64_t block_callback_ns = 0;  ///< duration of the block callback
    std::size_t syncs = 0;
    std::vector<ClientTelemetry> reports;
    ClientSession session{[this](auto datagrams, const auto& to) {
        EXPECT_EQ(to, server);
        for (const auto& datagram : datagrams)
            sent.emplace_back(datagram.begin(), datagram.end());
        return --refused < 0;
    }};
};

TEST_F(Session, AnnouncesAndLeavesWithANewSessionId) {
    std::uint32_t last_id = 0;
    for (const unsigned refusals : {0U, 3U, 100U}) {
        begin();
        sent.clear();
        session.send_announce();
        refused = static_cast<int>(refusals);
        const std::uint64_t start_ms = platform::millisecond_tick();
        session.end();
        EXPECT_EQ(sent.size(), 1U + std::min(refusals + 1U, 10U));
        EXPECT_EQ(platform::millisecond_tick() - start_ms, std::min(refusals, 10U) * 10U);
        const std::uint32_t id = decode_announce(sent[0]).message.session_id;
        EXPECT_NE(id, 0U);
        EXPECT_NE(id, std::exchange(last_id, id));
        EXPECT_EQ(sent[0], encode_announce({7, id, 6, 8, {2, 3}, {0, 1}}));
        EXPECT_EQ(sent.back(), encode_leave(7, id));
        advance_clock_ms(1);
    }
    begin();
    refused = 1;
    session.send_announce();
    EXPECT_EQ(lines, std::vector<std::string>{"[net] Failed to send announce."});
}

TEST_F(Session, PingsEverySecondAndTimesOutAfterThree) {
    exchange_ping(0, 0);
    for (const auto& [ms, pings] : {std::pair(999, 0U), {1, 1U}, {2999, 0U}, {1, 1U}}) {
        sent.clear();
        for (int i = 0; i < ms; ++i) {
            advance_clock_ms(1);
            session.ping_tick();
        }
        EXPECT_EQ(sent.size(), pings) << "after " << ms;
    }
    EXPECT_EQ(reports.back().ping_timeouts, 1U);
}

TEST_F(Session, BlocksHaveServerTimesUntilTheSessionIsReset) {
    const std::uint64_t ahead_ns = 5'000'000;
    const auto expect_times = [&](std::uint32_t sequence, std::uint64_t local_ns) {
        receive_block(sequence);
        EXPECT_EQ(blocks.back().server_time_local_ns, local_ns) << sequence;
        EXPECT_EQ(blocks.back().server_time_ns, local_ns == 0 ? 0 : local_ns + ahead_ns);
    };
    receive_sync(11, test_rate, 1'000'000);  // before the clock is synchronised
    exchange_ping(2'000'000, ahead_ns);
    const std::uint64_t now_ns = platform::nanosecond_clock();
    receive_sync(12, test_rate, now_ns + ahead_ns);
    receive_sync(13, test_rate, 0);
    expect_times(11, 0);
    expect_times(12, now_ns);
    expect_times(13, 0);
    expect_times(12 + 16, 0);  // not the time of block 12, which has the same ring entry
    EXPECT_EQ(reports.size(), 2U) << "one for the pong, one for the notice with a server time";
    begin();
    receive_sync(12, test_rate, now_ns);
    EXPECT_EQ(syncs, 4U);
    advance_clock_ms(999);
    expect_times(12, 0);
    EXPECT_EQ(blocks.size(), 5U + 14) << "silence before 28, none before the new 12";
    EXPECT_EQ(reports.size(), 2U) << "the first interval is not over";
}

std::string fields_of(const ClientTelemetry& t) {
    return testing::PrintToString(std::make_tuple(
        t.recvBlocksPerSec, t.duplicateBlocksPerSec, t.rtt_samples, t.ping_timeouts, t.rtt_last_us,
        t.rtt_min_us, t.rtt_max_us, t.rtt_p50_us, t.rtt_p95_us, t.rtt_p99_us, t.rtt_histogram,
        t.clock_synced, t.sync_rtt_us, t.sync_delay_samples, t.sync_delay_last_us,
        t.sync_delay_min_us, t.sync_delay_max_us, t.sync_delay_p50_us, t.sync_delay_p95_us,
        t.sync_delay_p99_us, t.sync_delay_histogram, t.callback_last_us, t.callback_max_us));
}

TEST_F(Session, EveryTelemetryFieldComesFromItsOwnSeries) {
    for (std::uint32_t second = 0; second <= 100; ++second) {
        const std::uint64_t start_ns = platform::nanosecond_clock();
        // 101 values each: rounding a percentile down would select another bucket. 1000 us is a
        // bucket's bound.
        const std::uint64_t rtt_us = second < 2    ? 150'000
                                     : second < 6  ? 4'500
                                     : second < 61 ? 1'000
                                                   : 400 - second;
        const std::uint64_t delay_us = second < 60   ? 1'500 + second
                                       : second < 96 ? 7'000
                                       : second < 99 ? 15'000
                                                     : 25'000 - second;
        exchange_ping(rtt_us * 1000 - 1, 123'456'789);
        const std::uint64_t now_ns = platform::nanosecond_clock();
        if (second != 59)
            receive_sync(second, test_rate, now_ns + 123'456'789 - delay_us * 1000 + 500);
        block_callback_ns = second == 50 ? 777'999 : 333'999;
        receive_block(2 * second);
        receive_block(2 * second + 1);
        receive_block(2 * second);
        advance_clock_ns(start_ns + 1'000'000'000 - platform::nanosecond_clock());
    }
    receive_block(300);
    receive_block(300);
    EXPECT_EQ(fields_of(reports.back()),
              "(2, 1, 101, 0, 300, 300, 150000, 1000, 5000, 150000, "
              "{ 0, 40, 55, 0, 4, 0, 0, 0, 0, 2 }, true, 300, "
              "100, 24900, 1500, 24901, 2000, 10000, 50000, { 0, 0, 0, 59, 0, 36, 3, 2, 0, 0 }, "
              "333, 777)");
    EXPECT_EQ(reports.size(), 101U + 100U + 99U) << "pongs, sync notices, intervals";
    EXPECT_EQ(lines.back(),
              "[net] recvBlocksPerSec=2 duplicateBlocksPerSec=1 rttUs=300/300/150000");
}

TEST_F(Session, AcceptsSyncsInSequenceOrInANewFormatAndSendsInput) {
    const Datagram from_elsewhere = encode_sync(7, {1, test_rate, frames, 0, 0});
    session.handle_datagram(from_elsewhere, {server.address + 1, server.port});
    session.handle_datagram(from_elsewhere, {server.address, server.port + 1});
    EXPECT_EQ(syncs, 0U);
    receive_sync(100);
    const struct {
        std::uint32_t sequence, sample_rate;
        std::uint16_t block_frames;
        const char* what;
        std::size_t accepted, sent;
    } steps[] = {
        {9, test_rate, frames, "first after a new capture format; too little input", 1, 0},
        {10, test_rate, frames, "with input", 1, 1},
        {10, test_rate, frames, "repeated", 0, 0},
        {12, test_rate, frames, "a gap", 1, 1},
        {12 + 0x80000000, test_rate, frames, "2^31 ahead, not newer", 0, 0},
        {3, 0, frames, "no format, old sequence", 0, 0},
        {3, 44100, frames, "another rate with any sequence, without input", 1, 0},
        {2, test_rate, frames + 1, "another block size with any sequence", 1, 0},
        {4, test_rate, frames, "input for this sequence was already sent", 1, 0},
        {13, test_rate, frames, "next in sequence", 1, 1},
    };
    for (int format = 0; format < 2; ++format) {
        ASSERT_TRUE(session.set_capture_format(test_rate, frames));
        for (const auto& step : steps) {
            const std::size_t accepted = syncs;
            const std::size_t datagrams = sent.size();
            session.push_captured_input(test_rate, frames, 2, ramp(2 * frames), 1.0);
            receive_sync(step.sequence, step.sample_rate, 0, step.block_frames);
            EXPECT_EQ(syncs - accepted, step.accepted) << step.what;
            ASSERT_EQ(sent.size() - datagrams, step.sent) << step.what;
            if (step.sent == 0) continue;
            EXPECT_EQ(decode_audio(sent.back()).message.sequence, step.sequence + 6);
        }
    }
    EXPECT_EQ(sent[0], block_datagrams(16, frames, 2).front()) << "unchanged at the target fill";
}

TEST_F(Session, SilenceFillsGapsOfUpTo1024BlocksAndOldBlocksAreDropped) {
    for (const std::uint32_t sequence : {0xFFFFFFFEU, 2U, 1U, 1027U, 2053U})
        receive_block(sequence);
    ASSERT_EQ(blocks.size(), 5U + 1024 + 2);
    EXPECT_EQ(blocks[3].sequence, 1U);
    EXPECT_EQ(blocks[3].samples, std::vector<float>(2 * frames));
    EXPECT_EQ(blocks.back().arrival_time_ns, platform::nanosecond_clock());
}

TEST_F(Session, SetCaptureFormatRestartsTheStream) {
    const DatagramList halves = block_datagrams(1, frames, 2, 48 + 4 * frames);
    receive_block(2);
    receive(halves[0]);
    EXPECT_FALSE(session.set_capture_format(test_rate, 0));
    EXPECT_FALSE(session.set_capture_format(0, frames));
    EXPECT_TRUE(session.set_capture_format(test_rate, frames));
    receive(halves[1]);
    EXPECT_EQ(blocks.size(), 1U) << "the first half belonged to the old stream";
    receive(halves[0]);
    ASSERT_EQ(blocks.size(), 2U);
    EXPECT_EQ(blocks[1].sample_rate, test_rate);
}

TEST(ServerClock, ComputesRoundTripAndOffsetFromThePong) {
    const struct {
        std::uint64_t t1, t2, t3, t4, rtt_ns;
        std::int64_t offset_ns;
    } cases[] = {
        {1'000'000, 500'000, 800'000, 1'900'000, 600'000, 800'000},
        {1'000'000, 0, 2'000'000, 1'900'000, 900'000, 450'000},  // processing > round trip
        {1'000, 1'003, 1'010, 1'010, 3, -1},                     // -1.5 towards zero
        {2'000, 1, 1, 1'000, 0, 1'499},                          // t4 before t1
    };
    for (const auto& c : cases) {
        ServerClock clock;
        clock.ping_sent({7, 42, c.t1}, 5000);
        EXPECT_FALSE(clock.accept({7, 41, c.t1, c.t2, c.t3}, c.t4)) << "another nonce";
        EXPECT_FALSE(clock.accept({7, 42, c.t1 + 1, c.t2, c.t3}, c.t4)) << "another t1";
        EXPECT_EQ(clock.accept({7, 42, c.t1, c.t2, c.t3}, c.t4), c.rtt_ns);
        EXPECT_EQ(clock.clock_offset_ns(), c.offset_ns);
    }
}

}  // namespace
}  // namespace tavistro::test
