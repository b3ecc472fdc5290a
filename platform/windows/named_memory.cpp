#include "platform/named_memory.h"

#include <windows.h>

#include <atomic>

#include "platform/windows/wide.h"

namespace tavistro::platform {
namespace {

HANDLE create_or_open(const std::wstring& name, std::size_t bytes) noexcept {
    // A list that is present but null lets every user of the session in.
    SECURITY_DESCRIPTOR everyone{};
    if (!InitializeSecurityDescriptor(&everyone, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorDacl(&everyone, TRUE, nullptr, FALSE)) {
        return nullptr;
    }
    SECURITY_ATTRIBUTES attributes{sizeof attributes, &everyone, FALSE};
    const std::uint64_t size = bytes;
    return CreateFileMappingW(INVALID_HANDLE_VALUE, &attributes, PAGE_READWRITE,
                              static_cast<DWORD>(size >> 32), static_cast<DWORD>(size),
                              name.c_str());
}

template <typename Field>
bool exchange_each(void* view, std::size_t offset, std::span<const Field> fields) noexcept {
    auto* to = reinterpret_cast<Field*>(static_cast<std::byte*>(view) + offset);
    for (const Field field : fields)
        std::atomic_ref(*to++).exchange(field);
    return true;
}

}  // namespace

bool NamedMemory::open(const std::string& name, std::size_t bytes) {
    system_name_ = "Local\\" + name;
    const HANDLE mapping = create_or_open(widen(system_name_), bytes);
    if (mapping == nullptr) return false;
    handle_ = reinterpret_cast<std::intptr_t>(mapping);
    view_ = MapViewOfFile(mapping, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, bytes);
    if (view_ == nullptr) close();
    return view_ != nullptr;
}

bool NamedMemory::store(std::size_t offset, std::span<const std::uint32_t> fields) noexcept {
    return exchange_each(view_, offset, fields);
}

bool NamedMemory::store(std::size_t offset, std::span<const std::uint64_t> fields) noexcept {
    return exchange_each(view_, offset, fields);
}

void NamedMemory::close() noexcept {
    if (view_ != nullptr) UnmapViewOfFile(view_);
    view_ = nullptr;
    if (handle_ == -1) return;
    CloseHandle(reinterpret_cast<HANDLE>(handle_));
    handle_ = -1;
}

}  // namespace tavistro::platform
