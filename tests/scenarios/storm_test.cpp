// Servers that change everything at once and without end. The engine follows, or waits for better
// times, and the next run works.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "scenarios/rig.h"
#include "support/movable_clock.h"

namespace tavistro::test {
namespace {

using server::FaultOptions;
using server::ReferenceServer;
using server::ServerOptions;

bool settles_at(const Engine& engine, const ReferenceServer& server, std::uint32_t rate,
                std::uint16_t frames) {
    return eventually([&] {
               const auto state = engine.state();
               return state.state == TAVISTRO_STATE_RUNNING && state.error_code == 0 &&
                      state.stream_sample_rate == rate && state.device_block_frames == frames;
           }) &&
           input_flows(server);
}

TEST(Storm, FormatsThatChangeTwentyTimesASecondAreFollowedToTheLast) {
    constexpr int changes = 40;
    ReferenceServer server({.port = 0, .melodies = {{.channel = 0}}});
    ASSERT_EQ(server.start(), "");
    const ConfigFile config(server.port());
    Engine engine;
    for (const bool stop_amid : {true, false}) {
        ASSERT_TRUE(engine.start(config));
        ASSERT_TRUE(eventually([&] { return engine.runs(); }));
        for (int i = 0; i < changes; ++i) {
            const bool even = i % 2 == 0;
            ASSERT_TRUE(server.change_format(even ? 96000 : 44100, even ? 512 : 64));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            const std::uint32_t state = engine.state().state;
            EXPECT_TRUE(state == TAVISTRO_STATE_RUNNING || state == TAVISTRO_STATE_RESTARTING);
        }
        if (stop_amid) {
            engine.stop();
            EXPECT_TRUE(engine.in_state(TAVISTRO_STATE_STOPPED));
            EXPECT_EQ(engine.state().error_code, 0U);
        }
    }
    ASSERT_TRUE(server.change_format(48000, 128));
    EXPECT_TRUE(settles_at(engine, server, 48000, 128));
}

struct Surprise {
    const char* name;
    ServerOptions options;
    std::function<void(ReferenceServer&)> happens;
    friend void PrintTo(const Surprise& surprise, std::ostream* out) { *out << surprise.name; }
};

class ServerSurprise : public ::testing::TestWithParam<Surprise> {};

TEST_P(ServerSurprise, CostsNeitherTheSessionNorTheAudio) {
    ReferenceServer server(GetParam().options);
    ASSERT_EQ(server.start(), "");
    const ConfigFile config(server.port());
    Engine engine;
    ASSERT_TRUE(engine.start(config));
    ASSERT_TRUE(eventually([&] { return engine.runs() && input_flows(server); }));
    GetParam().happens(server);
    EXPECT_TRUE(input_flows(server, 600));
    EXPECT_TRUE(engine.runs());
    EXPECT_EQ(engine.state().error_code, 0U);
    engine.stop();
    ASSERT_TRUE(engine.start(config));
    EXPECT_TRUE(eventually([&] { return engine.runs(); }));
}

INSTANTIATE_TEST_SUITE_P(
    Surprises, ServerSurprise,
    ::testing::Values(Surprise{"ItsClockJumpsAnHourAndBack",
                               {.port = 0},
                               [](ReferenceServer& server) {
                                   for (const std::int64_t ms : {3'600'000, -3'600'000, 0}) {
                                       server.set_faults({.clock_offset_ms = ms});
                                       EXPECT_TRUE(input_flows(server));
                                   }
                               }},
                      Surprise{"ItsSequenceWraps",
                               {.port = 0, .first_sequence = 0xFFFFFF00},
                               [](ReferenceServer& server) {
                                   EXPECT_TRUE(eventually([&] {
                                       return server.snapshot().next_sequence < 0x80000000;
                                   }));
                               }},
                      Surprise{"ThirteenThousandBlocksASecondForAWhile",
                               {.port = 0},
                               [](ReferenceServer& server) {
                                   ASSERT_TRUE(server.change_format(384000, 30));
                                   std::this_thread::sleep_for(std::chrono::seconds(1));
                                   ASSERT_TRUE(server.change_format(48000, 128));
                               }}),
    [](const auto& param) { return param.param.name; });

// A session keeps the address and port that it began with: a server that has others is another
// server, and the engine waits for its own.
TEST(Storm, AServerThatMovedIsMissedAndFoundByTheNextRun) {
    auto server = std::make_unique<ReferenceServer>(ServerOptions{.port = 0});
    ASSERT_EQ(server->start(), "");
    const ConfigFile config(server->port());
    Engine engine;
    ASSERT_TRUE(engine.start(config));
    ASSERT_TRUE(eventually([&] { return engine.runs() && input_flows(*server); }));

    ReferenceServer elsewhere({.port = 0});
    ASSERT_EQ(elsewhere.start(), "");
    server.reset();
    advance_clock_ms(3001);
    EXPECT_TRUE(eventually([&] { return engine.shows(TAVISTRO_MESSAGE_SYNC_LOST); }));
    EXPECT_TRUE(engine.runs());
    engine.stop();
    EXPECT_TRUE(engine.in_state(TAVISTRO_STATE_STOPPED));

    const ConfigFile moved(elsewhere.port());
    ASSERT_TRUE(engine.start(moved));
    EXPECT_TRUE(eventually([&] { return engine.runs() && input_flows(elsewhere); }));
}

}  // namespace
}  // namespace tavistro::test
