#include "platform/threads.h"

#include <windows.h>

#include <avrt.h>
#include <timeapi.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "platform/windows/library.h"

namespace tavistro::platform {
namespace {

struct RolePriority {
    int thread_priority;
    const wchar_t* task;  // multimedia class
    AVRT_PRIORITY task_priority;
};

RolePriority priority_of(ThreadRole role) noexcept {
    switch (role) {
        case ThreadRole::network_receive:
            return {THREAD_PRIORITY_ABOVE_NORMAL, L"Audio", AVRT_PRIORITY_NORMAL};
        case ThreadRole::audio_device:
            return {THREAD_PRIORITY_HIGHEST, L"Pro Audio", AVRT_PRIORITY_HIGH};
    }
    return {THREAD_PRIORITY_NORMAL, L"Audio", AVRT_PRIORITY_NORMAL};
}

constexpr std::size_t longest_name = 15;

// Windows before 10 (1607) has no names for threads.
void name_current_thread(const char* name) noexcept {
    using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
    const auto set_description =
        find_function<SetDescription>(GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription");
    if (!set_description) return;
    std::array<wchar_t, longest_name + 1>
        wide{};  // on the stack: a thread starts without memory too
    std::copy_n(name, std::min(std::strlen(name), longest_name), wide.begin());
    set_description(GetCurrentThread(), wide.data());
}

}  // namespace

bool Thread::start(const char* name, std::function<void()> body) noexcept {
    try {
        thread_ = std::thread([name, run = std::move(body)] {
            name_current_thread(name);
            run();
        });
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// The scheduler's library is loaded at run time: some installations have none.
struct ScopedThreadRole::Class {
    explicit Class(const RolePriority& wanted) noexcept {
        if (!library) return;
        const auto enter = find_function<decltype(&AvSetMmThreadCharacteristicsW)>(
            library, "AvSetMmThreadCharacteristicsW");
        const auto set_priority =
            find_function<decltype(&AvSetMmThreadPriority)>(library, "AvSetMmThreadPriority");
        leave = find_function<decltype(&AvRevertMmThreadCharacteristics)>(
            library, "AvRevertMmThreadCharacteristics");
        if (!enter || !set_priority || !leave) return;
        DWORD task_index = 0;
        task = enter(wanted.task, &task_index);
        if (task) set_priority(task, wanted.task_priority);
    }
    Class(const Class&) = delete;
    Class& operator=(const Class&) = delete;
    ~Class() {
        if (task) leave(task);
        if (library) FreeLibrary(library);
    }

    HMODULE library = LoadLibraryW(L"avrt.dll");
    HANDLE task = nullptr;
    decltype(&AvRevertMmThreadCharacteristics) leave = nullptr;
};

ScopedThreadRole::ScopedThreadRole(ThreadRole role) noexcept {
    const RolePriority wanted = priority_of(role);
    SetThreadPriority(GetCurrentThread(), wanted.thread_priority);
    class_.reset(new (std::nothrow) Class(wanted));
}

ScopedThreadRole::~ScopedThreadRole() {
    class_.reset();
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_NORMAL);
}

ScopedTimerResolution::ScopedTimerResolution() noexcept {
    timeBeginPeriod(1);
}

ScopedTimerResolution::~ScopedTimerResolution() {
    timeEndPeriod(1);
}

}  // namespace tavistro::platform
