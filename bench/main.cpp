#include <algorithm>
#include <string_view>

#include "bench/bench.h"

namespace {

/// Leaves out of the names how the time is taken, which is the same for every bench.
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

}  // namespace

int main(int argc, char** argv) {
    const bool writes_file = std::any_of(argv, argv + argc, [](std::string_view argument) {
        return argument.starts_with("--benchmark_out=");
    });
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
