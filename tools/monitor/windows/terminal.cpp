#include "tools/monitor/terminal.h"

#include <windows.h>

namespace tavistro::monitor {

bool prepare_terminal() {
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    return GetConsoleMode(output, &mode) != 0 &&
           SetConsoleMode(output, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

TerminalSize terminal_size() {
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info) == 0) return {};
    const SMALL_RECT& window = info.srWindow;
    if (window.Right < window.Left || window.Bottom < window.Top) return {};
    return {static_cast<std::size_t>(window.Right - window.Left + 1),
            static_cast<std::size_t>(window.Bottom - window.Top + 1)};
}

}  // namespace tavistro::monitor
