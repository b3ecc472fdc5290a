#include "support/realtime_guard.h"

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>

// The linker redirects all calls to the wrapped functions to this file (--wrap, see
// CMakeLists.txt). operator new and delete are replaced for the whole program.

namespace {

std::atomic<std::uint64_t> allocations{0};
std::atomic<std::uint64_t> locks{0};
std::atomic<std::uint64_t> sleeps{0};
std::atomic<bool (*)()> refuses_allocation{nullptr};

void count(std::atomic<std::uint64_t>& counter) {
    if (tavistro::test::scope_depth() > 0) counter.fetch_add(1, std::memory_order_relaxed);
}

void* allocated(std::size_t size) {
    count(allocations);
    const auto refuses = refuses_allocation.load();
    return refuses != nullptr && refuses() ? nullptr : std::malloc(size == 0 ? 1 : size);
}

}  // namespace

namespace tavistro::test {

void refuse_allocations(bool (*refuses)()) {
    refuses_allocation = refuses;
}

RealtimeViolations realtime_violations() {
    return {allocations, locks, sleeps};
}

void reset_realtime_violations() {
    allocations = locks = sleeps = 0;
}

}  // namespace tavistro::test

void* operator new(std::size_t size) {
    if (void* memory = allocated(size)) return memory;
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocated(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    // The address of the allocation is stored in front of the returned memory.
    std::size_t space = size + static_cast<std::size_t>(alignment);
    void* const begin = operator new(space + sizeof(void*));
    void* memory = static_cast<void**>(begin) + 1;
    std::align(static_cast<std::size_t>(alignment), size, memory, space);
    static_cast<void**>(memory)[-1] = begin;
    return memory;
}
void operator delete(void* memory, std::align_val_t) noexcept {
    if (memory != nullptr) operator delete(static_cast<void**>(memory)[-1]);
}
void operator delete(void* memory, std::size_t, std::align_val_t alignment) noexcept {
    operator delete(memory, alignment);
}
void operator delete(void* memory) noexcept {
    count(allocations);
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    operator delete(memory);
}

#define TAVISTRO_WRAP(counter, result, name, parameters, arguments) \
    result __real_##name parameters;                                \
    result __wrap_##name parameters {                               \
        count(counter);                                             \
        return __real_##name arguments;                             \
    }

extern "C" {
TAVISTRO_WRAP(locks, int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
TAVISTRO_WRAP(locks, int, pthread_mutex_trylock, (pthread_mutex_t * mutex), (mutex))
TAVISTRO_WRAP(locks, int, pthread_rwlock_rdlock, (pthread_rwlock_t * lock), (lock))
TAVISTRO_WRAP(locks, int, pthread_rwlock_wrlock, (pthread_rwlock_t * lock), (lock))
TAVISTRO_WRAP(locks, int, pthread_cond_signal, (pthread_cond_t * condition), (condition))
TAVISTRO_WRAP(locks, int, pthread_cond_broadcast, (pthread_cond_t * condition), (condition))
TAVISTRO_WRAP(sleeps, int, clock_nanosleep,
              (clockid_t clock, int flags, const timespec* time, timespec* left),
              (clock, flags, time, left))
TAVISTRO_WRAP(sleeps, int, sched_yield, (), ())
}
