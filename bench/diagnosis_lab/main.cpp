// tavistro-diagnosis-lab: simulates faults in virtual time and checks how well they are diagnosed.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "bench/diagnosis_lab/catalogue.h"
#include "bench/diagnosis_lab/run_report.h"
#include "bench/diagnosis_lab/scores.h"
#include "tools/number_range.h"

namespace tavistro::diagnosis_lab {

namespace {

constexpr int failed = 1;
constexpr int wrong_arguments = 2;

Strength strength_of(const std::string& name) {
    return static_cast<Strength>(std::ranges::find(strength_names, name) - strength_names.begin());
}

int list_faults() {
    for (const Fault& fault : faults()) {
        std::cout << fault.name << ": " << fault.what << " ->";
        for (const monitor::Cause cause : fault.causes)
            std::cout << ' ' << cause_name(cause);
        std::cout << (fault.is_harmless() ? " nothing\n" : "\n");
    }
    return 0;
}

int score_catalogue(const ScoreOptions& options) {
    const std::vector<Entry> all = entries();
    return write_scores(std::cout, diagnose_all(all, options)) ? 0 : failed;
}

int run_tool(int argc, char** argv) {
    RunOptions run;
    std::string strength = "middle";
    CLI::App app("Simulates faults in virtual time and scores their diagnosis",
                 "tavistro-diagnosis-lab");
    app.require_subcommand(1);
    CLI::App* const run_command = app.add_subcommand("run", "simulate one world");
    run_command
        ->add_option("name", run.name,
                     "fault, or two joined by +, such as loss or loss+jitter; see `list`")
        ->required();
    run_command->add_option("--strength", strength, "weak, middle or strong")
        ->check(
            CLI::IsMember(std::vector<std::string>(strength_names.begin(), strength_names.end())))
        ->capture_default_str();
    run_command->add_option("--seed", run.seed, "seed of the random choices")
        ->capture_default_str();
    run_command->add_option("--seconds", run.seconds, "how long the monitor observes, in s")
        ->check(number_range(1, 100000))
        ->capture_default_str();
    run_command->add_flag("--busy", run.busy, "simulate a busy computer that preempts threads");
    run_command->add_flag("--fields", run.fields, "also print fields of the statistics block");
    run_command->add_flag("--json", run.json, "print JSON instead of text");
    CLI::App* const list_command =
        app.add_subcommand("list", "list all faults and their strengths");
    ScoreOptions score{.jobs = std::max(1U, std::thread::hardware_concurrency())};
    bool quick = false;
    CLI::App* const score_command =
        app.add_subcommand("score", "simulate and score the whole catalogue; prints Markdown");
    score_command->add_flag("--quick", quick, "one seed of each world");
    CLI::Option* const seeds =
        score_command->add_option("--seeds", score.seeds, "number of seeds for each world")
            ->check(number_range(1, 100000))
            ->capture_default_str();
    score_command->add_flag("--held-out", score.held_out,
                            "use even seeds from 202 on, not used for tuning, instead of odd ones");
    score_command->add_option("--jobs", score.jobs, "number of parallel simulations")
        ->check(number_range(1, 1024));
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        std::cerr << "tavistro-diagnosis-lab: " << error.what() << "\n";
        return wrong_arguments;
    }
    if (list_command->parsed()) return list_faults();
    if (score_command->parsed()) {
        if (quick && seeds->empty()) score.seeds = 1;
        return score_catalogue(score);
    }
    run.strength = strength_of(strength);
    return run_world(run, std::cout, std::cerr) ? 0 : failed;
}

}  // namespace

}  // namespace tavistro::diagnosis_lab

int main(int argc, char** argv) {
    try {
        return tavistro::diagnosis_lab::run_tool(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tavistro-diagnosis-lab: %s\n", error.what());
        return tavistro::diagnosis_lab::failed;
    }
}
