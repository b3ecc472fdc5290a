// usage: block_cost baseline|avx2|neon receive|period CHANNELS [BLOCKS]
//
// Processes BLOCKS (100) blocks of 128 frames and runs the named part of each inside
// measured_work(), so that an instruction counter can limit its count to that function. One that
// cannot compares two numbers of blocks.
#include <cstdlib>
#include <functional>
#include <string_view>

#include "bench/block_cost/block_rig.h"
#include "bench/chosen_simd_level.h"

namespace {
int blocks_measured = 0;
}

extern "C" [[gnu::noipa]] void measured_work(const std::function<void()>& work) {
    work();
    ++blocks_measured;  // after the call, which would otherwise be a tail call that leaves this
                        // function
}

int main(int argc, char** argv) {
    if (argc < 4 || argc > 5 || !tavistro::bench::choose_simd_level(argv[1])) return 2;
    const bool receives = std::string_view(argv[2]) == "receive";
    tavistro::test::BlockRig rig(static_cast<std::uint16_t>(std::atoi(argv[3])));
    const int blocks = argc == 5 ? std::atoi(argv[4]) : 100;
    for (int block = 0; block < blocks; ++block) {
        rig.next_block();
        receives ? measured_work([&] { rig.receive(); }) : rig.receive();
        receives ? rig.run_period() : measured_work([&] { rig.run_period(); });
    }
    return blocks_measured == blocks ? 0 : 1;
}
