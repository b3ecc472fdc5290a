#include "bench/diagnosis_lab/scores.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <exception>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "bench/diagnosis_lab/run_report.h"

namespace tavistro::diagnosis_lab {

using monitor::Cause;

namespace {

constexpr std::array<double, 5> lengths_s{30, 60, 120, 300, 600};
constexpr double least_precision = 0.99;
constexpr double least_recall = 0.95;

constexpr Cause columns[] = {Cause::server_silent,   Cause::format_mismatch, Cause::network_loss,
                             Cause::missing_notices, Cause::late_network,    Cause::device_stall,
                             Cause::device_too_slow, Cause::device_too_fast, Cause::device_uneven,
                             Cause::host_overload};

/// So many of so many.
struct Share {
    long hits = 0;
    long all = 0;

    void add(bool hit) {
        hits += hit ? 1 : 0;
        ++all;
    }
    double value() const {
        return all == 0 ? 1 : static_cast<double>(hits) / static_cast<double>(all);
    }
    std::string text() const {
        if (all == 0) return "-";
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%.2f %% (%ld of %ld)", 100 * value(), hits, all);
        return buffer;
    }
};

std::vector<Job> jobs_for(std::span<const Entry> all, const ScoreOptions& options) {
    std::vector<Job> jobs;
    for (std::size_t i = 0; i < all.size(); ++i) {
        for (std::uint64_t k = 0; k < options.seeds; ++k) {
            const std::uint64_t seed = 2 * k + (options.held_out ? 2 : 1);
            // What must not be accused is watched for as long as anything.
            if (all[i].is_harmless()) {
                for (const double seconds : lengths_s)
                    jobs.push_back({&all[i], seed, seconds});
            } else {
                jobs.push_back({&all[i], seed, lengths_s[(i + k) % lengths_s.size()]});
            }
        }
    }
    return jobs;
}

std::string command(const Verdict& verdict) {
    std::string text = "`";
    return text.append(command_of(*verdict.job.entry, verdict.job.seed, verdict.job.seconds))
        .append("`");
}

std::string names(Causes causes) {
    std::string text;
    for (unsigned i = 0; i <= static_cast<unsigned>(Cause::host_overload); ++i) {
        if (!causes.has(Cause{static_cast<int>(i)})) continue;
        text += text.empty() ? "" : ", ";
        text += cause_name(Cause{static_cast<int>(i)});
    }
    return text.empty() ? "nothing" : text;
}

void write_matrix(std::ostream& out, std::span<const Verdict> verdicts, bool busy) {
    out << "\n## Put in, and named: " << (busy ? "a busy" : "a quiet") << " computer\n\n| put in |";
    for (const Cause cause : columns)
        out << ' ' << cause_name(cause) << " |";
    out << " not clear yet | nothing | runs |\n|---|";
    for (std::size_t i = 0; i < std::size(columns) + 3; ++i)
        out << "---|";
    out << '\n';
    for (const Fault& fault : faults()) {
        std::array<long, std::size(columns)> cells{};
        long unclear = 0;
        long nothing = 0;
        long runs = 0;
        for (const Verdict& v : verdicts) {
            const Entry& entry = *v.job.entry;
            if (!entry.is_single() || entry.faults.front() != &fault || entry.busy != busy)
                continue;
            ++runs;
            for (std::size_t i = 0; i < cells.size(); ++i)
                cells[i] += v.named.has(columns[i]) ? 1 : 0;
            unclear += v.not_clear_yet ? 1 : 0;
            nothing += v.named.empty() && !v.not_clear_yet ? 1 : 0;
        }
        out << "| " << fault.name << " |";
        for (const long cell : cells)
            out << ' ' << (cell == 0 ? std::string() : std::to_string(cell)) << " |";
        out << ' ' << unclear << " | " << nothing << " | " << runs << " |\n";
    }
}

/// One line of a list for each verdict that it is about.
class Findings {
  public:
    void add(std::string line) { lines_.push_back(std::move(line)); }
    void write(std::ostream& out, const char* title) const {
        out << "\n## " << title << "\n\n";
        if (lines_.empty()) out << "None.\n";
        for (const std::string& line : lines_)
            out << "- " << line << '\n';
    }
    bool empty() const { return lines_.empty(); }

