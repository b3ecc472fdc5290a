// The terminal on standard output; one source per system.
#pragma once

#include <cstddef>

namespace tavistro::monitor {

struct TerminalSize {
    std::size_t columns = 80;
    std::size_t rows = 24;
};

/// Whether standard output is a terminal that obeys escape sequences; asks it to, where it must be
/// asked.
bool prepare_terminal();
/// As it is now, windows are resized; 80 by 24 where it cannot be told.
TerminalSize terminal_size();

}  // namespace tavistro::monitor
