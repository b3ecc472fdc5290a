#include "bench/diagnosis_lab/virtual_system.h"

#include <cstdlib>
#include <cstring>

#include "platform/clock.h"
#include "platform/named_memory.h"

namespace {

thread_local std::int64_t now_ns = 0;
thread_local bool block_is_open = false;
thread_local tavistro_stats_block block{};

bool store_at(std::size_t offset, std::span<const std::byte> bytes) noexcept {
    if (offset + bytes.size() > sizeof block) return false;
    std::memcpy(reinterpret_cast<std::byte*>(&block) + offset, bytes.data(), bytes.size());
    return true;
}

}  // namespace

namespace tavistro::diagnosis_lab {

void set_time_ns(std::int64_t ns) noexcept {
    now_ns = ns;
}
std::int64_t time_ns() noexcept {
    return now_ns;
}

std::optional<tavistro_stats_block> published_block() noexcept {
    return block_is_open ? std::optional(block) : std::nullopt;
}

}  // namespace tavistro::diagnosis_lab

namespace tavistro::platform {

std::int64_t performance_counter() noexcept {
    return now_ns;
}
std::int64_t performance_frequency() noexcept {
    return 1'000'000'000;
}
std::uint64_t millisecond_tick() noexcept {
    return static_cast<std::uint64_t>(now_ns / 1'000'000);
}
/// Code that runs in a world must not wait: nothing would wake it.
void sleep_ms(std::uint32_t) noexcept {
    std::abort();
}

// Plain memory, because a store through the system would take longer than all other work of a
// block.
bool NamedMemory::open(const std::string&, std::size_t bytes) {
    if (block_is_open || bytes != sizeof block) return false;
    block = {};
    block_is_open = true;
    handle_ = 0;
    return true;
}
void NamedMemory::close() noexcept {
    if (is_open()) block_is_open = false;
    handle_ = -1;
}
bool NamedMemory::store(std::size_t offset, std::span<const std::uint32_t> fields) noexcept {
    return is_open() && store_at(offset, std::as_bytes(fields));
}
bool NamedMemory::store(std::size_t offset, std::span<const std::uint64_t> fields) noexcept {
    return is_open() && store_at(offset, std::as_bytes(fields));
}

}  // namespace tavistro::platform
