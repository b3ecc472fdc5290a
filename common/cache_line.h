// Memory that begins where a line of the processor's cache begins.
#pragma once

#include <cstddef>
#include <new>
#include <vector>

namespace tavistro {

inline constexpr std::size_t cache_line_bytes = 64;

/// For standard containers. Throws std::bad_alloc as any allocator does.
template <typename T>
struct CacheLineAllocator {
    using value_type = T;
    CacheLineAllocator() = default;
    template <typename Other>
    CacheLineAllocator(const CacheLineAllocator<Other>&) noexcept {}

    T* allocate(std::size_t count) {
        return static_cast<T*>(
            ::operator new (count * sizeof(T), std::align_val_t{cache_line_bytes}));
    }
    void deallocate(T* memory, std::size_t) noexcept {
        ::operator delete (memory, std::align_val_t{cache_line_bytes});
    }
    friend bool operator==(CacheLineAllocator, CacheLineAllocator) noexcept { return true; }
};

template <typename T>
using CacheLineVector = std::vector<T, CacheLineAllocator<T>>;

}  // namespace tavistro
