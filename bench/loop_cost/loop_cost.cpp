// usage: loop_cost LEVEL LOOP ROUNDS
//
// Runs one loop over samples ROUNDS times on a block of 128 frames, of one channel (`interpolate`:
// of two). An instruction counter compares two numbers of rounds.
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <vector>

#include "asio/sample_format.h"
#include "audio/peak_meters.h"
#include "bench/chosen_simd_level.h"
#include "common/planar_ring.h"

namespace {

using namespace tavistro;

constexpr std::size_t frames = 128;

struct Conversion {
    std::string_view name;
    std::uint32_t code;
};

constexpr Conversion conversions[] = {{"int16", 16}, {"int24", 17}, {"int32", 18}, {"float64", 20}};

/// False for an unknown loop.
bool run(std::string_view loop, int rounds) {
    std::vector<float> samples(frames);
    for (std::size_t i = 0; i < frames; ++i)
        samples[i] = static_cast<float>(i) / 150.0F - 0.5F;
    if (loop == "meter") {
        std::uint32_t peaks = 0;
        for (int round = 0; round < rounds; ++round)
            peaks += peak_permille(samples);
        return peaks != 0;
    }
    if (loop == "interpolate") {
        constexpr std::size_t channels = 2;
        PlanarRing ring(channels, 4 * frames);
        std::vector<float> block(channels * frames, 0.25F);
        ring.write(0, block);
        for (int round = 0; round < rounds; ++round)
            ring.interpolate(
                {.position = 5, .available = 3 * frames, .ratio = 1.0001, .offset = 0.25}, block);
        return true;
    }
    unsigned char words[8 * frames] = {};
    for (const Conversion& conversion : conversions) {
        if (!loop.starts_with(conversion.name)) continue;
        const bool to_float = loop.ends_with("_to_float");
        for (int round = 0; round < rounds; ++round) {
            if (to_float)
                samples_to_float(words, conversion.code, samples, simd_level());
            else
                samples_from_float(words, conversion.code, samples, simd_level());
        }
        return true;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    const bool good = argc == 4 && tavistro::bench::choose_simd_level(argv[1]) &&
                      run(argv[2], std::atoi(argv[3]));
    return good ? 0 : 2;
}
