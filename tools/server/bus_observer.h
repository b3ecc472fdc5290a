// Records and measures the bus on a separate thread, so that the block clock never waits for
// either.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "platform/threads.h"
#include "tools/server/mix_bus.h"
#include "tools/server/recorder.h"
#include "tools/server/round_trip_meter.h"
#include "tools/server/server_options.h"
#include "tools/server/server_snapshot.h"

namespace tavistro::server {

/// Queues copies of the bus and processes them in order. One controlling thread calls start() and
/// stop().
class BusObserver {
  public:
    ~BusObserver() { stop(); }

    /// Opens the recordings and starts the thread. Does nothing when nothing is to be recorded or
    /// measured. Throws std::runtime_error with a message for the user on failure.
    void start(const ServerOptions& options);
    /// Processes the queued blocks, completes the recordings and ends the thread. Idempotent.
    void stop();

    /// Any thread; copies the bus. A jump of `block_index` marks skipped blocks. When the queue is
    /// full, the block is dropped and counted.
    void push(std::uint64_t block_index, const StreamFormat& format, const MixBus& bus);

    /// Adds the measurements, the number of dropped blocks and the recording error. Any thread.
    void add_to(ServerSnapshot& snapshot) const;

  private:
    struct ObservedBlock {
        std::uint64_t index;
        StreamFormat format;
        MixBus bus;
    };
    struct Meter {
        MeasureOptions channels;
        RoundTripMeter meter;
    };

    void run();
    void observe(const ObservedBlock& block);

    // Used by the observing thread alone while it runs.
    std::vector<Recorder> recorders_;
    std::vector<Meter> meters_;
    StreamFormat format_;
    std::uint64_t next_index_ = 0;
    platform::Thread thread_;

    mutable std::mutex mutex_;  ///< guards everything below
    std::condition_variable arrived_;
    std::deque<ObservedBlock> waiting_;
    std::vector<MeasureSnapshot> measures_;
    std::string recording_error_;
    std::uint64_t left_out_ = 0;
    bool accepting_ = false;
};

}  // namespace tavistro::server
