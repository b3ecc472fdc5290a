#include "support/short_sleep.h"

#include <windows.h>

#include "platform/windows/library.h"

namespace tavistro::test {

// Sleep takes whole milliseconds; the system's call behind it takes units of 100 ns.
void short_sleep() noexcept {
    using Delay = LONG(NTAPI*)(BOOLEAN alertable, LARGE_INTEGER * until);
    static const auto delay =
        platform::find_function<Delay>(GetModuleHandleW(L"ntdll.dll"), "NtDelayExecution");
    LARGE_INTEGER relative{};
    relative.QuadPart = -1000;
    delay(FALSE, &relative);
}

}  // namespace tavistro::test
