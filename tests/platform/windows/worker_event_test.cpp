#include <windows.h>

#include <gtest/gtest.h>

#include "platform/threads.h"

namespace tavistro::platform {
namespace {

int dispatched = 0;

void CALLBACK on_timer(HWND, UINT, UINT_PTR, DWORD) {
    ++dispatched;
    PostThreadMessageW(GetCurrentThreadId(), WM_TIMER, 0, reinterpret_cast<LPARAM>(&on_timer));
}

// There is always another message: a wait that drained the queue would not end.
TEST(WorkerEvent, DispatchesTheThreadsMessagesButNeitherOverstaysNorMissesASignalForThem) {
    WorkerEvent event;
    on_timer(nullptr, 0, 0, 0);
    EXPECT_FALSE(event.wait_for_ms(20));
    EXPECT_GT(dispatched, 2);
    Thread thread;
    ASSERT_TRUE(thread.start("waker", [&] { event.signal(); }));
    EXPECT_TRUE(event.wait_for_ms(10'000));
    thread.join();
}

}  // namespace
}  // namespace tavistro::platform
