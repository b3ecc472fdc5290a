#include <windows.h>

#include <gtest/gtest.h>

#include "platform/threads.h"

namespace tavistro::platform {
namespace {

constexpr UINT count_message = WM_APP;
constexpr UINT repeating_message = WM_APP + 1;
int dispatched = 0;

LRESULT CALLBACK on_message(HWND window, UINT message, WPARAM w, LPARAM l) {
    if (message != count_message && message != repeating_message) {
        return DefWindowProcW(window, message, w, l);
    }
    ++dispatched;
    if (message == repeating_message) PostMessageW(window, message, 0, 0);
    return 0;
}

TEST(WorkerEvent, DispatchesTheThreadsMessagesButNeitherOverstaysNorMissesASignalForThem) {
    WNDCLASSW window_class{};
    window_class.lpfnWndProc = on_message;
    window_class.hInstance = GetModuleHandleW(nullptr);
    window_class.lpszClassName = L"TavistroWorkerEventTest";
    ASSERT_NE(RegisterClassW(&window_class), 0);
    const HWND window = CreateWindowExW(0, window_class.lpszClassName, L"", 0, 0, 0, 0, 0,
                                        HWND_MESSAGE, nullptr, window_class.hInstance, nullptr);
    ASSERT_NE(window, nullptr);

    WorkerEvent event;
    PostMessageW(window, count_message, 0, 0);
    EXPECT_FALSE(event.wait_for_ms(20));
    EXPECT_EQ(dispatched, 1);

    // From here on there is always another message: a wait that drained the queue would not end.
    PostMessageW(window, repeating_message, 0, 0);
    EXPECT_FALSE(event.wait_for_ms(20));
    EXPECT_GT(dispatched, 2);
    EXPECT_FALSE(event.wait_for_ms(0));
    Thread thread;
    ASSERT_TRUE(thread.start("waker", [&] { event.signal(); }));
    EXPECT_TRUE(event.wait_for_ms(10'000));
    thread.join();
    DestroyWindow(window);
}

}  // namespace
}  // namespace tavistro::platform
