#include <chrono>
#include <ctime>
#include <memory>
#include <ostream>
#include <thread>

#include "tavistro/engine.h"
#include "tools/host/commands.h"
#include "tools/host/report.h"
#include "tools/host/run_history.h"
#include "tools/readings/stats_reader.h"
#include "tools/readings/texts.h"
#include "tools/stop_request.h"

namespace tavistro::host {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto poll_period = 50ms;
constexpr auto status_period = 1s;
constexpr auto first_status = 1200ms;  // the engine's first report comes a second after it runs

/// Processor time of all threads of this process so far.
double process_cpu_seconds() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

/// Looks at a run from outside and reports what is new.
class RunWatch {
  public:
    RunWatch(tavistro_engine* engine, Report& report) : engine_(engine), report_(report) {}

    void look() {
        const std::uint32_t state_before = state_.state;
        tavistro_engine_get_state(engine_, &state_);
        if (state_.state != state_before) report_.state_changed(seconds(), state_);
        for (const NewEvent& event : events_.take_new(state_))
            report_.event(seconds(), event);
        read_stats();  // at each look: a restart of the audio path may be the next
        if (Clock::now() < next_status_) return;
        next_status_ += status_period;
        report_.status(seconds(), state_, stats_);
    }

    void summarize() {
        report_.summary({seconds(), process_cpu_seconds() - cpu_seconds_at_start_, state_, stats_});
    }

    double seconds() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }
    const tavistro_engine_state& state() const { return state_; }
    bool ended() const {
        return state_.state == TAVISTRO_STATE_STOPPED || state_.state == TAVISTRO_STATE_FAILED;
    }

  private:
    /// The engine has a block of its own once it is past starting; an earlier look could find one
    /// that another run left behind.
    void read_stats() {
        const bool published = state_.state > TAVISTRO_STATE_STARTING && !ended();
        if (published) stats_reader_.open(state_.client_id);
        if (const auto block = stats_reader_.read()) stats_ = totals_.add(*block);
    }

    tavistro_engine* engine_;
    Report& report_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point next_status_ = start_ + first_status;
    double cpu_seconds_at_start_ = process_cpu_seconds();
    tavistro_engine_state state_{};
    EventFollower events_;
    readings::StatsReader stats_reader_;
    RunTotals totals_;
    std::optional<tavistro_stats_block> stats_;
};

}  // namespace

int run_engine(const std::string& config_path, std::optional<double> seconds, bool json,
               std::ostream& out, std::ostream& errors) {
    const std::unique_ptr<tavistro_engine, decltype(&tavistro_engine_destroy)> engine(
        tavistro_engine_create(), tavistro_engine_destroy);
    if (!engine) {
        errors << "tavistro-host: the engine could not be created\n";
        return 1;
    }
    take_stop_signals();

    const auto report = json ? make_json_report(out) : make_human_report(out);
    RunWatch watch(engine.get(), *report);
    const bool started = tavistro_engine_start_from_config(engine.get(), config_path.c_str()) != 0;
    watch.look();
    if (started) {
        while (!watch.ended() && !(seconds && watch.seconds() >= *seconds) && !stop_requested) {
            std::this_thread::sleep_for(poll_period);
            watch.look();
        }
        tavistro_engine_stop(engine.get());
        watch.look();
        watch.summarize();
    }
    if (started && watch.state().state != TAVISTRO_STATE_FAILED) return 0;
    errors << "tavistro-host: the run failed: "
           << readings::failure_text(watch.state(), config_path) << '\n';
    return 1;
}

}  // namespace tavistro::host
