// One session without sockets, on a clock that the test moves: the test is the server. Then what
// the session counts, and the server's clock as its pings show it.
#include "net/client_session.h"

#include <gtest/gtest.h>

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
        session.reset(two_in_two_out(),
                      {[this](const auto& line) { lines.push_back(line); },
                       [this](const auto& block) { blocks.push_back(block); },
                       [this](const auto&) { ++syncs; },
                       [this](const auto& telemetry) { reports.push_back(telemetry); }});
        session.run(server);
    }
    ~Session() override { use_running_clock(); }

    void receive(const Datagram& datagram) { session.handle_datagram(datagram, server); }
    void receive_block(std::uint32_t sequence) {
        receive(block_datagrams(sequence, frames, 2).front());
    }
    void receive_sync(std::uint32_t sequence, std::uint32_t sample_rate = test_rate,
                      std::uint64_t server_time_ns = 0) {
        receive(encode_sync(7, {sequence, sample_rate, frames, 0, server_time_ns}));
    }

    DatagramList sent;
    std::vector<std::string> lines;
    std::vector<CompletedOutputBlock> blocks;
    std::size_t syncs = 0;
    std::vector<ClientTelemetry> reports;
    ClientSession session{[this](auto datagrams, const auto& to) {
        EXPECT_EQ(to, server);
        for (const auto& datagram : datagrams)
            sent.emplace_back(datagram.begin(), datagram.end());
        return true;
    }};
};

TEST_F(Session, AnnouncesItselfAndLeaves) {
    session.send_announce();
    session.end();
    ASSERT_EQ(sent.size(), 2U);
    const std::uint32_t session_id = decode_announce(sent[0]).message.session_id;
    EXPECT_NE(session_id, 0U);
    EXPECT_EQ(sent[0], encode_announce({7, session_id, 6, 6, {2, 3}, {0, 1}}));
    EXPECT_EQ(sent[1], encode_leave(7, session_id));
}

TEST_F(Session, PingsShowTheServersClockByWhichBlocksAreTimed) {
    const auto pings_within_ms = [this](std::uint64_t ms) {
        const std::size_t before = sent.size();
        for (; ms > 0; ms -= 50) {
            advance_clock_ms(50);
            session.ping_tick();
        }
        return sent.size() - before;
    };
    receive_sync(1, test_rate, 1'000'000);  // not synced yet
    session.ping_tick();
    const Ping ping = decode_ping(sent[0]).message;
    const std::uint64_t server_ns = ping.t1_ns + 6'000'000;  // its clock is 5 ms ahead
    advance_clock_ms(2);
    receive(encode_pong({7, ping.nonce, ping.t1_ns, server_ns, server_ns}));
    EXPECT_EQ(reports.back().rtt_last_us, 2000U);
    receive_sync(2, test_rate, server_ns);
    receive_sync(3, test_rate, 0);
    EXPECT_EQ(reports.back().sync_delay_last_us, 1000U);
    // The time of block 2 is not that of the block which takes its place.
    for (const std::uint32_t sequence : {1U, 2U, 3U, 2U + 16U}) {
        receive_block(sequence);
        const bool has_time = sequence == 2;
        EXPECT_EQ(blocks.back().server_time_ns, has_time ? server_ns : 0) << sequence;
        EXPECT_EQ(blocks.back().server_time_local_ns, has_time ? server_ns - 5'000'000 : 0);
    }

    EXPECT_EQ(pings_within_ms(950), 0U);
    EXPECT_EQ(pings_within_ms(50), 1U);
    EXPECT_EQ(pings_within_ms(2950), 0U) << "unanswered";
    EXPECT_EQ(pings_within_ms(50), 1U);
    EXPECT_EQ(reports.back().ping_timeouts, 1U);
}

TEST_F(Session, SyncsCountInRisingOrderOrInAnotherFormatAndSendInputAhead) {
    const Datagram from_elsewhere = encode_sync(7, {1, test_rate, frames, 0, 0});
    session.handle_datagram(from_elsewhere, {server.address + 1, server.port});
    session.handle_datagram(from_elsewhere, {server.address, server.port + 1});
    EXPECT_EQ(syncs, 0U);
    receive_sync(100);
    const struct {
        std::uint32_t sequence, sample_rate;
        const char* what;
        std::size_t accepted, sent;
    } steps[] = {
        {9, test_rate, "a capture format begins the stream anew; too little input", 1, 0},
        {10, test_rate, "with input", 1, 1},
        {10, test_rate, "repeated", 0, 0},
        {12, test_rate, "a gap", 1, 1},
        {12 + 0x80000000, test_rate, "older by half the numbers", 0, 0},
        {3, 0, "a notice without format is no other format", 0, 0},
        {3, 44100, "another format may begin anywhere, without input", 1, 0},
        {4, test_rate, "its input has been sent", 1, 0},
        {13, test_rate, "goes on", 1, 1},
    };
    for (int format = 0; format < 2; ++format) {
        ASSERT_TRUE(session.set_capture_format(test_rate, frames));
        for (const auto& step : steps) {
            const std::size_t accepted = syncs;
            const std::size_t datagrams = sent.size();
            session.push_captured_input(test_rate, frames, 2, ramp(2 * frames), 1.0);
            receive_sync(step.sequence, step.sample_rate);
            EXPECT_EQ(syncs - accepted, step.accepted) << step.what;
            ASSERT_EQ(sent.size() - datagrams, step.sent) << step.what;
            if (step.sent == 0) continue;
            EXPECT_EQ(decode_audio(sent.back()).message.sequence, step.sequence + 6);
        }
    }
    EXPECT_EQ(sent[0], block_datagrams(16, frames, 2).front()) << "at the target fill, as pushed";
}

