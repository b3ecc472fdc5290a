// A fixed-size block of memory with a name that other processes of the session can open.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace tavistro::platform {

/// Holder of one named block, readable and writable by every user of the session.
///
/// Holders of the same name share one block. The name disappears when the last holder closes,
/// also if earlier holders crashed; a reader's mapping stays valid and shows the last contents.
/// Not thread-safe: one owner.
class NamedMemory {
  public:
    NamedMemory() noexcept = default;
    NamedMemory(const NamedMemory&) = delete;
    NamedMemory& operator=(const NamedMemory&) = delete;
    ~NamedMemory() { close(); }

    /// Creates or opens the block `name` (letters, digits and underscores, no prefix: the system's
    /// own is added) with `bytes` bytes. Existing contents stay; a new block is zero.
    /// False when the system refuses; nothing is held then. Precondition: not open.
    bool open(const std::string& name, std::size_t bytes);
    void close() noexcept;
    bool is_open() const noexcept { return handle_ != -1; }

    /// Stores neighbouring fields of one width, the first of them `offset` bytes into the block,
    /// and leaves the rest of the block alone; a reader sees each field whole, before or after.
    /// Safe even if other processes truncate or replace the block. False when the system refuses.
    /// Preconditions: open; `offset` is a multiple of the width.
    bool store(std::size_t offset, std::span<const std::uint32_t> fields) noexcept;
    bool store(std::size_t offset, std::span<const std::uint64_t> fields) noexcept;

  private:
    /// On systems where no other process can shrink mapped memory.
    [[maybe_unused]] void* view_ = nullptr;
    std::intptr_t handle_ = -1;
    std::string system_name_;
};

}  // namespace tavistro::platform
