#include "net/delivery.h"

#include "net/protocol.h"

namespace tavistro {

DeliveryTracker::Verdict DeliveryTracker::consult(std::uint32_t sequence) noexcept {
    if (last_ && !TavistroProtocol::is_newer(sequence, *last_)) return {};
    Verdict verdict{true, sequence, 0};
    if (last_) {
        const std::uint32_t missing = sequence - (*last_ + 1);
        if (missing <= max_filled_gap) verdict = {true, *last_ + 1, missing};
    }
    last_ = sequence;
    return verdict;
}

}  // namespace tavistro
