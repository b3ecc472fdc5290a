// Which server is chosen among those that answer, and the whole client over real sockets on this
// host, with the reference server as its peer.
#include "net/tavistro_client.h"

#include <gtest/gtest.h>

#include <mutex>

#include "net/discovery.h"
#include "net/net_inputs.h"
#include "net/server_messages.h"
#include "support/eventually.h"
#include "support/scripted_server.h"
#include "tools/server/reference_server.h"

namespace tavistro::test {
namespace {

using Verdict = ServerChoice::Verdict;

constexpr std::uint16_t frames = 128;

constexpr std::uint64_t nonce = 0x1234567890;
const Datagram good = encode_discover_reply({7, nonce, 99});

TEST(Discovery, NearestAndThenEarliestServerWins) {
    // Each group is nearer than the one above; the first of a group is the first to answer.
    const std::vector<const char*> groups[] = {
        {"128.0.0.1", "11.0.0.1", "172.15.0.1", "172.32.0.1", "192.169.1.1", "169.253.3.4"},
        {"10.200.0.1", "172.16.0.1", "172.31.255.255", "192.168.1.1", "169.254.3.4"},
        {"127.0.0.1", "127.255.1.2"}};
    ServerChoice choice(7, nonce);
    for (int i = 0; i < 3; ++i) {
        for (const char* source : groups[i]) {
            const std::uint32_t address = *platform::parse_ipv4(source);
            EXPECT_EQ(address_class(address), 2 - i) << source;
            EXPECT_EQ(choice.offer(good, {address, 9}), Verdict::accepted);
            EXPECT_EQ(platform::format_ipv4(choice.best()->address), groups[i][0]) << source;
        }
    }
    EXPECT_EQ(choice.offer(good, {0x0A000001, 9}), Verdict::accepted);
    EXPECT_EQ(*choice.best(), (platform::Ipv4Endpoint{platform::ipv4_loopback, 99}));
}

TEST(Discovery, AnswersAreOursCompatibleOrNeither) {
    const struct {
        const char* answer;
        Datagram datagram;
        Verdict verdict;
    } cases[] = {
        {"good", good, Verdict::accepted},
        {"another client's", patched(good, 12, {8}), Verdict::ignored},
        {"another question's", patched(good, 16, {1}), Verdict::ignored},
        {"port 0", patched(good, 24, {0}), Verdict::ignored},
        {"version 4", patched(good, 32, {4}), Verdict::incompatible},
        {"capability", patched(good, 38, {4}), Verdict::incompatible},
        {"header version 6", patched(good, 4, {6}), Verdict::incompatible},
        {"false length", patched(good, 8, {47}), Verdict::ignored},
        {"another type", patched(good, 6, {4}), Verdict::ignored},
        {"of another size", resized(good, 24), Verdict::incompatible},
        {"too short for a nonce", resized(good, 23), Verdict::ignored},
    };
    for (const auto& c : cases) {
        ServerChoice choice(7, nonce);
        EXPECT_EQ(choice.offer(c.datagram, {0x0A000001, 28010}), c.verdict) << c.answer;
        EXPECT_EQ(choice.best().has_value(), c.verdict == Verdict::accepted) << c.answer;
    }
}

TEST(Client, RunsWithTheServerThatItFindsOrSaysWhyNot) {
    const std::string run = "[net] Client started.[net] Client stopped.";
    const struct {
        std::string server_ip;
        std::uint32_t server_version;  // 0: keeps silent
        ClientError error;
        std::string log;
    } cases[] = {
        {"127.0.0.1", 5, ClientError::None, run},
        {"AutO", 5, ClientError::None, run},
        {"auto ", 5, ClientError::Socket, ""},
        {"auto", 4, ClientError::Incompatible, ""},
        {"127.0.0.1", 0, ClientError::NoServer,
         "[net] Tavistro server compatibility probe timed out."},
        {"auto", 0, ClientError::NoServer, "[net] Auto discovery did not find a Tavistro server."},
    };
    for (const auto& [server_ip, version, error, expected_log] : cases) {
        server::ReferenceServer server(
            {.port = 0, .faults = {.reply_version = version, .silent = version == 0}});
        ASSERT_EQ(server.start(), "");
        auto settings = two_in_two_out();
        settings.server_ip = server_ip;
        settings.server_port = server.port();
        settings.discovery_timeout_ms = version == 0 ? 100 : 5000;
        settings.discovery_broadcast = server_ip == "AutO";
        std::mutex mutex;
        std::string log;
        std::atomic<int> blocks{0};
        TavistroClient client;
        const bool running = client.start(
            settings,
            [&](const std::string& line) {
                const std::lock_guard lock(mutex);
                if (line.find("PerSec") == std::string::npos) log += line;
            },
            [&](const auto& block) {
                ++blocks;
                client.push_captured_input(test_rate, frames, 2, block.samples, 1.0);
            },
            {}, {});
        if (running) {
            EXPECT_TRUE(client.start({}, {}, {}, {}, {})) << "running already";
            // The worker changes the format while blocks come in and go out.
            EXPECT_TRUE(eventually(
                [&] { return client.set_capture_format(test_rate, frames) && blocks > 99; }));
            const std::uint64_t inputs = server.snapshot().input.complete;
            EXPECT_TRUE(eventually([&] { return server.snapshot().input.complete > inputs; }));
        }
        client.stop();
        client.stop();
        const int blocks_at_stop = blocks;
        EXPECT_EQ(client.last_error(), error);
        const std::string selected =
            "[net] Auto discovery selected 127.0.0.1:" + std::to_string(server.port()) + ".";
        EXPECT_EQ(log, (server_ip == "AutO" ? selected : "") + expected_log);
        EXPECT_TRUE(eventually([&] { return server.snapshot().sessions_left == running; }));
        EXPECT_EQ(blocks, blocks_at_stop);
    }
}

TEST(Client, SaysNothingAfterItHasLeft) {
    ScriptedServer server;
    auto settings = two_in_two_out();
    settings.server_ip = "127.0.0.1";
    settings.server_port = server.port();
    settings.udp_payload_bytes = 52;  // a sample each: sending a block takes its time
    settings.capture_capacity_blocks = 4;
    TavistroClient client;
    for (int run = 0; run < 20; ++run) {
        ASSERT_TRUE(client.start(settings, {}, {}, {}, {}));
        ASSERT_TRUE(client.set_capture_format(test_rate, 2000));
        client.push_captured_input(test_rate, 2000, 2, ramp(4000), 1.0);
        client.push_captured_input(test_rate, 2000, 2, ramp(4000), 1.0);
        const std::uint64_t before = server.audio_received;
        server.send_sync(test_rate, 2000);
        EXPECT_TRUE(eventually([&] { return server.audio_received > before; }));
        const std::uint64_t leaves = server.leaves;
        client.stop();
        // On a busy machine the server may lose it among the datagrams of the block.
        eventually([&] { return server.leaves > leaves; }, std::chrono::seconds(1));
    }
    EXPECT_GT(server.leaves, 0U);
    EXPECT_EQ(server.received_after_leave, 0U);
}

}  // namespace
}  // namespace tavistro::test
