// The complete client with real sockets on this host. discovery_test tests the choice of server.
#include "net/tavistro_client.h"

#include <gtest/gtest.h>

#include "net/net_inputs.h"
#include "support/eventually.h"
#include "support/movable_clock.h"
#include "support/scripted_server.h"
#include "tools/server/reference_server.h"

namespace tavistro::test {
namespace {

ClientSettings settings_for(std::uint16_t server_port, const char* server_ip = "127.0.0.1") {
    auto settings = two_in_two_out();
    settings.server_ip = server_ip;
    settings.server_port = server_port;
    settings.discovery_timeout_ms = 5000;
    return settings;
}

TEST(Client, RunsWithACompatibleServerAndCanBeRestarted) {
    constexpr std::uint16_t frames = 128;
    const struct {
        const char* server_ip;
        std::uint32_t server_version;
        ClientError error;
    } cases[] = {
        {"auto", 4, ClientError::Incompatible},
        {"127.0.0.1", 5, ClientError::None},
        {"no address", 5, ClientError::Socket},
        {"auto", 5, ClientError::None},
    };
    TavistroClient client;
    for (const auto& [server_ip, version, error] : cases) {
        server::ReferenceServer server({.port = 0, .faults = {.reply_version = version}});
        ASSERT_EQ(server.start(), "");
        std::atomic<int> blocks{0};
        const auto on_block = [&](const auto& block) {
            ++blocks;
            client.push_captured_input(test_rate, frames, 2, block.samples, 1.0);
        };
        const bool running =
            client.start(settings_for(server.port(), server_ip), {}, on_block, {}, {});
        if (running) {
            EXPECT_TRUE(client.start({}, {}, {}, {}, {})) << "already running";
            // The engine's worker changes the format while blocks are received and sent.
            EXPECT_TRUE(eventually(
                [&] { return client.set_capture_format(test_rate, frames) && blocks > 99; }));
            const std::uint64_t inputs = server.snapshot().input.complete;
            EXPECT_TRUE(eventually([&] { return server.snapshot().input.complete > inputs; }));
        }
        EXPECT_EQ(client.last_error(), error);
        client.stop();
        client.stop();
        EXPECT_TRUE(eventually([&] { return server.snapshot().sessions_left == running; }));
    }
}

TEST(Client, ReceiveBufferHoldsABurstDuringASlowCallback) {
    ScriptedServer server;
    auto settings = settings_for(server.port());
    settings.recv_buffer_bytes = 100'000;
    settings.send_buffer_bytes = 1;
    std::atomic<int> syncs{0};
    std::atomic<bool> burst_sent{false};
    TavistroClient client;
    const auto on_sync = [&](const SyncInfo&) {
        ++syncs;
        eventually([&] { return burst_sent.load(); });
    };
    ASSERT_TRUE(client.start(settings, {}, {}, on_sync, {}));
    for (int i = 0; i < 30; ++i)
        server.send_sync(test_rate, 128);
    burst_sent = true;
    EXPECT_TRUE(eventually([&] { return syncs == 30; }, std::chrono::seconds(5))) << syncs;
}

std::atomic<std::uint64_t> clock_readings{0};

TEST(Client, AnnouncesEveryPeriodAndChecksForADuePingInBetween) {
    ScriptedServer server;
    auto settings = settings_for(server.port());
    settings.announce_period_ms = 200;
    limit_sleeps_ms(1);
    TavistroClient client;
    ASSERT_TRUE(client.start(settings, {}, {}, {}, {}));
    call_at_readings([] { ++clock_readings; });
    const std::uint64_t first = server.announces;
    EXPECT_TRUE(eventually([&] { return server.announces >= first + 100; }));
    call_at_readings(nullptr);
    EXPECT_NEAR(static_cast<double>(clock_readings), 500.0, 100.0)
        << "one reading with each announce, four during the wait";
    client.stop();
    limit_sleeps_ms(UINT32_MAX);
}

}  // namespace
}  // namespace tavistro::test
