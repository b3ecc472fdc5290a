#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tools/server/recorder.h"
#include "tools/server/sources.h"

namespace tavistro::server {
namespace {

TEST(AudioFiles, WhatWasRecordedPlaysAgainAndLoops) {
    const auto path = std::filesystem::temp_directory_path() /
                      ("tavistro-server-test-" + std::to_string(std::rand()) + ".wav");
    MixBus bus(32);
    for (std::size_t i = 0; i < 32; ++i) {
        bus.channel(4)[i] = static_cast<float>(i) / 64;
        bus.channel(7)[i] = -static_cast<float>(i) / 64;
    }
    {
        Recorder recorder({path.string(), {7, 4}}, 48000);
        ASSERT_EQ(recorder.error(), "");
        recorder.write(bus.samples(), 32);
    }
    const auto source = make_file_source({path.string(), 10}, 48000);
    ASSERT_TRUE(source) << source.error;
    MixBus played(48);
    source.value->mix(played);
    for (std::size_t i = 0; i < 48; ++i) {
        ASSERT_EQ(played.channel(10)[i], bus.channel(7)[i % 32]) << i;
        ASSERT_EQ(played.channel(11)[i], bus.channel(4)[i % 32]) << i;
    }
    EXPECT_FALSE(source.value->change_rate(44100));
    EXPECT_NE(make_file_source({path.string(), 0}, 44100).error.find("48000 Hz"),
              std::string::npos);
    EXPECT_NE(make_file_source({path.string(), 31}, 48000).error, "");
    std::filesystem::remove(path);
}

}  // namespace
}  // namespace tavistro::server
