// The server as a whole, on its real threads and sockets; a socket plays the client.
#include "tools/server/reference_server.h"

#include <gtest/gtest.h>

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

    ReferenceServer server{{.bind_address = platform::ipv4_loopback,
                            .port = 0,
                            .format = format,
                            .records = {{testing::TempDir() + "tavistro-server-test.wav", {0}}}}};
    std::optional<Peer> peer;
};

TEST_F(ReferenceServerTest, CountsWhatFaultsDoToBlocks) {
    struct Case {
        FaultOptions faults;
        std::uint64_t lost, held_back, syncs_lost, sent;  ///< per block; datagrams sent
    };
    for (const auto& [faults, lost, held_back, syncs_lost, sent] :
         {Case{{}, 0, 0, 0, 17}, Case{{.duplicate_percent = 100}, 0, 0, 0, 34},
          Case{{.reorder_percent = 100}, 0, 1, 0, 17}, Case{{.drop_percent = 100}, 1, 0, 1, 0},
          Case{{.silent = true}, 1, 0, 1, 0}}) {
        server.set_faults(faults);
        const ServerSnapshot before = after(4);  // the last of the faults before have passed
        for (int i = 0; i < 20; ++i)
            peer->send({1, 2, 3});
        const ServerSnapshot now = after(50);
        const std::uint64_t blocks = now.blocks - before.blocks;
        const auto grew = [&](auto counter, std::uint64_t per_block) {
            const std::uint64_t growth = now.*counter - before.*counter;
            EXPECT_GE(growth + 4 * per_block, blocks * per_block);
            EXPECT_LE(growth, (blocks + 4) * per_block);
        };
        grew(&ServerSnapshot::blocks_lost, lost);
        grew(&ServerSnapshot::blocks_held_back, held_back);
        grew(&ServerSnapshot::syncs_lost, syncs_lost);
        grew(&ServerSnapshot::datagrams_sent, sent);
        EXPECT_EQ(now.datagrams_received - before.datagrams_received, 20U);
        const std::uint64_t taken = faults.drop_percent > 0        ? 0
                                    : faults.duplicate_percent > 0 ? 40
                                                                   : 20;
        EXPECT_EQ(now.malformed - before.malformed, taken) << "faults meet both directions";
    }
}

TEST_F(ReferenceServerTest, StopsAndStartsAgainAboveItsNumbers) {
    EXPECT_FALSE(server.change_format(44100, 128)) << "amid a recording";
    EXPECT_TRUE(server.change_format(48000, 1));  // counts faster than the wall clock
    server.enable_history(2);
    after(5000);
    EXPECT_EQ(server.bus_history(0).size(), 2U);
    server.set_faults({.clock_offset_ms = 3'600'000});
    const std::uint64_t time_ns = server.bus_history(0).back().time_ns;
    EXPECT_GT(after(10).blocks, 0U);
    EXPECT_GT(server.bus_history(0).back().time_ns, time_ns + 3'500'000'000'000);
    server.stop();
    const ServerSnapshot stopped = server.snapshot();
    EXPECT_EQ(stopped.sessions, 1U);
    EXPECT_GT(stopped.bytes_sent, 0U);
    platform::sleep_ms(5);
    EXPECT_EQ(server.snapshot().uptime_ms, stopped.uptime_ms);
    ASSERT_EQ(server.start(), "");
    const ServerSnapshot again = server.snapshot();
    EXPECT_GE(again.next_sequence, stopped.next_sequence);
    EXPECT_EQ(server.port(), peer->server.port);
    EXPECT_EQ(again.datagrams_sent + again.clients.size(), 0U);
}

TEST(ServerProgram, TellsWhoComesAndGoesAndAStatusEachSecond) {
    platform::UdpSocket free;
    ASSERT_TRUE(free.open({.bind = any_port}));
    const std::uint16_t number = free.local_endpoint().port;
    free.release();
    for (const char* const json : {"--seed=1", "--json"}) {
        std::ostringstream out;
        std::thread program([&] {
            const std::string port = std::to_string(number);
            const char* const arguments[] = {"tavistro-server", "--port", port.c_str(),
                                             "--seconds",       "2",      json};
            EXPECT_EQ(run_server_program(std::size(arguments), arguments, out, out), 0);
        });
        Peer peer(number);
        for (int i = 0; i < 15; ++i, platform::sleep_ms(100))
            peer.send(encode_announce(peer.announce));
        peer.send(encode_leave(7, 70));
        program.join();
        const std::string said = out.str();
        const bool text = json[2] == 's';
        std::size_t last = 0;
        for (const char* line :
             text ? std::array{"listening on UDP port ", " joined, sends 1 channels, receives 32",
                               "clients 1 | per second: blocks 37", " left", "ran 2."}
                  : std::array{R"("type":"listening")", R"("type":"joined")", R"("type":"status")",
                               R"("type":"left")", R"("type":"summary")"}) {
            const std::size_t at = said.find(line, last);
            ASSERT_NE(at, std::string::npos) << line << " in " << said;
            last = at + 1;
        }
        EXPECT_EQ(std::ranges::count(said, '\n'), 5) << said;
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
    now.input = {.complete = 100,
                 .incomplete = 5,
                 .missing = 6,
                 .late = 7,
                 .early = 8,
                 .mismatched = 9,
                 .duplicates = 10,
                 .gaps = 11};
    now.sessions = 12;
    now.sessions_replaced = 13;
    now.sessions_left = 14;
    now.sessions_timed_out = 15;
    now.lost_on_purpose = 16;
    now.blocks_lost = 17;
    now.syncs_lost = 18;
    now.blocks_held_back = 19;
    now.format = {96000, 192};
    ClientSnapshot& client = now.clients.emplace_back();
    client.endpoint = {0x0A000001, 5000};
    client.announce.client_id = 21;
    client.announce.driver_inputs = {1};
    client.announce.driver_outputs = {2};
    now.measures.push_back({{0, 2}, {}});
    now.measures[0].report.last_lag_frames = 480;
    const Report text(false), json(true);
    EXPECT_EQ(text.status(now, before),
              "clients 1 | per second: blocks 350 sent 2.0 kB received 3.0 kB in 50 | in all: "
              "skipped 2 late by 3 us in 100 incomplete 5 missing 6 late 7 early 8 gaps 11 | 0:2 "
              "lag 480 frames (2.50 blocks, 5.00 ms) corr 0.0000 exact 0/0 silent 0");
    EXPECT_EQ(
        text.summary(now),
        "ran 12.0 s: blocks 1700 skipped 2, sessions 12 replaced 13 left 14 timed out 15, in "
        "100 incomplete 5 missing 6 late 7 early 8 gaps 11\nlost on purpose: 16 datagrams, 17 "
        "blocks and 18 Syncs to clients among them; 19 blocks held back\nclient 21 at "
        "10.0.0.1:5000: in 0 incomplete 0 missing 0 late 0 early 0 gaps 0\nmeasure 0:2 lag "
        "480 frames (2.50 blocks, 5.00 ms) corr 0.0000 exact 0/0 silent 0");
    for (const char* field :
         {R"("blocks":1700,)", R"("lag_ms":5.0)", R"("lag_blocks":2.5)", R"("returned":2)",
          R"("driver_inputs":[1])", R"("driver_outputs":[2])", R"("port":5000)"}) {
        EXPECT_NE(json.summary(now).find(field), std::string::npos) << json.summary(now);
    }
}

}  // namespace
}  // namespace tavistro::server