TEST_F(Session, ACaptureFormatBeginsTheStreamAnew) {
    for (const std::uint32_t sequence : {0xFFFFFFFEU, 0xFFFFFFFFU, 2U, 0xFFFFFFFFU})
        receive_block(sequence);
    ASSERT_EQ(blocks.size(), 5U) << "with silence for 0 and 1";
    EXPECT_EQ(blocks[2].sample_rate, test_rate);
    EXPECT_EQ(blocks[4].arrival_time_ns, platform::nanosecond_clock());
    session.set_capture_format(test_rate, frames);
    advance_clock_ms(2500);
    receive_block(1);
    EXPECT_EQ(blocks.back().sequence, 1U);
    EXPECT_EQ(lines.back(), "[net] recvBlocksPerSec=4 duplicateBlocksPerSec=1 rttUs=0/0/0");
}

TEST(Statistics, PercentilesAreInclusiveBucketBounds) {
    const struct {
        std::vector<std::uint32_t> values_us, percentiles_us;
    } cases[] = {{{}, {0, 0, 0}},
                 {{300, 300, 40000}, {500, 50000, 50000}},
                 {{150000}, {150000, 150000, 150000}}};
    for (const auto& [values_us, percentiles_us] : cases) {
        ClientStatistics statistics;
        for (const std::uint32_t value : values_us)
            statistics.record_rtt(value);
        const ClientTelemetry t = statistics.snapshot(true);
        EXPECT_EQ((std::vector{t.rtt_p50_us, t.rtt_p95_us, t.rtt_p99_us}), percentiles_us);
    }
    LatencySeries series;
    for (const std::uint32_t value : {0U, 251U, 250U, 500U, 501U, 100000U, 0xFFFFFFFFU, 100001U})
        series.record(value);
    EXPECT_EQ(series.histogram, (std::array<std::uint64_t, 10>{2, 2, 1, 0, 0, 0, 0, 0, 1, 2}));
    EXPECT_EQ(series.min_us, 250U) << "a smallest value of 0 counts as none yet";
}

TEST(Statistics, DelaysAreRoundedUpAndKeptInRange) {
    ClientStatistics statistics;
    const auto delay_us = [&](std::uint64_t now_ns, std::int64_t offset_ns, std::uint64_t sent_ns) {
        statistics.record_sync_delay(now_ns, offset_ns, sent_ns);
        return statistics.snapshot(true).sync_delay_last_us;
    };
    EXPECT_EQ(delay_us(10'000'000, 1'000'000, 8'000'001), 1000U);
    EXPECT_EQ(delay_us(10'000'000, -3, 10'000'002), 1U);
    EXPECT_EQ(delay_us(10'000, 20'000, 1), 0U);
    EXPECT_EQ(delay_us(5'000'000'000'000'000, 0, 1), 0xFFFFFFFFU);

    for (const std::uint64_t now_ns : {9999U, 3000U, 999U})  // the last before it arrived
        statistics.record_callback_latency(1000, now_ns);
    EXPECT_EQ(statistics.snapshot(true).callback_last_us, 2U);
    EXPECT_EQ(statistics.snapshot(true).callback_max_us, 8U);
}

TEST(ServerClock, TakesRoundTripAndOffsetFromTheAnswerToItsPing) {
    const struct {
        std::uint64_t t1, t2, t3, t4, rtt_ns;
        std::int64_t offset_ns;
    } cases[] = {
        {1'000'000, 500'000, 800'000, 1'900'000, 600'000, 800'000},
        {1'000'000, 0, 2'000'000, 1'900'000, 900'000, 450'000},  // held longer than we waited
        {1'000, 5'000, 4'000, 1'600, 600, -3'200},               // left before it came
        {1'000, 1'003, 1'010, 1'010, 3, -1},                     // -1.5 towards zero
        {2'000, 1, 1, 1'000, 0, 1'499},                          // answered before it was asked
    };
    for (const auto& c : cases) {
        ServerClock clock;
        clock.ping_sent({7, 42, c.t1}, 5000);
        EXPECT_FALSE(clock.accept({7, 41, c.t1, c.t2, c.t3}, c.t4)) << "another nonce";
        EXPECT_FALSE(clock.accept({7, 42, c.t1 + 1, c.t2, c.t3}, c.t4)) << "another t1";
        EXPECT_FALSE(clock.synced());
        EXPECT_EQ(clock.accept({7, 42, c.t1, c.t2, c.t3}, c.t4), c.rtt_ns);
        EXPECT_EQ(clock.offset_ns(), c.offset_ns);
        EXPECT_FALSE(clock.accept({7, 42, c.t1, c.t2, c.t3}, c.t4)) << "answered already";
    }
}

}  // namespace
}  // namespace tavistro::test
