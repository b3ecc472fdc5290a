// Recording and measuring, on a thread of their own so that the block clock waits for neither.
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

/// Takes copies of the bus and works through them in order. start() and stop() belong to one
/// controlling thread.
class BusObserver {
  public:
    ~BusObserver() { stop(); }

    /// Opens the recordings and starts the thread, unless there is nothing to observe. Throws
    /// std::runtime_error, its text for people, when it cannot.
    void start(const ServerOptions& options);
    /// Works through what has come, completes the recordings, ends the thread. Idempotent.
    void stop();

    /// Any thread; copies the bus. `block_index` tells of holes. A block that finds thousands
    /// waiting is left out and counted.
    void push(std::uint64_t block_index, const StreamFormat& format, const MixBus& bus);

    /// What was measured and left out, and what failed. Any thread.
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

    std::vector<Recorder> recorders_;  ///< of the observing thread, like the meters and the rest
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
