// Tests the whole server with its threads and its socket. A second socket acts as the client.
#include "tools/server/reference_server.h"

#include <gtest/gtest.h>

#include <array>
#include <numeric>
#include <tuple>

#include "platform/clock.h"
#include "support/eventually.h"

namespace tavistro::server {
namespace {

using namespace TavistroProtocol;

constexpr StreamFormat format{48000, 32};

/// A client sends channel 1 and receives every channel: one sync notice and 4 datagrams per block.
class ReferenceServerTest : public testing::Test {
  protected:
    ReferenceServerTest() {
        EXPECT_EQ(server.start(), "");
        EXPECT_TRUE(socket.open({.bind = {platform::ipv4_loopback, 0}}));
        Announce announce{7, 70, 0, 0, {1}, std::vector<std::int32_t>(32)};
        std::iota(announce.driver_outputs.begin(), announce.driver_outputs.end(), 0);
        send(encode_announce(announce));
        EXPECT_TRUE(test::eventually([&] { return server.snapshot().clients.size() == 1; }));
    }

    void send(const Datagram& datagram) {
        socket.send_to(datagram, {platform::ipv4_loopback, server.port()});
    }

    /// The counters after `blocks` more blocks have been mixed.
    ServerSnapshot after(std::uint64_t blocks) {
        const std::uint64_t end = server.snapshot().blocks + blocks;
        EXPECT_TRUE(test::eventually([&] { return server.snapshot().blocks > end; }));
        return server.snapshot();
    }

    ReferenceServer server{{.bind_address = platform::ipv4_loopback, .port = 0, .format = format}};
    platform::UdpSocket socket;
};

TEST_F(ReferenceServerTest, CountsTheEffectsOfFaults) {
    using Count = std::uint64_t TrafficCounters::*;
    constexpr Count counts[] = {&TrafficCounters::blocks_lost, &TrafficCounters::blocks_held_back,
                                &TrafficCounters::syncs_lost, &TrafficCounters::datagrams_sent};
    using PerBlock = std::array<std::uint64_t, std::size(counts)>;
    // After a preemption of the server, up to this many blocks are sent at once.
    constexpr std::uint64_t slack = MixingSession::max_late_blocks + 4;
    for (const auto& [faults, per_block, taken] :
         {std::tuple<FaultOptions, PerBlock, std::uint64_t>{{}, {0, 0, 0, 5}, 20},
          {{.duplicate_percent = 100}, {0, 0, 0, 10}, 40},
          {{.reorder_percent = 100}, {0, 1, 0, 5}, 20},
          {{.drop_percent = 100}, {1, 0, 1, 0}, 0},
          {{.silent = true}, {1, 0, 1, 0}, 20}}) {
        server.set_faults(faults);
        const ServerSnapshot before = after(slack);  // blocks with the previous faults are done
        for (int i = 0; i < 20; ++i)
            send({1, 2, 3});
        const ServerSnapshot now = after(4 * slack);
        const std::uint64_t blocks = now.blocks - before.blocks;
        for (std::size_t i = 0; i < per_block.size(); ++i) {
            const std::uint64_t growth = now.*counts[i] - before.*counts[i];
            EXPECT_GE(growth + slack * per_block[i], blocks * per_block[i]) << i;
            EXPECT_LE(growth, (blocks + slack) * per_block[i]) << i;
        }
        EXPECT_EQ(now.send_failures, 0U);
        EXPECT_TRUE(test::eventually([&, taken = taken] {
            const ServerSnapshot last = server.snapshot();
            return last.datagrams_received - before.datagrams_received == 20 &&
                   last.malformed - before.malformed == taken;
        })) << "faults apply to both directions";
    }
}

TEST_F(ReferenceServerTest, ContinuesItsSequenceNumbersAfterARestart) {
    EXPECT_TRUE(server.change_format(48000, 1));  // counts faster than the wall clock
    server.enable_history(2);
    after(5000);
    EXPECT_EQ(server.bus_history(0).size(), 2U);
    const std::uint64_t time_ns = server.bus_history(0).back().time_ns;
    server.set_faults({.clock_offset_ms = 3'600'000});
    after(10);
    EXPECT_GT(server.bus_history(0).back().time_ns, time_ns + 3'500'000'000'000);
    server.stop();
    const ServerSnapshot stopped = server.snapshot();
    platform::sleep_ms(5);
    EXPECT_EQ(server.snapshot().uptime_ms, stopped.uptime_ms);
    ASSERT_EQ(server.start(), "");
    const ServerSnapshot again = server.snapshot();
    EXPECT_GE(again.next_sequence, stopped.next_sequence);
    EXPECT_EQ(again.datagrams_sent + again.clients.size(), 0U);
}

}  // namespace
}  // namespace tavistro::server
