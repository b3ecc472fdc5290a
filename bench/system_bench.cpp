// Cost of the operating system alone, as a reference for the cost of a whole process.
#include <time.h>

#include <span>
#include <thread>
#include <vector>

#include "bench/bench.h"
#include "platform/clock.h"
#include "platform/threads.h"
#include "platform/udp_socket.h"

namespace tavistro::bench {
namespace {

double process_cpu_ns() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
}

/// 375 times per second a thread wakes, sends a block's datagrams to another thread and receives
/// them back: 1 datagram for stereo, 16 for 32 channels. Both threads have the receive thread's
/// priority where the system grants it. This takes three wake-ups per block and no other work.
void paced_udp_round_trip(benchmark::State& state) {
    const auto datagrams = static_cast<std::size_t>(state.range(0));
    constexpr std::size_t datagram_bytes = 1072;
    constexpr double period_ns = 128 * 1e9 / 48000;
    platform::UdpSocket near;
    platform::UdpSocket far;
    if (!near.open({}) || !far.open({})) {
        state.SkipWithError("cannot open a socket");
        return;
    }
    near.receive_in_runs();
    far.receive_in_runs();
    const platform::Ipv4Endpoint far_end{platform::ipv4_loopback, far.local_endpoint().port};
    const std::vector<std::uint8_t> datagram(datagram_bytes);
    const std::vector<platform::DatagramBytes> block(datagrams, datagram);
    const auto receive_block = [&](platform::UdpSocket& socket, std::span<std::uint8_t> buffer) {
        platform::ReceiveResult received{platform::ReceiveStatus::closed};
        for (std::size_t bytes = 0; bytes < datagrams * datagram_bytes; bytes += received.size) {
            received = socket.receive(buffer);
            if (received.status != platform::ReceiveStatus::datagram) break;
        }
        return received;
    };
    std::thread echo([&] {
        const platform::ScopedThreadRole role(platform::ThreadRole::network_receive);
        std::vector<std::uint8_t> buffer(platform::max_datagram_bytes);
        for (;;) {
            const auto received = receive_block(far, buffer);
            if (received.status != platform::ReceiveStatus::datagram) return;
            far.send_run(block, received.source);
        }
    });
    const platform::ScopedThreadRole role(platform::ThreadRole::network_receive);
    std::vector<std::uint8_t> buffer(platform::max_datagram_bytes);
    const double used_before = process_cpu_ns();
    auto deadline_ns = static_cast<double>(platform::nanosecond_clock());
    for (auto _ : state) {
        deadline_ns += period_ns;
        const auto whole = static_cast<std::int64_t>(deadline_ns);
        const timespec when{.tv_sec = whole / 1'000'000'000, .tv_nsec = whole % 1'000'000'000};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &when, nullptr);
        near.send_run(block, far_end);
        receive_block(near, buffer);
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
