#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "tools/server/bus_observer.h"
#include "tools/server/reference_server.h"
#include "tools/server/sources.h"

namespace tavistro::server {
namespace {

TEST(AudioFiles, PlaysARecordingInALoop) {
    const std::string path = testing::TempDir() + "tavistro-server-test.wav";
    MixBus bus(32);
    for (std::size_t i = 0; i < 32; ++i)
        bus.channel(4)[i] = -(bus.channel(7)[i] = static_cast<float>(i + 1));
    BusObserver observer;
    observer.start({.format = {48000, 32}, .records = {{path, {7, 4}}}});
    observer.push(0, {48000, 32}, bus);
    observer.stop();  // completes the file
    const auto source = make_file_source({path, 30}, 48000);
    MixBus played(48);
    source->mix(played);
    for (std::size_t i = 0; i < 48; ++i) {
        EXPECT_EQ(played.channel(30)[i], bus.channel(7)[i % 32]) << i;
        EXPECT_EQ(played.channel(31)[i], bus.channel(4)[i % 32]) << i;
    }
    EXPECT_THROW(make_file_source({path, 0}, 44100), std::runtime_error);
    EXPECT_THROW(make_file_source({path, 31}, 48000), std::runtime_error);
    ReferenceServer server(ServerOptions{.port = 0, .plays = {{path, 0}}});
    ASSERT_EQ(server.start(), "");
    EXPECT_FALSE(server.change_format(44100, 128)) << "a playing file cannot change its rate";
    std::filesystem::remove(path);
}

}  // namespace
}  // namespace tavistro::server
