// The server as a whole, on its real threads and sockets; a socket plays the client.
#include "tools/server/reference_server.h"

#include <gtest/gtest.h>

#include <array>
#include <regex>
#include <sstream>
#include <thread>
#include <tuple>

#include "platform/clock.h"
#include "support/eventually.h"
#include "tools/server/report.h"
#include "tools/server/server_program.h"

namespace tavistro::server {
namespace {

using namespace TavistroProtocol;

constexpr StreamFormat format{48000, 128};
constexpr platform::Ipv4Endpoint any_port{platform::ipv4_loopback, 0};

/// A client that feeds channel 1 and receives every channel: a Sync and 16 datagrams a block.
struct Peer {
    explicit Peer(std::uint16_t port) : server{platform::ipv4_loopback, port} {
        EXPECT_TRUE(socket.open({.bind = any_port}));
        announce.driver_inputs = {1};
        for (std::int32_t channel = 0; channel < 32; ++channel)
            announce.driver_outputs.push_back(channel);
    }
    void send(const Datagram& datagram) { socket.send_to(datagram, server); }

    Announce announce{.client_id = 7, .session_id = 70, .driver_inputs = {}, .driver_outputs = {}};
    platform::Ipv4Endpoint server;
    platform::UdpSocket socket;
};

class ReferenceServerTest : public testing::Test {
  protected:
    ReferenceServerTest() {
        EXPECT_EQ(server.start(), "");
        peer.emplace(server.port());
        peer->send(encode_announce(peer->announce));
        EXPECT_TRUE(test::eventually([&] { return server.snapshot().clients.size() == 1; }));
    }

    /// What is counted from now on, once `blocks` more blocks have been mixed.
    ServerSnapshot after(std::uint64_t blocks) {
        const std::uint64_t end = server.snapshot().blocks + blocks;
        EXPECT_TRUE(test::eventually([&] { return server.snapshot().blocks > end; }));
        return server.snapshot();
    }

    ReferenceServer server{{.bind_address = platform::ipv4_loopback, .port = 0, .format = format}};
    std::optional<Peer> peer;
};

TEST_F(ReferenceServerTest, CountsWhatFaultsDoToBlocks) {
    // For each block on its way: lost, held back, Syncs lost, datagrams sent.
    using PerBlock = std::array<std::uint64_t, 4>;
    const auto counts = [](const ServerSnapshot& seen) {
        return PerBlock{seen.blocks_lost, seen.blocks_held_back, seen.syncs_lost,
                        seen.datagrams_sent};
    };
    for (const auto& [faults, per_block, taken] :
         {std::tuple<FaultOptions, PerBlock, std::uint64_t>{{}, {0, 0, 0, 17}, 20},
          {{.duplicate_percent = 100}, {0, 0, 0, 34}, 40},
          {{.reorder_percent = 100}, {0, 1, 0, 17}, 20},
          {{.drop_percent = 100}, {1, 0, 1, 0}, 0},
          {{.silent = true}, {1, 0, 1, 0}, 20}}) {
        server.set_faults(faults);
        const ServerSnapshot before = after(4);  // those under the faults before have passed
        for (int i = 0; i < 20; ++i)
            peer->send({1, 2, 3});
        const ServerSnapshot now = after(50);
        const std::uint64_t blocks = now.blocks - before.blocks;
        for (std::size_t i = 0; i < per_block.size(); ++i) {
            const std::uint64_t growth = counts(now)[i] - counts(before)[i];
            EXPECT_GE(growth + 4 * per_block[i], blocks * per_block[i]) << i;
            EXPECT_LE(growth, (blocks + 4) * per_block[i]) << i;
        }
        EXPECT_EQ(now.datagrams_received - before.datagrams_received, 20U);
        EXPECT_EQ(now.send_failures, 0U);
        EXPECT_TRUE(test::eventually([&] {
            return server.snapshot().malformed - before.malformed == taken;
        })) << "faults meet both directions";
    }
}

TEST_F(ReferenceServerTest, StopsAndStartsAgainAboveItsNumbers) {
    EXPECT_TRUE(server.change_format(48000, 1));  // counts faster than the wall clock
    server.enable_history(2);
    after(5000);
    EXPECT_EQ(server.bus_history(0).size(), 2U);
    server.set_faults({.clock_offset_ms = 3'600'000});
    const std::uint64_t time_ns = server.bus_history(0).back().time_ns;
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

TEST(ServerProgram, TellsWhoComesAndGoesAndAStatusEachSecond) {
    platform::UdpSocket free;
    ASSERT_TRUE(free.open({.bind = any_port}));
    const std::string port = std::to_string(free.local_endpoint().port);
    Peer peer(free.local_endpoint().port);
    free.release();
    std::ostringstream out;
    std::thread program([&] {
        const char* const line[] = {"tavistro-server", "--port", port.c_str(), "--seconds", "2"};
        EXPECT_EQ(run_server_program(std::size(line), line, out, out), 0);
    });
    for (int i = 0; i < 15; ++i, platform::sleep_ms(100))
        peer.send(encode_announce(peer.announce));
    peer.send(encode_leave(7, 70));
    program.join();
    std::istringstream said(out.str());
    for (const std::string& expected :
         {"listening on UDP port " + port + ", 48000 Hz, 128 frames",
          std::string(" joined: sends 1 channels, receives 32"),
          std::string("clients 1 . per second: blocks 3[67][0-9] .*"),
          std::string(" left: in 0 .*"),
          std::string("ran 2.[0-9] s: .*sessions 1 replaced 0 left 1 .*")}) {
        std::string line;
        std::getline(said, line);
        EXPECT_TRUE(
            std::regex_match(line, std::regex("(client 7 at 127.0.0.1:[0-9]*)?" + expected)))
            << out.str();
    }
}

TEST(Report, NamesRatesAndTotalsByTheirCounters) {
    ServerSnapshot before, now;
    before.uptime_ms = 10'000;
    now.uptime_ms = 12'000;
    before.blocks = 1000;
    now.blocks = 1700;
    now.bytes_sent = 4000;
    now.bytes_received = 6000;
    now.blocks_skipped = 2;
    now.lateness_max_us = 3;
    now.input = {100, 5, 6, 7, 8, 9, 10, 11};
    now.format = {96000, 192};
    now.clients.emplace_back().announce.driver_inputs = {1};
    now.measures.emplace_back().report.last_lag_frames = 480;
    EXPECT_EQ(Report(false).status(now, before),
              "clients 1 | per second: blocks 350 sent 2.0 kB received 3.0 kB in 50 | in all: "
              "skipped 2 late by 3 us in 100 incomplete 5 missing 6 late 7 early 8 gaps 11 | 0:0 "
              "lag 480 frames (2.50 blocks, 5.00 ms) corr 0.0000 exact 0/0 silent 0");
    const std::string json = Report(true).summary(now);
    for (const char* field : {R"("type":"summary")", R"("blocks":1700,)", R"("gaps":11)",
                              R"("lag_ms":5.0)", R"("lag_blocks":2.5)", R"("driver_inputs":[1])"})
        EXPECT_NE(json.find(field), std::string::npos) << json;
}

}  // namespace
}  // namespace tavistro::server
