// For processors where the compiler's loops are good enough.
#include "common/row_loops.h"

namespace tavistro {

const RowLoops& row_loops(SimdLevel) noexcept {
    return row_loops_baseline;
}

}  // namespace tavistro
