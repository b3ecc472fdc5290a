#include <chrono>
#include <ctime>
#include <future>
#include <memory>
#include <ostream>
#include <sstream>
#include <thread>
#include <utility>

#include "tavistro/engine.h"
#include "tools/host/commands.h"
#include "tools/host/report.h"
#include "tools/host/run_history.h"
#include "tools/host/start_advice.h"
#include "tools/readings/stats_reader.h"
#include "tools/readings/texts.h"
#include "tools/stop_request.h"

namespace tavistro::host {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto poll_period = 50ms;
constexpr auto patience = 500ms;       // for a stop, before the user is told that it takes longer
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
    RunWatch(tavistro_engine* engine, Report& report, double status_period_s,
             const StartAdvice& advice, std::ostream& errors)
        : engine_(engine),
          report_(report),
          status_period_s_(status_period_s),
          advice_(advice),
          errors_(errors) {}

    void look() {
        const std::uint32_t state_before = state_.state;
        tavistro_engine_get_state(engine_, &state_);
        if (state_.state != state_before) report_.state_changed(seconds(), state_);
        for (const NewEvent& news : events_.take_new(state_)) {
            report_.event(seconds(), news);
            if (news.event.kind == TAVISTRO_EVENT_ATTEMPT_FAILED) advise(news.event.error_code);
        }
        read_stats();  // at each look: a restart of the audio path may be the next
        if (status_period_s_ == 0 || Clock::now() < next_status_) return;
        next_status_ += std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(status_period_s_));
        report_.status(seconds(), state_, stats());
    }

    void summarize() {
        report_.summary(
            {seconds(), process_cpu_seconds() - cpu_seconds_at_start_, state_, totals_so_far_});
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
        if (const auto block = stats_reader_.read()) {
            ages_.add(*block, seconds());
            totals_so_far_ = totals_.add(*block);
        }
    }

    std::optional<RunStats> stats() const {
        if (!totals_so_far_) return {};
        const double now_s = seconds();
        return RunStats{*totals_so_far_, ages_.playback_s(now_s), ages_.round_trip_s(now_s)};
    }

    /// With the first failure of a kind alone.
    void advise(std::uint32_t error_code) {
        const bool is_server = error_code == TAVISTRO_ERROR_CLIENT_START_FAILED;
        if (!is_server && error_code != TAVISTRO_ERROR_AUDIO_DEVICE_FAILED) return;
        bool& is_told = is_server ? server_advice_told_ : device_advice_told_;
        if (std::exchange(is_told, true)) return;
        errors_ << "note: " << (is_server ? advice_.no_server() : advice_.no_device())
                << std::flush;
    }

    tavistro_engine* engine_;
    Report& report_;
    double status_period_s_;  ///< 0: none
    const StartAdvice& advice_;
    std::ostream& errors_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point next_status_ = start_ + first_status;
    double cpu_seconds_at_start_ = process_cpu_seconds();
    tavistro_engine_state state_{};
    EventFollower events_;
    readings::StatsReader stats_reader_;
    RunTotals totals_;
    std::optional<tavistro_stats_block> totals_so_far_;
    StatsAges ages_;
    bool server_advice_told_ = false;
    bool device_advice_told_ = false;
};

/// The engine ends an attempt to start that is in progress first, which can take a driver's time.
void stop(tavistro_engine* engine, std::ostream& errors) {
    const auto stopped = std::async(std::launch::async, tavistro_engine_stop, engine);
    if (stopped.wait_for(patience) == std::future_status::ready) return;
    errors << "Stopping after the attempt in progress; Ctrl-C again ends at once." << std::endl;
}

}  // namespace

int run_engine(const std::string& config_path, const RunOptions& options, const StartAdvice& advice,
               std::ostream& out, std::ostream& errors) {
    const std::unique_ptr<tavistro_engine, decltype(&tavistro_engine_destroy)> engine(
        tavistro_engine_create(), tavistro_engine_destroy);
    if (!engine) {
        errors << "tavistro-host: the engine could not be created\n";
        return 1;
    }
    take_stop_signals();

    const auto report = options.json ? make_json_report(out) : make_human_report(out);
    RunWatch watch(engine.get(), *report, options.status_period_s, advice, errors);
    const bool started = tavistro_engine_start_from_config(engine.get(), config_path.c_str()) != 0;
    watch.look();
    if (started) {
        while (!watch.ended() && !(options.seconds && watch.seconds() >= *options.seconds) &&
               !stop_requested) {
            std::this_thread::sleep_for(poll_period);
            watch.look();
        }
        stop(engine.get(), errors);
        watch.look();
        watch.summarize();
    }
    if (started && watch.state().state != TAVISTRO_STATE_FAILED) return 0;
    errors << "tavistro-host: the run failed: "
           << readings::failure_text(watch.state(), config_path) << '\n';
    if (watch.state().error_code == TAVISTRO_ERROR_SERVER_INCOMPATIBLE)
        errors << advice.incompatible_server();
    if (watch.state().error_code == TAVISTRO_ERROR_AUDIO_DEVICE_FAILED)
        errors << advice.driver_words(watch.state().stream_sample_rate,
                                      static_cast<std::int32_t>(watch.state().stream_block_frames));
    return 1;
}

int refuse_run(const std::string& config_path, bool json, std::ostream& out, std::ostream& errors) {
    if (json) {
        tavistro_engine_state state{};
        state.state = TAVISTRO_STATE_FAILED;
        state.status_level = TAVISTRO_LEVEL_ERROR;
        state.error_code = TAVISTRO_ERROR_CONFIG_INVALID;
        state.error_detail = state.status_message = TAVISTRO_MESSAGE_CONFIG_NOT_LOADED;
        const auto report = make_json_report(out);
        report->state_changed(0, state);
        report->summary({0, 0, state, {}});
    }
    errors << "tavistro-host: " << config_path << ": ";
    std::ostringstream no_list;
    check_config(config_path, no_list, errors);
    return wrong_arguments;
}

}  // namespace tavistro::host