  private:
    std::vector<std::string> lines_;
};

std::string text_of(const Told& told) {
    return std::string(told.what) + ' ' + std::to_string(told.told) + " instead of " +
           std::to_string(told.least) +
           (told.least == told.most ? "" : " to " + std::to_string(told.most));
}

}  // namespace

std::vector<Verdict> diagnose_all(std::span<const Entry> all, const ScoreOptions& options) {
    const std::vector<Job> jobs = jobs_for(all, options);
    std::vector<Verdict> verdicts(jobs.size());
    std::atomic<std::size_t> next{0};
    std::mutex mutex;
    std::exception_ptr trouble;
    const auto work = [&] {
        try {
            for (std::size_t i = next++; i < jobs.size(); i = next++)
                verdicts[i] = diagnose_world(jobs[i]);
        } catch (...) {
            const std::lock_guard lock(mutex);
            trouble = std::current_exception();
            next = jobs.size();
        }
    };
    {
        std::vector<std::jthread> workers;
        for (unsigned i = 1; i < options.jobs; ++i)
            workers.emplace_back(work);
        work();
    }
    if (trouble) std::rethrow_exception(trouble);
    return verdicts;
}

bool write_scores(std::ostream& out, std::span<const Verdict> verdicts) {
    Share precision;
    Share recall;
    Share clean_quiet;
    Share clean_busy;
    Share faint_accused;
    Share clock_quiet;
    Share clock_busy;
    Share counts;
    std::map<std::string_view, Share> each_count;
    Findings wrong;
    Findings missed;
    Findings miscounted;
    Findings broken;
    for (const Verdict& v : verdicts) {
        const Entry& entry = *v.job.entry;
        const int wrongly_named = v.wrong().count();
        for (int i = 0; i < v.named.count(); ++i)
            precision.add(i >= wrongly_named);
        if (wrongly_named > 0)
            wrong.add(command(v) + ": " + names(v.wrong()) + "; put in: " + names(v.put_in));
        if (entry.is_harmless()) {
            Causes computer;
            computer.add(Cause::host_overload);
            (entry.busy ? clean_busy : clean_quiet).add(v.named.without(computer).empty());
        } else if (entry.is_single() && !entry.busy && v.audible_early) {
            const bool named = v.named_early.meets(v.put_in);
            recall.add(named);
            if (!named) missed.add(command(v) + ": named " + names(v.named_early));
        } else if (entry.is_single() && !entry.busy) {
            faint_accused.add(wrongly_named > 0);
        }
        if (v.clock_compared) (entry.busy ? clock_busy : clock_quiet).add(v.clock_right());
        counts.add(v.counts_right());
        for (const Told& told : v.told) {
            each_count[told.what].add(told.right());
            if (!told.right()) miscounted.add(command(v) + ": " + text_of(told));
        }
        if (!v.disagreement.empty()) broken.add(command(v) + ": " + v.disagreement);
    }

    out << "| | |\n|---|---|\n"
        << "| named causes that are true | " << precision.text() << " |\n"
        << "| audible single faults named within two minutes | " << recall.text() << " |\n"
        << "| weaker single faults for which a wrong cause is named | " << faint_accused.text()
        << " |\n"
        << "| clean runs that name no side but the computer: quiet | " << clean_quiet.text()
        << " |\n"
        << "| the same: busy | " << clean_busy.text() << " |\n"
        << "| clocks within the told uncertainty: quiet | " << clock_quiet.text() << " |\n"
        << "| the same: busy | " << clock_busy.text() << " |\n"
        << "| runs with every count right | " << counts.text() << " |\n";
    for (const auto& [what, share] : each_count)
        out << "| counted right: " << what << " | " << share.text() << " |\n";
    for (const bool busy : {false, true})
        write_matrix(out, verdicts, busy);
    wrong.write(out, "Wrong findings");
    missed.write(out, "Audible faults not named");
    miscounted.write(out, "Wrong counts");
    if (!broken.empty()) broken.write(out, "Worlds that are wrong themselves");
    return precision.value() >= least_precision && recall.value() >= least_recall &&
           clean_quiet.hits == clean_quiet.all && clean_busy.hits == clean_busy.all &&
           broken.empty();
}

}  // namespace tavistro::diagnosis_lab
