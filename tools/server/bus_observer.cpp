#include "tools/server/bus_observer.h"

#include <stdexcept>
#include <utility>

namespace tavistro::server {

namespace {

/// About ten seconds at 48 kHz and 128 frames per block.
constexpr std::size_t most_waiting = 4000;

}  // namespace

void BusObserver::start(const ServerOptions& options) {
    const std::lock_guard lock(mutex_);
    recorders_.clear();
    meters_.clear();
    measures_.clear();
    recording_error_.clear();
    left_out_ = next_index_ = 0;
    format_ = options.format;
    for (const RecordOptions& record : options.records)
        recorders_.emplace_back(record, format_.sample_rate);
    for (const MeasureOptions& channels : options.measures) {
        meters_.push_back({channels, RoundTripMeter(format_)});
        measures_.push_back({channels, {}});
    }
    if (recorders_.empty() && meters_.empty()) return;
    accepting_ = thread_.start("srv-observe", [this] { run(); });
    if (!accepting_) throw std::runtime_error("cannot start the recording and measuring thread");
}

void BusObserver::stop() {
    {
        const std::lock_guard lock(mutex_);
        accepting_ = false;
    }
    arrived_.notify_one();
    thread_.join();
    recorders_.clear();
}

void BusObserver::push(std::uint64_t block_index, const StreamFormat& format, const MixBus& bus) {
    {
        const std::lock_guard lock(mutex_);
        if (!accepting_) return;
        if (waiting_.size() >= most_waiting) {
            ++left_out_;
            return;
        }
        waiting_.push_back({block_index, format, bus});
    }
    arrived_.notify_one();
}

void BusObserver::add_to(ServerSnapshot& snapshot) const {
    const std::lock_guard lock(mutex_);
    snapshot.measures = measures_;
    snapshot.unobserved_blocks = left_out_;
    snapshot.recording_error = recording_error_;
}

void BusObserver::run() {
    std::unique_lock lock(mutex_);
    while (true) {
        arrived_.wait(lock, [this] { return !waiting_.empty() || !accepting_; });
        if (waiting_.empty()) return;
        const ObservedBlock block = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        observe(block);
        lock.lock();
    }
}

void BusObserver::observe(const ObservedBlock& block) {
    for (Recorder& recorder : recorders_) {
        recorder.write(block.bus.samples(), block.bus.frames());
        if (recorder.error().empty()) continue;
        const std::lock_guard lock(mutex_);
        recording_error_ = recorder.error();
    }
    const bool hole = block.index != std::exchange(next_index_, block.index + 1);
    const bool changed = block.format != std::exchange(format_, block.format);
    for (std::size_t i = 0; i < meters_.size(); ++i) {
        auto& [channels, meter] = meters_[i];
        if (changed) {
            meter.change_format(block.format);
        } else if (hole) {
            meter.restart();
        }
        if (!meter.feed(block.bus.channel(channels.sent), block.bus.channel(channels.returned))) {
            continue;
        }
        const std::lock_guard lock(mutex_);
        measures_[i].report = meter.report();
    }
}

}  // namespace tavistro::server
