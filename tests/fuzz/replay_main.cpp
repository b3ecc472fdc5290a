// usage: TARGET_replay MUTATIONS FOLDER: runs a fuzz target without a fuzzer, on noise, on every
// input in the folder, if it exists, and on that number of mutations of both. Deterministic.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>

#include "fuzz/fuzz.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void run(Bytes bytes) {
    bytes.shrink_to_fit();  // so that sanitizers detect a read beyond the end
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

void mutate(Bytes& bytes, const Bytes& other, std::mt19937& engine) {
    const auto below = [&](std::size_t limit) {
        return static_cast<std::ptrdiff_t>(engine() % limit);
    };
    const auto kind = below(5);
    const auto at = bytes.begin() + below(bytes.size() + 1);
    const auto end = at + std::min(below(16), bytes.end() - at);
    if (kind == 0) bytes.erase(at, end);
    if (kind == 1) bytes.insert(at, other.begin(), other.begin() + below(other.size() + 1));
    if (kind == 2) std::fill(at, end, static_cast<std::uint8_t>(below(2) * 255));
    if (kind >= 3 && at != end) *at = static_cast<std::uint8_t>(*at ^ (1 << below(8)));
}

}  // namespace

int main(int argc, char** argv) {
    REQUIRE(argc == 3);
    std::mt19937 engine;
    std::vector<Bytes> seeds(24, Bytes(400));
    for (Bytes& noise : seeds)
        std::ranges::generate(noise, [&] { return static_cast<std::uint8_t>(engine()); });
    std::error_code no_folder;
    const std::filesystem::directory_iterator folder(argv[2], no_folder);
    for (const auto& path : std::set<std::filesystem::path>(begin(folder), end(folder))) {
        std::ifstream file(path, std::ios::binary);
        seeds.push_back({std::istreambuf_iterator<char>(file), {}});
    }
    for (const Bytes& seed : seeds)
        run(seed);
    const int mutations = std::stoi(argv[1]);
    for (int i = 0; i < mutations; ++i) {
        Bytes bytes = seeds[engine() % seeds.size()];
        for (std::size_t edits = 1 + engine() % 8; edits > 0; --edits)
            mutate(bytes, seeds[engine() % seeds.size()], engine);
        run(bytes);
    }
    std::printf("%zu inputs, %d mutations\n", seeds.size(), mutations);
    return 0;
}
