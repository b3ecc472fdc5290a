#include "tools/monitor/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace tavistro::monitor {

bool prepare_terminal() {
    return isatty(STDOUT_FILENO) == 1;
}

TerminalSize terminal_size() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return {};
    return {size.ws_col, size.ws_row};
}

}  // namespace tavistro::monitor
