// usage: TARGET_replay MUTATIONS FOLDER...: a fuzz target without a fuzzer. Runs some noise and
// every input of the folders that exist, then so many mutations of them, always the same ones. When
// a check fails, the input is printed as a regression file holds it.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "fuzz/fuzz.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes current;

void print_current(int signal) {
    for (const std::uint8_t byte : current)
        std::fprintf(stderr, "%02x ", unsigned{byte});
    std::fprintf(stderr, "\n");
    std::signal(signal, SIG_DFL);
}

void run(const Bytes& bytes) {
    current = bytes;
    current.shrink_to_fit();  // for a read beyond the end to be seen
    LLVMFuzzerTestOneInput(current.data(), current.size());
}

/// The bytes of a seed, or what the hexadecimal numbers of a regression file stand for.
Bytes read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    REQUIRE(file);
    if (path.extension() != ".hex") return Bytes{std::istreambuf_iterator<char>(file), {}};
    Bytes bytes;
    for (unsigned byte = 0; file >> std::hex >> byte;)
        bytes.push_back(static_cast<std::uint8_t>(byte));
    REQUIRE(file.eof() && !bytes.empty());
    return bytes;
}

void mutate(Bytes& bytes, const Bytes& other, std::mt19937& engine) {
    const auto below = [&](std::size_t limit) {
        return static_cast<std::ptrdiff_t>(engine() % limit);
    };
    const auto at = bytes.begin() + below(bytes.size() + 1);
    const auto few = std::min(below(16), bytes.end() - at);
    switch (below(5)) {
        case 0:
            bytes.erase(at, at + few);
            return;
        case 1:
            bytes.insert(at, other.begin(), other.begin() + below(other.size() + 1));
            return;
        case 2:
            std::fill_n(at, few, static_cast<std::uint8_t>(below(2) * 255));
            return;
        default:
            if (few > 0) *at = static_cast<std::uint8_t>(*at ^ (1 << below(8)));
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGABRT, print_current);
    std::vector<std::filesystem::path> paths;
    for (int i = 2; i < argc; ++i)
        if (std::filesystem::exists(argv[i]))
            for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
                paths.push_back(entry.path());
    std::ranges::sort(paths);
    std::mt19937 engine;
    std::vector<Bytes> seeds(24, Bytes(400));
    for (Bytes& noise : seeds)
        std::ranges::generate(noise, [&] { return static_cast<std::uint8_t>(engine()); });
    for (const auto& path : paths)
        seeds.push_back(read(path));
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
