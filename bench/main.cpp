#include <algorithm>
#include <string_view>

#include "bench/bench.h"
#include "bench/chosen_simd_level.h"

namespace {

/// Removes the kind of time measurement from the names; it is the same for every benchmark.
template <typename Reporter>
class PlainNames : public Reporter {
  public:
    using Reporter::Reporter;
    void ReportRuns(const std::vector<benchmark::BenchmarkReporter::Run>& runs) override {
        auto plain = runs;
        for (auto& run : plain)
            run.run_name.time_type.clear();
        Reporter::ReportRuns(plain);
    }
};

/// Applies `--simd=baseline` or `--simd=avx2` and removes it from the arguments. False for a level
/// that is unknown or that the processor does not support.
bool take_simd_level(int& argc, char** argv) {
    constexpr std::string_view option = "--simd=";
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (!argument.starts_with(option)) continue;
        if (!tavistro::bench::choose_simd_level(argument.substr(option.size()))) return false;
        std::rotate(argv + i, argv + i + 1, argv + argc);
        --argc;
        return true;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const bool writes_file = std::any_of(argv, argv + argc, [](std::string_view argument) {
        return argument.starts_with("--benchmark_out=");
    });
    if (!take_simd_level(argc, argv)) return 2;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    tavistro::bench::add_audio_benches();
    tavistro::bench::add_net_benches();
    tavistro::bench::add_engine_benches();
    tavistro::bench::add_system_benches();
    PlainNames<benchmark::ConsoleReporter> table(benchmark::ConsoleReporter::OO_Tabular);
    PlainNames<benchmark::JSONReporter> file;
    benchmark::RunSpecifiedBenchmarks(&table, writes_file ? &file : nullptr);
    benchmark::Shutdown();
    return 0;
}
