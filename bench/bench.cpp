#include "bench/bench.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace tavistro::bench {

std::size_t Shape::batch() const noexcept {
    constexpr std::size_t bytes_at_once = 32768;
    return std::clamp<std::size_t>(bytes_at_once / bytes(), 4, 64);
}

void add_for_every_shape(const std::string& name,
                         const std::function<void(benchmark::State&, const Shape&)>& function) {
    for (const std::uint16_t channels : std::initializer_list<std::uint16_t>{2, 8, 32}) {
        for (const std::uint16_t frames : std::initializer_list<std::uint16_t>{32, 64, 128, 512}) {
            const Shape shape{channels, frames};
            const std::string full_name = std::string(name)
                                              .append("/")
                                              .append(std::to_string(channels))
                                              .append("/")
                                              .append(std::to_string(frames));
            benchmark::RegisterBenchmark(full_name.c_str(), [function,
                                                             shape](benchmark::State& state) {
                function(state, shape);
            })->UseManualTime();
        }
    }
}

std::vector<float> noise(std::size_t samples) {
    std::minstd_rand random;
    std::uniform_real_distribution<float> level(-0.5F, 0.5F);
    std::vector<float> values(samples);
    std::generate(values.begin(), values.end(), [&] { return level(random); });
    return values;
}

double clock_cost_ns() {
    static const double cost = [] {
        using Clock = std::chrono::steady_clock;
        std::vector<double> costs;
        for (int i = 0; i < 10'000; ++i) {
            const Clock::time_point start = Clock::now();
            const std::chrono::duration<double, std::nano> taken = Clock::now() - start;
            costs.push_back(taken.count());
        }
        return median(std::move(costs));
    }();
    return cost;
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

bool MemoryCopy::operator()() {
    std::memcpy(to_.data(), from_.data(), to_.size());
    benchmark::DoNotOptimize(to_.data());
    benchmark::ClobberMemory();
    return true;
}

}  // namespace tavistro::bench
