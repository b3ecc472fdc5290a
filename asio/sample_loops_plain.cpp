// For processors without faster loops of our own.
#include "asio/sample_loops.h"

namespace tavistro {

const SampleLoops* fast_sample_loops(std::size_t, SimdLevel) noexcept {
    return nullptr;
}

}  // namespace tavistro
