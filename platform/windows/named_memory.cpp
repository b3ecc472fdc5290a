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

bool NamedMemory::publish(std::span<const std::uint64_t> words) noexcept {
    auto* to = static_cast<std::uint64_t*>(view_);
    for (const std::uint64_t word : words)
        std::atomic_ref(*to++).exchange(word);
    return true;
}

void NamedMemory::close() noexcept {
    if (view_ != nullptr) UnmapViewOfFile(view_);
    view_ = nullptr;
    if (handle_ == -1) return;
    CloseHandle(reinterpret_cast<HANDLE>(handle_));
    handle_ = -1;
}

}  // namespace tavistro::platform
