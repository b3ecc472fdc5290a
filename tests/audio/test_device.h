// An audio device with injected failures that runs periods on request.
#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "asio/audio_device.h"
#include "support/realtime_guard.h"

namespace tavistro::test {

/// Controls and observations of the test; outlives the devices, which the player destroys.
struct DevicePanel {
    bool exists = true;
    bool starts = true;
    std::atomic<int> refusals{0};     ///< number of opens that will fail
    std::atomic<bool> faulty{false};  ///< output_ready fails and a reset is due, until next open
    bool runs_by_itself = false;      ///< runs periods on its own thread from open to close
    std::uint32_t frames = 0;         ///< per period; 0: as configured
    double rate_error = 0.0;          ///< added to the configured rate, Hz
    float input = 0.0F;               ///< every sample of input channel c is input * (c + 1)
    std::function<void()> during_period;
    std::function<void()> at_close;

    std::vector<std::vector<float>> played;  ///< last period of every output; empty: silence
    std::function<void()> period;
    /// Calls outside a period of an open device, for the wrong buffer half, or of output_ready
    /// before all outputs were written.
    std::atomic<int> calls_out_of_turn{0};
    std::int32_t half = 1;
    std::size_t unwritten_outputs = 0;
};

class TestDevice : public AudioDevice {
  public:
    explicit TestDevice(std::shared_ptr<DevicePanel> panel) : panel_(std::move(panel)) {}

    bool open(const AudioDeviceSettings& settings, LogCallback log, BufferSwitchCallback callback,
              void* context) override {
        if (panel_->refusals-- > 0) {
            log("[asio] test device does not open.");
            return false;
        }
        panel_->faulty = false;
        buffer_size_ = panel_->frames != 0 ? panel_->frames : settings.block_size;
        sample_rate_ = settings.sample_rate + panel_->rate_error;
        panel_->played.assign(settings.output_channel_map.size(), std::vector<float>(buffer_size_));
        panel_->period = [panel = panel_.get(), callback, context] {
            const RealtimeScope scope;
            panel->half = 1 - panel->half;
            panel->unwritten_outputs = panel->played.size();
            callback(context, panel->half);
        };
        panel_->period();  // some drivers call back during open
        open_ = true;
        running_ = panel_->runs_by_itself;
        thread_ = std::thread([this] {
            while (running_)
                panel_->period();
        });
        return true;
    }
    bool start() override { return panel_->starts; }
    void close() override {
        if (panel_->at_close) panel_->at_close();
        running_ = false;
        if (thread_.joinable()) thread_.join();
    }
    void read_input(std::int32_t channel, std::int32_t half, float* destination,
                    std::int32_t frames) override {
        expect_turn(half == panel_->half);
        std::fill_n(destination, frames, panel_->input * static_cast<float>(channel + 1));
    }
    void write_output(std::int32_t channel, std::int32_t half, const float* source,
                      std::int32_t frames) override {
        expect_turn(half == panel_->half && panel_->unwritten_outputs-- > 0);
        panel_->played[static_cast<std::size_t>(channel)].assign(
            source, source == nullptr ? nullptr : source + frames);
    }
    bool output_ready() override {
        expect_turn(panel_->unwritten_outputs == 0);
        if (panel_->during_period) panel_->during_period();
        return !panel_->faulty;
    }
    bool reset_requested() override { return panel_->faulty; }

  private:
    void expect_turn(bool good) {
        if (!good || !open_) ++panel_->calls_out_of_turn;
    }

    std::shared_ptr<DevicePanel> panel_;
    bool open_ = false;
    std::atomic<bool> running_{false};
    std::thread thread_;
};

}  // namespace tavistro::test
