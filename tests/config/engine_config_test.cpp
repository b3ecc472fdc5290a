#include "config/engine_config.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "config/config_keys.h"

namespace tavistro {
namespace {

const std::string smallest_file =
    "[network]\nserver_ip = 10.0.0.7\nserver_port = 28011\nclient_id = 3\n"
    "[asio]\ndriver_name = Some Driver\n";

class EngineConfigTest : public ::testing::Test {
  protected:
    void TearDown() override { std::filesystem::remove(path_); }

    /// Loads the text from a file; the error text, empty on success.
    std::string load(const std::string& text) {
        std::ofstream(path_, std::ios::binary) << text;
        std::string error = "emptied first";
        config_.client.recv_buffer_bytes = 77;
        const bool loaded = load_engine_config(path_, config_, error);
        EXPECT_EQ(loaded, error.empty()) << text << error;
        EXPECT_EQ(loaded, config_.client.recv_buffer_bytes != 77) << "read whole or left alone";
        return error;
    }

    std::string path_ = testing::TempDir() + "tavistro_engine_config_" +
                        testing::UnitTest::GetInstance()->current_test_info()->name() + ".ini";
    EngineConfig config_;
};

TEST_F(EngineConfigTest, FileWithOnlyTheRequiredKeysTakesEveryDefault) {
    ASSERT_EQ(load(smallest_file), "");
    std::string values;
    for (const ConfigKey& key : config_keys())
        values += value_text(key, config_) + "; ";
    EXPECT_EQ(values,
              "10.0.0.7; 28011; 3; 500; 1; 1000; 6; 2, 3; 0, 1; Some Driver; 0, 1; 0, 1; "
              "1048576; 1048576; 1200; 0; 0; 0; 0; 0; 0; 0; 0; 0; 0; 0; 0; 0; ");
}

TEST_F(EngineConfigTest, EveryKeyReachesItsOwnField) {
    const std::string file =
        "[network]\r\nserver_ip=AUTO\r\nserver_port=1\r\nclient_id=5\r\n"
        "discovery_timeout_ms=10000\r\ndiscovery_broadcast=0\r\n"
        "[protocol]\r\nannounce_period_ms=3999\r\n[latency]\r\nclient_latency_blocks=128\r\n"
        "[tavistro]\r\ndriver_inputs=0, 31\r\ndriver_outputs=\r\n"
        "[asio]\r\ndriver_name=\r\ninput_map=4, -2\r\noutput_map=1, 1\r\n"
        "[socket]\r\nrecv_buffer_bytes=6\r\nsend_buffer_bytes=7\r\n"
        "[transport]\r\nudp_payload_bytes=65507\r\n"
        "[test]\r\nloopback_device=1\r\nloopback_drift_ppm=-100000\r\n"
        "loopback_callback_jitter_max_ms=1000\r\n"
        "loopback_callback_skip_every=9\r\nloopback_callback_skip_count=128\r\n"
        "loopback_callback_duplicate_every=10\r\nloopback_callback_duplicate_count=127\r\n"
        "loopback_callback_stall_every_ms=200\r\nloopback_callback_stall_duration_ms=200\r\n"
        "loopback_input_silence_every_ms=1001\r\nloopback_input_silence_duration_ms=999\r\n"
        "loopback_device_lost_after_ms=11\r\nloopback_device_lost_duration_ms=10000\r\n";
    ASSERT_EQ(load(file), "");
    for (const ConfigKey& key : config_keys()) {
        const std::string line = std::string(key.key) + "=" + value_text(key, config_);
        EXPECT_NE(file.find("\n" + line + "\r\n"), std::string::npos) << line;
    }
}

TEST_F(EngineConfigTest, SizesFollowTheLatency) {
    const struct {
        std::uint64_t latency, queue, capture;
    } cases[] = {{1, 6, 8}, {3, 7, 9}, {128, 132, 134}};
    for (const auto& [blocks, queue, capture] : cases) {
        const std::string latency = "[latency]\nclient_latency_blocks=" + std::to_string(blocks);
        ASSERT_EQ(load(smallest_file + latency), "");
        EXPECT_EQ(config_.audio.prebuffer_blocks, blocks);
        EXPECT_EQ(config_.audio.target_queue_depth, blocks);
        EXPECT_EQ(config_.client.input_latency_blocks, blocks);
        EXPECT_EQ(config_.client.output_latency_blocks, blocks);
        EXPECT_EQ(config_.audio.max_queue_blocks, queue);
        EXPECT_EQ(config_.client.capture_capacity_blocks, capture);
    }
}

TEST_F(EngineConfigTest, FirstFaultInTheOrderOfReadingAndCheckingIsTheOneReported) {
    std::string file =
        "[network]\nserver_port=70000\ndiscovery_timeout_ms=0\ndiscovery_broadcast=true\n"
        "[protocol]\nannounce_period_ms=0\n[latency]\nclient_latency_blocks=x\n"
        "[tavistro]\ndriver_inputs=1,x\ndriver_outputs=40,1,1\n"
        "[asio]\ninput_map=4,-2\noutput_map=40,40\n[transport]\nudp_payload_bytes=51\n"
        "[test]\nloopback_device=x\nloopback_drift_ppm=x\nloopback_callback_jitter_max_ms=1001\n";
    // What is reported, and the line that mends it, sometimes with a fault that comes later.
    const struct {
        const char* error;
        std::string line;
    } steps[] = {
        {"Missing required key [network] server_ip", "server_ip="},
        {"Invalid uint16 value for [network] server_port", "server_port=0"},
        {"Missing required key [network] client_id", "client_id=0"},
        {"Invalid uint32 value for [network] discovery_broadcast", "discovery_broadcast=2"},
        {"Invalid size value for [latency] client_latency_blocks", "client_latency_blocks=0"},
        {"Invalid integer list for [tavistro] driver_inputs: Invalid integer list item: x",
         "driver_inputs=32"},
        {"Missing required key [asio] driver_name", "driver_name="},
        {"Invalid uint32 value for [transport] udp_payload_bytes", "udp_payload_bytes=52"},
        {"Invalid bool value for [test] loopback_device", "loopback_device=0"},
        {"Invalid integer value for [test] loopback_drift_ppm", "loopback_drift_ppm=-100001"},
        {"client_id must be non-zero", "client_id=1"},
        {"server_ip must be non-empty", "server_ip=a"},
        {"server_port must be greater than zero", "server_port=1"},
        {"discovery_timeout_ms must be in range 1..10000", "discovery_timeout_ms=10000"},
        {"announce_period_ms must be greater than zero", "announce_period_ms=4000"},
        {"client_latency_blocks must be greater than zero", "client_latency_blocks=128"},
        {"announce_period_ms must be smaller than 4000", "announce_period_ms=3999"},
        {"driver_inputs contains out-of-range driver channel index: 32 (expected 0..31)",
         "driver_inputs=31"},
        {"driver_outputs contains duplicate channel index: 1", "driver_outputs="},
        {"input_map contains negative channel index: -2", "input_map=40"},
        {"output_map contains duplicate channel index: 40", "output_map=40"},
        {"driver_name must be non-empty", "driver_name=b"},
        {"loopback fault injection requires [test] loopback_device=1", "loopback_device=1"},
        {"loopback_drift_ppm must be in range -100000..100000", "loopback_drift_ppm=1"},
        {"loopback_callback_jitter_max_ms must be <= 1000", "loopback_callback_jitter_max_ms=1"},
    };
    for (const auto& [error, line] : steps) {
        EXPECT_EQ(load(file), error);
        const std::string name = line.substr(0, line.find('='));
        const auto key = std::ranges::find(config_keys(), name, &ConfigKey::key);
        file.append("[").append(key->section).append("]\n").append(line).append("\n");
    }
    EXPECT_EQ(load(file), "");
    EXPECT_EQ(load("\n[oops"), "Invalid section header at line 2");
}

TEST_F(EngineConfigTest, EveryLoopbackFaultNeedsTheLoopbackDevice) {
    for (const ConfigKey& key : config_keys()) {
        if (!key.key.starts_with("loopback_") || key.key == "loopback_device") continue;
        EXPECT_EQ(load(smallest_file + "[test]\n" + std::string(key.key) + "=1"),
                  "loopback fault injection requires [test] loopback_device=1");
    }
}

TEST_F(EngineConfigTest, MissingFileAndDirectoryCannotBeOpened) {
    for (const std::string& path : {path_, testing::TempDir()}) {
        std::string error;
        EXPECT_FALSE(load_engine_config(path, config_, error));
        EXPECT_EQ(error, "Cannot open config file: " + path);
    }
}

}  // namespace
}  // namespace tavistro
