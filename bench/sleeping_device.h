// Shared by the programs that run complete engines in real time.
#pragma once

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "asio/audio_device.h"
#include "platform/clock.h"
#include "platform/threads.h"

namespace tavistro::bench {

/// A device with almost no CPU cost and no latency. Its own timer starts the periods. A period's
/// output counts as played at the period's deadline and becomes the next period's input.
/// Destructors of derived classes must call close().
class SleepingDevice : public AudioDevice {
  public:
    bool open(const AudioDeviceSettings& settings, LogCallback, BufferSwitchCallback callback,
              void* context) override {
        buffer_size_ = settings.block_size;
        sample_rate_ = settings.sample_rate;
        callback_ = callback;
        context_ = context;
        output_.assign(
            std::max(settings.output_channel_map.size(), settings.input_channel_map.size()),
            std::vector<float>(buffer_size_));
        input_ = output_;
        return true;
    }
    bool start() override {
        running_ = true;
        return thread_.start("bench-device", [this] { run(); });
    }
    void close() override {
        running_ = false;
        thread_.join();
    }
    void read_input(std::int32_t channel, std::int32_t, float* destination,
                    std::int32_t frames) override {
        std::copy_n(input_[static_cast<std::size_t>(channel)].data(), frames, destination);
    }
    void write_output(std::int32_t channel, std::int32_t, const float* source,
                      std::int32_t frames) override {
        float* const to = output_[static_cast<std::size_t>(channel)].data();
        source != nullptr ? void(std::copy_n(source, frames, to))
                          : void(std::fill_n(to, frames, 0.0F));
    }
    bool output_ready() override { return true; }
    bool reset_requested() override { return false; }

  protected:
    /// Called in each period after its outputs were written.
    virtual void played(double /*deadline_ns*/) {}
    const std::vector<float>& output(std::size_t channel) const { return output_[channel]; }

  private:
    void run() {
        const platform::ScopedThreadRole role(platform::ThreadRole::audio_device);
        const platform::ScopedTimerResolution resolution;
        const double start_ns = static_cast<double>(platform::nanosecond_clock());
        const double period_ns = 1e9 * buffer_size_ / sample_rate_;
        for (std::uint64_t period = 1; running_; ++period) {
            const auto deadline_ns = [&] {
                return start_ns + static_cast<double>(period) * period_ns;
            };
            sleep_until(deadline_ns());
            // Skip periods that have already passed, as hardware does.
            const double late_ns =
                static_cast<double>(platform::nanosecond_clock()) - deadline_ns();
            period += static_cast<std::uint64_t>(std::max(0.0, late_ns) / period_ns);
            callback_(context_, static_cast<std::int32_t>(period % 2));
            played(deadline_ns());
            std::swap(input_, output_);
        }
    }
    static void sleep_until(double ns) {
        const auto whole = static_cast<std::int64_t>(ns);
        const timespec when{.tv_sec = whole / 1'000'000'000, .tv_nsec = whole % 1'000'000'000};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &when, nullptr);
    }

    BufferSwitchCallback callback_ = nullptr;
    void* context_ = nullptr;
    std::vector<std::vector<float>> output_;
    std::vector<std::vector<float>> input_;
    std::atomic<bool> running_{false};
    platform::Thread thread_;
};

/// A temporary folder that exists as long as this object.
class WorkFolder {
  public:
    WorkFolder() { std::filesystem::create_directory(path_); }
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;
    ~WorkFolder() { std::filesystem::remove_all(path_); }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_ =
        std::filesystem::temp_directory_path() / ("tavistro-bench-" + std::to_string(getpid()));
};

/// Writes a client's configuration. It receives the server's first `channels` bus channels and
/// returns them on the following ones.
inline void write_configuration(const std::string& path, std::uint16_t port,
                                std::uint32_t client_id, int latency_blocks, int channels) {
    std::string from;
    std::string to;
    for (int channel = 0; channel < channels; ++channel) {
        const char* const separator = channel == 0 ? "" : ", ";
        from.append(separator).append(std::to_string(channel));
        to.append(separator).append(std::to_string((channel + channels) % 32));
    }
    std::ofstream(path) << "[network]\nserver_ip = 127.0.0.1\nserver_port = " << port
                        << "\nclient_id = " << client_id
                        << "\n[latency]\nclient_latency_blocks = " << latency_blocks
                        << "\n[tavistro]\ndriver_inputs = " << to << "\ndriver_outputs = " << from
                        << "\n[asio]\ndriver_name = bench\ninput_map = " << from
                        << "\noutput_map = " << from << '\n';
}

}  // namespace tavistro::bench
