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
constexpr std::size_t longest_list = 60;

constexpr Cause columns[] = {Cause::server_silent,   Cause::format_mismatch, Cause::network_loss,
                             Cause::missing_notices, Cause::late_network,    Cause::device_stall,
                             Cause::device_too_slow, Cause::device_too_fast, Cause::device_uneven,
                             Cause::host_overload};

/// A count out of a total.
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
            const std::uint64_t seed = options.held_out ? first_held_out_seed + 2 * k : 2 * k + 1;
            // Run harmless worlds at every length, to find as many wrong diagnoses as possible.
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

void write_cell(std::ostream& out, long number) {
    out << ' ';
    if (number != 0) out << number;
    out << " |";
}

void write_matrix(std::ostream& out, std::span<const Verdict> verdicts, bool busy) {
    out << "\n## Injected faults and named causes: " << (busy ? "busy" : "quiet")
        << " computer\n\n| injected |";
    for (const Cause cause : columns)
        out << ' ' << cause_name(cause) << " |";
    out << " not clear yet | none | runs |\n|---|";
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
            write_cell(out, cell);
        write_cell(out, unclear);
        write_cell(out, nothing);
        write_cell(out, runs);
        out << '\n';
    }
}

/// A list of verdicts, each with its error.
class List {
  public:
    void add(const Verdict& verdict, const std::string& what) {
        lines_.push_back(command(verdict) + ": " + what);
    }
    void write(std::ostream& out, const char* title,
               std::size_t longest = std::string::npos) const {
        out << "\n## " << title << "\n\n";
        if (lines_.empty()) out << "None.\n";
        for (std::size_t i = 0; i < std::min(longest, lines_.size()); ++i)
            out << "- " << lines_[i] << '\n';
        if (lines_.size() > longest) out << "- and " << lines_.size() - longest << " more\n";
    }
    bool empty() const { return lines_.empty(); }

  private:
    std::vector<std::string> lines_;
};

std::string text_of(const Told& told) {
    std::string text(told.what);
    text.append(" ").append(std::to_string(told.told));
    text.append(" instead of ").append(std::to_string(told.least));
    if (told.least != told.most) text.append(" to ").append(std::to_string(told.most));
    return text;
}

class Summary {
  public:
    void add(const Verdict& v);
    void write(std::ostream& out) const;
    void write_lists(std::ostream& out) const;
    bool good() const {
        return precision_.value() >= least_precision && recall_.value() >= least_recall &&
               clean_[0].value() == 1 && clean_[1].value() == 1 && broken_.empty();
    }

  private:
    void add_counts(const Verdict& v);

    Share precision_;
    Share recall_;
    Share faint_accused_;
    std::array<Share, 2> clean_;  ///< idle, busy
    std::array<Share, 2> clock_;
    Share counts_;
    std::map<std::string_view, Share> each_count_;
    List wrong_;
    List missed_;
    List miscounted_;
    List broken_;
};

void Summary::add(const Verdict& v) {
    const Entry& entry = *v.job.entry;
    const int wrongly_named = v.wrong().count();
    for (int i = 0; i < v.named.count(); ++i)
        precision_.add(i >= wrongly_named);
    if (wrongly_named > 0) wrong_.add(v, names(v.wrong()) + "; injected: " + names(v.put_in));
    if (entry.is_harmless()) {
        Causes computer;
        computer.add(Cause::host_overload);
        clean_[entry.busy].add(v.named.without(computer).empty());
    } else if (entry.is_single() && !entry.busy && v.audible_early) {
        const bool named = v.named_early.meets(v.put_in);
        recall_.add(named);
        if (!named) missed_.add(v, "named " + names(v.named_early));
    } else if (entry.is_single() && !entry.busy) {
        faint_accused_.add(wrongly_named > 0);
    }
    add_counts(v);
    if (!v.disagreement.empty()) broken_.add(v, v.disagreement);
}

void Summary::add_counts(const Verdict& v) {
    if (v.clock_compared) clock_[v.job.entry->busy].add(v.clock_right());
    counts_.add(v.counts_right());
    for (const Told& told : v.told) {
        each_count_[told.what].add(told.right());
        if (!told.right()) miscounted_.add(v, text_of(told));
    }
}

void Summary::write(std::ostream& out) const {
    out << "| | |\n|---|---|\n";
    const auto row = [&](const std::string& what, const Share& share) {
        out << "| " << what << " | " << share.text() << " |\n";
    };
    row("named causes that are correct", precision_);
    row("audible single faults on a quiet computer, named within two minutes", recall_);
    row("inaudible single faults on a quiet computer for which a wrong cause is named",
        faint_accused_);
    row("harmless runs on a quiet computer that name no cause but the computer", clean_[0]);
    row("harmless runs on a busy computer that name no cause but the computer", clean_[1]);
    row("clock difference within its uncertainty, quiet computer", clock_[0]);
    row("clock difference within its uncertainty, busy computer", clock_[1]);
    row("runs with all counts correct", counts_);
    for (const auto& [what, share] : each_count_)
        row("runs with a correct count: " + std::string(what), share);
}

void Summary::write_lists(std::ostream& out) const {
    wrong_.write(out, "Wrong causes named");
    missed_.write(out, "Audible faults not named");
    miscounted_.write(out, "Wrong counts", longest_list);
    if (!broken_.empty()) broken_.write(out, "Simulations whose counts differ from the engine's");
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
    Summary summary;
    for (const Verdict& verdict : verdicts)
        summary.add(verdict);
    summary.write(out);
    write_matrix(out, verdicts, false);
    write_matrix(out, verdicts, true);
    summary.write_lists(out);
    return summary.good();
}

}  // namespace tavistro::diagnosis_lab
