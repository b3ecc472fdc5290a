// One stream through a client's session and player, connected as in the engine but without threads
// and socket. The clock is set manually, so every run does the same work.
#pragma once

#include <cstring>
#include <memory>
#include <vector>

#include "audio/asio_player.h"
#include "audio/test_device.h"
#include "net/client_session.h"
#include "net/protocol.h"
#include "net/server_messages.h"
#include "support/movable_clock.h"

namespace tavistro::test {

class BlockRig {
  public:
    static constexpr std::uint16_t frames = 128;
    static constexpr std::uint32_t sample_rate = 48000;

    /// `channels` in each direction. Runs blocks until the steady state is reached.
    explicit BlockRig(std::uint16_t channels) {
        set_manual_clock();
        TavistroProtocol::ClientSettings settings;
        settings.driver_inputs.resize(channels);
        settings.driver_outputs.resize(channels);
        session_.reset(settings, {.log = {},
                                  .block =
                                      [this](const TavistroProtocol::CompletedOutputBlock& block) {
                                          player_.push_block(
                                              block.sequence, block.sample_rate, block.frames,
                                              block.channels, block.samples,
                                              block.server_time_local_ns, block.arrival_time_ns,
                                              block.delivery_time_ns);
                                      },
                                  .sync = [this](const auto& sync) { player_.on_sync(sync); },
                                  .telemetry = {}});
        session_.run(server);
        session_.set_capture_format(sample_rate, frames);

        AudioDeviceSettings audio;
        for (std::int32_t channel = 0; channel < channels; ++channel)
            audio.output_channel_map.push_back(channel);
        audio.input_channel_map = audio.output_channel_map;
        player_.start(audio, {},
                      [this](std::uint32_t rate, std::uint16_t count, std::uint16_t width,
                             const std::vector<float>& samples) {
                          // Not 1, so that the resampler has to interpolate.
                          session_.push_captured_input(rate, count, width, samples, 1.0001);
                      },
                      {});
        const std::vector<float> samples(std::size_t{channels} * frames, 0.25F);
        TavistroProtocol::encode_audio_block({1, 0, sample_rate, frames, channels, samples}, 1200,
                                             fragments_);
        for (int block = 0; block < 100; ++block) {
            next_block();
            receive(block % 10 == 9);
            run_period();
        }
    }
    BlockRig(const BlockRig&) = delete;
    BlockRig& operator=(const BlockRig&) = delete;
    ~BlockRig() { use_running_clock(); }

    /// Advances the clock by one block and prepares its datagrams.
    void next_block() {
        advance_clock_ns(block_ns);
        ++sequence_;
        sync_ = TavistroProtocol::encode_sync(
            1, {sequence_, sample_rate, frames, 0, sequence_ * frames});
        for (auto& fragment : fragments_)
            std::memcpy(&fragment[sequence_offset], &sequence_, sizeof sequence_);
    }
    /// Receives the sync notice and, unless the block is lost, its audio. Captured input is sent.
    void receive(bool lost = false) {
        session_.handle_datagram(sync_, server);
        if (lost) return;
        for (const auto& fragment : fragments_)
            session_.handle_datagram(fragment, server);
    }
    /// Runs one device period: playback and capture.
    void run_period() { panel_->period(); }
    std::size_t datagrams_sent() const { return datagrams_sent_; }

  private:
    static constexpr platform::Ipv4Endpoint server{platform::ipv4_loopback, 28010};
    static constexpr std::size_t sequence_offset = 16;
    static constexpr std::uint64_t block_ns = std::uint64_t{frames} * 1'000'000'000 / sample_rate;

    std::size_t datagrams_sent_ = 0;
    std::uint32_t sequence_ = 0;
    TavistroProtocol::Datagram sync_;
    TavistroProtocol::DatagramList fragments_;
    std::shared_ptr<DevicePanel> panel_ = std::make_shared<DevicePanel>();
    AsioPlayer player_{[this] { return std::make_unique<TestDevice>(panel_); }};
    ClientSession session_{[this](auto datagrams, const auto&) {
        datagrams_sent_ += datagrams.size();
        return true;
    }};
};

}  // namespace tavistro::test
