// What the system asks for by itself: the yardstick for the cost of a whole process.
#include <time.h>

#include <array>
#include <thread>

#include "bench/bench.h"
#include "platform/clock.h"
#include "platform/udp_socket.h"

namespace tavistro::bench {
namespace {

double process_cpu_ns() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
}

/// 375 times a second a thread wakes, sends datagrams, one for a block of stereo and 16 for one of
/// 32 channels, and gets them back from another thread: at least three wakes, with nothing done in
/// between.
void paced_udp_round_trip(benchmark::State& state) {
    const auto datagrams = state.range(0);
    constexpr std::size_t datagram_bytes = 1072;
    constexpr double period_ns = 128 * 1e9 / 48000;
    platform::UdpSocket near;
    platform::UdpSocket far;
    if (!near.open({}) || !far.open({})) {
        state.SkipWithError("no socket");
        return;
    }
    const platform::Ipv4Endpoint far_end{platform::ipv4_loopback, far.local_endpoint().port};
    std::thread echo([&far] {
        std::array<std::uint8_t, datagram_bytes> datagram{};
        for (;;) {
            const auto received = far.receive(datagram);
            if (received.status != platform::ReceiveStatus::datagram) return;
            far.send_to(datagram, received.source);
        }
    });
    std::array<std::uint8_t, datagram_bytes> datagram{};
    const double used_before = process_cpu_ns();
    auto deadline_ns = static_cast<double>(platform::nanosecond_clock());
    for (auto _ : state) {
        deadline_ns += period_ns;
        const auto whole = static_cast<std::int64_t>(deadline_ns);
        const timespec when{.tv_sec = whole / 1'000'000'000, .tv_nsec = whole % 1'000'000'000};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &when, nullptr);
        for (std::int64_t i = 0; i < datagrams; ++i)
            near.send_to(datagram, far_end);
        for (std::int64_t i = 0; i < datagrams; ++i)
            near.receive(datagram);
    }
    const double used_ns = process_cpu_ns() - used_before;
    far.close();
    echo.join();
    state.counters["percent_of_a_core"] =
        used_ns / (static_cast<double>(state.iterations()) * period_ns) * 100;
}

}  // namespace

void add_system_benches() {
    benchmark::RegisterBenchmark("paced_udp_round_trip", paced_udp_round_trip)
        ->Arg(1)
        ->Arg(16)
        ->Iterations(1500);
}

}  // namespace tavistro::bench
