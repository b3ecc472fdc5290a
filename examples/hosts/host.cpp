// A host in C++17: runs the engine until Ctrl-C and prints what it does.
//
//     cmake -B build -DCMAKE_PREFIX_PATH=WHERE_TAVISTRO_IS_INSTALLED && cmake --build build
//     build/host-cpp tavistro.ini
//
// A run that fails is stopped and started again after a pause, for as long as it takes.
#include <tavistro/engine.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto poll_period = 100ms;
constexpr auto meters_period = 1s;
constexpr auto restart_pause = 5s;
constexpr const char* state_names[] = {"Idle",       "Starting", "Connected", "Running",
                                       "Restarting", "Stopping", "Stopped",   "Failed"};

volatile std::sig_atomic_t stop_requested = 0;

struct Destroy {
    void operator()(tavistro_engine* engine) const { tavistro_engine_destroy(engine); }  // stops it
};
using Engine = std::unique_ptr<tavistro_engine, Destroy>;

void show_meters(const char* name, const tavistro_channel_meter* meters, unsigned count) {
    std::cout << name << " peaks";
    for (unsigned i = 0; i < count; ++i)
        std::cout << ' ' << meters[i].channel << ':' << meters[i].peak_permille / 1000.0;
    std::cout << std::endl;
}

/// Prints what is new in the record since the look before. For one run.
class Watch {
  public:
    void look(tavistro_engine* engine) {
        tavistro_engine_get_state(engine, &record_);
        if (record_.state != shown_state_)
            std::cout << "state " << state_names[record_.state] << ", message "
                      << record_.status_message << ", error " << record_.error_code << "; stream "
                      << record_.stream_sample_rate << " Hz, " << record_.stream_block_frames
                      << " frames" << std::endl;
        shown_state_ = record_.state;
        for (unsigned i = 0; i < record_.event_count; ++i)
            show(record_.events[i]);
        if (record_.state != TAVISTRO_STATE_RUNNING || Clock::now() < next_meters_) return;
        next_meters_ = Clock::now() + meters_period;
        show_meters("output", record_.output_meters, record_.output_meter_count);
        show_meters("input", record_.input_meters, record_.input_meter_count);
    }
    bool has_failed() const { return record_.state == TAVISTRO_STATE_FAILED; }

  private:
    /// The record holds the last 8 events: a sequence number that is skipped is an event missed.
    void show(const tavistro_engine_event& event) {
        if (event.sequence < next_sequence_) return;
        if (event.sequence > next_sequence_)
            std::cout << "missed " << event.sequence - next_sequence_ << " events" << std::endl;
        next_sequence_ = event.sequence + 1;
        std::cout << "event " << event.sequence << ": kind " << event.kind << ", attempt "
                  << event.attempt << " of " << event.max_attempts << ", message " << event.message
                  << ", error " << event.error_code << std::endl;
    }

    tavistro_engine_state record_{};
    std::uint32_t shown_state_ = TAVISTRO_STATE_IDLE;
    std::uint64_t next_sequence_ = 1;  // each run counts its events from 1
    Clock::time_point next_meters_ = Clock::now();
};

/// Runs until Ctrl-C or a failure. The engine is stopped afterwards, so that it can start again.
void run(const Engine& engine, const char* config_path) {
    Watch watch;
    if (tavistro_engine_start_from_config(engine.get(), config_path) != 0)
        for (watch.look(engine.get()); !watch.has_failed() && !stop_requested;) {
            std::this_thread::sleep_for(poll_period);
            watch.look(engine.get());
        }
    tavistro_engine_stop(engine.get());
    watch.look(engine.get());
}

}  // namespace

int main(int argc, char** argv) {
    const Engine engine(tavistro_engine_create());
    tavistro_engine_state record{};
    if (argc != 2 || tavistro_engine_get_state(engine.get(), &record) == 0 ||
        record.version != TAVISTRO_STATE_RECORD_VERSION) {
        std::cerr << "usage: host CONFIG\n";
        return 1;
    }
    for (const int signal : {SIGINT, SIGTERM})
        std::signal(signal, [](int) { stop_requested = 1; });
    while (!stop_requested) {
        run(engine, argv[1]);
        if (stop_requested) break;
        std::cout << "the run failed; starting again in " << restart_pause.count() << " s"
                  << std::endl;
        for (const auto end = Clock::now() + restart_pause; Clock::now() < end && !stop_requested;)
            std::this_thread::sleep_for(poll_period);
    }
    return 0;
}
